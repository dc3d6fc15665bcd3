#include "sim/variable_store.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace plc::sim {

namespace {

// Element widths of the types this controller knows. The time types and DATE
// are 64-bit nanosecond counts; STIME is taken the same way.
constexpr TypeInfo kTypes[] = {
    {"BOOL", 0xC1, 0, ValueKind::Bool},
    {"SINT", 0xC2, 1, ValueKind::Signed},
    {"INT", 0xC3, 2, ValueKind::Signed},
    {"DINT", 0xC4, 4, ValueKind::Signed},
    {"LINT", 0xC5, 8, ValueKind::Signed},
    {"USINT", 0xC6, 1, ValueKind::Unsigned},
    {"UINT", 0xC7, 2, ValueKind::Unsigned},
    {"UDINT", 0xC8, 4, ValueKind::Unsigned},
    {"ULINT", 0xC9, 8, ValueKind::Unsigned},
    {"REAL", 0xCA, 4, ValueKind::Real},
    {"LREAL", 0xCB, 8, ValueKind::Real},
    {"STIME", 0xCC, 8, ValueKind::Duration},
    {"DATE", 0xCD, 8, ValueKind::Duration},
    {"STRING", 0xD0, 0, ValueKind::Text},
    {"BYTE", 0xD1, 1, ValueKind::Unsigned},
    {"WORD", 0xD2, 2, ValueKind::Unsigned},
    {"DWORD", 0xD3, 4, ValueKind::Unsigned},
    {"LWORD", 0xD4, 8, ValueKind::Unsigned},
    {"STRING2", 0xD5, 0, ValueKind::Text},
    {"TIME_OF_DAY", 0xCE, 8, ValueKind::Duration},
    {"DATE_AND_TIME", 0xCF, 8, ValueKind::Duration},
    {"TIME", 0xD6, 8, ValueKind::Duration},
};

bool InRange(const Variable &var, uint64_t start, uint64_t count) {
    return start <= var.bit_size() && count <= var.bit_size() - start;
}

bool BitAt(const std::vector<uint8_t> &bytes, uint64_t bit) {
    return (bytes[bit / 8] >> (bit % 8)) & 1u;
}

void ReadBitsOf(const Variable &var, uint64_t start, uint64_t count, uint8_t *dst) {
    const size_t out_bytes = size_t((count + 7) / 8);
    std::memset(dst, 0, out_bytes);
    uint64_t done = 0;
    if (start % 8 == 0) {
        const size_t whole = size_t(count / 8);
        std::memcpy(dst, var.data.data() + start / 8, whole);
        done = uint64_t(whole) * 8;
    }
    for (; done < count; ++done) {
        if (BitAt(var.data, start + done)) dst[done / 8] |= uint8_t(1u << (done % 8));
    }
}

void WriteBitsOf(Variable &var, uint64_t start, uint64_t count, const uint8_t *src) {
    uint64_t done = 0;
    if (start % 8 == 0) {
        const size_t whole = size_t(count / 8);
        std::memcpy(var.data.data() + start / 8, src, whole);
        done = uint64_t(whole) * 8;
    }
    for (; done < count; ++done) {
        const uint64_t bit = start + done;
        const uint8_t mask = uint8_t(1u << (bit % 8));
        if ((src[done / 8] >> (done % 8)) & 1u)
            var.data[bit / 8] |= mask;
        else
            var.data[bit / 8] &= uint8_t(~mask);
    }
}

uint64_t WidthMask(uint32_t bytes) {
    return bytes >= 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * bytes)) - 1;
}

std::vector<uint8_t> LittleEndian(uint64_t value, uint32_t bytes) {
    std::vector<uint8_t> out(bytes);
    for (uint32_t i = 0; i < bytes; ++i) out[i] = uint8_t(value >> (8 * i));
    return out;
}

uint64_t FromLittleEndian(const uint8_t *bytes, uint32_t count) {
    uint64_t v = 0;
    for (uint32_t i = count; i-- > 0;) v = (v << 8) | bytes[i];
    return v;
}

// Two's complement of a `bits`-wide value, widened to 64 bits.
uint64_t SignExtend(uint64_t v, uint32_t bits) {
    if (bits == 0 || bits >= 64) return v;
    const uint64_t sign = uint64_t(1) << (bits - 1);
    return (v ^ sign) - sign;
}

struct IntText {
    bool negative = false;
    bool hex = false;
    uint64_t magnitude = 0;
};

