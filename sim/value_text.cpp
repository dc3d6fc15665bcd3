#include "sim/value_text.h"

#include <algorithm>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "sim/time_text.h"

namespace plc::sim {

namespace {

uint64_t WidthMask(uint32_t bytes) {
    return bytes >= 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * bytes)) - 1;
}

} // namespace

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
        if (r.magnitude > (std::numeric_limits<uint64_t>::max() - digit) / base)
            return std::nullopt;
        r.magnitude = r.magnitude * base + digit;
    }
    return r;
}

namespace {

// The whole text as a C floating-point number; none when anything is left over.
std::optional<double> ParseDouble(std::string_view s) {
    const std::string text(s);
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return std::nullopt;
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || errno == ERANGE) return std::nullopt;
    if (end != text.c_str() + text.size()) return std::nullopt;
    return v;
}

using Encoded = std::optional<std::vector<uint8_t>>;

Encoded EncodeBool(std::string_view text, std::string *why) {
    if (text == "true" || text == "TRUE" || text == "True" || text == "1")
        return std::vector<uint8_t>{1};
    if (text == "false" || text == "FALSE" || text == "False" || text == "0")
        return std::vector<uint8_t>{0};
    *why = "expected true or false";
    return std::nullopt;
}

// Hex gives the bit pattern of the element; decimal its value.
Encoded EncodeInteger(const ValueType &type, std::string_view text, std::string *why) {
    const auto n = ParseIntText(text);
    if (!n) {
        *why = "not an integer";
        return std::nullopt;
    }
    const uint64_t mask = WidthMask(type.bytes);
    const bool as_pattern = n->hex || type.kind == ValueKind::Unsigned;
    const uint64_t limit = as_pattern ? mask : (mask >> 1) + (n->negative ? 1 : 0);
    if ((as_pattern && n->negative) || n->magnitude > limit) {
        *why = "out of range";
        return std::nullopt;
    }
    const uint64_t bits = (n->negative ? (~n->magnitude + 1) : n->magnitude) & mask;
    return LittleEndian(bits, type.bytes);
}

Encoded EncodeReal(const ValueType &type, std::string_view text, std::string *why) {
    const auto v = ParseDouble(text);
    if (!v) {
        *why = "not a number";
        return std::nullopt;
    }
    return RealBytes(*v, type.bytes);
}

Encoded EncodeText(const ValueType &type, std::string_view text, std::string *why) {
    if (text.size() > type.str_len) {
        *why = "longer than " + std::to_string(type.str_len) + " characters";
        return std::nullopt;
    }
    std::vector<uint8_t> out(type.str_len + 1, 0);
    std::memcpy(out.data(), text.data(), text.size());
    return out;
}

// Each time kind in its own notation, or as a duration since its origin.
Encoded EncodeTime(const ValueType &type, std::string_view text, std::string *why) {
    std::optional<int64_t> ns;
    if (type.kind == ValueKind::TimeOfDay) ns = ParseTimeOfDay(text);
    if (type.kind == ValueKind::Date || type.kind == ValueKind::DateAndTime)
        ns = ParseDateTime(text);
    if (!ns) ns = ParseDuration(text);
    if (ns) return LittleEndian(uint64_t(*ns), 8);
    switch (type.kind) {
    case ValueKind::Date: *why = "expected a date like 2024-03-15"; break;
    case ValueKind::TimeOfDay: *why = "expected a time of day like 13:45:30.5"; break;
    case ValueKind::DateAndTime: *why = "expected a date and time like 2024-03-15-13:45:30"; break;
    default: *why = "expected milliseconds or a duration like 2s, 1h30m, 250us"; break;
    }
    return std::nullopt;
}

} // namespace

std::vector<uint8_t> RealBytes(double value, uint32_t bytes) {
    if (bytes == 4) {
        const float f = float(value);
        uint32_t raw;
        std::memcpy(&raw, &f, 4);
        return LittleEndian(raw, 4);
    }
    uint64_t raw;
    std::memcpy(&raw, &value, 8);
    return LittleEndian(raw, 8);
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

std::optional<std::vector<uint8_t>> ParseValue(const ValueType &type, std::string_view text,
                                               std::string *why) {
    switch (type.kind) {
    case ValueKind::Bool: return EncodeBool(text, why);
    case ValueKind::Signed:
    case ValueKind::Unsigned: return EncodeInteger(type, text, why);
    case ValueKind::Real: return EncodeReal(type, text, why);
    case ValueKind::Text: return EncodeText(type, text, why);
    default: return EncodeTime(type, text, why);
    }
}

std::string FormatValue(const ValueType &type, const uint8_t *bytes, size_t size) {
    if (type.kind == ValueKind::Text) return QuoteText(bytes, size);
    if (type.kind == ValueKind::Bool) return size > 0 && bytes[0] != 0 ? "true" : "false";
    const uint32_t width = uint32_t(std::min<size_t>(size, type.bytes));
    const uint64_t v = FromLittleEndian(bytes, width);
    switch (type.kind) {
    case ValueKind::Signed: return std::to_string(int64_t(SignExtend(v, width * 8)));
    case ValueKind::Unsigned: {
        if (!type.hex) return std::to_string(v);
        char buf[24];
        std::snprintf(buf, sizeof buf, "0x%0*llX", int(2 * width),
                      static_cast<unsigned long long>(v));
        return buf;
    }
    case ValueKind::Real: {
        if (width == 4) {
            float f;
            const uint32_t raw = uint32_t(v);
            std::memcpy(&f, &raw, 4);
            return FormatReal(f, true);
        }
        double d;
        std::memcpy(&d, &v, 8);
        return FormatReal(d, false);
    }
    case ValueKind::Duration: return FormatDuration(int64_t(v));
    case ValueKind::Date: return FormatDate(int64_t(v));
    case ValueKind::TimeOfDay: return FormatTimeOfDay(int64_t(v));
    case ValueKind::DateAndTime: return FormatDateAndTime(int64_t(v));
    default: return "?";
    }
}

} // namespace plc::sim
