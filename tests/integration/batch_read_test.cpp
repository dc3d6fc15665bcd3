// The batch read against plc-sim: values decoded into the records' result
// fields, what each poll costs on the wire (the simulator's counters), the
// request-set cache, the refusals that must not reach the controller, and the
// recovery after the controller restarts.
#include <cstring>
#include <ostream>

#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

using namespace tags;

constexpr uint32_t kUnset = 0xA5A5A5A5; // what the result fields hold before a poll

// Two characters of a text as one result field, the first in the low byte.
constexpr uint32_t Chars(char a, char b = 0) {
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8;
}

// The host's two 32-bit words of an LREAL.
uint32_t LowWord(double d) {
    uint64_t w;
    std::memcpy(&w, &d, 8);
    return uint32_t(w);
}
uint32_t HighWord(double d) {
    uint64_t w;
    std::memcpy(&w, &d, 8);
    return uint32_t(w >> 32);
}

// The host's records of one poll.
struct Batch {
    std::vector<PlcRequest> records;

    // `n` records for consecutive elements from `element`.
    Batch &Add(uint32_t tag, uint32_t element = 0, uint32_t n = 1) {
        for (uint32_t k = 0; k < n; ++k) records.push_back(Record(tag, element + k));
        return *this;
    }
    int32_t Poll() {
        for (PlcRequest &r : records) r.result = kUnset;
        return wk_OMRON_plc_read(records.data(), int32_t(records.size()));
    }
    std::vector<uint32_t> Results(size_t from = 0, size_t n = SIZE_MAX) const {
        std::vector<uint32_t> out;
        for (size_t i = from; i < records.size() && out.size() < n; ++i)
            out.push_back(records[i].result);
        return out;
    }
};

// What the controller was asked: resolve requests, names in them, read
// requests, items in them.
struct Traffic {
    uint64_t resolves = 0, names = 0, reads = 0, items = 0;
    bool operator==(const Traffic &o) const {
        return resolves == o.resolves && names == o.names && reads == o.reads && items == o.items;
    }
};
std::ostream &operator<<(std::ostream &os, const Traffic &t) {
    return os << "{resolves " << t.resolves << ", names " << t.names << ", reads " << t.reads
              << ", items " << t.items << "}";
}

class BatchRead : public DriverFixture {
protected:
    // The traffic since the previous call (or the start).
    Traffic Step() {
        auto s = sim.Stats();
        const Traffic now{s["resolve_requests"], s["resolve_names"], s["read_requests"],
                          s["read_items"]};
        const Traffic d{now.resolves - mark_.resolves, now.names - mark_.names,
                        now.reads - mark_.reads, now.items - mark_.items};
        mark_ = now;
        return d;
    }

private:
    Traffic mark_;
};

