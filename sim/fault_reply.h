// The faults that change what a reply says (as opposed to how or whether it
// is sent): header fields, connected item fields and the CIP reply inside.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/faults.h"

namespace plc::sim {

// Rewrites a whole reply message (header and body) as `fault` asks. A fault
// that names a field the reply does not have (a sequence count in a
// RegisterSession reply) leaves it as it is.
void RewriteReply(const Fault &fault, std::vector<uint8_t> &message);

} // namespace plc::sim
