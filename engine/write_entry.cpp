// The host's write: tag and element checks, recovery of a lost connection,
// then one write request carried by handle.
#include <cstdio>

#include "engine/single_request.h"
#include "engine/write_codec.h"
#include "tags/cip_types.h"

namespace plc {

namespace {

constexpr TagLookupLines kWriteLines{1571, 1576, 1587, 1592};
constexpr int kLineTransRecv = 1518;

} // namespace

Status OMRON_WRITE_REQ(ControllerLink &link, const SingleTarget &target, const PlcData &data) {
    WriteValue value;
    switch (encode_write_value(*target.entry, target.element, data, value)) {
    case Status::Ok: break;
    case Status::CommFailure: link.mark_down(); return Status::CommFailure;
    default: return Status::ConfigError;
    }
    if (const Status s = ensure_resolved(link, target); s != Status::Ok) return s;
    VarHandle handle{};
    if (copy_from_link(INIT_RET_DATA.get(), target.key, handle) != 0) return Status::CommFailure;

    wire::Writer out(link.request_area());
    const auto reply = build_write_request(out, recv_flag_data1, handle, value)
                           ? link.exchange(CipCall::Write, out.size())
                           : std::nullopt;
    if (!reply) {
        link.mark_down();
        std::printf("[PLC] CIP_TransRecv err at line %d\r\n", kLineTransRecv);
        return Status::CommFailure;
    }
    // A refused write did not write the value; a reply of another kind is not
    // the answer to it. Either way the connection is rebuilt, so that handles
    // a new controller program made stale are resolved again.
    if (parse_write_reply(*reply) != ReplyCheck::Ok) {
        link.mark_down();
        return Status::CommFailure;
    }
    label_reupdata = 0;
    return Status::Ok;
}

Status write_entry(ControllerLink &link, const DriverSettings *settings, PlcRequest &request,
                   PlcData &data) {
    SingleTarget target;
    if (find_single_target(settings, request, data, kWriteLines, target) != Status::Ok)
        return Status::ConfigError;
    const TagEntry &entry = *target.entry;
    // A BOOL or a TIME write carries one element whatever the count says.
    const bool single = entry.bits == 1 || entry.type_code == kTypeTime;
    const uint32_t run = single && data.count != 0 ? 1 : data.count;
    if (!run_inside_variable(entry, target.element, run)) return Status::ConfigError;
    // The bit position is stored first: every write that gets past the
    // element checks reports it, refused or not. The value is checked here
    // too, so that a request that cannot be sent costs no reconnection.
    request.count = write_bit_position(entry, target.element);
    WriteValue probe;
    if (encode_write_value(entry, target.element, data, probe) == Status::ConfigError)
        return Status::ConfigError;

    if (!connection_ready(link)) {
        // Also after a forced bring-up that succeeded: the next entry builds
        // the connection afresh.
        link.mark_down();
        return Status::ConfigError;
    }
    return OMRON_WRITE_REQ(link, target, data);
}

} // namespace plc
