// What every fuzz target of a network decoder shares: invariants that abort
// loudly, and the check that a view the decoder hands out lies inside the
// bytes it was given.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "util/wire.h"

namespace plc::fuzz {

inline void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

inline bool inside(wire::Bytes part, const uint8_t *data, size_t size) {
    if (part.size == 0) return true;
    return part.data >= data && part.size <= size && part.data <= data + (size - part.size);
}

} // namespace plc::fuzz
