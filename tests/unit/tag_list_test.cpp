#include <cstring>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tag_test_support.h"
#include "tags/cip_types.h"
#include "tags/tag_line.h"
#include "tags/tag_list.h"

namespace plc {
namespace {

using tagtest::captured;

TEST(TagTypes, LookupsFollowTheUnorderedTableExactly) {
    const struct {
        uint32_t code;
        const char *name;
        uint32_t bits;
    } rows[] = {{0xC1, "BOOL", 1},    {0xCB, "LREAL", 64},      {0xD0, "STRING", 0},
                {0xD5, "STRING2", 0}, {0xCE, "TIME_OF_DAY", 0}, {0xCF, "DATE_AND_TIME", 0},
                {0xD6, "TIME", 64}};
    for (const auto &row : rows) {
        EXPECT_STREQ(type2str(row.code), row.name);
        EXPECT_EQ(type2bits(row.code), row.bits);
        EXPECT_EQ(find_type_by_name(row.name)->code, row.code);
    }
    for (const char *text : {"Dint", "DINT ", ""}) EXPECT_EQ(find_type_by_name(text), nullptr);
    EXPECT_EQ(find_type_by_name(std::string_view("TIMEX", 4))->code, 0xD6);
    std::set<uint32_t> double_words;
    for (uint32_t code = 0; code <= 0x1FFFF; ++code) {
        if (is_double_word_type(code)) double_words.insert(code);
    }
    EXPECT_EQ(double_words, (std::set<uint32_t>{0xC5, 0xC9, 0xCB, 0xD4}));
}

TEST(TagTypes, UnknownCodesPrintTheirLineAndClearTheSharedBuffer) {
    EXPECT_EQ(captured([] {
                  EXPECT_EQ(type2str(0xFFFF), nullptr);  // the terminator is not a type
                  EXPECT_EQ(type2str(0x100C1), nullptr); // only the low 16 bits of a code exist
                  EXPECT_EQ(type2bits(0xD7), 0u);
              }),
              "[PLC] don't find this type id at line 75\r\n"
              "[PLC] don't find this type id at line 75\r\n"
              "[PLC] don't find this type id at line 87\r\n");
    const char *text = type2str(0xC4);
    ASSERT_STREQ(text, "DINT");
    type2bits(0xC2);
    EXPECT_STREQ(text, "");
    type2str(0xCF); // a longer name followed by a shorter one leaves no tail
    EXPECT_STREQ(type2str(0xC3), "INT");
}

// An entry as one line of text: name bits code dim bounds str_len bit_no id.
std::string shape(const TagEntry &e) {
    char text[400];
    std::snprintf(text, sizeof text, "%s %u %X d%u %u..%u %u..%u %u..%u s%u b%u #%u", e.name,
                  e.bits, e.type_code, e.dim_type, e.lo1, e.hi1, e.lo2, e.hi2, e.lo3, e.hi3,
                  e.str_len, e.bit_no, e.tag_id);
    return text;
}

struct Built {
    const uint32_t *counts = nullptr;
    std::vector<TagEntry> plain;
    std::vector<IndexedGroup> groups;
    std::string output;
};

class TagListTest : public testing::Test {
protected:
    void SetUp() override { groupID_table.fill(0); }

    std::string write(const std::string &content) { return dir_.write("list.csv", content); }

    Built build(const std::string &path) {
        Built b;
        b.output = captured(
            [&] { b.counts = build_tagtable(&b.plain, &b.groups, path.c_str(), groupID_table); });
        return b;
    }

