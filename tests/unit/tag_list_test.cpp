#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tag_test_support.h"
#include "tags/tag_list.h"

namespace plc {
namespace {

struct Built {
    const uint32_t *counts = nullptr;
    std::vector<TagEntry> plain;
    std::vector<IndexedGroup> groups;
    std::string output;
};

class TagListTest : public testing::Test {
protected:
    void SetUp() override { groupID_table.fill(0); }

    Built build(const std::string &content) {
        Built b;
        const std::string path = dir_.write("list.csv", content);
        testing::internal::CaptureStdout();
        b.counts = build_tagtable(&b.plain, &b.groups, path.c_str(), groupID_table);
        b.output = testing::internal::GetCapturedStdout();
        return b;
    }

    std::string refused(const std::string &reason) const {
        return "[PLC] tag list " + dir_.file("list.csv") + " refused: " + reason + "\r\n";
    }

    tagtest::TempDir dir_;
};

TagEntry parse(const char *line) {
    TagEntry e;
    std::memset(&e, 0x5A, sizeof e); // pase_str must not depend on a clean entry
    EXPECT_EQ(pase_str(line, &e), 0);
    return e;
}

TEST_F(TagListTest, PlainLinesGiveTheirDeclaredShapes) {
    const Built b = build("A,DINT,,,,,,0\n"
                          "B,REAL,[0..9],,,,,1\n"
                          "S,STRING,,20,,,,2\r\n"
                          "L,LINT,,,,,,3\n"
                          "LA,LREAL,[0..9],,,,,4\n"
                          "T,TIME,,,,,,5\n"
                          "X,Y,INT,,,,,,6\n"
                          "M,INT,[1..2_0..3],,,,,7\n"
                          "C,DINT,[0..1_0..2_0..3],,,,,8\n"
                          "Line,Speed,Mode,UINT,,,Speed of line,,Basic,9\r\n"
                          "F,BOOL,,,,W100.05,,10\n"
                          "last,DINT,,,,,,11");
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.output, "");
    EXPECT_EQ(b.counts[0], 11u); // the last line has no newline
    EXPECT_EQ(b.counts[1], 0u);
    EXPECT_TRUE(b.groups.empty());
    ASSERT_EQ(b.plain.size(), 11u);
    for (uint32_t i = 0; i < 11; ++i) EXPECT_EQ(b.plain[i].tag_id, i);

    const auto &a = b.plain[0];
    EXPECT_STREQ(a.name, "A");
    EXPECT_EQ(a.bits, 32u);
    EXPECT_EQ(a.type_code, 0xC4);
    EXPECT_EQ(a.dim_type, 0u);

    const auto &r = b.plain[1];
    EXPECT_EQ(r.type_code, 0xCA);
    EXPECT_EQ(r.dim_type, 1u);
    EXPECT_EQ(r.lo1, 0);
    EXPECT_EQ(r.hi1, 9);

    const auto &s = b.plain[2];
    EXPECT_EQ(s.dim_type, 3u);
    EXPECT_EQ(s.str_len, 20);
    EXPECT_EQ(s.lo1 + s.hi1, 0);

    const auto &l = b.plain[3];
    EXPECT_EQ(l.bits, 32u);
    EXPECT_EQ(l.dim_type, 1u);
    EXPECT_EQ(l.lo1, 0);
    EXPECT_EQ(l.hi1, 1);

    EXPECT_EQ(b.plain[4].bits, 32u);
    EXPECT_EQ(b.plain[4].lo1, 0);
    EXPECT_EQ(b.plain[4].hi1, 18);

    EXPECT_EQ(b.plain[5].bits, 64u);
    EXPECT_EQ(b.plain[5].dim_type, 0u);

    EXPECT_STREQ(b.plain[6].name, "X,Y");
    EXPECT_EQ(b.plain[6].type_code, 0xC3);

    const auto &m = b.plain[7];
    EXPECT_EQ(m.dim_type, 4u);
    EXPECT_EQ(m.lo1, 1);
    EXPECT_EQ(m.hi1, 2);
    EXPECT_EQ(m.lo2, 0);
    EXPECT_EQ(m.hi2, 3);

    const auto &c = b.plain[8];
    EXPECT_EQ(c.dim_type, 5u);
    EXPECT_EQ(c.hi1, 1);
    EXPECT_EQ(c.hi2, 2);
    EXPECT_EQ(c.hi3, 3);

