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

// CIP data type codes, one per row of type_list. They are not in table order:
// TIME_OF_DAY and DATE_AND_TIME come after STRING2 in the table.
constexpr uint16_t kTypeBool = 0xC1;
constexpr uint16_t kTypeSint = 0xC2;
constexpr uint16_t kTypeInt = 0xC3;
constexpr uint16_t kTypeDint = 0xC4;
constexpr uint16_t kTypeLint = 0xC5;
constexpr uint16_t kTypeUsint = 0xC6;
constexpr uint16_t kTypeUint = 0xC7;
constexpr uint16_t kTypeUdint = 0xC8;
constexpr uint16_t kTypeUlint = 0xC9;
constexpr uint16_t kTypeReal = 0xCA;
constexpr uint16_t kTypeLreal = 0xCB;
constexpr uint16_t kTypeStime = 0xCC;
constexpr uint16_t kTypeDate = 0xCD;
constexpr uint16_t kTypeTimeOfDay = 0xCE;
constexpr uint16_t kTypeDateAndTime = 0xCF;
constexpr uint16_t kTypeString = 0xD0;
constexpr uint16_t kTypeByte = 0xD1;
constexpr uint16_t kTypeWord = 0xD2;
constexpr uint16_t kTypeDword = 0xD3;
constexpr uint16_t kTypeLword = 0xD4;
constexpr uint16_t kTypeString2 = 0xD5;
constexpr uint16_t kTypeTime = 0xD6;
// Code of the row that ends the table; no type has it.
constexpr uint16_t kTypeTerminator = 0xFFFF;

extern const CipType type_list[23];

// Name of the type with this code (in a shared buffer), or nullptr with a message.
const char *type2str(uint32_t code);
// Width in bits of the type with this code, or 0 with a message.
uint32_t type2bits(uint32_t code);
// Exact, case-sensitive name lookup; nullptr when the text names no type.
const CipType *find_type_by_name(std::string_view name);
// LINT, ULINT, LREAL and LWORD: presented to the host as pairs of 32-bit words.
// TIME is as wide but is read and written whole.
constexpr bool is_double_word_type(uint32_t code) {
    return code == kTypeLint || code == kTypeUlint || code == kTypeLreal || code == kTypeLword;
}

} // namespace plc
