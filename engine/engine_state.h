// State the engines keep between calls and nobody else uses, and the step
// every request entry takes before it talks to the controller.
#pragma once

#include <array>
#include <cstdint>

#include "engine/link.h"

namespace plc {

using RequestPrefix = std::array<uint8_t, 10>;

// 1: the handles kept so far must be resolved again before use.
extern uint32_t label_reupdata;
// The request prefix of the latest usable resolve reply; every read and write
// request starts with it.
extern RequestPrefix recv_flag_data1;

// Forgets every handle and every remembered request set: they belong to a
// connection that is gone.
void forget_resolutions();

// Forgets them too when a tag list built since rewrote group slots: an id may
// now lead to another entry, or to none, than when its handle was resolved or
// its request set checked. Every entry asks before it looks at either.
void forget_resolutions_of_rewritten_slots();

// Rebuilds the connection when it is down; a connection other than the one
// the kept handles were resolved on comes without handles and without
// remembered request sets. False when it is still down.
bool connection_ready(ControllerLink &link);

} // namespace plc
