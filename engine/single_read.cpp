// The host's single read: one run of elements of one variable, read by handle
// with one item, and placed into the host's buffer in its register layout.
#include <cstdio>
#include <cstring>

#include "engine/read_codec.h"
#include "engine/single_request.h"

namespace plc {

namespace {

constexpr TagLookupLines kReadLines{827, 832, 844, 848};
constexpr int kLineTransRecv = 1065;

// Places the values in the host's register layout: false when the width has
// no layout (a TIME).
bool store_host_values(const TagEntry &entry, uint32_t count, wire::Bytes values, uint8_t *host) {
    switch (element_width(entry)) {
    case 32: std::memcpy(host, values.data, size_t{count} * 4); return true;
    case 16: std::memcpy(host, values.data, size_t{count} * 2); return true;
    case 8:
        // One 16-bit register per byte-wide element, the value in its low byte.
        for (uint32_t i = 0; i < count; ++i) {
            host[2 * size_t{i}] = values.data[i];
            host[2 * size_t{i} + 1] = 0;
        }
        return true;
    case 1: host[0] = values.data[0]; return true;
    default: return false;
    }
}

} // namespace

Status single_read(ControllerLink &link, const DriverSettings *settings, PlcRequest &request,
                   PlcData &data) {
    SingleTarget target;
    if (find_single_target(settings, request, data, kReadLines, target) != Status::Ok)
        return Status::ConfigError;
    const TagEntry &entry = *target.entry;
    const ItemGeometry geometry = item_geometry(entry, target.element, data.count);
    const size_t needed = item_value_bytes(geometry.bit_length);
    // The last element of the run must exist as well as the first, and a run
    // whose values the value area cannot hold cannot be served: both are
    // refused before any traffic.
    if (!run_inside_variable(entry, target.element, data.count) || needed > kValueAreaSize)
        return Status::ConfigError;

    if (!connection_ready(link)) return Status::CommFailure;
    if (const Status s = ensure_resolved(link, target); s != Status::Ok) return s;
    ReadItem item;
    if (copy_from_link(INIT_RET_DATA.get(), target.key, item.handle) != 0)
        return Status::CommFailure;
    // A BOOL run other than one element was resolved as the whole array; the
    // element index travels in the handle instead of the offset.
    if (entry.bits == 1 && data.count != 1)
        item.handle[5] = static_cast<uint8_t>(target.element & 0xFFu);
    item.bit_offset = geometry.bit_offset;
    item.bit_length = geometry.bit_length;

    wire::Writer out(link.request_area());
    const auto reply = build_read_request(out, recv_flag_data1, &item, 1)
                           ? link.exchange(CipCall::Read, out.size())
                           : std::nullopt;
    if (!reply) {
        link.mark_down();
        std::printf("[PLC] CIP_TransRecv err at line %d\r\n", kLineTransRecv);
        return Status::CommFailure;
    }
    wire::Bytes values;
    // A reply that is not the expected one, or one the host cannot be given (a
    // width without a register layout), rebuilds the connection and resolves
    // the variable again on the next call.
    if (parse_read_reply(*reply, 1, needed, values) != ReplyCheck::Ok ||
        !store_host_values(entry, data.count, values, static_cast<uint8_t *>(data.buffer))) {
        link.mark_down();
        return Status::CommFailure;
    }
    label_reupdata = 0;
    return Status::Ok;
}

} // namespace plc
