// The polling path of a prepared request set allocates nothing: the host polls
// all day, and an allocation per poll fragments a small panel's heap. This
// program replaces the global operator new to count what the driver asks for
// while it polls plc-sim through wk_OMRON_plc_read.
#include <cstdlib>
#include <new>

#include "tests/integration/fixture.h"

namespace {

bool g_counting = false;
size_t g_allocations = 0;

void *counted(std::size_t size) {
    if (g_counting) ++g_allocations;
    if (void *p = std::malloc(size != 0 ? size : 1)) return p;
    throw std::bad_alloc();
}

} // namespace

void *operator new(std::size_t size) { return counted(size); }
void *operator new[](std::size_t size) { return counted(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    try {
        return counted(size);
    } catch (...) {
        return nullptr;
    }
}
void *operator new[](std::size_t size, const std::nothrow_t &tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }

namespace plc::itest {
namespace {

using namespace tags;

TEST_F(DriverFixture, PollingAPreparedSetAllocatesNothing) {
    StartSim({"Counter=7", "Label=Hello", "Duration=1500", "Flags[5]=true"});
    BringUp();
    // Every kind of record the decoding knows, runs folded and not, plain and
    // indexed, 15 items and more so that a poll takes two exchanges.
    std::vector<PlcRequest> records;
    const auto add = [&records](uint32_t tag, uint32_t first, uint32_t n) {
        for (uint32_t k = 0; k < n; ++k) records.push_back(Record(tag, first + k));
    };
    add(kCounter, 0, 1), add(kSpeeds, 0, 10), add(kRanks, 1, 3), add(kBytes, 0, 8);
    add(kLabel, 0, 8), add(kTotal, 0, 2), add(kLevels, 2, 4), add(kTemperature, 0, 1);
    add(kFlags, 4, 3), add(kRunning, 0, 1), add(kGrid, 0, 10), add(kCube, 20, 4);
    add(kDuration, 0, 6), add(kBig, 0, 2), add(kMasks, 0, 2), add(kStatus, 0, 1);
    add(kMatrix, 7, 1), add(kAlarm, 0, 1), add(kName, 0, 4), add(kGauge, 0, 4);
    add(kGroup0, 0, 1), add(kGroup1, 0, 1), add(kGroup2, 0, 4), add(kFar0, 0, 1);
    ASSERT_LE(records.size(), 100u);
    const auto poll = [&records] {
        return wk_OMRON_plc_read(records.data(), int32_t(records.size()));
    };
    ASSERT_EQ(poll(), 0); // the set is prepared: its handles and its node are allocated
    ASSERT_EQ(poll(), 0);
    const uint64_t reads = sim.Stat("read_requests");

    g_counting = true;
    int32_t status = 0;
    for (int i = 0; i < 20 && status == 0; ++i) status = poll();
    g_counting = false;

    EXPECT_EQ(status, 0);
    EXPECT_EQ(g_allocations, 0u);
    EXPECT_GE(sim.Stat("read_requests") - reads, 40u); // the polls did go on the wire
    EXPECT_EQ(records[0].result, 7u);
    EXPECT_EQ(records[1 + 10 + 3 + 8].result, uint32_t('H'));
    EXPECT_EQ(NewErrors(), 0u);
}

} // namespace
} // namespace plc::itest