TEST_F(BatchRead, DecodesAMixedPollIntoTheResultFields) {
    StartSim({"Counter=-123456789",
              "Speeds[3]=300",
              "Speeds[4]=-2",
              "Speeds[5]=5",
              "Speeds[8]=-8",
              "Ranks[1]=11",
              "Ranks[10]=100",
              "Bytes[0]=-1",
              "Bytes[1]=2",
              "Bytes[2]=127",
              "Temperature=21.5",
              "Running=true",
              "Flags[5]=true",
              "Matrix[1,3]=true",
              "Alarm=true",
              "Total=0x1122334455667788",
              "Levels[2]=2.5",
              "Label=Hello",
              "Grid[2,2]=77",
              "Cube[1,2,3]=-99",
              "Big=0xFEDCBA9876543210",
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
              "Gauge[1]=1.25",
              "Gauge[2]=-3",
              "Masks[1]=0x0102030405060708"});
    BringUp();
    struct Case {
        const char *what;
        uint32_t tag, element, expect;
    };
    const std::vector<Case> cases = {
        {"DINT", kCounter, 0, uint32_t(-123456789)},
        {"the same scalar twice in a row", kCounter, 0, uint32_t(-123456789)},
        {"INT run, first", kSpeeds, 3, 300},
        {"INT run, negative, zero-extended", kSpeeds, 4, 0xFFFE},
        {"INT run, last", kSpeeds, 5, 5},
        {"INT [1..10] first subscript", kRanks, 1, 11},
        {"INT [1..10] last subscript", kRanks, 10, 100},
        {"SINT run of three, -1", kBytes, 0, 0xFF},
        {"SINT run of three", kBytes, 1, 2},
        {"SINT run of three", kBytes, 2, 127},
        {"REAL bits", kTemperature, 0, FloatBits(21.5f)},
        {"BOOL scalar", kRunning, 0, 1},
        {"BOOL array element", kFlags, 5, 1},
        {"BOOL array element that is false", kFlags, 4, 0},
        {"BOOL [0..2,0..3] at linear 7", kMatrix, 7, 1},
        {"BOOL at bit 10 of its word", kAlarm, 0, 1},
        {"LINT low word", kTotal, 0, 0x55667788},
        {"LINT high word", kTotal, 1, 0x11223344},
        {"LREAL [1..5] element 2, low word", kLevels, 4, LowWord(2.5)},
        {"LREAL [1..5] element 2, high word", kLevels, 5, HighWord(2.5)},
        {"STRING", kLabel, 0, 'H'},
        {"STRING", kLabel, 1, 'e'},
        {"STRING", kLabel, 2, 'l'},
        {"STRING", kLabel, 3, 'l'},
        {"STRING", kLabel, 4, 'o'},
        {"STRING past its text", kLabel, 5, 0},
        {"INT [1..2,0..4] at linear 7", kGrid, 7, 77},
        {"DINT 3 dimensions at linear 23", kCube, 23, uint32_t(-99)},
        {"ULINT high word alone", kBig, 1, 0xFEDCBA98},
        {"WORD", kStatus, 0, 0xBEEF},
        {"UDINT", kCode, 0, 4000000000u},
        {"USINT element alone", kSmall, 4, 200},
        {"UINT", kRatio, 0, 65535},
        {"DWORD", kPattern, 0, 0xDEADBEEF},
        {"BYTE", kRaw, 0, 0xAB},
        {"SINT scalar", kOffset, 0, 0xF9},
        {"name with commas", kStationSpeed, 0, 0xFED4},
        {"indexed DINT", kGroup0, 0, 77},
        {"indexed UINT", kGroup1, 0, 65000},
        {"indexed INT array element 3", kGroup2, 3, 1234},
        {"indexed REAL in a second group", kFar0, 0, FloatBits(-0.5f)},
        {"an array requested again further on", kSpeeds, 8, 0xFFF8},
        {"REAL run", kGauge, 1, FloatBits(1.25f)},
        {"REAL run", kGauge, 2, FloatBits(-3.0f)},
        {"LWORD element 1, low word", kMasks, 2, 0x05060708},
        {"LWORD element 1, high word", kMasks, 3, 0x01020304},
    };
    Batch batch;
    for (const Case &c : cases) batch.Add(c.tag, c.element);
    const size_t with_high_part = 36; // the name with commas: byte 3 = 2 means no high part
    ASSERT_EQ(cases[with_high_part].tag, kStationSpeed);
    batch.records[with_high_part].tag_high = 2;

    ASSERT_EQ(batch.Poll(), 0) << sim.Output();
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(batch.records[i].result, cases[i].expect)
            << "record " << i << ": " << cases[i].what;
    EXPECT_EQ(batch.records[with_high_part].tag_high, 0u);
    // 31 names (the scalar twice in a row is listed twice, each BOOL element
    // by its own name) in requests of 20 and 11; 33 read items in 15, 15, 3.
    EXPECT_EQ(Step(), (Traffic{2, 31, 3, 33}));
    EXPECT_EQ(NewErrors(), 0u) << sim.Output();
}

