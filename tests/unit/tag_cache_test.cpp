#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tag_test_support.h"
#include "tags/tag_cache.h"

namespace plc {
namespace {

constexpr TagLookupLines kRead{827, 832, 844, 848};
constexpr TagLookupLines kBatch{2550, 2556, 2572, 2577};

PlcRequest request_for(uint16_t device, uint32_t tag_id = 0, uint16_t element = 0) {
    PlcRequest r{};
    r.device = device;
    r.tag_high = static_cast<uint8_t>(tag_id >> 16);
    r.address = ((tag_id & 0xFFFFu) << 16) | element;
    return r;
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
    TagTable *lookup(const PlcRequest &request, bool batch, std::string *output = nullptr,
                     const TagLookupLines &lines = kRead) {
        tagtest::InDirectory in(dir_.path());
        char name[kCsvNameSize];
        testing::internal::CaptureStdout();
        TagTable *table = find_or_build_tagtable(&settings_, request, lines, batch, name);
        const std::string printed = testing::internal::GetCapturedStdout();
        if (output != nullptr) *output = printed;
        return table;
    }

    static std::string plain_lines(int n) {
        std::string text;
        for (int i = 0; i < n; ++i) text += "v" + std::to_string(i) + ",DINT,,,,,," + std::to_string(i) + "\n";
        return text;
    }

    DriverSettings settings_{};
    tagtest::TempDir dir_;
};

TEST(TagCacheNaming, FileNameAndTagIdFollowTheHostRecords) {
    DriverSettings settings{};
    settings.ip_address = 0xC0A8FA01;
    PlcRequest r = request_for(5);
    char name[kCsvNameSize];
    get_csv_name(&settings, &r, name);
    EXPECT_STREQ(name, "PLCC0A8FA01_5.csv");
    settings.ip_address = 0xC0A8010A;
    r.device = 65535;
    get_csv_name1(&settings, &r, name);
    EXPECT_STREQ(name, "PLCC0A8010A_65535.csv");
    settings.ip_address = 0x0A000001; // no leading zeros
    get_csv_name(&settings, &r, name);
    EXPECT_STREQ(name, "PLCA000001_65535.csv");

    r.tag_high = 2;
    r.address = 0x12340005;
    EXPECT_EQ(compose_tag_id(r), 0x1234u);
    EXPECT_EQ(r.tag_high, 0);
    EXPECT_EQ(element_index(r), 5u);
    r.tag_high = 4;
    r.address = 0x00070003;
    EXPECT_EQ(compose_tag_id(r), 0x40007u);
    EXPECT_EQ(r.tag_high, 4);
    EXPECT_EQ(element_index(r), 3u);
}

TEST_F(TagCacheTest, ListIsBuiltOnceAndServedAfterTheFileIsGone) {
    dir_.write("PLC7F000001_1.csv", plain_lines(5));
    dir_.write("PLC7F000001_2.csv", plain_lines(2));
    std::string out;
    TagTable *first = lookup(request_for(1), false, &out);
    ASSERT_NE(first, nullptr) << out;
    EXPECT_EQ(out, "");
    EXPECT_EQ(first->name, "PLC7F000001_1.csv");
    EXPECT_EQ(first->tag_num, 5u);
    std::remove(dir_.file("PLC7F000001_1.csv").c_str());
    EXPECT_EQ(lookup(request_for(1), true, &out), first);
    EXPECT_EQ(out, "");

    TagTable *second = lookup(request_for(2), false);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->tag_num, 2u);
    EXPECT_EQ(g_plc_tags.tables.size(), 2u);
    EXPECT_EQ(get_tagtable(g_plc_tags, "PLC7F000001_1.csv"), first);

    // After a new initialisation the list is read again (and is now missing).
    init_tag(g_plc_tags);
    EXPECT_TRUE(g_plc_tags.tables.empty());
    EXPECT_EQ(get_tagtable(g_plc_tags, "PLC7F000001_2.csv"), nullptr);
    EXPECT_EQ(lookup(request_for(1), false, &out), nullptr);
    EXPECT_EQ(out, "[PLC] open PLC7F000001_1.csv file failed, at line: 381\r\n"
                   "[PLC] build tag table failed! at line 827\r\n");
    EXPECT_TRUE(g_plc_tags.tables.empty());
}

TEST_F(TagCacheTest, EmptyListIsAFailureOnlyForTheBatchEntry) {
    dir_.write("PLC7F000001_3.csv", "");
    std::string out;
    EXPECT_EQ(lookup(request_for(3), true, &out, kBatch), nullptr);
    EXPECT_EQ(out, "[PLC] build tag table failed! at line 2550\r\n");
    EXPECT_TRUE(g_plc_tags.tables.empty());
    TagTable *table = lookup(request_for(3), false, &out);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->tag_num + table->max_index_id, 0u);
}

