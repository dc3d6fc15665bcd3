// Bring-up, the session file with the connection serial number, and the
// recovery that the request entries run while the connection is down.
#include <sys/stat.h>

#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

using namespace tags;

constexpr const char *kSessionFile = "session_1.dat";

bool Contains(const std::string &text, const std::string &what) {
    return text.find(what) != std::string::npos;
}

std::optional<uint32_t> StoredSerial(const WorkDir &dir) {
    const auto bytes = dir.Read(kSessionFile);
    if (!bytes || bytes->size() != 4) return std::nullopt;
    const auto *b = reinterpret_cast<const uint8_t *>(bytes->data());
    return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}

class Connection : public DriverFixture {};

TEST_F(Connection, FirstBringUpDrawsAndSavesASerial) {
    StartSim();
    std::string text;
    {
        StdoutCapture out;
        ASSERT_EQ(host.Start(), 0);
        text = out.text();
    }
    EXPECT_TRUE(Contains(text, "save:session_1.dat ok\n")) << text;
    EXPECT_TRUE(Contains(text, "[PLC] init ok at line 656\r\n")) << text;
    const auto serial = StoredSerial(dir);
    ASSERT_TRUE(serial) << "session_1.dat missing or not 4 bytes";
    EXPECT_LE(*serial, 0xFFFFu);
    // The connection was opened as close-then-open of the same triple.
    EXPECT_EQ(sim.Stat("forward_close"), 1u);
    EXPECT_EQ(sim.Stat("forward_open"), 1u);
    EXPECT_EQ(sim.Stat("connections_open"), 1u);
}

TEST_F(Connection, StoredSerialIsUsedAndKept) {
    StartSim();
    dir.Write(kSessionFile, std::string("\x34\x12\x00\x00", 4));
    std::string text;
    {
        StdoutCapture out;
        ASSERT_EQ(host.Start(), 0);
        text = out.text();
    }
    EXPECT_TRUE(Contains(text, "read session_1.dat ok\n")) << text;
    EXPECT_TRUE(Contains(text, "serial_n:4660\n")) << text;
    EXPECT_FALSE(Contains(text, "save:")) << "a stored serial was replaced: " << text;
    EXPECT_EQ(StoredSerial(dir), 0x1234u);
}

// A restarted panel (here: a second process on the same working directory)
// opens its connection with the stored serial, so its Forward_Close removes
// the connection the first one left on the controller.
TEST_F(Connection, SecondProcessReusesTheSerialAndClosesTheOldConnection) {
    StartSim({"Counter=5"});
    BringUp();
    ASSERT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 0);
    const auto serial = StoredSerial(dir);
    ASSERT_TRUE(serial);

    const RunResult r =
        RunProgram({HostPath(), "--lib", DriverLibraryPath(), "--controller", "127.0.0.1",
                    "--device", "1", "--driver-log", "--json", "read", "Counter"},
                   dir.path());
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(Contains(r.out, "\"value\":5")) << r.out;
    EXPECT_TRUE(Contains(r.err, "read session_1.dat ok")) << r.err;
    EXPECT_TRUE(Contains(r.err, "serial_n:" + std::to_string(*serial) + "\n")) << r.err;
    EXPECT_EQ(StoredSerial(dir), serial);
    // Ours was closed by the second process, and its own ended with its TCP
    // connection when it exited.
    EXPECT_EQ(sim.Stat("forward_close"), 2u);
    EXPECT_EQ(sim.Stat("connections_open"), 0u);
}

TEST_F(Connection, ZeroSerialInTheSessionFileIsReplaced) {
    StartSim();
    dir.Write(kSessionFile, std::string(4, '\0'));
    std::string text;
    {
        StdoutCapture out;
        ASSERT_EQ(host.Start(), 0);
        text = out.text();
    }
    EXPECT_TRUE(Contains(text, "serial_n:0\n")) << text;
    EXPECT_TRUE(Contains(text, "save:session_1.dat ok\n")) << text;
    EXPECT_TRUE(StoredSerial(dir).has_value());
}

