// Connection bring-up with the persisted serial number, and the recovery that
// every request entry runs while the connection is down.
#pragma once

#include <cstdint>

#include "util/status.h"

namespace plc {

constexpr uint16_t kControllerPort = 44818;

// Take lastTwoOctets from the panel's own address on that interface.
Status get_eth0_IP();
Status get_br0_IP();
void save_session();
void read_past_session();
// Ok: connection up; ConfigError: no address, no session or no connection;
// RegisterRefused: the controller refused the session registration.
Status OMRON_EIP_INIT(uint32_t force_new_serial);

// Tears down what is left and runs the bring-up: Ok when the connection is up
// again (the engines then forget every handle they kept); on failure counts it
// (forcing a bring-up with a new serial number at every fourth) and returns
// the bring-up's status. The caller maps the outcome to its own status.
Status recover_connection();

} // namespace plc
