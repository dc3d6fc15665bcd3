// The batch read entry over a given exchange, so that the whole batch engine
// can run against a peer other than the driver's connection.
#pragma once

#include <cstdint>

#include "engine/cip_exchange.h"
#include "plc_driver.h"

namespace plc {

// batch_read with every preparation and read request sent through `link`.
int32_t batch_read_over(CipExchange &link, PlcRequest *requests, int32_t count);

} // namespace plc
