// Bytes of the single-request engine's messages, the element checks made
// before any traffic, and the host buffer layouts of a read.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine/single_codec.h"
#include "tags/cip_types.h"

namespace {

using Bytes = std::vector<uint8_t>;

TagEntry Var(const char *name, uint16_t type_code, uint32_t bits, uint32_t dim_type = 0) {
    TagEntry e{};
    std::strncpy(e.name, name, sizeof e.name - 1);
    e.type_code = type_code;
    e.bits = bits;
    e.dim_type = dim_type;
    return e;
}

TagEntry Array1(const char *name, uint16_t type_code, uint32_t bits, uint16_t lo, uint16_t hi) {
    TagEntry e = Var(name, type_code, bits, 1);
    e.lo1 = lo;
    e.hi1 = hi;
    return e;
}

TagEntry Array2(uint16_t lo1, uint16_t hi1, uint16_t lo2, uint16_t hi2) {
    TagEntry e = Var("M", 0xC3, 16, 4);
    e.lo1 = lo1;
    e.hi1 = hi1;
    e.lo2 = lo2;
    e.hi2 = hi2;
    return e;
}

const plc::RequestPrefix kPrefix{0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9};
const plc::VarHandle kHandle{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19};

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes Of(const plc::RequestPrefix &a) { return Bytes(a.begin(), a.end()); }
Bytes Le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

Bytes Resolve(const std::string &path) {
    Bytes out(400, 0xCC);
    const size_t n = plc::build_resolve_request(path, out.data(), out.size());
    out.resize(n);
    return out;
}

Bytes ReadRequest(const TagEntry &e, uint32_t element, uint32_t count) {
    Bytes out(64, 0xCC);
    const plc::ReadItem item = plc::make_read_item(e, element, count, kHandle);
    plc::wire::Writer w(out.data(), out.size());
    out.resize(plc::build_read_request(w, kPrefix, &item, 1) ? w.size() : 0);
    return out;
}

struct Encoded {
    uint32_t status;
    plc::WriteValue value;
    Bytes request;
};
Encoded Write(const TagEntry &e, uint32_t element, uint32_t count, const void *buffer) {
    PlcData data{count, const_cast<void *>(buffer)};
    Encoded r{};
    r.status = plc::encode_write_value(e, element, data, r.value);
    if (r.status == 0) {
        r.request.assign(400, 0xCC);
        r.request.resize(plc::build_write_request(kPrefix, kHandle, r.value, r.request.data(),
                                                  r.request.size()));
    }
    return r;
}

// ---------------------------------------------------------------- resolve

TEST(Resolve, WholeVariablePathIsPaddedToEven) {
    const TagEntry counter = Var("Counter", 0xC3, 16);
    const auto path = plc::resolve_path(counter, 3, 1);
    ASSERT_TRUE(path);
    EXPECT_EQ(*path, "VAR://Counter");
    const Bytes expected = Concat({{0x00, 0x00, 0xFF, 0x3F, 0, 0, 0, 0, 0x01, 0x00},
                                   {0x12, 0x00, 0x92, 0x00, 0x0D, 0x00},
                                   Bytes(path->begin(), path->end()),
                                   {0x00}});
    EXPECT_EQ(Resolve(*path), expected);
    EXPECT_EQ(expected.size(), 30u);
}

TEST(Resolve, OneBoolElementIsResolvedByItself) {
    const TagEntry flags = Array1("Flags", plc::kTypeBool, 1, 0, 15);
    const auto element = plc::resolve_path(flags, 4, 1);
    ASSERT_TRUE(element);
    EXPECT_EQ(*element, "VAR://Flags[4]");
    const Bytes bytes = Resolve(*element);
    ASSERT_EQ(bytes.size(), 30u);
    EXPECT_EQ(Bytes(bytes.begin() + 10, bytes.begin() + 16),
              (Bytes{0x12, 0x00, 0x92, 0x00, 0x0E, 0x00}));
    EXPECT_EQ(bytes.back(), ']') << "an even path gets no pad byte";

    EXPECT_EQ(plc::resolve_path(flags, 4, 2), "VAR://Flags");
    // A BOOL scalar and a non-BOOL array element resolve the whole variable.
    EXPECT_EQ(plc::resolve_path(Var("Run", plc::kTypeBool, 1), 0, 1), "VAR://Run");
    EXPECT_EQ(plc::resolve_path(Array1("Arr", 0xC4, 32, 0, 9), 4, 1), "VAR://Arr");
}

TEST(Resolve, PathBeyondTheLengthByteIsRefused) {
    TagEntry e = Var("", 0xC4, 32);
    std::memset(e.name, 'n', 249);
    const auto longest = plc::resolve_path(e, 0, 1);
    ASSERT_TRUE(longest);
    ASSERT_EQ(longest->size(), 255u);
    const Bytes bytes = Resolve(*longest);
    ASSERT_EQ(bytes.size(), 16u + 256u);
    EXPECT_EQ(bytes[14], 0xFF);
    EXPECT_EQ(bytes[10], 0x04) << "P + 4 = 260 in 16 bits";
    EXPECT_EQ(bytes[11], 0x01);

    e.name[249] = 'n';
    EXPECT_FALSE(plc::resolve_path(e, 0, 1));
    EXPECT_EQ(plc::build_resolve_request(std::string(256, 'x'), nullptr, 0), 0u);
}

TEST(Resolve, ReplyMustBeTheResolveServiceAndReachTheHandle) {
    Bytes reply(26);
    reply[0] = 0xD6;
    for (size_t i = 6; i < 26; ++i) reply[i] = uint8_t(i);
    const auto parsed = plc::parse_resolve_reply(reply.data(), reply.size());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->prefix[0], 6);
    EXPECT_EQ(parsed->prefix[9], 15);
    EXPECT_EQ(parsed->handle[0], 16);
    EXPECT_EQ(parsed->handle[9], 25);

