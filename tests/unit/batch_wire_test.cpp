// Bytes of the batch engine's requests and the checks on its replies, and the
// engine as a whole against a fake controller: a wrong byte here is a request
// the controller refuses or, worse, one that reads other memory.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "batch_tables.h"
#include "engine/batch_decode.h"
#include "engine/batch_exchange.h"
#include "engine/batch_read_core.h"
#include "engine/prepare.h"
#include "engine/request_set_cache.h"

namespace plc {
namespace {

using namespace plc::test;
using Bytes = std::vector<uint8_t>;

Bytes text_bytes(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
InitTagEntry init_name(const std::string &name, uint32_t tag_id = 0, uint32_t element = 0) {
    InitTagEntry e;
    name.copy(e.name.data(), e.name.size() - 1);
    e.tag_id = tag_id;
    e.element = element;
    return e;
}
Bytes build_prepare(const std::vector<InitTagEntry> &names) {
    Bytes buffer(8192);
    wire::Writer out(buffer.data(), buffer.size());
    if (!build_prepare_request(out, names.data(), names.size())) return {};
    buffer.resize(out.size());
    return buffer;
}

// Answers preparation and read requests like the controller: the handle of a
// variable is its name cut to 10 bytes, and a read returns the variable's bytes
// from `memory` at the item's bit offset.
class FakeController : public CipExchange {
public:
    struct Request {
        uint8_t service;
        Bytes data;
    };
    std::vector<Request> requests;
    std::map<std::string, Bytes> memory;
    std::function<void(Bytes &)> tamper;
    bool unreachable = false;
    static constexpr uint8_t kPrefix[10] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4,
                                            0xA5, 0xA6, 0xA7, 0x00, 0xA9};

    int32_t transact(const uint8_t *request, uint32_t request_len, uint8_t *reply,
                     uint32_t *reply_len, uint8_t service, size_t capacity) override {
        requests.push_back({service, Bytes(request, request + request_len)});
        if (unreachable) return -1;
        Bytes answer = service == kServiceResolve ? resolve(requests.back().data)
                                                  : read(requests.back().data);
        if (tamper) tamper(answer);
        if (answer.size() > capacity) return -1;
        std::copy(answer.begin(), answer.end(), reply);
        *reply_len = static_cast<uint32_t>(answer.size());
        return 0;
    }

    size_t count(uint8_t service) const {
        size_t n = 0;
        for (const Request &r : requests) n += r.service == service;
        return n;
    }

private:
    static Bytes resolve(const Bytes &req) {
        wire::Reader in(req);
        in.skip(8);
        const uint8_t names = in.u8();
        in.skip(1);
        Bytes out(16, 0);
        out[0] = 0xD6;
        std::copy(kPrefix, kPrefix + 10, out.begin() + 6);
        out[14] = names;
        for (uint8_t m = 0; m < names; ++m) {
            const uint8_t padded = in.u8() - 4;
            in.skip(3);
            const uint8_t len = in.u8();
            in.skip(1);
            std::string path(padded, '\0');
            in.bytes(path.data(), padded);
            Bytes item(24, 0xEE);
            std::string name = path.substr(6, len - 6);
            name.resize(10, '\0');
            std::copy(name.begin(), name.end(), item.begin());
            out.insert(out.end(), item.begin(), item.end());
        }
        return out;
    }

    Bytes read(const Bytes &req) {
        wire::Reader in(req);
        in.skip(10);
        const uint8_t items = in.u8();
        in.skip(1);
        Bytes out = {0xD5, 0, 0, 0, items, 0, 0, 0};
        Bytes values;
        for (uint8_t k = 0; k < items; ++k) {
            std::string name(10, '\0');
            in.bytes(name.data(), 10);
            name.resize(name.find('\0') == std::string::npos ? 10 : name.find('\0'));
            const uint32_t offset = in.u32();
            const uint32_t length = in.u24();
            in.skip(1);
            out.push_back(0);
            out.push_back(0);
            const Bytes &mem = memory[name];
            for (size_t b = 0; b < item_value_bytes(length); ++b) {
                const size_t at = offset / 8 + b;
                values.push_back(at < mem.size() ? mem[at] : 0);
            }
        }
        return cat({out, values});
    }
};

TEST(PrepareWire, NameItemsArePaddedToEvenLengths) {
    const Bytes expected = cat({{0x00, 0x00, 0xFF, 0x3F, 0, 0, 0, 0, 2, 0},
                                {0x0C, 0x00, 0x92, 0x00, 0x08, 0x00},
                                text_bytes("VAR://AB"),
                                {0x0E, 0x00, 0x92, 0x00, 0x09, 0x00},
                                text_bytes("VAR://ABC"),
                                {0x00}});
    EXPECT_EQ(build_prepare({init_name("AB"), init_name("ABC")}), expected);
    EXPECT_EQ(prepare_item_size("AB"), 14u);
    EXPECT_EQ(prepare_item_size("ABC"), 16u);
}

TEST(PrepareWire, NamesThatDoNotFitTheirItemsAreRefused) {
    // The padded path must fit item byte 0 together with 4: 251 characters.
    EXPECT_EQ(prepare_item_size(std::string(244, 'n').c_str()), 256u);
    EXPECT_EQ(prepare_item_size(std::string(245, 'n').c_str()), 0u);
    EXPECT_TRUE(build_prepare({init_name(std::string(245, 'n'))}).empty());

    // Twenty items of 212 bytes exceed the 4095-byte item area of one request;
    // nineteen fit, and twenty-one split as 20 + 1 do not.
    std::vector<InitTagEntry> names(21, init_name(std::string(200, 'n')));
    EXPECT_TRUE(prepare_names_fit(names.data(), 19));
    EXPECT_FALSE(prepare_names_fit(names.data(), 20));
    EXPECT_FALSE(prepare_names_fit(names.data(), 21));
    EXPECT_TRUE(build_prepare(std::vector<InitTagEntry>(names.begin(), names.begin() + 20))
                    .empty());
}

TEST(PrepareWire, RepliesAreCheckedBeforeAnythingIsCopied) {
    Bytes reply = cat({{0xD6, 0, 0, 0, 0, 0}, Bytes(10, 0x55), Bytes(48, 0x77)});
    reply[14] = 2;
    reply[16] = 0x01;
    reply[40] = 0x02;
    std::array<uint8_t, 10> prefix{};
    VarHandle handles[2];
    ASSERT_EQ(parse_prepare_reply(reply.data(), reply.size(), 2, prefix, handles), 0);
    EXPECT_EQ(prefix[0], 0x55);
    EXPECT_EQ(prefix[8], 2);
    EXPECT_EQ(handles[0][0], 0x01);
    EXPECT_EQ(handles[1][0], 0x02);
    EXPECT_EQ(handles[1][9], 0x77);

    EXPECT_EQ(parse_prepare_reply(reply.data(), reply.size(), 3, prefix, handles), 2)
        << "answered count differs";
    EXPECT_EQ(parse_prepare_reply(reply.data(), reply.size() - 1, 2, prefix, handles), 2)
        << "last item cut short";
    EXPECT_EQ(parse_prepare_reply(reply.data(), 14, 2, prefix, handles), 2);
    reply[0] = 0xD5;
    EXPECT_EQ(parse_prepare_reply(reply.data(), reply.size(), 2, prefix, handles), 2);
}

TEST(ReadWire, ItemGeometryFollowsDimensionAndType) {
    const TagEntry dint_from_10 = array1("D", 0xC4, 32, 10, 20);
    const TagEntry dint_from_0 = array1("D", 0xC4, 32, 0, 20);
    EXPECT_EQ(read_item_geometry(dint_from_10, {1, 10, 4}).bit_offset, 0u);
    EXPECT_EQ(read_item_geometry(dint_from_10, {1, 10, 4}).bit_length, 128u);
    EXPECT_EQ(read_item_geometry(dint_from_0, {1, 10, 4}).bit_offset, 320u);
    // Two and three dimensions count from the first element, whatever lo1.
    EXPECT_EQ(read_item_geometry(array2("M", 0xC3, 16, 1, 2, 0, 3), {1, 5, 1}).bit_offset, 80u);
    EXPECT_EQ(read_item_geometry(scalar("Uptime", 0xD6, 64), {1, 1, 3}).bit_length, 64u);
    EXPECT_EQ(read_item_geometry(scalar("R", 0xCA, 32), {1, 0, 1}).bit_length, 32u);
    const ReadItem lamp = read_item_geometry(array1("L", 0xC1, 1, 0, 15), {1, 5, 1});
    EXPECT_EQ(lamp.bit_offset, 0u);
    EXPECT_EQ(lamp.bit_length, 1u);
    // No fixed width travels as bytes.
    EXPECT_EQ(read_item_geometry(string_var("S", 20), {1, 4, 3}).bit_offset, 32u);
    EXPECT_EQ(read_item_geometry(string_var("S", 20), {1, 4, 3}).bit_length, 24u);
}

TEST(ReadWire, RequestIsPrefixCountAndEighteenBytesPerItem) {
    const std::array<uint8_t, 10> prefix = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    ReadItem items[2];
    items[0].handle = {0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0x1A};
    items[0].bit_offset = 0x01020304;
    items[0].bit_length = 0x050607;
    items[1].bit_length = 1;
    Bytes buffer(64);
    wire::Writer out(buffer.data(), buffer.size());
    ASSERT_TRUE(build_read_request(out, prefix, items, 2));
    ASSERT_EQ(out.size(), 12u + 18u * 2);
    buffer.resize(out.size());
    const Bytes expected = cat({{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 2, 0},
                                {0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0x1A},
                                {0x04, 0x03, 0x02, 0x01, 0x07, 0x06, 0x05, 0x00},
                                Bytes(10, 0),
                                {0, 0, 0, 0, 1, 0, 0, 0}});
    EXPECT_EQ(buffer, expected);
}

TEST(ReadWire, RepliesMustCarryEveryValueTheyAnnounce) {
    const Bytes good = {0xD5, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6};
    ReadReplyValues values;
    ASSERT_EQ(parse_read_reply(good.data(), good.size(), 2, 6, values), 0);
    EXPECT_EQ(values.size, 6u);
    EXPECT_EQ(values.data[0], 1);
    EXPECT_EQ(parse_read_reply(good.data(), good.size(), 2, 8, values), 2) << "values cut short";
    EXPECT_EQ(parse_read_reply(good.data(), 12, 2, 2, values), 2) << "no value bytes at all";
    EXPECT_EQ(parse_read_reply(good.data(), good.size(), 3, 2, values), 2);
    Bytes wide_count = good;
    wide_count[5] = 1; // 0x102 items: shares the low byte only
    EXPECT_EQ(parse_read_reply(wide_count.data(), wide_count.size(), 2, 2, values), 2);
    Bytes service = good;
    service[0] = 0xD6;
    EXPECT_EQ(parse_read_reply(service.data(), service.size(), 2, 2, values), 2);
    EXPECT_EQ(parse_read_reply(good.data(), 3, 2, 0, values), 2);
}

// The engine against the fake controller, with the tables as the entry fills them.
class BatchEngine : public ::testing::Test {
protected:
    void SetUp() override {
        table = plain_table({
            array1("Counts", 0xC4, 32, 0, 99),
            scalar("Speed", 0xC3, 16),
            array1("Flags", 0xC1, 1, 0, 15),
        });
        INIT_RET_DATA.reset();
        init = 1;
        fake.memory["Counts"] = Bytes(400, 0);
        for (size_t e = 0; e < 100; ++e) fake.memory["Counts"][e * 4] = uint8_t(e);
        fake.memory["Speed"] = {0x34, 0x12};
        fake.memory["Flags[4]"] = {0x01};
    }
    void TearDown() override { INIT_RET_DATA.reset(); }

