// How a run of elements lies inside its variable: the element width, the
// checks that refuse a run before any traffic, the bit offset and length of
// the item that reads or writes it, and the name of one element.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "plc_driver_tags.h"

namespace plc {

// Width of one element in bits for offsets, sizes and the host layout: the
// low byte of `bits`, 8 for the types of no fixed width (STRING and friends).
uint32_t element_width(const TagEntry &entry);

// For two and three dimensions: whether a linear index from 0 (last dimension
// fastest) lies inside the declared bounds. A dimension with no elements, or
// with its upper bound below its lower one, admits nothing.
bool linear_index_fits(const TagEntry &entry, uint64_t index);

// Whether `count` elements from `element` lie inside the variable: the index
// of a one-dimensional array between its bounds (a double-word array's last
// word one past its doubled upper bound), linear indexes of two and three
// dimensions inside every bound, a STRING's characters inside its declared
// length. A count of 0 names nothing and is refused. Scalars admit any index.
bool run_inside_variable(const TagEntry &entry, uint32_t element, uint32_t count);

// The bit offset and bit length of the item that covers `count` elements from
// `element`: offset 0 for a scalar and for a BOOL (whose handle names the
// element or carries it), counted from the lower bound in one dimension and
// from 0 in the others; a TIME is one 64-bit value whatever the count.
struct ItemGeometry {
    uint32_t bit_offset = 0;
    uint32_t bit_length = 0;
};
ItemGeometry item_geometry(const TagEntry &entry, uint32_t element, uint32_t count);

// Bytes an item's values occupy in a reply: its bit length rounded up to
// whole bytes, then to an even number of bytes.
inline size_t item_value_bytes(uint32_t bit_length) {
    const size_t bytes = (size_t(bit_length) + 7) / 8;
    return bytes + (bytes & 1u);
}

// Longest variable name with subscripts that a request can name.
constexpr size_t kInitNameSize = 512;
using NameText = std::array<char, kInitNameSize>;

// The name of one element of a BOOL array, with one subscript per dimension
// ("Flags[4]", "Grid[1,3]", "Cube[0,2,1]"): false when the element lies
// outside the array or a dimension holds nothing.
bool bool_element_name(const TagEntry &entry, uint32_t element, NameText &out);
// Whether bool_element_name gives that element a name, without writing it:
// the batch checks every BOOL element of every poll.
bool bool_element_inside(const TagEntry &entry, uint32_t element);
// The variable's own name into `out`.
void variable_name(const TagEntry &entry, NameText &out);

} // namespace plc
