// The batch exchange: the read items of a batch go out 15 to a request
// (service 0x55, each item a prepared handle with a bit offset and length), the
// value bytes of the replies are gathered and then decoded into the records.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "driver/plc_state.h"
#include "eip/wire.h"
#include "engine/cip_exchange.h"
#include "engine/classify.h"
#include "engine/handle_store.h"
#include "engine/read_request.h"
#include "tags/tag_cache.h"

namespace plc {

constexpr size_t kReadHeaderSize = 12;
constexpr size_t kReadItemSize = 18;
constexpr size_t kReadReplyFieldsAt = 8;
// Bit offset and bit length of the item that the slot starts, for its entry.
ReadItem read_item_geometry(const TagEntry &entry, const BatchSlot &slot);

// Value bytes of one checked read reply.
struct ReadReplyValues {
    const uint8_t *data = nullptr;
    size_t size = 0;
};

// Checks one read reply (reply_len bytes, from the reply service on) for a
// request of `sent` items whose values need `needed` bytes: 0 with the value
// bytes that follow the per-item fields, or 2 when the service is not 0xD5, the
// answered count differs, or the reply holds fewer value bytes than needed.
int parse_read_reply(const uint8_t *reply, size_t reply_len, size_t sent, size_t needed,
                     ReadReplyValues &values);

// Reads the batch of OMRON_TEMP (reg_interact_num items) through `link` and
// decodes it into records[0..count): 0 when every record was written; 2 on a
// communication failure or a type without a decoding (init cleared); 3 for a
// tag id without an entry.
int exchange_batch(CipExchange &link, ExchangeBuffer &send, const TagTable &table,
                   ExchangeBuffer &recv, PlcRequest *records, int32_t count);

// exchange_batch over the driver's connection.
int OMRON_INTERACT(EipSession *session, CipConnection *connection, ExchangeBuffer &send,
                   const TagTable &table, ExchangeBuffer &recv, PlcRequest *records,
                   int32_t count);

} // namespace plc
