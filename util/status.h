// The outcome of every driver step that the host eventually sees, named once
// and turned into the host's integers only at the entry points.
#pragma once

#include <cstdint>

#include "plc_driver_records.h"

namespace plc {

enum class Status : int32_t {
    Ok = PLC_STATUS_OK,
    CommFailure =
        PLC_STATUS_COMM_FAILURE, // connection or exchange failed, reply not the expected one
    ConfigError =
        PLC_STATUS_CONFIG_ERROR, // tag list, tag id, element, a request that cannot be sent
    RegisterRefused =
        PLC_STATUS_REGISTER_REFUSED, // the controller refused the session registration
};

constexpr int32_t to_host(Status status) { return static_cast<int32_t>(status); }

} // namespace plc