    void classify(const std::vector<PlcRequest> &requests) {
        records = requests;
        OMRON_TEMP.fill(BatchSlot{});
        INIT_TAG.fill(InitTagEntry{});
        RequestSetKey key;
        unpack_batch_records(records.data(), int32_t(records.size()), OMRON_TEMP.data(), key);
        ASSERT_EQ(Reg_Classify_Sort(table, int32_t(records.size())), kClassifyOk);
    }
    int prepare() { return prepare_variables(fake, send_data, table, recv_data); }
    int exchange() {
        return exchange_batch(fake, send_data, table, recv_data, records.data(),
                              int32_t(records.size()));
    }

    TagTable table;
    FakeController fake;
    std::vector<PlcRequest> records;
};

TEST_F(BatchEngine, FortyFiveNamesGoOutAsTwentyTwentyAndFive) {
    std::vector<PlcRequest> requests;
    // Elements of a BOOL array are prepared by their own names: 45 names.
    table = plain_table({array1("Flags", 0xC1, 1, 0, 99)});
    for (uint16_t e = 0; e < 45; ++e) requests.push_back(record(0, e));
    classify(requests);
    ASSERT_EQ(reg_init_num, 45u);
    ASSERT_EQ(prepare(), 0);
    ASSERT_EQ(fake.requests.size(), 3u);
    EXPECT_EQ(fake.requests[0].data[8], 20);
    EXPECT_EQ(fake.requests[1].data[8], 20);
    EXPECT_EQ(fake.requests[2].data[8], 5);
    EXPECT_EQ(fake.requests[2].service, kServiceResolve);
    VarHandle handle{};
    ASSERT_EQ(copy_from_link(INIT_RET_DATA.get(), 44, 0, handle, table), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(handle.data()), 9), "Flags[44]");
    EXPECT_EQ(recv_flag_data1[8], 5) << "the prefix of the last reply";
}

TEST_F(BatchEngine, APreparationReplyAnsweringFewerNamesFailsWithoutQueuing) {
    std::vector<PlcRequest> requests;
    table = plain_table({array1("Flags", 0xC1, 1, 0, 99)});
    for (uint16_t e = 0; e < 20; ++e) requests.push_back(record(0, e));
    classify(requests);
    fake.tamper = [](Bytes &reply) { reply[14] = 19; };
    EXPECT_EQ(prepare(), 2);
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(INIT_RET_DATA, nullptr);

    init = 1;
    fake.tamper = [](Bytes &reply) { reply.resize(reply.size() - 1); };
    EXPECT_EQ(prepare(), 2);
    EXPECT_EQ(init, 0u);

    init = 1;
    fake.tamper = nullptr;
    fake.unreachable = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(prepare(), 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[PLC] CIP_TransRecv err at line 2470\r\n");
    EXPECT_EQ(init, 0u);
}

TEST_F(BatchEngine, SixteenItemsGoOutAsFifteenAndOneAndEveryRecordGetsItsValue) {
    std::vector<PlcRequest> requests;
    for (uint16_t e = 0; e < 32; e += 2) requests.push_back(record(0, e)); // 16 items
    requests.push_back(record(2, 4));
    requests.push_back(record(0, 40));
    requests.push_back(record(0, 41)); // folds with 40
    requests.push_back(record(1, 0));
    classify(requests);
    ASSERT_EQ(reg_interact_num, 19u);
    ASSERT_EQ(prepare(), 0);
    fake.requests.clear();
    ASSERT_EQ(exchange(), 0);
    ASSERT_EQ(fake.requests.size(), 2u);
    EXPECT_EQ(fake.requests[0].data.size(), 12u + 18u * 15);
    EXPECT_EQ(fake.requests[1].data.size(), 12u + 18u * 4);
    EXPECT_EQ(fake.requests[0].data[10], 15);
    EXPECT_EQ(fake.requests[1].data[10], 4);
    for (size_t k = 0; k < 2; ++k) {
        EXPECT_TRUE(std::equal(recv_flag_data1.begin(), recv_flag_data1.end(),
                               fake.requests[k].data.begin()));
    }
    for (size_t i = 0; i < 16; ++i) EXPECT_EQ(records[i].result, 2 * i) << i;
    EXPECT_EQ(records[16].result, 1u);
    EXPECT_EQ(records[17].result, 40u);
    EXPECT_EQ(records[18].result, 41u);
    EXPECT_EQ(records[19].result, 0x1234u);
}

TEST_F(BatchEngine, RepliesThatCannotBeTrustedEndTheCallWithTwo) {
    classify({record(0, 3), record(0, 4), record(1, 0)});
    ASSERT_EQ(prepare(), 0);

    // Short by one value byte.
    fake.tamper = [](Bytes &reply) { reply.pop_back(); };
    records[0].result = 0xDEADBEEF;
    EXPECT_EQ(exchange(), 2);
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(records[0].result, 0xDEADBEEFu);

    // More value bytes than the value area holds.
    init = 1;
    fake.tamper = [](Bytes &reply) { reply.resize(reply.size() + kValueAreaSize, 0); };
    EXPECT_EQ(exchange(), 2);
    EXPECT_EQ(init, 0u);

    // Answered item count not the one sent.
    init = 1;
    fake.tamper = [](Bytes &reply) { reply[4] = 1; };
    EXPECT_EQ(exchange(), 2);
    EXPECT_EQ(init, 0u);

    // No handle for a slot.
    init = 1;
    fake.tamper = nullptr;
    INIT_RET_DATA.reset();
    testing::internal::CaptureStdout();
    EXPECT_EQ(exchange(), 2);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("copy_from_link error\r\n"),
              std::string::npos);
    EXPECT_EQ(init, 0u);
}

// The entry itself, with a tag list file in a scratch directory.
class BatchEntry : public BatchEngine {
protected:
    void SetUp() override {
        BatchEngine::SetUp();
        char dir_template[] = "/tmp/batch_entry_XXXXXX";
        ASSERT_NE(mkdtemp(dir_template), nullptr);
        dir = dir_template;
        ASSERT_EQ(getcwd(old_dir, sizeof old_dir), old_dir);
        ASSERT_EQ(chdir(dir.c_str()), 0);
        FILE *f = std::fopen("PLC7F000001_1.csv", "w");
        ASSERT_NE(f, nullptr);
        std::fputs("Counts,DINT,[0..99],,,,,0\nSpeed,INT,,,,,,1\nFlags,BOOL,[0..15],,,,,2\n", f);
        std::fclose(f);
        settings.ip_address = 0x7F000001;
        g_s_settings = &settings;
        init_tag(g_plc_tags);
        free_reg_link(node);
        label_reupdata = 1;
    }
    void TearDown() override {
        std::remove("PLC7F000001_1.csv");
        if (chdir(old_dir) != 0) ADD_FAILURE();
        rmdir(dir.c_str());
        free_reg_link(node);
        BatchEngine::TearDown();
    }
    PlcRequest req(uint32_t tag, uint16_t element, uint16_t device = 1) {
        PlcRequest r = record(tag, element);
        r.device = device;
        return r;
    }
    int32_t read(std::vector<PlcRequest> &batch) {
        return batch_read_over(fake, batch.data(), int32_t(batch.size()));
    }

