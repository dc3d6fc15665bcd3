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

bool connection_ready(ControllerLink &link) {
    switch (link.ensure_up()) {
    case LinkState::Up: return true;
    case LinkState::Rebuilt: forget_resolutions(); return true;
    case LinkState::Down: return false;
    }
    return false;
}

} // namespace plc
