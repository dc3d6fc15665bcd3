// Request framing and reply parsing of the EtherNet/IP client, without
// sockets; the client's conversations are tested against plc-sim.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "eip/cip_connection_manager.h"
#include "eip/eip_packet.h"
#include "eip/mr_reply.h"
#include "util/wire.h"

using namespace plc;
using Bytes = std::vector<uint8_t>;

namespace {

uint16_t U16(const Bytes &b, size_t at) { return *wire::Reader(b).u16_at(at); }
wire::Bytes View(const Bytes &b) { return wire::Bytes{b.data(), b.size()}; }

// An encapsulation message whose announced length may lie.
Bytes Message(uint16_t command, const Bytes &body, int length = -1) {
    wire::VecWriter w;
    w.u16(command).u16(uint16_t(length >= 0 ? length : int(body.size())));
    w.zeros(20).bytes(body.data(), body.size());
    return w.take();
}

// Interface handle, timeout, then two items.
Bytes CpfBody(uint16_t addr_type, const Bytes &addr, uint16_t data_type, const Bytes &data) {
    wire::VecWriter w;
    w.u32(0).u16(0).u16(2);
    w.u16(addr_type).u16(uint16_t(addr.size())).bytes(addr.data(), addr.size());
    w.u16(data_type).u16(uint16_t(data.size())).bytes(data.data(), data.size());
    return w.take();
}

// Replaces every printed pointer ("0x" and hex digits) by "P".
std::string MaskPointers(const std::string &text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text.compare(i, 2, "0x") == 0 && i + 2 < text.size() &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            i += 2;
            while (i < text.size() && std::isxdigit(static_cast<unsigned char>(text[i]))) ++i;
            out += 'P';
        } else {
            out += text[i++];
        }
    }
    return out;
}

EipSession TenSecondSession() {
    EipSession s;
    s.handle = 1;
    s.timeout_us = 10000000;
    return s;
}

} // namespace

TEST(EipPacket, RequestsAreSizedAndFramedExactly) {
    const EipSession session = TenSecondSession();
    const Bytes mr(10, 0x5A);

    // Null address + unconnected data item: 50 bytes, length 26, two items.
    Change_Time = 0;
    CpfItem null_address{kItemNullAddress};
    CpfItem unconnected{kItemUnconnectedData, 10};
    auto rr = _BuildRequest(session, null_address, nullptr, unconnected, mr.data(), 10000000);
    ASSERT_TRUE(rr);
    ASSERT_EQ(rr->size(), 50u);
    EXPECT_EQ(U16(*rr, 0), 0u); // the sender sets the command
    EXPECT_EQ(U16(*rr, 2), 26u);
    EXPECT_EQ(U16(*rr, 30), 2u);
    EXPECT_EQ(Bytes(rr->begin() + 40, rr->end()), mr);

    // Connected items: 56 bytes, data item length 12 (sequence + request).
    CpfItem conn_address{kItemConnectedAddress, 0, 0x11223344};
    CpfItem conn_data{kItemConnectedData, 10, 0, 0x0304};
    auto unit = _BuildRequest(session, conn_address, nullptr, conn_data, mr.data(), 10000000);
    ASSERT_TRUE(unit);
    ASSERT_EQ(unit->size(), 56u);
    EXPECT_EQ(U16(*unit, 42), 12u);
    EXPECT_EQ(U16(*unit, 44), 0x0304u);
    EXPECT_EQ(conn_data.length, 12u); // rewritten to the wire length

    // The timeout field follows Change_Time.
    const std::pair<uint8_t, uint16_t> modes[] = {{0, 0}, {1, 10}, {8, 8}, {2, 8}};
    for (const auto &[mode, field] : modes) {
        Change_Time = mode;
        CpfItem a{kItemNullAddress}, d{kItemUnconnectedData, 10};
        auto r = _BuildRequest(session, a, nullptr, d, mr.data(), session.timeout_us);
        ASSERT_TRUE(r);
        EXPECT_EQ(U16(*r, 28), field) << int(mode);
    }
    Change_Time = 0;
    CpfItem a{kItemNullAddress}, d{kItemUnconnectedData, 10};
    EXPECT_EQ(U16(*_BuildRequest(session, a, nullptr, d, mr.data(), 2500000), 28), 500000 & 0xFFFF);

    // 30 bytes of request data: a 36-byte router request, an 82-byte message.
    const Bytes thirty(30, 1);
    size_t mr_size = 0;
    const std::array<uint8_t, 4> class_path{0x20, 0xB8, 0x24, 0x00};
    auto mr36 = _BuildMRRequest(0x55, class_path.data(), 4, thirty.data(), 30, &mr_size);
    ASSERT_TRUE(mr36);
    EXPECT_EQ(mr_size, 36u);
    EXPECT_EQ((Bytes(mr36->begin(), mr36->begin() + 6)), (Bytes{0x55, 2, 0x20, 0xB8, 0x24, 0x00}));
    CpfItem a2{kItemConnectedAddress}, d2{kItemConnectedData, uint16_t(mr_size)};
    EXPECT_EQ(_BuildRequest(session, a2, nullptr, d2, mr36->data(), 0)->size(), 82u);
}

