// The message-router reply header, read in one place: reply service, a
// reserved byte, the general status, the additional status (its size in
// 16-bit words, then the words) and the response data behind them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "util/wire.h"

namespace plc {

constexpr size_t kMrReplyFixedSize = 4; // service, reserved, status, additional size

struct MrReplyView {
    uint8_t service = 0;
    uint8_t general_status = 0;
    uint8_t additional_words = 0;
    wire::Bytes additional; // additional_words x 2 bytes
    wire::Bytes data;       // the response data, possibly empty
    size_t data_offset = 0; // where the response data starts in the reply
};

// None when the reply is shorter than its fixed part and additional status.
std::optional<MrReplyView> parse_mr_reply(wire::Bytes reply);

// How a reply answers a request of `service`.
enum class ReplyCheck {
    Ok,         // the service's reply with general status 0
    Refused,    // the service's reply with a non-zero general status
    Unexpected, // not a reply to this service, or too short to be one
};
ReplyCheck check_mr_reply(const std::optional<MrReplyView> &view, uint8_t service);

} // namespace plc
