// Feeds arbitrary bytes through the tag list parsers as a whole file and as a
// single line, and checks what an accepted list promises: plain tags at index
// = tag id, groups of consecutive ids inside one id block with their slot set,
// element checks that hold whatever bounds a line declares, and lookups that
// find exactly the entry of the id asked for (or nothing). A refused file must
// change nothing.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "engine/single_codec.h"
#include "tags/tag_cache.h"
#include "tags/tag_list.h"

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
            (void)plc::check_read_range(e, element, count);
            (void)plc::check_write_range(e, element, count, false);
            (void)plc::check_write_range(e, element, count, true);
        }
    }
}

void check_table(const uint32_t *counts, std::vector<TagEntry> &plain,
                 std::vector<plc::IndexedGroup> &groups, const uint8_t *data, size_t size) {
    require(counts[0] == plain.size(), "plain count");
    for (size_t i = 0; i < plain.size(); ++i) {
        require(plain[i].tag_id == i, "plain tag at index = tag id");
        check_entry(plain[i]);
    }
    uint32_t max_id = 0;
    for (size_t g = 0; g < groups.size(); ++g) {
        const plc::IndexedGroup &group = groups[g];
        require(!group.tags.empty() && group.count == group.tags.size(), "group count");
        const uint32_t first = group.tags[0].tag_id;
        require(first >= PLC_INDEXED_TAG_BASE, "indexed id");
        require(plc::groupID_table[plc::group_slot(first)] == g, "slot of the group's block");
        for (size_t i = 0; i < group.tags.size(); ++i) {
            require(group.tags[i].tag_id == first + i, "consecutive ids");
            require(plc::id_block(group.tags[i].tag_id) == plc::id_block(first), "group inside one block");
            check_entry(group.tags[i]);
            max_id = std::max(max_id, group.tags[i].tag_id);
        }
    }
    require(counts[1] == max_id, "highest indexed id");

    plc::TagTable table;
    table.tag_num = counts[0];
    table.max_index_id = counts[1];
    table.tag_str = std::move(plain);
    table.indexedtag_table = std::move(groups);
    auto probe = [&table](uint32_t id) {
        const TagEntry *e = plc::find_entry(table, id);
        require(e == nullptr || e->tag_id == id, "lookup finds the id asked for");
        return e;
    };
    for (uint32_t id = 0; id <= table.tag_num && id < PLC_INDEXED_TAG_BASE; ++id) {
        require((probe(id) != nullptr) == (id < table.tag_num), "every plain id found");
    }
    for (const plc::IndexedGroup &group : table.indexedtag_table) {
        const uint32_t first = group.tags[0].tag_id;
        probe(first - 1);
        for (uint32_t i = 0; i < group.count; ++i) {
            require(probe(first + i) != nullptr, "every indexed id found");
        }
        probe(first + group.count);
    }
    // A few ids chosen by the input, anywhere in the id space.
    for (size_t i = 0; i + 4 <= size && i < 64; i += 4) {
        uint32_t id;
        std::memcpy(&id, data + i, sizeof id);
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
    plc::pase_str(text.c_str(), &entry);
    require(std::memchr(entry.name, '\0', sizeof entry.name) != nullptr, "loose name terminated");
    add_tag_pase_str(text.c_str(), &entry);
    require(std::memchr(entry.name, '\0', sizeof entry.name) != nullptr, "simple name terminated");

    // The input as a whole file.
    std::FILE *file = std::fopen(g_path.c_str(), "wb");
    if (file == nullptr) std::abort();
    if (size > 0 && std::fwrite(data, 1, size, file) != size) std::abort();
    std::fclose(file);

    const auto slots_before = plc::groupID_table;
    std::vector<TagEntry> plain;
    std::vector<plc::IndexedGroup> groups;
    const uint32_t *counts = plc::build_tagtable(&plain, &groups, g_path.c_str(), plc::groupID_table);
    if (counts == nullptr) {
        require(plc::groupID_table == slots_before, "refused file leaves the slots");
        require(plain.empty() && groups.empty(), "refused file stores nothing");
        return 0;
    }
    check_table(counts, plain, groups, data, size);
    return 0;
}
