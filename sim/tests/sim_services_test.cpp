// The simulator's variable services on their own: resolve, read and write
// request parsing, the reply layouts, and the refusals.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "sim/tests/sim_requests.h"
#include "sim/variable_services.h"

using namespace plc::sim;
using namespace simtest;

namespace {

constexpr uint32_t kToken = 0x12345678;
constexpr uint32_t kOtherToken = 0x1234ABCD; // same high half, other low half

class SimServices : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        VariableStore &s = shared_.store;
        ASSERT_TRUE(s.Declare("Counter", *FindType("DINT"), {}, 0, &error));
        ASSERT_TRUE(s.Declare("Flags", *FindType("BOOL"), {Dim{0, 15}}, 0, &error));
        ASSERT_TRUE(s.Declare("M", *FindType("INT"), {Dim{1, 2}, Dim{0, 3}}, 0, &error));
        ASSERT_TRUE(s.Declare("Bytes", *FindType("SINT"), {Dim{0, 2}}, 0, &error));
        ASSERT_TRUE(s.Declare("Big", *FindType("LINT"), {Dim{0, 1}}, 0, &error));
        ASSERT_TRUE(s.Assign("Counter", "0x11223344", &error));
        ASSERT_TRUE(s.Assign("Bytes[0]", "1", &error));
        ASSERT_TRUE(s.Assign("Bytes[1]", "-2", &error));
        ASSERT_TRUE(s.Assign("Bytes[2]", "3", &error));
    }

    CipReply Call(uint8_t service, uint8_t class_id, const Bytes &data, uint32_t token = kToken,
                  size_t max_reply = kMaxConnectedReply) {
        MrRequest request;
        request.service = service;
        request.path = {0x20, class_id, 0x24, 0x00};
        request.data = data;
        return services_.Execute(token, request, *ParseRequestPath(request.path), max_reply);
    }
    CipReply Resolve(const std::vector<std::string> &names, uint32_t token = kToken) {
        return Call(0x56, 0x6D, ResolveRequest(names), token);
    }
    // Handles of a successful resolve.
    std::vector<Handle> Handles(const std::vector<std::string> &names, uint32_t token = kToken) {
        const CipReply reply = Resolve(names, token);
        EXPECT_TRUE(reply.ok());
        std::vector<Handle> handles;
        for (size_t m = 0; m < names.size(); ++m) {
            Handle h{};
            std::copy_n(reply.data.begin() + 12 + 24 * m, 10, h.begin());
            handles.push_back(h);
        }
        return handles;
    }
    std::string Store() {
        std::lock_guard<std::mutex> lock(shared_.mutex);
        return shared_.store.Render();
    }

    SharedStore shared_;
    Stats stats_;
    VariableServices services_{shared_, stats_};
};

uint32_t U32(const Bytes &b, size_t at) { return *plc::wire::Reader(b).u32_at(at); }
uint16_t U16(const Bytes &b, size_t at) { return *plc::wire::Reader(b).u16_at(at); }

} // namespace

TEST_F(SimServices, ResolveAnswersHandlesInTheReplyLayout) {
    const CipReply reply = Resolve({"Counter", "Flags[3]", "M[2,1]", "Big"});
    ASSERT_TRUE(reply.ok());
    const Bytes mr = EncodeMrReply(0x56, reply);
    ASSERT_EQ(mr.size(), 16u + 4 * 24);
    EXPECT_EQ(mr[0], 0xD6);
    EXPECT_EQ(U32(mr, 6), kToken); // prefix: token, 0, N, 0
    EXPECT_EQ(U32(mr, 10), 0u);
    EXPECT_EQ(mr[14], 4);
    EXPECT_EQ(mr[15], 0);

    struct Expect {
        uint16_t index;
        uint8_t type;
        uint32_t bit_base;
        uint8_t flags;
        uint16_t size;
        uint32_t count;
    };
    const Expect expect[] = {
        {0, 0xC4, 0, 0, 4, 1},
        {1, 0xC1, 3, 1, 1, 1},
        {2, 0xC3, 5 * 16, 1, 2, 1}, // row 2 of 1..2, column 1: element 5
        {4, 0xC5, 0, 0, 8, 2},
    };
    for (size_t m = 0; m < 4; ++m) {
        const size_t at = 16 + 24 * m;
        SCOPED_TRACE(m);
        EXPECT_EQ(U16(mr, at), expect[m].index);
        EXPECT_EQ(U16(mr, at + 2), uint16_t(kToken));
        EXPECT_EQ(mr[at + 4], expect[m].type);
        EXPECT_EQ(U32(mr, at + 5), expect[m].bit_base);
        EXPECT_EQ(mr[at + 9], expect[m].flags);
        EXPECT_EQ(U16(mr, at + 10), expect[m].type);
        EXPECT_EQ(U16(mr, at + 12), expect[m].size);
        EXPECT_EQ(U32(mr, at + 14), expect[m].count);
        EXPECT_EQ(U32(mr, at + 18), 0u);
        EXPECT_EQ(U16(mr, at + 22), 0u);
    }
    EXPECT_EQ(stats_.resolve_names, 4u);
}