// The same controller values must come back however the records group.
TEST_F(BatchRead, MergesRunsOfConsecutiveElementsIntoOneItem) {
    StartSim({"Speeds[3]=30", "Speeds[4]=40", "Speeds[5]=50", "Flags[4]=true"});
    BringUp();
    Batch run;
    ASSERT_EQ(run.Add(kSpeeds, 3, 3).Poll(), 0);
    EXPECT_EQ(run.Results(), (std::vector<uint32_t>{30, 40, 50}));
    EXPECT_EQ(Step(), (Traffic{1, 1, 1, 1})) << "three consecutive elements, one item";

    Batch gap;
    ASSERT_EQ(gap.Add(kSpeeds, 3).Add(kSpeeds, 5).Add(kSpeeds, 4).Poll(), 0);
    EXPECT_EQ(gap.Results(), (std::vector<uint32_t>{30, 50, 40}));
    EXPECT_EQ(Step(), (Traffic{1, 1, 1, 3})) << "no run: three items of one variable, named once";

    Batch bools;
    ASSERT_EQ(bools.Add(kFlags, 4, 2).Poll(), 0);
    EXPECT_EQ(bools.Results(), (std::vector<uint32_t>{1, 0}));
    EXPECT_EQ(Step(), (Traffic{1, 2, 1, 2})) << "BOOL elements are prepared and read one by one";
    EXPECT_EQ(NewErrors(), 0u) << sim.Output();
}

TEST_F(BatchRead, RefusesBadCallsWithoutTraffic) {
    StartSim({"Counter=5"});
    BringUp();
    const auto before = sim.Stats();
    // The first unknown id in record order is the one named.
    Batch plain, outside_array;
    {
        StdoutCapture out;
        EXPECT_EQ(plain.Add(kCounter).Add(kPlainCount).Add(kMaxIndexed + 1).Poll(), 3);
        EXPECT_EQ(out.text(),
                  "[PLC] tag id 27 is not exist in this tag list 27, at line: 2572\r\n");
    }
    EXPECT_EQ(outside_array.Add(kFlags, 16).Poll(), 3);
    for (const PlcRequest &r : outside_array.records) EXPECT_EQ(r.result, kUnset);
    Batch one;
    one.Add(kCounter).records[0].result = kUnset;
    EXPECT_EQ(wk_OMRON_plc_read(one.records.data(), -1), 3) << "negative count";
    EXPECT_EQ(wk_OMRON_plc_read(one.records.data(), 0), 0) << "no records: nothing to do";
    EXPECT_EQ(sim.Stats(), before) << "a refused call reached the controller";
}

TEST_F(BatchRead, TimeTextsAndZeroEndedByteRuns) {
    // 1 day, 1 hour, 1 minute, 1 second, 1 ms and 2 us.
    StartSim({"Duration=90061001002000ns", "Small[0]=5", "Small[1]=0", "Small[2]=7", "Small[3]=9",
              "Counter=-1", "Bytes[0]=1", "Bytes[1]=0", "Bytes[2]=3"});
    BringUp();
    Batch b;
    b.Add(kDuration, 0, 9)
        .Add(kSmall, 0, 4)
        .Add(kCounter)
        .Add(kDuration, 3, 2)
        .Add(kBytes, 0, 3)
        .Add(kCounter);
    ASSERT_EQ(b.Poll(), 0) << sim.Output();
    EXPECT_EQ(
        b.Results(0, 9),
        (std::vector<uint32_t>{Chars('1', 'd'), Chars('1', 'h'), Chars('1', 'm'), Chars('1', 's'),
                               Chars('1', '.'), Chars('0', '0'), Chars('2', 'm'), Chars('s'), 0}))
        << "1d1h1m1s1.002ms";
    EXPECT_EQ(b.Results(9, 4), (std::vector<uint32_t>{5, 0, 0, 0})) << "a zero ends the run";
    EXPECT_EQ(b.records[13].result, 0xFFFFFFFFu) << "the run took 4 bytes";
    EXPECT_EQ(b.Results(14, 2), (std::vector<uint32_t>{Chars('1', 's'), Chars('1', '.')}))
        << "a piece of the text from its fourth unit";
    EXPECT_EQ(b.Results(16, 3), (std::vector<uint32_t>{1, 0, 0}));
    EXPECT_EQ(b.records[19].result, 0xFFFFFFFFu) << "the odd run took 4 bytes";
    // A TIME item asks for 64 bits whatever the records it stands for (the
    // controller refuses anything past the variable); the scalar requested
    // again is named again.
    EXPECT_EQ(Step(), (Traffic{1, 5, 1, 6}));
    EXPECT_EQ(NewErrors(), 0u) << sim.Output();
}

} // namespace
} // namespace plc::itest
