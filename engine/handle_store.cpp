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
    uint32_t h = mix32(k.tag_id ^ 0x9E3779B9u);
    h = mix32(h ^ k.element);
    h = mix32(h ^ k.table);
    return h;
}

int create_data_link(std::unique_ptr<DataLink> &head) {
    head.reset(new (std::nothrow) DataLink());
    return head ? 0 : -1;
}

int free_data_link(DataLink *head) {
    label_reupdata = 1;
    if (head == nullptr) return -1;
    head->nodes.clear();
    head->count = 0;
    return 0;
}

int queue_data_link(std::unique_ptr<DataLink> &head, const HandleKey &key,
                    const VarHandle &handle) {
    if (!head && create_data_link(head) != 0) return -1;
    try {
        const auto [it, added] = head->nodes.try_emplace(key);
        it->second.handle = handle;
        if (!added) return 1;
        ++head->count;
        return 0;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

int locate_link(const DataLink *head, const HandleKey &key) {
    return head != nullptr && head->nodes.count(key) != 0 ? 1 : 0;
}

int copy_from_link(const DataLink *head, const HandleKey &key, VarHandle &out) {
    if (head == nullptr) {
        std::puts("head null\r");
        return -1;
    }
    const auto it = head->nodes.find(key);
    if (it == head->nodes.end()) return -1;
    out = it->second.handle;
    return 0;
}

} // namespace plc
