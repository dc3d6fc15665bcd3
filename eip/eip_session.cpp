// Encapsulation session: opening the TCP connection with its connect limit,
// registering and unregistering the session.
#include "eip/eip_session.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "plc_driver_sockets.h"

namespace plc {

namespace {

constexpr int kConnectWaitUs = 30000;
constexpr long kSendTimeoutUs = 500000;
constexpr uint16_t kProtocolVersion = 1;

} // namespace

int Set_NoBlock(int sock, const sockaddr_in &address) {
    const int flags = fcntl(sock, F_GETFL, 0);
    if (flags < 0) {
        // Without its flags the socket cannot be put back into blocking mode.
        wk_close_handel(sock);
        return -1;
    }
    fcntl(sock, F_SETFL, flags | O_NONBLOCK);

    timeval send_timeout{};
    send_timeout.tv_sec = 0;
    send_timeout.tv_usec = kSendTimeoutUs;
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
    const int reuse = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);

    if (wk_connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if (errno != EINPROGRESS) {
            wk_close_handel(sock);
            return -1;
        }
        const int ready = wait_ready(sock, POLLIN | POLLOUT,
                                     Clock::now() + std::chrono::microseconds(kConnectWaitUs));
        if (ready < 0) {
            std::puts("select error\r");
            wk_close_handel(sock);
            return ready;
        }
        if (ready == 0) {
            std::puts("select time out \r");
            wk_close_handel(sock);
            return -1;
        }
        int pending = 0;
        socklen_t len = sizeof pending;
        if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &pending, &len) < 0) {
            std::puts("getsockopt error\r");
            wk_close_handel(sock);
            return -1;
        }
        if (pending != 0) {
            wk_close_handel(sock);
            return -1;
        }
    }
    fcntl(sock, F_SETFL, flags);
    return 0;
}

int _CipOpenSock(const char *host, uint16_t port) {
    if (host == nullptr) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    const bool numeric = inet_pton(AF_INET, host, &address.sin_addr) == 1;

    const int sock = wk_socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0) return -1;

    if (numeric) {
        const int r = Set_NoBlock(sock, address);
        return r == 0 ? sock : r;
    }

    const hostent *entry = wk_gethostbyname(host);
    if (entry == nullptr || entry->h_addrtype != AF_INET ||
        entry->h_length != static_cast<int>(sizeof address.sin_addr) ||
        entry->h_addr_list == nullptr) {
        wk_close_handel(sock);
        return -1;
    }
    // Resolved names are connected plainly, in the order the resolver gave.
    for (char *const *a = entry->h_addr_list; *a != nullptr; ++a) {
        std::memcpy(&address.sin_addr, *a, sizeof address.sin_addr);
        const int r =
            wk_connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        if (r == 0) return sock;
        if (r != -1) break;
    }
    wk_close_handel(sock);
    return -1;
}

std::unique_ptr<EipSession> _OpenSession(const char *host, uint16_t port, int /*buffer_size*/,
                                         int32_t timeout_us) {
    std::unique_ptr<EipSession> session(new (std::nothrow) EipSession());
    if (!session) return nullptr;
    session->sock = _CipOpenSock(host, port);
    session->timeout_us = timeout_us;
    if (session->sock < 0) {
        std::puts("_CipOpenSock err--\r");
        return nullptr;
    }
    return session;
}

int32_t RegisterSession(EipSession &session) {
    session.handle = 0;

    std::array<uint8_t, kEncapHeaderSize + 4> request{};
    wire::Writer out(request.data(), request.size());
    EncapHeader header;
    header.command = kEncapRegisterSession;
    header.length = 4;
    header.sender_context = session.sender_context;
    WriteEncapHeader(out, header);
    out.u16(kProtocolVersion).u16(0); // no option flags

    const long sent = CipSendData(session.sock, request.data(), out.size());
    if (sent < 0) {
        LogCip(3, "CipSendData NULL\r\n");
        return static_cast<int32_t>(sent);
    }
    const auto reply = CipRecvData(session.sock, session.timeout_us);
    if (!reply) {
        LogCip(3, "reply NULL\r\n");
        return -1;
    }
    const auto reply_header = ParseEncapHeader(reply->data(), reply->size());
    if (!reply_header || reply_header->command != kEncapRegisterSession) {
        LogCip(3, "Command != EIP_REGISTERSESSION\r\n");
        return -1;
    }
    if (reply_header->status == 0) session.handle = reply_header->session_handle;
    return static_cast<int32_t>(reply_header->status);
}

long UnRegisterSession(EipSession &session) {
    std::printf("UnRegisterSession: session->sock=%d\n", session.sock);
    std::array<uint8_t, kEncapHeaderSize> request{};
    wire::Writer out(request.data(), request.size());
    EncapHeader header;
    header.command = kEncapUnRegisterSession;
    header.session_handle = session.handle;
    header.sender_context = session.sender_context;
    WriteEncapHeader(out, header);
    return CipSendData(session.sock, request.data(), out.size());
}

void CloseSession(std::unique_ptr<EipSession> session) {
    if (session && session->sock >= 0) wk_close_handel(session->sock);
}

void LogCip(int level, const char *format, ...) {
    if (level == 0 || format == nullptr) return;
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}

void FlushCipBuffer(int enable, const uint8_t *bytes, int count) {
    if (bytes == nullptr || enable == 0) return;
    for (int i = 0; i < count; ++i) {
        if (i % 10 == 0) {
            if (i != 0) std::putchar('\n');
            std::printf("%p (%04d) :\t", static_cast<const void *>(bytes + i), i);
        }
        std::printf("%02X ", bytes[i]);
    }
    std::printf("\n\n");
    std::fflush(stdout);
}

} // namespace plc
