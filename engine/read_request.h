// The read by handle (service 0x55) that the single read and the batch
// exchange both send: the 10-byte request prefix, the number of items, a zero
// byte, then 18 bytes per item (handle, bit offset, 24-bit bit length, 0).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "eip/wire.h"
#include "engine/handle_store.h"

namespace plc {

using RequestPrefix = std::array<uint8_t, 10>;

constexpr uint8_t kServiceRead = 0x55;
constexpr uint8_t kReplyRead = 0xD5;
constexpr size_t kItemsPerRequest = 15;
// Value bytes one call may gather: the work area the replies are copied into.
constexpr size_t kValueAreaSize = 4096;

struct ReadItem {
    VarHandle handle{};
    uint32_t bit_offset = 0;
    uint32_t bit_length = 0; // 24 bits on the wire
};

// Writes the request data for `count` items (1 to 15). False when the count is
// out of range, a bit length needs more than 24 bits, or `out` ran out of room.
bool build_read_request(wire::Writer &out, const RequestPrefix &prefix, const ReadItem *items,
                        size_t count);

} // namespace plc
