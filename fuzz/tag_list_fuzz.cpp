// Feeds arbitrary bytes through the tag list parsers as a whole file and as a
// single line, and checks what an accepted list promises: plain tags at index
// = tag id, groups of consecutive ids inside one id block, each block's slot
// owned by the last group starting in it, element checks that hold whatever
// bounds a line declares, and lookups that find exactly the entry of the id
// asked for, or say why there is none. Parsing never touches the slots.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "engine/element_rules.h"
#include "tags/tag_cache.h"
#include "tags/tag_line.h"
#include "tags/tag_list.h"
#include "util/wire.h"

namespace {

std::string g_path;

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

void check_entry(const TagEntry &e) {
    require(std::memchr(e.name, '\0', sizeof e.name) != nullptr, "name terminated");
    require(e.bit_no <= 15 * 10 + 15, "bit number from two digits");
    require(plc::is_dim_kind(e.dim_type), "known dimension kind");
    // Bounds are kept as read, inverted or empty ones included: the element
    // checks of the request entries must refuse what such a dimension cannot
    // hold without dividing by a width of zero (the sanitizers watch them).
    for (const uint32_t element : {0u, 1u, 7u, 0xFFFFu}) {
        for (const uint32_t count : {0u, 1u, 3u}) {
            (void)plc::run_inside_variable(e, element, count);
            (void)plc::item_geometry(e, element, count);
            plc::NameText name;
            (void)plc::bool_element_name(e, element, name);
        }
    }
}

void check_parse(const plc::ParsedTagList &list, const uint8_t *data, size_t size) {
    for (size_t i = 0; i < list.plain.size(); ++i) {
        require(list.plain[i].tag_id == i, "plain tag at index = tag id");
        check_entry(list.plain[i]);
    }
    uint32_t max_id = 0;
    for (const plc::IndexedGroup &group : list.groups) {
        require(!group.tags.empty() && group.count == group.tags.size(), "group count");
        const uint32_t first = group.tags[0].tag_id;
        require(first >= PLC_INDEXED_TAG_BASE, "indexed id");
        for (size_t i = 0; i < group.tags.size(); ++i) {
            require(group.tags[i].tag_id == first + i, "consecutive ids");
            require(plc::id_block(group.tags[i].tag_id) == plc::id_block(first), "one block");
            check_entry(group.tags[i]);
            max_id = std::max(max_id, group.tags[i].tag_id);
        }
    }
    require(list.max_indexed_id == max_id, "highest indexed id");
    const bool unterminated = size > 0 && data[size - 1] != '\n';
    const size_t lines = static_cast<size_t>(std::count(data, data + size, '\n'));
    require(list.unterminated_line == (unterminated ? lines + 1 : 0), "unterminated last line");
}

// Every id of a group is found, unless the group is shadowed: then it is
// either reported as such, naming the owner, or (when the owner holds the
// same id) found in the owner.
void check_lookups(const plc::TagTable &table, const std::vector<size_t> &owners,
                   const uint8_t *data, size_t size) {
    auto probe = [&table](uint32_t id) {
        const plc::TagLookup where = plc::lookup_tag(table, id);
        require((where.entry != nullptr) == (where.status == plc::TagLookupStatus::Found),
                "entry exactly when found");
        require(where.entry == nullptr || where.entry->tag_id == id, "lookup finds the id asked");
        return where;
    };
    for (uint32_t id = 0; id <= table.tag_num && id < PLC_INDEXED_TAG_BASE; ++id) {
        require((probe(id).entry != nullptr) == (id < table.tag_num), "every plain id found");
    }
    for (size_t g = 0; g < table.indexedtag_table.size(); ++g) {
        const plc::IndexedGroup &group = table.indexedtag_table[g];
        const plc::IndexedGroup &owner = table.indexedtag_table[owners[g]];
        const uint32_t first = group.tags[0].tag_id;
        probe(first - 1);
        for (uint32_t i = 0; i < group.count; ++i) {
            const plc::TagLookup where = probe(first + i);
            if (owners[g] == g) {
                require(where.status == plc::TagLookupStatus::Found, "every id of a group found");
            } else if (where.status == plc::TagLookupStatus::Found) {
                require(where.group == &owner, "a shadowed id found only in its owner");
            } else {
                require(where.status == plc::TagLookupStatus::Shadowed && where.owner == &owner,
                        "a shadowed id names its owner");
            }
        }
        probe(first + group.count);
    }
    // A few ids chosen by the input, anywhere in the id space.
    for (size_t i = 0; i + 4 <= size && i < 64; i += 4) {
        const uint32_t id = *plc::wire::Reader(data + i, 4).u32_at(0);
        probe(id);
        probe(id & 0xFFFFFF);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // A memory file system keeps the per-input file write cheap.
    std::string pattern = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    pattern += "/plc_tag_list_fuzz_XXXXXX";
    const int fd = mkstemp(pattern.data());
    if (fd < 0) std::abort();
    close(fd);
    g_path = pattern;
    std::atexit([] { unlink(g_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The input as one line, through both line parsers.
    const std::string text(reinterpret_cast<const char *>(data), size);
    TagEntry entry;
    plc::LineReason why;
    plc::pase_str(text, entry, why);
    require(std::memchr(entry.name, '\0', sizeof entry.name) != nullptr, "name terminated");
    add_tag_pase_str(text.c_str(), &entry);
    require(std::memchr(entry.name, '\0', sizeof entry.name) != nullptr, "simple name terminated");

    // The input as a whole file.
    std::FILE *file = std::fopen(g_path.c_str(), "wb");
    if (file == nullptr) std::abort();
    if (size > 0 && std::fwrite(data, 1, size, file) != size) std::abort();
    std::fclose(file);

    const auto slots_before = plc::groupID_table;
    plc::ParsedTagList list = plc::parse_tag_list(g_path.c_str());
    require(plc::groupID_table == slots_before, "parsing leaves the slots");
    if (list.status != plc::TagListStatus::Accepted) {
        require(list.plain.empty() && list.groups.empty(), "a refused list holds nothing");
        require(std::memchr(list.refusal.reason, '\0', sizeof list.refusal.reason) != nullptr,
                "reason terminated");
        return 0;
    }
    check_parse(list, data, size);
    std::vector<size_t> owners(list.groups.size());
    for (size_t g = 0; g < owners.size(); ++g) owners[g] = list.block_owner(g);

    plc::TagTable table;
    const uint32_t *counts =
        plc::publish_tag_list(list, &table.tag_str, &table.indexedtag_table, plc::groupID_table);
    require(counts != nullptr, "an accepted list is published");
    table.tag_num = counts[0];
    table.max_index_id = counts[1];
    for (size_t g = 0; g < owners.size(); ++g) {
        const uint32_t slot = plc::group_slot(table.indexedtag_table[g].tags[0].tag_id);
        require(plc::groupID_table[slot] == owners[g], "slot of the block's owner");
    }
    check_lookups(table, owners, data, size);
    return 0;
}
