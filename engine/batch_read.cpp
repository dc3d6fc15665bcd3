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

// The tag list of the batch, with every record's tag id checked against it.
const TagTable *batch_table(const DriverSettings *settings, PlcRequest *requests,
                            int32_t count) {
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
    // A batch with a record that cannot be valid is refused like an unknown
    // tag id: before the connection is rebuilt or anything is sent.
    if (Reg_Classify_Sort(*table, count) != Status::Ok) return Status::ConfigError;

    if (!connection_ready(link)) return Status::CommFailure;
    // A set is remembered only once its variables are prepared on this
    // connection; a set whose preparation failed is prepared again next time.
    if (Query_node(node.get(), key) != 1 || label_reupdata == 1) {
        list_init_tags(*table, count);
        if (const Status s = OMRON_INIT_REQ(link, *table); s != Status::Ok) return s;
        label_reupdata = 0;
        build_node(node, key);
    }
    return OMRON_INTERACT(link, *table, requests, count);
}

} // namespace plc
