// Classification of one batch: how its records fold into read items (the
// slots' counts), checked before any traffic, and which controller variables
// must be prepared for it (INIT_TAG).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "engine/batch_plan.h"
#include "engine/element_rules.h"
#include "engine/handle_store.h"
#include "engine/request_set_cache.h"
#include "plc_driver_records.h"
#include "tags/tag_cache.h"
#include "util/status.h"

namespace plc {

constexpr uint16_t kMaxRunLength = 50; // slots folded into one read item at most

// One variable to prepare, with the request it was made from.
struct InitTagEntry {
    NameText name{}; // zero-terminated
    uint32_t tag_id = 0;
    uint32_t element = 0;
    bool by_element = false; // a BOOL array element resolved by itself
};

extern std::array<BatchSlot, kBatchCapacity> OMRON_TEMP;
extern std::array<InitTagEntry, kBatchCapacity> INIT_TAG;
extern uint32_t reg_init_num;     // variables to prepare (records written to INIT_TAG)
extern uint32_t reg_interact_num; // read items of the batch

// Ok when the batch call can be taken, ConfigError when it is refused before
// anything else is done: a count below 0 or above 100, no record array, or a
// record whose count field is 0 or stands for records beyond the last one.
Status check_batch_records(const PlcRequest *records, int32_t count);

// Unpacks records[0..count) (count already checked) into OMRON_TEMP and the
// request-set key; composing a tag id writes 0 back into a high part of 1..3.
void unpack_batch_records(PlcRequest *records, int32_t count, RequestSetKey &key);

// A scalar the tag list names plainly (read by name, one element), a BOOL
// array (its elements resolved one by one), or anything else (read whole,
// runs of consecutive elements folded into one item).
bool is_plain_scalar(const TagEntry &e);
bool is_bool_array(const TagEntry &e);

// Folds the runs of OMRON_TEMP[0..n) into read items (reg_interact_num) and
// checks every record against the table: ConfigError for a tag id without an
// entry, an element outside its variable, or a record asking for more than one
// element of a scalar or a BOOL element. Nothing is sent for a refused batch.
Status Reg_Classify_Sort(const TagTable &table, int32_t n);

// Lists the variables the folded batch needs prepared in INIT_TAG
// (reg_init_num), each once, in the order of their first request.
void list_init_tags(const TagTable &table, int32_t n);

// The plan of the batch folded in OMRON_TEMP[0..n) for the records it came
// from (after Reg_Classify_Sort accepted it).
void make_batch_plan(const TagTable &table, const PlcRequest *records, int32_t n, BatchPlan &plan);

// Puts the folds of a remembered plan into OMRON_TEMP and reg_interact_num,
// as Reg_Classify_Sort would make them.
void apply_batch_plan(const BatchPlan &plan);

} // namespace plc