TEST_F(SimServices, ResolveRefusesMalformedRequestsAndUnknownNames) {
    const auto status = [&](const Bytes &data) { return Call(0x56, 0x6D, data).general; };
    Bytes r = ResolveRequest({"Counter"});
    r[8] = 0; // no names
    EXPECT_EQ(status(r), 0x20);
    std::vector<std::string> many(21, "Counter");
    EXPECT_EQ(status(ResolveRequest(many)), 0x20);
    many.resize(20);
    EXPECT_EQ(status(ResolveRequest(many)), 0x00);

    r = ResolveRequest({"Counter"}); // text of 13 bytes, one pad byte
    Bytes no_pad(r.begin(), r.end() - 1);
    EXPECT_EQ(status(no_pad), 0x13);
    Bytes extra = r;
    extra.push_back(0);
    EXPECT_EQ(status(extra), 0x15);
    Bytes bad_item = r;
    bad_item[10] = 0x10; // item length disagrees with the text length
    EXPECT_EQ(status(bad_item), 0x20);
    Bytes odd_pad = r;
    odd_pad.back() = 'x';
    EXPECT_EQ(status(odd_pad), 0x20);
    Bytes count_two = r; // announces two names, carries one
    count_two[8] = 2;
    EXPECT_EQ(status(count_two), 0x13);

    Bytes no_scheme = ResolveRequest({"Counter"});
    no_scheme[16] = 'W'; // "WAR://Counter"
    EXPECT_EQ(status(no_scheme), 0x05);
    const CipReply unknown = Resolve({"Counter", "Nope"});
    EXPECT_EQ(unknown.general, 0x05);
    EXPECT_EQ(EncodeMrReply(0x56, unknown).size(), 4u); // never data with a refusal
    EXPECT_EQ(Resolve({"Flags[16]"}).general, 0x05);
    EXPECT_EQ(Resolve({"M[1]"}).general, 0x05);

    EXPECT_EQ(Call(0x55, 0x6D, ResolveRequest({"Counter"})).general, 0x08);
    const RequestPath wrong_instance{0x6D, 1, std::nullopt};
    EXPECT_EQ(
        services_.Execute(kToken, {0x56, {}, ResolveRequest({"Counter"})}, wrong_instance).general,
        0x05);
}

