#include "engine/batch_exchange.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "engine/batch_decode.h"
#include "engine/classify.h"
#include "engine/read_codec.h"

namespace plc {

namespace {

constexpr int kLineTransRecv = 2123;

// The gathered value bytes of one call.
struct ValueArea {
    std::array<uint8_t, kValueAreaSize> bytes;
    size_t size = 0;
};

// Fills items[0..count) from the slots from `s` on: handle, offset, length.
// Advances `s` past the slots the items cover and adds their value bytes to
// `needed`.
Status collect_items(const TagTable &table, size_t &s, size_t slots, ReadItem *items,
                     size_t count, size_t &needed) {
    for (size_t k = 0; k < count; ++k) {
        // The classification forms exactly reg_interact_num items over the
        // slots; running out of them means the tables do not belong together.
        if (s >= slots || OMRON_TEMP[s].count == 0) return Status::ConfigError;
        const BatchSlot &slot = OMRON_TEMP[s];
        const TagEntry *entry = find_entry(table, slot.tag_id);
        if (entry == nullptr) return Status::ConfigError;
        if (copy_from_link(INIT_RET_DATA.get(), slot_handle_key(table, *entry, slot),
                           items[k].handle) != 0) {
            std::printf("copy_from_link error\r\n");
            return Status::CommFailure;
        }
        const ItemGeometry geometry = item_geometry(*entry, slot.element, slot.count);
        items[k].bit_offset = geometry.bit_offset;
        items[k].bit_length = geometry.bit_length;
        needed += item_value_bytes(geometry.bit_length);
        s += slot.count;
    }
    return Status::Ok;
}

// One request of `count` items and the values its reply carries, appended to
// the area.
Status read_items(ControllerLink &link, const ReadItem *items, size_t count, size_t needed,
                  ValueArea &area) {
    // The value area is fixed; a batch whose values would not fit is not one
    // the records can describe.
    if (needed > area.bytes.size() - area.size) return Status::CommFailure;
    wire::Writer out(link.request_area());
    if (!build_read_request(out, recv_flag_data1, items, count)) return Status::CommFailure;
    const auto reply = link.exchange(CipCall::Read, out.size());
    if (!reply) {
        std::printf("[PLC] CIP_TransRecv err at line %d\r\n", kLineTransRecv);
        return Status::CommFailure;
    }
    wire::Bytes values;
    if (parse_read_reply(*reply, count, needed, values) != ReplyCheck::Ok)
        return Status::CommFailure;
    std::memcpy(area.bytes.data() + area.size, values.data, values.size);
    area.size += values.size;
    return Status::Ok;
}

} // namespace

Status OMRON_INTERACT(ControllerLink &link, const TagTable &table, PlcRequest *records,
                      int32_t count) {
    const size_t slots = std::min(static_cast<size_t>(std::max(count, 0)), OMRON_TEMP.size());
    ValueArea area;
    size_t s = 0; // slot of the next item, running on from request to request
    for (size_t done = 0; done < reg_interact_num;) {
        const size_t batch = std::min<size_t>(kItemsPerRequest, reg_interact_num - done);
        std::array<ReadItem, kItemsPerRequest> items;
        size_t needed = 0;
        Status status = collect_items(table, s, slots, items.data(), batch, needed);
        if (status == Status::Ok) status = read_items(link, items.data(), batch, needed, area);
        if (status == Status::CommFailure) link.mark_down();
        if (status != Status::Ok) return status;
        done += batch;
    }
    const Status status = decode_batch_values(wire::Bytes{area.bytes.data(), area.size},
                                              OMRON_TEMP.data(), slots, table, records);
    if (status == Status::CommFailure) link.mark_down();
    return status;
}

} // namespace plc