    tagtest::TempDir dir_;
};

TEST(TagLine, FieldsGiveTheirDeclaredShapes) {
    const struct {
        const char *line;
        const char *shape;
    } cases[] = {
        {"A,DINT,,,,,,0\n", "A 32 C4 d0 0..0 0..0 0..0 s0 b0 #0"},
        {"B,REAL,[0..9],,,,,1\n", "B 32 CA d1 0..9 0..0 0..0 s0 b0 #1"},
        {"S,STRING,[1..4],20,,,,2\r\n", "S 0 D0 d3 0..0 0..0 0..0 s20 b0 #2"},
        {"S2,STRING2,,30,,,,0\n", "S2 0 D5 d0 0..0 0..0 0..0 s0 b0 #0"},
        {"C,DINT,[0..1_0..2_0..3],,,,,8\n", "C 32 C4 d5 0..1 0..2 0..3 s0 b0 #8"},
        // Double words: 32-bit halves, a scalar as [0..1], every bound doubled.
        {"L,LINT,,,,,,3\n", "L 32 C5 d1 0..1 0..0 0..0 s0 b0 #3"},
        {"LA,LREAL,[0..9],,,,,4\n", "LA 32 CB d1 0..18 0..0 0..0 s0 b0 #4"},
        {"U,ULINT,[1..2_0..3],,,,,0\n", "U 32 C9 d4 2..4 0..6 0..0 s0 b0 #0"},
        {"W,LWORD,[1..2_3..4_5..6],,,,,0\n", "W 32 D4 d5 2..4 6..8 10..12 s0 b0 #0"},
        {"T,TIME,,,,,,5\n", "T 64 D6 d0 0..0 0..0 0..0 s0 b0 #5"},
        {"T,TIME,[0..9],,,,,5\n", "T 64 D6 d1 0..9 0..0 0..0 s0 b0 #5"},
        {"D,DWORD,[0..9],,,,,0\n", "D 32 D3 d1 0..9 0..0 0..0 s0 b0 #0"},
        // The name rule; an empty type field leaves the entry untyped.
        {"Line,Speed,Mode,UINT,,,Speed,,Basic,9\r\n",
         "Line,Speed,Mode 16 C7 d0 0..0 0..0 0..0 s0 b0 #9"},
        {"N,,,,,,,4\n", "N 0 0 d0 0..0 0..0 0..0 s0 b0 #4"},
        // Bit numbers: at most two hexadecimal digits after the first '.'.
        {"F,BOOL,,,,W100.05,,0\n", "F 1 C1 d0 0..0 0..0 0..0 s0 b5 #0"},
        {"F,BOOL,,,,W100,,0\n", "F 1 C1 d0 0..0 0..0 0..0 s0 b0 #0"},
        {"F,BOOL,,,,10.A,,0\n", "F 1 C1 d0 0..0 0..0 0..0 s0 b10 #0"},
        {"F,BOOL,,,,10.15,,0\n", "F 1 C1 d0 0..0 0..0 0..0 s0 b15 #0"},
        {"F,BOOL,,,,10.f,,0\n", "F 1 C1 d0 0..0 0..0 0..0 s0 b15 #0"},
        // Bounds and lengths that do not match their pattern are kept as far
        // as they were read, as unsigned 16-bit numbers.
        {"A,INT,[0..9,,,,,5 \n", "A 16 C3 d1 0..9 0..0 0..0 s0 b0 #5"},
        {"B,INT,[0..1_0..1_0..1_0..1],,,,,1\n", "B 16 C3 d1 0..1 0..0 0..0 s0 b0 #1"},
        {"C,INT,[5..3],,,,,2\n", "C 16 C3 d1 5..3 0..0 0..0 s0 b0 #2"},
        {"D,INT,[-1..65536],,,,,3\n", "D 16 C3 d1 65535..0 0..0 0..0 s0 b0 #3"},
        {"E,LINT,[0..40000],,,,,4\n", "E 32 C5 d1 0..14464 0..0 0..0 s0 b0 #4"},
        {"S,STRING,,80000,,,,5\n", "S 0 D0 d3 0..0 0..0 0..0 s14464 b0 #5"},
        {"T,STRING,,x,,,,6\n", "T 0 D0 d3 0..0 0..0 0..0 s0 b0 #6"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        TagEntry e;
        std::memset(&e, 0x5A, sizeof e); // the entry is zero-filled first
        LineReason why;
        EXPECT_TRUE(pase_str(c.line, e, why)) << why.text();
        EXPECT_EQ(shape(e), c.shape);
    }
}

TEST(TagLine, RefusedLineNeverWritesBeyondTheEntry) {
    std::string huge(5000, 'n');
    for (int i = 0; i < 40; ++i) huge += "," + std::string(150, 'p');
    TagEntry e;
    LineReason why;
    EXPECT_FALSE(pase_str(huge, e, why));
    EXPECT_EQ(std::strlen(e.name), sizeof e.name - 1);
}

TEST(TagLine, SimpleVariantReadsOnlyItsOwnFields) {
    const struct {
        std::string line;
        std::string shape;
    } cases[] = {
        {"X,Y,INT,,,,,6\n", "X 0 0 d1 0..0 0..0 0..0 s0 b0 #0"}, // no name rule, no tag id
        {"L,LINT,[0..1_0..2],,,W3.0B,,9\n", "L 64 C5 d1 0..1 0..0 0..0 s0 b11 #0"},
        {"S,STRING,[0..4],16,,,,3\n", "S 0 D0 d3 0..4 0..0 0..0 s16 b0 #0"}, // bounds kept
        {std::string(400, 'n') + ",DINT,,,,,,0\n",
         std::string(255, 'n') + " 32 C4 d0 0..0 0..0 0..0 s0 b0 #0"},
    };
    for (const auto &c : cases) {
        TagEntry e;
        std::memset(&e, 0x33, sizeof e);
        EXPECT_EQ(add_tag_pase_str(c.line.c_str(), &e), 0);
        EXPECT_EQ(shape(e), c.shape);
    }
    EXPECT_EQ(add_tag_pase_str(nullptr, nullptr), -1);
}

TEST_F(TagListTest, ParseTouchesNothingAndBuildFillsTheSlots) {
    groupID_table[7] = 77; // slots no group of the list uses keep their values
    const std::string path = write("P0,INT,,,,,,0\n"
                                   "I0,REAL,,,,,,262144\n"
                                   "I1,REAL,,,,,,262145\n"
                                   "P1,INT,,,,,,1\n" // does not split the group
                                   "I2,REAL,,,,,,262146\n"
                                   "\n"
                                   "J0,DINT,,,,,,270336\r\n"
                                   "\r\n"
                                   "J1,DINT,,,,,,270337\n"
                                   "K0,LINT,[0..3],,,,,278528\n"
                                   "K9,LINT,[0..3],,,,,278529");
    ParsedTagList list;
    EXPECT_EQ(captured([&] { list = parse_tag_list(path.c_str()); }), "");
    ASSERT_EQ(list.status, TagListStatus::Accepted);
    EXPECT_EQ(list.unterminated_line, 11u); // reported, not taken
    EXPECT_EQ(groupID_table[0] + groupID_table[1] + groupID_table[2], 0u);

    const Built b = build(path);
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.output, "");
    EXPECT_EQ(b.counts[0], 2u);
    EXPECT_EQ(b.counts[1], 0x44000u);
    ASSERT_EQ(b.groups.size(), 3u);
    EXPECT_EQ((std::vector<uint32_t>{b.groups[0].count, b.groups[1].count, b.groups[2].count}),
              (std::vector<uint32_t>{3, 2, 1}));
    EXPECT_STREQ(b.groups[0].tags[2].name, "I2");
    EXPECT_EQ(b.groups[1].tags[1].tag_id, 270337u);
    EXPECT_EQ(b.groups[2].tags[0].hi1, 6) << "the upper bound of a 64-bit array, doubled";
    EXPECT_STREQ(b.plain[1].name, "P1");
    EXPECT_EQ((std::vector<uint32_t>{groupID_table[0], groupID_table[1], groupID_table[2],
                                     groupID_table[7]}),
              (std::vector<uint32_t>{0, 1, 2, 77}));

    const Built empty = build(write(""));
    ASSERT_NE(empty.counts, nullptr);
    EXPECT_EQ(empty.counts[0] + empty.counts[1], 0u);
}

TEST_F(TagListTest, GroupsSharingABlockAreShadowedByTheLastOne) {
    const std::string path = write("a,INT,,,,,,262144\n"
                                   "b,INT,,,,,,262149\n"
                                   "c0,INT,,,,,,262153\n"
                                   "c1,INT,,,,,,262154\n"
                                   "d,INT,,,,,,270336\n");
    const ParsedTagList list = parse_tag_list(path.c_str());
    ASSERT_EQ(list.status, TagListStatus::Accepted);
    std::vector<size_t> owners;
    for (size_t g = 0; g < list.groups.size(); ++g) owners.push_back(list.block_owner(g));
    EXPECT_EQ(owners, (std::vector<size_t>{2, 2, 2, 3}));

    const Built b = build(path);
    ASSERT_NE(b.counts, nullptr);
    EXPECT_EQ(b.output, "[PLC] tag list " + path +
                            ": tag ids 262144 to 262144 cannot be reached, "
                            "the group of tag ids 262153 to 262154 took their id block\r\n"
                            "[PLC] tag list " +
                            path +
                            ": tag ids 262149 to 262149 cannot be reached, "
                            "the group of tag ids 262153 to 262154 took their id block\r\n");
    EXPECT_EQ(groupID_table[0], 2u);
    EXPECT_EQ(groupID_table[1], 3u);
}

TEST_F(TagListTest, LimitsAreInclusive) {
    std::string text;
    for (uint32_t i = 0; i < 255; ++i) text += "g,INT,,,,,," + std::to_string(0x40000 + i) + "\n";
    // The last id of block 2079, and a line of exactly 255 characters.
    text += "z,INT,,,,,," + std::to_string(0x103FFFF) + "\n";
    std::string name(255 - std::string(",SINT,,,,,,0\n").size(), 'x');
    text = name + ",SINT,,,,,,0\n" + text;
    Built b = build(write(text));
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.groups[0].count, 255);
    EXPECT_EQ(b.counts[1], 0x103FFFFu);
    EXPECT_EQ(groupID_table[2047], 1u);
    EXPECT_EQ(std::strlen(b.plain[0].name), name.size());