// Decimal with an optional '-', or 0x hex; none on anything else or overflow.
std::optional<IntText> ParseIntText(std::string_view s) {
    IntText r;
    if (!s.empty() && s[0] == '-') {
        r.negative = true;
        s.remove_prefix(1);
    }
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        r.hex = true;
        s.remove_prefix(2);
    }
    if (s.empty()) return std::nullopt;
    const unsigned base = r.hex ? 16 : 10;
    for (const char c : s) {
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = unsigned(c - '0');
        else if (r.hex && c >= 'a' && c <= 'f')
            digit = unsigned(c - 'a' + 10);
        else if (r.hex && c >= 'A' && c <= 'F')
            digit = unsigned(c - 'A' + 10);
        else
            return std::nullopt;
        if (r.magnitude > (std::numeric_limits<uint64_t>::max() - digit) / base) return std::nullopt;
        r.magnitude = r.magnitude * base + digit;
    }
    return r;
}

// The whole text as a C floating-point number; none when anything is left over.
std::optional<double> ParseDouble(std::string_view s, std::string_view *suffix = nullptr) {
    const std::string text(s);
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return std::nullopt;
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || errno == ERANGE) return std::nullopt;
    const std::string_view rest = s.substr(size_t(end - text.c_str()));
    if (suffix)
        *suffix = rest;
    else if (!rest.empty())
        return std::nullopt;
    return v;
}

// Value text -> the bytes of one element (BOOL: one byte 0 or 1).
std::optional<std::vector<uint8_t>> EncodeElement(const Variable &var, std::string_view text,
                                                  std::string *error) {
    const TypeInfo &type = *var.type;
    const auto fail = [&](const std::string &why) -> std::optional<std::vector<uint8_t>> {
        *error = "bad " + std::string(type.name) + " value '" + std::string(text) + "': " + why;
        return std::nullopt;
    };
    switch (type.kind) {
    case ValueKind::Bool:
        if (text == "true" || text == "TRUE" || text == "True" || text == "1")
            return std::vector<uint8_t>{1};
        if (text == "false" || text == "FALSE" || text == "False" || text == "0")
            return std::vector<uint8_t>{0};
        return fail("expected true or false");
    case ValueKind::Signed:
    case ValueKind::Unsigned: {
        const auto n = ParseIntText(text);
        if (!n) return fail("not an integer");
        const uint64_t mask = WidthMask(type.bytes);
        uint64_t bits;
        if (n->hex) {
            // Hex gives the bit pattern of the element.
            if (n->negative || n->magnitude > mask) return fail("out of range");
            bits = n->magnitude;
        } else if (type.kind == ValueKind::Unsigned) {
            if (n->negative || n->magnitude > mask) return fail("out of range");
            bits = n->magnitude;
        } else {
            const uint64_t max_positive = mask >> 1;
            if (n->magnitude > max_positive + (n->negative ? 1 : 0)) return fail("out of range");
            bits = (n->negative ? (~n->magnitude + 1) : n->magnitude) & mask;
        }
        return LittleEndian(bits, type.bytes);
    }
    case ValueKind::Real: {
        const auto v = ParseDouble(text);
        if (!v) return fail("not a number");
        if (type.bytes == 4) {
            const float f = float(*v);
            uint32_t raw;
            std::memcpy(&raw, &f, 4);
            return LittleEndian(raw, 4);
        }
        uint64_t raw;
        std::memcpy(&raw, &*v, 8);
        return LittleEndian(raw, 8);
    }
    case ValueKind::Text: {
        if (text.size() > var.str_len)
            return fail("longer than " + std::to_string(var.str_len) + " characters");
        std::vector<uint8_t> out(var.str_len + 1, 0);
        std::memcpy(out.data(), text.data(), text.size());
        return out;
    }
    case ValueKind::Duration: {
        std::string_view unit;
        const auto v = ParseDouble(text, &unit);
        if (!v || !std::isfinite(*v)) return fail("not a number");
        double scale;
        if (unit.empty() || unit == "ms")
            scale = 1e6;
        else if (unit == "s")
            scale = 1e9;
        else if (unit == "us")
            scale = 1e3;
        else if (unit == "ns")
            scale = 1;
        else
            return fail("unit must be ns, us, ms or s");
        const double ns = std::round(*v * scale);
        if (!(ns >= -9.2e18 && ns <= 9.2e18)) return fail("out of range");
        return LittleEndian(uint64_t(int64_t(ns)), 8);
    }
    }
    return fail("unsupported type");
}

std::string FormatReal(double v, bool single) {
    char buf[40];
    const int max_digits = single ? 9 : 17;
    for (int digits = 1; digits <= max_digits; ++digits) {
        std::snprintf(buf, sizeof buf, "%.*g", digits, v);
        const double back = std::strtod(buf, nullptr);
        if (single ? float(back) == float(v) : back == v) break;
    }
    return buf;
}

