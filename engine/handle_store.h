// Store of resolved variable handles. A handle belongs to one tag list, one
// tag id, and either the whole variable or the one element it was resolved
// for: two devices' lists never share a handle, and a handle resolved for a
// whole BOOL array never stands in for one of its elements.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace plc {

using VarHandle = std::array<uint8_t, 10>;

// Element of a key that stands for the whole variable; element indexes are
// 16-bit, so it names no element.
constexpr uint32_t kWholeVariable = 0xFFFFFFFFu;

struct HandleKey {
    uint32_t table = 0; // serial of the tag list's table
    uint32_t tag_id = 0;
    uint32_t element = 0; // the element resolved by itself, or kWholeVariable
    bool operator==(const HandleKey &o) const {
        return table == o.table && tag_id == o.tag_id && element == o.element;
    }
};

// The key of a variable's handle: one element of a BOOL array resolved by
// itself has a handle of its own, every other request shares the whole
// variable's.
inline HandleKey handle_key(uint32_t table, uint32_t tag_id, uint32_t element, bool by_element) {
    return HandleKey{table, tag_id, by_element ? element : kWholeVariable};
}

// A 32-bit mix of every field: the panel's size_t is 32 bits wide, and a key
// folded by truncation would put whole lists into one bucket.
struct HandleKeyHash {
    size_t operator()(const HandleKey &k) const;
};

// One stored handle.
struct DataNode {
    VarHandle handle{};
};

// Open addressing with linear probing over a power-of-two number of slots,
// at most half of them used: a lookup is a mask and a short walk, with no
// division (a library call on the panel's CPU) and no pointer chase, and
// the whole store is one allocation.
struct DataLink {
    struct Slot {
        HandleKey key;
        DataNode node;
        bool used = false;
    };
    uint32_t count = 0; // handles stored
    uint32_t mask = 0;  // slots - 1; no slots while nothing is stored
    std::unique_ptr<Slot[]> slots;
};

extern std::unique_ptr<DataLink> INIT_RET_DATA;

// 0, or -1 when no memory.
int create_data_link(std::unique_ptr<DataLink> &head);
// Sets label_reupdata to 1 (every variable is resolved again before its next
// use); -1 for no store, else empties it (the caller then drops its pointer).
int free_data_link(DataLink *head);
// Stores the handle under the key: 1 when a handle was replaced, 0 when added,
// -1 when memory ran out (the store is unchanged).
int queue_data_link(std::unique_ptr<DataLink> &head, const HandleKey &key, const VarHandle &handle);
// 1 when a handle is stored under the key, else 0.
int locate_link(const DataLink *head, const HandleKey &key);
// Copies the handle stored under the key: 0, or -1 when there is none (and
// "head null" is printed when there is no store at all).
int copy_from_link(const DataLink *head, const HandleKey &key, VarHandle &out);

} // namespace plc