    text.clear();
    for (uint32_t g = 0; g < 512; ++g)
        text += "g,INT,,,,,," + std::to_string(0x40000 + g * 8192) + "\n";
    b = build(write(text));
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.groups.size(), 512u);
    EXPECT_EQ(groupID_table[511], 511u);
}

TEST_F(TagListTest, UnreadableFilesAreRefusedWithLineAndReason) {
    std::string big_group;
    for (uint32_t i = 0; i < 256; ++i)
        big_group += "g,INT,,,,,," + std::to_string(0x40000 + i) + "\n";
    std::string many_groups;
    for (uint32_t g = 0; g < 513; ++g)
        many_groups += "g,INT,,,,,," + std::to_string(0x40000 + g * 8192) + "\n";
    // One full reason per kind; further faults of a kind by their beginning.
    const struct {
        std::string content;
        std::string reason;
    } cases[] = {
        {"A,DINT,,,,,,0\nno comma here\n", "line 2 has no ','"},
        {"A,DINT,,,,,0\n", "line 1 has fewer than eight fields"},
        {"A,DINT,,,,,,0,1\n", "line 1 has more than eight fields"},
        {"A,Dint,[0..9],20,note,W1.0,Basic,0\n", "line 1 names no data type"},
        {"A,Dint,,,,,,0\n", "line 1 has fewer than eight fields (\"Dint\" is not a data type)"},
        {"A,DINT,,,,,," + std::string(300, '0') + "\n", "line 1 is longer than 255 characters"},
        {"A,DINT,,,,,,0x10\n",
         "line 1 has a tag id \"0x10\" that is not a decimal number from 0 to 17039359"},
        {"A,DINT,,,,,,-1\n", "line 1 has a tag id \"-1\""},
        {"A,DINT,,,,,,17039360\n", "line 1 has a tag id \"17039360\""},
        {"A,DINT,,,,,,\n", "line 1 has a tag id \"\""},
        {"A,DINT,,,,,,0\nB,DINT,,,,,,2\n", "line 2 has plain tag id 2 where 1 was expected"},
        {"A,DINT,,,,,,0\nB,DINT,,,,,,0\n", "line 2 has plain tag id 0 where"},
        {"A,DINT,,,,,,1\n", "line 1 has plain tag id 1 where"},
        {big_group,
         "line 256 has tag id 262399, making the group starting at 262144 longer than 255 entries"},
        {"a,INT,,,,,,270335\nb,INT,,,,,,270336\n",
         "line 2 has tag id 270336, which continues the group starting at 270335 across an id "
         "block boundary"},
        {many_groups, "line 513 has tag id 4456448, which starts a group beyond the 512 allowed"},
        {"A," + std::string(100, 'q') + ",DINT,,,,,,0\n",
         "line 1 has a name part longer than 99 characters"},
        {"A,INT,[0.." + std::string(100, '1') + "],,,,,0\n",
         "line 1 has an array bounds field longer than 99 characters"},
        {"S,STRING,,12345678,,,,0\n", "line 1 has a string length field longer than 7 characters"},
        {"A,BOOL,,,,W1.123,,0\n",
         "line 1 has more than 2 characters after the '.' of address \"W1.123\""},
        {"A,BOOL,,,,W1.G,,0\n",
         "line 1 has a bit number in address \"W1.G\" that is not hexadecimal"},
        {std::string("A,DINT,,,,,,0\nB,DINT,,\0,,,,1\n", 29), "line 2 contains a NUL character"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reason);
        const std::string path = write(c.content);
        const ParsedTagList list = parse_tag_list(path.c_str());
        ASSERT_EQ(list.status, TagListStatus::Refused);
        EXPECT_TRUE(list.refusal.lasting);
        EXPECT_TRUE(list.plain.empty() && list.groups.empty());
        const std::string got =
            "line " + std::to_string(list.refusal.line) + " " + list.refusal.reason;
        EXPECT_EQ(got.substr(0, c.reason.size()), c.reason);
    }

    // The driver prints the refusal and keeps what its last good build gave.
    const Built good = build(write("A,DINT,,,,,,0\ni,INT,,,,,,262150\n"));
    ASSERT_NE(good.counts, nullptr);
    groupID_table.fill(9);
    Built bad;
    bad.plain.resize(3);
    const std::string path = write("A,DINT,,,,,,0\nB,DINT,,,,,,0\nc,INT,,,,,,270336\n");
    EXPECT_EQ(captured([&] {
                  EXPECT_EQ(build_tagtable(&bad.plain, &bad.groups, path.c_str(), groupID_table),
                            nullptr);
              }),
              "[PLC] tag list " + path +
                  " refused: line 2 has plain tag id 0 where 1 was expected\r\n");
    EXPECT_EQ(bad.plain.size(), 3u);
    EXPECT_EQ(groupID_table[1], 9u);
    EXPECT_EQ(good.counts[0], 1u);
    EXPECT_EQ(good.counts[1], 262150u);
}

