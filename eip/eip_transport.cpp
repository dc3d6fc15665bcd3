// Encapsulation transport.
//
// Choices made where the transport's behaviour was ours to settle:
//  - A receive that returns fewer bytes than asked is continued until the whole
//    header, then the whole body, has arrived. All of it shares one reply
//    deadline; a peer that closes the connection, a receive error or the
//    deadline passing mid-message yields no message at all.
//  - A send that transfers fewer bytes than the message is continued until every
//    byte is sent. Any error (including the 0.5 s send time-out) makes the whole
//    send a failure (-1): a message half on the wire cannot be taken back.
//  - Readiness waits use poll/ppoll rather than select: select cannot watch a
//    descriptor numbered FD_SETSIZE or above without writing outside its fd_set.
//  - Our own sends never raise SIGPIPE (MSG_NOSIGNAL): a controller that drops
//    the connection gives a failed send instead of killing the host process,
//    and the host's signal mask is never touched.
//  - A connected reply is received with as few system calls as can be: one
//    receive that blocks (the socket's receive time-out being the reply
//    time-out) or one readiness wait and one receive, of whatever is
//    waiting, up to the whole buffer; the header and the body nearly always
//    come together. A receive that ends without data (its time-out, a signal,
//    a socket that does not block) goes on with readiness waits up to the
//    deadline. Bytes behind the message begin the next one; those left when
//    the exchange ends are stale input, dropped as the next send would
//    discard them.
//  - The reply deadline reads the clock once; the first wait takes the time
//    that was just read (on the panel's ARMv5 core the clock is a system call).

#include "eip/eip_transport.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <poll.h>
#include <sys/socket.h>

#include "plc_driver_sockets.h"

