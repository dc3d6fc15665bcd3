// The encapsulation protocol of one TCP connection: discovery, at most one
// session, and through it unconnected requests to the message router and
// connected requests on the session's connections.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/connections.h"
#include "sim/encap.h"
#include "sim/identity.h"
#include "sim/message_router.h"
#include "sim/stats.h"

namespace plc::sim {

struct SessionContext {
    ConnectionTable &table;
    MessageRouter &router;
    Stats &stats;
    const Identity &identity;
    // A connected request naming no open connection of the session is
    // dropped without a word, as controllers do; with this set it is answered
    // at once with general status 0x01, extended status 0x0107.
    bool answer_unknown_connections = false;
};

class ClientProtocol {
public:
    // `local_address` (host order) and `local_port`: where the client
    // reached us, which ListIdentity reports.
    ClientProtocol(std::string peer, const SessionContext &context, uint32_t local_address,
                   uint16_t local_port)
        : peer_(std::move(peer)), ctx_(context), local_address_(local_address),
          local_port_(local_port) {}
    // The TCP connection is gone: so are the session and its connections.
    ~ClientProtocol();
    ClientProtocol(const ClientProtocol &) = delete;
    ClientProtocol &operator=(const ClientProtocol &) = delete;

    struct Outcome {
        std::optional<std::vector<uint8_t>> reply;
        bool close = false;
    };

    // One request message. `refuse_open` refuses a Forward_Open it carries.
    Outcome Handle(const Header &h, const std::vector<uint8_t> &body, bool refuse_open = false);
    // Whether this client's session holds a connection, which keeps its TCP
    // connection open however long it stays silent.
    bool HoldsConnections() const { return ctx_.table.HasConnections(session_); }

private:
    Outcome Dispatch(const Header &h, const std::vector<uint8_t> &body, bool refuse_open);
    bool SessionOk(const Header &h) const { return session_ != 0 && h.session == session_; }
    Outcome Reply(const Header &h, EncapStatus status, const std::vector<uint8_t> &body = {});
    Outcome RegisterSession(const Header &h, const std::vector<uint8_t> &body);
    Outcome SendRRData(const Header &h, const std::vector<uint8_t> &body, bool refuse_open);
    Outcome SendUnitData(const Header &h, const std::vector<uint8_t> &body);
    std::vector<uint8_t> Execute(Connection &c, uint16_t sequence,
                                 const std::vector<uint8_t> &request);

    const std::string peer_;
    const SessionContext &ctx_;
    const uint32_t local_address_;
    const uint16_t local_port_;
    uint32_t session_ = 0;
};

} // namespace plc::sim
