#include "tags/tag_list.h"

#include <algorithm>
#include <bitset>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "tags/cip_types.h"
#include "tags/tag_kinds.h"

namespace plc {

std::array<uint32_t, kGroupSlots> groupID_table{};

namespace {

// Place values of the (at most two) digits of a bit number, from the right.
constexpr uint32_t pow_val[2] = {1, 10};

// Result of the latest successful build: plain tag count, highest indexed id.
uint32_t temp_count[2];

constexpr size_t kMaxLineLength = 255;       // newline included
constexpr size_t kMaxFieldLength = 99;       // name parts after the first, type, bounds
constexpr size_t kMaxStrLenField = 7;
constexpr size_t kMaxBitDigits = 2;
constexpr size_t kMaxGroups = 512;
constexpr uint32_t kMaxGroupEntries = 255;
// A tag list holds at most 0x40000 plain and 512 x 255 indexed lines of at most
// 255 bytes (about 100 MB); anything much larger is not a tag list, and the cap
// makes sure an endless stream under the list's name cannot keep a build going.
constexpr uint64_t kMaxFileBytes = 256ull << 20;

// ---------------------------------------------------------------- line parsing

// First problem found in a line, worded to follow "line N ".
class Reason {
public:
    bool set() const { return set_; }
    const char *text() const { return text_; }
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    void
    operator()(const char *format, ...) {
        if (set_) {
            return;
        }
        set_ = true;
        va_list args;
        va_start(args, format);
        std::vsnprintf(text_, sizeof text_, format, args);
        va_end(args);
    }

private:
    bool set_ = false;
    char text_[160] = {};
};

// Splits a line at every ',' (there is no quoting in a tag list).
class FieldSplitter {
public:
    explicit FieldSplitter(std::string_view text) : rest_(text) {}
    // The next field, or false when the line has no more.
    bool next(std::string_view &field) {
        if (done_) {
            field = {};
            return false;
        }
        const size_t comma = rest_.find(',');
        if (comma == std::string_view::npos) {
            field = rest_;
            done_ = true;
        } else {
            field = rest_.substr(0, comma);
            rest_.remove_prefix(comma + 1);
        }
        return true;
    }

private:
    std::string_view rest_;
    bool done_ = false;
};

std::string_view shown(std::string_view text) {
    // Messages quote at most 40 characters of a field.
    return text.substr(0, 40);
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Value of a hexadecimal digit, or -1.
int hex_value(char c) {
    if (is_digit(c)) return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Reads a number the way "%d" does (leading blanks, a sign, digits), starting
// at pos. Saturates far outside every range of interest instead of overflowing.
bool scan_int(std::string_view text, size_t &pos, int64_t &value) {
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) ++pos;
    bool negative = false;
    if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) {
        negative = text[pos] == '-';
        ++pos;
    }
    if (pos >= text.size() || !is_digit(text[pos])) {
        return false;
    }
    int64_t v = 0;
    while (pos < text.size() && is_digit(text[pos])) {
        v = std::min<int64_t>(v * 10 + (text[pos] - '0'), int64_t{1} << 40);
        ++pos;
    }
    value = negative ? -v : v;
    return true;
}

// Unsigned decimal made of digits only; false for anything else or above `max`.
bool strict_decimal(std::string_view text, uint32_t max, uint32_t &value) {
    if (text.empty()) {
        return false;
    }
    uint64_t v = 0;
    for (char c : text) {
        if (!is_digit(c)) {
            return false;
        }
        v = v * 10 + static_cast<uint64_t>(c - '0');
        if (v > max) {
            return false;
        }
    }
    value = static_cast<uint32_t>(v);
    return true;
}

std::string_view trim_blanks(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

// Lenient decimal like atoi: what can be read is taken, the rest ignored.
uint32_t loose_decimal(std::string_view text) {
    size_t pos = 0;
    int64_t v = 0;
    return scan_int(text, pos, v) ? static_cast<uint32_t>(v) : 0u;
}

void copy_name(TagEntry &entry, size_t &length, std::string_view part) {
    const size_t room = sizeof entry.name - 1 - length;
    const size_t n = std::min(room, part.size());
    std::memcpy(entry.name + length, part.data(), n);
    length += n;
    entry.name[length] = '\0';
}

// Field 3: "[a..b]", "[a..b_c..d]" or "[a..b_c..d_e..f]" by the number of '_'.
// The dimension kind is set before reading, so a field that does not match
// keeps whatever bounds could be read, and every bound is kept as an unsigned
// 16-bit number, negative and inverted ones included: the bounds only place
// elements inside the variable the line names, never another variable, and
// the request entries refuse indexes that a dimension without elements cannot
// hold. Only a field too long to be a bounds field refuses the line.
void parse_bounds(std::string_view field, TagEntry &entry, bool double_word, Reason &why) {
    if (field.size() > kMaxFieldLength) {
        why("has an array bounds field longer than %zu characters", kMaxFieldLength);
    }
    const size_t underscores = static_cast<size_t>(std::count(field.begin(), field.end(), '_'));
    size_t dims = 1;
    if (underscores == 2) {
        dims = 3;
        set_dim_kind(entry, DimKind::ThreeDims);
    } else if (underscores == 1) {
        dims = 2;
        set_dim_kind(entry, DimKind::TwoDims);
    } else {
        set_dim_kind(entry, DimKind::OneDim);
    }
    uint16_t *const targets[6] = {&entry.lo1, &entry.hi1, &entry.lo2,
                                  &entry.hi2, &entry.lo3, &entry.hi3};
    const int64_t factor = double_word ? 2 : 1;
    size_t read = 0;
    size_t pos = 0;
    bool matched = pos < field.size() && field[pos] == '[';
    if (matched) ++pos;
    for (size_t d = 0; matched && d < dims; ++d) {
        if (d > 0) {
            matched = pos < field.size() && field[pos] == '_';
            if (!matched) break;
            ++pos;
        }
        for (int half = 0; matched && half < 2; ++half) {
            if (half == 1) {
                matched = field.substr(pos, 2) == "..";
                if (!matched) break;
                pos += 2;
            }
            int64_t value = 0;
            matched = scan_int(field, pos, value);
            if (matched) *targets[read++] = static_cast<uint16_t>(value * factor);
        }
    }
}

// Field 6: the digits after the first '.' are the bit number, the last one
// weighted 1 and the one before it 10 (".05" -> 5, ".15" -> 15, ".A" -> 10).
// At most two characters can be weighted. Anything after the '.' that is not a
// hexadecimal digit, or more than two characters, would give a bit number that
// silently addresses another bit: a strict parse refuses it; a loose one reads
// the hexadecimal digits among the first two characters and stops at any other.
void parse_bit_number(std::string_view field, TagEntry &entry, Reason &why) {
    const size_t dot = field.find('.');
    if (dot == std::string_view::npos) {
        return;
    }
    const std::string_view digits = field.substr(dot + 1);
    if (digits.size() > kMaxBitDigits) {
        why("has more than %zu characters after the '.' of address \"%.*s\"", kMaxBitDigits,
            static_cast<int>(shown(field).size()), shown(field).data());
    }
    int values[kMaxBitDigits] = {};
    size_t count = 0;
    for (size_t i = 0; i < digits.size() && i < kMaxBitDigits; ++i) {
        const int v = hex_value(digits[i]);
        if (v < 0) {
            why("has a bit number in address \"%.*s\" that is not hexadecimal",
                static_cast<int>(shown(field).size()), shown(field).data());
            break;
        }
        values[count++] = v;
    }
    uint32_t bit = 0;
    for (size_t i = 0; i < count; ++i) {
        bit += static_cast<uint32_t>(values[count - 1 - i]) * pow_val[i];
    }
    entry.bit_no = bit;
}

// Takes one tag list line apart into `entry` (zero-filled first). Returns
// false, with the reason, when a strict reading of the line fails; the entry
// then holds whatever could be read. Callers that want the loose reading
// simply ignore the result.
bool parse_line(std::string_view line, TagEntry &entry, Reason &why) {
    std::memset(&entry, 0, sizeof entry);
    // The line terminator belongs to no field.
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.find(',') == std::string_view::npos) {
        why("has no ','");
    }

    FieldSplitter fields(line);
    std::string_view field;
    size_t name_length = 0;
    fields.next(field);
    copy_name(entry, name_length, field);
    if (field.size() > sizeof entry.name - 1) {
        why("has a variable name longer than %zu characters", sizeof entry.name - 1);
    }

    // Name rule: every field before the first type name belongs to the name.
    // An empty field in the type position ends the name and leaves the entry
    // without a type (width 0, code 0); the entries read such a variable as
    // bytes, which cannot reach the wrong variable, so the line is accepted.
    const CipType *type = nullptr;
    bool name_ended = false;
    std::string_view type_text;
    std::string_view last_name_part;
    while (fields.next(field)) {
        if (field.empty()) {
            name_ended = true;
            break;
        }
        type = find_type_by_name(field);
        if (type != nullptr) {
            name_ended = true;
            type_text = field;
            break;
        }
        if (field.size() > kMaxFieldLength) {
            why("has a name part longer than %zu characters", kMaxFieldLength);
        }
        if (name_length + 1 + field.size() > sizeof entry.name - 1) {
            why("has a variable name longer than %zu characters", sizeof entry.name - 1);
        }
        copy_name(entry, name_length, ",");
        copy_name(entry, name_length, field);
        last_name_part = field;
    }
    if (!name_ended) {
        why("names no data type");
    }
    if (type != nullptr) {
        entry.bits = type->bits;
        entry.type_code = type->code;
        set_dim_kind(entry, DimKind::Scalar);
    }

    // Fields 3 to 8 are counted from the type field.
    std::string_view rest[6];
    size_t present = 0;
    while (present < 6 && fields.next(rest[present])) ++present;
    if (name_ended && present < 6) {
        if (last_name_part.empty()) {
            why("has fewer than eight fields");
        } else {
            // Most likely a misspelt type that the name rule took for a name part.
            why("has fewer than eight fields (\"%.*s\" is not a data type)",
                static_cast<int>(shown(last_name_part).size()), shown(last_name_part).data());
        }
    }
    if (fields.next(field)) {
        // The tag id must be both the eighth and the last field; with more
        // fields the two readings would disagree.
        why("has more than eight fields");
    }
    const std::string_view bounds = rest[0], str_len = rest[1], address = rest[3],
                           tag_id = rest[5];

    // Double words are presented as two 32-bit words each: a scalar becomes a
    // one-dimensional [0..1], and every bound of an array is doubled.
    const bool double_word = is_double_word_type(entry.type_code);
    if (entry.bits == 64 && entry.type_code != kTypeTime) {
        entry.bits = 32;
        entry.lo1 = 0;
        entry.hi1 = 1;
        set_dim_kind(entry, DimKind::OneDim);
    }
    if (!bounds.empty()) {
        parse_bounds(bounds, entry, double_word, why);
    }

    // The length is read like the bounds: what can be read as a number is
    // kept (0 when nothing can), as an unsigned 16-bit value.
    if (!str_len.empty() && type_text == "STRING") {
        if (str_len.size() > kMaxStrLenField) {
            why("has a string length field longer than %zu characters", kMaxStrLenField);
        }
        entry.str_len = static_cast<uint16_t>(loose_decimal(str_len));
        set_dim_kind(entry, DimKind::String);
        entry.lo1 = 0;
        entry.hi1 = 0;
    }

    if (!address.empty()) {
        parse_bit_number(address, entry, why);
    }

    if (present == 6) {
        // The tag id decides which variable a host id reaches, so it must be
        // a plain decimal number; only blanks around it are forgiven.
        uint32_t id = 0;
        if (!strict_decimal(trim_blanks(tag_id), kLastIndexedId, id)) {
            why("has a tag id \"%.*s\" that is not a decimal number from 0 to %u",
                static_cast<int>(shown(tag_id).size()), shown(tag_id).data(), kLastIndexedId);
            id = loose_decimal(tag_id);
        }
        entry.tag_id = id;
    }
    return !why.set();
}

// ---------------------------------------------------------------- file reading

// One physical line of the file: at most kMaxLineLength characters are kept,
// the full length is counted, so an overlong line is seen as one line (never
// as several pieces that could each look like a tag line).
struct Line {
    std::array<char, kMaxLineLength> text;
    size_t kept = 0;
    uint64_t length = 0;
    bool complete = false; // ends with '\n'
    bool has_nul = false;
    std::string_view view() const { return {text.data(), kept}; }
};

class LineReader {
public:
    explicit LineReader(std::FILE *file) : file_(file) {}

