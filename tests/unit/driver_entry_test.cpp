// The host entry points: settings, refusals at the C boundary, the session
// file, the word device bounds, and the order of checks before a request
// entry may touch the connection.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "driver/connection.h"
#include "driver/plc_state.h"
#include "driver/word_device.h"
#include "engine/engine_state.h"
#include "plc_driver.h"

namespace {

constexpr uint32_t kLoopback = 0x7F000001; // tag lists PLC7F000001_<device>.csv

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Every test runs in a fresh working directory: the driver reads its tag lists
// and writes its session file there.
class DriverEntry : public ::testing::Test {
protected:
    void SetUp() override {
        char cwd[4096];
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        previous_ = cwd;
        char dir[] = "/tmp/plc_driver_entry_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        ASSERT_EQ(chdir(dir), 0);
        plc::serial_n = 0;
        plc::deviceport = 1;
    }
    void TearDown() override {
        ASSERT_EQ(chdir(previous_.c_str()), 0);
        std::system(("rm -rf " + dir_).c_str());
    }
    std::string previous_;
    std::string dir_;
};

TEST_F(DriverEntry, SettingsGiveTheAddressTextAndForceResolution) {
    DriverInfo info{};
    EXPECT_EQ(wk_plc_driver_info(&info), 0);
    EXPECT_EQ(info.first, 236);
    EXPECT_EQ(info.second, 10);

    DriverSettings wide{{0xAA, 0xBB, 0xCC, 0xDD}, 0xC0A8FA01};
    plc::label_reupdata = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(wk_plc_init(&wide), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] server ip = 192.168.250.1, at line: 678\r\n");
    EXPECT_STREQ(plc::ip_buff, "192.168.250.1");
    EXPECT_EQ(plc::label_reupdata, 1u);
    EXPECT_EQ(plc::g_s_settings, &wide);

    DriverSettings longest{{}, 0xFFFFFFFF};
    testing::internal::CaptureStdout();
    wk_plc_init(&longest);
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(plc::ip_buff, "255.255.255.255");

    DriverSettings shorter{{}, kLoopback};
    testing::internal::CaptureStdout();
    wk_plc_init(&shorter);
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(plc::ip_buff, "127.0.0.1") << "nothing of the longer address is left";
    EXPECT_EQ(wide.reserved[0], 0xAA) << "the host's record is not written";
}

TEST_F(DriverEntry, NullPointersAreRefusedAtTheBoundary) {
    PlcRequest request{};
    uint16_t word = 0;
    PlcData data{1, &word};
    PlcData no_buffer{1, nullptr};
    EXPECT_EQ(wk_plc_driver_info(nullptr), 3);
    EXPECT_EQ(wk_plc_init(nullptr), 3);
    EXPECT_EQ(wk_plc_init2(0, 0, nullptr), 3);
    EXPECT_EQ(wk_plc_read(nullptr, &data), 3);
    EXPECT_EQ(wk_plc_read(&request, nullptr), 3);
    EXPECT_EQ(wk_plc_read(&request, &no_buffer), 3);
    EXPECT_EQ(wk_plc_write(nullptr, &data), 3);
    EXPECT_EQ(wk_plc_write(&request, &no_buffer), 3);
    EXPECT_EQ(wk_OMRON_plc_read(nullptr, 1), 3);
    EXPECT_EQ(wk_OMRON_plc_register(), 0);
}

TEST_F(DriverEntry, SessionFileKeepsTheSerialNumberLittleEndian) {
    plc::serial_n = 0xBEEF;
    testing::internal::CaptureStdout();
    plc::save_session();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "save:session_1.dat ok\n");
    EXPECT_EQ(ReadFile("session_1.dat"), std::string("\xEF\xBE\x00\x00", 4));

    plc::serial_n = 0;
    testing::internal::CaptureStdout();
    plc::read_past_session();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "read session_1.dat ok\nserial_n:48879\n");
    EXPECT_EQ(plc::serial_n, 0xBEEFu);

    // Another device port has its own file.
    plc::deviceport = 12;
    plc::serial_n = 7;
    testing::internal::CaptureStdout();
    plc::read_past_session();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[PLC] open file error at line 165\r\n");
    EXPECT_EQ(plc::serial_n, 7u);
}

