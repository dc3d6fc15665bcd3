#include "bench/taglist_gen.h"

#include <string>

namespace plc::bench {

namespace {

struct Kind {
    const char *type;
    const char *bounds;
    const char *str_len;
    const char *address;
    const char *type_class;
};

// Mixed the way a real project's list is: mostly scalars, some arrays.
constexpr Kind kKinds[] = {
    {"DINT", "", "", "", "BASIC"},
    {"REAL", "", "", "", "BASIC"},
    {"BOOL", "", "", "W10.05", "BASIC"},
    {"INT", "[0..9]", "", "", "ARRAY"},
    {"UINT", "", "", "", "BASIC"},
    {"STRING", "", "32", "", "STRING"},
    {"LREAL", "", "", "", "BASIC"},
    {"WORD", "", "", "", "BASIC"},
    {"DINT", "[0..1_0..4]", "", "", "ARRAY"},
    {"BOOL", "[0..15]", "", "W20.0A", "ARRAY"},
    {"LINT", "[0..4]", "", "", "ARRAY"},
    {"UDINT", "", "", "", "BASIC"},
    {"SINT", "", "", "", "BASIC"},
    {"INT", "[0..1_0..2_0..3]", "", "", "ARRAY"},
    {"TIME", "", "", "", "BASIC"},
    {"DWORD", "", "", "", "BASIC"},
};

constexpr unsigned long kIndexedBase = 0x40000;
constexpr unsigned long kBlockIds = 8192;

void write_line(std::ostream &out, const std::string &name, const Kind &kind, unsigned long id) {
    out << name << ',' << kind.type << ',' << kind.bounds << ',' << kind.str_len << ",Generated "
        << kind.type << " tag," << kind.address << ',' << kind.type_class << ',' << id << '\n';
}

} // namespace

bool write_tag_list(std::ostream &out, const TagListShape &shape) {
    if (shape.plain > kIndexedBase || shape.groups > 512 || shape.group_size == 0 ||
        shape.group_size > 255) {
        return false;
    }
    constexpr size_t kind_count = sizeof kKinds / sizeof kKinds[0];
    size_t next_plain = 0;
    auto plain_line = [&] {
        const Kind &kind = kKinds[next_plain % kind_count];
        write_line(out, "Var" + std::to_string(next_plain), kind, next_plain);
        ++next_plain;
    };
    // Plain lines first, interleaved with the groups so that both kinds mix.
    const size_t plain_before = shape.groups == 0 ? shape.plain : shape.plain / 2;
    while (next_plain < plain_before) plain_line();
    for (size_t g = 0; g < shape.groups; ++g) {
        const unsigned long first = kIndexedBase + g * kBlockIds;
        const Kind &kind = kKinds[g % kind_count];
        for (size_t i = 0; i < shape.group_size; ++i) {
            write_line(out, "Grp" + std::to_string(g) + "_Item" + std::to_string(i), kind,
                       first + i);
            if (i % 50 == 25 && next_plain < shape.plain) plain_line();
        }
    }
    while (next_plain < shape.plain) plain_line();
    return static_cast<bool>(out);
}

} // namespace plc::bench
