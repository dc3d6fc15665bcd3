// The driver against a controller that misbehaves once, for the single read,
// the write and the batch read. For every fault: the status of the call it
// hits, that no value is reported as read when it was not, that no call waits
// beyond one reply time-out, that recovery takes exactly the calls it must
// (a failed exchange rebuilds the connection in the next call, which then
// succeeds), and that no descriptor is left behind.
#include <dirent.h>

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "sim/control_client.h"
#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

using namespace tags;
using Clock = std::chrono::steady_clock;

enum class Entry { Read, Write, Poll };
const char *name_of(Entry e) {
    return e == Entry::Read ? "Read" : e == Entry::Write ? "Write" : "Poll";
}

struct Case {
    Entry entry;
    std::string fault;  // KIND:ACTION, applied once
    int32_t status;     // of the call the fault hits
    bool reconnecting;  // the fault hits the rebuild after a controller restart
    bool flood = false; // what follows the reply may still be arriving at the next call
};

// How CTest lists the case, instead of its bytes.
void PrintTo(const Case &c, std::ostream *os) {
    *os << name_of(c.entry) << " " << c.fault << " -> " << c.status;
}

// One reply time-out, and what a loaded machine may add to it.
constexpr double kLongestCallSeconds = 10.0 + 2.0;
constexpr uint32_t kValue = 1234;
constexpr uint32_t kUnset = 0xA5A5A5A5;

int open_descriptors() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++n;
        closedir(d);
    }
    return n;
}

class FaultSuite : public DriverFixture, public ::testing::WithParamInterface<Case> {
protected:
    // One call of the entry under test; `good` is false when it reported a
    // value (or a write) it had not got right.
    int32_t Call(bool &good) {
        const Entry entry = GetParam().entry;
        good = true;
        if (entry == Entry::Write) {
            // Every write carries a new value, so that one reported as done
            // is seen to have landed.
            const uint32_t value = ++written_;
            const int32_t status = WriteSingle(kCounter, 0, 1, Le32(value));
            if (status == 0) good = sim.Values("Counter")->at(0) == std::to_string(value);
            return status;
        }
        if (entry == Entry::Read) {
            const ReadOutcome r = ReadSingle(kCounter, 0, 1, 4);
            good = r.stayed_inside && r.bytes == (r.status == 0 ? Le32(kValue) : Le(0xEEEEEEEE, 4));
            return r.status;
        }
        std::vector<PlcRequest> batch = {Record(kCounter, 0), Record(kSpeeds, 2)};
        for (PlcRequest &r : batch) r.result = kUnset;
        const int32_t status = wk_OMRON_plc_read(batch.data(), int32_t(batch.size()));
        const uint32_t counter = status == 0 ? kValue : kUnset;
        const uint32_t speed = status == 0 ? 7 : kUnset;
        good = batch[0].result == counter && batch[1].result == speed;
        return status;
    }
    uint32_t written_ = kValue;
    int32_t TimedCall(bool &good) {
        const auto start = Clock::now();
        const int32_t status = Call(good);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        EXPECT_LE(seconds, kLongestCallSeconds) << "a call waited beyond one reply time-out";
        return status;
    }
};

TEST_P(FaultSuite, ACallHitByOneFaultFailsCleanlyAndTheNextRecovers) {
    const Case &c = GetParam();
    StartSim({"Counter=" + std::to_string(kValue), "Speeds[2]=7"});
    BringUp();
    bool good = false;
    ASSERT_EQ(Call(good), 0);
    ASSERT_TRUE(good);
    const int descriptors = open_descriptors();
    if (c.reconnecting) {
        ASSERT_TRUE(sim::control::Restart(dir.file("control.sock")));
        EXPECT_NE(TimedCall(good), 0) << "the connection the restart cut";
    }

    ASSERT_TRUE(sim.SetFault(c.fault + ",times=1,seed=1"));
    EXPECT_EQ(TimedCall(good), c.status);
    EXPECT_TRUE(good) << "a value or a write was reported that the controller did not confirm";
    // Recovery takes one call: the next one rebuilds what the fault broke and
    // succeeds. A flood still arriving may make it fail at once instead.
    int failures = 0;
    for (; failures < 3; ++failures) {
        if (TimedCall(good) == 0) break;
    }
    EXPECT_LE(failures, c.flood ? 1 : 0) << "calls after the hit failed before one succeeded";
    EXPECT_TRUE(good);
    EXPECT_EQ(open_descriptors(), descriptors);
    // Every connection, the rebuilt ones too, counted its requests from 0.
    EXPECT_EQ(sim.Stat("sequence_anomalies"), 0u);
}

// What each entry's own request meets: read requests for the single read and
// the batch, write requests for the write.
std::vector<Case> cases() {
    struct Row {
        const char *action;
        int32_t status;
    };
    // A reply the driver cannot use is a communication failure (2); a reply
    // it can use whatever was done to it succeeds.
    const Row request_faults[] = {
        {"no-reply", 2},    {"delay=11000", 2},
        {"delay=300", 0},   {"close", 2},
        {"reset", 2},       {"truncate", 2},
        {"length=-4", 2},   {"length=65535", 2},
        {"session", 0},     {"connection-id", 2},
        {"sequence", 2},    {"service", 2},
        {"status=0x05", 2}, {"status=0x1E:0x0001:0x0002", 2},
        {"fewer-bytes", 2}, {"more-bytes=2", 0},
        {"garbage", 2},     {"duplicate", 0},
        {"restart", 2},
    };
    // The rebuild after a restart: a read fails with 2, a write with 3.
    struct Rebuild {
        const char *fault;
        bool fails;
    };
    const Rebuild rebuild_faults[] = {
        {"register:no-reply", true},
        {"register:close", true},
        {"register:session", true},
        {"forward-open:refuse", true},
        {"forward-open:status=0x01:0x0100", true},
        {"forward-close:no-reply", false},
        {"resolve:no-reply", true},
        {"resolve:service", true},
    };
    std::vector<Case> out;
    for (const Entry e : {Entry::Read, Entry::Write, Entry::Poll}) {
        const std::string kind = e == Entry::Write ? "write:" : "read:";
        for (const Row &r : request_faults) {
            // A write reply carries no values to cut or pad.
            if (e == Entry::Write && std::string(r.action).find("bytes") != std::string::npos)
                continue;
            out.push_back({e, kind + r.action, r.status, false});
        }
        out.push_back({e, kind + "huge", 0, false, true});
        for (const Rebuild &r : rebuild_faults) {
            const bool resolve = std::string(r.fault).rfind("resolve:", 0) == 0;
            // A failed rebuild costs a write 3; a failed resolution, like any
            // failed exchange, 2.
            const int32_t status = !r.fails ? 0 : (e == Entry::Write && !resolve) ? 3 : 2;
            out.push_back({e, r.fault, status, true});
        }
        // The controller does not know the variable: a configuration error that
        // keeps the connection, and the next call asks again.
        out.push_back({e, "resolve:status=0x05", 3, true});
    }
    return out;
}

std::string case_name(const ::testing::TestParamInfo<Case> &info) {
    std::string name = std::string(name_of(info.param.entry)) + "_";
    for (const char ch : info.param.fault)
        name += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultSuite, ::testing::ValuesIn(cases()), case_name);

} // namespace
} // namespace plc::itest
