// The single read and the write against plc-sim: every host buffer layout in
// both directions, the refusals that must not reach the controller, and the
// reuse of resolved handles.
#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

using namespace tags;

class SingleEntries : public DriverFixture {};

TEST_F(SingleEntries, ReadsEveryLayoutAsTheControllerServesIt) {
    StartSim({"Counter=-123456789",
              "Speeds[3]=300",
              "Speeds[4]=-2",
              "Ranks[1]=11",
              "Ranks[10]=100",
              "Bytes[0]=-1",
              "Bytes[1]=2",
              "Bytes[2]=127",
              "Label=Hello",
              "Total=0x1122334455667788",
              "Levels[2]=2.5",
              "Temperature=21.5",
              "Flags[5]=true",
              "Running=true",
              "Grid[2,2]=77",
              "Cube[1,2,3]=-99",
              "Big=0xFEDCBA9876543210",
              "Masks[1]=0x0102030405060708",
              "Status=0xBEEF",
              "Code=4000000000",
              "Small[4]=200",
              "Ratio=65535",
              "Pattern=0xDEADBEEF",
              "Raw=0xAB",
              "Offset=-7",
              "Station,1,Speed=-300",
              "Group0=77",
              "Group1=65000",
              "Group2[3]=1234",
              "Far0=-0.5",
              "Matrix[1,3]=true"});
    BringUp();

    struct Case {
        const char *what;
        uint32_t tag, element, count;
        std::vector<uint8_t> expect;
    };
    const std::vector<Case> cases = {
        {"DINT scalar", kCounter, 0, 1, Le32(uint32_t(-123456789))},
        {"INT [0..9] from 3, two", kSpeeds, 3, 2, Cat(Le16(300), Le16(uint16_t(-2)))},
        {"INT [1..10] at its first subscript", kRanks, 1, 1, Le16(11)},
        {"INT [1..10] at its last subscript", kRanks, 10, 1, Le16(100)},
        {"SINT run of three", kBytes, 0, 3, Registers({0xFF, 0x02, 0x7F})},
        {"STRING whole", kLabel, 0, 20, TextRegisters("Hello", 20)},
        {"STRING from character 2", kLabel, 2, 4, TextRegisters("llo", 4)},
        {"LINT scalar (two words)", kTotal, 0, 2, Le64(0x1122334455667788ull)},
        {"LREAL [1..5] element 2 (words 4, 5)", kLevels, 4, 2, LeDouble(2.5)},
        {"REAL scalar", kTemperature, 0, 1, LeFloat(21.5f)},
        {"BOOL array element", kFlags, 5, 1, {1}},
        {"BOOL array element that is false", kFlags, 4, 1, {0}},
        {"BOOL scalar", kRunning, 0, 1, {1}},
        {"INT [1..2,0..4] at linear 7", kGrid, 7, 1, Le16(77)},
        {"DINT [0..1,0..2,0..3] at linear 23", kCube, 23, 1, Le32(uint32_t(-99))},
        {"ULINT scalar", kBig, 0, 2, Le64(0xFEDCBA9876543210ull)},
        {"LWORD [0..3] element 1 (words 2, 3)", kMasks, 2, 2, Le64(0x0102030405060708ull)},
        {"WORD", kStatus, 0, 1, Le16(0xBEEF)},
        {"UDINT", kCode, 0, 1, Le32(4000000000u)},
        {"USINT [0..5] element 4", kSmall, 4, 1, Registers({200})},
        {"UINT", kRatio, 0, 1, Le16(65535)},
        {"DWORD", kPattern, 0, 1, Le32(0xDEADBEEF)},
        {"BYTE", kRaw, 0, 1, Registers({0xAB})},
        {"SINT scalar", kOffset, 0, 1, Registers({0xF9})},
        {"name with commas", kStationSpeed, 0, 1, Le16(uint16_t(-300))},
        {"indexed DINT (first of its group)", kGroup0, 0, 1, Le32(77)},
        {"indexed UINT", kGroup1, 0, 1, Le16(65000)},
        {"indexed INT array element 3", kGroup2, 3, 1, Le16(1234)},
        {"indexed REAL in a second group", kFar0, 0, 1, LeFloat(-0.5f)},
    };
    for (const Case &c : cases) {
        const ReadOutcome r = ReadSingle(c.tag, c.element, c.count, c.expect.size());
        EXPECT_EQ(r.status, 0) << c.what;
        EXPECT_EQ(r.bytes, c.expect) << c.what;
        EXPECT_TRUE(r.stayed_inside) << c.what << ": wrote past " << c.expect.size() << " bytes";
    }
    // Every variable was resolved once and read once.
    EXPECT_EQ(NewErrors(), 0u) << sim.Output();
}

