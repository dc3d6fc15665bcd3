// Bytes of every message the engines send and the checks on every reply they
// take values from, plus where a run of elements lies in its variable: a wrong
// byte here is a request the controller refuses or, worse, one that reads or
// writes other memory.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "batch_tables.h"
#include "engine/element_rules.h"
#include "engine/read_codec.h"
#include "engine/resolve_codec.h"
#include "engine/write_codec.h"
#include "tags/cip_types.h"

namespace plc {
namespace {

using namespace plc::test;
using Bytes = std::vector<uint8_t>;

const RequestPrefix kPrefix{0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9};
const VarHandle kHandle{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19};

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
wire::Bytes view(const Bytes &b) { return {b.data(), b.size()}; }

Bytes resolve_request(std::vector<std::string_view> names) {
    Bytes out(8192, 0xCC);
    wire::Writer w(out.data(), out.size());
    out.resize(build_resolve_request(w, names.data(), names.size()) ? w.size() : 0);
    return out;
}

struct Written {
    Status status;
    Bytes request;
};
Written write(const TagEntry &e, uint32_t element, uint32_t count, const void *buffer) {
    PlcData data{count, const_cast<void *>(buffer)};
    WriteValue value;
    Written r{encode_write_value(e, element, data, value), {}};
    if (r.status == Status::Ok) {
        r.request.assign(400, 0xCC);
        wire::Writer w(r.request.data(), r.request.size());
        r.request.resize(build_write_request(w, kPrefix, kHandle, value) ? w.size() : 0);
    }
    return r;
}

TEST(ResolveCodec, PathItemsArePaddedToEvenAndTheirLengthsFitTheirFields) {
    // One name: the 16-bit item length P + 4, the symbol segment, the text length.
    EXPECT_EQ(resolve_request({"Counter"}), cat({{0x00, 0x00, 0xFF, 0x3F, 0, 0, 0, 0, 0x01, 0x00},
                                                 {0x12, 0x00, 0x92, 0x00, 0x0D, 0x00},
                                                 text("VAR://Counter"),
                                                 {0x00}}));
    EXPECT_EQ(resolve_request({"AB", "ABC"}), cat({{0x00, 0x00, 0xFF, 0x3F, 0, 0, 0, 0, 2, 0},
                                                   {0x0C, 0x00, 0x92, 0x00, 0x08, 0x00},
                                                   text("VAR://AB"),
                                                   {0x0E, 0x00, 0x92, 0x00, 0x09, 0x00},
                                                   text("VAR://ABC"),
                                                   {0x00}}));

    // The longest path, 255 characters: P + 4 = 260 takes both bytes.
    const std::string longest(249, 'n');
    const Bytes bytes = resolve_request({longest});
    ASSERT_EQ(bytes.size(), 16u + 256u);
    EXPECT_EQ(bytes[10], 0x04);
    EXPECT_EQ(bytes[11], 0x01);
    EXPECT_EQ(bytes[14], 0xFF);
    EXPECT_EQ(resolve_item_size(std::string(250, 'n')), 0u);
    EXPECT_TRUE(resolve_request({std::string(250, 'n')}).empty());

    // Twenty items of 212 bytes exceed the 4095-byte item area of one request;
    // nineteen fit, and twenty-one split as 20 + 1 do not.
    const std::string name(200, 'n');
    std::vector<std::string_view> names(21, name);
    EXPECT_TRUE(resolve_names_fit(names.data(), 19));
    EXPECT_FALSE(resolve_names_fit(names.data(), 20));
    EXPECT_FALSE(resolve_names_fit(names.data(), 21));
}

TEST(ResolveCodec, RepliesAreCheckedBeforeAnythingIsCopied) {
    Bytes reply = cat({{0xD6, 0, 0, 0, 0, 0}, Bytes(10, 0x55), Bytes(48, 0x77)});
    reply[14] = 2;
    reply[16] = 0x01;
    reply[40] = 0x02;
    RequestPrefix prefix{};
    VarHandle handles[2];
    uint8_t status = 0xFF;
    ASSERT_EQ(parse_resolve_reply(view(reply), 2, prefix, handles, &status), ReplyCheck::Ok);
    EXPECT_EQ(prefix[0], 0x55);
    EXPECT_EQ(prefix[8], 2);
    EXPECT_EQ(handles[0][0], 0x01);
    EXPECT_EQ(handles[1][0], 0x02);
    EXPECT_EQ(handles[1][9], 0x77);
    EXPECT_EQ(status, 0);

    const auto check = [&](const Bytes &r, size_t sent) {
        return parse_resolve_reply(view(r), sent, prefix, handles, &status);
    };
    EXPECT_EQ(check(reply, 1), ReplyCheck::Unexpected) << "answered count differs";
    EXPECT_EQ(check(Bytes(reply.begin(), reply.end() - 1), 2), ReplyCheck::Unexpected)
        << "last item cut short";
    Bytes other = reply;
    other[0] = 0xD5;
    EXPECT_EQ(check(other, 2), ReplyCheck::Unexpected);
    // Refused, with additional status words: the controller does not know a name.
    EXPECT_EQ(check({0xD6, 0, 0x05, 1, 0x34, 0x12}, 2), ReplyCheck::Refused);
    EXPECT_EQ(status, 0x05);
}

TEST(ReadCodec, RequestIsPrefixCountAndEighteenBytesPerItem) {
    ReadItem items[2];
    items[0].handle = kHandle;
    items[0].bit_offset = 0x01020304;
    items[0].bit_length = 0x050607;
    items[1].bit_length = 1;
    Bytes buffer(64);
    wire::Writer out(buffer.data(), buffer.size());
    ASSERT_TRUE(build_read_request(out, kPrefix, items, 2));
    buffer.resize(out.size());
    EXPECT_EQ(buffer, cat({Bytes(kPrefix.begin(), kPrefix.end()),
                           {2, 0},
                           Bytes(kHandle.begin(), kHandle.end()),
                           {0x04, 0x03, 0x02, 0x01, 0x07, 0x06, 0x05, 0x00},
                           Bytes(10, 0),
                           {0, 0, 0, 0, 1, 0, 0, 0}}));
    items[1].bit_length = 0x1000000;
    wire::Writer again(buffer.data(), 64);
    EXPECT_FALSE(build_read_request(again, kPrefix, items, 2)) << "a length beyond 24 bits";
}

TEST(ReadCodec, ExactlyTheValuesTheItemsNeedAreHandedOut) {
    const Bytes good = {0xD5, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
    wire::Bytes values;
    ASSERT_EQ(parse_read_reply(view(good), 2, 6, values), ReplyCheck::Ok);
    EXPECT_EQ(values.size, 6u) << "bytes beyond what the items need are never values";
    EXPECT_EQ(values.data[0], 1);
    EXPECT_EQ(parse_read_reply(view(good), 2, 10, values), ReplyCheck::Unexpected);
    EXPECT_EQ(parse_read_reply(view(good), 3, 2, values), ReplyCheck::Unexpected);
    Bytes wide_count = good;
    wide_count[5] = 1; // 0x102 items: shares the low byte only
    EXPECT_EQ(parse_read_reply(view(wide_count), 2, 2, values), ReplyCheck::Unexpected);
    // An error reply: its status words are never taken for values.
    EXPECT_EQ(parse_read_reply(view({0xD5, 0, 0x1E, 2, 1, 0, 0, 0, 0x11, 0x22}), 1, 2, values),
              ReplyCheck::Refused);
    EXPECT_EQ(values.size, 0u);
}

TEST(Geometry, ItemOffsetAndLengthFollowShapeAndType) {
    struct Case {
        TagEntry entry;
        uint32_t element, count, offset, length;
    };
    const Case cases[] = {
        {scalar("D", 0xC4, 32), 0, 1, 0, 32},
        {scalar("D", 0xC4, 32), 3, 1, 0, 32}, // a scalar has only itself
        {array1("D", 0xC4, 32, 10, 20), 10, 4, 0, 128},
        {array1("D", 0xC4, 32, 0, 20), 10, 4, 320, 128},
        {array1("I", 0xC3, 16, 0, 9), 3, 2, 48, 32},
        {array2("M", 0xC3, 16, 1, 2, 0, 4), 7, 1, 112, 16}, // from the first element
        {scalar("Uptime", kTypeTime, 64), 1, 3, 0, 64},     // one value whatever the count
        {array1("L", kTypeBool, 1, 0, 15), 5, 1, 0, 1},     // the handle names the element
        {string_var("S", 20), 4, 3, 32, 24},                // no fixed width: bytes
    };
    for (const Case &c : cases) {
        const ItemGeometry g = item_geometry(c.entry, c.element, c.count);
        EXPECT_EQ(g.bit_offset, c.offset) << c.entry.name << "[" << c.element << "]";
        EXPECT_EQ(g.bit_length, c.length) << c.entry.name << "[" << c.element << "]";
    }
}

TEST(Geometry, RunsMustLieInsideTheirVariable) {
    TagEntry cube = array3("C", 0xC4, 32, 0, 1, 0, 2, 0, 3); // 24 elements
    struct Case {
        TagEntry entry;
        uint32_t element, count;
        bool inside;
    };
    const Case cases[] = {
        {array1("I", 0xC3, 16, 1, 10), 1, 1, true},
        {array1("I", 0xC3, 16, 1, 10), 10, 1, true},
        {array1("I", 0xC3, 16, 1, 10), 11, 1, false},
        {array1("I", 0xC3, 16, 1, 10), 9, 2, true},
        {array1("I", 0xC3, 16, 1, 10), 10, 2, false}, // past the last element
        {array1("I", 0xC3, 16, 1, 10), 0, 1, false},  // below the lower bound
        {array1("I", 0xC3, 16, 1, 10), 1, 0, false},  // a count of 0
        {array1("I", 0xC3, 16, 1, 10), 1, 0xFFFFFFFFu, false},
        {array1("L", 0xC5, 32, 0, 8), 8, 2, true}, // LINT [0..4] declared [0..8]: ten words
        {array1("L", 0xC5, 32, 0, 8), 9, 1, true},
        {array1("L", 0xC5, 32, 0, 8), 10, 1, false},
        {array1("L", 0xC5, 32, 0, 1), 1, 2, false}, // a LINT scalar: two words
        {array2("M", 0xC3, 16, 1, 2, 0, 4), 9, 1, true},
        {array2("M", 0xC3, 16, 1, 2, 0, 4), 10, 1, false},
        {array2("M", 0xC3, 16, 1, 2, 0, 4), 9, 2, false},
        {array2("M", 0xC3, 16, 0, 2, 4, 3), 0, 1, false}, // an empty dimension
        {array2("M", 0xC3, 16, 3, 1, 0, 3), 0, 1, false}, // an inverted one
        {cube, 23, 1, true},
        {cube, 20, 5, false},
        {string_var("S", 20), 16, 4, true},
        {string_var("S", 20), 17, 4, false},
        {scalar("D", 0xC4, 32), 7, 1, true},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(run_inside_variable(c.entry, c.element, c.count), c.inside)
            << c.entry.name << " " << c.element << "+" << c.count;
    }
}

TEST(Geometry, BoolElementsAreNamedByTheirSubscripts) {
    NameText name{};
    ASSERT_TRUE(bool_element_name(array1("Flags", kTypeBool, 1, 0, 15), 4, name));
    EXPECT_STREQ(name.data(), "Flags[4]");
    const TagEntry grid = array2("NAME", kTypeBool, 1, 0, 2, 0, 3);
    ASSERT_TRUE(bool_element_name(grid, 7, name));
    EXPECT_STREQ(name.data(), "NAME[1,3]");
    EXPECT_FALSE(bool_element_name(grid, 12, name));
    ASSERT_TRUE(bool_element_name(array3("C", kTypeBool, 1, 1, 2, 0, 2, 5, 8), 13, name));
    EXPECT_STREQ(name.data(), "C[2,0,6]");
    EXPECT_FALSE(bool_element_name(array1("Flags", kTypeBool, 1, 0, 15), 16, name));
}

TEST(WriteCodec, ValuesFromHostRegisters) {
    const uint8_t dint[] = {0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ(write(scalar("D", 0xC4, 32), 0, 1, dint).request,
              cat({Bytes(kPrefix.begin(), kPrefix.end()),
                   {0x01, 0x00, 0x04, 0x00},
                   Bytes(kHandle.begin(), kHandle.end()),
                   le32(0),
                   le32(32),
                   {0x78, 0x56, 0x34, 0x12}}));
    struct Case {
        TagEntry entry;
        uint32_t element, count;
        Bytes from; // request byte 12 (the length byte) and bytes 24 on
    };
    const uint8_t host[] = {0x11, 0xAA, 0x22, 0xBB, 0x33, 0xCC, 'l', 0, 'o', 0};
    const Case cases[] = {
        {array1("I", 0xC3, 16, 0, 9), 3, 2,
         cat({{4}, le32(48), le32(32), {0x11, 0xAA, 0x22, 0xBB}})},
        {array1("R", 0xCA, 32, 1, 10), 1, 1,
         cat({{4}, le32(0), le32(32), {0x11, 0xAA, 0x22, 0xBB}})},
        {array1("B", 0xC2, 8, 0, 9), 0, 3, cat({{3}, le32(0), le32(24), {0x11, 0x22, 0x33, 0x00}})},
        {scalar("S", kTypeString, 0), 0, 5,
         cat({{5}, le32(0), le32(40), {0x11, 0x22, 0x33, 'l', 'o', 0}})},
    };
    for (const Case &c : cases) {
        const Written w = write(c.entry, c.element, c.count, host);
        ASSERT_EQ(w.status, Status::Ok) << c.entry.name;
        EXPECT_EQ(cat({{w.request[12]}, Bytes(w.request.begin() + 24, w.request.end())}), c.from)
            << c.entry.name;
    }
}

TEST(WriteCodec, BoolCarriesTheBitInItsWordPosition) {
    TagEntry flag = scalar("Flag", kTypeBool, 1);
    flag.bit_no = 10;
    const uint8_t one[] = {1, 0};
    EXPECT_EQ(write(flag, 0, 1, one).request, cat({Bytes(kPrefix.begin(), kPrefix.end()),
                                                   {0x01, 0x00, 0x02, 0x00},
                                                   {0x10, 0x11, 0x12, 0x13, 0x14},
                                                   {0, 0, 0, 0, 0},
                                                   {0x15, 0x16, 0x17, 0x18},
                                                   le32(1),
                                                   {0x00, 0x04}}));
    flag.bit_no = 3;
    const Bytes request = write(flag, 2, 1, one).request;
    EXPECT_EQ(Bytes(request.end() - 2, request.end()), (Bytes{0x20, 0x00}));
    // In an array the bit number counts from the lower bound, modulo 16.
    const TagEntry arr = array1("Flags", kTypeBool, 1, 2, 40);
    EXPECT_EQ(write_bit_position(arr, 0), 14);
    EXPECT_EQ(write_bit_position(arr, 20), 2);
}

TEST(WriteCodec, TimeTextBecomesNanosecondsAndBadValuesAreRefused) {
    const TagEntry t = scalar("T", kTypeTime, 64);
    const Written w = write(t, 0, 1, "1.5");
    ASSERT_EQ(w.request.size(), 40u);
    EXPECT_EQ(w.request[12], 8);
    EXPECT_EQ(Bytes(w.request.begin() + 24, w.request.end()),
              cat({le32(0), le32(64), {0x60, 0xE3, 0x16, 0, 0, 0, 0, 0}}));
    EXPECT_EQ(parse_time_text(" 2 ", 64), 2000000u);
    EXPECT_EQ(parse_time_text("0.0015", 64), 1000u) << "milliseconds are truncated";
    for (const char *bad : {"-1", "abc", "", "1.5x", "nan", "inf", "1e30", "0x10"}) {
        EXPECT_EQ(write(t, 0, 1, bad).status, Status::ConfigError) << bad;
    }
    const char unterminated[4] = {'1', '2', '3', '4'};
    EXPECT_FALSE(parse_time_text(unterminated, sizeof unterminated));

    // The length byte counts the value bytes: a run it cannot describe is refused.
    const Bytes buffer(1024, 0x42);
    EXPECT_EQ(write(array1("D", 0xC4, 32, 0, 999), 0, 63, buffer.data()).status, Status::Ok);
    EXPECT_EQ(write(array1("D", 0xC4, 32, 0, 999), 0, 64, buffer.data()).status,
              Status::ConfigError);
    const Written odd = write(array1("B", 0xC2, 8, 0, 999), 0, 255, buffer.data());
    EXPECT_EQ(odd.request.size(), 32u + 256u) << "255 elements and their pad byte";
    EXPECT_EQ(odd.request[12], 255);
    EXPECT_EQ(write(array1("B", 0xC2, 8, 0, 999), 0, 256, buffer.data()).status,
              Status::ConfigError);
    EXPECT_EQ(write(array1("D", 0xC4, 32, 0, 999), 0, 0x40000001u, buffer.data()).status,
              Status::ConfigError)
        << "a count whose byte size wraps 32 bits";
    EXPECT_EQ(write(scalar("X", 0xC5, 64), 0, 1, buffer.data()).status, Status::CommFailure);
}

TEST(WriteCodec, OnlyTheWriteServiceWithStatusZeroIsWritten) {
    EXPECT_EQ(parse_write_reply(view({0xD6, 0, 0, 0})), ReplyCheck::Ok);
    EXPECT_EQ(parse_write_reply(view({0xD6, 0, 0x05, 0})), ReplyCheck::Refused);
    EXPECT_EQ(parse_write_reply(view({0xD5, 0, 0, 0})), ReplyCheck::Unexpected);
    EXPECT_EQ(parse_write_reply(view({0xD6})), ReplyCheck::Unexpected);
}

} // namespace
} // namespace plc
