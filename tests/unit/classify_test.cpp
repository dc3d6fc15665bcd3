// Classification decides what is prepared and how requests fold into read
// items; a wrong fold reads the wrong elements, a wrong name prepares the wrong
// variable, and a count that disagrees with the slots walks past them.
#include <gtest/gtest.h>

#include <string>

#include "batch_tables.h"
#include "engine/classify.h"

namespace plc {
namespace {

using namespace plc::test;

enum : uint32_t {
    kCounts,    // DINT[0..99]
    kSpeed,     // DINT
    kGrid,      // BOOL[0..2_0..3]
    kFlags,     // BOOL[0..15]
    kCube,      // BOOL[1..2_0..1_5..7]
    kInverted,  // BOOL[0..2_5..2]: second dimension upper bound below lower - 1
    kHollow,    // BOOL[0..2_3..2]: second dimension of width 0
    kUptime,    // TIME
    kText,      // STRING(20)
};

class Classify : public ::testing::Test {
protected:
    void SetUp() override {
        table = plain_table({
            array1("Counts", 0xC4, 32, 0, 99),
            scalar("Speed", 0xC4, 32),
            array2("Grid", 0xC1, 1, 0, 2, 0, 3),
            array1("Flags", 0xC1, 1, 0, 15),
            array3("Cube", 0xC1, 1, 1, 2, 0, 1, 5, 7),
            array2("Inverted", 0xC1, 1, 0, 2, 5, 2),
            array2("Hollow", 0xC1, 1, 0, 2, 3, 2),
            scalar("Uptime", 0xD6, 64),
            string_var("Text", 20),
        });
        add_group(table, 0x40000, {scalar("Grp.A", 0xC3, 16), scalar("Grp.B", 0xC3, 16)});
        add_group(table, 0x42000, {scalar("Other", 0xC3, 16)});
    }

    // Loads the slots as the batch entry does and classifies them.
    int run(std::initializer_list<PlcRequest> requests) {
        OMRON_TEMP.fill(BatchSlot{});
        INIT_TAG.fill(InitTagEntry{});
        std::vector<PlcRequest> records(requests);
        n = static_cast<int32_t>(records.size());
        RequestSetKey key;
        unpack_batch_records(records.data(), n, OMRON_TEMP.data(), key);
        return Reg_Classify_Sort(table, n);
    }

    std::string name(size_t k) const { return INIT_TAG[k].name.data(); }

