// The plan of a folded batch: for every read item, the variable's entry, the
// run of records it answers, the handle it is read by and the bit offset and
// length it asks for. A request set keeps the plan it was prepared with, so a
// poll of a remembered set goes from the records to the wire without working
// any of it out again while its tag list is the same.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "engine/element_rules.h"
#include "engine/handle_store.h"
#include "plc_driver_records.h"
#include "plc_driver_tags.h"

namespace plc {

constexpr size_t kBatchCapacity = 100; // records per batch call

// One request of the current batch.
struct BatchSlot {
    uint32_t tag_id = 0;
    uint32_t element = 0;
    uint16_t count = 0; // records this slot stands for; raised when a run is folded in
};

struct PlannedItem {
    const TagEntry *entry = nullptr; // inside the table the plan was made from
    BatchSlot run;                   // the folded run: first tag id, element, records
    uint16_t first_record = 0;
    HandleKey key;
    ItemGeometry geometry;
};

struct BatchPlan {
    uint32_t table_serial = 0; // the table whose entries the items point into
    uint16_t records = 0;
    std::array<uint16_t, kBatchCapacity> record_counts{}; // the count fields it was made for
    uint16_t items = 0;
    std::array<PlannedItem, kBatchCapacity> item;
};

// Whether the plan was made for records with these count fields (the table
// and the pairs of tag id and element are the set's own key, and a set goes
// when group slots are rewritten): then every check and every fold of the
// batch comes out as it did when it was made.
bool plan_fits(const BatchPlan &plan, const uint16_t *record_counts, size_t n);

} // namespace plc
