// The request-set cache decides whether a batch's variables must be prepared:
// a false "seen" skips the preparation and the batch then reads with handles
// that do not exist, a false "new" costs a preparation on every poll.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/classify.h"
#include "engine/request_set_cache.h"

namespace plc {
namespace {

class RequestSetCache : public ::testing::Test {
protected:
    void SetUp() override { free_reg_link(node); }
    void TearDown() override { free_reg_link(node); }
};

TEST_F(RequestSetCache, FirstLookupAddsTheSetAndTheSecondFindsIt) {
    const uint32_t elements[3] = {0, 7, 3};
    const uint32_t tags[3] = {5, 5, 0x40002};
    ASSERT_EQ(node, nullptr);
    EXPECT_EQ(Query_node(node, elements, tags, 3), 0);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->set_counter, 1);
    EXPECT_EQ(Query_node(node, elements, tags, 3), 1);
    EXPECT_EQ(node->set_counter, 1) << "a set found must not be added again";

    // Newest first behind the head.
    const uint32_t other[1] = {9};
    EXPECT_EQ(Query_node(node, other, other, 1), 0);
    ASSERT_NE(node->next, nullptr);
    EXPECT_EQ(node->next->count, 1);
    EXPECT_EQ(node->next->elements[0], 9u);
    EXPECT_EQ(node->set_counter, 2);
}

TEST_F(RequestSetCache, OrderPrefixAndPairingMakeDifferentSets) {
    const uint32_t elements[3] = {1, 2, 3};
    const uint32_t tags[3] = {10, 11, 12};
    ASSERT_EQ(Query_node(node, elements, tags, 3), 0);

    const uint32_t swapped_elements[3] = {2, 1, 3};
    const uint32_t swapped_tags[3] = {11, 10, 12};
    EXPECT_EQ(Query_node(node, swapped_elements, swapped_tags, 3), 0) << "other order";
    EXPECT_EQ(Query_node(node, elements, tags, 2), 0) << "a prefix is another set";
    // Same elements and tag ids, but paired differently.
    const uint32_t other_tags[3] = {10, 12, 11};
    EXPECT_EQ(Query_node(node, elements, other_tags, 3), 0);
    // Element indexes and tag ids are not interchangeable.
    EXPECT_EQ(Query_node(node, tags, elements, 3), 0);

    EXPECT_EQ(Query_node(node, elements, tags, 3), 1);
    EXPECT_EQ(Query_node(node, swapped_elements, swapped_tags, 3), 1);
    EXPECT_EQ(node->set_counter, 5);
}

TEST_F(RequestSetCache, EmptySetsMatchEachOther) {
    EXPECT_EQ(Query_node(node, nullptr, nullptr, 0), 0);
    EXPECT_EQ(Query_node(node, nullptr, nullptr, 0), 1);
}

TEST_F(RequestSetCache, FreeEmptiesTheCacheAndEverySetIsNewAgain) {
    const uint32_t elements[2] = {4, 5};
    const uint32_t tags[2] = {1, 1};
    ASSERT_EQ(Query_node(node, elements, tags, 2), 0);
    ASSERT_EQ(Query_node(node, tags, elements, 2), 0);
    EXPECT_EQ(free_reg_link(node), 0);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(free_reg_link(node), -1);
    EXPECT_EQ(Query_node(node, elements, tags, 2), 0);
    EXPECT_EQ(node->set_counter, 1);

    // del_reg_link drops the newest set only.
    ASSERT_EQ(Query_node(node, tags, elements, 2), 0);
    EXPECT_EQ(del_reg_link(*node), 0);
    EXPECT_EQ(Query_node(node, elements, tags, 2), 1);
    EXPECT_EQ(del_reg_link(*node), 0);
    EXPECT_EQ(del_reg_link(*node), 0) << "nothing left behind the head";
    EXPECT_EQ(node->next, nullptr);
}

TEST_F(RequestSetCache, ASetLargerThanANodeIsNeverStored) {
    uint32_t values[kRequestSetCapacity + 1] = {};
    EXPECT_EQ(Query_node(node, values, values, kRequestSetCapacity + 1), -1);
    EXPECT_TRUE(node == nullptr || node->next == nullptr);
    EXPECT_EQ(Query_node(node, values, values, kRequestSetCapacity), 0);
    EXPECT_EQ(Query_node(node, values, values, kRequestSetCapacity), 1);
}

// What the batch entry uses as the key: count fields and device numbers of
// the records take no part, byte 3's dropped high part 1..3 neither.
TEST_F(RequestSetCache, RecordCountAndDeviceDoNotChangeTheKey) {
    PlcRequest first[2] = {};
    PlcRequest second[2] = {};
    for (int i = 0; i < 2; ++i) {
        first[i].address = (7u << 16) | uint32_t(i + 3);
        second[i] = first[i];
    }
    first[0].count = 1;
    first[1].count = 1;
    second[0].count = 2; // stands for both records
    second[1].count = 1;
    second[0].device = 4;
    second[1].device = 9;
    second[1].tag_high = 2;

    BatchSlot slots[2];
    RequestSetKey key_first;
    RequestSetKey key_second;
    unpack_batch_records(first, 2, slots, key_first);
    unpack_batch_records(second, 2, slots, key_second);
    EXPECT_EQ(second[1].tag_high, 0) << "a high part of 1..3 is written back as 0";
    EXPECT_EQ(slots[0].count, 2);
    EXPECT_EQ(key_second.tag_ids[1], 7u);
    EXPECT_EQ(key_second.elements[1], 4u);

    ASSERT_EQ(Query_node(node, key_first.elements.data(), key_first.tag_ids.data(),
                         key_first.pairs),
              0);
    EXPECT_EQ(Query_node(node, key_second.elements.data(), key_second.tag_ids.data(),
                         key_second.pairs),
              1);
}

} // namespace
} // namespace plc
