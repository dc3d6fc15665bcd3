#include "eip/encap.h"

namespace plc {

std::optional<EncapHeader> ParseEncapHeader(const uint8_t *data, size_t size) {
    if (data == nullptr || size < kEncapHeaderSize) return std::nullopt;
    wire::Reader in(data, size);
    EncapHeader h;
    h.command = in.u16();
    h.length = in.u16();
    h.session_handle = in.u32();
    h.status = in.u32();
    in.bytes(h.sender_context.data(), h.sender_context.size());
    h.options = in.u32();
    if (!in.ok()) return std::nullopt;
    return h;
}

bool is_encap_command(uint16_t command) {
    switch (command) {
    case kEncapNop:
    case kEncapListServices:
    case kEncapListIdentity:
    case kEncapListInterfaces:
    case kEncapRegisterSession:
    case kEncapUnRegisterSession:
    case kEncapSendRRData:
    case kEncapSendUnitData:
    case kEncapIndicateStatus:
    case kEncapCancel: return true;
    default: return false;
    }
}

void WriteEncapHeader(wire::Writer &out, const EncapHeader &header) {
    out.u16(header.command)
        .u16(header.length)
        .u32(header.session_handle)
        .u32(header.status)
        .bytes(header.sender_context.data(), header.sender_context.size())
        .u32(header.options);
}

} // namespace plc
