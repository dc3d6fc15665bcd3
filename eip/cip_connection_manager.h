// Unconnected messaging to the message router and the connection manager:
// Large_Forward_Open and Forward_Close of the driver's class-3 connection.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "eip/cip.h"
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

// Connection manager (class 0x06, instance 1): where Forward_Open and
// Forward_Close are sent.
inline constexpr std::array<uint8_t, 4> CM_PATH{cip::kSegmentClass8, cip::kClassConnectionManager,
                                                cip::kSegmentInstance8, 0x01};
// Port 1, link 0, then the message router (class 0x02, instance 1): the
// connection path.
inline constexpr std::array<uint8_t, 6> ROUTER_PATH{
    0x01, 0x00, cip::kSegmentClass8, cip::kClassMessageRouter, cip::kSegmentInstance8, 0x01};

constexpr uint32_t kConnParamsDefault = 0x43F807CC;
constexpr uint32_t kConnParamsModes12 = 0x00004302;

// A message-router request (service, path size in words, path, data) and a
// message-router reply (reply service, reserved, general status, additional
// status size in words, additional status, response data).
using MrRequest = std::vector<uint8_t>;
using MrReply = std::vector<uint8_t>;

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

// Builds a message-router request; *total_size (when given) receives its size.
// None when the path cannot be described in words (over 510 bytes) or the
// request would not fit in one data item.
std::optional<MrRequest> _BuildMRRequest(uint8_t service, const uint8_t *path, size_t path_len,
                                         const uint8_t *data, size_t data_len, size_t *total_size);

// Sends an unconnected request in SendRRData and returns a copy of the
// message-router reply found in the answer's data item (its size also in
// *reply_size when given), or none.
std::optional<MrReply> _ExSendMRRequest(EipSession &session, const uint8_t *request, size_t size,
                                        size_t *reply_size);
std::optional<MrReply> _SendMRRequest(EipSession &session, uint8_t service, const uint8_t *path,
                                      size_t path_len, const uint8_t *data, size_t data_len,
                                      size_t *reply_size);

// Where the message-router reply lies inside a received message's data item
// (by the item's type: behind the sequence count of a connected item, behind
// the 28 fixed bytes of a sockaddr item); none when there is no data item or
// the reply would not fit in it.
struct MrSpan {
    size_t at;
    size_t size;
};
std::optional<MrSpan> _GetMRReply(wire::Bytes message);

// The connection ids a Large_Forward_Open reply grants: none unless it is the
// service's reply with status 0 and at least the two ids in its data.
struct ForwardOpenIds {
    uint32_t ot_conn_id = 0;
    uint32_t to_conn_id = 0;
};
std::optional<ForwardOpenIds> parse_forward_open_reply(wire::Bytes mr_reply);

// Large_Forward_Open; the new connection, or none when refused or unanswered.
std::unique_ptr<CipConnection> _Forward_Open(EipSession &session, uint8_t priority, uint8_t ticks,
                                             uint32_t to_conn_id, uint16_t conn_serial,
                                             uint16_t vendor_id, uint32_t orig_serial,
                                             uint8_t timeout_multiplier, uint32_t rpi,
                                             uint32_t conn_params, uint8_t transport,
                                             const uint8_t *path, uint8_t path_len);

// Forward_Close of the connection with this triple; the reply's general
// status (0 = closed) or -1 when no usable reply came.
int _ExForward_Close(EipSession &session, uint8_t priority, uint8_t ticks, uint16_t conn_serial,
                     uint16_t vendor_id, uint32_t orig_serial, const uint8_t *path,
                     uint8_t path_len);

// Closes any connection an earlier run left under the same triple, then opens
// a new one. Priority, ticks, timeout multiplier and transport come from the
// module settings above, as do the Forward_Open's vendor id and originator
// serial; the vendor id and originator serial arguments go into the
// Forward_Close. Modes 1 and 2 only change the connection parameters.
std::unique_ptr<CipConnection>
_ConnectPLCOverCNET(EipSession &session, int mode, uint8_t priority, uint8_t ticks,
                    uint32_t to_conn_id, uint16_t conn_serial, uint16_t vendor_id,
                    uint32_t orig_serial, uint8_t timeout_multiplier, uint32_t rpi,
                    uint8_t transport, const uint8_t *route_prefix, uint8_t route_prefix_len);

// Closes the connection on the controller; the block is released in every case.
// Returns the reply's general status, or -1 when no reply came.
int Forward_Close(std::unique_ptr<CipConnection> connection);

} // namespace plc
