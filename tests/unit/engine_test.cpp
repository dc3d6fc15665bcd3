// The single read, the write and the batch read against a controller behind
// the link: what reaches the host, what goes on the wire, and what never does.
// Above all, no value the controller did not give for the very element asked
// is ever reported as read.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "batch_tables.h"
#include "engine/batch_decode.h"
#include "engine/batch_read.h"
#include "engine/classify.h"
#include "engine/engine_state.h"
#include "engine/single_request.h"
#include "fake_controller.h"

namespace plc {
namespace {

using namespace plc::test;

// Two tag lists of one controller; both use tag id 4, for other variables.
constexpr const char *kList1 = "Counts,DINT,[0..99],,,,,0\n"
                               "Speed,INT,,,,,,1\n"
                               "Flags,BOOL,[0..15],,,,,2\n"
                               "Grid,BOOL,[0..2_0..3],,,,,3\n"
                               "Level,DINT,,,,,,4\n"
                               "Name,STRING,,20,,,,5\n"
                               "Small,SINT,[0..9],,,,,6\n"
                               "Uptime,TIME,,,,,,7\n"
                               "Ghost,DINT,,,,,,8\n";
constexpr const char *kList2 =
    "A,DINT,,,,,,0\nB,DINT,,,,,,1\nC,DINT,,,,,,2\nD,DINT,,,,,,3\nPressure,DINT,,,,,,4\n";
enum : uint32_t { kCounts, kSpeed, kFlags, kGrid, kLevel, kName, kSmall, kUptime, kGhost };

class Engine : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/plc_engine_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        ASSERT_NE(getcwd(old_dir_, sizeof old_dir_), nullptr);
        ASSERT_EQ(chdir(dir), 0);
        write_file("PLC7F000001_1.csv", kList1);
        write_file("PLC7F000001_2.csv", kList2);
        init_tag(g_plc_tags);
        forget_resolutions();
        label_reupdata = 0;
        string_id = 0;

        fake.memory["Counts"] = Bytes(400, 0);
        for (size_t e = 0; e < 100; ++e) fake.memory["Counts"][e * 4] = uint8_t(e);
        fake.memory["Speed"] = {0x34, 0x12};
        fake.memory["Flags"] = {0xA5, 0x00};
        for (int e = 0; e < 16; ++e)
            fake.memory["Flags[" + std::to_string(e) + "]"] = {uint8_t(e == 5), 0};
        fake.memory["Grid[1,3]"] = {1, 0};
        fake.memory["Level"] = {0x11, 0, 0, 0};
        fake.memory["Pressure"] = {0x22, 0, 0, 0};
        fake.memory["Name"] = {'P', 'u', 'm', 'p', 0, 0};
        fake.memory["Small"] = {7, 8, 9, 10};
        fake.memory["Uptime"] = {0, 0x10, 0, 0, 0, 0, 0, 0};
        fake.unknown = {"Ghost"};
    }
    void TearDown() override {
        forget_resolutions();
        init_tag(g_plc_tags);
        if (chdir(old_dir_) != 0) ADD_FAILURE();
        std::system(("rm -rf " + dir_).c_str());
    }
    static void write_file(const char *name, const char *text) {
        FILE *f = std::fopen(name, "w");
        ASSERT_NE(f, nullptr);
        std::fputs(text, f);
        std::fclose(f);
    }

    static PlcRequest req(uint32_t tag, uint16_t element, uint16_t device = 1, uint16_t count = 1) {
        PlcRequest r = record(tag, element, count);
        r.device = device;
        return r;
    }
    Status read(uint32_t tag, uint16_t element, uint32_t count, uint16_t device = 1) {
        PlcRequest r = req(tag, element, device);
        host.assign(64, 0xCC);
        PlcData data{count, host.data()};
        return single_read(fake, &settings, r, data);
    }
    Status write(uint32_t tag, uint16_t element, uint32_t count, const void *value) {
        PlcRequest r = req(tag, element);
        PlcData data{count, const_cast<void *>(value)};
        return write_entry(fake, &settings, r, data);
    }
    Status poll(std::vector<PlcRequest> &batch) {
        return batch_read(fake, &settings, batch.data(), int32_t(batch.size()));
    }
    // The name of every resolve request, in order.
    std::vector<std::string> resolved_names() const {
        std::vector<std::string> names;
        for (const auto &r : fake.requests) {
            if (r.call != CipCall::Resolve) continue;
            wire::Reader in(r.data);
            in.skip(8);
            const uint16_t count = in.u16();
            for (uint16_t m = 0; m < count; ++m) {
                const uint16_t padded = uint16_t(in.u16() - 4);
                in.skip(2);
                const uint16_t len = in.u16();
                std::string path(padded, '\0');
                in.bytes(path.data(), padded);
                names.push_back(path.substr(6, len - 6));
            }
        }
        return names;
    }

