// Connected explicit messaging: every variable request travels through
// CIP_TransRecv as a SendUnitData on the class-3 connection.
#pragma once

#include <cstddef>
#include <cstdint>

#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"

namespace plc {

// Largest message-router reply that fits in one encapsulation message.
constexpr size_t kMaxMrReply = 65513;

// Sends `service` with `request` to the class path and copies the message-router
// reply into `reply` (at most reply_capacity bytes). 0 on success, -1 otherwise;
// on -1 the reply buffer and *reply_len are unchanged.
int32_t CIP_TransRecv(EipSession *session, CipConnection *connection, const uint8_t *request,
                      uint32_t request_len, uint8_t *reply, uint32_t *reply_len, uint8_t service,
                      size_t reply_capacity = kMaxMrReply);

} // namespace plc
