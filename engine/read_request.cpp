#include "engine/read_request.h"

namespace plc {

bool build_read_request(wire::Writer &out, const RequestPrefix &prefix, const ReadItem *items,
                        size_t count) {
    if (count == 0 || count > kItemsPerRequest || items == nullptr) return false;
    out.bytes(prefix.data(), prefix.size()).u8(static_cast<uint8_t>(count)).u8(0);
    for (size_t k = 0; k < count; ++k) {
        if (items[k].bit_length > 0xFFFFFFu) return false;
        out.bytes(items[k].handle.data(), items[k].handle.size())
            .u32(items[k].bit_offset)
            .u24(items[k].bit_length)
            .u8(0);
    }
    return out.ok();
}

} // namespace plc
