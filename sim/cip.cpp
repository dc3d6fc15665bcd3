#include "sim/cip.h"

#include <cstdio>

#include "sim/wire.h"

namespace plc::sim {

namespace {

// Logical segments: 8-bit forms carry the value in the next byte, 16-bit
// forms a pad byte and then the value.
constexpr uint8_t kClass8 = 0x20;
constexpr uint8_t kClass16 = 0x21;
constexpr uint8_t kInstance8 = 0x24;
constexpr uint8_t kInstance16 = 0x25;
constexpr uint8_t kAttribute8 = 0x30;
constexpr uint8_t kAttribute16 = 0x31;

// Port segment: segment type 0 in the top three bits, the port in the low
// nibble (15: a 16-bit port follows), bit 4 set when the link address is
// longer than one byte (its size follows).
constexpr uint8_t kSegmentTypeMask = 0xE0;
constexpr uint8_t kPortSegment = 0x00;
constexpr uint8_t kPortMask = 0x0F;
constexpr uint8_t kExtendedPort = 0x0F;
constexpr uint8_t kLongLinkAddress = 0x10;
constexpr uint8_t kBackplanePort = 1;
constexpr uint8_t kOwnSlot = 0;
constexpr uint16_t kRouterInstance = 1;

// One logical segment of the given 8/16-bit types; none when another comes.
std::optional<uint16_t> Logical(wire::Reader &in, uint8_t short_form, uint8_t long_form) {
    const auto type = in.u8_at(in.pos());
    if (type == short_form) {
        in.skip(1);
        return in.u8();
    }
    if (type == long_form) {
        in.skip(2);
        return in.u16();
    }
    return std::nullopt;
}

// The port segment, when one comes first; an extended status, or 0.
uint16_t CheckPortSegment(wire::Reader &in) {
    const auto first = in.u8_at(in.pos());
    if (!first || (*first & kSegmentTypeMask) != kPortSegment) return 0;
    in.skip(1);
    const uint16_t port = (*first & kPortMask) == kExtendedPort ? in.u16() : (*first & kPortMask);
    std::vector<uint8_t> link(*first & kLongLinkAddress ? in.u8() : 1);
    in.bytes(link.data(), link.size());
    if (in.pos() & 1u) in.skip(1);
    if (!in.ok()) return extended::kInvalidConnectionPath;
    if (port != kBackplanePort) return extended::kInvalidPort;
    if (link.size() != 1 || link[0] != kOwnSlot) return extended::kInvalidLinkAddress;
    return 0;
}

} // namespace

std::optional<MrRequest> ParseMrRequest(const uint8_t *bytes, size_t size) {
    wire::Reader in(bytes, size);
    MrRequest request;
    request.service = in.u8();
    const size_t path_bytes = size_t(in.u8()) * 2;
    if (!in.ok() || in.remaining() < path_bytes) return std::nullopt;
    request.path.assign(in.here(), in.here() + path_bytes);
    in.skip(path_bytes);
    request.data.assign(in.here(), in.here() + in.remaining());
    return request;
}

std::vector<uint8_t> EncodeMrReply(uint8_t request_service, const CipReply &reply) {
    wire::VecWriter out(4 + 2 * reply.additional.size() + reply.data.size());
    out.u8(uint8_t(reply.service.value_or(request_service) | service::kReplyBit));
    out.u8(0).u8(reply.general);
    out.u8(uint8_t(reply.additional.size()));
    for (const uint16_t word : reply.additional) out.u16(word);
    out.bytes(reply.data.data(), reply.data.size());
    return out.take();
}

std::optional<RequestPath> ParseRequestPath(const std::vector<uint8_t> &path) {
    wire::Reader in(path);
    RequestPath result;
    const auto class_id = Logical(in, kClass8, kClass16);
    const auto instance = class_id ? Logical(in, kInstance8, kInstance16) : std::nullopt;
    if (!instance) return std::nullopt;
    result.class_id = *class_id;
    result.instance = *instance;
    if (in.remaining() != 0) {
        result.attribute = Logical(in, kAttribute8, kAttribute16);
        if (!result.attribute) return std::nullopt;
    }
    if (!in.ok() || in.remaining() != 0) return std::nullopt;
    return result;
}

uint16_t CheckRouterPath(const std::vector<uint8_t> &path) {
    wire::Reader in(path);
    if (const uint16_t status = CheckPortSegment(in)) return status;
    const auto class_id = Logical(in, kClass8, kClass16);
    const auto instance = class_id ? Logical(in, kInstance8, kInstance16) : std::nullopt;
    if (!in.ok() || in.remaining() != 0 || class_id != cip_class::kMessageRouter ||
        instance != kRouterInstance)
        return extended::kInvalidConnectionPath;
    return 0;
}

uint16_t CheckOwnSlotRoute(const std::vector<uint8_t> &route) {
    wire::Reader in(route);
    if (route.empty()) return extended::kInvalidConnectionPath;
    if (const uint16_t status = CheckPortSegment(in)) return status;
    return in.remaining() == 0 ? 0 : extended::kInvalidConnectionPath;
}

std::string HexBytes(const uint8_t *bytes, size_t size, size_t max) {
    std::string text;
    const size_t shown = size < max ? size : max;
    for (size_t i = 0; i < shown; ++i) {
        char b[4];
        std::snprintf(b, sizeof b, i ? " %02X" : "%02X", bytes[i]);
        text += b;
    }
    if (shown < size) text += " ...";
    return text;
}

} // namespace plc::sim
