// The kinds of request message that faults are chosen for and that the
// counters count, and how a received message is sorted into them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/encap.h"
#include "sim/stats.h"

namespace plc::sim {

enum class Kind : uint8_t {
    Register,     // RegisterSession
    ForwardOpen,  // Forward_Open or Large_Forward_Open
    ForwardClose, // Forward_Close
    Resolve,      // connected: resolve names into handles
    Read,         // connected: read by handle
    Write,        // connected: write by handle
    Connected,    // any connected request (SendUnitData)
    Any,          // every message
};
constexpr size_t kKindCount = size_t(Kind::Any) + 1;

// A set of kinds, one bit each; every message is at least Any.
class Kinds {
public:
    Kinds &Add(Kind k) {
        bits_ |= uint16_t(1u << unsigned(k));
        return *this;
    }
    bool Has(Kind k) const { return bits_ & (1u << unsigned(k)); }

private:
    uint16_t bits_ = 1u << unsigned(Kind::Any);
};

Kinds Classify(const Header &header, const std::vector<uint8_t> &body);

// The kind named "register", "forward-open", ... "any".
std::optional<Kind> ParseKind(std::string_view name);

// Adds one to the counter of every counted kind in `kinds`.
void CountKinds(Stats &stats, Kinds kinds);

} // namespace plc::sim
