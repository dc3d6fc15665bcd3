// The single-request engine: resolution of one variable, the single read and
// the write with its request encoding.
#pragma once

#include <cstdint>

#include "driver/plc_state.h"
#include "engine/handle_store.h"
#include "plc_driver.h"
#include "tags/tag_cache.h"

namespace plc {

// Resolves the request's variable by name and queues its handle: 0; 3 when
// the request cannot be resolved (indexed tag outside its group, a path the
// length byte cannot carry); 2 when the exchange failed or the controller did
// not answer with a handle (init is then cleared when the connection broke).
uint32_t REG_INIT(const TagTable &table, PlcRequest &request, ExchangeBuffer &send,
                  ExchangeBuffer &reply, const PlcData &data);

// The host's single read (wk_plc_read): 0, 2 or 3.
int32_t single_read(PlcRequest &request, PlcData &data);

// Builds and exchanges one write: 0 written, 2 not completed, 3 refused.
uint32_t OMRON_WRITE_REQ(EipSession *session, CipConnection *connection, PlcRequest &request,
                         ExchangeBuffer &send, const TagTable &table, PlcData &data,
                         ExchangeBuffer &reply);

// The host's write (wk_plc_write): 0, 2 or 3.
int32_t write_entry(PlcRequest &request, PlcData &data);

} // namespace plc
