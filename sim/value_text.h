// Values as text (the --set option and the published store file) and the
// little-endian element images they stand for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/variable_store.h"

namespace plc::sim {

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

// Value text -> the bytes of one element of `var` (BOOL: one byte 0 or 1);
// none with `error` set when the text is not a value of its type.
std::optional<std::vector<uint8_t>> EncodeElement(const Variable &var, std::string_view text,
                                                  std::string *error);

// One element as the store file shows it.
std::string FormatElement(const Variable &var, uint64_t element);

} // namespace plc::sim
