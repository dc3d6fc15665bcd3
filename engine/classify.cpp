#include "engine/classify.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace plc {

std::array<BatchSlot, kBatchCapacity> OMRON_TEMP{};
std::array<InitTagEntry, kBatchCapacity> INIT_TAG{};
uint32_t reg_init_num = 0;
uint32_t reg_interact_num = 0;

namespace {

// Length of a tag entry's name; the field is not trusted to be terminated.
size_t entry_name_length(const TagEntry &entry) { return strnlen(entry.name, sizeof entry.name); }

void copy_entry_name(const TagEntry &entry, InitTagEntry &out) {
    const size_t len = entry_name_length(entry);
    std::memcpy(out.name.data(), entry.name, len);
    out.name[len] = '\0';
}

bool name_listed(const TagEntry &entry, const InitTagEntry *names, size_t count) {
    const size_t len = entry_name_length(entry);
    for (size_t k = 0; k < count; ++k) {
        if (std::strncmp(names[k].name.data(), entry.name, len) == 0 && names[k].name[len] == '\0')
            return true;
    }
    return false;
}

// Number of elements of the dimension lo..hi; 0 or less when the tag list gives
// an upper bound below the lower one.
int32_t dimension_width(uint16_t lo, uint16_t hi) { return int32_t(hi) - int32_t(lo) + 1; }

} // namespace

int check_batch_records(const PlcRequest *records, int32_t count) {
    // The working tables and the request-set nodes hold 100 records; a larger
    // or negative count, or a call without records, cannot be served.
    if (count < 0 || count > static_cast<int32_t>(kBatchCapacity) || records == nullptr)
        return kClassifyRefused;
    // Every walk over the slots advances by a record's count: 0 would stall it,
    // and a count reaching past the last record would make the decoding write
    // into memory that is not the host's records.
    const size_t total = static_cast<size_t>(count);
    for (size_t i = 0; i < total; ++i) {
        const uint16_t n = records[i].count;
        if (n == 0 || n > total - i) return kClassifyRefused;
    }
    return kClassifyOk;
}

void unpack_batch_records(PlcRequest *records, int32_t count, BatchSlot *slots,
                          RequestSetKey &key) {
    const size_t total =
        count > 0 ? std::min(static_cast<size_t>(count), kBatchCapacity) : size_t{0};
    for (size_t i = 0; i < total; ++i) {
        BatchSlot &slot = slots[i];
        slot.tag_id = compose_tag_id(records[i]);
        slot.element = element_index(records[i]);
        slot.count = records[i].count;
        key.tag_ids[i] = slot.tag_id;
        key.elements[i] = slot.element;
    }
    key.pairs = static_cast<uint16_t>(total);
}

bool format_bool_element_name(const TagEntry &entry, uint32_t element, char *out) {
    const int name_len = static_cast<int>(entry_name_length(entry));
    const int32_t e = static_cast<int32_t>(element & 0xFFFFu);
    int written = 0;
    // A dimension whose upper bound lies below its lower bound holds no element
    // (and would divide by a width of 0 or less below): such a tag list line is
    // refused instead of being given a subscript.
    switch (entry.dim_type) {
    case 1:
        if (dimension_width(entry.lo1, entry.hi1) <= 0 || e > entry.hi1) return false;
        written = std::snprintf(out, kInitNameSize, "%.*s[%d]", name_len, entry.name, e);
        break;
    case 4: {
        const int32_t w2 = dimension_width(entry.lo2, entry.hi2);
        if (dimension_width(entry.lo1, entry.hi1) <= 0 || w2 <= 0) return false;
        const int32_t first = entry.lo1 + e / w2;
        const int32_t second = entry.lo2 + e % w2;
        if (first > entry.hi1) return false;
        written = std::snprintf(out, kInitNameSize, "%.*s[%d,%d]", name_len, entry.name, first,
                                second);
        break;
    }
    case 5: {
        const int32_t w3 = dimension_width(entry.lo3, entry.hi3);
        const int32_t w2 = dimension_width(entry.lo2, entry.hi2);
        if (dimension_width(entry.lo1, entry.hi1) <= 0 || w2 <= 0 || w3 <= 0) return false;
        const int32_t q = e / w3;
        const int32_t first = entry.lo1 + q / w2;
        const int32_t second = entry.lo2 + q % w2;
        const int32_t third = entry.lo3 + e % w3;
        if (first > entry.hi1 || second > entry.hi2 || third > entry.hi3) return false;
        written = std::snprintf(out, kInitNameSize, "%.*s[%d,%d,%d]", name_len, entry.name, first,
                                second, third);
        break;
    }
    default:
        written = std::snprintf(out, kInitNameSize, "%.*s[%d]", name_len, entry.name, e);
        break;
    }
    return written > 0 && static_cast<size_t>(written) < kInitNameSize;
}

