// Connection bring-up with the persisted serial number, and the recovery that
// every request entry runs while the connection is down.
#pragma once

#include <cstdint>

namespace plc {

constexpr uint16_t kControllerPort = 44818;

int get_eth0_IP();
int get_br0_IP();
void save_session();
void read_past_session();
// 0 connection up, 3 no address / no session / no connection, -1 registration refused.
int32_t OMRON_EIP_INIT(uint32_t force_new_serial);

// Tears down what is left and runs the bring-up. On success frees the
// handles (INIT_RET_DATA) and the remembered request sets (node) and returns
// 0; on failure counts it (forcing a bring-up with a new serial number at
// every fourth) and returns non-zero. The caller maps the outcome to its own
// status.
int32_t recover_connection();

} // namespace plc
