// Tag list files (CSV exported with the panel project) parsed into tag entries.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "plc_driver.h"
#include "tags/tag_kinds.h"

namespace plc {

// One group of consecutive indexed tag ids (a row of indexedtag_table).
struct IndexedGroup {
    uint8_t count = 0;
    std::vector<TagEntry> tags;
};

// Indexed-tag id block (32 + slot) -> group number of the list built last.
extern std::array<uint32_t, kGroupSlots> groupID_table;

// Parses `path`; on success stores the arrays and returns temp_count
// {plain tag count, highest indexed tag id}; on failure returns nullptr and
// stores nothing.
const uint32_t *build_tagtable(std::vector<TagEntry> *entries_out,
                               std::vector<IndexedGroup> *index_out, const char *path,
                               std::array<uint32_t, kGroupSlots> &group_table);

// Parses one line into a zero-filled entry; returns 0.
int pase_str(const char *line, TagEntry *entry);

} // namespace plc
