#include "engine/request_set_cache.h"

#include <algorithm>
#include <new>

namespace plc {

std::unique_ptr<RegLink> node;

RegLink::~RegLink() {
    while (next) next = std::move(next->next);
}

std::unique_ptr<RegLink> create_link() {
    return std::unique_ptr<RegLink>(new (std::nothrow) RegLink());
}

int build_node(RegLink &head, const uint32_t *elements, const uint32_t *tag_ids, uint16_t pairs) {
    // A node holds at most one batch; a larger set is never remembered, so it
    // is prepared on every call instead of overrunning the node.
    if (pairs > kRequestSetCapacity) return -1;
    if (pairs > 0 && (elements == nullptr || tag_ids == nullptr)) return -1;
    std::unique_ptr<RegLink> set(new (std::nothrow) RegLink());
    if (!set) return -1;
    set->count = static_cast<uint8_t>(pairs);
    std::copy_n(elements, pairs, set->elements.begin());
    std::copy_n(tag_ids, pairs, set->tag_ids.begin());
    set->next = std::move(head.next);
    head.next = std::move(set);
    ++head.set_counter;
    return 0;
}

int Query_node(std::unique_ptr<RegLink> &head, const uint32_t *elements, const uint32_t *tag_ids,
               uint16_t pairs) {
    if (pairs > kRequestSetCapacity) return -1;
    if (pairs > 0 && (elements == nullptr || tag_ids == nullptr)) return -1;
    if (!head) {
        head = create_link();
        if (!head) return -1;
    }
    for (const RegLink *set = head->next.get(); set != nullptr; set = set->next.get()) {
        // The count is compared first: it rejects most sets without touching
        // their lists.
        if (set->count != pairs) continue;
        if (std::equal(elements, elements + pairs, set->elements.begin()) &&
            std::equal(tag_ids, tag_ids + pairs, set->tag_ids.begin())) {
            return 1;
        }
    }
    return build_node(*head, elements, tag_ids, pairs);
}

int del_reg_link(RegLink &head) {
    if (head.next) head.next = std::move(head.next->next);
    return 0;
}

int free_reg_link(std::unique_ptr<RegLink> &head) {
    if (!head) return -1;
    while (head->next) del_reg_link(*head);
    head.reset();
    return 0;
}

} // namespace plc