    DriverSettings settings{{}, 0x7F000001};
    FakeController fake;
    Bytes host;
    std::string dir_;
    char old_dir_[4096] = {};
};

TEST_F(Engine, SingleReadsFillTheHostLayoutOfEachWidth) {
    struct Case {
        uint32_t tag;
        uint16_t element;
        uint32_t count;
        Bytes host; // the first bytes of the host buffer afterwards
    };
    const Case cases[] = {
        {kCounts, 3, 2, {3, 0, 0, 0, 4, 0, 0, 0, 0xCC}},
        {kSpeed, 0, 1, {0x34, 0x12, 0xCC}},
        {kSmall, 1, 3, {8, 0, 9, 0, 10, 0, 0xCC}}, // one register per byte
        {kName, 0, 4, {'P', 0, 'u', 0, 'm', 0, 'p', 0, 0xCC}},
        {kFlags, 5, 1, {1, 0xCC}},    // resolved as Flags[5]
        {kFlags, 0, 8, {0xA5, 0xCC}}, // a run: the whole array
    };
    for (const Case &c : cases) {
        ASSERT_EQ(read(c.tag, c.element, c.count), Status::Ok) << c.tag;
        EXPECT_EQ(Bytes(host.begin(), host.begin() + c.host.size()), c.host) << c.tag;
    }
    EXPECT_EQ(resolved_names(),
              (std::vector<std::string>{"Counts", "Speed", "Small", "Name", "Flags[5]", "Flags"}));
    EXPECT_EQ(fake.requests.back().data[12 + 5], 0) << "a BOOL run carries its element in byte 5";
    EXPECT_EQ(fake.marked_down, 0);

    // Each variable is resolved once per connection; a rebuilt one resolves again.
    ASSERT_EQ(read(kCounts, 0, 1), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 6u);
    ++fake.connection;
    ASSERT_EQ(read(kCounts, 0, 1), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 7u);

    // A TIME has no register layout: the read fails after the exchange.
    EXPECT_EQ(read(kUptime, 0, 1), Status::CommFailure);
    EXPECT_EQ(fake.marked_down, 1);
}

TEST_F(Engine, RequestsThatCannotBeValidNeverReachTheController) {
    const uint8_t one[2] = {1, 0};
    EXPECT_EQ(read(kCounts, 100, 1), Status::ConfigError);
    EXPECT_EQ(read(kCounts, 99, 2), Status::ConfigError);
    EXPECT_EQ(read(kCounts, 0, 0), Status::ConfigError);
    EXPECT_EQ(read(kCounts, 0, 1025), Status::ConfigError) << "beyond the value area";
    EXPECT_EQ(read(kGrid, 12, 1), Status::ConfigError);
    EXPECT_EQ(read(9, 0, 1), Status::ConfigError) << "not in the list";
    EXPECT_EQ(write(kCounts, 0, 0, one), Status::ConfigError);
    EXPECT_EQ(write(kName, 20, 1, one), Status::ConfigError);

    std::vector<PlcRequest> outside = {req(kSpeed, 0), req(kCounts, 100)};
    EXPECT_EQ(poll(outside), Status::ConfigError);
    std::vector<PlcRequest> below = {req(kCounts, 98, 1, 3)};
    below.resize(3, req(kSpeed, 0));
    EXPECT_EQ(poll(below), Status::ConfigError) << "a run past the last element";
    std::vector<PlcRequest> bool_outside = {req(kGrid, 12)};
    EXPECT_EQ(poll(bool_outside), Status::ConfigError);
    std::vector<PlcRequest> scalar_run = {req(kSpeed, 0, 1, 2), req(kSpeed, 1)};
    EXPECT_EQ(poll(scalar_run), Status::ConfigError);
    std::vector<PlcRequest> many(101, req(kSpeed, 0));
    EXPECT_EQ(poll(many), Status::ConfigError);

    EXPECT_TRUE(fake.requests.empty());
    EXPECT_EQ(fake.ensure_calls, 0) << "not even the connection was touched";
    EXPECT_EQ(node, nullptr) << "no refused set is remembered";
}

