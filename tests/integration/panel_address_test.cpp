// The panel's own address during the bring-up: eth0, else br0, else refused.
// One program per network set-up (in_netns.sh eth0 / br0 / none); each runs
// only the suite named after its set-up.
#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

using namespace tags;

bool Contains(const std::string &text, const std::string &what) {
    return text.find(what) != std::string::npos;
}

class PanelAddressEth0 : public DriverFixture {};
class PanelAddressBr0 : public DriverFixture {};
class PanelAddressNone : public DriverFixture {};

TEST_F(PanelAddressEth0, TakesTheAddressOfEth0) {
    StartSim();
    std::string text;
    {
        StdoutCapture out;
        ASSERT_EQ(host.Start(), 0);
        text = out.text();
    }
    EXPECT_TRUE(Contains(text, "Interface: eth0, IP Address: 10.231.0.2\n")) << text;
    EXPECT_TRUE(Contains(text, "Last two octets in hex: 0x0002\n")) << text;
    EXPECT_FALSE(Contains(text, "br0")) << text;
}

TEST_F(PanelAddressBr0, FallsBackToBr0WithoutEth0) {
    StartSim();
    std::string text;
    {
        StdoutCapture out;
        ASSERT_EQ(host.Start(), 0);
        text = out.text();
    }
    EXPECT_TRUE(Contains(text, "Interface: br0, IP Address: 10.232.0.7\n")) << text;
    EXPECT_TRUE(Contains(text, "Last two octets in hex: 0x0007\n")) << text;
    EXPECT_FALSE(Contains(text, "Interface: eth0")) << text;
    EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 0);
}

TEST_F(PanelAddressNone, RefusesTheBringUpWithoutTraffic) {
    StartSim();
    std::string text;
    {
        StdoutCapture out;
        EXPECT_EQ(host.Start(), 3);
        text = out.text();
    }
    EXPECT_TRUE(Contains(text, "[PLC] get IP err at line 625\r\n")) << text;
    // Every later request runs the same bring-up and fails the same way.
    EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 2);
    EXPECT_EQ(WriteSingle(kCounter, 0, 1, Le32(1)), 3);
    EXPECT_EQ(sim.Stat("messages"), 0u) << "the controller was contacted without a panel address";
    EXPECT_FALSE(dir.Exists("session_1.dat"));
}

} // namespace
} // namespace plc::itest