    EXPECT_STREQ(b.plain[9].name, "Line,Speed,Mode");
    EXPECT_EQ(b.plain[9].type_code, 0xC7);
    EXPECT_EQ(b.plain[10].bit_no, 5u);
}

TEST(TagLineParse, DoubleWordsDoubleEveryBoundOthersKeepThem) {
    TagEntry e = parse("U,ULINT,[1..2_0..3],,,,,0\n");
    EXPECT_EQ(e.bits, 32u);
    EXPECT_EQ(e.dim_type, 4u);
    EXPECT_EQ(e.lo1, 2);
    EXPECT_EQ(e.hi1, 4);
    EXPECT_EQ(e.lo2, 0);
    EXPECT_EQ(e.hi2, 6);
    e = parse("W,LWORD,[1..2_3..4_5..6],,,,,0\n");
    EXPECT_EQ(e.dim_type, 5u);
    EXPECT_EQ(e.lo1, 2);
    EXPECT_EQ(e.hi3, 12);
    e = parse("T,TIME,[0..9],,,,,0\n");
    EXPECT_EQ(e.bits, 64u);
    EXPECT_EQ(e.hi1, 9);
    e = parse("D,DWORD,[0..9],,,,,0\n");
    EXPECT_EQ(e.hi1, 9);
    // STRING2 takes no length; an empty type field leaves the entry untyped.
    e = parse("S2,STRING2,,30,,,,0\n");
    EXPECT_EQ(e.dim_type, 0u);
    EXPECT_EQ(e.str_len, 0);
    // The name rule on its own: the type ends the name.
    e = parse("X,Y,INT,,,,,6\n");
    EXPECT_STREQ(e.name, "X,Y");
    EXPECT_EQ(e.type_code, 0xC3);
    e = parse("N,,,,,,,4\n");
    EXPECT_STREQ(e.name, "N");
    EXPECT_EQ(e.type_code, 0);
    EXPECT_EQ(e.bits, 0u);
    EXPECT_EQ(e.tag_id, 4u);
}

TEST(TagLineParse, BitNumberWeighsAtMostTwoHexDigits) {
    EXPECT_EQ(parse("a,BOOL,,,,W100.05,,0\n").bit_no, 5u);
    EXPECT_EQ(parse("a,BOOL,,,,W100,,0\n").bit_no, 0u);
    EXPECT_EQ(parse("a,BOOL,,,,10.A,,0\n").bit_no, 10u);
    EXPECT_EQ(parse("a,BOOL,,,,10.15,,0\n").bit_no, 15u);
    EXPECT_EQ(parse("a,BOOL,,,,10.F,,0\n").bit_no, 15u);
    EXPECT_EQ(parse("a,BOOL,,,,10.f,,0\n").bit_no, 15u);
    EXPECT_EQ(parse("a,BOOL,,,,H1.2.3,,0\n").bit_no, 2u); // loose: stops at the second '.'
    EXPECT_EQ(parse("a,BOOL,,,,H1.123456,,0\n").bit_no, 12u);      // never beyond pow_val
}

TEST(TagLineParse, LooseReadingNeverWritesBeyondTheEntry) {
    std::string huge(5000, 'n');
    for (int i = 0; i < 40; ++i) huge += "," + std::string(150, 'p');
    TagEntry e = parse(huge.c_str());
    EXPECT_EQ(std::strlen(e.name), sizeof e.name - 1);
    EXPECT_EQ(e.type_code, 0);
    e = parse("A,INT,[0..9,,,,,5 \n"); // bounds read as far as they match
    EXPECT_EQ(e.dim_type, 1u);
    EXPECT_EQ(e.hi1, 9);
    EXPECT_EQ(e.tag_id, 5u);
    e = parse("");
    EXPECT_STREQ(e.name, "");
    EXPECT_EQ(e.tag_id, 0u);
}

TEST_F(TagListTest, IndexedGroupsFillTheirSlotsAndPlainLinesDoNotSplitThem) {
    groupID_table[7] = 77; // slots no group of the list uses keep their values
    const Built b = build("P0,INT,,,,,,0\n"
                          "I0,REAL,,,,,,262144\n"
                          "I1,REAL,,,,,,262145\n"
                          "P1,INT,,,,,,1\n"
                          "I2,REAL,,,,,,262146\n"
                          "\n"
                          "J0,DINT,,,,,,270336\r\n"
                          "\r\n"
                          "J1,DINT,,,,,,270337\n"
                          "K0,LINT,[0..3],,,,,278528\n"
                          "K9,LINT,[0..3],,,,,278529");
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.counts[0], 2u);
    EXPECT_EQ(b.counts[1], 0x44000u); // the final line without newline is not taken
    ASSERT_EQ(b.groups.size(), 3u);
    EXPECT_EQ(b.groups[0].count, 3);
    EXPECT_EQ(b.groups[1].count, 2);
    EXPECT_EQ(b.groups[2].count, 1);
    EXPECT_STREQ(b.groups[0].tags[2].name, "I2");
    EXPECT_EQ(b.groups[1].tags[1].tag_id, 0x42001u);
    EXPECT_EQ(b.groups[2].tags[0].hi1, 6);
    EXPECT_STREQ(b.plain[1].name, "P1");
    EXPECT_EQ(groupID_table[0], 0u);
    EXPECT_EQ(groupID_table[1], 1u);
    EXPECT_EQ(groupID_table[2], 2u);
    EXPECT_EQ(groupID_table[7], 77u);
}

