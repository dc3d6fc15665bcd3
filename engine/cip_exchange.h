// The one request/reply exchange the batch engine needs, behind an interface,
// so that the preparation and the batch exchange can run against any peer that
// answers connected explicit messages (the controller, or a test's fake).
#pragma once

#include <cstddef>
#include <cstdint>

#include "driver/plc_state.h"
#include "eip/cip_connected.h"

namespace plc {

class CipExchange {
public:
    virtual ~CipExchange() = default;
    // Sends `service` with the request data and stores the message-router reply
    // (from the reply service on) in reply: 0, or negative when no valid reply
    // came (reply and *reply_len are then unchanged).
    virtual int32_t transact(const uint8_t *request, uint32_t request_len, uint8_t *reply,
                             uint32_t *reply_len, uint8_t service, size_t reply_capacity) = 0;
};

// The exchange over the driver's class-3 connection.
class ConnectedExchange final : public CipExchange {
public:
    ConnectedExchange(EipSession *session, CipConnection *connection)
        : session_(session), connection_(connection) {}
    int32_t transact(const uint8_t *request, uint32_t request_len, uint8_t *reply,
                     uint32_t *reply_len, uint8_t service, size_t reply_capacity) override {
        // No connection is no reply: the caller's failure path clears init.
        if (session_ == nullptr || connection_ == nullptr) return -1;
        return CIP_TransRecv(session_, connection_, request, request_len, reply, reply_len,
                             service, reply_capacity);
    }

private:
    EipSession *session_;
    CipConnection *connection_;
};

// The exchange over whatever connection the driver holds at the time of the
// call (the recovery replaces it).
class DriverConnectionExchange final : public CipExchange {
public:
    int32_t transact(const uint8_t *request, uint32_t request_len, uint8_t *reply,
                     uint32_t *reply_len, uint8_t service, size_t reply_capacity) override {
        ConnectedExchange link(session.get(), connection.get());
        return link.transact(request, request_len, reply, reply_len, service, reply_capacity);
    }
};

} // namespace plc
