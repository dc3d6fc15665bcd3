#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tag_test_support.h"
#include "tags/tag_cache.h"

namespace plc {
namespace {

using tagtest::captured;

constexpr TagLookupLines kRead{827, 832, 844, 848};
constexpr TagLookupLines kBatch{2550, 2556, 2572, 2577};
const std::string kBuildFailed = "[PLC] build tag table failed! at line 827\r\n";

PlcRequest request_for(uint16_t device) {
    PlcRequest r{};
    r.device = device;
    return r;
}

std::string plain_lines(int n) {
    std::string text;
    for (int i = 0; i < n; ++i)
        text += "v" + std::to_string(i) + ",DINT,,,,,," + std::to_string(i) + "\n";
    return text;
}

class TagCacheTest : public testing::Test {
protected:
    void SetUp() override {
        init_tag(g_plc_tags);
        groupID_table.fill(0);
        settings_.ip_address = 0x7F000001;
    }
    void TearDown() override { init_tag(g_plc_tags); }

    // Runs the shared find-or-build step in the scratch directory.
    TagTable *lookup(uint16_t device, std::string *output = nullptr, bool batch = false,
                     const TagLookupLines &lines = kRead) {
        tagtest::InDirectory in(dir_.path());
        char name[kCsvNameSize];
        TagTable *table = nullptr;
        const std::string printed = captured([&] {
            table = find_or_build_tagtable(&settings_, request_for(device), lines, batch, name);
        });
        if (output != nullptr) *output = printed;
        return table;
    }

    DriverSettings settings_{};
    tagtest::TempDir dir_;
};

TEST(TagCacheNaming, FileNameAndTagIdFollowTheHostRecords) {
    DriverSettings settings{};
    settings.ip_address = 0x0A00010A; // no leading zeros
    PlcRequest r = request_for(65535);
    char name[kCsvNameSize];
    get_csv_name1(&settings, &r, name);
    EXPECT_STREQ(name, "PLCA00010A_65535.csv");
    r.tag_high = 2;
    r.address = 0x12340005;
    EXPECT_EQ(compose_tag_id(r), 0x1234u);
    EXPECT_EQ(r.tag_high, 0);
    EXPECT_EQ(element_index(r), 5u);
    r.tag_high = 4;
    EXPECT_EQ(compose_tag_id(r), 0x41234u);
}

TEST_F(TagCacheTest, ListIsBuiltOnceAndServedAfterTheFileIsGone) {
    dir_.write("PLC7F000001_1.csv", plain_lines(5));
    dir_.write("PLC7F000001_2.csv", plain_lines(2));
    std::string out;
    TagTable *first = lookup(1, &out);
    ASSERT_NE(first, nullptr) << out;
    EXPECT_EQ(out, "");
    EXPECT_EQ(first->name, "PLC7F000001_1.csv");
    EXPECT_EQ(first->tag_num, 5u);
    std::remove(dir_.file("PLC7F000001_1.csv").c_str());
    EXPECT_EQ(lookup(1, &out, true), first);

    TagTable *second = lookup(2);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->tag_num, 2u);
    EXPECT_EQ(get_tagtable(g_plc_tags, "PLC7F000001_1.csv"), first);

    // After a new initialisation the list is read again (and is now missing,
    // which is tried again on every request).
    init_tag(g_plc_tags);
    EXPECT_EQ(get_tagtable(g_plc_tags, "PLC7F000001_2.csv"), nullptr);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(lookup(1, &out), nullptr);
        EXPECT_NE(out.find("open PLC7F000001_1.csv file failed"), std::string::npos) << out;
    }
    EXPECT_TRUE(g_plc_tags.tables.empty());
}

TEST_F(TagCacheTest, EmptyListIsAFailureOnlyForTheBatchEntry) {
    dir_.write("PLC7F000001_3.csv", "");
    std::string out;
    EXPECT_EQ(lookup(3, &out, true, kBatch), nullptr);
    EXPECT_EQ(out, "[PLC] build tag table failed! at line 2550\r\n");
    EXPECT_TRUE(g_plc_tags.tables.empty());
    TagTable *table = lookup(3);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->tag_num + table->max_index_id, 0u);
}

