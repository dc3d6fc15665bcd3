// The handle store decides which handle a read or write carries: a wrong
// match sends a request for another variable, or another BOOL element.
#include <gtest/gtest.h>

#include <cstring>

#include "driver/plc_state.h"
#include "engine/handle_store.h"
#include "tags/tag_cache.h"
#include "tags/tag_list.h"

namespace {

using plc::VarHandle;

constexpr uint32_t kIntTag = 5;
constexpr uint32_t kBoolTag = 9;
constexpr uint32_t kGroupFirst = 0x40000;

VarHandle H(uint8_t fill) {
    VarHandle h;
    h.fill(fill);
    return h;
}

TagEntry Entry(const char *name, uint32_t bits, uint32_t tag_id) {
    TagEntry e{};
    std::strncpy(e.name, name, sizeof e.name - 1);
    e.bits = bits;
    e.tag_id = tag_id;
    return e;
}

// Ten plain tags (5 an INT, 9 a BOOL array) and one indexed group of two
// INT entries at 0x40000.
plc::TagTable MakeTable() {
    plc::TagTable t;
    t.name = "PLC7F000001_1.csv";
    for (uint32_t id = 0; id < 10; ++id) t.tag_str.push_back(Entry("X", 16, id));
    t.tag_str[kBoolTag].bits = 1;
    t.tag_str[kBoolTag].dim_type = 1;
    t.tag_str[kBoolTag].hi1 = 15;
    plc::IndexedGroup g;
    g.count = 2;
    g.tags = {Entry("G0", 16, kGroupFirst), Entry("G1", 16, kGroupFirst + 1)};
    t.indexedtag_table.push_back(g);
    t.tag_num = 10;
    t.max_index_id = kGroupFirst + 5;
    plc::groupID_table[0] = 0;
    return t;
}

class HandleStore : public ::testing::Test {
protected:
    void TearDown() override {
        plc::free_data_link(store.get());
        store.reset();
    }
    plc::TagTable table = MakeTable();
    std::unique_ptr<plc::DataLink> store;
};

TEST_F(HandleStore, MissingListIsReportedAndFreeingItStillForcesResolution) {
    VarHandle out = H(0xEE);
    EXPECT_EQ(plc::locate_link(nullptr, 0, kIntTag, table), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(plc::copy_from_link(nullptr, 0, kIntTag, out, table), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "head null\r\n");
    EXPECT_EQ(out, H(0xEE));

    plc::label_reupdata = 0;
    EXPECT_EQ(plc::free_data_link(nullptr), -1);
    EXPECT_EQ(plc::label_reupdata, 1u);
}

TEST_F(HandleStore, NonBoolVariableKeepsOneNodeUpdatedToTheLatestElement) {
    EXPECT_EQ(plc::queue_data_link(store, 0, kIntTag, H(0xA1), table), 0);
    EXPECT_EQ(plc::queue_data_link(store, 7, kIntTag, H(0xB2), table), 1);
    ASSERT_TRUE(store);
    EXPECT_EQ(store->count, 1u);
    EXPECT_EQ(store->first->element, 7u);

    // Any element of the variable finds the same, newest handle.
    for (uint32_t element : {0u, 3u, 7u}) {
        VarHandle out{};
        EXPECT_EQ(plc::copy_from_link(store.get(), element, kIntTag, out, table), 0);
        EXPECT_EQ(out, H(0xB2));
        EXPECT_EQ(plc::locate_link(store.get(), element, kIntTag, table), 1);
    }
    EXPECT_EQ(plc::locate_link(store.get(), 0, kIntTag + 1, table), 0);
}

TEST_F(HandleStore, BoolVariableKeepsOneNodePerElement) {
    EXPECT_EQ(plc::queue_data_link(store, 0, kBoolTag, H(0x10), table), 0);
    EXPECT_EQ(plc::queue_data_link(store, 1, kBoolTag, H(0x11), table), 0);
    EXPECT_EQ(plc::queue_data_link(store, 0, kIntTag, H(0x50), table), 0);
    ASSERT_EQ(store->count, 3u);
    EXPECT_EQ(store->first->next->element, 1u) << "newest BOOL node first";

    VarHandle out{};
    EXPECT_EQ(plc::copy_from_link(store.get(), 0, kBoolTag, out, table), 0);
    EXPECT_EQ(out, H(0x10));
    EXPECT_EQ(plc::copy_from_link(store.get(), 1, kBoolTag, out, table), 0);
    EXPECT_EQ(out, H(0x11));
    EXPECT_EQ(plc::copy_from_link(store.get(), 2, kBoolTag, out, table), -1);
    EXPECT_EQ(plc::locate_link(store.get(), 2, kBoolTag, table), 0);

    // The same element again replaces its handle without a new node.
    EXPECT_EQ(plc::queue_data_link(store, 1, kBoolTag, H(0x12), table), 1);
    EXPECT_EQ(store->count, 3u);
    EXPECT_EQ(plc::copy_from_link(store.get(), 1, kBoolTag, out, table), 0);
    EXPECT_EQ(out, H(0x12));
    EXPECT_EQ(plc::copy_from_link(store.get(), 0, kBoolTag, out, table), 0);
    EXPECT_EQ(out, H(0x10));
}

TEST_F(HandleStore, IndexedIdOutsideItsGroupIsAnErrorOnceItIsStored) {
    const uint32_t inside = kGroupFirst + 1;
    const uint32_t outside = kGroupFirst + 2;
    EXPECT_EQ(plc::queue_data_link(store, 0, inside, H(0x61), table), 0);
    EXPECT_EQ(plc::locate_link(store.get(), 4, inside, table), 1);

    // A node for an id outside its group can only be matched by a width
    // lookup, which fails: every later use of that id reports -1.
    EXPECT_EQ(plc::queue_data_link(store, 0, outside, H(0x62), table), 0);
    VarHandle out{};
    EXPECT_EQ(plc::locate_link(store.get(), 0, outside, table), -1);
    EXPECT_EQ(plc::copy_from_link(store.get(), 0, outside, out, table), -1);
    EXPECT_EQ(plc::queue_data_link(store, 0, outside, H(0x63), table), -1);
    EXPECT_EQ(plc::copy_from_link(store.get(), 0, inside, out, table), 0);
    EXPECT_EQ(out, H(0x61));
}

TEST_F(HandleStore, FreeingEmptiesTheListAndForcesResolution) {
    for (uint32_t e = 0; e < 16; ++e) plc::queue_data_link(store, e, kBoolTag, H(uint8_t(e)), table);
    ASSERT_EQ(store->count, 16u);
    plc::label_reupdata = 0;
    EXPECT_EQ(plc::free_data_link(store.get()), 0);
    EXPECT_EQ(plc::label_reupdata, 1u);
    EXPECT_EQ(store->first, nullptr);
    EXPECT_EQ(store->count, 0u);
    EXPECT_EQ(plc::locate_link(store.get(), 3, kBoolTag, table), 0);
}

} // namespace
