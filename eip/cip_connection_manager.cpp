#include "eip/cip_connection_manager.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "eip/eip_packet.h"
#include "eip/mr_reply.h"
#include "util/wire.h"

namespace plc {

namespace {

constexpr size_t kMaxPathBytes = 510; // the path size byte counts 16-bit words
constexpr size_t kMaxItemPayload = 0xFFFF;
constexpr uint32_t kOtConnIdRequested = 0x33000000;
constexpr uint32_t kRpiExtraUs = 392;
constexpr size_t kForwardOpenFixed = 40;
constexpr size_t kForwardCloseFixed = 12;

} // namespace

std::optional<MrSpan> _GetMRReply(wire::Bytes message) {
    const auto item = _GetDataItem(message);
    if (!item) return std::nullopt;
    const wire::Reader in(message);
    const auto type = in.u16_at(*item);
    const auto length = in.u16_at(*item + 2);
    if (!type || !length) return std::nullopt;
    size_t skip = 4;
    size_t size = *length;
    switch (*type) {
    case kItemConnectedData: // the sequence count precedes the reply
        if (*length < 2) return std::nullopt;
        skip = 6;
        size = *length - 2u;
        break;
    case kItemSockaddrOT:
        if (*length < 28) return std::nullopt;
        skip = 28;
        size = *length - 28u;
        break;
    default: break;
    }
    if (!in.has(*item + skip, size)) return std::nullopt;
    return MrSpan{*item + skip, size};
}

namespace {

// Connection path padded to whole words, as Forward_Open and Forward_Close carry it.
void WritePath(wire::Writer &out, const uint8_t *path, uint8_t path_len) {
    const size_t words = (size_t{path_len} + 1) / 2;
    out.bytes(path, path_len).zeros(words * 2 - path_len);
}

} // namespace

std::optional<MrRequest> _BuildMRRequest(uint8_t service, const uint8_t *path, size_t path_len,
                                         const uint8_t *data, size_t data_len, size_t *total_size) {
    if ((path_len > 0 && path == nullptr) || (data_len > 0 && data == nullptr)) return std::nullopt;
    if (path_len > kMaxPathBytes || data_len > kMaxItemPayload - 2 - path_len) return std::nullopt;
    const size_t total = 2 + path_len + data_len;
    try {
        MrRequest request(total, 0);
        wire::Writer out(request.data(), request.size());
        out.u8(service)
            .u8(static_cast<uint8_t>(path_len / 2))
            .bytes(path, path_len)
            .bytes(data, data_len);
        if (!out.ok()) return std::nullopt;
        if (total_size) *total_size = total;
        return request;
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

std::optional<ForwardOpenIds> parse_forward_open_reply(wire::Bytes mr_reply) {
    // Only a successful answer to this very service opens the connection: a
    // late reply to the Forward_Close before it must not pass for one.
    const auto view = parse_mr_reply(mr_reply);
    if (check_mr_reply(view, cip::kServiceLargeForwardOpen) != ReplyCheck::Ok) return std::nullopt;
    wire::Reader in(view->data);
    ForwardOpenIds ids;
    ids.ot_conn_id = in.u32();
    ids.to_conn_id = in.u32();
    if (!in.ok()) return std::nullopt;
    return ids;
}

std::optional<MrReply> _ExSendMRRequest(EipSession &session, const uint8_t *request, size_t size,
                                        size_t *reply_size) {
    if ((size > 0 && request == nullptr) || size > kMaxItemPayload) return std::nullopt;
    CpfItem address;
    address.type_id = kItemNullAddress;
    CpfItem data;
    data.type_id = kItemUnconnectedData;
    data.length = static_cast<uint16_t>(size);

    const auto answer = _SendRRData(session, address, nullptr, data, request);
    if (!answer) return std::nullopt;
    const auto span = _GetMRReply(message_bytes(*answer));
    if (!span) return std::nullopt;
    try {
        MrReply reply(answer->begin() + static_cast<std::ptrdiff_t>(span->at),
                      answer->begin() + static_cast<std::ptrdiff_t>(span->at + span->size));
        if (reply_size) *reply_size = span->size;
        return reply;
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

std::optional<MrReply> _SendMRRequest(EipSession &session, uint8_t service, const uint8_t *path,
                                      size_t path_len, const uint8_t *data, size_t data_len,
                                      size_t *reply_size) {
    size_t size = 0;
    const auto request = _BuildMRRequest(service, path, path_len, data, data_len, &size);
    if (!request) return std::nullopt;
    return _ExSendMRRequest(session, request->data(), size, reply_size);
}

std::unique_ptr<CipConnection> _Forward_Open(EipSession &session, uint8_t priority, uint8_t ticks,
                                             uint32_t to_conn_id, uint16_t conn_serial,
                                             uint16_t vendor_id, uint32_t orig_serial,
                                             uint8_t timeout_multiplier, uint32_t rpi,
                                             uint32_t conn_params, uint8_t transport,
                                             const uint8_t *path, uint8_t path_len) {
    if (path_len > 0 && path == nullptr) return nullptr;
    const size_t words = (size_t{path_len} + 1) / 2;
    const uint32_t rpi_us = rpi * 1000u + kRpiExtraUs;

    std::array<uint8_t, kForwardOpenFixed + 2 * 128> data{};
    wire::Writer out(data.data(), data.size());
    out.u8(priority)
        .u8(ticks)
        .u32(kOtConnIdRequested)
        .u32(to_conn_id)
        .u16(conn_serial)
        .u16(vendor_id)
        .u32(orig_serial)
        .u8(timeout_multiplier)
        .zeros(3)
        .u32(rpi_us)
        .u32(conn_params)
        .u32(rpi_us)
        .u32(conn_params)
        .u8(transport)
        .u8(static_cast<uint8_t>(words));
    WritePath(out, path, path_len);
    if (!out.ok() || out.size() != kForwardOpenFixed + 2 * words) return nullptr;

    Change_Time = 0;
    const auto reply = _SendMRRequest(session, cip::kServiceLargeForwardOpen, CM_PATH.data(),
                                      CM_PATH.size(), data.data(), out.size(), nullptr);
    if (!reply) return nullptr;

    const auto ids = parse_forward_open_reply(wire::Bytes{reply->data(), reply->size()});
    if (!ids) return nullptr;

    try {
        auto connection = std::make_unique<CipConnection>();
        connection->eip_session = &session;
        connection->conn_serial = conn_serial;
        connection->vendor_id = vendor_id;
        connection->orig_serial = orig_serial;
        connection->ot_conn_id = ids->ot_conn_id;
        connection->to_conn_id = ids->to_conn_id;
        connection->sequence = 0;
        connection->path_len = path_len;
        connection->write_mode = 0;
        connection->path.assign(path, path + path_len);
        return connection;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

int _ExForward_Close(EipSession &session, uint8_t priority, uint8_t ticks, uint16_t conn_serial,
                     uint16_t vendor_id, uint32_t orig_serial, const uint8_t *path,
                     uint8_t path_len) {
    if (path_len > 0 && path == nullptr) return -1;
    const size_t words = (size_t{path_len} + 1) / 2;

    std::array<uint8_t, kForwardCloseFixed + 2 * 128> data{};
    wire::Writer out(data.data(), data.size());
    out.u8(priority)
        .u8(ticks)
        .u16(conn_serial)
        .u16(vendor_id)
        .u32(orig_serial)
        .u8(static_cast<uint8_t>(words))
        .u8(0);
    WritePath(out, path, path_len);
    if (!out.ok() || out.size() != kForwardCloseFixed + 2 * words) return -1;

    Change_Time = 8;
    size_t size = 0;
    const auto reply = _SendMRRequest(session, cip::kServiceForwardClose, CM_PATH.data(),
                                      CM_PATH.size(), data.data(), out.size(), &size);
    if (!reply) return -1;
    LogCip(3, "_ExForward_Close : reply=%p (%d)\r\n", static_cast<const void *>(reply->data()),
           static_cast<int>(size));
    // A reply too short to hold a general status says nothing about the close.
    const auto view = parse_mr_reply(wire::Bytes{reply->data(), reply->size()});
    return view ? int{view->general_status} : -1;
}

int Forward_Close(std::unique_ptr<CipConnection> connection) {
    if (!connection || connection->eip_session == nullptr) return -1;
    // Never read past the path actually held, whatever path_len claims.
    const auto path_len =
        static_cast<uint8_t>(std::min<size_t>(connection->path_len, connection->path.size()));
    return _ExForward_Close(*connection->eip_session, _Priority_1, _TimeOut_Ticks_1,
                            connection->conn_serial, connection->vendor_id, connection->orig_serial,
                            connection->path.data(), path_len);
}

std::unique_ptr<CipConnection>
_ConnectPLCOverCNET(EipSession &session, int mode, uint8_t /*priority*/, uint8_t /*ticks*/,
                    uint32_t to_conn_id, uint16_t conn_serial, uint16_t vendor_id,
                    uint32_t orig_serial, uint8_t /*timeout_multiplier*/, uint32_t rpi,
                    uint8_t /*transport*/, const uint8_t *route_prefix, uint8_t route_prefix_len) {
    if (route_prefix_len > 0 && route_prefix == nullptr) return nullptr;
    // The path length travels in one byte.
    if (size_t{route_prefix_len} + ROUTER_PATH.size() > 0xFF) return nullptr;
    const auto path_len = static_cast<uint8_t>(route_prefix_len + ROUTER_PATH.size());

    try {
        std::vector<uint8_t> path(route_prefix, route_prefix + route_prefix_len);
        path.insert(path.end(), ROUTER_PATH.begin(), ROUTER_PATH.end());

        // A connection an earlier run left open under the same triple would make
        // the controller refuse the new one; what it answers here does not matter.
        auto stale = std::make_unique<CipConnection>();
        stale->eip_session = &session;
        stale->conn_serial = conn_serial;
        stale->vendor_id = vendor_id;
        stale->orig_serial = orig_serial;
        stale->path_len = path_len;
        stale->path = path;
        Forward_Close(std::move(stale));

        const uint32_t params = (mode == 1 || mode == 2) ? kConnParamsModes12 : kConnParamsDefault;
        return _Forward_Open(session, _Priority, _TimeOut_Ticks, to_conn_id, conn_serial,
                             _OriginatorVendorID, _OriginatorSerialNumber, _TimeOutMultiplier, rpi,
                             params, _Transport, path.data(), path_len);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

} // namespace plc