// The host addresses the words of LINT, ULINT, LREAL and LWORD elements; the
// last element's high word lies one word beyond the doubled upper bound.
TEST_F(SingleEntries, ReadsTheLastElementOfDoubleWordArrays) {
    StartSim({"Levels[5]=-1.5e300", "Levels[1]=0.25", "Masks[3]=0x8000000000000001"});
    BringUp();
    ReadOutcome r = ReadSingle(kLevels, 10, 2, 8);
    EXPECT_EQ(r.status, 0) << "LREAL [1..5] element 5 (words 10, 11)";
    EXPECT_EQ(r.bytes, LeDouble(-1.5e300));
    r = ReadSingle(kMasks, 6, 2, 8);
    EXPECT_EQ(r.status, 0) << "LWORD [0..3] element 3 (words 6, 7)";
    EXPECT_EQ(r.bytes, Le64(0x8000000000000001ull));
    r = ReadSingle(kLevels, 2, 10, 40);
    EXPECT_EQ(r.status, 0) << "LREAL [1..5] whole (words 2 to 11)";
    if (r.status == 0) {
        EXPECT_EQ(std::vector<uint8_t>(r.bytes.begin(), r.bytes.begin() + 8), LeDouble(0.25));
        EXPECT_EQ(std::vector<uint8_t>(r.bytes.begin() + 32, r.bytes.end()), LeDouble(-1.5e300));
    }
}