    // The reported length decides, not what the buffer holds behind it.
    EXPECT_FALSE(plc::parse_resolve_reply(reply.data(), 25));
    EXPECT_FALSE(plc::parse_resolve_reply(reply.data(), 0));
    reply[0] = 0xD5;
    EXPECT_FALSE(plc::parse_resolve_reply(reply.data(), reply.size()));
}

// ---------------------------------------------------------------- read

TEST(ReadRequest, ItemOffsetsAndLengthsByShape) {
    // DINT scalar: the whole request.
    EXPECT_EQ(ReadRequest(Var("D", 0xC4, 32), 0, 1),
              Concat({Of(kPrefix), {0x01, 0x00}, Of(kHandle), Le32(0), Le32(32)}));

    const TagEntry int0 = Array1("I", 0xC3, 16, 0, 9);
    Bytes r = ReadRequest(int0, 3, 2);
    ASSERT_EQ(r.size(), 30u);
    EXPECT_EQ(Bytes(r.begin() + 22, r.end()), Concat({Le32(48), Le32(32)}));

    const TagEntry int1 = Array1("I", 0xC3, 16, 1, 10);
    r = ReadRequest(int1, 1, 1);
    EXPECT_EQ(Bytes(r.begin() + 22, r.begin() + 26), Le32(0));

    TagEntry text = Var("S", plc::kTypeString, 0, 3);
    text.str_len = 20;
    r = ReadRequest(text, 2, 4);
    EXPECT_EQ(Bytes(r.begin() + 22, r.end()), Concat({Le32(16), Le32(32)}));

    r = ReadRequest(Array2(1, 2, 0, 4), 7, 1);
    EXPECT_EQ(Bytes(r.begin() + 22, r.end()), Concat({Le32(112), Le32(16)}));
}

TEST(ReadRequest, BoolRunCarriesTheElementInTheHandle) {
    const TagEntry flags = Array1("Flags", plc::kTypeBool, 1, 0, 300);
    const plc::ReadItem one = plc::make_read_item(flags, 5, 1, kHandle);
    EXPECT_EQ(one.handle, kHandle);
    EXPECT_EQ(one.bit_offset, 0u);
    EXPECT_EQ(one.bit_length, 1u);

    const plc::ReadItem run = plc::make_read_item(flags, 0x123, 8, kHandle);
    plc::VarHandle expected = kHandle;
    expected[5] = 0x23;
    EXPECT_EQ(run.handle, expected);
    EXPECT_EQ(run.bit_offset, 0u);
    EXPECT_EQ(run.bit_length, 8u);
}

