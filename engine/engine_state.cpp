#include "engine/engine_state.h"

#include "engine/handle_store.h"
#include "engine/request_set_cache.h"
#include "tags/tag_list.h"

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
// The connection the kept handles and request sets were resolved on, and the
// group slots they were looked up through.
uint32_t resolved_on = 0;
uint32_t slots_seen = 0;
} // namespace

void forget_resolutions_of_rewritten_slots() {
    if (group_slot_writes == slots_seen) return;
    forget_resolutions();
    slots_seen = group_slot_writes;
}

bool connection_ready(ControllerLink &link) {
    forget_resolutions_of_rewritten_slots();
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
