// The host's single read: one run of elements of one variable, read by handle
// with one item, and placed into the host's buffer in its register layout.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "driver/connection.h"
#include "eip/cip_connected.h"
#include "eip/wire.h"
#include "engine/single_codec.h"
#include "engine/single_request.h"
#include "tags/cip_types.h"

namespace plc {

namespace {

constexpr TagLookupLines kReadLines{827, 832, 844, 848};
constexpr size_t kItemsAnsweredAt = 4;
constexpr size_t kValuesAt = 10;

// The value bytes of one read are copied here before they are laid out for
// the host; a reply carrying more than this is refused.
std::array<uint8_t, kValueAreaSize> value_area;

// Bytes the run occupies in the reply: the limit of the value area applies.
uint64_t run_bytes(const TagEntry &entry, uint32_t count) {
    return (uint64_t{count} * element_width(entry) + 7) / 8;
}

} // namespace

uint32_t element_width(const TagEntry &entry) {
    const uint32_t w = entry.bits & 0xFFu;
    return w == 0 ? 8 : w;
}

bool linear_index_fits(const TagEntry &entry, uint64_t index) {
    // Signed arithmetic: the bounds are unsigned 16-bit values, and an upper
    // bound below its lower one must not wrap into a huge dimension.
    const int64_t lo1 = entry.lo1, hi1 = entry.hi1;
    const int64_t lo2 = entry.lo2, hi2 = entry.hi2;
    const int64_t lo3 = entry.lo3, hi3 = entry.hi3;
    const int64_t d2 = hi2 - lo2 + 1;
    if (d2 <= 0) return false;
    const auto i = static_cast<int64_t>(index);
    if (entry.dim_type == 4) return lo2 + i % d2 <= hi2 && lo1 + i / d2 <= hi1;
    if (entry.dim_type == 5) {
        const int64_t d3 = hi3 - lo3 + 1;
        if (d3 <= 0) return false;
        const int64_t q = i / d3;
        return lo3 + i % d3 <= hi3 && lo2 + q % d2 <= hi2 && lo1 + q / d2 <= hi1;
    }
    return true;
}

int32_t check_read_range(const TagEntry &entry, uint32_t element, uint32_t count) {
    // A run whose values the 4,096-byte value area cannot hold is a request
    // the driver cannot serve: a configuration error, refused before traffic.
    if (run_bytes(entry, count) > kValueAreaSize) return 3;
    // The last element of the run must exist as well as the first: a run past
    // the end would read neighbouring memory of the controller, or be
    // refused by it after the connection had been used for nothing.
    const uint64_t last = uint64_t{element} + (count > 0 ? count - 1 : 0);
    switch (entry.dim_type) {
    case 1: {
        // An index below the lower bound would wrap the bit offset; it names
        // no element, so it is refused here rather than by the controller.
        if (element < entry.lo1 || element > entry.hi1) return 3;
        // A 64-bit array is declared with its bounds doubled, so its last
        // word, the high half of the last element, lies one past the upper
        // bound (a 64-bit scalar is declared [0..1] and ends on it): a run
        // may end there.
        const uint64_t last_word =
            is_double_word_type(entry.type_code) ? (entry.hi1 | 1u) : entry.hi1;
        return last > last_word ? 3 : 0;
    }
    case 4:
    case 5:
        return linear_index_fits(entry, element) && linear_index_fits(entry, last) ? 0 : 3;
    case 3:
        // A STRING with a declared length is read by character.
        return uint64_t{element} + count > entry.str_len ? 3 : 0;
    default:
        return 0;
    }
}

ReadItem make_read_item(const TagEntry &entry, uint32_t element, uint32_t count,
                        const VarHandle &handle) {
    const uint32_t w = element_width(entry);
    ReadItem item;
    item.handle = handle;
    if (entry.bits == 1) {
        // A BOOL run other than one element was resolved as the whole array;
        // the element index travels in the handle instead of the offset.
        if (count != 1) item.handle[5] = static_cast<uint8_t>(element & 0xFFu);
        item.bit_offset = 0;
    } else if (entry.dim_type == 0) {
        item.bit_offset = 0;
    } else if (entry.dim_type == 1) {
        item.bit_offset = (element - entry.lo1) * w;
    } else {
        item.bit_offset = element * w;
    }
    item.bit_length = count * w;
    return item;
}

std::optional<ReadValues> parse_read_reply(const uint8_t *reply, size_t size) {
    const wire::Reader r(reply, size);
    // Every field is taken from within the reported reply length only: a field
    // beyond it does not match, whatever an earlier reply left in the buffer.
    const std::optional<uint8_t> service = r.u8_at(0);
    const std::optional<uint32_t> items = r.u32_at(kItemsAnsweredAt);
    if (!service || *service != kReplyRead || !items || (*items & 0xFFu) != 1) {
        return std::nullopt;
    }
    const int64_t v = static_cast<int64_t>(size) - 8 - 2 * static_cast<int64_t>(*items);
    ReadValues out;
    if (v <= 0) return out;
    if (static_cast<uint64_t>(v) > kValueAreaSize) return std::nullopt;
    if (!r.has(kValuesAt, static_cast<size_t>(v))) return std::nullopt;
    out.bytes = reply + kValuesAt;
    out.size = static_cast<size_t>(v);
    return out;
}

size_t read_value_bytes(const TagEntry &entry, uint32_t count) {
    switch (element_width(entry)) {
    case 32: return size_t{count} * 4;
    case 16: return size_t{count} * 2;
    case 8: return count;
    case 1: return count > 0 ? 1 : 0;
    default: return size_t{count} * (element_width(entry) / 8);
    }
}

int32_t store_read_values(const TagEntry &entry, uint32_t count, const uint8_t *values,
                          size_t value_size, uint8_t *host_buffer) {
    const uint32_t w = element_width(entry);
    if (w != 32 && w != 16 && w != 8 && w != 1) return 2;
    // Fewer value bytes than the run needs would hand the host zeros as if
    // they had been read.
    const size_t need = read_value_bytes(entry, count);
    if (value_size < need) return 2;
    switch (w) {
    case 32:
    case 16:
        if (need > 0) std::memcpy(host_buffer, values, need);
        break;
    case 8:
        // One 16-bit register per byte-wide element, the value in its low byte.
        for (uint32_t i = 0; i < count; ++i) {
            host_buffer[2 * size_t{i}] = values[i];
            host_buffer[2 * size_t{i} + 1] = 0;
        }
        break;
    default: // 1: the BOOL's byte
        if (count > 0) host_buffer[0] = values[0];
        break;
    }
    return 0;
}

int32_t single_read(PlcRequest &request, PlcData &data) {
    const uint32_t tag_id = compose_tag_id(request);
    const uint32_t element = element_index(request);
    send_data.fill(0);
    recv_data.fill(0);
    value_area.fill(0);

    TagTable *table = nullptr;
    const TagEntry *entry = find_request_entry(g_s_settings, request, tag_id, kReadLines, &table);
    if (entry == nullptr) return 3;
    if (check_read_range(*entry, element, data.count) != 0) return 3;
    // A name the resolve request cannot carry is refused before any traffic.
    if (!resolve_path(*entry, element, data.count)) return 3;

    if (init != 1 && recover_connection() != 0) return 2;

    if (locate_link(INIT_RET_DATA.get(), element, tag_id, *table) != 1 || label_reupdata == 1) {
        if (REG_INIT(*table, request, send_data, recv_data, data) != 0) return 2;
    }
    VarHandle handle{};
    if (copy_from_link(INIT_RET_DATA.get(), element, tag_id, handle, *table) != 0) return 2;

    // The bit length of a run the value area holds fits the item's 24 bits.
    const ReadItem item = make_read_item(*entry, element, data.count, handle);
    wire::Writer out(send_data.data(), send_data.size());
    const size_t request_len = build_read_request(out, recv_flag_data1, &item, 1) ? out.size() : 0;
    uint32_t reply_len = 0;
    if (request_len == 0 || !session || !connection ||
        CIP_TransRecv(session.get(), connection.get(), send_data.data(),
                      static_cast<uint32_t>(request_len), recv_data.data(), &reply_len,
                      kServiceRead, recv_data.size()) < 0) {
        init = 0;
        std::printf("[PLC] CIP_TransRecv err at line %d\r\n", 1065);
        return 2;
    }

    const size_t valid = std::min<size_t>(reply_len, recv_data.size());
    const std::optional<ReadValues> values = parse_read_reply(recv_data.data(), valid);
    if (!values) {
        init = 0;
        return 2;
    }
    if (values->size > 0) std::memcpy(value_area.data(), values->bytes, values->size);
    // A reply the host cannot be given (a width without a register layout, or
    // fewer bytes than asked for) is not the expected one: the connection is
    // rebuilt and the variable resolved again on the next call.
    if (store_read_values(*entry, data.count, value_area.data(), values->size,
                          static_cast<uint8_t *>(data.buffer)) != 0) {
        init = 0;
        return 2;
    }
    label_reupdata = 0;
    return 0;
}

} // namespace plc
