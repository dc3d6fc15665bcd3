// Preparation of a batch's variables: their names go out 20 to a request
// (service 0x56, "VAR://" paths) and the handles that come back are queued in
// INIT_RET_DATA for the batch exchange.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "driver/plc_state.h"
#include "eip/wire.h"
#include "engine/cip_exchange.h"
#include "engine/classify.h"
#include "engine/handle_store.h"
#include "tags/tag_cache.h"

namespace plc {

constexpr size_t kNamesPerRequest = 20;
// Item byte 0 holds the padded path length + 4 in one byte.
constexpr size_t kMaxPathText = 251;
// The items of one request must fit the controller's 4095-byte item area.
constexpr size_t kMaxPrepareItemsBytes = 4095;
constexpr size_t kPrepareHeaderSize = 10;
constexpr size_t kPrepareReplyItemsAt = 16;
constexpr size_t kPrepareReplyItemSize = 24;
constexpr uint8_t kServiceResolve = 0x56;
constexpr uint8_t kReplyResolve = 0xD6;

// Bytes of the name item for this variable name ("VAR://" + name, padded to an
// even length, plus 6), or 0 when the path would not fit the item's length byte.
size_t prepare_item_size(const char *name);

// True when every name of names[0..count) fits its item and every request of
// 20 names fits the item area; the preparation refuses the set otherwise.
bool prepare_names_fit(const InitTagEntry *names, size_t count);

// Writes the request data of one preparation request for names[0..count)
// (1 to 20 names): the 10-byte header, then one item per name. False when a
// name or the items do not fit, or the writer ran out of room.
bool build_prepare_request(wire::Writer &out, const InitTagEntry *names, size_t count);

// Checks one preparation reply (reply_len bytes, from the reply service on) for
// a request of `sent` names: 0 with the request prefix and `sent` handles
// copied out, or 2 when the service is not 0xD6, the answered count differs, or
// the reply is shorter than its items.
int parse_prepare_reply(const uint8_t *reply, size_t reply_len, size_t sent,
                        std::array<uint8_t, 10> &prefix, VarHandle *handles);

// Prepares INIT_TAG[0..reg_init_num) through `link`: 0 when every variable has a handle in
// INIT_RET_DATA; 2 on a wrong reply (init cleared) or when a handle cannot be
// queued; 3 when an exchange fails (init cleared) or the names do not fit.
int prepare_variables(CipExchange &link, ExchangeBuffer &send, const TagTable &table,
                      ExchangeBuffer &recv);

// prepare_variables over the driver's connection.
int OMRON_INIT_REQ(EipSession *session, CipConnection *connection, ExchangeBuffer &send,
                   const TagTable &table, ExchangeBuffer &recv);

} // namespace plc
