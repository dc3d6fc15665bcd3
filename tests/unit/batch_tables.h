// Tag tables for the batch engine's tests, built in memory the way the tag
// list parser leaves them.
#pragma once

#include <cstring>
#include <initializer_list>

#include "plc_driver.h"
#include "tags/tag_cache.h"
#include "tags/tag_list.h"

namespace plc::test {

inline TagEntry entry(const char *name, uint16_t type_code, uint32_t bits) {
    TagEntry e{};
    std::strncpy(e.name, name, sizeof e.name - 1);
    e.type_code = type_code;
    e.bits = bits;
    return e;
}

inline TagEntry scalar(const char *name, uint16_t type_code, uint32_t bits) {
    return entry(name, type_code, bits);
}

inline TagEntry array1(const char *name, uint16_t type_code, uint32_t bits, uint16_t lo,
                       uint16_t hi) {
    TagEntry e = entry(name, type_code, bits);
    e.dim_type = 1;
    e.lo1 = lo;
    e.hi1 = hi;
    return e;
}

inline TagEntry array2(const char *name, uint16_t type_code, uint32_t bits, uint16_t lo1,
                       uint16_t hi1, uint16_t lo2, uint16_t hi2) {
    TagEntry e = array1(name, type_code, bits, lo1, hi1);
    e.dim_type = 4;
    e.lo2 = lo2;
    e.hi2 = hi2;
    return e;
}

inline TagEntry array3(const char *name, uint16_t type_code, uint32_t bits, uint16_t lo1,
                       uint16_t hi1, uint16_t lo2, uint16_t hi2, uint16_t lo3, uint16_t hi3) {
    TagEntry e = array2(name, type_code, bits, lo1, hi1, lo2, hi2);
    e.dim_type = 5;
    e.lo3 = lo3;
    e.hi3 = hi3;
    return e;
}

inline TagEntry string_var(const char *name, uint16_t length) {
    TagEntry e = entry(name, 0xD0, 0);
    e.dim_type = 3;
    e.str_len = length;
    return e;
}

// Plain entries get the ids 0, 1, 2, ... in order.
inline TagTable plain_table(std::initializer_list<TagEntry> entries) {
    TagTable table;
    table.name = "test";
    uint32_t id = 0;
    for (TagEntry e : entries) {
        e.tag_id = id++;
        table.tag_str.push_back(e);
    }
    table.tag_num = id;
    return table;
}

// Adds one group of indexed entries with consecutive ids from first_id.
inline void add_group(TagTable &table, uint32_t first_id, std::initializer_list<TagEntry> entries) {
    IndexedGroup group;
    uint32_t id = first_id;
    for (TagEntry e : entries) {
        e.tag_id = id++;
        group.tags.push_back(e);
    }
    group.count = static_cast<uint8_t>(group.tags.size());
    groupID_table[(first_id >> 13) - 32] = static_cast<uint32_t>(table.indexedtag_table.size());
    table.indexedtag_table.push_back(group);
    if (id - 1 > table.max_index_id) table.max_index_id = id - 1;
}

inline PlcRequest record(uint32_t tag_id, uint16_t element, uint16_t count = 1) {
    PlcRequest r{};
    r.tag_high = static_cast<uint8_t>(tag_id >> 16);
    r.address = ((tag_id & 0xFFFFu) << 16) | element;
    r.count = count;
    return r;
}

} // namespace plc::test