    DriverSettings settings{};
    std::string dir;
    char old_dir[4096] = {};
};

TEST_F(BatchEntry, ARememberedSetIsReadWithoutPreparingAgain) {
    std::vector<PlcRequest> batch = {req(0, 5), req(0, 6), req(1, 0), req(2, 4)};
    ASSERT_EQ(read(batch), 0);
    EXPECT_EQ(fake.count(kServiceResolve), 1u);
    EXPECT_EQ(fake.count(kServiceRead), 1u);
    EXPECT_EQ(batch[0].result, 5u);
    EXPECT_EQ(batch[1].result, 6u);
    EXPECT_EQ(batch[2].result, 0x1234u);
    EXPECT_EQ(batch[3].result, 1u);
    EXPECT_EQ(label_reupdata, 0u);

    // Same pairs, other count fields and device numbers in later records.
    std::vector<PlcRequest> again = {req(0, 5), req(0, 6, 7), req(1, 0, 3), req(2, 4)};
    again[0].count = 2;
    ASSERT_EQ(read(again), 0);
    EXPECT_EQ(fake.count(kServiceResolve), 1u);
    EXPECT_EQ(fake.count(kServiceRead), 2u);
    EXPECT_EQ(again[1].result, 6u);

    // Another order is another set; label_reupdata forces a preparation.
    std::vector<PlcRequest> swapped = {req(1, 0), req(0, 5)};
    ASSERT_EQ(read(swapped), 0);
    EXPECT_EQ(fake.count(kServiceResolve), 2u);
    label_reupdata = 1;
    ASSERT_EQ(read(batch), 0);
    EXPECT_EQ(fake.count(kServiceResolve), 3u);
}

TEST_F(BatchEntry, RefusedBatchesSendNothing) {
    std::vector<PlcRequest> outside = {req(1, 0), req(2, 16)};
    EXPECT_EQ(read(outside), 3);
    std::vector<PlcRequest> unknown = {req(1, 0), req(3, 0)};
    testing::internal::CaptureStdout();
    EXPECT_EQ(read(unknown), 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] tag id 3 is not exist in this tag list 3, at line: 2572\r\n");
    std::vector<PlcRequest> zero_count = {req(1, 0)};
    zero_count[0].count = 0;
    EXPECT_EQ(read(zero_count), 3);
    std::vector<PlcRequest> many(101, req(1, 0));
    EXPECT_EQ(read(many), 3);
    EXPECT_EQ(fake.requests.size(), 0u);
    EXPECT_EQ(node, nullptr) << "no refused set is remembered";

    // An empty batch prepares and reads nothing and succeeds.
    std::vector<PlcRequest> none = {req(1, 0)};
    EXPECT_EQ(batch_read_over(fake, none.data(), 0), 0);
    EXPECT_EQ(fake.requests.size(), 0u);
}

} // namespace
} // namespace plc
