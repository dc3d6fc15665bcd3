#include "tags/cip_types.h"

#include <cstdio>
#include <cstring>

namespace plc {

// Lookups take the first match and stop at the terminator row (code 0xFFFF);
// its empty name never equals a type text, see find_type_by_name.
const CipType type_list[23] = {
    {"BOOL", 1, kTypeBool},
    {"SINT", 8, kTypeSint},
    {"INT", 16, kTypeInt},
    {"DINT", 32, kTypeDint},
    {"LINT", 64, kTypeLint},
    {"USINT", 8, kTypeUsint},
    {"UINT", 16, kTypeUint},
    {"UDINT", 32, kTypeUdint},
    {"ULINT", 64, kTypeUlint},
    {"REAL", 32, kTypeReal},
    {"LREAL", 64, kTypeLreal},
    {"STIME", 0, kTypeStime},
    {"DATE", 0, kTypeDate},
    {"STRING", 0, kTypeString},
    {"BYTE", 8, kTypeByte},
    {"WORD", 16, kTypeWord},
    {"DWORD", 32, kTypeDword},
    {"LWORD", 64, kTypeLword},
    {"STRING2", 0, kTypeString2},
    {"TIME_OF_DAY", 0, kTypeTimeOfDay},
    {"DATE_AND_TIME", 0, kTypeDateAndTime},
    {"TIME", 64, kTypeTime},
    {"", 0, kTypeTerminator},
};

namespace {

// Result buffer of type2str; both code lookups clear it on entry.
char type_str[50];

const CipType *find_type_by_code(uint32_t code) {
    std::memset(type_str, 0, sizeof type_str);
    for (const CipType &row : type_list) {
        if (row.code == kTypeTerminator) {
            break;
        }
        if (row.code == code) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

const char *type2str(uint32_t code) {
    const CipType *row = find_type_by_code(code);
    if (row == nullptr) {
        std::printf("[PLC] don't find this type id at line %d\r\n", 75);
        return nullptr;
    }
    // The buffer was cleared, so copying at most size - 1 characters keeps the terminator.
    std::strncpy(type_str, row->name, sizeof type_str - 1);
    return type_str;
}

uint32_t type2bits(uint32_t code) {
    const CipType *row = find_type_by_code(code);
    if (row == nullptr) {
        std::printf("[PLC] don't find this type id at line %d\r\n", 87);
        return 0;
    }
    return row->bits;
}

const CipType *find_type_by_name(std::string_view name) {
    // The empty text would only match the terminator row, which is not a type.
    if (name.empty()) {
        return nullptr;
    }
    for (const CipType &row : type_list) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace plc
