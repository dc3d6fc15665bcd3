// Connected explicit messaging: every variable request travels through
// CIP_TransRecv as a SendUnitData on the class-3 connection, built in place in
// the caller's send buffer, and its reply is found in place in the receive
// buffer. Nothing on this path allocates or copies a reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "eip/cip_connection_manager.h"
#include "eip/eip_session.h"
#include "util/wire.h"

namespace plc {

// Offsets of one connected request in the send buffer: the encapsulation
// header, interface handle and timeout, item count, the connected address
// item, the connected data item's type, length and sequence count, then the
// message-router request (service, path size, class path) and its data.
constexpr size_t kConnectedItemsAt = kEncapHeaderSize + 6;
constexpr size_t kConnectedMrRequestAt = kConnectedItemsAt + 2 + 8 + 6;
constexpr size_t kClassPathSize = 4;
// Where the caller writes the request data of a connected request.
constexpr size_t kConnectedRequestHeadroom = kConnectedMrRequestAt + 2 + kClassPathSize;
// A receive buffer this large holds any message the controller can send.
constexpr size_t kConnectedReceiveSize = kMaxEncapMessage;

// The two buffers of connected exchanges: request data is written at
// send.data + kConnectedRequestHeadroom; replies are received into recv
// (at least kConnectedReceiveSize bytes).
struct ConnectedBuffers {
    wire::MutableBytes send;
    wire::MutableBytes recv;
};

// How a received message relates to the connected request with this sequence
// count on the connection whose replies carry to_conn_id: Ours, with the
// reply's connected data item; Malformed, this request's reply but unusable:
// cut short (no item), or too short to echo a sequence count (its item);
// Other, anything else (another connection, another sequence count, another
// command, no items).
enum class ReplyMatch { Ours, Malformed, Other };
struct ConnectedReply {
    ReplyMatch match = ReplyMatch::Other;
    wire::Bytes data_item; // type, length, sequence count, message-router reply
};
ConnectedReply match_connected_reply(wire::Bytes message, uint32_t to_conn_id, uint16_t sequence);

// Frames the message-router request that lies at kConnectedMrRequestAt
// (mr_len bytes) as a SendUnitData with the connection's next sequence count
// (the count advances whatever happens), sends it and waits for the reply
// that answers it: the same connection and sequence count. Other messages that
// arrive meanwhile (a duplicate, a late reply to an earlier request) are
// discarded and the wait goes on within the same time-out. Returns the reply's
// connected data item (type, length, sequence count, message-router reply) as
// a view into buffers.recv, or none.
std::optional<wire::Bytes> _ConnectedSend(EipSession &session, CipConnection &connection,
                                          const ConnectedBuffers &buffers, size_t mr_len);

// Sends `service` with the request_len bytes of request data already written
// at kConnectedRequestHeadroom, to the class path that the service and the
// connection's write_mode choose. 0 with *reply set to the message-router
// reply (from the reply service on, inside buffers.recv), -1 otherwise.
int32_t CIP_TransRecv(EipSession &session, CipConnection &connection,
                      const ConnectedBuffers &buffers, size_t request_len, uint8_t service,
                      wire::Bytes *reply);

} // namespace plc
