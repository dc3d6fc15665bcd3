// The variable services that connected requests reach: resolving names into
// handles (service 0x56, class 0x6D), reading by handle (0x55, class 0xB8) and
// writing by handle (0x56, class 0xB8).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "sim/cip.h"
#include "sim/stats.h"
#include "sim/variable_store.h"
#include "sim/wire.h"

namespace plc::sim {

// Largest message-router reply that fits in one SendUnitData message.
constexpr size_t kMaxConnectedReply = 65513;

constexpr size_t kPrefixSize = 10;
constexpr size_t kHandleSize = 10;
constexpr size_t kResolveItemSize = 24;
constexpr size_t kReadItemSize = 18;
constexpr uint8_t kMaxResolveNames = 20;
constexpr uint8_t kMaxReadItems = 15;

// The 10 bytes that stand for a variable (or one element of it) in read and
// write items:
//   0..1 variable index in the store, 2..3 low half of the connection token,
//   4 low byte of the CIP type code, 5..8 bit base (position of the element's
//   first bit in the variable; 0 for the whole variable), 9 flags (1: element).
// Clients may rewrite the bit base (a packed BOOL is addressed by moving it),
// so only index, token half and type byte identify the handle; the bit base
// is just added to the item's bit offset.
struct VarHandle {
    uint16_t index = 0;
    uint16_t token_low = 0;
    uint8_t type_low = 0;
    uint32_t bit_base = 0;
    uint8_t flags = 0;

    static constexpr uint8_t kElement = 1;

    std::array<uint8_t, kHandleSize> Encode() const;
    static VarHandle Decode(wire::Reader &in);
};

// Executes connected requests for the connection whose token is `token`. The
// token (random, non-zero, chosen when the connection opens) is the first
// four bytes of the 10-byte request prefix that every resolve reply gives and
// every read and write request must carry back; handles carry its low half,
// so prefixes and handles of another connection are refused.
//
// Refusals carry a general status and no additional status, so an error reply
// is exactly 4 bytes and can never be mistaken for data:
//   0x05  unknown name, subscript outside the bounds, stale or foreign handle
//         (unknown index, other token, other type), wrong prefix token;
//   0x20  a field out of its range (name count, item count, reserved bytes,
//         length byte, a bit range not inside the variable, unaligned or empty
//         write);
//   0x13 / 0x15  request data shorter / longer than its fields announce;
//   0x11  the read reply would not fit in one message;
//   0x08  another service; 0x05 an instance other than 0;
//   0x04  a path with an attribute segment.
class VariableServices {
public:
    VariableServices(SharedStore &shared, Stats &stats, PublishedFile *store_file = nullptr)
        : shared_(shared), stats_(stats), store_file_(store_file) {}

    // `path` is the request's, already parsed by the message router.
    CipReply Execute(uint32_t token, const MrRequest &request, const RequestPath &path,
                     size_t max_reply = kMaxConnectedReply);

private:
    CipReply Resolve(uint32_t token, const std::vector<uint8_t> &data);
    CipReply Read(uint32_t token, const std::vector<uint8_t> &data, size_t max_reply);
    CipReply Write(uint32_t token, const std::vector<uint8_t> &data);

    SharedStore &shared_;
    Stats &stats_;
    PublishedFile *store_file_;
};

} // namespace plc::sim