TEST_F(SimServices, ReadReturnsBitsPaddedPerItem) {
    const auto h = Handles({"Counter", "Flags[3]", "Flags", "Bytes", "Big"});
    Handle patched = h[2]; // whole BOOL array, element chosen through the bit base
    patched[5] = 9;
    {
        std::lock_guard<std::mutex> lock(shared_.mutex);
        const uint8_t one = 1;
        shared_.store.WriteBits(1, 3, 1, &one);
        shared_.store.WriteBits(1, 9, 1, &one);
    }
    const CipReply reply = Call(0x55, 0xB8,
                                ReadRequest(kToken, {{h[0], 0, 32},
                                                     {h[1], 0, 1},
                                                     {patched, 0, 1},
                                                     {h[2], 8, 8},
                                                     {h[3], 8, 16},
                                                     {h[4], 96, 32}}));
    ASSERT_TRUE(reply.ok());
    const Bytes expected = {6,    0,    0,    0,                            // item count
                            0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, // a u16 each
                            0x44, 0x33, 0x22, 0x11,                         // Counter
                            0x01, 0x00,                                     // Flags[3]
                            0x01, 0x00,                                     // Flags bit 9
                            0x02, 0x00,                                     // Flags 8..15
                            0xFE, 0x03,                                     // Bytes[1..2]
                            0x00, 0x00, 0x00, 0x00};                        // Big[1] high half
    EXPECT_EQ(reply.data, expected);
    EXPECT_EQ(stats_.read_items, 6u);

    // The single read sends one item with a 32-bit length: the same bytes.
    Bytes single = ReadRequest(kToken, {{h[3], 0, 24}});
    ASSERT_EQ(single.size(), 30u);
    const CipReply one = Call(0x55, 0xB8, single);
    ASSERT_TRUE(one.ok());
    EXPECT_EQ(one.data, (Bytes{1, 0, 0, 0, 0, 0, 0x01, 0xFE, 0x03, 0x00}));
}

TEST_F(SimServices, ReadRefusesStaleHandlesAndRangesWithoutData) {
    const auto h = Handles({"Counter", "Bytes"});
    const auto foreign = Handles({"Counter"}, kOtherToken);
    const auto status = [&](const Bytes &data, size_t max_reply = kMaxConnectedReply) {
        const CipReply r = Call(0x55, 0xB8, data, kToken, max_reply);
        EXPECT_TRUE(r.data.empty());
        return r.general;
    };
    EXPECT_EQ(status(ReadRequest(kToken, {{foreign[0], 0, 32}})), 0x05);
    Handle unknown = h[0];
    unknown[0] = 0x40;
    EXPECT_EQ(status(ReadRequest(kToken, {{unknown, 0, 32}})), 0x05);
    Handle other_type = h[0];
    other_type[4] = 0xC3;
    EXPECT_EQ(status(ReadRequest(kToken, {{other_type, 0, 32}})), 0x05);
    EXPECT_EQ(status(ReadRequest(kOtherToken, {{h[0], 0, 32}})), 0x05); // prefix token
    // A stale item after a good one refuses the whole request.
    EXPECT_EQ(status(ReadRequest(kToken, {{h[0], 0, 32}, {foreign[0], 0, 32}})), 0x05);

    EXPECT_EQ(status(ReadRequest(kToken, {{h[0], 1, 32}})), 0x20); // one bit too far
    EXPECT_EQ(status(ReadRequest(kToken, {{h[1], 16, 16}})), 0x20);
    Handle moved = h[1];
    moved[5] = 24; // bit base at the end of the variable
    EXPECT_EQ(status(ReadRequest(kToken, {{moved, 0, 1}})), 0x20);
    EXPECT_EQ(status(ReadRequest(kToken, {{h[0], 0, 0}})), 0x20);
    Bytes long_length = ReadRequest(kToken, {{h[0], 0, 32}});
    long_length[29] = 1; // top byte of the length
    EXPECT_EQ(status(long_length), 0x20);

    std::vector<ReadItem> sixteen(16, ReadItem{h[0], 0, 32});
    EXPECT_EQ(status(ReadRequest(kToken, sixteen)), 0x20);
    sixteen.resize(15);
    EXPECT_EQ(Call(0x55, 0xB8, ReadRequest(kToken, sixteen)).general, 0x00);
    Bytes r = ReadRequest(kToken, {{h[0], 0, 32}});
    EXPECT_EQ(status(Bytes(r.begin(), r.end() - 1)), 0x13);
    r.push_back(0);
    EXPECT_EQ(status(r), 0x15);
    // 4 header + 4 count + 2 + 4 value bytes do not fit in 13.
    EXPECT_EQ(status(ReadRequest(kToken, {{h[0], 0, 32}}), 13), 0x11);
    EXPECT_EQ(Call(0x55, 0xB8, ReadRequest(kToken, {{h[0], 0, 32}}), kToken, 14).general, 0x00);
    EXPECT_EQ(Call(0x4C, 0xB8, r).general, 0x08);
}

