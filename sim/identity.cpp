#include "sim/identity.h"

#include "sim/wire.h"

namespace plc::sim {

namespace {

constexpr uint16_t kClassRevision = 1;
constexpr uint16_t kInstances = 1;
constexpr uint16_t kClassAttributes = 3; // revision, max instance, number of instances
constexpr uint16_t kAllAttributes = 7;   // what Get_Attributes_All returns
constexpr uint16_t kInstanceAttributes = 8;
constexpr uint16_t kAfInet = 2;
constexpr size_t kSinZero = 8;

void PutAttribute(wire::VecWriter &out, const Identity &id, uint16_t attribute) {
    switch (attribute) {
    case 1: out.u16(id.vendor_id); break;
    case 2: out.u16(id.device_type); break;
    case 3: out.u16(id.product_code); break;
    case 4: out.u8(id.revision_major).u8(id.revision_minor); break;
    case 5: out.u16(id.status); break;
    case 6: out.u32(id.serial_number); break;
    case 7: out.u8(uint8_t(id.product_name.size())).text(id.product_name); break;
    default: out.u8(id.state); break;
    }
}

CipReply ClassAttribute(uint16_t attribute) {
    if (attribute == 0 || attribute > kClassAttributes)
        return CipReply::Error(general::kAttributeNotSupported);
    wire::VecWriter out(2);
    out.u16(attribute == 1 ? kClassRevision : kInstances);
    return CipReply::Data(out.take());
}

} // namespace

CipReply ExecuteIdentity(const Identity &identity, const MrRequest &request,
                         const RequestPath &path) {
    if (path.instance > kInstances) return CipReply::Error(general::kPathDestinationUnknown);
    const bool instance_level = path.instance != 0;
    if (request.service == service::kGetAttributesAll && instance_level && !path.attribute) {
        wire::VecWriter out;
        for (uint16_t a = 1; a <= kAllAttributes; ++a) PutAttribute(out, identity, a);
        return CipReply::Data(out.take());
    }
    if (request.service != service::kGetAttributeSingle)
        return CipReply::Error(general::kServiceNotSupported);
    if (!path.attribute) return CipReply::Error(general::kPathSegmentError);
    if (!request.data.empty()) return CipReply::Error(general::kTooMuchData);
    if (!instance_level) return ClassAttribute(*path.attribute);
    if (*path.attribute == 0 || *path.attribute > kInstanceAttributes)
        return CipReply::Error(general::kAttributeNotSupported);
    wire::VecWriter out;
    PutAttribute(out, identity, *path.attribute);
    return CipReply::Data(out.take());
}

std::vector<uint8_t> IdentityItemData(const Identity &identity, uint32_t address_host_order,
                                      uint16_t port) {
    wire::VecWriter out(64);
    out.u16(kEncapProtocolVersion);
    // The socket address is in network byte order, unlike everything else.
    out.u8(uint8_t(kAfInet >> 8)).u8(uint8_t(kAfInet));
    out.u8(uint8_t(port >> 8)).u8(uint8_t(port));
    for (int shift = 24; shift >= 0; shift -= 8) out.u8(uint8_t(address_host_order >> shift));
    out.zeros(kSinZero);
    for (uint16_t a = 1; a <= kInstanceAttributes; ++a) PutAttribute(out, identity, a);
    return out.take();
}

} // namespace plc::sim