TEST_F(TagCacheTest, RefusedListLeavesCacheAndSlotsAsTheyWere) {
    dir_.write("PLC7F000001_4.csv", "a,INT,,,,,,262144\nb,INT,,,,,,0\nc,INT,,,,,,0\n");
    groupID_table[0] = 3;
    std::string out;
    EXPECT_EQ(lookup(request_for(4), false, &out), nullptr);
    EXPECT_EQ(out, "[PLC] tag list PLC7F000001_4.csv refused: line 3 has plain tag id 0 where 1 was "
                   "expected\r\n"
                   "[PLC] build tag table failed! at line 827\r\n");
    EXPECT_EQ(groupID_table[0], 3u);
    EXPECT_TRUE(g_plc_tags.tables.empty());
}

TEST_F(TagCacheTest, TagIdBoundsAndMessagesPerEntry) {
    dir_.write("PLC7F000001_1.csv", plain_lines(5) + "i,INT,,,,,,262144\n" + "j,INT,,,,,,262145\n" +
                                        "k,INT,,,,,,270336\n" + "l,INT,,,,,,270337\n");
    TagTable *table = lookup(request_for(1), false);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->max_index_id, 270337u);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(check_tag_id(*table, 4, "PLC7F000001_1.csv", kRead, false));
    EXPECT_FALSE(check_tag_id(*table, 5, "PLC7F000001_1.csv", kRead, false));
    EXPECT_FALSE(check_tag_id(*table, 5, "PLC7F000001_1.csv", kBatch, true));
    EXPECT_TRUE(check_tag_id(*table, 270337, "PLC7F000001_1.csv", kRead, false));
    EXPECT_FALSE(check_tag_id(*table, 270338, "PLC7F000001_1.csv", kRead, false));
    EXPECT_FALSE(check_tag_id(*table, 270338, "PLC7F000001_1.csv", kBatch, true));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] tag id 5 is not exist in this tag list PLC7F000001_1.csv, at line: 844\r\n"
              "[PLC] tag id 5 is not exist in this tag list 5, at line: 2572\r\n"
              "[PLC] tag id 270338 is not exist in this tag list PLC7F000001_1.csv, at line: 848\r\n"
              "[PLC] tag id 270338 is not exist in this tag list 270337, at line: 2577\r\n");

    // Ids that pass the bound check but lie between groups have no entry.
    ASSERT_NE(find_entry(*table, 4), nullptr);
    EXPECT_STREQ(find_entry(*table, 4)->name, "v4");
    EXPECT_EQ(find_entry(*table, 5), nullptr);
    EXPECT_STREQ(find_entry(*table, 262144)->name, "i");
    EXPECT_STREQ(find_entry(*table, 262145)->name, "j");
    EXPECT_EQ(find_entry(*table, 262146), nullptr);
    EXPECT_EQ(find_entry(*table, 270335), nullptr);
    EXPECT_STREQ(find_entry(*table, 270337)->name, "l");
    EXPECT_EQ(find_group(*table, 270337), &table->indexedtag_table[1]);
    EXPECT_EQ(find_entry(*table, 278528), nullptr); // a block without a group of this list
    EXPECT_EQ(find_entry(*table, 0x103FFFF), nullptr);
    EXPECT_EQ(find_entry(*table, 0x1040000), nullptr);
    EXPECT_EQ(find_entry(*table, 0xFFFFFFFF), nullptr);
    EXPECT_EQ(find_group(*table, 4), nullptr);

    dir_.write("PLC7F000001_2.csv", plain_lines(1));
    TagTable *plain_only = lookup(request_for(2), false);
    ASSERT_NE(plain_only, nullptr);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(check_tag_id(*plain_only, 262144, "PLC7F000001_2.csv", kRead, false));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(find_entry(*plain_only, 262144), nullptr);
}

