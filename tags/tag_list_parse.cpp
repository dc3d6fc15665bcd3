#include "tags/tag_list_parse.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <new>

namespace plc {

namespace {

constexpr size_t kMaxGroups = 512;
constexpr uint32_t kMaxGroupEntries = 255; // IndexedGroup::count is 8 bits

struct GroupSpan {
    uint32_t first;
    uint32_t size;
};

// Where every line of the file goes, worked out before anything is allocated.
// Kept on the stack (about 4 KiB) so that a parse allocates nothing but the
// arrays it hands out.
struct Layout {
    uint32_t plain = 0;
    uint32_t max_indexed = 0;
    size_t groups = 0;
    std::array<GroupSpan, kMaxGroups> spans;
    bool have_indexed = false;
    uint32_t prev_indexed = 0;
    unsigned long long unterminated_line = 0;

    bool same_shape(const Layout &other) const {
        if (plain != other.plain || max_indexed != other.max_indexed || groups != other.groups) {
            return false;
        }
        for (size_t g = 0; g < groups; ++g) {
            if (spans[g].first != other.spans[g].first || spans[g].size != other.spans[g].size) {
                return false;
            }
        }
        return true;
    }
};

bool refuse_file(ParsedTagList &out, const char *reason, bool lasting) {
    out.status = TagListStatus::Refused;
    out.refusal.line = 0;
    out.refusal.lasting = lasting;
    std::snprintf(out.refusal.reason, sizeof out.refusal.reason, "%s", reason);
    return false;
}

#if defined(__GNUC__)
__attribute__((format(printf, 3, 4)))
#endif
bool refuse_line(ParsedTagList &out, unsigned long long line_no, const char *format, ...) {
    out.status = TagListStatus::Refused;
    out.refusal.line = line_no;
    out.refusal.lasting = true;
    va_list args;
    va_start(args, format);
    std::vsnprintf(out.refusal.reason, sizeof out.refusal.reason, format, args);
    va_end(args);
    return false;
}

bool changed_while_read(ParsedTagList &out) {
    return refuse_file(out, "the file changed while it was read", false);
}

// Every user finds a plain tag at index = tag id, so a gap or a repeat would
// shift every later plain tag onto the wrong variable.
bool place_plain(const TagEntry &entry, unsigned long long line_no, Layout &layout,
                 ParsedTagList &out, bool placing) {
    if (entry.tag_id != layout.plain) {
        return refuse_line(out, line_no, "has plain tag id %u where %u was expected", entry.tag_id,
                           layout.plain);
    }
    if (placing) {
        if (layout.plain >= out.plain.size()) return changed_while_read(out);
        out.plain[layout.plain] = entry;
    }
    ++layout.plain;
    return true;
}

bool place_indexed(const TagEntry &entry, unsigned long long line_no, Layout &layout,
                   ParsedTagList &out, bool placing) {
    const uint32_t id = entry.tag_id;
    layout.max_indexed = std::max(layout.max_indexed, id);
    if (layout.have_indexed && id == layout.prev_indexed + 1) {
        GroupSpan &span = layout.spans[layout.groups - 1];
        // Lookups go through the slot of the id's own block and count the
        // element from the group's first id: a group must stay in one block.
        if (id_block(id) != id_block(span.first)) {
            return refuse_line(out, line_no,
                               "has tag id %u, which continues the group starting at %u across "
                               "an id block boundary",
                               id, span.first);
        }
        if (span.size >= kMaxGroupEntries) {
            return refuse_line(out, line_no,
                               "has tag id %u, making the group starting at %u longer than %u "
                               "entries",
                               id, span.first, kMaxGroupEntries);
        }
        ++span.size;
    } else {
        if (layout.groups >= kMaxGroups) {
            return refuse_line(out, line_no,
                               "has tag id %u, which starts a group beyond the %zu allowed", id,
                               kMaxGroups);
        }
        layout.spans[layout.groups++] = GroupSpan{id, 1};
    }
    layout.have_indexed = true;
    layout.prev_indexed = id;
    if (placing) {
        const size_t g = layout.groups - 1;
        const size_t element = layout.spans[g].size - 1;
        if (g >= out.groups.size() || element >= out.groups[g].tags.size()) {
            return changed_while_read(out);
        }
        out.groups[g].tags[element] = entry;
    }
    return true;
}

// Checks one physical line and, when it is a tag line, places its entry.
bool take_line(const Line &line, unsigned long long line_no, Layout &layout, ParsedTagList &out,
               bool placing) {
    if (!line.complete) {
        // Only a last line can lack its newline; it is not a tag line.
        layout.unterminated_line = line_no;
        return true;
    }
    if (line.length > kMaxLineLength) {
        return refuse_line(out, line_no, "is longer than %zu characters", kMaxLineLength);
    }
    if (line.has_nul) {
        return refuse_line(out, line_no, "contains a NUL character");
    }
    const std::string_view text = line.view();
    if (text == "\n" || text == "\r\n") {
        return true; // a blank line carries no tag
    }
    TagEntry entry;
    LineReason why;
    if (!pase_str(text, entry, why)) {
        return refuse_line(out, line_no, "%s", why.text());
    }
    return entry.tag_id < PLC_INDEXED_TAG_BASE
               ? place_plain(entry, line_no, layout, out, placing)
               : place_indexed(entry, line_no, layout, out, placing);
}

// One pass over the file. The first works out the layout; the second also
// stores each entry in its place, re-checking every index, so that a file
// changed between the passes can never make it write outside the arrays the
// first pass sized.
bool scan_file(const TagListFile &file, Layout &layout, ParsedTagList &out, bool placing) {
    LineReader reader(file);
    Line line;
    unsigned long long line_no = 0;
    while (reader.next(line)) {
        if (!take_line(line, ++line_no, layout, out, placing)) {
            return false;
        }
    }
    if (reader.read_error()) {
        return refuse_file(out, "the file could not be read", false);
    }
    if (reader.too_large()) {
        return refuse_file(out, "the file is larger than any tag list can be", true);
    }
    return true;
}

// Each array once, at its final size; a failure leaves the result's arrays
// empty again.
bool allocate(const Layout &layout, ParsedTagList &out) {
    TagListStatus failing = TagListStatus::NoMemoryForPlain;
    try {
        out.plain.resize(layout.plain);
        failing = TagListStatus::NoMemoryForGroupTable;
        out.groups.resize(layout.groups);
        failing = TagListStatus::NoMemoryForGroup;
        for (size_t g = 0; g < layout.groups; ++g) {
            out.groups[g].tags.resize(layout.spans[g].size);
            out.groups[g].count = static_cast<uint8_t>(layout.spans[g].size);
        }
    } catch (const std::bad_alloc &) {
        out.status = failing;
        out.plain = {};
        out.groups = {};
        return false;
    }
    return true;
}

} // namespace

size_t ParsedTagList::block_owner(size_t g) const {
    if (g >= groups.size() || groups[g].tags.empty()) {
        return g;
    }
    const uint32_t block = id_block(first_id(groups[g]));
    for (size_t h = groups.size(); h-- > g + 1;) {
        if (!groups[h].tags.empty() && id_block(first_id(groups[h])) == block) {
            return h;
        }
    }
    return g;
}

ParsedTagList parse_tag_list(const char *path) {
    ParsedTagList out;
    out.refusal.file = path != nullptr ? path : "";
    TagListFile file;
    switch (file.open(path)) {
    case TagListFile::Opened::CannotOpen: out.status = TagListStatus::CannotOpen; return out;
    case TagListFile::Opened::NotRegular:
        out.stamp = file.stamp();
        refuse_file(out, "it is not a regular file", true);
        return out;
    case TagListFile::Opened::Yes: break;
    }
    out.stamp = file.stamp();

    // Every line is checked before anything is allocated.
    Layout layout;
    if (!scan_file(file, layout, out, false) || !allocate(layout, out)) {
        return out;
    }
    Layout second;
    if (!file.rewind()) {
        refuse_file(out, "the file could not be read", false);
    } else if (scan_file(file, second, out, true)) {
        if (!second.same_shape(layout)) {
            changed_while_read(out);
        } else if (!file.close()) {
            out.status = TagListStatus::CloseFailed;
        } else {
            out.status = TagListStatus::Accepted;
            out.max_indexed_id = layout.groups > 0 ? layout.max_indexed : 0;
            out.unterminated_line = layout.unterminated_line;
            return out;
        }
    }
    out.plain = {};
    out.groups = {};
    return out;
}

} // namespace plc
