// Cache of the request sets whose variables are prepared on the current
// connection: a set found here goes straight to the batch exchange.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "engine/batch_plan.h"

namespace plc {

// A batch carries at most this many records, so a set holds at most this many pairs.
constexpr size_t kRequestSetCapacity = 100;

// The key of one batch call: its tag list, and its element indexes and tag
// ids in record order. Two lists that use the same ids for other variables
// have sets of their own. Nothing else of a record (its count field, its
// device number) takes part.
struct RequestSetKey {
    uint32_t table_serial = 0;
    std::array<uint32_t, kRequestSetCapacity> elements{};
    std::array<uint32_t, kRequestSetCapacity> tag_ids{};
    uint16_t pairs = 0;
    uint32_t hash = 0; // of the pairs, so that sets are told apart with one comparison
    // Not part of the key: the records' count fields, which a remembered
    // plan must match.
    std::array<uint16_t, kRequestSetCapacity> counts{};
};

// Adds one pair to the key and to its hash.
inline void add_pair(RequestSetKey &key, uint32_t tag_id, uint32_t element) {
    key.tag_ids[key.pairs] = tag_id;
    key.elements[key.pairs] = element;
    ++key.pairs;
    key.hash = (key.hash ^ tag_id) * 0x01000193u + element;
}

// One node of the list. The head has the same layout but holds no set: only its
// set counter is meaningful. Set nodes follow the head, newest first.
struct RegLink {
    uint8_t count = 0;        // pairs in this set
    uint16_t set_counter = 0; // head only: sets added since the head was made
    uint32_t hash = 0;
    std::array<uint32_t, kRequestSetCapacity> elements{};
    std::array<uint32_t, kRequestSetCapacity> tag_ids{};
    BatchPlan plan; // how the set was checked, folded and read when it was prepared
    std::unique_ptr<RegLink> next;

    RegLink() = default;
    RegLink(const RegLink &) = delete;
    RegLink &operator=(const RegLink &) = delete;
    // Unlinks the chain node by node, so that a long list cannot exhaust the
    // stack through nested destructor calls.
    ~RegLink();
};

// The prepared sets of the current connection; empty until the first batch.
extern std::unique_ptr<RegLink> node;

// A new head with its counter and link cleared, or nullptr when memory is short.
std::unique_ptr<RegLink> create_link();

// Remembers the set with its plan behind the head (made when missing): 0, or
// -1 when memory is short (the list is unchanged, and the set is simply
// prepared again).
int build_node(std::unique_ptr<RegLink> &head, const RequestSetKey &key, const BatchPlan &plan);

// The remembered set with these pairs, or nullptr. Sets are remembered only
// once their variables have been prepared, so a set whose preparation failed
// is prepared again by its next call.
RegLink *Query_node(const RegLink *head, const RequestSetKey &key);

// -1 for an empty pointer; otherwise frees every set node and the head, leaves
// the pointer empty and returns 0.
int free_reg_link(std::unique_ptr<RegLink> &head);

} // namespace plc
