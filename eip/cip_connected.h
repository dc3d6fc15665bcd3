// Connected explicit messaging: every variable request travels through
// CIP_TransRecv as a SendUnitData on the class-3 connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"

namespace plc {

// Largest message-router reply that fits in one encapsulation message.
constexpr size_t kMaxMrReply = 65513;

constexpr uint8_t kServiceReadByHandle = 0x55;
constexpr uint8_t kServiceResolveOrWrite = 0x56;

// Sends one message-router request over the connection as a SendUnitData with
// the connection's next sequence count (the count advances whatever happens).
// Returns a copy of the reply's connected data item (type, length, sequence
// count, message-router reply), or none.
std::optional<std::vector<uint8_t>> _ConnectedSend(EipSession &session, CipConnection &connection,
                                                   const uint8_t *request, size_t size);

// Sends `service` with `request` to the class path and copies the message-router
// reply into `reply` (at most reply_capacity bytes). 0 on success, -1 otherwise;
// on -1 the reply buffer and *reply_len are unchanged.
int32_t CIP_TransRecv(EipSession *session, CipConnection *connection, const uint8_t *request,
                      uint32_t request_len, uint8_t *reply, uint32_t *reply_len, uint8_t service,
                      size_t reply_capacity = kMaxMrReply);

} // namespace plc