TEST(EipPacket, ItemsThatCannotBeAppendedAppendNothing) {
    const EipSession session = TenSecondSession();
    const Bytes payload(4, 7);
    EipRequest request(64, 0);
    ASSERT_TRUE(_AddINT2Header(request, 2));
    CpfItem unknown{0x1234, 4};
    EXPECT_EQ(_AddItem(request, unknown, payload.data()), -1);
    CpfItem missing_payload{kItemUnconnectedData, 4};
    EXPECT_EQ(_AddItem(request, missing_payload, nullptr), -1);
    CpfItem too_big{kItemUnconnectedData, 60};
    Bytes big(60, 1);
    EXPECT_EQ(_AddItem(request, too_big, big.data()), -1);
    EXPECT_EQ(U16(request, 2), 2u); // only the item count went in
    EXPECT_EQ(Bytes(request.begin() + 26, request.end()), Bytes(38, 0));

    // Lengths stop at 65,535 even in a larger block.
    EipRequest huge(70000, 0);
    EXPECT_TRUE(_AddHeader(huge, big.data(), 40));
    const Bytes filler(0xFFFF - 40, 0);
    EXPECT_TRUE(_AddHeader(huge, filler.data(), filler.size()));
    EXPECT_FALSE(_AddBYTE2Header(huge, 1));
    EXPECT_EQ(U16(huge, 2), 0xFFFFu);

    // A data item too large for one message gives no request.
    Bytes max_payload(0xFFFF, 0);
    CpfItem a{kItemConnectedAddress}, d{kItemConnectedData, 0xFFFF};
    EXPECT_FALSE(_BuildRequest(session, a, nullptr, d, max_payload.data(), 0));
    CpfItem a3{0x4242}, d3{kItemUnconnectedData, 4};
    EXPECT_FALSE(_BuildRequest(session, a3, nullptr, d3, payload.data(), 0));

    // Router requests whose path or size cannot be described are refused.
    const Bytes long_path(512, 0);
    EXPECT_FALSE(_BuildMRRequest(0x4E, long_path.data(), 512, nullptr, 0, nullptr));
    EXPECT_FALSE(_BuildMRRequest(0x4E, long_path.data(), 4, max_payload.data(), 0xFFFF, nullptr));
    EXPECT_FALSE(_BuildMRRequest(0x4E, nullptr, 3, nullptr, 0, nullptr));
}

