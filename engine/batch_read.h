// The batch polling engine's entry: up to 100 host records per call.
#pragma once

#include <cstdint>

#include "engine/link.h"
#include "plc_driver_records.h"
#include "util/status.h"

namespace plc {

// The host's batch read (wk_OMRON_plc_read).
Status batch_read(ControllerLink &link, const DriverSettings *settings, PlcRequest *requests,
                  int32_t count);

} // namespace plc
