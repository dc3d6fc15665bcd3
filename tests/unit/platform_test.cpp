#include "platform/plc_ethernet.h"
#include "plc_driver.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

constexpr uint32_t kLoopback = 0x7F000001; // 127.0.0.1

// A socket bound to 127.0.0.1 on a free port, closed at the end of the test.
struct BoundSocket {
    explicit BoundSocket(int type) : fd(wk_socket(AF_INET, type, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(kLoopback);
        socklen_t length = sizeof address;
        if (fd < 0 || wk_bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            return;
        port = ntohs(address.sin_port);
    }
    ~BoundSocket() {
        if (fd >= 0) wk_closesocket(fd);
    }
    int fd;
    uint16_t port = 0;
};

CommSettings settings_for(uint32_t address, uint16_t port, char protocol) {
    CommSettings settings{};
    settings.address = address;
    settings.port = port;
    settings.protocol = protocol;
    return settings;
}

size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

TEST(AddressText, FirstOctetFromTheHighByte) {
    EXPECT_STREQ(plc::address_text(0xC0A8010A).data(), "192.168.1.10");
    EXPECT_STREQ(plc::address_text(0x0A000001).data(), "10.0.0.1");
    EXPECT_STREQ(plc::address_text(0xFFFFFFFF).data(), "255.255.255.255");
}

TEST(TimeSet, ReportsReadinessInEveryMode) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    CommHandle handle{};
    handle.socket = pair[0];

    // Nothing pending: each mode times out (zero waits, so no waiting here).
    for (int mode : {0, 1, 7, -1}) EXPECT_EQ(wk_time_set(&handle, mode), 0) << "mode " << mode;

    ASSERT_EQ(wk_send(pair[1], "x", 1), 1);
    handle.wait_seconds = 5;
    handle.wait_milliseconds = 2500; // beyond one second: must still be a valid wait
    for (int mode : {0, 1, 7}) EXPECT_EQ(wk_time_set(&handle, mode), 1) << "mode " << mode;

    char byte = 0;
    EXPECT_EQ(wk_recv(pair[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');

    wk_close_handel(pair[0]);
    wk_close_handel(pair[1]);

    // Descriptors select cannot hold are refused instead of overrunning its set.
    handle.socket = -1;
    EXPECT_EQ(wk_time_set(&handle, 2), -1);
    handle.socket = FD_SETSIZE;
    EXPECT_EQ(wk_time_set(&handle, 2), -1);
}

TEST(UdpComm, FillsTheDestinationForDatagrams) {
    BoundSocket receiver(SOCK_DGRAM);
    ASSERT_NE(receiver.port, 0);

    const CommSettings settings = settings_for(kLoopback, receiver.port, 'U');
    int sock = -1;
    sockaddr_in destination{};
    ASSERT_EQ(init_udp_comm(&settings, &sock, &destination), 0);
    ASSERT_GE(sock, 0);
    EXPECT_EQ(destination.sin_family, AF_INET);
    EXPECT_EQ(destination.sin_port, htons(receiver.port));
    EXPECT_EQ(destination.sin_addr.s_addr, htonl(kLoopback));

    const char message[] = "ping";
    EXPECT_EQ(wk_sendto(sock, message, 4, 0, reinterpret_cast<sockaddr *>(&destination),
                        sizeof destination),
              4);
    char got[8] = {};
    sockaddr_in from{};
    socklen_t from_length = sizeof from;
    EXPECT_EQ(wk_recvfrom(receiver.fd, got, sizeof got, 0, reinterpret_cast<sockaddr *>(&from),
                          &from_length),
              4);
    EXPECT_STREQ(got, "ping");
    EXPECT_EQ(from.sin_addr.s_addr, htonl(kLoopback));
    wk_closesocket(sock);
}

TEST(CommunicationSet, ConnectsAStreamWithTheSendTimeout) {
    BoundSocket listener(SOCK_STREAM);
    ASSERT_NE(listener.port, 0);
    ASSERT_EQ(wk_listen(listener.fd, 4), 0);
    const CommSettings settings = settings_for(kLoopback, listener.port, 'U');

    // Figure 27 gives 27 mod 10 + 3 = 10 s; figure 0 gives 3 s.
    const struct {
        uint32_t figure;
        long seconds;
        int (*set_up)(const CommSettings *, CommHandle *);
    } cases[] = {{27, 10, CommunicationSet}, {0, 3, ReCommunicationSet}};
    for (const auto &c : cases) {
        CommHandle handle{};
        handle.socket = -1;
        handle.send_timeout_figure = c.figure;
        ::testing::internal::CaptureStdout();
        ASSERT_EQ(c.set_up(&settings, &handle), 0);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
        ASSERT_GE(handle.socket, 0);

        int type = 0;
        socklen_t length = sizeof type;
        ASSERT_EQ(::getsockopt(handle.socket, SOL_SOCKET, SO_TYPE, &type, &length), 0);
        EXPECT_EQ(type, SOCK_STREAM);
        timeval timeout{};
        length = sizeof timeout;
        ASSERT_EQ(::getsockopt(handle.socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, &length), 0);
        EXPECT_EQ(timeout.tv_sec, c.seconds);
        EXPECT_EQ(timeout.tv_usec, 0);

        const int accepted = wk_accept(listener.fd, nullptr, nullptr);
        EXPECT_GE(accepted, 0);
        wk_close_handel(accepted);
        wk_close_handel(handle.socket);
    }
}

TEST(CommunicationSet, OtherProtocolLettersGiveADatagramSocket) {
    BoundSocket peer(SOCK_DGRAM);
    ASSERT_NE(peer.port, 0);
    const CommSettings settings = settings_for(kLoopback, peer.port, 'T');
    CommHandle handle{};
    ASSERT_EQ(CommunicationSet(&settings, &handle), 0);
    int type = 0;
    socklen_t length = sizeof type;
    ASSERT_EQ(::getsockopt(handle.socket, SOL_SOCKET, SO_TYPE, &type, &length), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    wk_closesocket(handle.socket);
}

TEST(CommunicationSet, RefusedConnectionIsReportedAndLeavesTheHandle) {
    // Bound but not listening: a connect to it is refused.
    BoundSocket closed_port(SOCK_STREAM);
    ASSERT_NE(closed_port.port, 0);
    const CommSettings settings = settings_for(kLoopback, closed_port.port, 'U');
    CommHandle handle{};
    handle.socket = 12345;

    const size_t open_before = open_descriptors();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(CommunicationSet(&settings, &handle), -1);
    EXPECT_EQ(ReCommunicationSet(&settings, &handle), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "connect to 127.0.0.1 failed\r\nconnect to 127.0.0.1 failed\r\n");
    EXPECT_EQ(handle.socket, 12345);
    EXPECT_EQ(open_descriptors(), open_before) << "failed attempts must close their sockets";
}

} // namespace