int classify_batch(const TagTable &table, BatchSlot *slots, int32_t n, InitTagEntry *names,
                   uint32_t &init_num, uint32_t &interact_num) {
    init_num = 0;
    interact_num = 0;
    if (n == 0) return kClassifyOk;
    if (n < 0 || n > static_cast<int32_t>(kBatchCapacity) || slots == nullptr || names == nullptr)
        return kClassifyRefused;

    const size_t total = static_cast<size_t>(n);
    size_t k = 0;     // next name record
    size_t items = 0; // read items formed so far
    size_t i = 0;
    // The counts are those of the records actually produced: the number of
    // names written is what the preparation must send (a count taken before the
    // walk disagrees with it whenever a variable is requested again further on,
    // or a scalar twice in a row), and the number of walk steps is what the
    // exchange walks.
    auto refuse = [&]() {
        init_num = static_cast<uint32_t>(k);
        interact_num = static_cast<uint32_t>(items);
        return kClassifyRefused;
    };

    while (i < total) {
        BatchSlot &slot = slots[i];
        // An indexed tag id outside its group has no entry: nothing about the
        // batch can be read, so it is refused here, before the preparation
        // would send names for it.
        const TagEntry *entry = find_entry(table, slot.tag_id);
        if (entry == nullptr) return refuse();
        // Every walk over the slots advances by the slot's count; a count of 0
        // or one that reaches past the last record would stall or overrun them.
        if (slot.count == 0 || slot.count > total - i) return refuse();

        if (is_plain_scalar(*entry) || is_bool_array(*entry)) {
            // A scalar, or a BOOL element prepared by its own name, is exactly
            // one element: a record asking for more lies outside the variable.
            if (slot.count != 1) return refuse();
            InitTagEntry &out = names[k];
            if (is_plain_scalar(*entry)) {
                copy_entry_name(*entry, out);
            } else if (!format_bool_element_name(*entry, slot.element, out.name.data())) {
                // A BOOL element outside its array would leave the batch without
                // a name for it; the host gets 3 (element outside the variable)
                // before anything is sent.
                out.name.fill('\0');
                return refuse();
            }
            out.tag_id = slot.tag_id;
            out.element = slot.element;
            ++k;
            ++i;
            ++items;
            continue;
        }

        // Read whole: fold the following requests for the next elements of the
        // same variable into this item. The run continues behind the records
        // the slot already stands for.
        size_t next = i + slot.count;
        while (slot.count < kMaxRunLength && next < total && slots[next].tag_id == slot.tag_id &&
               slots[next].element == slot.element + slot.count) {
            ++slot.count;
            ++next;
        }
        if (!name_listed(*entry, names, k)) {
            InitTagEntry &out = names[k];
            copy_entry_name(*entry, out);
            out.tag_id = slot.tag_id;
            out.element = slot.element;
            ++k;
        }
        i += slot.count;
        ++items;
    }
    init_num = static_cast<uint32_t>(k);
    interact_num = static_cast<uint32_t>(items);
    return kClassifyOk;
}

int Reg_Classify_Sort(const TagTable &table, int32_t n) {
    return classify_batch(table, OMRON_TEMP.data(), n, INIT_TAG.data(), reg_init_num,
                          reg_interact_num);
}

} // namespace plc
