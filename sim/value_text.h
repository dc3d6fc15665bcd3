// One value syntax for every tool that takes or shows a controller value:
// plc-sim's --set and plc-host's read, write and poll. Text here stands for
// one element's little-endian image in the controller's memory layout; the
// caller says what kind of value the element holds and how wide it is, so
// nothing here knows a type table.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plc::sim {

// Date, TimeOfDay, DateAndTime and Duration are signed 64-bit nanosecond
// counts: since 1970-01-01, since midnight, since 1970-01-01, and plain.
enum class ValueKind { Bool, Signed, Unsigned, Real, Text, Duration, Date, TimeOfDay, DateAndTime };

struct ValueType {
    ValueKind kind = ValueKind::Signed;
    uint32_t bytes = 0;   // element width; ignored for Bool and Text
    uint32_t str_len = 0; // Text: the declared length
    bool hex = false;     // Unsigned: shown as a bit pattern (BYTE, WORD, ...)
};

std::vector<uint8_t> LittleEndian(uint64_t value, uint32_t bytes);
uint64_t FromLittleEndian(const uint8_t *bytes, uint32_t count);
// Two's complement of a `bits`-wide value, widened to 64 bits.
uint64_t SignExtend(uint64_t v, uint32_t bits);
// The image of a REAL (4 bytes) or LREAL (8 bytes).
std::vector<uint8_t> RealBytes(double value, uint32_t bytes);

struct IntText {
    bool negative = false;
    bool hex = false;
    uint64_t magnitude = 0;
};

// Decimal with an optional '-', or 0x hex; none on anything else or overflow.
std::optional<IntText> ParseIntText(std::string_view s);

// Text -> the element's image: BOOL one byte 0 or 1, a text str_len + 1
// bytes zero-padded, every other kind `bytes` bytes. None with `why` set when
// the text is not a value of that kind. The syntax, by kind:
//  - Bool: true, false, TRUE, FALSE, True, False, 1, 0;
//  - Signed, Unsigned: decimal (range-checked), or 0x hex (the bit pattern);
//  - Real: C floating-point text;
//  - Text: verbatim, at most str_len characters;
//  - Duration: a number of milliseconds, or numbers with units d, h, m, s,
//    ms, us, ns, fractions allowed ("1.5", "2s", "1h30m", "1m1s1.002ms");
//  - Date: 2024-03-15; TimeOfDay: 13:45 or 13:45:30.25; DateAndTime:
//    2024-03-15-13:45:30 ('T' or '_' also separate date and time);
//    every time kind also takes the Duration syntax (time since its origin).
std::optional<std::vector<uint8_t>> ParseValue(const ValueType &type, std::string_view text,
                                               std::string *why);

// One element's image for people, in the syntax ParseValue takes back: hex
// for bit patterns, quotes and escapes around texts, dates and times as
// dates and times, durations with units.
std::string FormatValue(const ValueType &type, const uint8_t *bytes, size_t size);

// Shortest decimal text that reads back as the same REAL or LREAL.
std::string FormatReal(double v, bool single);
// A text up to its first NUL, quoted, with \" \\ and \xNN escapes.
std::string QuoteText(const uint8_t *bytes, size_t size);

} // namespace plc::sim
