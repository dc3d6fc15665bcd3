// The message router of the simulated controller: hands each request to the
// object its path names. Unconnected requests (SendRRData) reach the
// Identity object and the connection manager (and through its
// Unconnected_Send, a request routed to this controller's own slot);
// connected requests reach the
// Identity object and the variable services, which need the connection's
// token.
#pragma once

#include <cstdint>

#include "sim/cip.h"
#include "sim/connection_manager.h"
#include "sim/identity.h"
#include "sim/variable_services.h"

namespace plc::sim {

class MessageRouter {
public:
    MessageRouter(ConnectionTable &table, VariableServices &services, const Identity &identity)
        : manager_(table), services_(services), identity_(identity) {}

    CipReply Unconnected(uint32_t session, const MrRequest &request, bool refuse_open);
    CipReply Connected(const Connection &connection, const MrRequest &request);

private:
    CipReply UnconnectedSend(uint32_t session, const MrRequest &request, bool refuse_open);

    ConnectionManager manager_;
    VariableServices &services_;
    const Identity &identity_;
};

} // namespace plc::sim
