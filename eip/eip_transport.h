// Moving whole encapsulation messages over the controller's TCP connection:
// one send after discarding stale input, and one message received within a
// deadline, either into a new block or in place into a caller's buffer.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "eip/encap.h"
#include "util/wire.h"

namespace plc {

using Clock = std::chrono::steady_clock;

// Bytes one discard of stale input reads at most.
constexpr size_t kCipEmptyBuffSize = 512;

// Discards stale input, then sends the whole message (its header's length +
// 24 bytes): the bytes sent, or -1.
long CipSendData(int sock, const uint8_t *message, size_t size);
// The next whole message within timeout_us, or none.
std::optional<EipMessage> CipRecvData(int sock, int32_t timeout_us);
// One discard of at most 512 bytes of waiting input: what the receive
// returned, 0 when nothing was waiting, -1 when the readiness check failed.
long _CIPEmptyBuffer(int sock);

// Sends the whole message without discarding first: the bytes sent, or -1.
long send_message(int sock, const uint8_t *message, size_t size);
// Discards everything already waiting on the socket (a reply that arrived
// after its request gave up, a duplicate), so that it cannot be taken for the
// answer to the next request.
void discard_stale_input(int sock);
Clock::time_point deadline_after_us(int32_t timeout_us);

// The wait for one reply: its deadline, the clock as it was read to set it
// (kept for the first wait, which then reads no clock: a system call on the
// panel's core), and the bytes that arrived in `buffer` behind the message
// handed out last, which begin the next one.
struct ReplyWait {
    explicit ReplyWait(int32_t timeout_us);
    Clock::time_point deadline;
    std::optional<Clock::time_point> now;
    // The socket's receive time-out is the wait's own: the first receive may
    // block for the reply instead of a readiness wait before it.
    bool receive_waits = false;
    size_t next = 0; // the first byte behind the last message
    size_t end = 0;  // the end of what was received
};

// Receives the next whole message into `buffer` before the wait's deadline:
// its size, or none when it did not arrive whole in time, the peer closed, or
// it does not fit the buffer. Asks for as much as the buffer holds, so a
// message and what follows it usually come with one receive.
std::optional<size_t> receive_message_into(int sock, wire::MutableBytes buffer, ReplyWait &wait);

// Waits until `sock` is ready for `events` (poll flags) or `deadline` passes:
// 1 ready, 0 deadline passed, -1 the wait failed. Interrupted waits resume
// with what is left of the deadline. `now`, when given, is taken as the
// clock's reading for the first wait.
int wait_ready(int sock, short events, Clock::time_point deadline,
               std::optional<Clock::time_point> now = std::nullopt);

} // namespace plc
