#include "engine/handle_store.h"

#include <cstdio>
#include <new>

#include "engine/engine_state.h"

namespace plc {

std::unique_ptr<DataLink> INIT_RET_DATA;

namespace {

// The finaliser of a well-known 32-bit hash: every input bit reaches every
// output bit.
uint32_t mix32(uint32_t h) {
    h ^= h >> 16;
    h *= 0x85EBCA6Bu;
    h ^= h >> 13;
    h *= 0xC2B2AE35u;
    h ^= h >> 16;
    return h;
}

} // namespace

size_t HandleKeyHash::operator()(const HandleKey &k) const {
    // Each field spread by its own odd multiplier, then mixed once.
    return mix32(k.tag_id * 0x9E3779B1u ^ k.element * 0x85EBCA77u ^ k.table * 0xC2B2AE3Du);
}

namespace {

constexpr uint32_t kFirstSlots = 16;

// The slot holding the key, or the empty slot where it belongs.
DataLink::Slot &slot_of(const DataLink &link, const HandleKey &key) {
    uint32_t i = static_cast<uint32_t>(HandleKeyHash{}(key)) & link.mask;
    while (link.slots[i].used && !(link.slots[i].key == key)) i = (i + 1) & link.mask;
    return link.slots[i];
}

const DataNode *find_node(const DataLink *head, const HandleKey &key) {
    if (head == nullptr || !head->slots) return nullptr;
    const DataLink::Slot &slot = slot_of(*head, key);
    return slot.used ? &slot.node : nullptr;
}

// Twice the slots (16 at first), every handle moved over; false when no
// memory, with the store unchanged.
bool grow(DataLink &link) {
    const uint32_t size = link.slots ? (link.mask + 1) * 2 : kFirstSlots;
    DataLink bigger;
    bigger.slots.reset(new (std::nothrow) DataLink::Slot[size]);
    if (!bigger.slots) return false;
    bigger.mask = size - 1;
    for (uint32_t i = 0; link.slots && i <= link.mask; ++i) {
        if (link.slots[i].used) slot_of(bigger, link.slots[i].key) = link.slots[i];
    }
    link.slots = std::move(bigger.slots);
    link.mask = bigger.mask;
    return true;
}

} // namespace

int create_data_link(std::unique_ptr<DataLink> &head) {
    head.reset(new (std::nothrow) DataLink());
    return head ? 0 : -1;
}

int free_data_link(DataLink *head) {
    label_reupdata = 1;
    if (head == nullptr) return -1;
    head->slots.reset();
    head->mask = 0;
    head->count = 0;
    return 0;
}

int queue_data_link(std::unique_ptr<DataLink> &head, const HandleKey &key,
                    const VarHandle &handle) {
    if (!head && create_data_link(head) != 0) return -1;
    if (head->slots) {
        DataLink::Slot &slot = slot_of(*head, key);
        if (slot.used) {
            slot.node.handle = handle;
            return 1;
        }
    }
    // At most half the slots in use keeps every walk short and ending.
    if ((head->count + 1) * 2 > (head->slots ? head->mask + 1 : 0) && !grow(*head)) return -1;
    DataLink::Slot &slot = slot_of(*head, key);
    slot.key = key;
    slot.node.handle = handle;
    slot.used = true;
    ++head->count;
    return 0;
}

int locate_link(const DataLink *head, const HandleKey &key) {
    return find_node(head, key) != nullptr ? 1 : 0;
}

int copy_from_link(const DataLink *head, const HandleKey &key, VarHandle &out) {
    if (head == nullptr) {
        std::puts("head null\r");
        return -1;
    }
    const DataNode *node = find_node(head, key);
    if (node == nullptr) return -1;
    out = node->handle;
    return 0;
}

} // namespace plc