    // The next line; false at the end of the file (or after a read error).
    bool next(Line &line) {
        line.kept = 0;
        line.length = 0;
        line.complete = false;
        line.has_nul = false;
        for (;;) {
            if (pos_ == len_ && !refill()) {
                return line.length > 0;
            }
            const char *start = block_.data() + pos_;
            const size_t available = len_ - pos_;
            const void *newline = std::memchr(start, '\n', available);
            const size_t take =
                newline != nullptr ? static_cast<size_t>(static_cast<const char *>(newline) - start) + 1
                                   : available;
            const size_t copy = std::min(take, kMaxLineLength - line.kept);
            std::memcpy(line.text.data() + line.kept, start, copy);
            line.kept += copy;
            line.length += take;
            line.has_nul = line.has_nul || std::memchr(start, '\0', take) != nullptr;
            pos_ += take;
            if (newline != nullptr) {
                line.complete = true;
                return true;
            }
        }
    }

    bool read_error() const { return error_; }
    bool too_large() const { return too_large_; }

private:
    bool refill() {
        if (eof_) {
            return false;
        }
        const size_t n = std::fread(block_.data(), 1, block_.size(), file_);
        if (n == 0) {
            eof_ = true;
            error_ = std::ferror(file_) != 0;
            return false;
        }
        total_ += n;
        if (total_ > kMaxFileBytes) {
            eof_ = true;
            too_large_ = true;
            return false;
        }
        pos_ = 0;
        len_ = n;
        return true;
    }

