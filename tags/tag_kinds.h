// What the numbers in a tag entry and a tag id stand for: the dimension kinds
// of TagEntry::dim_type and the id blocks through which indexed tags are found.
#pragma once

#include <cstddef>
#include <cstdint>

#include "plc_driver_records.h"
#include "plc_driver_tags.h"

namespace plc {

// TagEntry::dim_type. 2 was never given a meaning; the engines switch on the
// raw field, so the values are fixed.
enum class DimKind : uint32_t {
    Scalar = 0,
    OneDim = 1, // also every double-word scalar, stored as [0..1]
    String = 3, // a STRING with a declared length
    TwoDims = 4,
    ThreeDims = 5,
};

inline DimKind dim_kind(const TagEntry &entry) { return static_cast<DimKind>(entry.dim_type); }
inline void set_dim_kind(TagEntry &entry, DimKind kind) {
    entry.dim_type = static_cast<uint32_t>(kind);
}
constexpr bool is_dim_kind(uint32_t value) {
    return value <= static_cast<uint32_t>(DimKind::ThreeDims) && value != 2;
}

// Indexed tag ids are looked up through the slot of their 8192-id block; the
// slots cover the blocks 32 to 2079.
constexpr size_t kGroupSlots = 2048;
constexpr uint32_t kIdBlockShift = 13;
constexpr uint32_t kFirstIndexedBlock = PLC_INDEXED_TAG_BASE >> kIdBlockShift;
constexpr uint32_t kLastIndexedId = ((kFirstIndexedBlock + kGroupSlots) << kIdBlockShift) - 1;

constexpr uint32_t id_block(uint32_t tag_id) { return tag_id >> kIdBlockShift; }
// Slot of an indexed tag id; kGroupSlots or more when the id has none.
constexpr uint32_t group_slot(uint32_t tag_id) { return id_block(tag_id) - kFirstIndexedBlock; }

} // namespace plc