std::string QuoteText(const uint8_t *bytes, size_t size) {
    std::string out = "\"";
    for (size_t i = 0; i < size && bytes[i] != 0; ++i) {
        const uint8_t c = bytes[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20 || c >= 0x7F) {
            char esc[5];
            std::snprintf(esc, sizeof esc, "\\x%02X", c);
            out += esc;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

} // namespace

const TypeInfo *FindType(std::string_view name) {
    for (const TypeInfo &t : kTypes) {
        if (name == t.name) return &t;
    }
    return nullptr;
}

std::optional<std::vector<int64_t>> ParseSubscript(std::string_view text) {
    std::vector<int64_t> values;
    size_t pos = 0;
    while (true) {
        const size_t comma = text.find(',', pos);
        const std::string_view part =
            text.substr(pos, comma == std::string_view::npos ? std::string_view::npos : comma - pos);
        const auto n = ParseIntText(part);
        if (!n || n->hex || n->magnitude > uint64_t(std::numeric_limits<int32_t>::max()))
            return std::nullopt;
        values.push_back(n->negative ? -int64_t(n->magnitude) : int64_t(n->magnitude));
        if (comma == std::string_view::npos) break;
        pos = comma + 1;
    }
    return values;
}

bool VariableStore::Declare(const std::string &name, const TypeInfo &type, std::vector<Dim> dims,
                            uint32_t str_len, std::string *error) {
    if (name.empty()) {
        *error = "empty variable name";
        return false;
    }
    if (by_name_.count(name)) {
        *error = "variable " + name + " is already declared";
        return false;
    }
    if (vars_.size() >= kMaxVariables) {
        *error = "too many variables";
        return false;
    }
    if (dims.size() > 3) {
        *error = "more than three dimensions";
        return false;
    }
    if (type.kind == ValueKind::Text && str_len > kMaxStringLength) {
        *error = "string length " + std::to_string(str_len) + " is above " +
                 std::to_string(kMaxStringLength);
        return false;
    }
    Variable var;
    var.name = name;
    var.type = &type;
    if (type.kind == ValueKind::Text) var.str_len = str_len;
    var.element_bits = type.kind == ValueKind::Bool  ? 1
                       : type.kind == ValueKind::Text ? (var.str_len + 1) * 8
                                                      : type.bytes * 8;
    // count stays below 2^27 between dimensions and a dimension below 2^33, so
    // neither product can overflow.
    const uint64_t max_bits = kMaxVariableBytes * 8;
    uint64_t count = 1;
    for (const Dim &d : dims) {
        if (d.hi < d.lo) {
            *error = "bounds " + std::to_string(d.lo) + ".." + std::to_string(d.hi) + " are inverted";
            return false;
        }
        count *= d.size();
        if (count > max_bits || count * var.element_bits > max_bits) {
            *error = "variable " + name + " is larger than " + std::to_string(kMaxVariableBytes) +
                     " bytes";
            return false;
        }
    }
    var.dims = std::move(dims);
    var.element_count = count;
    var.data.assign(size_t((var.bit_size() + 7) / 8), 0);
    by_name_.emplace(name, uint16_t(vars_.size()));
    vars_.push_back(std::move(var));
    return true;
}

std::optional<uint16_t> VariableStore::Find(std::string_view name) const {
    const auto it = by_name_.find(std::string(name));
    if (it == by_name_.end()) return std::nullopt;
    return it->second;
}

std::optional<ElementRef> VariableStore::Lookup(std::string_view name) const {
    const size_t open = name.rfind('[');
    if (!name.empty() && name.back() == ']' && open != std::string_view::npos && open > 0) {
        const auto index = Find(name.substr(0, open));
        if (index && vars_[*index].is_array()) {
            const Variable &var = vars_[*index];
            const auto subs = ParseSubscript(name.substr(open + 1, name.size() - open - 2));
            if (subs && subs->size() == var.dims.size()) {
                uint64_t position = 0;
                bool inside = true;
                for (size_t d = 0; d < var.dims.size(); ++d) {
                    const int64_t s = (*subs)[d];
                    if (s < var.dims[d].lo || s > var.dims[d].hi) {
                        inside = false;
                        break;
                    }
                    position = position * var.dims[d].size() + uint64_t(s - var.dims[d].lo);
                }
                if (inside) return ElementRef{*index, true, position};
            }
        }
    }
    if (const auto index = Find(name)) return ElementRef{*index, false, 0};
    return std::nullopt;
}

bool VariableStore::ReadBits(uint16_t index, uint64_t start, uint64_t count,
                             std::vector<uint8_t> &out) const {
    if (index >= vars_.size() || !InRange(vars_[index], start, count)) return false;
    const size_t at = out.size();
    out.resize(at + size_t((count + 7) / 8));
    ReadBitsOf(vars_[index], start, count, out.data() + at);
    return true;
}

bool VariableStore::WriteBits(uint16_t index, uint64_t start, uint64_t count, const uint8_t *src) {
    if (index >= vars_.size() || !InRange(vars_[index], start, count)) return false;
    WriteBitsOf(vars_[index], start, count, src);
    return true;
}

bool VariableStore::PutElement(Variable &var, uint64_t element, const std::vector<uint8_t> &bytes) {
    if (element >= var.element_count) return false;
    WriteBitsOf(var, element * var.element_bits, var.element_bits, bytes.data());
    return true;
}

bool VariableStore::Assign(std::string_view target, std::string_view value, std::string *error) {
    const auto ref = Lookup(target);
    if (!ref) {
        *error = "no variable or element " + std::string(target);
        return false;
    }
    Variable &var = vars_[ref->index];
    const auto bytes = EncodeElement(var, value, error);
    if (!bytes) return false;
    if (ref->element) return PutElement(var, ref->position, *bytes);
    for (uint64_t e = 0; e < var.element_count; ++e) PutElement(var, e, *bytes);
    return true;
}

std::optional<int64_t> VariableStore::GetInteger(uint16_t index, uint64_t element) const {
    if (index >= vars_.size()) return std::nullopt;
    const Variable &var = vars_[index];
    const ValueKind kind = var.type->kind;
    if (element >= var.element_count ||
        (kind != ValueKind::Bool && kind != ValueKind::Signed && kind != ValueKind::Unsigned))
        return std::nullopt;
    uint8_t raw[8] = {};
    ReadBitsOf(var, element * var.element_bits, var.element_bits, raw);
    const uint64_t v = FromLittleEndian(raw, sizeof raw);
    return int64_t(kind == ValueKind::Signed ? SignExtend(v, var.element_bits) : v);
}

bool VariableStore::SetInteger(uint16_t index, uint64_t element, int64_t value) {
    if (index >= vars_.size()) return false;
    Variable &var = vars_[index];
    const ValueKind kind = var.type->kind;
    if (kind == ValueKind::Bool) return PutElement(var, element, {uint8_t(value != 0)});
    if (kind != ValueKind::Signed && kind != ValueKind::Unsigned) return false;
    return PutElement(var, element, LittleEndian(uint64_t(value), var.type->bytes));
}

bool VariableStore::SetReal(uint16_t index, uint64_t element, double value) {
    if (index >= vars_.size() || vars_[index].type->kind != ValueKind::Real) return false;
    Variable &var = vars_[index];
    if (var.type->bytes == 4) {
        const float f = float(value);
        uint32_t raw;
        std::memcpy(&raw, &f, 4);
        return PutElement(var, element, LittleEndian(raw, 4));
    }
    uint64_t raw;
    std::memcpy(&raw, &value, 8);
    return PutElement(var, element, LittleEndian(raw, 8));
}

std::string VariableStore::FormatElement(const Variable &var, uint64_t element) const {
    const uint64_t start = element * var.element_bits;
    if (var.type->kind == ValueKind::Bool) return BitAt(var.data, start) ? "true" : "false";
    const uint8_t *bytes = var.data.data() + start / 8;
    if (var.type->kind == ValueKind::Text) return QuoteText(bytes, var.str_len + 1);
    const uint64_t v = FromLittleEndian(bytes, var.type->bytes);
    switch (var.type->kind) {
    case ValueKind::Signed: return std::to_string(int64_t(SignExtend(v, var.type->bytes * 8)));
    case ValueKind::Unsigned: return std::to_string(v);
    case ValueKind::Real: {
        if (var.type->bytes == 4) {
            const uint32_t raw = uint32_t(v);
            float f;
            std::memcpy(&f, &raw, 4);
            return FormatReal(f, true);
        }
        double d;
        std::memcpy(&d, &v, 8);
        return FormatReal(d, false);
    }
    case ValueKind::Duration: return std::to_string(int64_t(v)) + "ns";
    default: return "?";
    }
}

std::string VariableStore::FormatLine(size_t index) const {
    const Variable &var = vars_[index];
    std::string line = var.name + ' ' + var.type->name;
    for (uint64_t e = 0; e < var.element_count; ++e) {
        line += ' ';
        line += FormatElement(var, e);
    }
    return line;
}

std::string VariableStore::Render() const {
    std::string text;
    for (size_t i = 0; i < vars_.size(); ++i) {
        text += FormatLine(i);
        text += '\n';
    }
    return text;
}

} // namespace plc::sim
