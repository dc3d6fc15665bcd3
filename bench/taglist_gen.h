// Writes synthetic tag lists of any size for benchmarks and load tests.
#pragma once

#include <cstddef>
#include <ostream>

namespace plc::bench {

struct TagListShape {
    size_t plain = 1000;     // plain lines, tag ids 0 .. plain-1
    size_t groups = 0;       // indexed groups, one per 8192-id block
    size_t group_size = 200; // entries per group (at most 255)
};

// Writes the list; the plain lines cycle through every data type, scalars and
// arrays of one to three dimensions, STRINGs with a length and BOOLs with bit
// numbers; every 50th plain line sits between the lines of a group.
// Returns false when the shape breaks the limits of a tag list.
bool write_tag_list(std::ostream &out, const TagListShape &shape);

} // namespace plc::bench