TEST(ReadRange, RunMustLieInsideTheDeclaration) {
    const TagEntry int1 = Array1("I", 0xC3, 16, 1, 10);
    EXPECT_EQ(plc::check_read_range(int1, 1, 1), 0);
    EXPECT_EQ(plc::check_read_range(int1, 10, 1), 0);
    EXPECT_EQ(plc::check_read_range(int1, 11, 1), 3);
    EXPECT_EQ(plc::check_read_range(int1, 9, 2), 0);
    EXPECT_EQ(plc::check_read_range(int1, 10, 2), 3) << "run past the last element";
    EXPECT_EQ(plc::check_read_range(int1, 0, 1), 3) << "below the lower bound";
    EXPECT_EQ(plc::check_read_range(int1, 1, 0xFFFFFFFFu), 3) << "no wrap of the run end";

    // LINT [0..4] is declared [0..8]: ten words, the last one a run's end only.
    const TagEntry lint = Array1("L", 0xC5, 32, 0, 8);
    EXPECT_EQ(plc::check_read_range(lint, 8, 2), 0);
    EXPECT_EQ(plc::check_read_range(lint, 0, 10), 0);
    EXPECT_EQ(plc::check_read_range(lint, 8, 3), 3);
    EXPECT_EQ(plc::check_read_range(lint, 9, 1), 3);
    const TagEntry lint_scalar = Array1("L", 0xC5, 32, 0, 1);
    EXPECT_EQ(plc::check_read_range(lint_scalar, 0, 2), 0);
    EXPECT_EQ(plc::check_read_range(lint_scalar, 1, 2), 3);

    const TagEntry m = Array2(1, 2, 0, 4); // 10 elements, linear 0..9
    EXPECT_EQ(plc::check_read_range(m, 7, 1), 0);
    EXPECT_EQ(plc::check_read_range(m, 9, 1), 0);
    EXPECT_EQ(plc::check_read_range(m, 10, 1), 3);
    EXPECT_EQ(plc::check_read_range(m, 8, 2), 0);
    EXPECT_EQ(plc::check_read_range(m, 9, 2), 3);

    // Empty or inverted dimensions admit nothing.
    EXPECT_EQ(plc::check_read_range(Array2(0, 2, 4, 3), 0, 1), 3);
    EXPECT_EQ(plc::check_read_range(Array2(0, 2, 5, 3), 0, 1), 3);
    EXPECT_EQ(plc::check_read_range(Array2(3, 1, 0, 3), 0, 1), 3);

    TagEntry cube = Var("C", 0xC4, 32, 5); // [0..1, 0..2, 0..3]: 24 elements
    cube.hi1 = 1;
    cube.hi2 = 2;
    cube.hi3 = 3;
    EXPECT_EQ(plc::check_read_range(cube, 23, 1), 0);
    EXPECT_EQ(plc::check_read_range(cube, 24, 1), 3);
    EXPECT_EQ(plc::check_read_range(cube, 20, 5), 3);
    cube.lo3 = 4;
    EXPECT_EQ(plc::check_read_range(cube, 0, 1), 3);

    TagEntry text = Var("S", plc::kTypeString, 0, 3);
    text.str_len = 20;
    EXPECT_EQ(plc::check_read_range(text, 16, 4), 0);
    EXPECT_EQ(plc::check_read_range(text, 17, 4), 3);
}

TEST(ReadRange, RunMustFitTheValueArea) {
    const TagEntry d = Array1("D", 0xC4, 32, 0, 9999);
    EXPECT_EQ(plc::check_read_range(d, 0, 1024), 0);
    EXPECT_EQ(plc::check_read_range(d, 0, 1025), 3);
    const TagEntry s = Array1("B", 0xC2, 8, 0, 9999);
    EXPECT_EQ(plc::check_read_range(s, 0, 4096), 0);
    EXPECT_EQ(plc::check_read_range(s, 0, 4097), 3);
    // Scalars get no element check, but still the byte limit.
    EXPECT_EQ(plc::check_read_range(Var("T", plc::kTypeString, 0), 0, 4097), 3);
}

Bytes ReadReply(const Bytes &values, uint32_t items = 1) {
    Bytes r = Concat({{0xD5, 0x00, 0x00, 0x00}, Le32(items)});
    for (uint32_t i = 0; i < 2 * items; ++i) r.push_back(0xEE);
    r.insert(r.end(), values.begin(), values.end());
    return r;
}

