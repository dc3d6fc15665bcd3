// The batch polling engine's entry: up to 100 host records per call.
#pragma once

#include <cstdint>

#include "plc_driver.h"

namespace plc {

// The host's batch read (wk_OMRON_plc_read): 0, 2 or 3.
int32_t batch_read(PlcRequest *requests, int32_t count);

} // namespace plc