    std::FILE *file_;
    std::array<char, 4096> block_;
    size_t pos_ = 0;
    size_t len_ = 0;
    uint64_t total_ = 0;
    bool eof_ = false;
    bool error_ = false;
    bool too_large_ = false;
};

// ---------------------------------------------------------------- building

struct GroupSpan {
    uint32_t first;
    uint32_t size;
};

// Where every line of the file goes, worked out before anything is allocated.
// Kept on the stack (about 4 KiB) so that a build allocates nothing but the
// arrays it hands out.
struct Layout {
    uint32_t plain = 0;
    uint32_t max_indexed = 0;
    size_t groups = 0;
    std::array<GroupSpan, kMaxGroups> spans;
    std::bitset<kGroupSlots> blocks_used; // id blocks in which a group starts
    bool have_indexed = false;
    uint32_t prev_indexed = 0;

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

// The arrays of the second pass.
struct Target {
    std::vector<TagEntry> &tag_str;
    std::vector<IndexedGroup> &groups;
};

class Refusal {
public:
    explicit Refusal(const char *path) : path_(path) {}
    void line(unsigned long long line_no, const char *reason) const {
        std::printf("[PLC] tag list %s refused: line %llu %s\r\n", path_, line_no, reason);
    }
    void file(const char *reason) const {
        std::printf("[PLC] tag list %s refused: %s\r\n", path_, reason);
    }

private:
    const char *path_;
};

// One pass over the file. Without a target it checks every line and works out
// the layout; with one it also stores each entry in its place, re-checking
// every index, so that a file changed between the passes can never make it
// write outside the arrays the first pass sized.
bool scan_file(std::FILE *file, const Refusal &refuse, Layout &layout, const Target *target) {
    LineReader reader(file);
    Line storage;
    Line *const line = &storage;
    unsigned long long line_no = 0;
    TagEntry entry;
    while (reader.next(*line)) {
        ++line_no;
        if (!line->complete) {
            // A last line without a newline is not a tag line.
            continue;
        }
        if (line->length > kMaxLineLength) {
            refuse.line(line_no, "is longer than 255 characters");
            return false;
        }
        if (line->has_nul) {
            refuse.line(line_no, "contains a NUL character");
            return false;
        }
        const std::string_view text = line->view();
        if (text == "\n" || text == "\r\n") {
            // A blank line carries no tag.
            continue;
        }
        Reason why;
        if (!parse_line(text, entry, why)) {
            refuse.line(line_no, why.text());
            return false;
        }
        const uint32_t id = entry.tag_id;
        char reason[160];
        if (id < PLC_INDEXED_TAG_BASE) {
            // Every user finds a plain tag at index = tag id, so a gap or a repeat
            // would shift every later plain tag onto the wrong variable.
            if (id != layout.plain) {
                std::snprintf(reason, sizeof reason, "has plain tag id %u where %u was expected", id,
                              layout.plain);
                refuse.line(line_no, reason);
                return false;
            }
            if (target != nullptr) {
                if (layout.plain >= target->tag_str.size()) {
                    refuse.file("the file changed while it was read");
                    return false;
                }
                target->tag_str[layout.plain] = entry;
            }
            ++layout.plain;
            continue;
        }

        layout.max_indexed = std::max(layout.max_indexed, id);
        const uint32_t block = id_block(id);
        const bool continues = layout.have_indexed && id == layout.prev_indexed + 1;
        if (continues) {
            GroupSpan &span = layout.spans[layout.groups - 1];
            // Lookups go through the slot of the id's own block and count the
            // element from the group's first id: a group must stay in one block.
            if (block != id_block(span.first)) {
                std::snprintf(reason, sizeof reason,
                              "has tag id %u, which continues the group starting at %u across an "
                              "id block boundary",
                              id, span.first);
                refuse.line(line_no, reason);
                return false;
            }
            if (span.size >= kMaxGroupEntries) {
                std::snprintf(reason, sizeof reason,
                              "has tag id %u, making the group starting at %u longer than %u "
                              "entries",
                              id, span.first, kMaxGroupEntries);
                refuse.line(line_no, reason);
                return false;
            }
            ++span.size;
        } else {
            if (layout.groups >= kMaxGroups) {
                std::snprintf(reason, sizeof reason,
                              "has tag id %u, which starts a group beyond the %zu allowed", id,
                              kMaxGroups);
                refuse.line(line_no, reason);
                return false;
            }
            // One slot per id block: a second group starting in the block would
            // silently take over the first one's slot.
            if (layout.blocks_used.test(block - kFirstIndexedBlock)) {
                uint32_t earlier = 0;
                for (size_t g = 0; g < layout.groups; ++g) {
                    if (id_block(layout.spans[g].first) == block) {
                        earlier = layout.spans[g].first;
                    }
                }
                std::snprintf(reason, sizeof reason,
                              "has tag id %u, which starts a group in the id block of the group "
                              "starting at %u",
                              id, earlier);
                refuse.line(line_no, reason);
                return false;
            }
            layout.blocks_used.set(block - kFirstIndexedBlock);
            layout.spans[layout.groups] = GroupSpan{id, 1};
            ++layout.groups;
        }
        layout.have_indexed = true;
        layout.prev_indexed = id;
        if (target != nullptr) {
            const size_t g = layout.groups - 1;
            const size_t element = layout.spans[g].size - 1;
            if (g >= target->groups.size() || element >= target->groups[g].tags.size()) {
                refuse.file("the file changed while it was read");
                return false;
            }
            target->groups[g].tags[element] = entry;
        }
    }
    if (reader.read_error()) {
        refuse.file("the file could not be read");
        return false;
    }
    if (reader.too_large()) {
        refuse.file("the file is larger than any tag list can be");
        return false;
    }
    return true;
}

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};

} // namespace

int pase_str(const char *line, TagEntry *entry) {
    if (line == nullptr || entry == nullptr) {
        return 0;
    }
    // The loose reading: lines the builder would refuse still give whatever
    // fields could be read, never anything beyond the entry.
    Reason ignored;
    parse_line(std::string_view(line), *entry, ignored);
    return 0;
}

const uint32_t *build_tagtable(std::vector<TagEntry> *entries_out,
                               std::vector<IndexedGroup> *index_out, const char *path,
                               std::array<uint32_t, kGroupSlots> &group_table) {
    const char *shown_path = path != nullptr ? path : "";
    std::unique_ptr<std::FILE, FileCloser> file(path != nullptr ? std::fopen(path, "r") : nullptr);
    if (!file) {
        std::printf("[PLC] open %s file failed, at line: %d\r\n", shown_path, 381);
        return nullptr;
    }
    if (entries_out == nullptr || index_out == nullptr) {
        return nullptr;
    }
    const Refusal refuse(shown_path);

    // First pass: every line is checked before anything is allocated or any
    // slot of group_table is written, so a refused file changes nothing.
    Layout layout;
    if (!scan_file(file.get(), refuse, layout, nullptr)) {
        return nullptr;
    }

    // Every array is allocated once at its final size; a failure releases
    // whatever was allocated before it.
    std::vector<TagEntry> tag_str;
    std::vector<IndexedGroup> indexedtag_table;
    try {
        tag_str.resize(layout.plain);
    } catch (const std::bad_alloc &) {
        std::printf("[PLC] malloc tag_str failed at line %d\r\n", 427);
        return nullptr;
    }
    try {
        indexedtag_table.resize(layout.groups);
    } catch (const std::bad_alloc &) {
        std::printf("[PLC] malloc indexedtag_table failed at line %d\r\n", 432);
        return nullptr;
    }
    for (size_t g = 0; g < layout.groups; ++g) {
        try {
            indexedtag_table[g].tags.resize(layout.spans[g].size);
        } catch (const std::bad_alloc &) {
            std::printf("[PLC] malloc indextag failed at line %d\r\n", 440);
            return nullptr;
        }
        indexedtag_table[g].count = static_cast<uint8_t>(layout.spans[g].size);
    }

    // Second pass: the entries go into their places.
    std::rewind(file.get());
    const Target target{tag_str, indexedtag_table};
    Layout second;
    if (!scan_file(file.get(), refuse, second, &target)) {
        return nullptr;
    }
    if (!second.same_shape(layout)) {
        refuse.file("the file changed while it was read");
        return nullptr;
    }

    if (std::fclose(file.release()) != 0) {
        std::printf("[PLC] Close csv file error!!! at line %d\r\n", 525);
        return nullptr;
    }

    // Accepted: only now do the slots of the list's groups change.
    for (size_t g = 0; g < layout.groups; ++g) {
        group_table[group_slot(layout.spans[g].first)] = static_cast<uint32_t>(g);
    }
    temp_count[0] = layout.plain;
    temp_count[1] = layout.groups > 0 ? layout.max_indexed : 0;
    *entries_out = std::move(tag_str);
    *index_out = std::move(indexedtag_table);
    return temp_count;
}

} // namespace plc

