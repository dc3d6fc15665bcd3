#include "eip/cip_connected.h"

#include <array>
#include <cstdio>
#include <new>

#include "eip/eip_packet.h"
#include "eip/wire.h"

namespace plc {

namespace {

// Class segment xx, instance 0. The class byte is rewritten before every
// request and keeps its last value in between.
std::array<uint8_t, 4> CLASS_PATH{0x20, 0xB8, 0x24, 0x00};

constexpr uint8_t kClassResolve = 0x6D;
constexpr uint8_t kClassDefault = 0xB8;
constexpr size_t kMrReplyFixed = 4;
constexpr size_t kSequenceSize = 2;
constexpr size_t kItemHeader = 4;

} // namespace

std::optional<std::vector<uint8_t>> _ConnectedSend(EipSession &session, CipConnection &connection,
                                                   const uint8_t *request, size_t size) {
    const uint16_t sequence = connection.sequence;
    connection.sequence = static_cast<uint16_t>(sequence + 1);

    CpfItem address;
    address.type_id = kItemConnectedAddress;
    address.connection_id = connection.ot_conn_id;
    CpfItem data;
    data.type_id = kItemConnectedData;
    data.sequence = sequence;

    std::optional<EipMessage> reply;
    // A request that cannot be described in one item is never sent; it ends
    // like an exchange that got no answer.
    if (size <= 0xFFFF && (size == 0 || request != nullptr)) {
        data.length = static_cast<uint16_t>(size);
        reply = _SendData_WaitReply(session, kEncapSendUnitData, address, nullptr, data, request);
    }
    if (!reply) {
        LogCip(2, "!Exiting ConnectedSend with no response\r\n");
        return std::nullopt;
    }
    // The next SendUnitData on the socket is the answer; its connection id and
    // the sequence count it echoes are not compared with the request. Requests
    // go one at a time and stale input is drained before every send, so the
    // only reply that can be waiting is this request's.
    const auto item = _GetDataItem(*reply);
    if (!item) return std::nullopt;
    const wire::Reader in(*reply);
    const auto command = in.u16_at(0);
    const auto length = in.u16_at(*item + 2);
    if (!command || *command != kEncapSendUnitData || !length) return std::nullopt;
    const auto begin = reply->begin() + static_cast<std::ptrdiff_t>(*item);
    try {
        return std::vector<uint8_t>(begin, begin + static_cast<std::ptrdiff_t>(kItemHeader + *length));
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

int32_t CIP_TransRecv(EipSession *session, CipConnection *connection, const uint8_t *request,
                      uint32_t request_len, uint8_t *reply, uint32_t *reply_len, uint8_t service,
                      size_t reply_capacity) {
    if (session == nullptr || connection == nullptr || reply == nullptr || reply_len == nullptr ||
        (request_len > 0 && request == nullptr))
        return -1;

    CLASS_PATH[1] = (service == kServiceResolveOrWrite && connection->write_mode != 1)
                        ? kClassResolve
                        : kClassDefault;
    size_t size = 0;
    const auto mr_request =
        _BuildMRRequest(service, CLASS_PATH.data(), CLASS_PATH.size(), request, request_len, &size);
    if (!mr_request) return -1;

    Change_Time = (service == kServiceReadByHandle || connection->write_mode == 1) ? 1 : 0;
    const auto item = _ConnectedSend(*session, *connection, mr_request->data(), size);
    if (!item) return -1;

    const wire::Reader in(*item);
    const auto length = in.u16_at(2);
    if (!length) return -1;
    const long reply_size = long{*length} - static_cast<long>(kSequenceSize);
    if (reply_size < 0) {
        std::printf("[PLC] DATASIZE is incorrect at line %d\r\n", 868);
        return -1;
    }
    if (static_cast<size_t>(reply_size) < kMrReplyFixed) {
        std::printf("[PLC] MR_Reply is incorrect at line %d\r\n", 854);
        return -1;
    }
    // A reply larger than the caller's buffer is refused whole rather than cut.
    const size_t at = kItemHeader + kSequenceSize;
    if (static_cast<size_t>(reply_size) > reply_capacity || !in.has(at, reply_size))
        return -1;
    std::memcpy(reply, item->data() + at, static_cast<size_t>(reply_size));
    *reply_len = static_cast<uint32_t>(reply_size);
    return 0;
}

} // namespace plc