TEST_F(Connection, EmptySessionFileCountsAsNoSerial) {
    StartSim();
    dir.Write(kSessionFile, "");
    std::string text;
    {
        StdoutCapture out;
        ASSERT_EQ(host.Start(), 0);
        text = out.text();
    }
    EXPECT_TRUE(Contains(text, "save:session_1.dat ok\n")) << text;
    EXPECT_TRUE(StoredSerial(dir).has_value());
}

TEST_F(Connection, WriteWithTheControllerUnreachable) {
    dir.Write(kTagListName, ReadWholeFile(TestTagListPath()));
    std::string text;
    {
        StdoutCapture out;
        EXPECT_EQ(host.Start(), 3);
        text = out.text();
    }
    EXPECT_EQ(WriteSingle(kCounter, 0, 1, Le32(1)), 3) << "a write whose reconnection fails";
    EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 2) << "a read whose reconnection fails";
    EXPECT_EQ(WriteSingle(kCounter, 0, 1, Le32(1)), 3);
    EXPECT_FALSE(dir.Exists(kSessionFile)) << "a serial was drawn without a session";
}

TEST_F(Connection, WriteOnABrokenConnectionThenWithoutController) {
    StartSim();
    BringUp();
    ASSERT_EQ(WriteSingle(kCounter, 0, 1, Le32(1)), 0);
    sim.Kill();
    EXPECT_EQ(WriteSingle(kCounter, 0, 1, Le32(2)), 2) << "the exchange fails";
    EXPECT_EQ(WriteSingle(kCounter, 0, 1, Le32(3)), 3) << "the reconnection fails";
    std::string error;
    ASSERT_TRUE(sim.Restart(&error)) << error;
    EXPECT_EQ(WriteSingle(kCounter, 0, 1, Le32(4)), 0);
    EXPECT_EQ(sim.Values("Counter")->at(0), "4");
}

// Without a controller the forced bring-up cannot get past the session, so
// it draws no serial: the stored one stays.
TEST_F(Connection, FailedRecoveriesWithoutAControllerKeepTheSerial) {
    dir.Write(kTagListName, ReadWholeFile(TestTagListPath()));
    dir.Write(kSessionFile, std::string("\x21\x43\x00\x00", 4));
    EXPECT_EQ(host.Start(), 3);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 2) << "read " << i + 1;
    EXPECT_EQ(StoredSerial(dir), 0x4321u);
}

// Every fourth failed reconnection is followed by a bring-up with a new
// serial, which is saved once the session is registered.
TEST_F(Connection, EveryFourthFailedRecoveryForcesANewSerial) {
    StartSim({}, {"--refuse-forward-open"});
    {
        StdoutCapture out;
        EXPECT_EQ(host.Start(), 3);
        EXPECT_TRUE(Contains(out.text(), "[PLC] connection error at line 652\r\n")) << out.text();
    }
    ASSERT_TRUE(StoredSerial(dir))
        << "the first bring-up got past the registration and drew a serial";
    for (int round = 0; round < 2; ++round) {
        dir.Remove(kSessionFile);
        for (int i = 1; i <= 3; ++i) {
            const uint64_t opens = sim.Stat("forward_open");
            EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 2);
            EXPECT_EQ(sim.Stat("forward_open"), opens + 1) << "round " << round << " read " << i;
            EXPECT_FALSE(dir.Exists(kSessionFile)) << "round " << round << " read " << i;
        }
        const uint64_t opens = sim.Stat("forward_open");
        EXPECT_EQ(ReadSingle(kCounter, 0, 1, 4).status, 2);
        EXPECT_EQ(sim.Stat("forward_open"), opens + 2)
            << "round " << round << ": no forced bring-up";
        EXPECT_TRUE(dir.Exists(kSessionFile))
            << "round " << round << ": the new serial was not saved";
    }
}

} // namespace
} // namespace plc::itest
