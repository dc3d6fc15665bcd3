#include "engine/element_rules.h"

#include <cstdio>
#include <cstring>

#include "tags/cip_types.h"
#include "tags/tag_kinds.h"

namespace plc {

namespace {

// Number of elements of the dimension lo..hi; 0 or less when the tag list gives
// an upper bound below the lower one.
int32_t dimension_width(uint16_t lo, uint16_t hi) { return int32_t(hi) - int32_t(lo) + 1; }

size_t name_length(const TagEntry &entry) { return strnlen(entry.name, sizeof entry.name); }

} // namespace

uint32_t element_width(const TagEntry &entry) {
    const uint32_t w = entry.bits & 0xFFu;
    return w == 0 ? 8 : w;
}

bool linear_index_fits(const TagEntry &entry, uint64_t index) {
    // Signed arithmetic: the bounds are unsigned 16-bit values, and an upper
    // bound below its lower one must not wrap into a huge dimension.
    const int64_t d2 = dimension_width(entry.lo2, entry.hi2);
    if (d2 <= 0 || dimension_width(entry.lo1, entry.hi1) <= 0) return false;
    const auto i = static_cast<int64_t>(index);
    if (dim_kind(entry) == DimKind::TwoDims) {
        return entry.lo2 + i % d2 <= entry.hi2 && entry.lo1 + i / d2 <= entry.hi1;
    }
    if (dim_kind(entry) == DimKind::ThreeDims) {
        const int64_t d3 = dimension_width(entry.lo3, entry.hi3);
        if (d3 <= 0) return false;
        const int64_t q = i / d3;
        return entry.lo3 + i % d3 <= entry.hi3 && entry.lo2 + q % d2 <= entry.hi2 &&
               entry.lo1 + q / d2 <= entry.hi1;
    }
    return true;
}

bool run_inside_variable(const TagEntry &entry, uint32_t element, uint32_t count) {
    if (count == 0) return false;
    const uint64_t last = uint64_t{element} + count - 1;
    switch (dim_kind(entry)) {
    case DimKind::OneDim: {
        // Below the lower bound the bit offset would wrap: such an index names
        // no element. A double-word array is declared with its bounds doubled,
        // so its last word, the high half of the last element, lies one past
        // the upper bound (a double-word scalar is [0..1] and ends on it).
        const uint64_t last_word =
            is_double_word_type(entry.type_code) ? (entry.hi1 | 1u) : entry.hi1;
        return element >= entry.lo1 && last <= last_word;
    }
    case DimKind::TwoDims:
    case DimKind::ThreeDims:
        return linear_index_fits(entry, element) && linear_index_fits(entry, last);
    case DimKind::String: return last < entry.str_len;
    default: return true;
    }
}

ItemGeometry item_geometry(const TagEntry &entry, uint32_t element, uint32_t count) {
    const bool time = entry.type_code == kTypeTime;
    const uint32_t w = time ? 64 : element_width(entry);
    ItemGeometry g;
    // Computed in 32-bit unsigned arithmetic as the controller reads the field.
    if (dim_kind(entry) == DimKind::Scalar || entry.bits == 1) {
        g.bit_offset = 0;
    } else if (dim_kind(entry) == DimKind::OneDim) {
        g.bit_offset = (element - uint32_t(entry.lo1)) * w;
    } else {
        g.bit_offset = element * w;
    }
    g.bit_length = time ? w : count * w;
    return g;
}

// The longest name with three subscripts of eleven characters each fits, so
// the bounds alone decide whether an element has a name.
static_assert(sizeof(TagEntry::name) + 3 * 11 + 4 < kInitNameSize);

bool bool_element_inside(const TagEntry &entry, uint32_t element) {
    switch (dim_kind(entry)) {
    case DimKind::OneDim:
        return dimension_width(entry.lo1, entry.hi1) > 0 &&
               static_cast<int32_t>(element & 0xFFFFu) <= entry.hi1;
    case DimKind::TwoDims:
    case DimKind::ThreeDims: return linear_index_fits(entry, element);
    default: return true;
    }
}

bool bool_element_name(const TagEntry &entry, uint32_t element, NameText &out) {
    if (!bool_element_inside(entry, element)) return false;
    const int len = static_cast<int>(name_length(entry));
    const int32_t e = static_cast<int32_t>(element & 0xFFFFu);
    int written = 0;
    switch (dim_kind(entry)) {
    case DimKind::OneDim:
        written = std::snprintf(out.data(), out.size(), "%.*s[%d]", len, entry.name, e);
        break;
    case DimKind::TwoDims: {
        const int32_t w2 = dimension_width(entry.lo2, entry.hi2);
        written = std::snprintf(out.data(), out.size(), "%.*s[%d,%d]", len, entry.name,
                                entry.lo1 + e / w2, entry.lo2 + e % w2);
        break;
    }
    case DimKind::ThreeDims: {
        const int32_t w3 = dimension_width(entry.lo3, entry.hi3);
        const int32_t w2 = dimension_width(entry.lo2, entry.hi2);
        const int32_t q = e / w3;
        written = std::snprintf(out.data(), out.size(), "%.*s[%d,%d,%d]", len, entry.name,
                                entry.lo1 + q / w2, entry.lo2 + q % w2, entry.lo3 + e % w3);
        break;
    }
    default: written = std::snprintf(out.data(), out.size(), "%.*s[%d]", len, entry.name, e); break;
    }
    return written > 0 && static_cast<size_t>(written) < out.size();
}

void variable_name(const TagEntry &entry, NameText &out) {
    const size_t len = name_length(entry);
    std::memcpy(out.data(), entry.name, len);
    out[len] = '\0';
}

} // namespace plc
