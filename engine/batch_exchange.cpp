#include "engine/batch_exchange.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "engine/batch_decode.h"
#include "engine/read_codec.h"

namespace plc {

namespace {

constexpr int kLineTransRecv = 2123;

// The gathered value bytes of one call.
struct ValueArea {
    std::array<uint8_t, kValueAreaSize> bytes;
    size_t size = 0;
};

// Items [first, first + count) of the plan with their handles; the value
// bytes they need are added to `needed`.
Status collect_items(const BatchPlan &plan, size_t first, size_t count, ReadItem *items,
                     size_t &needed) {
    for (size_t k = 0; k < count; ++k) {
        const PlannedItem &planned = plan.item[first + k];
        if (copy_from_link(INIT_RET_DATA.get(), planned.key, items[k].handle) != 0) {
            std::printf("copy_from_link error\r\n");
            return Status::CommFailure;
        }
        items[k].bit_offset = planned.geometry.bit_offset;
        items[k].bit_length = planned.geometry.bit_length;
        needed += item_value_bytes(planned.geometry.bit_length);
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

Status OMRON_INTERACT(ControllerLink &link, const BatchPlan &plan, PlcRequest *records) {
    ValueArea area;
    for (size_t done = 0; done < plan.items;) {
        const size_t batch = std::min<size_t>(kItemsPerRequest, plan.items - done);
        std::array<ReadItem, kItemsPerRequest> items;
        size_t needed = 0;
        Status status = collect_items(plan, done, batch, items.data(), needed);
        if (status == Status::Ok) status = read_items(link, items.data(), batch, needed, area);
        if (status != Status::Ok) {
            link.mark_down();
            return status;
        }
        done += batch;
    }
    const Status status =
        decode_batch_values(wire::Bytes{area.bytes.data(), area.size}, plan, records);
    if (status == Status::CommFailure) link.mark_down();
    return status;
}

} // namespace plc