TEST_F(TagCacheTest, RefusedListIsNotReadAgainUntilItsFileChanges) {
    const std::string bad = "a,INT,,,,,,262144\nb,INT,,,,,,0\nc,INT,,,,,,0\n";
    const std::string path = dir_.write("PLC7F000001_4.csv", bad);
    ASSERT_EQ(mkfifo(dir_.file("PLC7F000001_5.csv").c_str(), 0600), 0);
    groupID_table[0] = 3;
    std::string out;
    // Each step: device, then whether the list is read (and refused) again.
    const auto refused = [&](uint16_t device, bool read) {
        EXPECT_EQ(lookup(device, &out), nullptr);
        EXPECT_EQ(out.find(" refused: ") != std::string::npos, read) << out;
        EXPECT_NE(out.find(kBuildFailed), std::string::npos) << out;
    };
    refused(4, true);
    EXPECT_EQ(groupID_table[0], 3u);
    EXPECT_TRUE(g_plc_tags.tables.empty());
    refused(4, false);
    std::remove(path.c_str()); // gone: tried again
    refused(4, false);
    dir_.write("PLC7F000001_4.csv", bad);
    refused(4, true);
    init_tag(g_plc_tags); // forgets the refusal
    refused(4, true);
    refused(5, true); // a FIFO is refused once, then not even opened
    refused(5, false);
    // A read error may pass: /proc/self/mem is a regular file that fails at 0.
    ASSERT_EQ(symlink("/proc/self/mem", dir_.file("PLC7F000001_6.csv").c_str()), 0);
    refused(6, true);
    refused(6, true);
    dir_.write("PLC7F000001_4.csv", "a,INT,,,,,,262144\nb,INT,,,,,,0\n");
    ASSERT_NE(lookup(4, &out), nullptr) << out;
}

TEST_F(TagCacheTest, TagIdBoundsAndMessagesPerEntry) {
    dir_.write("PLC7F000001_1.csv", plain_lines(5) + "i,INT,,,,,,262144\n" + "j,INT,,,,,,262145\n" +
                                        "k,INT,,,,,,270336\n" + "l,INT,,,,,,270337\n");
    TagTable *table = lookup(1);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(
        captured([&] {
            EXPECT_TRUE(check_tag_id(*table, 4, "PLC7F000001_1.csv", kRead, false));
            EXPECT_FALSE(check_tag_id(*table, 5, "PLC7F000001_1.csv", kRead, false));
            EXPECT_FALSE(check_tag_id(*table, 5, "PLC7F000001_1.csv", kBatch, true));
            EXPECT_TRUE(check_tag_id(*table, 270337, "PLC7F000001_1.csv", kRead, false));
            EXPECT_FALSE(check_tag_id(*table, 270338, "PLC7F000001_1.csv", kRead, false));
            EXPECT_FALSE(check_tag_id(*table, 270338, "PLC7F000001_1.csv", kBatch, true));
        }),
        "[PLC] tag id 5 is not exist in this tag list PLC7F000001_1.csv, at line: 844\r\n"
        "[PLC] tag id 5 is not exist in this tag list 5, at line: 2572\r\n"
        "[PLC] tag id 270338 is not exist in this tag list PLC7F000001_1.csv, at line: 848\r\n"
        "[PLC] tag id 270338 is not exist in this tag list 270337, at line: 2577\r\n");

    // Ids that pass the bound check but lie between groups have no entry.
    const struct {
        uint32_t id;
        const char *name; // nullptr: outside every group
    } cases[] = {{4, "v4"},
                 {5, nullptr},
                 {262144, "i"},
                 {262145, "j"},
                 {262146, nullptr},
                 {270335, nullptr},
                 {270337, "l"},
                 {278528, nullptr},
                 {0x103FFFF, nullptr},
                 {0x1040000, nullptr},
                 {0xFFFFFFFF, nullptr}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.id);
        const TagLookup where = lookup_tag(*table, c.id);
        EXPECT_EQ(where.status, c.name ? TagLookupStatus::Found : TagLookupStatus::Outside);
        if (c.name) {
            EXPECT_STREQ(where.entry->name, c.name);
        }
    }
    EXPECT_EQ(find_group(*table, 270337), &table->indexedtag_table[1]);
    EXPECT_EQ(find_group(*table, 4), nullptr);

    // A hand-made group shorter than its count is still bounded.
    table->indexedtag_table[0].count = 9;
    EXPECT_EQ(lookup_tag(*table, 262146).status, TagLookupStatus::Outside);
    table->indexedtag_table[0].tags.clear();
    EXPECT_EQ(find_entry(*table, 262144), nullptr);
}

