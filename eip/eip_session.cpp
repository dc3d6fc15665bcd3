// Encapsulation transport and session.
//
// Choices made where the transport's behaviour was ours to settle:
//  - A receive that returns fewer bytes than asked is continued until the whole
//    header, then the whole body, has arrived. All of it shares the one reply
//    deadline given to CipRecvData; a peer that closes the connection, a receive
//    error or the deadline passing mid-message yields no message at all.
//  - A send that transfers fewer bytes than the message is continued until every
//    byte is sent. Any error (including the 0.5 s send time-out) makes the whole
//    send a failure (-1): a message half on the wire cannot be taken back.
//  - Readiness waits use poll/ppoll rather than select: select cannot watch a
//    descriptor numbered FD_SETSIZE or above without writing outside its fd_set.
//  - SIGPIPE is held back around our own sends, so a controller that drops the
//    connection gives a failed send instead of killing the host process.

#include "eip/eip_session.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "plc_driver.h"

namespace plc {

namespace {

using Clock = std::chrono::steady_clock;

// Stale input is read into this and never looked at.
std::array<uint8_t, kCipEmptyBuffSize> _CIPEmptyBuff;

constexpr int kConnectWaitUs = 30000;
constexpr long kSendTimeoutUs = 500000;

// Waits until `sock` is ready for `events` or `deadline` passes.
// 1 ready, 0 deadline passed, -1 the wait failed. Interrupted waits resume
// with what is left of the deadline.
int WaitReady(int sock, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = deadline - Clock::now();
        const auto left_ns =
            left.count() > 0 ? std::chrono::duration_cast<std::chrono::nanoseconds>(left).count()
                             : 0;
        timespec ts{};
        ts.tv_sec = static_cast<time_t>(left_ns / 1000000000);
        ts.tv_nsec = static_cast<long>(left_ns % 1000000000);
        pollfd p{sock, events, 0};
        const int r = ppoll(&p, 1, &ts, nullptr);
        if (r < 0 && errno == EINTR) continue;
        return r < 0 ? -1 : (r == 0 ? 0 : 1);
    }
}

Clock::time_point DeadlineAfterUs(int32_t timeout_us) {
    // A negative time-out makes no sense for a wait; it only polls.
    return Clock::now() + std::chrono::microseconds(timeout_us > 0 ? timeout_us : 0);
}

// Receives exactly `size` bytes before `deadline`; false when the peer closed,
// a receive failed or the deadline passed first.
bool RecvExact(int sock, uint8_t *dst, size_t size, Clock::time_point deadline) {
    size_t got = 0;
    while (got < size) {
        if (WaitReady(sock, POLLIN, deadline) != 1) return false;
        const ssize_t r = wk_recv(sock, dst + got, size - got);
        if (r > 0) {
            got += static_cast<size_t>(r);
        } else if (r == 0) {
            return false;
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            return false;
        }
    }
    return true;
}

// Holds SIGPIPE back on this thread for the lifetime of the guard. A SIGPIPE
// raised by our own send is consumed before the old mask is restored; one that
// was already pending when we started is left for its owner.
class SigpipeGuard {
public:
    SigpipeGuard() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigemptyset(&pending);
        if (sigpending(&pending) == 0) was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        blocked_ = pthread_sigmask(SIG_BLOCK, &pipe_, &old_) == 0;
    }
    ~SigpipeGuard() {
        if (!blocked_) return;
        if (raised_ && !was_pending_) {
            const timespec zero{};
            while (sigtimedwait(&pipe_, nullptr, &zero) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    SigpipeGuard(const SigpipeGuard &) = delete;
    SigpipeGuard &operator=(const SigpipeGuard &) = delete;
    void broken_pipe() { raised_ = true; }

private:
    sigset_t pipe_;
    sigset_t old_;
    bool blocked_ = false;
    bool was_pending_ = false;
    bool raised_ = false;
};

} // namespace

std::optional<EncapHeader> ParseEncapHeader(const uint8_t *data, size_t size) {
    if (data == nullptr || size < kEncapHeaderSize) return std::nullopt;
    wire::Reader in(data, size);
    EncapHeader h;
    h.command = in.u16();
    h.length = in.u16();
    h.session_handle = in.u32();
    h.status = in.u32();
    in.bytes(h.sender_context.data(), h.sender_context.size());
    h.options = in.u32();
    if (!in.ok()) return std::nullopt;
    return h;
}

void WriteEncapHeader(wire::Writer &out, const EncapHeader &header) {
    out.u16(header.command)
        .u16(header.length)
        .u32(header.session_handle)
        .u32(header.status)
        .bytes(header.sender_context.data(), header.sender_context.size())
        .u32(header.options);
}

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
        const int ready = WaitReady(sock, POLLIN | POLLOUT,
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
        const int r = wk_connect(sock, reinterpret_cast<const sockaddr *>(&address),
                                 sizeof address);
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
    out.u16(1).u16(0); // protocol version 1, no option flags

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

long CipSendData(int sock, const uint8_t *message, size_t size) {
    // The header's length says how much goes out; a message that does not hold
    // that much is refused rather than sent with bytes from beyond its end.
    const auto header = ParseEncapHeader(message, size);
    if (!header) return -1;
    const size_t total = kEncapHeaderSize + header->length;
    if (total > size) return -1;

    _CIPEmptyBuffer(sock);

    SigpipeGuard guard;
    size_t sent = 0;
    while (sent < total) {
        const ssize_t r = wk_send(sock, message + sent, total - sent);
        if (r > 0) {
            sent += static_cast<size_t>(r);
            continue;
        }
        if (r < 0 && errno == EINTR) continue;
        if (r < 0 && errno == EPIPE) guard.broken_pipe();
        return -1;
    }
    return static_cast<long>(sent);
}

std::optional<EipMessage> CipRecvData(int sock, int32_t timeout_us) {
    const auto deadline = DeadlineAfterUs(timeout_us);
    try {
        EipMessage message(kEncapHeaderSize);
        if (!RecvExact(sock, message.data(), kEncapHeaderSize, deadline)) return std::nullopt;
        const auto length = wire::Reader(message).u16_at(2);
        if (!length) return std::nullopt;
        if (*length == 0) return message;
        message.resize(kEncapHeaderSize + *length);
        if (!RecvExact(sock, message.data() + kEncapHeaderSize, *length, deadline))
            return std::nullopt;
        return message;
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

long _CIPEmptyBuffer(int sock) {
    pollfd p{sock, POLLIN, 0};
    int r;
    while ((r = poll(&p, 1, 0)) < 0 && errno == EINTR) {
    }
    if (r < 0) return -1;
    if (r == 0) return 0;
    return wk_recv(sock, _CIPEmptyBuff.data(), _CIPEmptyBuff.size());
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
    if (count >= 1) {
        for (int i = 0; i < count; ++i) {
            if (i % 10 == 0) {
                if (i != 0) std::putchar('\n');
                std::printf("%p (%04d) :\t", static_cast<const void *>(bytes + i), i);
            }
            std::printf("%02X ", bytes[i]);
        }
    }
    std::printf("\n\n");
    std::fflush(stdout);
}

} // namespace plc
