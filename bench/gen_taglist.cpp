// gen-taglist OUTPUT PLAIN [GROUPS [GROUP_SIZE]]
// Writes a synthetic tag list with PLAIN plain lines and GROUPS indexed groups
// of GROUP_SIZE entries (default 200) for benchmarks and load tests.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/taglist_gen.h"

namespace {

bool parse_count(const char *text, size_t &value) {
    char *end = nullptr;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0') return false;
    value = static_cast<size_t>(v);
    return true;
}

} // namespace

int main(int argc, char **argv) {
    plc::bench::TagListShape shape;
    if (argc < 3 || argc > 5 || !parse_count(argv[2], shape.plain) ||
        (argc > 3 && !parse_count(argv[3], shape.groups)) ||
        (argc > 4 && !parse_count(argv[4], shape.group_size))) {
        std::fprintf(stderr, "usage: %s OUTPUT PLAIN [GROUPS [GROUP_SIZE]]\n", argv[0]);
        return 2;
    }
    std::ofstream out(argv[1], std::ios::binary | std::ios::trunc);
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    if (!plc::bench::write_tag_list(out, shape)) {
        std::fprintf(stderr,
                     "PLAIN must be at most 262144, GROUPS at most 512, GROUP_SIZE 1 to 255\n");
        return 2;
    }
    out.close();
    return out ? 0 : 1;
}