TEST_F(TagListTest, LimitsAreInclusive) {
    std::string text;
    for (uint32_t i = 0; i < 255; ++i) text += "g,INT,,,,,," + std::to_string(0x40000 + i) + "\n";
    // The last id of block 2079, and a line of exactly 255 characters.
    text += "z,INT,,,,,," + std::to_string(0x103FFFF) + "\n";
    std::string name(255 - std::string(",SINT,,,,,,0\n").size(), 'x');
    text = name + ",SINT,,,,,,0\n" + text;
    Built b = build(text);
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.groups[0].count, 255);
    EXPECT_EQ(b.counts[1], 0x103FFFFu);
    EXPECT_EQ(groupID_table[2047], 1u);
    EXPECT_EQ(std::strlen(b.plain[0].name), name.size());

    text.clear();
    for (uint32_t g = 0; g < 512; ++g) text += "g,INT,,,,,," + std::to_string(0x40000 + g * 8192) + "\n";
    b = build(text);
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.groups.size(), 512u);
    EXPECT_EQ(groupID_table[511], 511u);
}

TEST_F(TagListTest, EmptyFileGivesAnEmptyTable) {
    const Built b = build("");
    ASSERT_NE(b.counts, nullptr);
    EXPECT_EQ(b.counts[0], 0u);
    EXPECT_EQ(b.counts[1], 0u);
}

TEST_F(TagListTest, UnreadableLinesRefuseTheWholeFileAndChangeNothing) {
    std::string big_group;
    for (uint32_t i = 0; i < 256; ++i) big_group += "g,INT,,,,,," + std::to_string(0x40000 + i) + "\n";
    std::string many_groups;
    for (uint32_t g = 0; g < 513; ++g) many_groups += "g,INT,,,,,," + std::to_string(0x40000 + g * 8192) + "\n";

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
        {"A,DINT,,,,,,0x10\n", "line 1 has a tag id \"0x10\" that is not a decimal number from 0 to 17039359"},
        {"A,DINT,,,,,,-1\n", "line 1 has a tag id \"-1\" that is not a decimal number from 0 to 17039359"},
        {"A,DINT,,,,,,17039360\n", "line 1 has a tag id \"17039360\" that is not a decimal number from 0 to 17039359"},
        {"A,DINT,,,,,,\n", "line 1 has a tag id \"\" that is not a decimal number from 0 to 17039359"},
        {"A,DINT,,,,,,0\nB,DINT,,,,,,2\n", "line 2 has plain tag id 2 where 1 was expected"},
        {"A,DINT,,,,,,0\nB,DINT,,,,,,0\n", "line 2 has plain tag id 0 where 1 was expected"},
        {"A,DINT,,,,,,1\n", "line 1 has plain tag id 1 where 0 was expected"},
        {big_group, "line 256 has tag id 262399, making the group starting at 262144 longer than 255 entries"},
        {"a,INT,,,,,,270335\nb,INT,,,,,,270336\n",
         "line 2 has tag id 270336, which continues the group starting at 270335 across an id block boundary"},
        {"a,INT,,,,,,262144\nb,INT,,,,,,262149\n",
         "line 2 has tag id 262149, which starts a group in the id block of the group starting at 262144"},
        {"a,INT,,,,,,262144\nb,INT,,,,,,262144\n",
         "line 2 has tag id 262144, which starts a group in the id block of the group starting at 262144"},
        {many_groups, "line 513 has tag id 4456448, which starts a group beyond the 512 allowed"},
        {"A," + std::string(100, 'q') + ",DINT,,,,,,0\n", "line 1 has a name part longer than 99 characters"},
        {"A,INT,[0.." + std::string(100, '1') + "],,,,,0\n", "line 1 has an array bounds field longer than 99 characters"},
        {"S,STRING,,12345678,,,,0\n", "line 1 has a string length field longer than 7 characters"},
        {"A,BOOL,,,,W1.123,,0\n", "line 1 has more than 2 characters after the '.' of address \"W1.123\""},
        {"A,BOOL,,,,W1.G,,0\n", "line 1 has a bit number in address \"W1.G\" that is not hexadecimal"},
        {std::string("A,DINT,,,,,,0\nB,DINT,,\0,,,,1\n", 29), "line 2 contains a NUL character"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reason);
        groupID_table.fill(9);
        auto before = groupID_table;
        Built b;
        b.plain.resize(3);
        b.groups.resize(2);
        const std::string path = dir_.write("list.csv", c.content);
        testing::internal::CaptureStdout();
        b.counts = build_tagtable(&b.plain, &b.groups, path.c_str(), groupID_table);
        const std::string output = testing::internal::GetCapturedStdout();
        EXPECT_EQ(b.counts, nullptr);
        EXPECT_EQ(output, refused(c.reason));
        EXPECT_EQ(groupID_table, before);
        EXPECT_EQ(b.plain.size(), 3u); // out parameters untouched
        EXPECT_EQ(b.groups.size(), 2u);
    }
}

