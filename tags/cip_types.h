// The CIP elementary data types: names, codes and element widths.
#pragma once

#include <cstdint>
#include <string_view>

namespace plc {

struct CipType {
    const char *name;
    uint16_t bits;
    uint16_t code;
};

constexpr uint16_t kTypeBool = 0xC1;
constexpr uint16_t kTypeTime = 0xD6;
constexpr uint16_t kTypeString = 0xD0;
constexpr uint16_t kTypeTerminator = 0xFFFF;

extern const CipType type_list[23];

// Name of the type with this code (in a shared buffer), or nullptr with a message.
const char *type2str(uint32_t code);
// Width in bits of the type with this code, or 0 with a message.
uint32_t type2bits(uint32_t code);
// Exact, case-sensitive name lookup; nullptr when the text names no type.
const CipType *find_type_by_name(const char *name);
const CipType *find_type_by_name(std::string_view name);
// LINT, ULINT, LREAL and LWORD: presented to the host as pairs of 32-bit words.
constexpr bool is_double_word_type(uint32_t code) {
    return (code & 0xFFFDu) == 0xC9u || code == 0xC5u || code == 0xD4u;
}

} // namespace plc
