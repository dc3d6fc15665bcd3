// The read by handle (service 0x55) that the single read and the batch
// exchange both send, and its reply: the prefix, the number of items, a zero
// byte, 18 bytes per item (handle, bit offset, 24-bit bit length, 0); the reply
// answers with the item count, a word per item, then each item's values.
#pragma once

#include <cstddef>
#include <cstdint>

#include "eip/mr_reply.h"
#include "engine/engine_state.h"
#include "engine/handle_store.h"
#include "util/wire.h"

namespace plc {

constexpr size_t kItemsPerRequest = 15;
// Value bytes one call gathers at most: the work area the replies are copied into.
constexpr size_t kValueAreaSize = 4096;

struct ReadItem {
    VarHandle handle{};
    uint32_t bit_offset = 0;
    uint32_t bit_length = 0; // 24 bits on the wire
};

// The request data for items[0..count) (1 to 15): false when the count is out
// of range, a bit length needs more than 24 bits, or `out` ran out of room.
bool build_read_request(wire::Writer &out, const RequestPrefix &prefix, const ReadItem *items,
                        size_t count);

// Checks the reply to a request of `sent` items whose values need `needed`
// bytes, and hands out exactly those bytes: a reply with fewer is not the
// expected one, and bytes beyond them are never taken as values.
ReplyCheck parse_read_reply(wire::Bytes reply, size_t sent, size_t needed, wire::Bytes &values);

} // namespace plc
