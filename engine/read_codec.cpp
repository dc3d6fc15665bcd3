#include "engine/read_codec.h"

#include "eip/cip.h"

namespace plc {

namespace {
constexpr uint32_t kMaxBitLength = 0xFFFFFF;
constexpr size_t kItemWordsAt = 4; // behind the 32-bit item count
} // namespace

bool build_read_request(wire::Writer &out, const RequestPrefix &prefix, const ReadItem *items,
                        size_t count) {
    if (count == 0 || count > kItemsPerRequest || items == nullptr) return false;
    out.bytes(prefix.data(), prefix.size()).u8(static_cast<uint8_t>(count)).u8(0);
    for (size_t k = 0; k < count; ++k) {
        if (items[k].bit_length > kMaxBitLength) return false;
        out.bytes(items[k].handle.data(), items[k].handle.size())
            .u32(items[k].bit_offset)
            .u24(items[k].bit_length)
            .u8(0);
    }
    return out.ok();
}

ReplyCheck parse_read_reply(wire::Bytes reply, size_t sent, size_t needed, wire::Bytes &values) {
    values = wire::Bytes{};
    const auto view = parse_mr_reply(reply);
    const ReplyCheck check = check_mr_reply(view, cip::kServiceReadByHandle);
    if (check != ReplyCheck::Ok) return check;
    const wire::Reader in(view->data);
    // The whole 32-bit item number must match: the values are located from
    // it, and one that merely shares its low byte would misplace them.
    const size_t values_at = kItemWordsAt + 2 * sent;
    if (sent == 0 || in.u32_at(0) != sent || !in.has(values_at, needed))
        return ReplyCheck::Unexpected;
    values = wire::Bytes{view->data.data + values_at, needed};
    return ReplyCheck::Ok;
}

} // namespace plc
