#include "eip/eip_packet.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <new>

#include "util/wire.h"

namespace plc {

uint8_t Change_Time = 0;

namespace {

constexpr size_t kLengthField = 2;
constexpr size_t kTimeoutField = 28;
constexpr size_t kMaxItemFixed = 28;
constexpr uint32_t kMaxEncapLength = 0xFFFF;

std::optional<uint16_t> RequestLength(const EipRequest &request) {
    if (request.size() < kEncapHeaderSize) return std::nullopt;
    return wire::Reader(request).u16_at(kLengthField);
}

// End of the bytes a received message really holds: its announced size, but
// never beyond what was received.
size_t MessageEnd(wire::Bytes message) {
    const auto length = wire::Reader(message).u16_at(kLengthField);
    if (!length) return 0;
    return std::min(message.size, kEncapHeaderSize + size_t{*length});
}

// An item header at `at` whose announced length lies wholly inside the message.
std::optional<size_t> ItemInside(wire::Bytes message, size_t at) {
    const wire::Reader in(message.data, MessageEnd(message));
    const auto length = in.u16_at(at + 2);
    if (!in.has(at, 4) || !length || !in.has(at + 4, *length)) return std::nullopt;
    return at;
}

// The fixed part of an item as it goes on the wire, with `wire_length`.
size_t EncodeFixed(const CpfItem &item, uint16_t wire_length,
                   std::array<uint8_t, kMaxItemFixed> &out) {
    wire::Writer w(out.data(), out.size());
    w.u16(item.type_id).u16(wire_length);
    switch (item.type_id) {
    case kItemConnectedAddress: w.u32(item.connection_id); break;
    case kItemConnectedData: w.u16(item.sequence); break;
    case kItemSequencedAddress: w.u32(item.connection_id).u32(item.sequence); break;
    case kItemSockaddrOT:
    case kItemSockaddrTO:
        // Nothing in the driver sends these; their fixed part goes out zeroed.
        w.zeros(kMaxItemFixed - 4);
        break;
    default: break;
    }
    return w.ok() ? w.size() : 0;
}

} // namespace

bool _AddHeader(EipRequest &request, const uint8_t *bytes, size_t count) {
    const auto length = RequestLength(request);
    if (!length || (count > 0 && bytes == nullptr)) return false;
    if (count > kMaxEncapLength - *length) return false;
    const size_t at = kEncapHeaderSize + *length;
    if (at > request.size()) return false;
    wire::Writer out(request.data() + at, request.size() - at);
    out.bytes(bytes, count);
    if (!out.ok()) return false;
    wire::Writer header(request.data() + kLengthField, 2);
    header.u16(static_cast<uint16_t>(*length + count));
    return header.ok();
}

bool _AddBYTE2Header(EipRequest &request, uint8_t value) { return _AddHeader(request, &value, 1); }

bool _AddINT2Header(EipRequest &request, uint16_t value) {
    std::array<uint8_t, 2> b{};
    wire::Writer(b.data(), b.size()).u16(value);
    return _AddHeader(request, b.data(), b.size());
}

bool _AddDINT2Header(EipRequest &request, uint32_t value) {
    std::array<uint8_t, 4> b{};
    wire::Writer(b.data(), b.size()).u32(value);
    return _AddHeader(request, b.data(), b.size());
}

bool _Addtab2Header(EipRequest &request, const uint8_t *bytes, size_t count) {
    return _AddHeader(request, bytes, count);
}

size_t _GetItemSize(const CpfItem &item) {
    switch (item.type_id) {
    case kItemNullAddress: return 4;
    case kItemConnectedAddress: return 8;
    case kItemConnectedData: return 6;
    case kItemUnconnectedData: return 4;
    case kItemSockaddrOT:
    case kItemSockaddrTO: return 28;
    case kItemSequencedAddress: return 12;
    default: return 0;
    }
}

int _AddItem(EipRequest &request, CpfItem &item, const uint8_t *payload) {
    const size_t fixed = _GetItemSize(item);
    if (fixed == 0) return -1;
    const size_t count = item.length;
    // Our descriptors carry no payload of their own: bytes announced but not
    // supplied are refused rather than taken from beyond the descriptor.
    if (count > 0 && payload == nullptr) return -1;
    const size_t wire_length = count + fixed - 4;
    if (wire_length > kMaxEncapLength) return -1;

    const auto length = RequestLength(request);
    if (!length || fixed + count > kMaxEncapLength - *length ||
        kEncapHeaderSize + *length + fixed + count > request.size())
        return -1;

    item.length = static_cast<uint16_t>(wire_length);
    std::array<uint8_t, kMaxItemFixed> head{};
    const size_t head_size = EncodeFixed(item, item.length, head);
    if (head_size != fixed || !_AddHeader(request, head.data(), head_size)) return -1;
    if (wire_length == 0) return 0;
    if (!_AddHeader(request, payload, count)) return -1;
    return static_cast<int>(wire_length);
}

int _AddCPF(EipRequest &request, CpfItem &address, const uint8_t *address_payload, CpfItem &data,
            const uint8_t *data_payload) {
    if (!_AddINT2Header(request, 2)) return -1;
    if (_AddItem(request, address, address_payload) < 0) return -1;
    return _AddItem(request, data, data_payload);
}

std::optional<EipRequest> _BuildRequest(const EipSession &session, CpfItem &address,
                                        const uint8_t *address_payload, CpfItem &data,
                                        const uint8_t *data_payload, int32_t timeout_us) {
    const size_t fixed_address = _GetItemSize(address);
    const size_t fixed_data = _GetItemSize(data);
    if (fixed_address == 0 || fixed_data == 0) return std::nullopt;
    // Sized exactly for both items so that appending never grows the block.
    const size_t size =
        kCpfRequestPrefix + fixed_address + address.length + fixed_data + data.length;

    uint16_t timeout_field;
    switch (Change_Time) {
    case 0: timeout_field = static_cast<uint16_t>(timeout_us % 1000000); break;
    case 1: timeout_field = static_cast<uint16_t>(timeout_us / 1000000); break;
    default: timeout_field = 8; break;
    }

    try {
        EipRequest request(size, 0);
        wire::Writer out(request.data(), request.size());
        EncapHeader header;
        header.length = 6; // interface handle and timeout
        header.session_handle = session.handle;
        header.sender_context = session.sender_context;
        WriteEncapHeader(out, header);
        out.u32(0).u16(timeout_field);
        if (!out.ok() || out.size() != kTimeoutField + 2) return std::nullopt;
        // An item that cannot be appended would leave a request whose header
        // announces bytes it does not hold; such a request is never sent.
        if (_AddCPF(request, address, address_payload, data, data_payload) < 0) return std::nullopt;
        return request;
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

std::optional<EipMessage> CipSendData_WaitReply(int sock, const EipRequest &request,
                                                int32_t /*unused_timeout*/, int32_t timeout_us) {
    // CipSendData discards stale input itself; a second discard just before
    // it could find nothing new.
    if (CipSendData(sock, request.data(), request.size()) < 0) {
        std::puts("CipSendData err\r");
        return std::nullopt;
    }
    return CipRecvData(sock, timeout_us);
}

std::optional<EipMessage> _SendData_WaitReply(EipSession &session, uint16_t command,
                                              CpfItem &address, const uint8_t *address_payload,
                                              CpfItem &data, const uint8_t *data_payload) {
    auto request =
        _BuildRequest(session, address, address_payload, data, data_payload, session.timeout_us);
    if (!request) return std::nullopt;
    wire::Writer(request->data(), request->size()).u16(command);
    return CipSendData_WaitReply(session.sock, *request, session.timeout_us, session.timeout_us);
}

std::optional<EipMessage> _SendRRData(EipSession &session, CpfItem &address,
                                      const uint8_t *address_payload, CpfItem &data,
                                      const uint8_t *data_payload) {
    return _SendData_WaitReply(session, kEncapSendRRData, address, address_payload, data,
                               data_payload);
}

std::optional<size_t> _GetEipCPF(wire::Bytes message) {
    const auto header = ParseEncapHeader(message.data, message.size);
    if (!header || header->length < 2) return std::nullopt;
    size_t at;
    switch (header->command) {
    case kEncapListServices:
    case kEncapListIdentity:
    case kEncapListInterfaces: at = kEncapHeaderSize; break;
    case kEncapSendRRData:
    case kEncapSendUnitData: at = kEncapHeaderSize + 6; break;
    default: return std::nullopt;
    }
    if (!wire::Reader(message.data, MessageEnd(message)).has(at, 2)) return std::nullopt;
    return at;
}

std::optional<size_t> _GetAdressItem(wire::Bytes message) {
    // The item count is not examined: the first item is the address item.
    const auto cpf = _GetEipCPF(message);
    if (!cpf) return std::nullopt;
    return ItemInside(message, *cpf + 2);
}

std::optional<size_t> _GetDataItem(wire::Bytes message) {
    const auto address = _GetAdressItem(message);
    if (!address) return std::nullopt;
    const auto length = wire::Reader(message).u16_at(*address + 2);
    if (!length) return std::nullopt;
    return ItemInside(message, *address + 4 + *length);
}

} // namespace plc
