// The shapes a tag list line can give a variable (TagEntry::dim_type).
#pragma once

#include <cstdint>

namespace plc {

enum DimKind : uint32_t {
    kDimScalar = 0,
    kDimOne = 1,    // one dimension; also every double-word scalar, as [0..1]
    kDimString = 3, // a STRING with a declared length, addressed by character
    kDimTwo = 4,
    kDimThree = 5,
};

} // namespace plc