    TagTable table;
    int32_t n = 0;
};

TEST_F(Classify, ConsecutiveElementsFoldAndNamesAreListedOnce) {
    // 3,4,5 fold into one item; Speed is its own; element 9 of Counts is a
    // second item of a variable already listed.
    ASSERT_EQ(run({record(kCounts, 3), record(kCounts, 4), record(kCounts, 5), record(kSpeed, 0),
                   record(kCounts, 9)}),
              kClassifyOk);
    EXPECT_EQ(OMRON_TEMP[0].count, 3);
    EXPECT_EQ(OMRON_TEMP[3].count, 1);
    EXPECT_EQ(OMRON_TEMP[4].count, 1);
    EXPECT_EQ(reg_interact_num, 3u);
    // The number of names actually listed, not a count taken before the walk.
    ASSERT_EQ(reg_init_num, 2u);
    EXPECT_EQ(name(0), "Counts");
    EXPECT_EQ(INIT_TAG[0].element, 3u);
    EXPECT_EQ(name(1), "Speed");
    EXPECT_EQ(INIT_TAG[1].tag_id, uint32_t(kSpeed));
    EXPECT_EQ(name(2), "");

    // A gap keeps two items.
    ASSERT_EQ(run({record(kCounts, 3), record(kCounts, 5)}), kClassifyOk);
    EXPECT_EQ(OMRON_TEMP[0].count, 1);
    EXPECT_EQ(OMRON_TEMP[1].count, 1);
    EXPECT_EQ(reg_interact_num, 2u);
    EXPECT_EQ(reg_init_num, 1u);

    // TIME and STRING are read whole and fold like arrays.
    ASSERT_EQ(run({record(kUptime, 0), record(kUptime, 1), record(kText, 0), record(kText, 1),
                   record(kText, 2)}),
              kClassifyOk);
    EXPECT_EQ(OMRON_TEMP[0].count, 2);
    EXPECT_EQ(OMRON_TEMP[2].count, 3);
    EXPECT_EQ(reg_interact_num, 2u);
    EXPECT_EQ(name(1), "Text");
}

TEST_F(Classify, RunsStopAtFiftyElements) {
    std::vector<PlcRequest> records;
    for (uint16_t e = 0; e < 100; ++e) records.push_back(record(kCounts, e));
    RequestSetKey key;

    OMRON_TEMP.fill(BatchSlot{});
    unpack_batch_records(records.data(), 51, OMRON_TEMP.data(), key);
    ASSERT_EQ(Reg_Classify_Sort(table, 51), kClassifyOk);
    EXPECT_EQ(OMRON_TEMP[0].count, 50);
    EXPECT_EQ(OMRON_TEMP[50].count, 1);
    EXPECT_EQ(reg_interact_num, 2u);
    EXPECT_EQ(reg_init_num, 1u);

    OMRON_TEMP.fill(BatchSlot{});
    unpack_batch_records(records.data(), 100, OMRON_TEMP.data(), key);
    ASSERT_EQ(Reg_Classify_Sort(table, 100), kClassifyOk);
    EXPECT_EQ(OMRON_TEMP[0].count, 50);
    EXPECT_EQ(OMRON_TEMP[50].count, 50);
    EXPECT_EQ(reg_interact_num, 2u);
}

TEST_F(Classify, BoolElementsArePreparedByTheirOwnNameAndNeverFold) {
    ASSERT_EQ(run({record(kGrid, 7), record(kFlags, 4), record(kFlags, 5), record(kCube, 5),
                   record(kFlags, 4)}),
              kClassifyOk);
    ASSERT_EQ(reg_init_num, 5u);
    EXPECT_EQ(name(0), "Grid[1,3]");
    EXPECT_EQ(INIT_TAG[0].element, 7u);
    EXPECT_EQ(name(1), "Flags[4]");
    EXPECT_EQ(name(2), "Flags[5]");
    // Row-major position 5 of [1..2_0..1_5..7]: (1 + 1/2, 0 + 1%2, 5 + 5%3).
    EXPECT_EQ(name(3), "Cube[1,1,7]");
    EXPECT_EQ(name(4), "Flags[4]") << "a BOOL element is listed again when requested again";
    EXPECT_EQ(reg_interact_num, 5u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(OMRON_TEMP[i].count, 1) << i;
}

TEST_F(Classify, ElementsOutsideTheirVariableAreRefused) {
    // Grid has 12 elements: position 12 lies in a fourth row that does not exist.
    EXPECT_EQ(run({record(kGrid, 11)}), kClassifyOk);
    EXPECT_EQ(name(0), "Grid[2,3]");
    EXPECT_EQ(run({record(kSpeed, 0), record(kGrid, 12)}), kClassifyRefused);
    EXPECT_EQ(run({record(kFlags, 16)}), kClassifyRefused);
    EXPECT_EQ(run({record(kCube, 12)}), kClassifyRefused);
    // Dimensions that hold no element are refused instead of dividing by them.
    EXPECT_EQ(run({record(kInverted, 0)}), kClassifyRefused);
    EXPECT_EQ(run({record(kHollow, 1)}), kClassifyRefused);
    // An indexed tag id within max_index_id but beyond its group's entries.
    EXPECT_EQ(run({record(0x40001, 0)}), kClassifyOk);
    EXPECT_EQ(name(0), "Grp.B");
    EXPECT_EQ(run({record(kCounts, 0), record(0x40005, 0)}), kClassifyRefused);
    // A scalar has one element only.
    EXPECT_EQ(run({record(kSpeed, 0, 2), record(kSpeed, 1)}), kClassifyRefused);
}

TEST_F(Classify, PlainScalarRequestedTwiceIsPreparedAndReadTwice) {
    ASSERT_EQ(run({record(kSpeed, 0), record(kSpeed, 0), record(kCounts, 1)}), kClassifyOk);
    // Every name written is prepared: the count before the walk would have
    // been 2 and left Counts unprepared.
    ASSERT_EQ(reg_init_num, 3u);
    EXPECT_EQ(name(0), "Speed");
    EXPECT_EQ(name(1), "Speed");
    EXPECT_EQ(name(2), "Counts");
    EXPECT_EQ(reg_interact_num, 3u);
}

TEST_F(Classify, RecordCountsBeyondOneContinueTheRunBehindTheCoveredRecords) {
    // Record 0 stands for elements 3 and 4 (record 1); record 2 continues it.
    ASSERT_EQ(run({record(kCounts, 3, 2), record(kCounts, 4), record(kCounts, 5),
                   record(kSpeed, 0)}),
              kClassifyOk);
    EXPECT_EQ(OMRON_TEMP[0].count, 3);
    EXPECT_EQ(reg_interact_num, 2u);
    EXPECT_EQ(reg_init_num, 2u);

    EXPECT_EQ(run({}), kClassifyOk);
    EXPECT_EQ(reg_init_num, 0u);
    EXPECT_EQ(reg_interact_num, 0u);
}

TEST_F(Classify, CallsTheTablesCannotHoldAreRefusedUpFront) {
    std::vector<PlcRequest> records(kBatchCapacity + 1, record(kSpeed, 0));
    EXPECT_EQ(check_batch_records(records.data(), 100), kClassifyOk);
    EXPECT_EQ(check_batch_records(records.data(), 101), kClassifyRefused);
    EXPECT_EQ(check_batch_records(records.data(), -1), kClassifyRefused);
    EXPECT_EQ(check_batch_records(nullptr, 1), kClassifyRefused);
    EXPECT_EQ(check_batch_records(records.data(), 0), kClassifyOk);

    records[3].count = 0;
    EXPECT_EQ(check_batch_records(records.data(), 5), kClassifyRefused);
    records[3].count = 2;
    EXPECT_EQ(check_batch_records(records.data(), 5), kClassifyOk);
    // The last record cannot stand for records after it.
    EXPECT_EQ(check_batch_records(records.data(), 4), kClassifyRefused);
}

} // namespace
} // namespace plc