TEST(ReadReply, ServiceAndItemCountMustMatchWithinTheReportedLength) {
    const Bytes good = ReadReply({1, 2, 3, 4});
    auto v = plc::parse_read_reply(good.data(), good.size());
    ASSERT_TRUE(v);
    EXPECT_EQ(Bytes(v->bytes, v->bytes + v->size), (Bytes{1, 2, 3, 4}));

    Bytes bad = good;
    bad[0] = 0xD6;
    EXPECT_FALSE(plc::parse_read_reply(bad.data(), bad.size()));
    bad = good;
    bad[4] = 2;
    EXPECT_FALSE(plc::parse_read_reply(bad.data(), bad.size()));
    // The item count lies beyond a 4-byte reply, whatever the buffer holds.
    EXPECT_FALSE(plc::parse_read_reply(good.data(), 4));
    EXPECT_FALSE(plc::parse_read_reply(good.data(), 7));

    // No value bytes at all is a reply, but one that fills nothing.
    v = plc::parse_read_reply(good.data(), 10);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->size, 0u);

    const Bytes full = ReadReply(Bytes(4096, 0x5A));
    v = plc::parse_read_reply(full.data(), full.size());
    ASSERT_TRUE(v);
    EXPECT_EQ(v->size, 4096u);
    const Bytes over = ReadReply(Bytes(4097, 0x5A));
    EXPECT_FALSE(plc::parse_read_reply(over.data(), over.size()));
}

// Stores `values` for `count` elements into a buffer of canaries.
struct Stored {
    int32_t status;
    Bytes host;
};
Stored Store(const TagEntry &e, uint32_t count, const Bytes &values) {
    Stored s{0, Bytes(32, 0xCC)};
    s.status = plc::store_read_values(e, count, values.data(), values.size(), s.host.data());
    return s;
}
Bytes Canaries(Bytes head) {
    head.resize(32, 0xCC);
    return head;
}

TEST(ReadValues, HostLayoutByWidth) {
    EXPECT_EQ(Store(Var("D", 0xC4, 32), 1, {0x78, 0x56, 0x34, 0x12}).host,
              Canaries({0x78, 0x56, 0x34, 0x12}));
    EXPECT_EQ(Store(Array1("I", 0xC3, 16, 0, 9), 2, {1, 2, 3, 4, 5, 6}).host,
              Canaries({1, 2, 3, 4}));
    EXPECT_EQ(Store(Array1("B", 0xC2, 8, 0, 9), 3, {0xA1, 0xA2, 0xA3, 0xA4}).host,
              Canaries({0xA1, 0, 0xA2, 0, 0xA3, 0}));
    TagEntry text = Var("S", plc::kTypeString, 0, 3);
    text.str_len = 20;
    EXPECT_EQ(Store(text, 4, {'a', 'b', 'c', 'd'}).host, Canaries({'a', 0, 'b', 0, 'c', 0, 'd', 0}));
    EXPECT_EQ(Store(Array1("F", plc::kTypeBool, 1, 0, 15), 1, {0x01, 0xFF}).host,
              Canaries({0x01}));
    EXPECT_EQ(Store(Array1("F", plc::kTypeBool, 1, 0, 15), 9, {0x81, 0x01}).host,
              Canaries({0x81}));
}

TEST(ReadValues, UnpresentableOrShortRepliesLeaveTheHostBufferAlone) {
    const Stored time = Store(Var("T", plc::kTypeTime, 64), 1, Bytes(8, 0x11));
    EXPECT_EQ(time.status, 2);
    EXPECT_EQ(time.host, Canaries({}));

    const Stored short_dint = Store(Array1("D", 0xC4, 32, 0, 9), 2, {1, 2, 3, 4, 5, 6, 7});
    EXPECT_EQ(short_dint.status, 2);
    EXPECT_EQ(short_dint.host, Canaries({}));

    const Stored no_bool = Store(Var("F", plc::kTypeBool, 1), 1, {});
    EXPECT_EQ(no_bool.status, 2);
    EXPECT_EQ(no_bool.host, Canaries({}));
}

// ---------------------------------------------------------------- write

