#include "tags/cip_types.h"

#include <cstdio>
#include <cstring>

namespace plc {

// Lookups take the first match and stop at the terminator row (code 0xFFFF);
// its empty name never equals a type text, see find_type_by_name.
const CipType type_list[23] = {
    {"BOOL", 1, 0xC1},
    {"SINT", 8, 0xC2},
    {"INT", 16, 0xC3},
    {"DINT", 32, 0xC4},
    {"LINT", 64, 0xC5},
    {"USINT", 8, 0xC6},
    {"UINT", 16, 0xC7},
    {"UDINT", 32, 0xC8},
    {"ULINT", 64, 0xC9},
    {"REAL", 32, 0xCA},
    {"LREAL", 64, 0xCB},
    {"STIME", 0, 0xCC},
    {"DATE", 0, 0xCD},
    {"STRING", 0, 0xD0},
    {"BYTE", 8, 0xD1},
    {"WORD", 16, 0xD2},
    {"DWORD", 32, 0xD3},
    {"LWORD", 64, 0xD4},
    {"STRING2", 0, 0xD5},
    {"TIME_OF_DAY", 0, 0xCE},
    {"DATE_AND_TIME", 0, 0xCF},
    {"TIME", 64, 0xD6},
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

const CipType *find_type_by_name(const char *name) {
    return name == nullptr ? nullptr : find_type_by_name(std::string_view(name));
}

} // namespace plc
