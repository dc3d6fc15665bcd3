// The driver against a controller that misbehaves once. Whatever the fault,
// the read it hits either reports a communication failure or delivers the
// right value, never touches bytes beyond the requested ones, and the reads
// after it are served again.
#include "sim/control_client.h"
#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

using namespace tags;

constexpr int kEither = -1; // the data that arrived is right: 0 or 2 are both sound

struct Case {
    const char *fault;
    int status;    // of the read the fault hits
    bool bring_up; // the fault hits the reconnection after a controller restart
};

class FaultyController : public DriverFixture {};

TEST_F(FaultyController, OneBadReplyCostsAtMostTheReadsItHits) {
    StartSim({"Counter=1234"});
    BringUp();
    const Case cases[] = {
        {"read:close", 2, false},
        {"read:reset", 2, false},
        {"read:truncate", 2, false},
        {"read:length=-4", 2, false},
        {"read:length=65535", 2, false}, // the rest never comes: the 10 s wait runs out
        {"read:service", 2, false},
        {"read:status=0x05", 2, false},
        {"read:status=0x01:0x0107", 2, false},
        {"read:fewer-bytes", 2, false},
        {"read:garbage", 2, false}, // read as a header announcing a body: the wait runs out
        {"read:restart", 2, false},
        {"read:delay=300", 0, false},
        {"read:duplicate", 0, false},
        {"read:huge", 0, false},
        // Fields the driver does not compare with its request.
        {"read:session", kEither, false},
        {"read:connection-id", kEither, false},
        {"read:sequence", kEither, false},
        {"read:more-bytes=2", kEither, false},
        {"register:close", 2, true},
        {"register:session", 2, true},
        {"forward-open:refuse", 2, true},
        {"forward-open:status=0x01:0x0100", 2, true},
        {"forward-open:truncate", 2, true},
        {"forward-open:fewer-bytes=10", kEither, true},
        {"resolve:status=0x05", 3, true}, // the controller does not know the variable
        {"resolve:truncate", 2, true},
        {"resolve:more-bytes=4", kEither, true},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.fault);
        if (k.bring_up) {
            ASSERT_TRUE(sim::control::Restart(dir.file("control.sock")));
            EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 2) << "the connection the restart cut";
        }
        ASSERT_TRUE(sim.SetFault(std::string(k.fault) + ",times=1"));
        const ReadOutcome hit = ReadSingle(kCounter, 0, 1, 4);
        EXPECT_TRUE(hit.stayed_inside);
        if (k.status != kEither) {
            EXPECT_EQ(hit.status, k.status);
        }
        if (hit.status == 0) {
            EXPECT_EQ(hit.bytes, Le32(1234));
        }
        EXPECT_TRUE(hit.status == 0 || hit.status == (k.status == kEither ? 2 : k.status))
            << hit.status;
        // A flood after a reply, or a bad session handle, costs one more read;
        // a third allows for a reconnection that a loaded machine delays.
        ReadOutcome next = ReadSingle(kCounter, 0, 1, 4);
        for (int retry = 0; retry < 2 && next.status != 0; ++retry)
            next = ReadSingle(kCounter, 0, 1, 4);
        EXPECT_EQ(next.status, 0);
        EXPECT_EQ(next.bytes, Le32(1234));
        ASSERT_TRUE(sim.ClearFaults());
    }
    EXPECT_EQ(sim.Stat("faults_applied"), std::size(cases));
}

} // namespace
} // namespace plc::itest