TEST_F(SimServices, WriteSetsBitsAndWordsAndRefusalsChangeNothing) {
    const std::string path = ::testing::TempDir() + "sim_services_store.txt";
    std::remove(path.c_str());
    PublishedFile store_file(path);
    VariableServices services(shared_, stats_, &store_file);
    const auto write = [&](const Bytes &data) {
        MrRequest request{0x56, {0x20, 0xB8, 0x24, 0x00}, data};
        return services.Execute(kToken, request, *ParseRequestPath(request.path)).general;
    };
    const auto h = Handles({"Flags[10]", "Counter", "Big", "Bytes"});

    // BOOL form: handle bytes 0..4, five zeros, the bit in the offset field,
    // the value shifted to the bit's position within 16 bits.
    Handle bool_handle{};
    std::copy_n(h[0].begin(), 5, bool_handle.begin());
    ASSERT_EQ(write(WriteRequest(kToken, 2, bool_handle, 10, 1, {0x00, 0x04})), 0x00);
    EXPECT_EQ(shared_.store.at(1).data, (Bytes{0x00, 0x04}));
    ASSERT_EQ(write(WriteRequest(kToken, 2, bool_handle, 10, 1, {0x00, 0x00})), 0x00);
    EXPECT_EQ(shared_.store.at(1).data, (Bytes{0x00, 0x00}));
    // The element handle itself (bit base 10) with offset 0 reaches the same bit.
    ASSERT_EQ(write(WriteRequest(kToken, 2, h[0], 0, 1, {0x01, 0x00})), 0x00);
    EXPECT_EQ(shared_.store.at(1).data, (Bytes{0x00, 0x04}));

    ASSERT_EQ(write(WriteRequest(kToken, 4, h[1], 0, 32, {0x78, 0x56, 0x34, 0x12})), 0x00);
    ASSERT_EQ(write(WriteRequest(kToken, 4, h[2], 32, 32, {0xFF, 0xFF, 0xFF, 0xFF})), 0x00);
    ASSERT_EQ(write(WriteRequest(kToken, 3, h[3], 0, 24, {9, 8, 7, 0})), 0x00); // odd: padded
    std::ifstream in(path);
    std::stringstream published;
    published << in.rdbuf();
    EXPECT_EQ(published.str(), Store());
    EXPECT_NE(Store().find("Counter DINT 305419896\n"), std::string::npos);
    EXPECT_NE(Store().find("Big LINT -4294967296 0\n"), std::string::npos);
    EXPECT_NE(Store().find("Bytes SINT 9 8 7\n"), std::string::npos);

    const std::string before = Store();
    EXPECT_EQ(write(WriteRequest(kToken, 5, h[1], 0, 32, {1, 2, 3, 4})), 0x20); // L
    EXPECT_EQ(write(WriteRequest(kToken, 3, h[3], 0, 24, {1, 2, 3})), 0x13);    // no pad
    EXPECT_EQ(write(WriteRequest(kToken, 4, h[1], 0, 32, {1, 2, 3, 4, 5, 6})), 0x15);
    EXPECT_EQ(write(WriteRequest(kToken, 1, h[3], 3, 8, {1, 0})), 0x20);         // unaligned
    EXPECT_EQ(write(WriteRequest(kToken, 4, h[1], 8, 32, {1, 2, 3, 4})), 0x20);  // past end
    EXPECT_EQ(write(WriteRequest(kToken, 2, bool_handle, 16, 1, {1, 0})), 0x20); // past end
    EXPECT_EQ(write(WriteRequest(kToken, 0, h[1], 0, 0, {})), 0x20);             // empty
    EXPECT_EQ(write(WriteRequest(kOtherToken, 4, h[1], 0, 32, {1, 2, 3, 4})), 0x05);
    Handle foreign = h[1];
    foreign[2] ^= 1;
    EXPECT_EQ(write(WriteRequest(kToken, 4, foreign, 0, 32, {1, 2, 3, 4})), 0x05);
    Bytes two_items = WriteRequest(kToken, 4, h[1], 0, 32, {1, 2, 3, 4});
    two_items[10] = 2;
    EXPECT_EQ(write(two_items), 0x20);
    EXPECT_EQ(Store(), before);
    std::remove(path.c_str());
}
