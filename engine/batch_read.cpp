#include "engine/batch_read.h"

#include "engine/batch_exchange.h"
#include "engine/classify.h"
#include "engine/engine_state.h"
#include "engine/prepare.h"
#include "engine/request_set_cache.h"
#include "tags/tag_cache.h"

namespace plc {

namespace {

constexpr TagLookupLines kBatchLines{2550, 2556, 2572, 2577};

// The plan of a batch that no remembered set holds; kept with the module's
// other batch tables rather than on the host's stack.
BatchPlan fresh_plan;

// The tag list of the batch, with every record's tag id checked against it.
const TagTable *batch_table(const DriverSettings *settings, PlcRequest *requests, int32_t count) {
    // Without the host's settings no tag list can be named.
    if (settings == nullptr) return nullptr;
    char file_name[kCsvNameSize] = {};
    const TagTable *table =
        find_or_build_tagtable(settings, requests[0], kBatchLines, true, file_name);
    if (table == nullptr) return nullptr;
    for (int32_t i = 0; i < count; ++i) {
        if (!check_tag_id(*table, OMRON_TEMP[size_t(i)].tag_id, file_name, kBatchLines, true))
            return nullptr;
    }
    return table;
}

} // namespace

Status batch_read(ControllerLink &link, const DriverSettings *settings, PlcRequest *requests,
                  int32_t count) {
    // Calls the batch tables cannot hold are refused before anything else:
    // nothing is written to the records and nothing goes on the wire.
    if (check_batch_records(requests, count) != Status::Ok) return Status::ConfigError;
    RequestSetKey key;
    unpack_batch_records(requests, count, key);
    const TagTable *table = batch_table(settings, requests, count);
    if (table == nullptr) return Status::ConfigError;
    key.table_serial = table->serial;
    const size_t n = static_cast<size_t>(count);

    // A remembered set whose plan was made for records with these count
    // fields was checked and folded when it was made: it passes and folds the
    // same way now, as long as no list has rewritten the group slots since
    // (then it is forgotten here). Any other batch is checked here, and one
    // with a record that cannot be valid is refused like an unknown tag id:
    // before the connection is rebuilt or anything is sent.
    forget_resolutions_of_rewritten_slots();
    RegLink *kept = Query_node(node.get(), key);
    const bool planned = kept != nullptr && plan_fits(kept->plan, key.counts.data(), n);
    if (planned) {
        apply_batch_plan(kept->plan);
    } else if (Reg_Classify_Sort(*table, count) != Status::Ok) {
        return Status::ConfigError;
    }

    if (!connection_ready(link)) return Status::CommFailure;
    // A rebuilt connection forgot every set; the records were checked all the
    // same, so a plan can be made from them again. A set is remembered only
    // once its variables are prepared on this connection; a set whose
    // preparation failed is prepared again by its next call.
    if (!node) kept = nullptr;
    const BatchPlan *plan = kept != nullptr && planned ? &kept->plan : nullptr;
    if (plan == nullptr) {
        make_batch_plan(*table, requests, count, fresh_plan);
        plan = &fresh_plan;
    }
    if (kept == nullptr || label_reupdata == 1) {
        list_init_tags(*table, count);
        if (const Status s = OMRON_INIT_REQ(link, *table); s != Status::Ok) return s;
        label_reupdata = 0;
    }
    if (kept == nullptr) {
        build_node(node, key, fresh_plan);
    } else if (plan == &fresh_plan) {
        kept->plan = fresh_plan; // made for other count fields
    }
    return OMRON_INTERACT(link, *plan, requests);
}

} // namespace plc
