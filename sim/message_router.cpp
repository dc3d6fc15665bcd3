#include "sim/message_router.h"

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
    case cip_class::kConnectionManager: return manager_.Execute(session, request, refuse_open);
    case cip_class::kResolve:
    case cip_class::kVariable: return CipReply::Error(general::kServiceNotSupported);
    default: return CipReply::Error(general::kPathDestinationUnknown);
    }
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
