// Preparation of a batch's variables: their names go out 20 to a request and
// the handles that come back are kept for the batch exchange.
#pragma once

#include "engine/link.h"
#include "tags/tag_cache.h"
#include "util/status.h"

namespace plc {

// Resolves INIT_TAG[0..reg_init_num): Ok when every variable has a handle;
// ConfigError when the names cannot be sent or the controller does not know
// one of them (the connection stays up); CommFailure when an exchange failed,
// a reply was not the expected one (the connection is reported broken) or a
// handle could not be kept.
Status OMRON_INIT_REQ(ControllerLink &link, const TagTable &table);

} // namespace plc
