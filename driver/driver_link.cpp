#include "driver/driver_link.h"

#include "driver/connection.h"
#include "driver/plc_state.h"
#include "eip/cip.h"

namespace plc {

namespace {

uint8_t service_of(CipCall call) {
    return call == CipCall::Read ? cip::kServiceReadByHandle : cip::kServiceResolveOrWrite;
}

// The connection addresses service 0x56 to the variable class while its
// write_mode is set; it is cleared on every way out, or the next resolve
// would go there too.
class WriteModeScope {
public:
    WriteModeScope(CipConnection &c, bool on) : c_(c) { c_.write_mode = on ? 1 : 0; }
    ~WriteModeScope() { c_.write_mode = 0; }
    WriteModeScope(const WriteModeScope &) = delete;
    WriteModeScope &operator=(const WriteModeScope &) = delete;

private:
    CipConnection &c_;
};

} // namespace

bool DriverLink::ensure_up() { return init == 1 || recover_connection() == Status::Ok; }

uint32_t DriverLink::generation() const { return connection_generation; }

void DriverLink::mark_down() { init = 0; }

wire::MutableBytes DriverLink::request_area() {
    return wire::MutableBytes{send_data.data() + kConnectedRequestHeadroom,
                              send_data.size() - kConnectedRequestHeadroom};
}

std::optional<wire::Bytes> DriverLink::exchange(CipCall call, size_t request_len) {
    // No connection is no reply: the caller's failure path marks it down.
    if (!session || !connection) return std::nullopt;
    const WriteModeScope write_mode(*connection, call == CipCall::Write);
    const ConnectedBuffers buffers{wire::MutableBytes{send_data.data(), send_data.size()},
                                   wire::MutableBytes{recv_data.data(), recv_data.size()}};
    wire::Bytes reply;
    if (CIP_TransRecv(*session, *connection, buffers, request_len, service_of(call), &reply) < 0)
        return std::nullopt;
    return reply;
}

} // namespace plc
