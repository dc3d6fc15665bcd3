// Tag list files (CSV exported with the panel project) built into the tables
// the request entries look tags up in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "plc_driver_records.h"
#include "plc_driver_tags.h"
#include "tags/tag_kinds.h"
#include "tags/tag_list_parse.h"

namespace plc {

// Indexed-tag id block (32 + slot) -> group number in the list built last
// that has a group starting in that block. Shared by all lists.
extern std::array<uint32_t, kGroupSlots> groupID_table;
// How often an accepted list has written group slots. A slot written by one
// list changes what the ids of every other list lead to, so whatever was
// worked out from a lookup (a request set's plan, a handle kept by tag id)
// holds only while this count stays the same.
extern uint32_t group_slot_writes;

// Parses `path`; on success stores the arrays and returns temp_count
// {plain tag count, highest indexed tag id}; on failure returns nullptr and
// stores nothing. Prints the refusal or failure, and one line per shadowed
// group of an accepted list.
const uint32_t *build_tagtable(std::vector<TagEntry> *entries_out,
                               std::vector<IndexedGroup> *index_out, const char *path,
                               std::array<uint32_t, kGroupSlots> &group_table);

// What build_tagtable does with a parse: prints its messages and, when the
// list was accepted, writes the slots of its groups in file order (so the
// group built last owns a shared block), moves the arrays out and returns
// temp_count. nullptr, with nothing stored, otherwise.
const uint32_t *publish_tag_list(ParsedTagList &list, std::vector<TagEntry> *entries_out,
                                 std::vector<IndexedGroup> *index_out,
                                 std::array<uint32_t, kGroupSlots> &group_table);

} // namespace plc