TEST_F(TagListTest, OnlyRegularFilesAreOpenedAndNeverWaitedFor) {
    alarm(10); // a blocking open would hang here: fail instead
    const std::string fifo = dir_.file("PLC7F000001_9.csv");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &path : {fifo, dir_.path()}) {
        EXPECT_EQ(build(path).output,
                  "[PLC] tag list " + path + " refused: it is not a regular file\r\n");
        EXPECT_TRUE(parse_tag_list(path.c_str()).refusal.lasting);
    }
    alarm(0);
    const std::string absent = dir_.file("absent.csv");
    const Built b = build(absent);
    EXPECT_EQ(b.counts, nullptr);
    EXPECT_EQ(b.output, "[PLC] open " + absent + " file failed, at line: 381\r\n");
}

TEST_F(TagListTest, EveryAllocationFailureIsReportedAndLeavesNoTrace) {
    const std::string path = write("A,DINT,,,,,,0\nB,REAL,,,,,,1\n"
                                   "i,INT,,,,,,262144\ni,INT,,,,,,262145\nj,INT,,,,,,270336\n");
    std::vector<std::string> messages;
    for (long n = 0;; ++n) {
        ASSERT_LT(n, 100);
        groupID_table.fill(5);
        std::vector<TagEntry> plain(1);
        std::vector<IndexedGroup> groups(1);
        const uint32_t *counts = nullptr;
        bool fired = false;
        const std::string output = captured([&] {
            tagtest::FailAllocation fail(n);
            counts = build_tagtable(&plain, &groups, path.c_str(), groupID_table);
            fired = fail.fired();
        });
        if (!fired) {
            ASSERT_NE(counts, nullptr);
            EXPECT_EQ(groups.size(), 2u);
            break;
        }
        EXPECT_EQ(counts, nullptr);
        EXPECT_EQ(groupID_table[0], 5u);
        EXPECT_EQ(plain.size(), 1u);
        messages.push_back(output);
    }
    EXPECT_EQ(messages, (std::vector<std::string>{
                            "[PLC] malloc tag_str failed at line 427\r\n",
                            "[PLC] malloc indexedtag_table failed at line 432\r\n",
                            "[PLC] malloc indextag failed at line 440\r\n",
                            "[PLC] malloc indextag failed at line 440\r\n",
                        }));
}

TEST_F(TagListTest, ShippedExampleListIsAccepted) {
    const Built b = build(PLC_SOURCE_DIR "/examples/PLC7F000001_1.csv");
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.counts[0], 39u);
    EXPECT_EQ(b.counts[1], 524289u);
    EXPECT_EQ(b.groups.size(), 5u);
    std::set<uint16_t> types;
    for (const auto &e : b.plain) types.insert(e.type_code);
    EXPECT_EQ(types.size(), 22u); // every type of the table
}

} // namespace
} // namespace plc