TEST_F(DriverEntry, EmptyOrTruncatedSessionFileHoldsNoNumber) {
    for (const std::string &content : {std::string(), std::string("\x12\x34\x56", 3)}) {
        WriteFile("session_1.dat", content);
        plc::serial_n = 0;
        testing::internal::CaptureStdout();
        plc::read_past_session();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "[PLC] file is empty\n at line 181\r\n");
        EXPECT_EQ(plc::serial_n, 0u) << content.size() << " bytes";
    }
    // A session file that cannot be written is reported; the serial stays.
    ASSERT_EQ(remove("session_1.dat"), 0);
    ASSERT_EQ(mkdir("session_1.dat", 0700), 0);
    plc::serial_n = 99;
    testing::internal::CaptureStdout();
    plc::save_session();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] open session_file fail\n at line 143\r\n");
    EXPECT_EQ(plc::serial_n, 99u);
}

TEST_F(DriverEntry, WordTransfersStayInsideTheDeviceWindow) {
    WriteFile("sram", std::string(4096, '\0'));
    uint8_t words[4] = {0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(plc::transfer_words("sram", true, words, 3, 2), 4);
    const std::string image = ReadFile("sram");
    EXPECT_EQ(image.substr((3 + 512) * 2, 4), "\x01\x02\x03\x04");

    uint8_t back[4] = {};
    EXPECT_EQ(plc::transfer_words("sram", false, back, 3, 2), 4);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(back), 4), "\x01\x02\x03\x04");

    EXPECT_EQ(plc::transfer_words("sram", false, back, 130000, 600), -1);
    EXPECT_EQ(plc::transfer_words("sram", false, back, 130499, 1), 0) << "at the limit, past EOF";
    EXPECT_EQ(plc::transfer_words("sram", false, back, 0xFFFFFFFFu, 2), -1) << "no wrap";
    EXPECT_EQ(plc::transfer_words("sram", false, back, 2, 0xFFFFFFFFu), -1) << "no wrap";
    EXPECT_EQ(plc::transfer_words("sram", false, nullptr, 0, 1), -1);
    EXPECT_EQ(plc::transfer_words("missing", false, back, 0, 1), -1);
}

// Runs `body` in a child process inside new user and network namespaces: no
// eth0, no br0 and no route exist there, so a bring-up fails at once and no
// packet can leave. Returns what the child printed, or none when the
// namespaces are not available.
std::optional<std::string> RunIsolated(const std::function<void()> &body) {
    int fds[2];
    if (pipe(fds) != 0) return std::nullopt;
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) _exit(77);
        dup2(fds[1], STDOUT_FILENO);
        body();
        std::fflush(stdout);
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fds[0], chunk, sizeof chunk)) > 0) out.append(chunk, size_t(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) return std::nullopt;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "child failed\n" + out;
    return out;
}

size_t Count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

const char *const kBringUpFailed = "[PLC] get IP err at line 625\r\n";

class RequestEntry : public DriverEntry {
protected:
    void SetUp() override {
        DriverEntry::SetUp();
        WriteFile("PLC7F000001_1.csv", "A,DINT,[0..9],,,,,0\n"
                                       "L,LINT,[0..4],,,,,1\n"
                                       "M,INT,[0..2_0..3],,,,,2\n"
                                       "S,STRING,,20,,,,3\n"
                                       "T,TIME,,,,,,4\n");
    }

    // A request for tag `tag` at `element` with `count` from a fresh driver
    // whose connection is down; prints the status and the bytes the entry
    // left in the request record.
    static void Call(bool write, uint32_t tag, uint32_t element, uint32_t count,
                     const void *value = "1", uint8_t tag_high = 0) {
        PlcRequest request{};
        request.device = 1;
        request.tag_high = tag > 0xFFFF ? uint8_t(tag >> 16) : tag_high;
        request.address = (tag << 16) | element;
        uint8_t buffer[64] = {};
        std::memcpy(buffer, value, std::strlen(static_cast<const char *>(value)) + 1);
        PlcData data{count, buffer};
        const int32_t rc = write ? wk_plc_write(&request, &data) : wk_plc_read(&request, &data);
        std::printf("rc=%d high=%u tc=%u\n", rc, request.tag_high, plc::timeout_count);
    }

    static void Init() {
        static DriverSettings settings{{}, kLoopback};
        wk_plc_init(&settings);
        plc::init = 0;
        plc::timeout_count = 0;
    }
};

