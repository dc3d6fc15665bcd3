#include "engine/request_set_cache.h"

#include <algorithm>
#include <new>

namespace plc {

std::unique_ptr<RegLink> node;

namespace {

bool same_pairs(const RegLink &set, const RequestSetKey &key) {
    return set.hash == key.hash && set.count == key.pairs &&
           set.plan.table_serial == key.table_serial &&
           std::equal(key.elements.begin(), key.elements.begin() + key.pairs,
                      set.elements.begin()) &&
           std::equal(key.tag_ids.begin(), key.tag_ids.begin() + key.pairs, set.tag_ids.begin());
}

} // namespace

RegLink::~RegLink() {
    while (next) next = std::move(next->next);
}

std::unique_ptr<RegLink> create_link() {
    return std::unique_ptr<RegLink>(new (std::nothrow) RegLink());
}

int build_node(std::unique_ptr<RegLink> &head, const RequestSetKey &key, const BatchPlan &plan) {
    // A node holds at most one batch; a larger set is never remembered.
    if (key.pairs > kRequestSetCapacity) return -1;
    if (!head && !(head = create_link())) return -1;
    std::unique_ptr<RegLink> set(new (std::nothrow) RegLink());
    if (!set) return -1;
    set->count = static_cast<uint8_t>(key.pairs);
    set->hash = key.hash;
    std::copy_n(key.elements.begin(), key.pairs, set->elements.begin());
    std::copy_n(key.tag_ids.begin(), key.pairs, set->tag_ids.begin());
    set->plan = plan;
    set->next = std::move(head->next);
    head->next = std::move(set);
    ++head->set_counter;
    return 0;
}

RegLink *Query_node(const RegLink *head, const RequestSetKey &key) {
    if (head == nullptr) return nullptr;
    for (RegLink *set = head->next.get(); set != nullptr; set = set->next.get()) {
        if (same_pairs(*set, key)) return set;
    }
    return nullptr;
}

int free_reg_link(std::unique_ptr<RegLink> &head) {
    if (!head) return -1;
    head.reset();
    return 0;
}

} // namespace plc
