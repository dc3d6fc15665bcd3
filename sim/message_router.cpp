#include "sim/message_router.h"

#include "sim/wire.h"

namespace plc::sim {

// The connection manager only opens and closes connections unconnected, and
// the variable services only answer on a connection (their prefixes and
// handles carry its token): a known object reached the other way answers
// "service not supported".
CipReply MessageRouter::Unconnected(uint32_t session, const MrRequest &request, bool refuse_open) {
    const auto path = ParseRequestPath(request.path);
    if (!path) return CipReply::Error(general::kPathSegmentError);
    switch (path->class_id) {
    case cip_class::kIdentity: return ExecuteIdentity(identity_, request, *path);
    case cip_class::kConnectionManager:
        if (request.service == service::kUnconnectedSend)
            return UnconnectedSend(session, request, refuse_open);
        return manager_.Execute(session, request, refuse_open);
    case cip_class::kResolve:
    case cip_class::kVariable: return CipReply::Error(general::kServiceNotSupported);
    default: return CipReply::Error(general::kPathDestinationUnknown);
    }
}

// Request data: priority/tick, time-out ticks, the embedded request's size,
// the request, a pad byte when that size is odd, the route path's size in
// words, a reserved byte, the route path. Delivered here, the embedded
// request is answered as if it had come on its own; a route elsewhere is a
// routing error that tells how much of the path is left.
CipReply MessageRouter::UnconnectedSend(uint32_t session, const MrRequest &request,
                                        bool refuse_open) {
    wire::Reader in(request.data);
    in.skip(2);
    const uint16_t size = in.u16();
    if (!in.ok() || in.remaining() < size) return CipReply::Error(general::kNotEnoughData);
    const auto embedded = ParseMrRequest(in.here(), size);
    in.skip(size + (size & 1u));
    const uint8_t words = in.u8();
    in.u8();
    if (!in.ok() || in.remaining() < size_t(words) * 2)
        return CipReply::Error(general::kNotEnoughData);
    if (in.remaining() > size_t(words) * 2) return CipReply::Error(general::kTooMuchData);
    if (const uint16_t status = CheckOwnSlotRoute({in.here(), in.here() + in.remaining()})) {
        CipReply refusal = CipReply::Error(general::kConnectionFailure, {status});
        refusal.data = {words};
        return refusal;
    }
    if (!embedded) return CipReply::Error(general::kPathSegmentError);
    // A request routed to this slot is not routed on from here: an embedded
    // Unconnected_Send would nest without bound, each level a copy.
    if (embedded->service == service::kUnconnectedSend)
        return CipReply::Error(general::kServiceNotSupported);
    CipReply reply = Unconnected(session, *embedded, refuse_open);
    reply.service = embedded->service;
    return reply;
}

CipReply MessageRouter::Connected(const Connection &connection, const MrRequest &request) {
    const auto path = ParseRequestPath(request.path);
    if (!path) return CipReply::Error(general::kPathSegmentError);
    switch (path->class_id) {
    case cip_class::kIdentity: return ExecuteIdentity(identity_, request, *path);
    case cip_class::kConnectionManager: return CipReply::Error(general::kServiceNotSupported);
    case cip_class::kResolve:
    case cip_class::kVariable: return services_.Execute(connection.token, request, *path);
    default: return CipReply::Error(general::kPathDestinationUnknown);
    }
}

} // namespace plc::sim
