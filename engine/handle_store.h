// Store of resolved variable handles, keyed by tag id (and element index for
// BOOL variables), newest first.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "tags/tag_cache.h"

namespace plc {

using VarHandle = std::array<uint8_t, 10>;

struct DataNode {
    VarHandle handle{};
    uint32_t tag_id = 0;
    uint32_t element = 0;
    std::unique_ptr<DataNode> next;
};

struct DataLink {
    uint32_t count = 0;
    std::unique_ptr<DataNode> first;

    DataLink() = default;
    DataLink(const DataLink &) = delete;
    DataLink &operator=(const DataLink &) = delete;
    // One node at a time: a list with a node per BOOL element can be long
    // enough that releasing it recursively would exhaust the stack.
    ~DataLink() {
        while (first) first = std::move(first->next);
    }
};

extern std::unique_ptr<DataLink> INIT_RET_DATA;

int create_data_link(std::unique_ptr<DataLink> &head);
int add_data_node(DataLink &head, uint32_t element, uint32_t tag_id, const VarHandle &handle);
int del_head_link(DataLink &head);
// Sets label_reupdata to 1; -1 for no list, else frees every node (the caller
// then resets its pointer).
int free_data_link(DataLink *head);
int queue_data_link(std::unique_ptr<DataLink> &head, uint32_t element, uint32_t tag_id,
                    const VarHandle &handle, const TagTable &table);
int locate_link(const DataLink *head, uint32_t element, uint32_t tag_id, const TagTable &table);
int copy_from_link(const DataLink *head, uint32_t element, uint32_t tag_id, VarHandle &out,
                   const TagTable &table);

} // namespace plc