TEST_F(RequestEntry, WriteChecksTagElementAndValueBeforeReconnecting) {
    struct Case {
        uint32_t tag, element, count;
        const char *value;
        bool reaches_connection;
    };
    const Case cases[] = {
        {5, 0, 1, "1", false},  // not in the list of 5 plain tags
        {0, 10, 1, "1", false}, // DINT [0..9]
        {0, 9, 2, "1", false},  // run past the end
        {0, 9, 1, "1", true},
        {1, 10, 1, "1", false}, // LINT [0..4]: words 0 to 9 of [0..8] doubled
        {1, 9, 1, "1", true},
        {0, 0, 0, "1", false},  // a count of 0 names nothing
        {2, 12, 1, "1", false}, // INT [0..2_0..3]
        {2, 11, 1, "1", true},
        {4, 0, 1, "-2", false}, // negative TIME
        {0, 0, 64, "1", false}, // 256 value bytes
    };
    for (const Case &c : cases) {
        const auto out = RunIsolated([&] {
            Init();
            Call(true, c.tag, c.element, c.count, c.value);
        });
        if (!out) GTEST_SKIP() << "user and network namespaces are not available";
        SCOPED_TRACE(*out);
        EXPECT_NE(out->find("rc=3 "), std::string::npos);
        EXPECT_EQ(Count(*out, kBringUpFailed), c.reaches_connection ? 1u : 0u)
            << "tag " << c.tag << " element " << c.element;
    }

    const auto missing = RunIsolated([] {
        Init();
        Call(true, 5, 0, 1);
        Call(true, 0x40000, 0, 1);
    });
    ASSERT_TRUE(missing);
    EXPECT_EQ(Count(*missing, "rc=3 "), 2u) << *missing;
    EXPECT_EQ(Count(*missing, kBringUpFailed), 0u) << *missing;
}

TEST_F(RequestEntry, ReadChecksBeforeReconnectingAndNamesItsLines) {
    const auto out = RunIsolated([] {
        Init();
        Call(false, 5, 0, 1);         // plain id beyond the list
        Call(false, 0x40000, 0, 1);   // no indexed tags in the list
        Call(false, 0, 10, 1);        // element beyond [0..9]
        Call(false, 3, 17, 4);        // STRING of 20: characters 17..20
        Call(false, 0, 0, 1025);      // more than the value area
        Call(false, 0, 9, 1, "1", 2); // admitted: the connection is down
    });
    if (!out) GTEST_SKIP() << "user and network namespaces are not available";
    EXPECT_NE(out->find("[PLC] tag id 5 is not exist in this tag list PLC7F000001_1.csv, "
                        "at line: 844\r\nrc=3"),
              std::string::npos)
        << *out;
    EXPECT_EQ(Count(*out, "rc=3 "), 5u) << *out;
    EXPECT_EQ(Count(*out, kBringUpFailed), 1u) << *out;
    EXPECT_NE(out->find(std::string(kBringUpFailed) + "rc=2 high=0 tc=1\n"), std::string::npos)
        << "a high part of 2 is written back as 0: " << *out;
}

TEST_F(RequestEntry, EveryFourthFailedRecoveryForcesANewSerialAndResetsTheCount) {
    const auto out = RunIsolated([] {
        Init();
        for (int i = 0; i < 3; ++i) Call(false, 0, 0, 1);
        Call(true, 0, 0, 1);
        Call(false, 0, 0, 1);
    });
    if (!out) GTEST_SKIP() << "user and network namespaces are not available";
    EXPECT_NE(out->find("rc=2 high=0 tc=1\n"), std::string::npos) << *out;
    EXPECT_NE(out->find("rc=2 high=0 tc=3\n"), std::string::npos) << *out;
    // The fourth failure runs the forced bring-up (failing the same way) and
    // the write reports it with 3.
    EXPECT_NE(out->find(std::string(kBringUpFailed) + kBringUpFailed + "rc=3 high=0 tc=0\n"),
              std::string::npos)
        << *out;
    EXPECT_NE(out->find("rc=3 high=0 tc=0\n" + std::string(kBringUpFailed) + "rc=2 high=0 tc=1\n"),
              std::string::npos)
        << *out;
    EXPECT_EQ(Count(*out, kBringUpFailed), 6u);
}

TEST_F(RequestEntry, MissingTagListIsAConfigurationError) {
    ASSERT_EQ(remove("PLC7F000001_1.csv"), 0);
    const auto out = RunIsolated([] {
        Init();
        Call(false, 0, 0, 1, "1", 3);
        Call(true, 0, 0, 1, "1", 1);
    });
    if (!out) GTEST_SKIP() << "user and network namespaces are not available";
    EXPECT_NE(out->find("[PLC] build tag table failed! at line 827\r\nrc=3 high=0"),
              std::string::npos)
        << *out;
    EXPECT_EQ(Count(*out, "rc=3 high=0"), 2u) << *out;
    EXPECT_EQ(Count(*out, kBringUpFailed), 0u);
}

} // namespace