// Bounds and string lengths only place elements inside the variable their
// line names, so a field that does not match its pattern is kept as far as it
// could be read, each number as an unsigned 16-bit value.
TEST_F(TagListTest, FieldsThatDoNotMatchTheirPatternAreKeptAsRead) {
    const Built b = build("A,INT,[0..9,,,,,0\n"
                          "B,INT,[0..1_0..1_0..1_0..1],,,,,1\n"
                          "C,INT,[5..3],,,,,2\n"
                          "D,INT,[-1..65536],,,,,3\n"
                          "E,LINT,[0..40000],,,,,4\n"
                          "S,STRING,,80000,,,,5\n"
                          "T,STRING,,x,,,,6\n"
                          "U,DINT,,long comment,,,, 7 \n");
    ASSERT_NE(b.counts, nullptr) << b.output;
    EXPECT_EQ(b.output, "");
    ASSERT_EQ(b.plain.size(), 8u);
    const auto bounds = [&](size_t i) {
        const TagEntry &e = b.plain[i];
        return std::vector<int>{int(e.dim_type), e.lo1, e.hi1, e.lo2, e.hi2};
    };
    EXPECT_EQ(bounds(0), (std::vector<int>{1, 0, 9, 0, 0}));
    EXPECT_EQ(bounds(1), (std::vector<int>{1, 0, 1, 0, 0})); // three '_' read as one dimension
    EXPECT_EQ(bounds(2), (std::vector<int>{1, 5, 3, 0, 0}));
    EXPECT_EQ(bounds(3), (std::vector<int>{1, 0xFFFF, 0, 0, 0}));
    EXPECT_EQ(bounds(4), (std::vector<int>{1, 0, 80000 & 0xFFFF, 0, 0}));
    EXPECT_EQ(b.plain[5].str_len, 80000 & 0xFFFF);
    EXPECT_EQ(b.plain[6].str_len, 0);
    EXPECT_EQ(b.plain[6].dim_type, 3u);
    EXPECT_EQ(b.plain[7].tag_id, 7u);
}

TEST_F(TagListTest, RefusalKeepsTheResultOfTheLastGoodBuild) {
    const Built good = build("A,DINT,,,,,,0\nB,DINT,,,,,,1\ni,INT,,,,,,262150\n");
    ASSERT_NE(good.counts, nullptr);
    const Built bad = build("A,DINT,,,,,,0\nB,DINT,,,,,,1\nC,DINT,,,,,,1\n");
    EXPECT_EQ(bad.counts, nullptr);
    EXPECT_EQ(good.counts[0], 2u);
    EXPECT_EQ(good.counts[1], 262150u);
}