TEST_F(Engine, HandlesBelongToTheirListAndToTheElementTheyWereResolvedFor) {
    // Two devices' lists both use tag id 4.
    ASSERT_EQ(read(kLevel, 0, 1, 1), Status::Ok);
    EXPECT_EQ(host[0], 0x11);
    ASSERT_EQ(read(kLevel, 0, 1, 2), Status::Ok);
    EXPECT_EQ(host[0], 0x22) << "device 2 read device 1's variable";
    // So do their request sets: the same pairs polled for each device in turn
    // are two sets, each read with its own handles, neither failing.
    for (int round = 0; round < 2; ++round) {
        for (const uint16_t device : {1, 2}) {
            std::vector<PlcRequest> level = {req(kLevel, 0, device)};
            ASSERT_EQ(poll(level), Status::Ok) << "device " << device;
            EXPECT_EQ(level[0].result, device == 1 ? 0x11u : 0x22u);
        }
    }

    // A run of BOOL elements resolves the whole array; one element alone is
    // resolved by itself and read at its own bit.
    ASSERT_EQ(read(kFlags, 5, 3), Status::Ok);
    ASSERT_EQ(read(kFlags, 5, 1), Status::Ok);
    EXPECT_EQ(host[0], 1);
    ASSERT_EQ(read(kFlags, 4, 1), Status::Ok);
    EXPECT_EQ(host[0], 0);
    // One element of a two-dimensional BOOL array is named by its subscripts.
    ASSERT_EQ(read(kGrid, 7, 1), Status::Ok);
    EXPECT_EQ(host[0], 1);
    std::vector<PlcRequest> batch = {req(kGrid, 7), req(kFlags, 5)};
    ASSERT_EQ(poll(batch), Status::Ok);
    EXPECT_EQ(batch[0].result, 1u);
    EXPECT_EQ(batch[1].result, 1u);
    EXPECT_EQ(resolved_names(), (std::vector<std::string>{"Level", "Pressure", "Level", "Pressure",
                                                          "Flags", "Flags[5]", "Flags[4]",
                                                          "Grid[1,3]", "Grid[1,3]", "Flags[5]"}));
}

TEST_F(Engine, AListThatTakesAnIdBlockLeavesNoPlanOrHandleBehind) {
    // Device 3's group owns id block 1 until device 4's list, built later,
    // takes the block with a group of another number.
    write_file("PLC7F000001_3.csv", "Tank,DINT,,,,,,270336\n");
    write_file("PLC7F000001_4.csv", "Valve,DINT,,,,,,262144\nPump,DINT,,,,,,270336\n");
    fake.memory["Tank"] = {0x33, 0, 0, 0};
    fake.memory["Valve"] = {0x44, 0, 0, 0};
    std::vector<PlcRequest> tank = {req(270336, 0, 3)};
    ASSERT_EQ(poll(tank), Status::Ok);
    EXPECT_EQ(tank[0].result, 0x33u);
    std::vector<PlcRequest> valve = {req(262144, 0, 4)};
    ASSERT_EQ(poll(valve), Status::Ok);

    // Tank's id now leads nowhere: the remembered set is refused like a new
    // one, on this connection and on a rebuilt one, and so is the single read.
    tank[0].result = 0;
    EXPECT_EQ(poll(tank), Status::ConfigError);
    ++fake.connection;
    EXPECT_EQ(poll(tank), Status::ConfigError);
    EXPECT_EQ(tank[0].result, 0u);
    EXPECT_EQ(read(270336, 0, 1, 3), Status::ConfigError);
}

