// The batch exchange: the read items of a batch go out 15 to a request (each
// a prepared handle with a bit offset and length), the value bytes of the
// replies are gathered and then decoded into the records.
#pragma once

#include <cstdint>

#include "engine/batch_plan.h"
#include "engine/link.h"
#include "plc_driver_records.h"
#include "util/status.h"

namespace plc {

// Reads the items of the plan and decodes them into the records: Ok when
// every record was written; CommFailure on a failed exchange, a reply that is
// not the expected one, a missing handle or a type without a decoding (the
// connection is reported broken).
Status OMRON_INTERACT(ControllerLink &link, const BatchPlan &plan, PlcRequest *records);

} // namespace plc