TEST_F(TagListTest, MissingFileIsReported) {
    std::vector<TagEntry> plain;
    std::vector<IndexedGroup> groups;
    const std::string path = dir_.file("absent.csv");
    testing::internal::CaptureStdout();
    EXPECT_EQ(build_tagtable(&plain, &groups, path.c_str(), groupID_table), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] open " + path + " file failed, at line: 381\r\n");
}

TEST_F(TagListTest, EveryAllocationFailureIsReportedAndLeavesNoTrace) {
    const std::string content = "A,DINT,,,,,,0\nB,REAL,,,,,,1\n"
                                "i,INT,,,,,,262144\ni,INT,,,,,,262145\nj,INT,,,,,,270336\n";
    const std::string path = dir_.write("list.csv", content);
    std::vector<std::string> messages;
    for (long n = 0;; ++n) {
        ASSERT_LT(n, 100);
        groupID_table.fill(5);
        const auto before = groupID_table;
        std::vector<TagEntry> plain(1);
        std::vector<IndexedGroup> groups(1);
        testing::internal::CaptureStdout();
        const uint32_t *counts = nullptr;
        bool fired = false;
        {
            tagtest::FailAllocation fail(n);
            counts = build_tagtable(&plain, &groups, path.c_str(), groupID_table);
            fired = fail.fired();
        }
        const std::string output = testing::internal::GetCapturedStdout();
        if (!fired) {
            ASSERT_NE(counts, nullptr);
            EXPECT_EQ(groups.size(), 2u);
            break;
        }
        EXPECT_EQ(counts, nullptr);
        EXPECT_EQ(groupID_table, before);
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
    std::vector<TagEntry> plain;
    std::vector<IndexedGroup> groups;
    testing::internal::CaptureStdout();
    const uint32_t *counts = build_tagtable(&plain, &groups, PLC_SOURCE_DIR "/examples/PLC7F000001_1.csv",
                                            groupID_table);
    const std::string output = testing::internal::GetCapturedStdout();
    ASSERT_NE(counts, nullptr) << output;
    EXPECT_EQ(counts[0], 39u);
    EXPECT_EQ(counts[1], 524289u);
    ASSERT_EQ(groups.size(), 5u);
    EXPECT_EQ(groups[0].count, 8);
    EXPECT_STREQ(plain[0].name, "LiveCounter");
    EXPECT_STREQ(plain[3].name, "Line,Speed");
    EXPECT_STREQ(plain[38].name, "BatchNo");
    EXPECT_EQ(plain[31].bit_no, 5u);
    std::set<uint16_t> types;
    for (const auto &e : plain) types.insert(e.type_code);
    EXPECT_EQ(types.size(), 22u); // every type of the table
}

TEST(TagLineParse, SimpleVariantReadsOnlyItsOwnFields) {
    TagEntry e;
    std::memset(&e, 0x33, sizeof e);
    EXPECT_EQ(add_tag_pase_str("X,Y,INT,,,,,6\n", &e), 0);
    EXPECT_STREQ(e.name, "X"); // no name rule
    EXPECT_EQ(e.type_code, 0); // "Y" is not a type
    EXPECT_EQ(e.tag_id, 0u);

    add_tag_pase_str("L,LINT,[0..1_0..2],,,W3.0B,,9\n", &e);
    EXPECT_EQ(e.bits, 64u); // no double-word conversion
    EXPECT_EQ(e.dim_type, 1u);
    EXPECT_EQ(e.lo1, 0);
    EXPECT_EQ(e.hi1, 1);
    EXPECT_EQ(e.hi2, 0);
    EXPECT_EQ(e.bit_no, 11u);
    EXPECT_EQ(e.tag_id, 0u);

    add_tag_pase_str("S,STRING,[0..4],16,,,,3\n", &e);
    EXPECT_EQ(e.dim_type, 3u);
    EXPECT_EQ(e.str_len, 16);
    EXPECT_EQ(e.hi1, 4); // bounds kept

    const std::string long_name(400, 'n');
    add_tag_pase_str((long_name + ",DINT,,,,,,0\n").c_str(), &e);
    EXPECT_EQ(std::strlen(e.name), sizeof e.name - 1);
    EXPECT_EQ(e.type_code, 0xC4);
    EXPECT_EQ(add_tag_pase_str(nullptr, &e), -1);
}

} // namespace
} // namespace plc
