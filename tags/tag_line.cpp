#include "tags/tag_line.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "tags/cip_types.h"
#include "tags/tag_kinds.h"

namespace plc {

void LineReason::operator()(const char *format, ...) {
    if (set_) {
        return;
    }
    set_ = true;
    va_list args;
    va_start(args, format);
    std::vsnprintf(text_, sizeof text_, format, args);
    va_end(args);
}

namespace {

// Place values of the (at most two) digits of a bit number, from the right.
constexpr uint32_t pow_val[2] = {1, 10};

constexpr size_t kMaxFieldLength = 99; // name parts after the first, type, bounds
constexpr size_t kMaxStrLenField = 7;
constexpr size_t kMaxBitDigits = 2;

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

// Messages quote at most 40 characters of a field.
std::string_view shown(std::string_view text) { return text.substr(0, 40); }
int shown_length(std::string_view text) { return static_cast<int>(shown(text).size()); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Value of a hexadecimal digit, or -1.
int hex_value(char c) {
    if (is_digit(c)) return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

std::string_view without_line_end(std::string_view line) {
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
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

// Reads "[lo..hi" followed by "_lo..hi" per further dimension into `bounds`,
// as far as the text matches; returns how many numbers were read.
size_t scan_bounds(std::string_view field, size_t dims, int64_t bounds[6]) {
    size_t read = 0;
    size_t pos = 0;
    if (field.empty() || field[pos++] != '[') {
        return 0;
    }
    for (size_t d = 0; d < dims; ++d) {
        if (d > 0 && (pos >= field.size() || field[pos++] != '_')) break;
        if (!scan_int(field, pos, bounds[read])) break;
        ++read;
        if (field.substr(pos, 2) != "..") break;
        pos += 2;
        if (!scan_int(field, pos, bounds[read])) break;
        ++read;
    }
    return read;
}

// Field 3: "[a..b]", "[a..b_c..d]" or "[a..b_c..d_e..f]" by the number of '_'.
// The dimension kind is set before reading, so a field that does not match
// keeps whatever bounds could be read, and every bound is kept as an unsigned
// 16-bit number, negative and inverted ones included: the bounds only place
// elements inside the variable the line names, never another variable, and
// the request entries refuse indexes that a dimension without elements cannot
// hold. Only a field too long to be a bounds field refuses the line.
void parse_bounds(std::string_view field, TagEntry &entry, bool double_word, LineReason &why) {
    if (field.size() > kMaxFieldLength) {
        why("has an array bounds field longer than %zu characters", kMaxFieldLength);
    }
    const auto underscores = std::count(field.begin(), field.end(), '_');
    const DimKind kind = underscores == 2   ? DimKind::ThreeDims
                         : underscores == 1 ? DimKind::TwoDims
                                            : DimKind::OneDim;
    set_dim_kind(entry, kind);
    const size_t dims = kind == DimKind::ThreeDims ? 3 : kind == DimKind::TwoDims ? 2 : 1;
    int64_t bounds[6] = {};
    const size_t read = scan_bounds(field, dims, bounds);
    uint16_t *const targets[6] = {&entry.lo1, &entry.hi1, &entry.lo2,
                                  &entry.hi2, &entry.lo3, &entry.hi3};
    const int64_t factor = double_word ? 2 : 1;
    for (size_t i = 0; i < read; ++i) {
        *targets[i] = static_cast<uint16_t>(bounds[i] * factor);
    }
}

// Field 6: the digits after the first '.' are the bit number, the last one
// weighted 1 and the one before it 10 (".05" -> 5, ".15" -> 15, ".A" -> 10).
// At most two characters can be weighted. Anything after the '.' that is not a
// hexadecimal digit, or more than two characters, would give a bit number that
// silently addresses another bit: the line is refused, and the entry keeps the
// hexadecimal digits among the first two characters up to any other.
void parse_bit_number(std::string_view field, TagEntry &entry, LineReason &why) {
    const size_t dot = field.find('.');
    if (dot == std::string_view::npos) {
        return;
    }
    const std::string_view digits = field.substr(dot + 1);
    if (digits.size() > kMaxBitDigits) {
        why("has more than %zu characters after the '.' of address \"%.*s\"", kMaxBitDigits,
            shown_length(field), field.data());
    }
    int values[kMaxBitDigits] = {};
    size_t count = 0;
    for (size_t i = 0; i < digits.size() && i < kMaxBitDigits; ++i) {
        const int v = hex_value(digits[i]);
        if (v < 0) {
            why("has a bit number in address \"%.*s\" that is not hexadecimal", shown_length(field),
                field.data());
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

// Field 1 and the name rule: every field before the first type name belongs
// to the name. An empty field in the type position ends the name and leaves
// the entry without a type (width 0, code 0); the entries read such a variable
// as bytes, which cannot reach the wrong variable, so the line is accepted.
// Returns false when the line ends before the name does. `last_part` is the
// last field taken into the name after the first.
bool take_name_and_type(FieldSplitter &fields, TagEntry &entry, std::string_view &last_part,
                        LineReason &why) {
    std::string_view field;
    size_t length = 0;
    fields.next(field);
    copy_name(entry, length, field);
    if (field.size() > sizeof entry.name - 1) {
        why("has a variable name longer than %zu characters", sizeof entry.name - 1);
    }
    while (fields.next(field)) {
        if (field.empty()) {
            return true;
        }
        if (const CipType *type = find_type_by_name(field)) {
            entry.bits = type->bits;
            entry.type_code = type->code;
            set_dim_kind(entry, DimKind::Scalar);
            return true;
        }
        if (field.size() > kMaxFieldLength) {
            why("has a name part longer than %zu characters", kMaxFieldLength);
        }
        if (length + 1 + field.size() > sizeof entry.name - 1) {
            why("has a variable name longer than %zu characters", sizeof entry.name - 1);
        }
        copy_name(entry, length, ",");
        copy_name(entry, length, field);
        last_part = field;
    }
    why("names no data type");
    return false;
}

// Field 8 decides which variable a host id reaches, so it must be a plain
// decimal number; only blanks around it are forgiven.
void parse_tag_id(std::string_view field, TagEntry &entry, LineReason &why) {
    uint32_t id = 0;
    if (!strict_decimal(trim_blanks(field), kLastIndexedId, id)) {
        why("has a tag id \"%.*s\" that is not a decimal number from 0 to %u", shown_length(field),
            field.data(), kLastIndexedId);
        id = loose_decimal(field);
    }
    entry.tag_id = id;
}

// Fields 3 to 8, counted from the type field.
void parse_typed_fields(const std::string_view (&rest)[6], TagEntry &entry, LineReason &why) {
    const std::string_view bounds = rest[0], str_len = rest[1], address = rest[3];
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
    // kept (0 when nothing can), as an unsigned 16-bit value. STRING2 has none.
    if (!str_len.empty() && entry.type_code == kTypeString) {
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
}

} // namespace

bool pase_str(std::string_view line, TagEntry &entry, LineReason &why) {
    std::memset(&entry, 0, sizeof entry);
    line = without_line_end(line);
    if (line.find(',') == std::string_view::npos) {
        why("has no ','");
    }
    FieldSplitter fields(line);
    std::string_view last_part;
    const bool name_ended = take_name_and_type(fields, entry, last_part, why);
    std::string_view rest[6];
    size_t present = 0;
    while (present < 6 && fields.next(rest[present])) ++present;
    if (name_ended && present < 6) {
        if (last_part.empty()) {
            why("has fewer than eight fields");
        } else {
            // Most likely a misspelt type that the name rule took for a name part.
            why("has fewer than eight fields (\"%.*s\" is not a data type)",
                shown_length(last_part), last_part.data());
        }
    }
    std::string_view extra;
    if (fields.next(extra)) {
        // The tag id must be both the eighth and the last field; with more
        // fields the two readings would disagree.
        why("has more than eight fields");
    }
    parse_typed_fields(rest, entry, why);
    if (present == 6) {
        parse_tag_id(rest[5], entry, why);
    }
    return !why.set();
}

} // namespace plc

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
    plc::FieldSplitter fields(plc::without_line_end(line));
    std::string_view field;
    size_t name_length = 0;
    fields.next(field);
    plc::copy_name(*entry, name_length, field);

    if (fields.next(field)) {
        if (const plc::CipType *type = plc::find_type_by_name(field)) {
            entry->bits = type->bits;
            entry->type_code = type->code;
        }
    }
    if (fields.next(field) && !field.empty()) {
        plc::set_dim_kind(*entry, plc::DimKind::OneDim);
        int64_t bounds[6] = {};
        const size_t read = plc::scan_bounds(field, 1, bounds);
        if (read > 0) entry->lo1 = static_cast<uint16_t>(bounds[0]);
        if (read > 1) entry->hi1 = static_cast<uint16_t>(bounds[1]);
    }
    if (fields.next(field) && !field.empty() && entry->type_code == plc::kTypeString) {
        entry->str_len = static_cast<uint16_t>(plc::loose_decimal(field));
        plc::set_dim_kind(*entry, plc::DimKind::String);
    }
    fields.next(field); // field 5: not read
    if (fields.next(field) && !field.empty()) {
        plc::LineReason ignored;
        plc::parse_bit_number(field, *entry, ignored);
    }
    return 0;
}