TEST(EipPacket, ItemsAreFoundOnlyWhollyInsideTheReply) {
    const Bytes mr{0xCC, 0, 0, 0, 9, 9};
    const Bytes rr =
        Message(kEncapSendRRData, CpfBody(kItemNullAddress, {}, kItemUnconnectedData, mr));
    EXPECT_EQ(_GetEipCPF(View(rr)), 30u);
    EXPECT_EQ(_GetAdressItem(View(rr)), 32u);
    EXPECT_EQ(_GetDataItem(View(rr)), 36u);
    EXPECT_EQ(_GetMRReply(View(rr))->at, 40u);
    EXPECT_EQ(_GetMRReply(View(rr))->size, 6u);

    // Commands without a common packet format, and a length below 2.
    EXPECT_FALSE(_GetEipCPF(View(Message(kEncapRegisterSession, {1, 0, 0, 0}))));
    EXPECT_FALSE(_GetDataItem(View(Message(kEncapRegisterSession, {1, 0, 0, 0}))));
    EXPECT_FALSE(_GetEipCPF(View(Message(kEncapSendUnitData, {0}))));
    EXPECT_EQ(_GetEipCPF(View(Message(0x0063, {1, 0}))), 24u);
    EXPECT_FALSE(_GetAdressItem(View(Message(0x0063, {1, 0})))); // count but no item

    // Connected and sockaddr data items.
    const Bytes unit =
        Message(kEncapSendUnitData, CpfBody(kItemConnectedAddress, {1, 2, 3, 4}, kItemConnectedData,
                                            {7, 0, 0xD5, 0, 0, 0}));
    EXPECT_EQ(_GetMRReply(View(unit))->at, 46u);
    EXPECT_EQ(_GetMRReply(View(unit))->size, 4u);
    EXPECT_FALSE(
        _GetMRReply(View(Message(kEncapSendUnitData, CpfBody(kItemConnectedAddress, {1, 2, 3, 4},
                                                             kItemConnectedData, {7})))));
    Bytes sockaddr_item(30, 0);
    sockaddr_item[24] = 0xD5;
    const Bytes with_sockaddr =
        Message(kEncapSendRRData, CpfBody(kItemNullAddress, {}, kItemSockaddrOT, sockaddr_item));
    EXPECT_EQ(_GetMRReply(View(with_sockaddr))->at, 36u + 28u);
    EXPECT_EQ(_GetMRReply(View(with_sockaddr))->size, 2u);

    // Lying item lengths and messages shorter than their header announces.
    Bytes lying = rr;
    lying[38] = 7; // data item claims one byte more than there is
    EXPECT_FALSE(_GetDataItem(View(lying)));
    lying = rr;
    lying[34] = 0xFF; // address item runs past the end
    EXPECT_FALSE(_GetAdressItem(View(lying)));
    EXPECT_FALSE(_GetDataItem(View(lying)));
    EXPECT_FALSE(_GetMRReply(View(lying)));
    Bytes truncated(rr.begin(), rr.end() - 1);
    EXPECT_FALSE(_GetDataItem(View(truncated)));
    Bytes short_header =
        Message(kEncapSendRRData, CpfBody(kItemNullAddress, {}, kItemUnconnectedData, mr),
                int(rr.size() - 24 - 1));
    EXPECT_FALSE(_GetDataItem(View(short_header)));
    EXPECT_FALSE(_GetEipCPF(View(Bytes(10, 0x6F))));
}

// The one reading of a message-router reply: its data lies behind the
// additional status, and only the answering service with status 0 is a success.
TEST(MrReply, HeaderAdditionalStatusAndOutcome) {
    const Bytes with_words{0xD5, 0, 0x1F, 2, 0xAA, 0xBB, 0xCC, 0xDD, 5, 6};
    const auto view = parse_mr_reply(View(with_words));
    ASSERT_TRUE(view);
    EXPECT_EQ(view->general_status, 0x1F);
    EXPECT_EQ(view->additional.size, 4u);
    EXPECT_EQ(view->data_offset, 8u);
    EXPECT_EQ(view->data.size, 2u);
    EXPECT_EQ(check_mr_reply(view, 0x55), ReplyCheck::Refused);
    EXPECT_EQ(check_mr_reply(view, 0x56), ReplyCheck::Unexpected);
    EXPECT_EQ(check_mr_reply(parse_mr_reply(View(Bytes{0xD6, 0, 0, 0})), 0x56), ReplyCheck::Ok);
    // Additional status that runs past the reply, or no room for the header.
    EXPECT_FALSE(parse_mr_reply(View(Bytes{0xD5, 0, 1, 2, 0xAA, 0xBB, 0xCC})));
    EXPECT_FALSE(parse_mr_reply(View(Bytes{0xD5, 0, 0})));
    EXPECT_EQ(check_mr_reply(std::nullopt, 0x55), ReplyCheck::Unexpected);
}

TEST(EipSessionHelpers, LogAndDump) {
    EXPECT_FALSE(ParseEncapHeader(Bytes(23, 0).data(), 23));
    testing::internal::CaptureStdout();
    LogCip(0, "hidden %d\r\n", 1);
    LogCip(2, "shown %d\r\n", 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "shown 2\r\n");

    Bytes bytes(25);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i);
    testing::internal::CaptureStdout();
    FlushCipBuffer(1, bytes.data(), 25);
    const std::string dump = testing::internal::GetCapturedStdout();
    EXPECT_EQ(MaskPointers(dump), "P (0000) :\t00 01 02 03 04 05 06 07 08 09 \n"
                                  "P (0010) :\t0A 0B 0C 0D 0E 0F 10 11 12 13 \n"
                                  "P (0020) :\t14 15 16 17 18 \n\n");

    testing::internal::CaptureStdout();
    FlushCipBuffer(0, bytes.data(), 25);
    FlushCipBuffer(1, nullptr, 25);
    FlushCipBuffer(1, bytes.data(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n\n");
}
