// Encapsulation packets: SendRRData / SendUnitData requests carrying a common
// packet format of one address item and one data item, the exchange of such a
// request for the next message on the socket, and locating items in a reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "eip/eip_session.h"

namespace plc {

// Common packet format item type ids.
constexpr uint16_t kItemNullAddress = 0x0000;
constexpr uint16_t kItemConnectedAddress = 0x00A1;
constexpr uint16_t kItemConnectedData = 0x00B1;
constexpr uint16_t kItemUnconnectedData = 0x00B2;
constexpr uint16_t kItemSockaddrOT = 0x8000;
constexpr uint16_t kItemSockaddrTO = 0x8001;
constexpr uint16_t kItemSequencedAddress = 0x8002;

// Bytes of a SendRRData / SendUnitData request before its first item: the
// header, interface handle, timeout and item count.
constexpr size_t kCpfRequestPrefix = kEncapHeaderSize + 4 + 2 + 2;

// Describes one item before it is appended. `length` is the number of payload
// bytes the caller supplies; appending rewrites it to the item's wire length,
// so a descriptor is filled anew for every request.
struct CpfItem {
    uint16_t type_id = 0;
    uint16_t length = 0;
    uint32_t connection_id = 0; // 0x00A1 and 0x8002
    uint16_t sequence = 0;      // 0x00B1 (and 0x8002, widened to 32 bits)
};

// A request under construction: one block sized for the whole message up
// front; the header's length field counts the bytes appended after it.
using EipRequest = std::vector<uint8_t>;

// Chooses the request's timeout field from the session's reply time-out:
// 0 -> timeout_us mod 1,000,000; 1 -> timeout_us / 1,000,000; other -> 8.
// Each sender sets it just before building its request.
extern uint8_t Change_Time;

// Appenders. Each writes at 24 + length and adds its size to the length; one
// that does not fit in the block (or would push the length past 65,535)
// appends nothing and returns false.
bool _AddHeader(EipRequest &request, const uint8_t *bytes, size_t count);
bool _AddBYTE2Header(EipRequest &request, uint8_t value);
bool _AddINT2Header(EipRequest &request, uint16_t value);
bool _AddDINT2Header(EipRequest &request, uint32_t value);
bool _Addtab2Header(EipRequest &request, const uint8_t *bytes, size_t count);

// Fixed size of an item (type id, length, fixed fields); 0 for unknown types.
size_t _GetItemSize(const CpfItem &item);

// Appends one item with `payload` holding item.length bytes (payload may be
// null only when item.length is 0). Returns the item's wire length, or -1
// (nothing appended) for an unknown type, missing payload or no room.
int _AddItem(EipRequest &request, CpfItem &item, const uint8_t *payload);

// Appends the item count 2, the address item and the data item. Returns the
// data item's wire length, or -1 when an item could not be appended.
int _AddCPF(EipRequest &request, CpfItem &address, const uint8_t *address_payload, CpfItem &data,
            const uint8_t *data_payload);

// Builds a whole request around the two items; the command is left 0.
std::optional<EipRequest> _BuildRequest(const EipSession &session, CpfItem &address,
                                        const uint8_t *address_payload, CpfItem &data,
                                        const uint8_t *data_payload, int32_t timeout_us);

// Builds, sends with `command`, and returns the next message that arrives
// within the session's reply time-out.
std::optional<EipMessage> _SendData_WaitReply(EipSession &session, uint16_t command,
                                              CpfItem &address, const uint8_t *address_payload,
                                              CpfItem &data, const uint8_t *data_payload);

// Sends `request` (CipSendData discards stale input first) and waits up to
// timeout_us for the next message. The third argument is not used.
std::optional<EipMessage> CipSendData_WaitReply(int sock, const EipRequest &request,
                                                int32_t unused_timeout, int32_t timeout_us);

// _SendData_WaitReply with SendRRData.
std::optional<EipMessage> _SendRRData(EipSession &session, CpfItem &address,
                                      const uint8_t *address_payload, CpfItem &data,
                                      const uint8_t *data_payload);

// Offsets into a received message (its whole bytes, header first). Each is
// none when the message carries no common packet format or when the item
// would not lie wholly inside it.
std::optional<size_t> _GetEipCPF(wire::Bytes message);
std::optional<size_t> _GetAdressItem(wire::Bytes message);
std::optional<size_t> _GetDataItem(wire::Bytes message);
inline wire::Bytes message_bytes(const EipMessage &message) {
    return wire::Bytes{message.data(), message.size()};
}

} // namespace plc
