#include "engine/classify.h"

#include <algorithm>
#include <cstring>

#include "tags/cip_types.h"

namespace plc {

std::array<BatchSlot, kBatchCapacity> OMRON_TEMP{};
std::array<InitTagEntry, kBatchCapacity> INIT_TAG{};
uint32_t reg_init_num = 0;
uint32_t reg_interact_num = 0;

namespace {

bool name_listed(const TagEntry &entry, size_t count) {
    const size_t len = strnlen(entry.name, sizeof entry.name);
    for (size_t k = 0; k < count; ++k) {
        if (std::strncmp(INIT_TAG[k].name.data(), entry.name, len) == 0 &&
            INIT_TAG[k].name[len] == '\0')
            return true;
    }
    return false;
}

// Folds the following records for the next elements of the same variable into
// the item `slot` heads; the run continues behind the records the slot
// already stands for.
void fold_run(BatchSlot *slots, size_t i, size_t total) {
    BatchSlot &slot = slots[i];
    size_t next = i + slot.count;
    while (slot.count < kMaxRunLength && next < total && slots[next].tag_id == slot.tag_id &&
           slots[next].element == slot.element + slot.count) {
        ++slot.count;
        ++next;
    }
}

} // namespace

bool is_plain_scalar(const TagEntry &e) {
    return e.hi1 == 0 && e.str_len == 0 && e.type_code != kTypeTime;
}

bool is_bool_array(const TagEntry &e) { return !is_plain_scalar(e) && e.bits == 1; }

Status check_batch_records(const PlcRequest *records, int32_t count) {
    // The working tables and the request-set nodes hold 100 records; a larger
    // or negative count, or a call without records, cannot be served.
    if (count < 0 || count > static_cast<int32_t>(kBatchCapacity) || records == nullptr)
        return Status::ConfigError;
    // Every walk over the slots advances by a record's count: 0 would stall it,
    // and a count reaching past the last record would make the decoding write
    // into memory that is not the host's records.
    const size_t total = static_cast<size_t>(count);
    for (size_t i = 0; i < total; ++i) {
        const uint16_t n = records[i].count;
        if (n == 0 || n > total - i) return Status::ConfigError;
    }
    return Status::Ok;
}

void unpack_batch_records(PlcRequest *records, int32_t count, RequestSetKey &key) {
    const size_t total = std::min(static_cast<size_t>(count), kBatchCapacity);
    for (size_t i = 0; i < total; ++i) {
        BatchSlot &slot = OMRON_TEMP[i];
        slot.tag_id = compose_tag_id(records[i]);
        slot.element = element_index(records[i]);
        slot.count = records[i].count;
        key.counts[i] = slot.count;
        add_pair(key, slot.tag_id, slot.element);
    }
}
Status Reg_Classify_Sort(const TagTable &table, int32_t n) {
    reg_interact_num = 0;
    const size_t total = std::min(static_cast<size_t>(std::max(n, 0)), kBatchCapacity);
    size_t items = 0;
    for (size_t i = 0; i < total; ++items) {
        BatchSlot &slot = OMRON_TEMP[i];
        const TagLookup where = lookup_tag(table, slot.tag_id);
        // An id whose group lost its block to another group is named; one
        // outside every group is refused without a message, as ever.
        print_unreachable_tag(table, slot.tag_id, where);
        const TagEntry *entry = where.entry;
        if (entry == nullptr || slot.count == 0 || slot.count > total - i)
            return Status::ConfigError;
        if (is_plain_scalar(*entry) || is_bool_array(*entry)) {
            // A scalar, or a BOOL element prepared by its own name, is exactly
            // one element: a record asking for more lies outside the variable.
            if (slot.count != 1) return Status::ConfigError;
            if (is_bool_array(*entry) && !bool_element_inside(*entry, slot.element))
                return Status::ConfigError;
            ++i;
            continue;
        }
        fold_run(OMRON_TEMP.data(), i, total);
        if (!run_inside_variable(*entry, slot.element, slot.count)) return Status::ConfigError;
        i += slot.count;
    }
    reg_interact_num = static_cast<uint32_t>(items);
    return Status::Ok;
}

void list_init_tags(const TagTable &table, int32_t n) {
    const size_t total = std::min(static_cast<size_t>(std::max(n, 0)), kBatchCapacity);
    size_t k = 0;
    for (size_t i = 0; i < total; i += OMRON_TEMP[i].count) {
        const BatchSlot &slot = OMRON_TEMP[i];
        const TagEntry &entry = *find_entry(table, slot.tag_id);
        const bool by_element = is_bool_array(entry);
        if (!by_element && !is_plain_scalar(entry) && name_listed(entry, k)) continue;
        InitTagEntry &out = INIT_TAG[k++];
        if (by_element) {
            bool_element_name(entry, slot.element, out.name);
        } else {
            variable_name(entry, out.name);
        }
        out.tag_id = slot.tag_id;
        out.element = slot.element;
        out.by_element = by_element;
    }
    reg_init_num = static_cast<uint32_t>(k);
}

bool plan_fits(const BatchPlan &plan, const uint16_t *record_counts, size_t n) {
    return plan.records == n &&
           std::memcmp(plan.record_counts.data(), record_counts, n * sizeof *record_counts) == 0;
}

void make_batch_plan(const TagTable &table, const PlcRequest *records, int32_t n, BatchPlan &plan) {
    const size_t total = std::min(static_cast<size_t>(std::max(n, 0)), kBatchCapacity);
    plan.table_serial = table.serial;
    plan.records = static_cast<uint16_t>(total);
    for (size_t i = 0; i < total; ++i) plan.record_counts[i] = records[i].count;
    size_t k = 0;
    for (size_t i = 0; i < total; i += OMRON_TEMP[i].count, ++k) {
        PlannedItem &item = plan.item[k];
        item.run = OMRON_TEMP[i];
        item.first_record = static_cast<uint16_t>(i);
        item.entry = find_entry(table, item.run.tag_id);
        item.key =
            handle_key(table.serial, item.run.tag_id, item.run.element, is_bool_array(*item.entry));
        item.geometry = item_geometry(*item.entry, item.run.element, item.run.count);
    }
    plan.items = static_cast<uint16_t>(k);
}

void apply_batch_plan(const BatchPlan &plan) {
    for (size_t k = 0; k < plan.items; ++k) {
        OMRON_TEMP[plan.item[k].first_record].count = plan.item[k].run.count;
    }
    reg_interact_num = plan.items;
}

} // namespace plc