namespace plc {

namespace {

// Stale input is read into this and never looked at.
std::array<uint8_t, kCipEmptyBuffSize> _CIPEmptyBuff;

// Stale input is discarded until none is waiting, up to sixteen of the largest
// messages: a peer that keeps sending beyond that is not answering requests,
// and the discarding must end within the send's own time bound. What is left
// cannot be taken for a reply: replies are matched to their request.
constexpr int kMaxDiscards = int(16 * kMaxEncapMessage / kCipEmptyBuffSize);

// Receives exactly `size` bytes before `deadline`; false when the peer closed,
// a receive failed or the deadline passed first. With `wait_first` false the
// bytes are asked for before any readiness wait.
bool RecvExact(int sock, uint8_t *dst, size_t size, Clock::time_point deadline, bool wait_first) {
    size_t got = 0;
    bool wait = wait_first;
    while (got < size) {
        if (wait && wait_ready(sock, POLLIN, deadline) != 1) return false;
        const ssize_t r = ::recv(sock, dst + got, size - got, MSG_DONTWAIT);
        if (r > 0) {
            got += static_cast<size_t>(r);
            wait = false;
        } else if (r == 0) {
            return false;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            wait = true;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Reads and drops `size` bytes, keeping the stream framed on the next message.
bool SkipExact(int sock, size_t size, Clock::time_point deadline) {
    while (size > 0) {
        const size_t chunk = size < _CIPEmptyBuff.size() ? size : _CIPEmptyBuff.size();
        if (!RecvExact(sock, _CIPEmptyBuff.data(), chunk, deadline, false)) return false;
        size -= chunk;
    }
    return true;
}

} // namespace

int wait_ready(int sock, short events, Clock::time_point deadline,
               std::optional<Clock::time_point> now) {
    for (;;) {
        const auto left = deadline - (now ? *now : Clock::now());
        now.reset();
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

Clock::time_point deadline_after_us(int32_t timeout_us) {
    // A negative time-out makes no sense for a wait; it only polls.
    return Clock::now() + std::chrono::microseconds(timeout_us > 0 ? timeout_us : 0);
}

ReplyWait::ReplyWait(int32_t timeout_us)
    : deadline(deadline_after_us(timeout_us)),
      now(deadline - std::chrono::microseconds(timeout_us > 0 ? timeout_us : 0)) {}

long send_message(int sock, const uint8_t *message, size_t size) {
    // The header's length says how much goes out; a message that does not hold
    // that much is refused rather than sent with bytes from beyond its end.
    const auto header = ParseEncapHeader(message, size);
    if (!header) return -1;
    const size_t total = kEncapHeaderSize + header->length;
    if (total > size) return -1;

    size_t sent = 0;
    while (sent < total) {
        const ssize_t r = ::send(sock, message + sent, total - sent, MSG_NOSIGNAL);
        if (r > 0) {
            sent += static_cast<size_t>(r);
        } else if (r < 0 && errno == EINTR) {
            continue;
        } else {
            return -1;
        }
    }
    return static_cast<long>(sent);
}

long CipSendData(int sock, const uint8_t *message, size_t size) {
    _CIPEmptyBuffer(sock);
    return send_message(sock, message, size);
}

void discard_stale_input(int sock) {
    for (int i = 0; i < kMaxDiscards && _CIPEmptyBuffer(sock) > 0; ++i) {}
}

std::optional<EipMessage> CipRecvData(int sock, int32_t timeout_us) {
    const auto deadline = deadline_after_us(timeout_us);
    try {
        EipMessage message(kEncapHeaderSize);
        if (!RecvExact(sock, message.data(), kEncapHeaderSize, deadline, true)) return std::nullopt;
        const auto length = wire::Reader(message).u16_at(kEncapLengthAt);
        if (!length) return std::nullopt;
        if (*length == 0) return message;
        message.resize(kEncapHeaderSize + *length);
        if (!RecvExact(sock, message.data() + kEncapHeaderSize, *length, deadline, false))
            return std::nullopt;
        return message;
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

std::optional<size_t> receive_message_into(int sock, wire::MutableBytes buffer, ReplyWait &wait) {
    if (buffer.data == nullptr || buffer.size < kEncapHeaderSize) return std::nullopt;
    size_t got = 0;
    if (wait.end > wait.next && wait.end <= buffer.size) {
        got = wait.end - wait.next;
        std::memmove(buffer.data, buffer.data + wait.next, got);
    }
    wait.next = wait.end = 0;
    size_t want = kEncapHeaderSize;
    bool framed = false;
    // Nothing has been received yet: the reply is never there the moment its
    // request has left, so the first receive waits first.
    bool ask_first = got > 0;
    for (;;) {
        if (!framed && got >= kEncapHeaderSize) {
            framed = true;
            // Bytes that are no message leave nothing to wait for on this
            // stream: given up at once rather than after the time-out.
            if (!is_encap_command(*wire::Reader(buffer.data, got).u16_at(0))) return std::nullopt;
            const uint16_t length = *wire::Reader(buffer.data, got).u16_at(kEncapLengthAt);
            want = kEncapHeaderSize + length;
            if (want > buffer.size) {
                // Skipped whole, so that the stream stays framed on the next one.
                SkipExact(sock, want - got, wait.deadline);
                return std::nullopt;
            }
        }
        if (got >= want) break;
        int flags = MSG_DONTWAIT;
        if (!ask_first && wait.receive_waits) {
            flags = 0;
        } else if (!ask_first && wait_ready(sock, POLLIN, wait.deadline, wait.now) != 1) {
            return std::nullopt;
        }
        wait.receive_waits = false;
        wait.now.reset();
        const ssize_t r = ::recv(sock, buffer.data + got, buffer.size - got, flags);
        if (r > 0) {
            got += static_cast<size_t>(r);
            ask_first = true;
        } else if (r == 0) {
            return std::nullopt;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            ask_first = false;
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
    wait.next = want;
    wait.end = got;
    return want;
}

long _CIPEmptyBuffer(int sock) {
    pollfd p{sock, POLLIN, 0};
    int r;
    while ((r = poll(&p, 1, 0)) < 0 && errno == EINTR) {}
    if (r < 0) return -1;
    if (r == 0) return 0;
    return wk_recv(sock, _CIPEmptyBuff.data(), _CIPEmptyBuff.size());
}

} // namespace plc