TEST_F(SingleEntries, WritesEveryLayoutIntoTheController) {
    StartSim();
    BringUp();
    struct Case {
        const char *what;
        uint32_t tag, element, count;
        std::vector<uint8_t> buffer;
        const char *name;
        size_t index; // element position in the store line
        const char *expect;
    };
    std::vector<uint8_t> sint_regs = Registers({0xFB, 6, 7}, 0x55); // high bytes are not sent
    const std::vector<Case> cases = {
        {"DINT scalar", kCounter, 0, 1, {0x78, 0x56, 0x34, 0x12}, "Counter", 0, "305419896"},
        {"INT [0..9] from 3, first", kSpeeds, 3, 2, Cat(Le16(300), Le16(uint16_t(-2))), "Speeds", 3,
         "300"},
        {"INT [0..9] from 3, second", kSpeeds, 3, 2, Cat(Le16(300), Le16(uint16_t(-2))), "Speeds",
         4, "-2"},
        {"INT [1..10] first subscript", kRanks, 1, 1, Le16(5), "Ranks", 0, "5"},
        {"INT [1..10] last subscript", kRanks, 10, 1, Le16(6), "Ranks", 9, "6"},
        {"REAL [0..3] element 1", kGauge, 1, 1, LeFloat(1.25f), "Gauge", 1, "1.25"},
        {"SINT run, element 0", kBytes, 0, 3, sint_regs, "Bytes", 0, "-5"},
        {"SINT run, element 2", kBytes, 0, 3, sint_regs, "Bytes", 2, "7"},
        {"STRING of odd length", kLabel, 0, 5, TextRegisters("World", 5), "Label", 0, "World"},
        {"STRING of its full length", kName, 0, 8, TextRegisters("ABCDEFGH", 8), "Name", 0,
         "ABCDEFGH"},
        {"LINT scalar", kTotal, 0, 2, Le64(0x1122334455667788ull), "Total", 0,
         "1234605616436508552"},
        {"LREAL element 3 (words 6, 7)", kLevels, 6, 2, LeDouble(-2.75), "Levels", 2, "-2.75"},
        {"LREAL last element (words 10, 11)", kLevels, 10, 2, LeDouble(0.5), "Levels", 4, "0.5"},
        {"ULINT", kBig, 0, 2, Le64(0xFEDCBA9876543210ull), "Big", 0, "18364758544493064720"},
        {"LWORD element 1 (words 2, 3)", kMasks, 2, 2, Le64(0x0102030405060708ull), "Masks", 1,
         "72623859790382856"},
        {"INT [1..2,0..4] linear 7", kGrid, 7, 1, Le16(55), "Grid", 7, "55"},
        {"DINT 3 dimensions linear 23", kCube, 23, 1, Le32(uint32_t(-1)), "Cube", 23, "-1"},
        {"USINT element 4", kSmall, 4, 1, Registers({250}), "Small", 4, "250"},
        {"WORD", kStatus, 0, 1, Le16(0xBEEF), "Status", 0, "48879"},
        {"UDINT", kCode, 0, 1, Le32(4000000000u), "Code", 0, "4000000000"},
        {"UINT", kRatio, 0, 1, Le16(65535), "Ratio", 0, "65535"},
        {"DWORD", kPattern, 0, 1, Le32(0xDEADBEEF), "Pattern", 0, "3735928559"},
        {"BYTE", kRaw, 0, 1, Registers({0xAB}), "Raw", 0, "171"},
        {"SINT scalar", kOffset, 0, 1, Registers({0xF9}), "Offset", 0, "-7"},
        {"name with commas", kStationSpeed, 0, 1, Le16(uint16_t(-300)), "Station,1,Speed", 0,
         "-300"},
        {"indexed UINT", kGroup1, 0, 1, Le16(65000), "Group1", 0, "65000"},
        {"indexed INT array element 2", kGroup2, 2, 1, Le16(4321), "Group2", 2, "4321"},
        {"indexed REAL in a second group", kFar0, 0, 1, LeFloat(3.5f), "Far0", 0, "3.5"},
        {"TIME from milliseconds text",
         kDuration,
         0,
         1,
         {'2', '5', '0', '0', '.', '2', '5', 0},
         "Duration",
         0,
         "2500250000ns"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(WriteSingle(c.tag, c.element, c.count, c.buffer), 0) << c.what;
        const auto values = sim.Values(c.name);
        ASSERT_TRUE(values.has_value()) << c.name;
        ASSERT_GT(values->size(), c.index) << c.name;
        EXPECT_EQ((*values)[c.index], c.expect) << c.what;
    }
    EXPECT_EQ(NewErrors(), 0u) << sim.Output();
}

// A BOOL is written as one bit that the driver shifts to its bit position
// (bit number + element index, modulo 16) and reports back in the record.
TEST_F(SingleEntries, WritesBoolsAndReportsTheirBitPosition) {
    StartSim();
    BringUp();
    PlcRequest record{};
    EXPECT_EQ(WriteSingle(kFlags, 5, 1, {1, 0}, &record), 0);
    EXPECT_EQ(record.count, 5u);
    EXPECT_EQ(WriteSingle(kFlags, 0, 1, {1, 0}, &record), 0);
    EXPECT_EQ(record.count, 0u);
    EXPECT_EQ(WriteSingle(kRunning, 0, 1, {1, 0}, &record), 0);
    EXPECT_EQ(WriteSingle(kAlarm, 0, 1, {1, 0}, &record), 0);
    EXPECT_EQ(record.count, 10u);
    auto flags = sim.Values("Flags");
    ASSERT_TRUE(flags);
    EXPECT_EQ((*flags)[0], "true");
    EXPECT_EQ((*flags)[5], "true");
    EXPECT_EQ((*flags)[4], "false");
    EXPECT_EQ(sim.Values("Running")->at(0), "true");
    EXPECT_EQ(sim.Values("Alarm")->at(0), "true");

    EXPECT_EQ(WriteSingle(kFlags, 5, 1, {0, 0}), 0);
    flags = sim.Values("Flags");
    EXPECT_EQ((*flags)[5], "false");
    EXPECT_EQ((*flags)[0], "true");
}

TEST_F(SingleEntries, RefusesUnknownTagsAndIndexesWithoutTraffic) {
    StartSim();
    BringUp();
    const auto before = sim.Stats();
    // Ids beyond the list and a list that does not exist (the texts are
    // checked in the unit tests).
    EXPECT_EQ(ReadSingle(kPlainCount, 0, 1, 4).status, 3);
    EXPECT_EQ(ReadSingle(kMaxIndexed + 1, 0, 1, 4).status, 3);
    EXPECT_EQ(WriteSingle(kPlainCount, 0, 1, Le32(1)), 3);
    EXPECT_EQ(WriteSingle(kMaxIndexed + 1, 0, 1, Le32(1)), 3);
    EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4, /*device=*/2).status, 3);
    // Ids inside the list but outside their group, and indexes outside the bounds.
    EXPECT_EQ(ReadSingle(kGroup2 + 1, 0, 1, 4).status, 3) << "position 3 of a group of 3";
    EXPECT_EQ(WriteSingle(kGroup2 + 1, 0, 1, Le32(1)), 3);
    EXPECT_EQ(ReadSingle(kSpeeds, 10, 1, 2).status, 3);
    EXPECT_EQ(ReadSingle(kRanks, 11, 1, 2).status, 3);
    EXPECT_EQ(ReadSingle(kGrid, 10, 1, 2).status, 3) << "2 x 5 elements";
    EXPECT_EQ(ReadSingle(kCube, 24, 1, 4).status, 3) << "2 x 3 x 4 elements";
    EXPECT_EQ(WriteSingle(kSpeeds, 10, 1, Le16(1)), 3);
    EXPECT_EQ(WriteSingle(kGrid, 10, 1, Le16(1)), 3);
    EXPECT_EQ(WriteSingle(kCube, 24, 1, Le32(1)), 3);
    EXPECT_EQ(sim.Stats(), before) << "a refused request reached the controller";

    // The connection is still the one brought up: nothing was torn down.
    EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 0);
    EXPECT_EQ(sim.Stat("sessions_registered"), 1u);
}

} // namespace
} // namespace plc::itest
