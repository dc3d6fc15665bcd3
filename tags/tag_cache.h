// Cache of parsed tag lists keyed by file name, the file naming rule, and the
// find-or-build-and-check step shared by the read, write and batch entries.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "plc_driver_records.h"
#include "plc_driver_tags.h"
#include "tags/tag_file.h"
#include "tags/tag_list.h"

namespace plc {

struct TagTable {
    // Tells this table from every other one read since the library was
    // loaded, also from a table read again under the same name: handles
    // resolved through one table are never used through another.
    uint32_t serial = 0;
    std::string name;
    std::vector<TagEntry> tag_str;
    std::vector<IndexedGroup> indexedtag_table;
    uint32_t tag_num = 0;
    uint32_t max_index_id = 0;
};

// A tag list that was refused, and the file as it was then: while the file
// stays the same it would only be refused again.
struct RefusedTagList {
    std::string name;
    FileStamp stamp;
};

constexpr size_t kCsvNameSize = 50;

// Newest table first; tables and refusals are only forgotten by init_tag (a
// refusal also when its file changes).
struct TagTableCache {
    std::list<TagTable> tables;
    std::vector<RefusedTagList> refused;
    // The table the last request found, by the address and device that name
    // its file: a poll names the same list again and again.
    struct Found {
        TagTable *table = nullptr;
        uint32_t address = 0;
        uint16_t device = 0;
        char name[kCsvNameSize] = {};
    } last;
};

extern TagTableCache g_plc_tags;

void init_tag(TagTableCache &head);
int add_tagtable(TagTableCache &head, const char *name, std::vector<TagEntry> &&tag_str,
                 std::vector<IndexedGroup> &&indexedtag_table, const uint32_t counts[2]);
TagTable *get_tagtable(TagTableCache &head, const char *name);

void get_csv_name(const DriverSettings *settings, const PlcRequest *request, char *buffer);
void get_csv_name1(const DriverSettings *settings, const PlcRequest *request, char *buffer);

// Tag id and element index of a request; a high part of 0..3 is written back as 0.
inline uint32_t compose_tag_id(PlcRequest &request) {
    if (request.tag_high >= 4) {
        return (static_cast<uint32_t>(request.tag_high) << 16) | (request.address >> 16);
    }
    request.tag_high = 0;
    return request.address >> 16;
}
inline uint32_t element_index(const PlcRequest &request) { return request.address & 0xFFFFu; }

// The entry of a tag id (plain: tag_str[id]; indexed: through groupID_table),
// or nullptr when the id is outside the table or its group, or its group is
// shadowed.
const TagEntry *find_entry(const TagTable &table, uint32_t tag_id);
// The group an indexed tag id is reached through, or nullptr.
const IndexedGroup *find_group(const TagTable &table, uint32_t tag_id);

enum class TagLookupStatus {
    Found,
    Outside,  // no entry of the table carries the id
    Shadowed, // a group of the table holds the id, but another group owns its block
};

struct TagLookup {
    TagLookupStatus status = TagLookupStatus::Outside;
    const TagEntry *entry = nullptr;     // Found
    const IndexedGroup *group = nullptr; // the table's group holding an indexed id
    // Shadowed: the group whose number is in the id's slot, and the table it
    // belongs to (this one, or a list built later that the cache still holds);
    // both null when no table in sight has that group in that block.
    const TagTable *owner_table = nullptr;
    const IndexedGroup *owner = nullptr;
};

// Like find_entry, and tells why an id has no entry.
TagLookup lookup_tag(const TagTable &table, uint32_t tag_id);

// Prints why a shadowed tag id cannot be reached: the id, the tag list and
// the group that took its block. Prints nothing for any other lookup.
void print_unreachable_tag(const TagTable &table, uint32_t tag_id, const TagLookup &where);

// Line numbers printed by one entry's table messages.
struct TagLookupLines {
    int build_failed;
    int add_failed;
    int plain_missing;
    int indexed_missing;
};

// Steps shared by the three request entries: form the tag list name from the
// settings and the request, find the table in g_plc_tags or build and add it.
// Returns the table, or nullptr after printing the entry's message (the entry
// then returns 3). `batch` selects the batch entry's rules (an empty list counts
// as a failure). The file name is left in name_out (kCsvNameSize bytes).
// A list refused for its contents (or for not being a regular file) is not
// read again while its file keeps its stamp: the request fails at once.
TagTable *find_or_build_tagtable(const DriverSettings *settings, const PlcRequest &request,
                                 const TagLookupLines &lines, bool batch, char *name_out);

// Checks a tag id against the table's bounds and prints the entry's "not exist"
// message when it fails: single entries name the file, the batch entry prints
// tag_num or max_index_id. Returns true when the id passes.
bool check_tag_id(const TagTable &table, uint32_t tag_id, const char *file_name,
                  const TagLookupLines &lines, bool batch);
// The rule check_tag_id applies: a plain id below tag_num, an indexed one up
// to max_index_id.
inline bool tag_id_in_table(const TagTable &table, uint32_t tag_id) {
    return tag_id < PLC_INDEXED_TAG_BASE ? tag_id < table.tag_num : tag_id <= table.max_index_id;
}

// The whole lookup of a single read or write: the table named from the
// settings and the request (found or built), the tag id checked against it,
// and the entry of the tag id, with the table through table_out. Null when the
// entry must return 3: after its message (a shadowed tag id has one too), or
// silently for an indexed tag outside its group and before any settings were
// given.
const TagEntry *find_request_entry(const DriverSettings *settings, const PlcRequest &request,
                                   uint32_t tag_id, const TagLookupLines &lines,
                                   TagTable **table_out);

} // namespace plc
