// Cache of the request sets seen on the current connection: a set found here
// has had its variables prepared already, so the batch read can skip straight
// to the exchange.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace plc {

// A batch carries at most this many records, so a set holds at most this many pairs.
constexpr size_t kRequestSetCapacity = 100;

// The key of one batch call: its element indexes and tag ids in record order.
// Nothing else of a record (its count field, its device number) takes part.
struct RequestSetKey {
    std::array<uint32_t, kRequestSetCapacity> elements{};
    std::array<uint32_t, kRequestSetCapacity> tag_ids{};
    uint16_t pairs = 0;
};

// One node of the list. The head has the same layout but holds no set: only its
// set counter is meaningful. Set nodes follow the head, newest first.
struct RegLink {
    uint8_t count = 0;        // pairs in this set
    uint16_t set_counter = 0; // head only: sets added since the head was made
    std::array<uint32_t, kRequestSetCapacity> elements{};
    std::array<uint32_t, kRequestSetCapacity> tag_ids{};
    std::unique_ptr<RegLink> next;

    RegLink() = default;
    RegLink(const RegLink &) = delete;
    RegLink &operator=(const RegLink &) = delete;
    // Unlinks the chain node by node, so that a long list cannot exhaust the
    // stack through nested destructor calls.
    ~RegLink();
};

// The remembered sets of the current connection; empty until the first batch.
extern std::unique_ptr<RegLink> node;

// A new head with its counter and link cleared, or nullptr when memory is short.
std::unique_ptr<RegLink> create_link();

// Adds the set behind the head: 0, or -1 when the node cannot be allocated (or
// the set is larger than a node holds); the list is unchanged on -1.
int build_node(RegLink &head, const uint32_t *elements, const uint32_t *tag_ids, uint16_t pairs);

// 1 when the ordered (element, tag id) pairs are already remembered; otherwise
// the result of adding them (0 added, -1 not added). Creates the head on first use.
int Query_node(std::unique_ptr<RegLink> &head, const uint32_t *elements, const uint32_t *tag_ids,
               uint16_t pairs);

// Unlinks and frees the newest set node (nothing when there is none); 0.
int del_reg_link(RegLink &head);

// -1 for an empty pointer; otherwise frees every set node and the head, leaves
// the pointer empty and returns 0.
int free_reg_link(std::unique_ptr<RegLink> &head);

} // namespace plc
