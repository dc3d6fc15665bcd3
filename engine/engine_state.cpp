#include "engine/engine_state.h"

#include "engine/handle_store.h"
#include "engine/request_set_cache.h"

namespace plc {

uint32_t label_reupdata = 0;
RequestPrefix recv_flag_data1{};

void forget_resolutions() {
    // Handles belong to the connection they were resolved on, and a remembered
    // request set stands for handles prepared on it: both go, whichever entry
    // rebuilt the connection.
    free_data_link(INIT_RET_DATA.get());
    INIT_RET_DATA.reset();
    free_reg_link(node);
}

namespace {
// The connection the kept handles and request sets were resolved on.
uint32_t resolved_on = 0;
} // namespace

bool connection_ready(ControllerLink &link) {
    if (!link.ensure_up()) return false;
    // Handles of another connection name nothing on this one: a controller
    // that reuses handle numbers after a restart would answer them with other
    // variables' values. Whichever way the connection was brought up (a
    // rebuild, a forced one that already failed its call, the host's own
    // bring-up), everything resolved before it is forgotten.
    if (link.generation() != resolved_on) {
        forget_resolutions();
        resolved_on = link.generation();
    }
    return true;
}

} // namespace plc