TEST_F(Engine, RefusalsAndMalformedRepliesAreFailuresAndRebuildTheConnection) {
    const uint8_t value[4] = {9, 0, 0, 0};
    // The controller refuses the write: the value was not written.
    fake.tamper = [](CipCall call, Bytes &reply) {
        if (call == CipCall::Write) reply = {0xD6, 0, 0x1E, 0};
    };
    EXPECT_EQ(write(kLevel, 0, 1, value), Status::CommFailure);
    EXPECT_EQ(fake.marked_down, 1);

    // An error reply to a read carries status words, never values.
    fake.tamper = [](CipCall call, Bytes &reply) {
        if (call == CipCall::Read) reply = {0xD5, 0, 0x1E, 2, 1, 0, 0, 0, 0x11, 0x22};
    };
    EXPECT_EQ(read(kLevel, 0, 1), Status::CommFailure);
    EXPECT_EQ(host[0], 0xCC) << "the host buffer is written only on success";
    std::vector<PlcRequest> batch = {req(kSpeed, 0)};
    batch[0].result = 0xDEADBEEF;
    EXPECT_EQ(poll(batch), Status::CommFailure);
    EXPECT_EQ(batch[0].result, 0xDEADBEEFu);

    // A reply one value byte short, and a resolve reply of the wrong kind.
    fake.tamper = [](CipCall call, Bytes &reply) {
        if (call == CipCall::Read) reply.pop_back();
    };
    EXPECT_EQ(read(kLevel, 0, 1), Status::CommFailure);
    fake.tamper = [](CipCall call, Bytes &reply) {
        if (call == CipCall::Resolve) reply[0] = 0xD5;
    };
    EXPECT_EQ(read(kCounts, 0, 1), Status::CommFailure);
    EXPECT_EQ(fake.marked_down, 5);

    // No reply at all: the entry's own message.
    fake.tamper = nullptr;
    fake.unreachable = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(read(kLevel, 0, 1), Status::CommFailure);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[PLC] CIP_TransRecv err at line 1065\r\n");
}

TEST_F(Engine, AVariableTheControllerDoesNotKnowIsAConfigurationError) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(read(kGhost, 0, 1), Status::ConfigError);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] variable Ghost is not known to the controller (general status 0x05)\r\n");
    std::vector<PlcRequest> batch = {req(kSpeed, 0), req(kGhost, 0)};
    testing::internal::CaptureStdout();
    EXPECT_EQ(poll(batch), Status::ConfigError);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] one of the variables Speed, Ghost is not known to the controller (general "
              "status 0x05)\r\n");
    EXPECT_EQ(fake.marked_down, 0) << "the connection works";
    EXPECT_EQ(fake.count(CipCall::Read), 0u);

    // Every call asks again, once: a new controller program is found at once.
    fake.unknown.clear();
    fake.memory["Ghost"] = {0x42, 0, 0, 0};
    ASSERT_EQ(poll(batch), Status::Ok);
    EXPECT_EQ(batch[1].result, 0x42u);
    EXPECT_EQ(fake.count(CipCall::Resolve), 3u);
}

TEST_F(Engine, BatchesSplitIntoRequestsAndEveryRecordGetsItsOwnValue) {
    // 45 BOOL elements, each prepared by its own name: 20 + 20 + 5 names,
    // 15 + 15 + 15 items.
    write_file("PLC7F000001_3.csv", "Bits,BOOL,[0..99],,,,,0\n");
    std::vector<PlcRequest> bits;
    for (uint16_t e = 0; e < 45; ++e) bits.push_back(req(0, e, 3));
    ASSERT_EQ(poll(bits), Status::Ok);
    ASSERT_EQ(fake.count(CipCall::Resolve), 3u);
    EXPECT_EQ(fake.requests[0].data[8], 20);
    EXPECT_EQ(fake.requests[1].data[8], 20);
    EXPECT_EQ(fake.requests[2].data[8], 5);
    EXPECT_EQ(fake.count(CipCall::Read), 3u);
    fake.requests.clear();

    // 16 items go out as 15 and 4 with the run 40..41 folded; every request
    // starts with the prefix of the last resolve reply.
    std::vector<PlcRequest> batch;
    for (uint16_t e = 0; e < 32; e += 2) batch.push_back(req(kCounts, e));
    batch.push_back(req(kFlags, 5));
    batch.push_back(req(kCounts, 40));
    batch.push_back(req(kCounts, 41));
    batch.push_back(req(kSpeed, 0));
    ASSERT_EQ(poll(batch), Status::Ok);
    ASSERT_EQ(fake.count(CipCall::Read), 2u);
    const Bytes &first = fake.requests[1].data;
    EXPECT_EQ(first.size(), 12u + 18u * 15);
    EXPECT_EQ(fake.requests[2].data.size(), 12u + 18u * 4);
    EXPECT_EQ(recv_flag_data1[0], FakeController::kPrefix[0]);
    EXPECT_TRUE(std::equal(first.begin(), first.begin() + 10, recv_flag_data1.begin()));
    for (size_t i = 0; i < 16; ++i) EXPECT_EQ(batch[i].result, 2 * i) << i;
    EXPECT_EQ(batch[16].result, 1u);
    EXPECT_EQ(batch[17].result, 40u);
    EXPECT_EQ(batch[18].result, 41u);
    EXPECT_EQ(batch[19].result, 0x1234u);
}