TEST_F(TagCacheTest, ShadowedIdsAreNotFoundAndNameTheGroupThatTookTheirBlock) {
    dir_.write("PLC7F000001_1.csv", "a0,INT,,,,,,262144\na1,INT,,,,,,262145\n"
                                    "b0,INT,,,,,,270336\nb1,INT,,,,,,270337\n"
                                    "c0,INT,,,,,,262150\nc1,INT,,,,,,262151\n");
    dir_.write("PLC7F000001_2.csv", "x0,REAL,,,,,,270336\n");
    TagTable *a = lookup(1);
    ASSERT_NE(a, nullptr);
    const TagLookup where = lookup_tag(*a, 262145);
    EXPECT_EQ(where.status, TagLookupStatus::Shadowed);
    EXPECT_EQ(where.group, &a->indexedtag_table[0]);
    EXPECT_EQ(where.owner, &a->indexedtag_table[2]);
    EXPECT_EQ(find_entry(*a, 262145), nullptr);
    EXPECT_STREQ(find_entry(*a, 262151)->name, "c1");

    // List 2 takes block 1 with its group 0: list 1's ids there are lost,
    // never mapped onto list 1's group 0.
    ASSERT_NE(lookup(2), nullptr);
    EXPECT_EQ(groupID_table[1], 0u);
    const TagLookup other = lookup_tag(*a, 270337);
    EXPECT_EQ(other.status, TagLookupStatus::Shadowed);
    EXPECT_EQ(other.owner_table, get_tagtable(g_plc_tags, "PLC7F000001_2.csv"));
    groupID_table[0] = 999;
    const TagLookup unknown = lookup_tag(*a, 262151);
    EXPECT_EQ(unknown.owner, nullptr);
    groupID_table[0] = 2;

    EXPECT_EQ(captured([&] {
                  print_unreachable_tag(*a, 262145, where);
                  print_unreachable_tag(*a, 270337, other);
                  print_unreachable_tag(*a, 262151, unknown);
                  print_unreachable_tag(*a, 262151, lookup_tag(*a, 262151)); // found: silent
              }),
              "[PLC] tag id 262145 cannot be reached in tag list PLC7F000001_1.csv: the group of "
              "tag ids 262150 to 262151 took its id block\r\n"
              "[PLC] tag id 270337 cannot be reached in tag list PLC7F000001_1.csv: the group of "
              "tag ids 270336 to 270336 in tag list PLC7F000001_2.csv took its id block\r\n"
              "[PLC] tag id 262151 cannot be reached in tag list PLC7F000001_1.csv: a group of "
              "another tag list took its id block\r\n");

    // The single entries' lookup says so too, and fails the request.
    TagTable *table = nullptr;
    const std::string out = captured([&] {
        EXPECT_EQ(find_request_entry(&settings_, request_for(1), 262144, kRead, &table), nullptr);
    });
    EXPECT_NE(out.find("tag id 262144 cannot be reached"), std::string::npos) << out;
}

TEST_F(TagCacheTest, FailedAdditionKeepsCacheAndReportsWhatFailed) {
    std::vector<TagEntry> plain(3);
    const uint32_t counts[2] = {3, 0};
    const char *name = "PLC7F000001_1234.csv"; // long enough to need its own allocation
    for (long n : {0L, 1L}) {
        int result = 0;
        const std::string out = captured([&] {
            tagtest::FailAllocation fail(n);
            result = add_tagtable(g_plc_tags, name, std::move(plain), {}, counts);
        });
        EXPECT_EQ(result, n == 0 ? -1 : -2);
        EXPECT_EQ(out, n == 0 ? "[PLC] malloc plc_tag failed at line 553\r\n"
                              : "[PLC] malloc name failed at line 558\r\n");
        EXPECT_TRUE(g_plc_tags.tables.empty());
        EXPECT_EQ(plain.size(), 3u); // the arrays stay with the caller
    }
    EXPECT_EQ(add_tagtable(g_plc_tags, name, std::move(plain), {}, counts), 1);
    EXPECT_EQ(get_tagtable(g_plc_tags, name)->tag_str.size(), 3u);
    // The newest record of a name is found first.
    const uint32_t more[2] = {7, 0};
    EXPECT_EQ(add_tagtable(g_plc_tags, name, {}, {}, more), 1);
    EXPECT_EQ(get_tagtable(g_plc_tags, name)->tag_num, 7u);

    // In the entry step: the build allocates the plain array (1), then the
    // cache record fails (2).
    init_tag(g_plc_tags);
    dir_.write("PLC7F000001_1.csv", plain_lines(2));
    tagtest::InDirectory in(dir_.path());
    char file_name[kCsvNameSize];
    const std::string out = captured([&] {
        tagtest::FailAllocation fail(1);
        EXPECT_EQ(find_or_build_tagtable(&settings_, request_for(1), kBatch, true, file_name),
                  nullptr);
    });
    EXPECT_EQ(out, "[PLC] malloc plc_tag failed at line 553\r\n"
                   "[PLC] add_tagtable failed! at line 2556\r\n");
    EXPECT_TRUE(g_plc_tags.tables.empty());
}

} // namespace
} // namespace plc