using plc::Reason;

// The simple variant for the framework: field 1 alone is the name, field 2
// alone the type, field 3 only "[a..b]", field 4 the length of a STRING (the
// bounds stay as read), field 6 the bit number; no double-word conversion and
// no tag id. The line may be of any length: the name keeps its first 255
// characters. The entry is zero-filled first.
int add_tag_pase_str(const char *line, TagEntry *entry) {
    if (line == nullptr || entry == nullptr) {
        return -1;
    }
    std::memset(entry, 0, sizeof *entry);
    std::string_view text(line);
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);

    plc::FieldSplitter fields(text);
    std::string_view field;
    size_t name_length = 0;
    fields.next(field);
    plc::copy_name(*entry, name_length, field);

    std::string_view type_text;
    if (fields.next(field)) {
        type_text = field;
        if (const plc::CipType *type = plc::find_type_by_name(field)) {
            entry->bits = type->bits;
            entry->type_code = type->code;
        }
    }
    if (fields.next(field) && !field.empty()) {
        plc::set_dim_kind(*entry, plc::DimKind::OneDim);
        size_t pos = 0;
        int64_t lo = 0;
        int64_t hi = 0;
        if (field.substr(0, 1) == "[") {
            pos = 1;
            if (plc::scan_int(field, pos, lo)) {
                entry->lo1 = static_cast<uint16_t>(lo);
                if (field.substr(pos, 2) == ".." && (pos += 2, plc::scan_int(field, pos, hi))) {
                    entry->hi1 = static_cast<uint16_t>(hi);
                }
            }
        }
    }
    if (fields.next(field) && !field.empty() && type_text == "STRING") {
        entry->str_len = static_cast<uint16_t>(plc::loose_decimal(field));
        plc::set_dim_kind(*entry, plc::DimKind::String);
    }
    fields.next(field); // field 5: not read
    if (fields.next(field) && !field.empty()) {
        Reason ignored;
        plc::parse_bit_number(field, *entry, ignored);
    }
    return 0;
}
