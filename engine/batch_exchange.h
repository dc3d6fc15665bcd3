// The batch exchange: the read items of a batch go out 15 to a request (each
// a prepared handle with a bit offset and length), the value bytes of the
// replies are gathered and then decoded into the records.
#pragma once

#include <cstdint>

#include "engine/link.h"
#include "plc_driver_records.h"
#include "tags/tag_cache.h"
#include "util/status.h"

namespace plc {

// Reads the batch folded in OMRON_TEMP (reg_interact_num items) and decodes it
// into records[0..count): Ok when every record was written; CommFailure on a
// failed exchange, a reply that is not the expected one, a missing handle or a
// type without a decoding (the connection is reported broken); ConfigError for
// a tag id without an entry.
Status OMRON_INTERACT(ControllerLink &link, const TagTable &table, PlcRequest *records,
                      int32_t count);

} // namespace plc
