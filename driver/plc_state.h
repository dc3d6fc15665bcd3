// Module state of the driver front end: one instance of each, shared by every
// entry point. The host calls the entries one at a time, so nothing here is
// locked.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "eip/cip_connected.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"
#include "plc_driver_records.h"

namespace plc {

// The request and reply buffers of every connected exchange; each holds the
// largest encapsulation message.
using ExchangeBuffer = std::array<uint8_t, kConnectedReceiveSize>;

extern DriverSettings *g_s_settings;
extern char ip_buff[20];
extern uint32_t deviceport;
extern uint32_t lastTwoOctets;
extern uint32_t serial_n;
extern std::unique_ptr<EipSession> session;
extern std::unique_ptr<CipConnection> connection;
extern uint32_t init;
// Counts the connections brought up; see ControllerLink::generation.
extern uint32_t connection_generation;
extern uint32_t timeout_count;
extern ExchangeBuffer send_data;
extern ExchangeBuffer recv_data;

} // namespace plc