TEST(WriteEncoding, NumbersAndTextFromHostRegisters) {
    const uint8_t dint[] = {0x78, 0x56, 0x34, 0x12};
    Encoded w = Write(Var("D", 0xC4, 32), 0, 1, dint);
    ASSERT_EQ(w.status, 0u);
    EXPECT_EQ(w.request, Concat({Of(kPrefix), {0x01, 0x00, 0x04, 0x00}, Of(kHandle), Le32(0),
                                 Le32(32), {0x78, 0x56, 0x34, 0x12}}));

    const uint8_t ints[] = {1, 2, 3, 4, 5, 6};
    w = Write(Array1("I", 0xC3, 16, 0, 9), 3, 2, ints);
    ASSERT_EQ(w.status, 0u);
    ASSERT_EQ(w.request.size(), 36u);
    EXPECT_EQ(w.request[12], 4);
    EXPECT_EQ(Bytes(w.request.begin() + 24, w.request.end()),
              Concat({Le32(48), Le32(32), {1, 2, 3, 4}}));

    const uint8_t real[] = {0, 0, 0x80, 0x3F};
    w = Write(Array1("R", 0xCA, 32, 1, 10), 1, 1, real);
    EXPECT_EQ(Bytes(w.request.begin() + 24, w.request.begin() + 28), Le32(0));

    const uint8_t sint[] = {0x11, 0xAA, 0x22, 0xBB, 0x33, 0xCC};
    w = Write(Array1("B", 0xC2, 8, 0, 9), 0, 3, sint);
    ASSERT_EQ(w.request.size(), 36u);
    EXPECT_EQ(w.request[12], 3);
    EXPECT_EQ(Bytes(w.request.begin() + 28, w.request.end()),
              Concat({Le32(24), {0x11, 0x22, 0x33, 0x00}}));

    const uint8_t text[] = {'h', 0, 'e', 0, 'l', 0, 'l', 0, 'o', 0};
    w = Write(Var("S", plc::kTypeString, 0), 0, 5, text);
    ASSERT_EQ(w.request.size(), 38u);
    EXPECT_EQ(w.request[12], 5);
    EXPECT_EQ(Bytes(w.request.begin() + 28, w.request.end()),
              Concat({Le32(40), {'h', 'e', 'l', 'l', 'o', 0}}));

    // A count of 0 sends the header alone.
    w = Write(Array1("D", 0xC4, 32, 0, 9), 0, 0, dint);
    EXPECT_EQ(w.request.size(), 32u);
}

TEST(WriteEncoding, BoolCarriesTheBitInItsWordPosition) {
    TagEntry flag = Var("Flag", plc::kTypeBool, 1);
    flag.bit_no = 10;
    const uint8_t one[] = {1, 0};
    EXPECT_EQ(plc::write_bit_position(flag, 0), 10);
    Encoded w = Write(flag, 0, 1, one);
    ASSERT_EQ(w.status, 0u);
    EXPECT_EQ(w.request, Concat({Of(kPrefix),
                                 {0x01, 0x00, 0x02, 0x00},
                                 {0x10, 0x11, 0x12, 0x13, 0x14},
                                 {0, 0, 0, 0, 0},
                                 {0x15, 0x16, 0x17, 0x18},
                                 Le32(1),
                                 {0x00, 0x04}}));

    flag.bit_no = 3;
    w = Write(flag, 2, 1, one);
    EXPECT_EQ(Bytes(w.request.end() - 2, w.request.end()), (Bytes{0x20, 0x00}));

    // In an array the bit number counts from the lower bound, modulo 16.
    TagEntry arr = Array1("Flags", plc::kTypeBool, 1, 2, 40);
    arr.bit_no = 0;
    EXPECT_EQ(plc::write_bit_position(arr, 0), 14);
    EXPECT_EQ(plc::write_bit_position(arr, 20), 2);
}

TEST(WriteEncoding, TimeTextBecomesNanoseconds) {
    const TagEntry t = Var("T", plc::kTypeTime, 64);
    Encoded w = Write(t, 0, 1, "1.5");
    ASSERT_EQ(w.status, 0u);
    ASSERT_EQ(w.request.size(), 40u);
    EXPECT_EQ(w.request[12], 8);
    EXPECT_EQ(Bytes(w.request.begin() + 24, w.request.end()),
              Concat({Le32(0), Le32(64), {0x60, 0xE3, 0x16, 0, 0, 0, 0, 0}}));

    EXPECT_EQ(plc::parse_time_text(" 2 ", 64), 2000000u);
    EXPECT_EQ(plc::parse_time_text("0.0015", 64), 1000u) << "milliseconds are truncated";
    EXPECT_EQ(plc::parse_time_text("+3", 64), 3000000u);
    for (const char *bad : {"-1", "-0.5", "abc", "", "1.5x", "nan", "inf", "1e30", "0x10", "--1"}) {
        EXPECT_EQ(Write(t, 0, 1, bad).status, 3u) << bad;
    }
    const char unterminated[4] = {'1', '2', '3', '4'};
    EXPECT_FALSE(plc::parse_time_text(unterminated, sizeof unterminated));
}

