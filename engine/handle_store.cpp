// Store of resolved variable handles. A handle is kept per tag id, and per
// (tag id, element) for BOOL variables, whose elements the controller resolves
// one by one. New nodes go to the front, so the newest handle is found first.
#include "engine/handle_store.h"

#include <cstdio>
#include <new>

#include "driver/plc_state.h"

namespace plc {

std::unique_ptr<DataLink> INIT_RET_DATA;

namespace {

enum class Width { Bit, Other, Unknown };

// Element width of a tag as the store needs it: BOOL variables are keyed per
// element. An id whose entry cannot be found (indexed position outside its
// group, or a plain id the table does not hold) is Unknown, which every caller
// reports as -1.
Width width_of(const TagTable &table, uint32_t tag_id) {
    const TagEntry *entry = find_entry(table, tag_id);
    if (entry == nullptr) return Width::Unknown;
    return entry->bits == 1 ? Width::Bit : Width::Other;
}

bool node_matches(const DataNode &node, uint32_t element, Width width) {
    return width != Width::Bit || node.element == element;
}

// Walk shared by locate_link and copy_from_link: at most `count` nodes from
// the newest. Returns the matching node, or nullptr; *failed is set when a
// width lookup failed on the way.
const DataNode *find_node(const DataLink &head, uint32_t element, uint32_t tag_id,
                          const TagTable &table, bool *failed) {
    *failed = false;
    const DataNode *node = head.first.get();
    for (uint32_t visited = 0; node != nullptr && visited < head.count;
         ++visited, node = node->next.get()) {
        if (node->tag_id != tag_id) continue;
        const Width width = width_of(table, tag_id);
        if (width == Width::Unknown) {
            *failed = true;
            return nullptr;
        }
        if (node_matches(*node, element, width)) return node;
    }
    return nullptr;
}

} // namespace

int create_data_link(std::unique_ptr<DataLink> &head) {
    head.reset(new (std::nothrow) DataLink());
    return head ? 0 : -1;
}

int add_data_node(DataLink &head, uint32_t element, uint32_t tag_id, const VarHandle &handle) {
    std::unique_ptr<DataNode> node(new (std::nothrow) DataNode());
    if (!node) return -1;
    node->handle = handle;
    node->tag_id = tag_id;
    node->element = element;
    node->next = std::move(head.first);
    head.first = std::move(node);
    ++head.count;
    return 0;
}

int del_head_link(DataLink &head) {
    if (head.first) {
        // Detach the successor first so that freeing the node never recurses
        // down the rest of the list.
        std::unique_ptr<DataNode> old = std::move(head.first);
        head.first = std::move(old->next);
        if (head.count > 0) --head.count;
    }
    return 0;
}

int free_data_link(DataLink *head) {
    // Whatever the caller held, every variable must be resolved again before
    // its next use.
    label_reupdata = 1;
    if (head == nullptr) return -1;
    while (head->first) del_head_link(*head);
    head->count = 0;
    return 0;
}

int queue_data_link(std::unique_ptr<DataLink> &head, uint32_t element, uint32_t tag_id,
                    const VarHandle &handle, const TagTable &table) {
    if (!head && create_data_link(head) != 0) return -1;
    for (DataNode *node = head->first.get(); node != nullptr; node = node->next.get()) {
        if (node->tag_id != tag_id) continue;
        const Width width = width_of(table, tag_id);
        if (width == Width::Unknown) return -1;
        if (node_matches(*node, element, width)) {
            node->handle = handle;
            node->element = element;
            node->tag_id = tag_id;
            return 1;
        }
    }
    return add_data_node(*head, element, tag_id, handle);
}

int locate_link(const DataLink *head, uint32_t element, uint32_t tag_id, const TagTable &table) {
    if (head == nullptr) return 0;
    bool failed = false;
    const DataNode *node = find_node(*head, element, tag_id, table, &failed);
    if (failed) return -1;
    return node != nullptr ? 1 : 0;
}

int copy_from_link(const DataLink *head, uint32_t element, uint32_t tag_id, VarHandle &out,
                   const TagTable &table) {
    if (head == nullptr) {
        std::puts("head null\r");
        return -1;
    }
    bool failed = false;
    const DataNode *node = find_node(*head, element, tag_id, table, &failed);
    if (node == nullptr) return -1;
    out = node->handle;
    return 0;
}

} // namespace plc
