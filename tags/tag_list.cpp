#include "tags/tag_list.h"

#include <cstdio>
#include <utility>

namespace plc {

std::array<uint32_t, kGroupSlots> groupID_table{};
uint32_t group_slot_writes = 0;

namespace {

// Result of the latest successful build: plain tag count, highest indexed id.
uint32_t temp_count[2];

// Prints why the list gives no table; false when it does give one.
bool report_failure(const ParsedTagList &list, const char *path) {
    const TagListRefusal &refusal = list.refusal;
    switch (list.status) {
    case TagListStatus::Accepted: return false;
    case TagListStatus::CannotOpen:
        std::printf("[PLC] open %s file failed, at line: %d\r\n", path, 381);
        break;
    case TagListStatus::Refused:
        if (refusal.line > 0) {
            std::printf("[PLC] tag list %s refused: line %llu %s\r\n", path, refusal.line,
                        refusal.reason);
        } else {
            std::printf("[PLC] tag list %s refused: %s\r\n", path, refusal.reason);
        }
        break;
    case TagListStatus::NoMemoryForPlain:
        std::printf("[PLC] malloc tag_str failed at line %d\r\n", 427);
        break;
    case TagListStatus::NoMemoryForGroupTable:
        std::printf("[PLC] malloc indexedtag_table failed at line %d\r\n", 432);
        break;
    case TagListStatus::NoMemoryForGroup:
        std::printf("[PLC] malloc indextag failed at line %d\r\n", 440);
        break;
    case TagListStatus::CloseFailed:
        std::printf("[PLC] Close csv file error!!! at line %d\r\n", 525);
        break;
    }
    return true;
}

// A shadowed group is accepted but unreachable: said once, when the list is
// built, so that whoever exported the list can tell which ids are lost.
void report_shadowed_groups(const ParsedTagList &list, const char *path) {
    for (size_t g = 0; g < list.groups.size(); ++g) {
        const size_t owner = list.block_owner(g);
        if (owner == g) continue;
        std::printf("[PLC] tag list %s: tag ids %u to %u cannot be reached, the group of tag ids "
                    "%u to %u took their id block\r\n",
                    path, first_id(list.groups[g]), last_id(list.groups[g]),
                    first_id(list.groups[owner]), last_id(list.groups[owner]));
    }
}

} // namespace

const uint32_t *publish_tag_list(ParsedTagList &list, std::vector<TagEntry> *entries_out,
                                 std::vector<IndexedGroup> *index_out,
                                 std::array<uint32_t, kGroupSlots> &group_table) {
    const char *path = list.refusal.file;
    if (list.status == TagListStatus::CannotOpen) {
        report_failure(list, path);
        return nullptr;
    }
    if (entries_out == nullptr || index_out == nullptr || report_failure(list, path)) {
        return nullptr;
    }
    report_shadowed_groups(list, path);
    // Only an accepted list changes the slots; in file order, so that the
    // group built last owns a block that several groups start in.
    for (size_t g = 0; g < list.groups.size(); ++g) {
        const uint32_t slot = group_slot(first_id(list.groups[g]));
        if (slot < group_table.size()) group_table[slot] = static_cast<uint32_t>(g);
    }
    if (!list.groups.empty()) ++group_slot_writes;
    temp_count[0] = list.plain_count();
    temp_count[1] = list.max_indexed_id;
    *entries_out = std::move(list.plain);
    *index_out = std::move(list.groups);
    return temp_count;
}

const uint32_t *build_tagtable(std::vector<TagEntry> *entries_out,
                               std::vector<IndexedGroup> *index_out, const char *path,
                               std::array<uint32_t, kGroupSlots> &group_table) {
    ParsedTagList list = parse_tag_list(path);
    return publish_tag_list(list, entries_out, index_out, group_table);
}

} // namespace plc
