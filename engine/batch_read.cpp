#include "engine/batch_read.h"
#include "engine/batch_read_core.h"

#include "driver/connection.h"
#include "driver/plc_state.h"
#include "engine/batch_exchange.h"
#include "engine/classify.h"
#include "engine/handle_store.h"
#include "engine/prepare.h"
#include "engine/request_set_cache.h"
#include "tags/tag_cache.h"

namespace plc {

namespace {

constexpr TagLookupLines kBatchLines{2550, 2556, 2572, 2577};

} // namespace

int32_t batch_read(PlcRequest *requests, int32_t count) {
    // The connection is looked up at every exchange: the recovery below may
    // replace it.
    DriverConnectionExchange link;
    return batch_read_over(link, requests, count);
}

int32_t batch_read_over(CipExchange &link, PlcRequest *requests, int32_t count) {
    // Calls the batch tables cannot hold are refused before anything else:
    // nothing is written to the records and nothing goes on the wire.
    if (check_batch_records(requests, count) != kClassifyOk) return 3;

    OMRON_TEMP.fill(BatchSlot{});
    INIT_TAG.fill(InitTagEntry{});
    RequestSetKey key;
    unpack_batch_records(requests, count, OMRON_TEMP.data(), key);
    send_data.fill(0);
    recv_data.fill(0);

    // Without the host's settings no tag list can be named.
    if (g_s_settings == nullptr) return 3;
    char file_name[kCsvNameSize] = {};
    TagTable *table = find_or_build_tagtable(g_s_settings, requests[0], kBatchLines, true,
                                             file_name);
    if (table == nullptr) return 3;
    for (int32_t i = 0; i < count; ++i) {
        if (!check_tag_id(*table, OMRON_TEMP[size_t(i)].tag_id, file_name, kBatchLines, true))
            return 3;
    }

    // The classification only reads the tag table, so a batch it refuses (a
    // BOOL element outside its array, an indexed tag id outside its group, an
    // empty dimension) is refused like an unknown tag id: with 3, before the
    // connection is rebuilt or anything is sent. The same holds for names the
    // preparation could not send; such a set is never remembered.
    if (Reg_Classify_Sort(*table, count) != kClassifyOk) return 3;
    if (!prepare_names_fit(INIT_TAG.data(), reg_init_num)) return 3;

    // A rebuilt connection comes without handles and without remembered sets.
    if (init != 1 && recover_connection() != 0) return 2;

    // 1: seen before. A set the cache could not store (-1, memory short) is
    // treated as new, so that its variables are prepared all the same.
    const int seen = Query_node(node, key.elements.data(), key.tag_ids.data(), key.pairs);
    if (seen != 1 || label_reupdata == 1) {
        if (prepare_variables(link, send_data, *table, recv_data) != 0) return 2;
        label_reupdata = 0;
    }
    return exchange_batch(link, send_data, *table, recv_data, requests, count);
}

} // namespace plc
