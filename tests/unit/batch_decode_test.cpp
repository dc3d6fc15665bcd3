// The decoding is the last step before the host sees values: a cursor that
// drifts by one byte shifts every later record, and a forgotten empty string
// shows stale characters.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "batch_tables.h"
#include "engine/batch_decode.h"

namespace plc {
namespace {

using namespace plc::test;

enum : uint32_t { kUptime, kSmall, kSigned, kLamp, kWords, kLongs, kText, kDay, kWide, kHuge };

class Decode : public ::testing::Test {
protected:
    void SetUp() override {
        table = plain_table({
            scalar("Uptime", 0xD6, 64),
            array1("Small", 0xC6, 8, 0, 9),  // USINT[0..9]
            array1("Signed", 0xC2, 8, 0, 9), // SINT[0..9]
            array1("Lamp", 0xC1, 1, 0, 7),   // BOOL[0..7]
            array1("Words", 0xC3, 16, 0, 9), // INT[0..9]
            array1("Longs", 0xC4, 32, 0, 9), // DINT[0..9]
            string_var("Text", 10),
            scalar("Day", 0xCD, 0), // DATE: no fixed width
            scalar("Wide", 0xC4, 64),
        });
        add_group(table, 0x40000, {string_var("Grp.Name", 10)});
        StringInfo = {};
        string_id = 0;
    }

    // One item per run: {tag id, element, count}; records follow the runs.
    int decode(std::vector<BatchSlot> runs, const std::vector<uint8_t> &area) {
        plan = BatchPlan{};
        uint16_t record = 0;
        for (const BatchSlot &run : runs) {
            PlannedItem &item = plan.item[plan.items++];
            item.run = run;
            item.first_record = record;
            item.entry = find_entry(table, run.tag_id);
            record = uint16_t(record + run.count);
        }
        records.assign(record, PlcRequest{});
        for (auto &r : records) r.result = 0xDEADBEEF;
        return to_host(
            decode_batch_values(wire::Bytes{area.data(), area.size()}, plan, records.data()));
    }

    uint32_t result(size_t i) const { return records[i].result; }

