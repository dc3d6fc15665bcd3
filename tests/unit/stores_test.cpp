// The stores the engines keep between calls: resolved handles and prepared
// request sets. What they keep apart decides which variable a read reaches.
#include <gtest/gtest.h>

#include "engine/engine_state.h"
#include "engine/handle_store.h"
#include "engine/request_set_cache.h"

namespace plc {
namespace {

VarHandle handle_of(uint8_t b) {
    VarHandle h{};
    h.fill(b);
    return h;
}

TEST(HandleStore, KeysKeepListsTagsAndElementsApart) {
    std::unique_ptr<DataLink> store;
    VarHandle out{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(copy_from_link(store.get(), HandleKey{1, 4, kWholeVariable}, out), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "head null\r\n");
    EXPECT_EQ(locate_link(store.get(), HandleKey{1, 4, kWholeVariable}), 0);

    const HandleKey keys[] = {{1, 4, kWholeVariable},
                              {2, 4, kWholeVariable},
                              {1, 4, 5},
                              {1, 4, 6},
                              {1, 0x40004, kWholeVariable}};
    for (size_t i = 0; i < std::size(keys); ++i)
        EXPECT_EQ(queue_data_link(store, keys[i], handle_of(uint8_t(i + 1))), 0);
    EXPECT_EQ(queue_data_link(store, keys[2], handle_of(9)), 1) << "replaced, not added";
    EXPECT_EQ(store->count, std::size(keys));
    const uint8_t expected[] = {1, 2, 9, 4, 5};
    for (size_t i = 0; i < std::size(keys); ++i) {
        ASSERT_EQ(copy_from_link(store.get(), keys[i], out), 0);
        EXPECT_EQ(out, handle_of(expected[i])) << i;
    }
    EXPECT_EQ(copy_from_link(store.get(), HandleKey{1, 4, 7}, out), -1)
        << "the whole array's handle never stands in for an element";

    label_reupdata = 0;
    EXPECT_EQ(free_data_link(store.get()), 0);
    EXPECT_EQ(label_reupdata, 1u);
    EXPECT_EQ(locate_link(store.get(), keys[0]), 0);
    label_reupdata = 0;
    EXPECT_EQ(free_data_link(nullptr), -1);
    EXPECT_EQ(label_reupdata, 1u) << "every variable is resolved again all the same";
}

RequestSetKey key_of(std::initializer_list<std::pair<uint32_t, uint32_t>> pairs) {
    RequestSetKey key;
    for (const auto &[tag, element] : pairs) add_pair(key, tag, element);
    return key;
}

TEST(RequestSetCache, OnlyTheSamePairsInTheSameOrderAreTheSameSet) {
    std::unique_ptr<RegLink> head;
    const auto plan = std::make_unique<BatchPlan>();
    const RequestSetKey set = key_of({{1, 0}, {2, 5}});
    EXPECT_EQ(Query_node(head.get(), set), nullptr);
    ASSERT_EQ(build_node(head, set, *plan), 0);
    EXPECT_NE(Query_node(head.get(), set), nullptr);
    EXPECT_EQ(Query_node(head.get(), key_of({{2, 5}, {1, 0}})), nullptr) << "order counts";
    EXPECT_EQ(Query_node(head.get(), key_of({{1, 0}})), nullptr) << "a prefix is another set";
    EXPECT_EQ(Query_node(head.get(), key_of({{1, 5}, {2, 0}})), nullptr) << "pairing counts";
    ASSERT_EQ(build_node(head, key_of({}), *plan), 0);
    EXPECT_NE(Query_node(head.get(), key_of({})), nullptr);
    EXPECT_EQ(head->set_counter, 2);
    EXPECT_EQ(free_reg_link(head), 0);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(free_reg_link(head), -1);
}

} // namespace
} // namespace plc
