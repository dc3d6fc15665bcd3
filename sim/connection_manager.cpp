#include "sim/connection_manager.h"

#include "sim/wire.h"

namespace plc::sim {

namespace {

// Network connection parameters. Large_Forward_Open: 32 bits, connection
// type in bits 29-30, size in bits 0-15. Forward_Open: 16 bits, type in bits
// 13-14, size in bits 0-8. Owner, priority and fixed/variable are accepted as
// sent.
struct ParamLayout {
    unsigned type_shift;
    uint32_t size_mask;
};
constexpr ParamLayout kLargeParams = {29, 0xFFFF};
constexpr ParamLayout kSmallParams = {13, 0x01FF};
constexpr uint32_t kTypeMask = 3;
constexpr uint32_t kPointToPoint = 2;
// A connected request needs at least its sequence count and a message-router
// header. Message sizes are not held against the connection size: the
// variable services legitimately send and answer more than it announces.
constexpr uint32_t kMinConnectionSize = 8;
// Transport class/trigger: class 3 (low nibble) with the server bit (bit 7).
constexpr uint8_t kTransportClassMask = 0x0F;
constexpr uint8_t kTransportClass3 = 0x03;
constexpr uint8_t kTransportServer = 0x80;
constexpr uint8_t kMaxTimeoutMultiplier = 7;
constexpr uint16_t kConnectionManagerInstance = 1;

constexpr size_t kReservedAfterMultiplier = 3;
constexpr size_t kForwardOpenReplySize = 26;

// Success data of Forward_Close, and the data of every connection manager
// refusal: the triple, remaining path size 0 and a reserved byte.
std::vector<uint8_t> TripleReplyData(const Triple &t) {
    wire::VecWriter out(10);
    out.u16(t.serial).u16(t.vendor).u32(t.orig_serial).u8(0).u8(0);
    return out.take();
}

CipReply Refuse(const Triple &t, uint16_t extended_status) {
    CipReply reply = CipReply::Error(general::kConnectionFailure, {extended_status});
    reply.data = TripleReplyData(t);
    return reply;
}

Triple ReadTriple(wire::Reader &in) {
    Triple t;
    t.serial = in.u16();
    t.vendor = in.u16();
    t.orig_serial = in.u32();
    return t;
}

// The connection path that ends both requests fills the rest exactly.
uint8_t ReadPath(wire::Reader &in, uint8_t words, std::vector<uint8_t> &path) {
    const size_t bytes = size_t(words) * 2;
    if (!in.ok() || in.remaining() < bytes) return general::kNotEnoughData;
    if (in.remaining() > bytes) return general::kTooMuchData;
    path.assign(in.here(), in.here() + bytes);
    return general::kSuccess;
}

struct OpenRequest {
    ConnectionTerms terms;
    uint32_t params[2] = {}; // O->T, T->O
    uint8_t transport = 0;
    std::vector<uint8_t> path;
};

// Priority/tick, time-out ticks, O->T id (the target chooses its own), T->O
// id, the triple, timeout multiplier, 3 reserved, O->T RPI and parameters,
// T->O RPI and parameters, transport, path size in words, path.
uint8_t ParseOpen(const std::vector<uint8_t> &data, bool large, OpenRequest &r) {
    wire::Reader in(data);
    in.skip(2 + 4);
    r.terms.to_id = in.u32();
    r.terms.triple = ReadTriple(in);
    r.terms.timeout_multiplier = in.u8();
    in.skip(kReservedAfterMultiplier);
    r.terms.ot_rpi = in.u32();
    r.params[0] = large ? in.u32() : in.u16();
    r.terms.to_rpi = in.u32();
    r.params[1] = large ? in.u32() : in.u16();
    r.transport = in.u8();
    const uint8_t words = in.u8();
    return ReadPath(in, words, r.path);
}

// The extended status that refuses these terms, or 0.
uint16_t CheckTerms(const OpenRequest &r, const ParamLayout &layout) {
    if (const uint16_t status = CheckRouterPath(r.path)) return status;
    if ((r.transport & kTransportClassMask) != kTransportClass3 ||
        !(r.transport & kTransportServer))
        return extended::kTransportNotSupported;
    for (const uint32_t params : r.params) {
        if (((params >> layout.type_shift) & kTypeMask) != kPointToPoint)
            return extended::kInvalidConnectionParameter;
        if ((params & layout.size_mask) < kMinConnectionSize)
            return extended::kInvalidConnectionSize;
    }
    if (r.terms.timeout_multiplier > kMaxTimeoutMultiplier) return extended::kParameterError;
    return 0;
}

} // namespace

CipReply ConnectionManager::Execute(uint32_t session, const MrRequest &request, bool refuse_open) {
    const auto path = ParseRequestPath(request.path);
    if (!path || path->attribute) return CipReply::Error(general::kPathSegmentError);
    if (path->instance != kConnectionManagerInstance)
        return CipReply::Error(general::kPathDestinationUnknown);
    switch (request.service) {
    case service::kForwardOpen:
    case service::kLargeForwardOpen: return ForwardOpen(session, request, refuse_open);
    case service::kForwardClose: return ForwardClose(request.data);
    default: return CipReply::Error(general::kServiceNotSupported);
    }
}

// Reply data (26 bytes): our O->T id, the client's T->O id, the triple, the
// actual packet intervals (the requested RPIs), application reply size 0,
// reserved 0.
CipReply ConnectionManager::ForwardOpen(uint32_t session, const MrRequest &request,
                                        bool refuse_open) {
    const bool large = request.service == service::kLargeForwardOpen;
    OpenRequest r;
    if (const uint8_t status = ParseOpen(request.data, large, r)) return CipReply::Error(status);
    const Triple &t = r.terms.triple;
    if (const uint16_t status = CheckTerms(r, large ? kLargeParams : kSmallParams))
        return Refuse(t, status);
    if (refuse_open) return Refuse(t, extended::kOutOfConnections);
    uint16_t status = 0;
    const auto c = table_.Open(session, r.terms, &status);
    if (!c) return Refuse(t, status);
    wire::VecWriter out(kForwardOpenReplySize);
    out.u32(c->ot_id).u32(r.terms.to_id).u16(t.serial).u16(t.vendor).u32(t.orig_serial);
    out.u32(r.terms.ot_rpi).u32(r.terms.to_rpi).u8(0).u8(0);
    return CipReply::Data(out.take());
}

// Request data: priority/tick, time-out ticks, the triple, path size in
// words, reserved, path. The connection with that triple is closed whichever
// session opened it.
CipReply ConnectionManager::ForwardClose(const std::vector<uint8_t> &data) {
    wire::Reader in(data);
    in.skip(2);
    const Triple t = ReadTriple(in);
    const uint8_t words = in.u8();
    in.u8();
    std::vector<uint8_t> path;
    if (const uint8_t status = ReadPath(in, words, path)) return CipReply::Error(status);
    if (const uint16_t status = CheckRouterPath(path)) return Refuse(t, status);
    if (!table_.Close(t)) return Refuse(t, extended::kConnectionNotFound);
    return CipReply::Data(TripleReplyData(t));
}

} // namespace plc::sim
