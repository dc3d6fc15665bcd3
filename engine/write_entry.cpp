// The host's write: tag and element checks, recovery of a lost connection,
// then one write request.
#include "driver/connection.h"
#include "engine/single_codec.h"
#include "engine/single_request.h"
#include "tags/cip_types.h"

namespace plc {

namespace {
constexpr TagLookupLines kWriteLines{1571, 1576, 1587, 1592};
} // namespace

int32_t check_write_range(const TagEntry &entry, uint32_t element, uint32_t count,
                          bool double_word) {
    // A BOOL or a TIME write carries one element whatever the count says.
    const bool single = entry.bits == 1 || entry.type_code == kTypeTime;
    const uint64_t run = single ? 1 : count;
    uint64_t first = element;
    uint64_t last = first + (run > 0 ? run - 1 : 0);
    if (double_word) {
        // The host addresses each element of these types as two 32-bit words.
        first >>= 1;
        last >>= 1;
    }
    switch (entry.dim_type) {
    case 1:
        // Below the lower bound the bit offset would wrap; such an index
        // names no element and is refused before any traffic.
        if (element < entry.lo1 || last > entry.hi1) return 3;
        return 0;
    case 4:
    case 5:
        return linear_index_fits(entry, first) && linear_index_fits(entry, last) ? 0 : 3;
    case 3:
        // A STRING with a declared length is written by character.
        return uint64_t{element} + run > entry.str_len ? 3 : 0;
    default:
        return 0;
    }
}

int32_t write_entry(PlcRequest &request, PlcData &data) {
    const uint32_t tag_id = compose_tag_id(request);
    const uint32_t element = element_index(request);
    send_data.fill(0);
    recv_data.fill(0);

    TagTable *table = nullptr;
    const TagEntry *entry = find_request_entry(g_s_settings, request, tag_id, kWriteLines, &table);
    if (entry == nullptr) return 3;

    // Whether the index is halved is decided by the variable's type: for an
    // indexed tag, by the first entry of its group.
    uint32_t deciding_type = entry->type_code;
    if (tag_id >= PLC_INDEXED_TAG_BASE) {
        const IndexedGroup *group = find_group(*table, tag_id);
        if (group == nullptr || group->tags.empty()) return 3;
        deciding_type = group->tags.front().type_code;
    }
    if (check_write_range(*entry, element, data.count, is_double_word_type(deciding_type)) != 0) {
        return 3;
    }
    // The value and the name are checked here too, so that a request that
    // cannot be sent costs no reconnection. The bit position is stored first:
    // every write that reaches this point reports it, refused or not.
    request.count = write_bit_position(*entry, element);
    WriteValue probe;
    if (encode_write_value(*entry, element, data, probe) == 3) return 3;
    if (!resolve_path(*entry, element, data.count)) return 3;

    if (init != 1 && recover_connection() != 0) {
        // Also after a forced bring-up that succeeded: the next entry builds
        // the connection afresh.
        init = 0;
        return 3;
    }
    return static_cast<int32_t>(OMRON_WRITE_REQ(session.get(), connection.get(), request,
                                                send_data, *table, data, recv_data));
}

} // namespace plc