TEST(WriteEncoding, RunsTheLengthByteCannotDescribeAreRefused) {
    const Bytes buffer(1024, 0x42);
    EXPECT_EQ(Write(Array1("D", 0xC4, 32, 0, 999), 0, 63, buffer.data()).status, 0u);
    EXPECT_EQ(Write(Array1("D", 0xC4, 32, 0, 999), 0, 64, buffer.data()).status, 3u);
    EXPECT_EQ(Write(Array1("I", 0xC3, 16, 0, 999), 0, 127, buffer.data()).status, 0u);
    EXPECT_EQ(Write(Array1("I", 0xC3, 16, 0, 999), 0, 128, buffer.data()).status, 3u);
    const Encoded b = Write(Array1("B", 0xC2, 8, 0, 999), 0, 254, buffer.data());
    EXPECT_EQ(b.status, 0u);
    EXPECT_EQ(b.request.size(), 32u + 254u);
    EXPECT_EQ(b.request[12], 254);
    const Encoded odd = Write(Array1("B", 0xC2, 8, 0, 999), 0, 255, buffer.data());
    EXPECT_EQ(odd.status, 0u) << "255 elements and their pad byte";
    EXPECT_EQ(odd.request.size(), 32u + 256u);
    EXPECT_EQ(odd.request[12], 255);
    EXPECT_EQ(Write(Array1("B", 0xC2, 8, 0, 999), 0, 256, buffer.data()).status, 3u);
    EXPECT_EQ(Write(Array1("D", 0xC4, 32, 0, 999), 0, 0x40000001u, buffer.data()).status, 3u)
        << "a count whose byte size wraps 32 bits";

    // No host buffer, or a width with no encoding.
    EXPECT_EQ(Write(Var("D", 0xC4, 32), 0, 1, nullptr).status, 3u);
    EXPECT_EQ(Write(Var("X", 0xC5, 64), 0, 1, buffer.data()).status, 2u);
}

TEST(WriteRange, DoubleWordIndexesAreHalvedAndRunsChecked) {
    // LINT [0..4], stored with doubled bounds [0..8].
    const TagEntry lint = Array1("L", 0xC5, 32, 0, 8);
    EXPECT_EQ(plc::check_write_range(lint, 17, 1, true), 0);
    EXPECT_EQ(plc::check_write_range(lint, 18, 1, true), 3);
    EXPECT_EQ(plc::check_write_range(lint, 16, 2, true), 0);
    EXPECT_EQ(plc::check_write_range(lint, 17, 2, true), 3);
    EXPECT_EQ(plc::check_write_range(lint, 17, 1, false), 3);

    const TagEntry m = Array2(0, 2, 0, 3);
    EXPECT_EQ(plc::check_write_range(m, 11, 1, false), 0);
    EXPECT_EQ(plc::check_write_range(m, 12, 1, false), 3);
    EXPECT_EQ(plc::check_write_range(Array2(0, 2, 3, 1), 0, 1, false), 3);

    const TagEntry d = Array1("D", 0xC4, 32, 0, 9);
    EXPECT_EQ(plc::check_write_range(d, 9, 1, false), 0);
    EXPECT_EQ(plc::check_write_range(d, 10, 1, false), 3);
    EXPECT_EQ(plc::check_write_range(d, 9, 2, false), 3);
    EXPECT_EQ(plc::check_write_range(Array1("D", 0xC4, 32, 2, 9), 1, 1, false), 3);

    // A BOOL or TIME write carries one element whatever the count.
    EXPECT_EQ(plc::check_write_range(Array1("F", plc::kTypeBool, 1, 0, 15), 15, 4, false), 0);
    EXPECT_EQ(plc::check_write_range(Array1("T", plc::kTypeTime, 64, 0, 3), 3, 2, false), 0);
}

TEST(WriteReply, OnlyTheReplyServiceWithinTheReportedLengthCounts) {
    const Bytes ok{0xD6, 0x00, 0x05, 0x00};
    EXPECT_TRUE(plc::write_reply_ok(ok.data(), ok.size())) << "general status is not examined";
    EXPECT_FALSE(plc::write_reply_ok(ok.data(), 0));
    const Bytes read{0xD5, 0x00, 0x00, 0x00};
    EXPECT_FALSE(plc::write_reply_ok(read.data(), read.size()));
}

} // namespace