TEST_F(TagCacheTest, SlotsWrittenByAnotherListNeverLeadToAWrongEntry) {
    dir_.write("PLC7F000001_1.csv", "a0,INT,,,,,,262144\na1,INT,,,,,,262145\n"
                                    "b0,INT,,,,,,270336\nb1,INT,,,,,,270337\nb2,INT,,,,,,270338\n");
    dir_.write("PLC7F000001_2.csv", "x0,REAL,,,,,,270336\n");
    TagTable *a = lookup(request_for(1), false);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(lookup(request_for(2), false), nullptr);
    // List 2 took slot 1 (group 0 of its own): list 1's ids there are now lost,
    // never mapped onto its group 0.
    EXPECT_EQ(groupID_table[1], 0u);
    EXPECT_EQ(find_entry(*a, 270337), nullptr);
    EXPECT_STREQ(find_entry(*a, 262145)->name, "a1");
    groupID_table[0] = 999;
    EXPECT_EQ(find_entry(*a, 262144), nullptr);
    EXPECT_EQ(find_group(*a, 262144), nullptr);

    // A hand-made table with a group shorter than its count is still bounded.
    TagTable odd;
    odd.indexedtag_table.resize(1);
    odd.indexedtag_table[0].count = 9;
    odd.indexedtag_table[0].tags.resize(1);
    odd.indexedtag_table[0].tags[0].tag_id = 262144;
    groupID_table[0] = 0;
    EXPECT_NE(find_entry(odd, 262144), nullptr);
    EXPECT_EQ(find_entry(odd, 262145), nullptr);
    odd.indexedtag_table[0].tags.clear();
    EXPECT_EQ(find_entry(odd, 262144), nullptr);
}

TEST_F(TagCacheTest, FailedAdditionKeepsCacheAndReportsWhatFailed) {
    std::vector<TagEntry> plain(3);
    const uint32_t counts[2] = {3, 0};
    const char *name = "PLC7F000001_1234.csv"; // long enough to need its own allocation
    for (long n : {0L, 1L}) {
        testing::internal::CaptureStdout();
        int result = 0;
        {
            tagtest::FailAllocation fail(n);
            result = add_tagtable(g_plc_tags, name, std::move(plain), {}, counts);
        }
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(result, n == 0 ? -1 : -2);
        EXPECT_EQ(out, n == 0 ? "[PLC] malloc plc_tag failed at line 553\r\n"
                              : "[PLC] malloc name failed at line 558\r\n");
        EXPECT_TRUE(g_plc_tags.tables.empty());
        EXPECT_EQ(plain.size(), 3u); // the arrays stay with the caller
    }
    EXPECT_EQ(add_tagtable(g_plc_tags, name, std::move(plain), {}, counts), 1);
    ASSERT_NE(get_tagtable(g_plc_tags, name), nullptr);
    EXPECT_EQ(get_tagtable(g_plc_tags, name)->tag_str.size(), 3u);

    // The newest record of a name is found first.
    const uint32_t more[2] = {7, 0};
    EXPECT_EQ(add_tagtable(g_plc_tags, name, {}, {}, more), 1);
    EXPECT_EQ(get_tagtable(g_plc_tags, name)->tag_num, 7u);
    EXPECT_EQ(get_tagtable(g_plc_tags, "PLC7F000001_1.csv"), nullptr);
}

TEST_F(TagCacheTest, AdditionFailureInTheEntryStepIsReported) {
    dir_.write("PLC7F000001_1.csv", plain_lines(2));
    // The build allocates the plain array (1), then the cache record fails (2).
    tagtest::InDirectory in(dir_.path());
    const PlcRequest request = request_for(1);
    char name[kCsvNameSize];
    testing::internal::CaptureStdout();
    {
        tagtest::FailAllocation fail(1);
        EXPECT_EQ(find_or_build_tagtable(&settings_, request, kBatch, true, name), nullptr);
    }
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "[PLC] malloc plc_tag failed at line 553\r\n"
                   "[PLC] add_tagtable failed! at line 2556\r\n");
    EXPECT_TRUE(g_plc_tags.tables.empty());
}

} // namespace
} // namespace plc