    TagTable table;
    BatchPlan plan;
    std::vector<PlcRequest> records;
};

std::string time_text(uint64_t ns) {
    TimeText text;
    const size_t len = format_time_text(ns, text);
    EXPECT_EQ(len, std::string(text.data()).size());
    return text.data();
}

std::vector<uint8_t> le64(uint64_t v) {
    std::vector<uint8_t> b;
    for (int i = 0; i < 8; ++i) b.push_back(uint8_t(v >> (8 * i)));
    return b;
}

TEST(TimeText, PartsAreWrittenOnlyWhenPresent) {
    EXPECT_EQ(time_text(90061001002000ull), "1d1h1m1s1.002ms");
    EXPECT_EQ(time_text(86400000000000ull), "1d");
    EXPECT_EQ(time_text(0), "0.000ms");
    EXPECT_EQ(time_text(1500000), "1.500ms");
    EXPECT_EQ(time_text(61000000000ull), "1m1s");
    EXPECT_EQ(time_text(999), "0.000ms") << "below a microsecond";
    EXPECT_EQ(time_text(3600000000000ull + 7000), "1h") << "microseconds alone are not shown";
    // Milliseconds are kept in 32 bits: 2^32 ms wrap to 0.
    EXPECT_EQ(time_text(4294967296ull * 1000000ull), "0.000ms");
}

TEST_F(Decode, TimeTextIsHandedOutTwoCharactersPerRecord) {
    // 1d1h; element 1 asks for characters 2 and 3, element 2 lies past the text.
    std::vector<uint8_t> area = le64(90000000000000ull);
    const std::vector<uint8_t> words = {0x34, 0x12};
    area.insert(area.end(), words.begin(), words.end());
    ASSERT_EQ(decode({{kUptime, 1, 2}, {kWords, 0, 1}}, area), 0);
    EXPECT_EQ(result(0), 0x6831u);
    EXPECT_EQ(result(1), 0u);
    EXPECT_EQ(result(2), 0x1234u) << "the cursor moves by 8 whatever the count";

    ASSERT_EQ(decode({{kUptime, 0, 1}}, le64(90000000000000ull)), 0);
    EXPECT_EQ(result(0), 0x6431u); // "1d"

    // Units past the 256-byte buffer answer 0.
    TimeText text;
    format_time_text(90061001002000ull, text);
    EXPECT_EQ(time_text_unit(text, 0), 0x6431u);
    EXPECT_EQ(time_text_unit(text, 127), 0u);
    EXPECT_EQ(time_text_unit(text, 128), 0u);
    EXPECT_EQ(time_text_unit(text, 65535), 0u);
    ASSERT_EQ(decode({{kUptime, 65535, 1}}, le64(90061001002000ull)), 0);
    EXPECT_EQ(result(0), 0u);
}

TEST_F(Decode, ByteRunsEndAtTheirFirstZeroAndKeepTheLayout) {
    // USINT run 5,0,7,9 (4 bytes), then SINT count 1 (2 bytes), then a run of
    // three SINTs (3 + 1 pad), then an INT to show where the cursor ended.
    const std::vector<uint8_t> area = {5, 0, 7, 9, 0x11, 0xEE, 1, 2, 3, 0xEE, 0x78, 0x56};
    ASSERT_EQ(decode({{kSmall, 0, 4}, {kSigned, 2, 1}, {kSigned, 4, 3}, {kWords, 0, 1}}, area), 0);
    EXPECT_EQ(result(0), 5u);
    EXPECT_EQ(result(1), 0u);
    EXPECT_EQ(result(2), 0u);
    EXPECT_EQ(result(3), 0u);
    EXPECT_EQ(result(4), 0x11u);
    EXPECT_EQ(result(5), 1u);
    EXPECT_EQ(result(6), 2u);
    EXPECT_EQ(result(7), 3u);
    EXPECT_EQ(result(8), 0x5678u);

    // A plain variable of no fixed width other than a STRING: byte rule.
    ASSERT_EQ(decode({{kDay, 0, 1}, {kWords, 0, 1}}, {0x42, 0xEE, 0x01, 0x00}), 0);
    EXPECT_EQ(result(0), 0x42u);
    EXPECT_EQ(result(1), 1u);
}

TEST_F(Decode, WordsBoolsAndWidthsOutsideTheRulesFail) {
    const std::vector<uint8_t> area = {0x80, 0xEE, 0x00, 0xEE, 0xFE, 0xFF,
                                       0x02, 0x00, 0x01, 0x02, 0x03, 0x84};
    ASSERT_EQ(decode({{kLamp, 3, 1}, {kLamp, 4, 1}, {kWords, 0, 2}, {kLongs, 0, 1}}, area), 0);
    EXPECT_EQ(result(0), 1u) << "any non-zero byte is true";
    EXPECT_EQ(result(1), 0u);
    EXPECT_EQ(result(2), 0xFFFEu) << "zero-extended";
    EXPECT_EQ(result(3), 2u);
    EXPECT_EQ(result(4), 0x84030201u);

    // A width the decoding has no rule for stops the call with 2 after the
    // records before it were written.
    EXPECT_EQ(decode({{kWords, 0, 1}, {kWide, 0, 1}}, {1, 0, 1, 2, 3, 4, 5, 6, 7, 8}), 2);
    EXPECT_EQ(result(0), 1u);
    EXPECT_EQ(result(1), 0xDEADBEEFu);
}

TEST_F(Decode, AnAreaCutShortNeverYieldsValues) {
    EXPECT_EQ(decode({{kLongs, 0, 2}}, {1, 0, 0, 0, 2, 0, 0}), 2);
    EXPECT_EQ(result(0), 0xDEADBEEFu);
    EXPECT_EQ(decode({{kSmall, 0, 3}}, {1, 2, 3}), 2) << "the pad byte is part of the item";
    EXPECT_EQ(decode({{kUptime, 0, 1}}, {1, 2, 3, 4, 5, 6, 7}), 2);
    EXPECT_EQ(decode({{kLamp, 0, 1}}, {}), 2);
    EXPECT_EQ(result(0), 0xDEADBEEFu);
}

TEST_F(Decode, AnEmptyStringStaysEmptyAcrossCallsUntilItsFirstPieceChanges) {
    // First piece read empty.
    ASSERT_EQ(decode({{kText, 0, 2}}, {0, 'x'}), 0);
    EXPECT_EQ(result(0), 0u);
    EXPECT_EQ(result(1), 0u);
    ASSERT_EQ(string_id, 1u);
    EXPECT_EQ(StringInfo[0].tag_id, uint32_t(kText));
    EXPECT_EQ(StringInfo[0].count, 2);

    // A later piece in a later call reads 0 even with characters in it.
    ASSERT_EQ(decode({{kText, 4, 2}}, {'x', 'y'}), 0);
    EXPECT_EQ(result(0), 0u);
    EXPECT_EQ(result(1), 0u);

    // The first piece with a character lifts it, in the same call.
    ASSERT_EQ(decode({{kText, 0, 2}, {kText, 4, 2}}, {'A', 'B', 'x', 'y'}), 0);
    EXPECT_EQ(result(0), 'A');
    EXPECT_EQ(result(1), 'B');
    EXPECT_EQ(result(2), 'x');
    EXPECT_EQ(result(3), 'y');
    EXPECT_EQ(string_id, 1u) << "the record is updated, not added";

    // Indexed strings keep no memory.
    ASSERT_EQ(decode({{0x40000, 0, 1}}, {0, 0}), 0);
    ASSERT_EQ(decode({{0x40000, 4, 1}}, {'q', 0}), 0);
    EXPECT_EQ(result(0), 'q');
    EXPECT_EQ(string_id, 1u);
}

TEST_F(Decode, TheFiftyFirstStringStartsTheMemoryOver) {
    for (uint32_t r = 0; r < kStringInfoCapacity; ++r) {
        StringInfo[r] = StringInfoRecord{1000 + r, 0, 1, 0};
    }
    string_id = kStringInfoCapacity;
    ASSERT_EQ(decode({{kText, 0, 1}}, {'Z', 0}), 0);
    EXPECT_EQ(result(0), 'Z');
    ASSERT_EQ(string_id, 1u);
    EXPECT_EQ(StringInfo[0].tag_id, uint32_t(kText));
    EXPECT_EQ(StringInfo[0].first_char, 'Z');
}

} // namespace
} // namespace plc
