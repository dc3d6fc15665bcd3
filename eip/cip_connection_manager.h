// Unconnected messaging to the message router and the connection manager:
// Large_Forward_Open and Forward_Close of the driver's class-3 connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "eip/eip_session.h"

namespace plc {

// Fixed connection settings of the driver.
constexpr uint8_t _Priority = 6;
constexpr uint8_t _TimeOut_Ticks = 0x9A;
constexpr uint8_t _TimeOutMultiplier = 7;
constexpr uint8_t _Transport = 0xA3;
constexpr uint16_t _OriginatorVendorID = 0x0030;
constexpr uint32_t _OriginatorSerialNumber = 0xC0A8015A;
constexpr uint8_t _Priority_1 = 5;
constexpr uint8_t _TimeOut_Ticks_1 = 0xF7;

struct CipConnection {
    EipSession *eip_session = nullptr;
    uint16_t conn_serial = 0;
    uint16_t vendor_id = 0;
    uint32_t orig_serial = 0;
    uint32_t ot_conn_id = 0;
    uint32_t to_conn_id = 0;
    uint16_t sequence = 0;
    uint8_t path_len = 0;
    uint8_t write_mode = 0;
    std::vector<uint8_t> path;
};

std::unique_ptr<CipConnection> _ConnectPLCOverCNET(
    EipSession &session, int mode, uint8_t priority, uint8_t ticks, uint32_t to_conn_id,
    uint16_t conn_serial, uint16_t vendor_id, uint32_t orig_serial, uint8_t timeout_multiplier,
    uint32_t rpi, uint8_t transport, const uint8_t *route_prefix, uint8_t route_prefix_len);

// Closes the connection on the controller; the block is released in every case.
// Returns the reply's general status, or -1 when no reply came.
int Forward_Close(std::unique_ptr<CipConnection> connection);

} // namespace plc
