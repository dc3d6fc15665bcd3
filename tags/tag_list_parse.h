// A whole tag list file parsed into its plain tags and indexed groups, with
// nothing printed and no module state touched: the driver's build_tagtable
// prints and publishes the result, a host tool or a fuzzer can read it as is.
//
// The rules, shared by every reader of a tag list:
// - only lines that end with '\n' are tag lines; a blank line carries no tag;
//   a last line without '\n' is not part of the table (it is reported);
// - every tag line must be readable without guessing (see pase_str);
// - plain tags (ids below 0x40000) carry the ids 0, 1, 2, ... in file order;
// - indexed tags form groups of consecutive ids, each inside one 8192-id
//   block, at most 255 entries per group and 512 groups per list;
// - several groups may start in one block: lookups go through one slot per
//   block, so the group built last owns the block and the ids of the groups
//   before it cannot be reached (they are "shadowed").
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "plc_driver_records.h"
#include "plc_driver_tags.h"
#include "tags/tag_file.h"
#include "tags/tag_kinds.h"

namespace plc {

// One group of consecutive indexed tag ids (a row of indexedtag_table).
struct IndexedGroup {
    uint8_t count = 0;
    std::vector<TagEntry> tags;
};

// The first and last tag id of a group that holds tags.
inline uint32_t first_id(const IndexedGroup &group) { return group.tags.front().tag_id; }
inline uint32_t last_id(const IndexedGroup &group) { return group.tags.back().tag_id; }

enum class TagListStatus {
    Accepted,
    CannotOpen, // no such file, no permission: worth trying again later
    Refused,    // the contents, or what the path names; see TagListRefusal
    // An array could not be allocated (in the order they are allocated).
    NoMemoryForPlain,
    NoMemoryForGroupTable,
    NoMemoryForGroup,
    CloseFailed,
};

struct TagListRefusal {
    const char *file = "";       // the path as given
    unsigned long long line = 0; // 1-based; 0 when the file as a whole is refused
    char reason[160] = {};       // worded to follow "line N ", or alone for the whole file
    // The file would be refused again as long as its stamp does not change
    // (false for a read error or a file that changed while it was read).
    bool lasting = false;
};

struct ParsedTagList {
    TagListStatus status = TagListStatus::CannotOpen;
    TagListRefusal refusal;           // when Refused
    FileStamp stamp;                  // of the file opened (unset after CannotOpen)
    std::vector<TagEntry> plain;      // entry k carries tag id k
    std::vector<IndexedGroup> groups; // in file order
    uint32_t max_indexed_id = 0;      // 0 when there is no group
    // Line number of a last line without '\n' (not part of the table), or 0.
    unsigned long long unterminated_line = 0;

    uint32_t plain_count() const { return static_cast<uint32_t>(plain.size()); }
    // The group whose slot group g's id block gets: the last group of the
    // list that starts in that block (g itself when no later one does).
    size_t block_owner(size_t g) const;
    bool shadowed(size_t g) const { return block_owner(g) != g; }
};

// Reads and checks the tag list at `path` (opened only when it is a regular
// file, without blocking). Every array is allocated once at its final size;
// on any status but Accepted the arrays are empty. `path` must outlive the
// result (the refusal points at it).
ParsedTagList parse_tag_list(const char *path);

} // namespace plc
