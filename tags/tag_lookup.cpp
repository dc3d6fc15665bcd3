// Finding the entry of a tag id in a table, and telling why there is none.
#include <cstdio>

#include "tags/tag_cache.h"

namespace plc {

namespace {

bool holds(const IndexedGroup &group, uint32_t tag_id) {
    if (group.tags.empty() || tag_id < first_id(group)) {
        return false;
    }
    const uint32_t element = tag_id - first_id(group);
    return element < group.count && element < group.tags.size();
}

// Group `g` of `table`, when it starts in the block of `slot`.
const IndexedGroup *group_in_slot(const TagTable &table, uint32_t g, uint32_t slot) {
    if (g >= table.indexedtag_table.size()) return nullptr;
    const IndexedGroup &group = table.indexedtag_table[g];
    if (group.tags.empty() || group_slot(first_id(group)) != slot) return nullptr;
    return &group;
}

// Who wrote the slot of a shadowed id: the cache holds the lists newest first
// and the list built last wins the slot, so the first list whose group of the
// slot's number starts in that block is the one. The table asked about may
// not be in the cache (a table made by hand), so it is asked last.
void find_owner(const TagTable &table, uint32_t slot, TagLookup &where) {
    const uint32_t g = groupID_table[slot];
    for (const TagTable &candidate : g_plc_tags.tables) {
        if (const IndexedGroup *group = group_in_slot(candidate, g, slot)) {
            where.owner_table = &candidate;
            where.owner = group;
            return;
        }
    }
    if (const IndexedGroup *group = group_in_slot(table, g, slot)) {
        where.owner_table = &table;
        where.owner = group;
    }
}

} // namespace

const IndexedGroup *find_group(const TagTable &table, uint32_t tag_id) {
    if (tag_id < PLC_INDEXED_TAG_BASE) {
        return nullptr;
    }
    const uint32_t slot = group_slot(tag_id);
    if (slot >= groupID_table.size()) {
        return nullptr;
    }
    // The slot may hold a group number written by another list: every step is
    // checked, and an id outside the group it leads to is not found.
    const uint32_t g = groupID_table[slot];
    if (g >= table.indexedtag_table.size() || !holds(table.indexedtag_table[g], tag_id)) {
        return nullptr;
    }
    return &table.indexedtag_table[g];
}

const TagEntry *find_entry(const TagTable &table, uint32_t tag_id) {
    if (tag_id < PLC_INDEXED_TAG_BASE) {
        return tag_id < table.tag_str.size() ? &table.tag_str[tag_id] : nullptr;
    }
    const IndexedGroup *group = find_group(table, tag_id);
    if (group == nullptr) {
        return nullptr;
    }
    return &group->tags[tag_id - first_id(*group)];
}

TagLookup lookup_tag(const TagTable &table, uint32_t tag_id) {
    TagLookup where;
    where.entry = find_entry(table, tag_id);
    if (where.entry != nullptr) {
        where.status = TagLookupStatus::Found;
        where.group = find_group(table, tag_id);
        return where;
    }
    if (tag_id < PLC_INDEXED_TAG_BASE || group_slot(tag_id) >= groupID_table.size()) {
        return where;
    }
    for (const IndexedGroup &group : table.indexedtag_table) {
        if (holds(group, tag_id)) {
            where.group = &group;
            break;
        }
    }
    if (where.group != nullptr) {
        where.status = TagLookupStatus::Shadowed;
        find_owner(table, group_slot(tag_id), where);
    }
    return where;
}

void print_unreachable_tag(const TagTable &table, uint32_t tag_id, const TagLookup &where) {
    if (where.status != TagLookupStatus::Shadowed) {
        return;
    }
    std::printf("[PLC] tag id %u cannot be reached in tag list %s: ", tag_id, table.name.c_str());
    if (where.owner == nullptr) {
        std::printf("a group of another tag list took its id block\r\n");
    } else if (where.owner_table == &table) {
        std::printf("the group of tag ids %u to %u took its id block\r\n", first_id(*where.owner),
                    last_id(*where.owner));
    } else {
        std::printf("the group of tag ids %u to %u in tag list %s took its id block\r\n",
                    first_id(*where.owner), last_id(*where.owner), where.owner_table->name.c_str());
    }
}

} // namespace plc