TEST_F(Engine, SurplusValueBytesNeverShiftTheRecordsBehindThem) {
    std::vector<PlcRequest> batch;
    for (uint16_t e = 0; e < 20; ++e) batch.push_back(req(kCounts, uint16_t(2 * e)));
    bool first = true;
    fake.tamper = [&first](CipCall call, Bytes &reply) {
        if (call != CipCall::Read || !first) return;
        first = false;
        reply.push_back(0xEE);
        reply.push_back(0xEE);
    };
    ASSERT_EQ(poll(batch), Status::Ok);
    for (size_t i = 0; i < 20; ++i) EXPECT_EQ(batch[i].result, 2 * i) << i;
}

TEST_F(Engine, ARememberedSetIsReadWithoutPreparingAgain) {
    std::vector<PlcRequest> batch = {req(kCounts, 5), req(kCounts, 6), req(kSpeed, 0),
                                     req(kFlags, 5)};
    ASSERT_EQ(poll(batch), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 1u);
    EXPECT_EQ(batch[0].result, 5u);
    EXPECT_EQ(batch[3].result, 1u);

    // Same pairs, other count fields and device numbers in later records.
    std::vector<PlcRequest> again = {req(kCounts, 5, 1, 2), req(kCounts, 6, 7), req(kSpeed, 0, 3),
                                     req(kFlags, 5)};
    ASSERT_EQ(poll(again), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 1u);
    EXPECT_EQ(again[1].result, 6u);

    // Another order is another set; label_reupdata and a rebuilt connection
    // force a preparation.
    std::vector<PlcRequest> swapped = {req(kSpeed, 0), req(kCounts, 5)};
    ASSERT_EQ(poll(swapped), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 2u);
    label_reupdata = 1;
    ASSERT_EQ(poll(batch), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 3u);
    ++fake.connection;
    ASSERT_EQ(poll(batch), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 4u);

    // A set whose preparation failed is prepared again by its next call.
    fake.unreachable = true;
    std::vector<PlcRequest> other = {req(kLevel, 0)};
    EXPECT_EQ(poll(other), Status::CommFailure);
    fake.unreachable = false;
    ASSERT_EQ(poll(other), Status::Ok);
    EXPECT_EQ(fake.count(CipCall::Resolve), 6u);
}

TEST_F(Engine, ClassificationFoldsRunsAndListsEachVariableOnce) {
    // 51 consecutive elements: a run of 50 and one of 1; a scalar requested
    // twice in a row is prepared and read twice; a record standing for two
    // continues the run behind them.
    const TagTable table = plain_table({array1("C", 0xC4, 32, 0, 99), scalar("S", 0xC3, 16)});
    std::vector<PlcRequest> records;
    for (uint16_t e = 0; e < 51; ++e) records.push_back(record(0, e));
    records.push_back(record(1, 0));
    records.push_back(record(1, 0));
    records.push_back(record(0, 60, 2));
    records.push_back(record(0, 61));
    records.push_back(record(0, 62));
    RequestSetKey key;
    unpack_batch_records(records.data(), int32_t(records.size()), key);
    ASSERT_EQ(Reg_Classify_Sort(table, int32_t(records.size())), Status::Ok);
    EXPECT_EQ(OMRON_TEMP[0].count, 50);
    EXPECT_EQ(OMRON_TEMP[50].count, 1);
    EXPECT_EQ(OMRON_TEMP[53].count, 3);
    EXPECT_EQ(reg_interact_num, 5u);
    list_init_tags(table, int32_t(records.size()));
    ASSERT_EQ(reg_init_num, 3u);
    EXPECT_STREQ(INIT_TAG[0].name.data(), "C");
    EXPECT_STREQ(INIT_TAG[1].name.data(), "S");
    EXPECT_STREQ(INIT_TAG[2].name.data(), "S");
}

} // namespace
} // namespace plc
