// The EtherNet/IP client against a scripted controller on 127.0.0.1.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <string>

#include "eip/cip_connected.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_packet.h"
#include "eip/eip_session.h"
#include "eip_fake_peer.h"

using namespace plc;
using namespace eiptest;

namespace {

Bytes Hex(const char *text) {
    std::istringstream in(text);
    Bytes out;
    unsigned v;
    while (in >> std::hex >> v) out.push_back(uint8_t(v));
    return out;
}

uint16_t U16(const Bytes &b, size_t at) { return *wire::Reader(b).u16_at(at); }

// Bytes of the message-router request inside a captured SendUnitData.
Bytes RouterRequest(const Bytes &m) { return Bytes(m.begin() + 46, m.end()); }

const Bytes kRegisterRequest =
    Hex("65 00 04 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00");

} // namespace

TEST(EipSessionTest, RegisterSessionAnswersAndBrokenReplies) {
    const Bytes stale = RegisterReply(0, 0xBAD);
    FakePeer peer([&](FakePeer::Conn &c) {
        c.Expect();
        c.Send(RegisterReply(0, 0x12345678));
        c.Expect();
        c.Send(RegisterReply(0x69, 7));
        c.Expect();
        c.Send(Message(kEncapUnRegisterSession, {1, 0, 0, 0}));
        // Announces 100 bytes, sends 4, then stays silent.
        c.Expect();
        c.Send(Message(kEncapRegisterSession, {1, 0, 0, 0}, 100));
        // The header arrives in pieces: one whole message all the same.
        c.Expect();
        const Bytes whole = RegisterReply(0, 0x0A0B0C0D);
        for (size_t at = 0; at < whole.size(); at += 5) {
            c.Send(Bytes(whole.begin() + at, whole.begin() + std::min(at + 5, whole.size())));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        // Stale input waiting before the request must not be taken as its reply.
        c.Send(stale);
        c.Expect();
        c.Send(RegisterReply(0, 0x600D));
        // Closes in the middle of the body.
        c.Expect();
        Bytes cut = RegisterReply(0, 1);
        cut.resize(26);
        c.Send(cut);
        shutdown(c.fd, SHUT_RDWR);
    });
    SessionGuard s = OpenLoopback(peer.port(), 10000000);
    ASSERT_TRUE(s.s);
    EXPECT_EQ(s->handle, 0u);
    EXPECT_EQ(s->timeout_us, 10000000);

    EXPECT_EQ(RegisterSession(*s), 0);
    EXPECT_EQ(s->handle, 0x12345678u);
    EXPECT_EQ(RegisterSession(*s), 0x69);
    EXPECT_EQ(s->handle, 0u);

    testing::internal::CaptureStdout();
    EXPECT_EQ(RegisterSession(*s), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Command != EIP_REGISTERSESSION\r\n");

    s->timeout_us = 200000;
    testing::internal::CaptureStdout();
    EXPECT_EQ(RegisterSession(*s), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "reply NULL\r\n");
    EXPECT_EQ(s->handle, 0u);

    s->timeout_us = 10000000;
    EXPECT_EQ(RegisterSession(*s), 0);
    EXPECT_EQ(s->handle, 0x0A0B0C0Du);

    ASSERT_TRUE(WaitReadable(s->sock));
    EXPECT_EQ(RegisterSession(*s), 0);
    EXPECT_EQ(s->handle, 0x600Du);

    testing::internal::CaptureStdout();
    EXPECT_EQ(RegisterSession(*s), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "reply NULL\r\n");

    // The peer is gone: sends fail instead of raising SIGPIPE.
    peer.join();
    long sent = 0;
    for (int i = 0; i < 100 && sent >= 0; ++i) {
        sent = CipSendData(s->sock, kRegisterRequest.data(), 28);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_LT(sent, 0);

    s.Close();
    const auto &captured = peer.captured();
    ASSERT_EQ(captured.size(), 7u);
    for (const auto &request : captured) EXPECT_EQ(request, kRegisterRequest);
}

TEST(EipSessionTest, OpeningFailsCleanlyAndHostNamesConnect) {
    // A bound port nobody listens on refuses at once.
    const int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    getsockname(blocker, reinterpret_cast<sockaddr *>(&a), &len);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(_OpenSession("127.0.0.1", ntohs(a.sin_port), 1024, 10000000));
    EXPECT_EQ(_CipOpenSock("127.0.0.1", ntohs(a.sin_port)), -1);
    EXPECT_FALSE(_OpenSession(nullptr, ntohs(a.sin_port), 1024, 10000000));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "_CipOpenSock err--\r\n_CipOpenSock err--\r\n");
    close(blocker);

    // A name is resolved and connected; the session then works as any other.
    FakePeer peer(std::vector<Bytes>{RegisterReply(0, 5), {}});
    SessionGuard s{_OpenSession("localhost", peer.port(), 1024, 10000000)};
    ASSERT_TRUE(s.s);
    EXPECT_EQ(RegisterSession(*s), 0);
    EXPECT_EQ(s->handle, 5u);
    testing::internal::CaptureStdout();
    EXPECT_EQ(UnRegisterSession(*s), 24);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "UnRegisterSession: session->sock=" + std::to_string(s->sock) + "\n");
    s.Close();
    const auto &captured = peer.captured();
    ASSERT_EQ(captured.size(), 2u);
    EXPECT_EQ(captured[1], Hex("66 00 00 00 05 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
}

TEST(EipSessionTest, ConnectThatIsNotAnsweredGivesUp) {
    // A listener whose accept queue is full drops further connection attempts.
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    socklen_t len = sizeof a;
    getsockname(listener, reinterpret_cast<sockaddr *>(&a), &len);
    std::vector<int> fillers;
    for (int i = 0; i < 3; ++i) {
        const int f = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        connect(f, reinterpret_cast<sockaddr *>(&a), sizeof a);
        fillers.push_back(f);
    }
    testing::internal::CaptureStdout();
    EXPECT_FALSE(_OpenSession("127.0.0.1", ntohs(a.sin_port), 1024, 10000000));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "select time out \r\n_CipOpenSock err--\r\n");
    for (int f : fillers) close(f);
    close(listener);
}

TEST(EipConnectionTest, BringUpAndConnectedRequestsOnTheWire) {
    FakePeer peer(std::vector<Bytes>{
        RegisterReply(0, 1),
        RRReply({0xCE, 0, 0x01, 0}), // whatever the close answers is ignored
        RRReply(Hex("DB 00 00 00 44 33 22 11 88 77 66 55 02 01 30 00 5A 01 A8 C0")),
        UnitReply(0, {0xD5, 0, 0, 0}),
        UnitReply(1, {0xD5, 0, 0, 0, 9}),
        {}});
    SessionGuard s = OpenLoopback(peer.port(), 10000000);
    ASSERT_TRUE(s.s);
    ASSERT_EQ(RegisterSession(*s), 0);

    std::array<uint8_t, 8> prefix{};
    testing::internal::CaptureStdout();
    auto conn = _ConnectPLCOverCNET(*s, 0, _Priority, _TimeOut_Ticks, 0x9D9D0029, 0x0102,
                                    _OriginatorVendorID, _OriginatorSerialNumber,
                                    _TimeOutMultiplier, 7236, _Transport, prefix.data(), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(MaskPointers(out), "_ExForward_Close : reply=P (4)\r\n");
    ASSERT_TRUE(conn);
    EXPECT_EQ(conn->eip_session, s.s.get());
    EXPECT_EQ(conn->ot_conn_id, 0x11223344u);
    EXPECT_EQ(conn->to_conn_id, 0x55667788u);
    EXPECT_EQ(conn->conn_serial, 0x0102);
    EXPECT_EQ(conn->vendor_id, 0x0030);
    EXPECT_EQ(conn->orig_serial, 0xC0A8015Au);
    EXPECT_EQ(conn->sequence, 0);
    EXPECT_EQ(conn->write_mode, 0);
    EXPECT_EQ(conn->path_len, 6);
    EXPECT_EQ(conn->path, Bytes(ROUTER_PATH.begin(), ROUTER_PATH.end()));

    const Bytes data{0xAA, 0xBB, 0xCC, 0xDD};
    std::vector<uint8_t> reply(kMaxMrReply);
    uint32_t reply_len = 0;
    EXPECT_EQ(CIP_TransRecv(s.s.get(), conn.get(), data.data(), 4, reply.data(), &reply_len, 0x55), 0);
    EXPECT_EQ(reply_len, 4u);
    EXPECT_EQ(reply[0], 0xD5);
    EXPECT_EQ(CIP_TransRecv(s.s.get(), conn.get(), data.data(), 4, reply.data(), &reply_len, 0x55), 0);
    EXPECT_EQ(reply_len, 5u);
    EXPECT_EQ(reply[4], 9);
    EXPECT_EQ(conn->sequence, 2);

    testing::internal::CaptureStdout();
    EXPECT_EQ(UnRegisterSession(*s), 24);
    testing::internal::GetCapturedStdout();
    s.Close();

    const auto &captured = peer.captured();
    ASSERT_EQ(captured.size(), 6u);
    EXPECT_EQ(captured[0], kRegisterRequest);
    EXPECT_EQ(captured[1],
              Hex("6F 00 28 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                  "08 00 02 00 00 00 00 00 B2 00 18 00 4E 02 20 06 24 01 05 F7 02 01 30 00 5A 01 A8 C0 "
                  "03 00 01 00 20 02 24 01"));
    EXPECT_EQ(captured[2],
              Hex("6F 00 44 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                  "00 00 02 00 00 00 00 00 B2 00 34 00 5B 02 20 06 24 01 06 9A 00 00 00 33 29 00 9D 9D "
                  "02 01 30 00 5A 01 A8 C0 07 00 00 00 28 6B 6E 00 CC 07 F8 43 28 6B 6E 00 CC 07 F8 43 "
                  "A3 03 01 00 20 02 24 01"));
    const Bytes first = Hex("70 00 20 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                            "00 00 00 00 0A 00 02 00 A1 00 04 00 44 33 22 11 B1 00 0C 00 00 00 55 02 "
                            "20 B8 24 00 AA BB CC DD");
    EXPECT_EQ(captured[3], first);
    Bytes second = first;
    second[44] = 1;
    EXPECT_EQ(captured[4], second);
    EXPECT_EQ(captured[5], Hex("66 00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
}

TEST(EipConnectionTest, ForwardOpenAndCloseReplies) {
    const Bytes ids = Hex("11 22 33 44 55 66 77 88");
    auto open_reply = [&](Bytes mr, const Bytes &data) {
        mr.insert(mr.end(), data.begin(), data.end());
        return RRReply(mr);
    };
    Bytes lying_item = RRReply({0xCE, 0, 0, 0});
    lying_item[38] = 0x40; // the data item claims more than the message holds
    FakePeer peer(std::vector<Bytes>{
        open_reply({0xDB, 0, 0, 0}, ids),
        open_reply({0xDB, 0, 0x01, 0}, ids),                      // refused
        open_reply({0xDB, 0, 0, 0}, Hex("11 22 33 44 55 66 77")), // too little data
        open_reply({0xDB, 0, 0, 1, 0xEE, 0xEE}, ids),             // additional status first
        RRReply({0xCE, 0, 0x01, 0}),
        lying_item,
        RRReply({0xCE, 0}),
        {}});
    SessionGuard s = OpenLoopback(peer.port(), 10000000);
    ASSERT_TRUE(s.s);
    const Bytes odd_path{0x01, 0x00, 0x20};
    auto open = [&] {
        return _Forward_Open(*s, 1, 2, 0x01020304, 0x0506, 0x0708, 0x090A0B0C, 3, 1, 0x0D0E0F10,
                             0xA3, odd_path.data(), 3);
    };
    auto conn = open();
    ASSERT_TRUE(conn);
    EXPECT_EQ(conn->ot_conn_id, 0x44332211u);
    EXPECT_EQ(conn->to_conn_id, 0x88776655u);
    EXPECT_EQ(conn->path_len, 3);
    EXPECT_EQ(conn->path, odd_path);
    EXPECT_FALSE(open());
    EXPECT_FALSE(open());
    auto with_status = open();
    ASSERT_TRUE(with_status);
    EXPECT_EQ(with_status->ot_conn_id, 0x44332211u);

    testing::internal::CaptureStdout();
    EXPECT_EQ(Forward_Close(std::move(conn)), 1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(MaskPointers(out), "_ExForward_Close : reply=P (4)\r\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(Forward_Close(std::move(with_status)), -1);
    EXPECT_EQ(_ExForward_Close(*s, 5, 0xF7, 1, 2, 3, odd_path.data(), 3), -1); // status cut off
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(MaskPointers(out), "_ExForward_Close : reply=P (2)\r\n");
    s->timeout_us = 200000;
    EXPECT_EQ(_ExForward_Close(*s, 5, 0xF7, 1, 2, 3, odd_path.data(), 3), -1); // unanswered
    EXPECT_EQ(Forward_Close(nullptr), -1);
    s.Close();

    const auto &captured = peer.captured();
    ASSERT_EQ(captured.size(), 8u);
    // Large_Forward_Open with a 3-byte path: two words, one zero byte of padding.
    EXPECT_EQ(captured[0],
              Hex("6F 00 42 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                  "00 00 02 00 00 00 00 00 B2 00 32 00 5B 02 20 06 24 01 01 02 00 00 00 33 04 03 02 01 "
                  "06 05 08 07 0C 0B 0A 09 03 00 00 00 70 05 00 00 10 0F 0E 0D 70 05 00 00 10 0F 0E 0D "
                  "A3 02 01 00 20 00"));
    EXPECT_EQ(captured[5].size(), 40u + 6u + 12u + 4u); // the close carries the 3-byte path too
    EXPECT_EQ(captured[6], Hex("6F 00 26 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
                               "00 00 00 00 08 00 02 00 00 00 00 00 B2 00 16 00 4E 02 20 06 24 01 05 F7 "
                               "01 00 02 00 03 00 00 00 02 00 01 00 20 00"));
}

TEST(EipConnectedTest, RequestsAndRepliesOfTheConnection) {
    Bytes big_mr(65513);
    for (size_t i = 0; i < big_mr.size(); ++i) big_mr[i] = uint8_t(i * 7);
    big_mr[0] = 0xD5;
    const Bytes big = UnitReply(5, big_mr);
    ASSERT_EQ(big.size(), 24u + 65535u);
    FakePeer peer(std::vector<Bytes>{
        UnitReply(0, {0xD6, 0, 0, 0, 'x'}),
        UnitReply(1, {0xD6, 0, 0x05, 0}),
        UnitReply(2, {0xD5, 0, 0, 0}),
        UnitReply(0xFFFF, {0xD5, 0, 0}),  // data item length 5
        UnitReply(0, {}, 1),              // data item length 1
        UnitReply(1, {}),                 // data item length 2
        RRReply({0xD5, 0, 0, 0}),         // not a SendUnitData
        UnitReply(3, {0xD5, 0, 0, 0}, 100), // lying data item length
        big,
        big,
        {}});
    SessionGuard s = OpenLoopback(peer.port(), 10000000);
    ASSERT_TRUE(s.s);
    s->handle = 1;
    CipConnection conn;
    conn.eip_session = s.s.get();
    conn.ot_conn_id = 0x11223344;

    std::vector<uint8_t> reply(65535, 0xEE);
    uint32_t len = 0;
    const uint8_t one = 1;
    auto call = [&](uint8_t service, size_t capacity = kMaxMrReply) {
        return CIP_TransRecv(s.s.get(), &conn, &one, 1, reply.data(), &len, service, capacity);
    };
    EXPECT_EQ(call(0x56), 0);
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(reply[4], 'x');
    conn.write_mode = 1;
    EXPECT_EQ(call(0x56), 0); // a failing general status is the caller's to judge
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(reply[2], 0x05);
    conn.write_mode = 0;
    EXPECT_EQ(call(0x55), 0);
    EXPECT_EQ(len, 4u);

    conn.sequence = 0xFFFF;
    reply.assign(reply.size(), 0xEE);
    len = 77;
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x55), -1);
    EXPECT_EQ(call(0x55), -1);
    EXPECT_EQ(call(0x55), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] MR_Reply is incorrect at line 854\r\n"
              "[PLC] DATASIZE is incorrect at line 868\r\n"
              "[PLC] MR_Reply is incorrect at line 854\r\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x55), -1);
    EXPECT_EQ(call(0x55), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(len, 77u);
    EXPECT_EQ(reply, std::vector<uint8_t>(65535, 0xEE));

    // The largest reply one message can carry, and the same into a small buffer.
    EXPECT_EQ(call(0x55), 0);
    EXPECT_EQ(len, 65513u);
    EXPECT_TRUE(std::equal(big_mr.begin(), big_mr.end(), reply.begin()));
    reply.assign(reply.size(), 0xEE);
    len = 77;
    EXPECT_EQ(call(0x55, 100), -1);
    EXPECT_EQ(len, 77u);
    EXPECT_EQ(reply, std::vector<uint8_t>(65535, 0xEE));

    s->timeout_us = 200000;
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x55), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "!Exiting ConnectedSend with no response\r\n");
    EXPECT_EQ(conn.sequence, 7); // advanced by every request, answered or not
    s.Close();

    const auto &captured = peer.captured();
    ASSERT_EQ(captured.size(), 11u);
    const uint16_t sequences[] = {0, 1, 2, 0xFFFF, 0, 1, 2, 3, 4, 5, 6};
    for (size_t i = 0; i < captured.size(); ++i) {
        ASSERT_EQ(captured[i].size(), 24u + 22u + 7u) << i;
        EXPECT_EQ(U16(captured[i], 0), kEncapSendUnitData);
        EXPECT_EQ(U16(captured[i], 44), sequences[i]) << i;
    }
    EXPECT_EQ(RouterRequest(captured[0]), (Bytes{0x56, 2, 0x20, 0x6D, 0x24, 0x00, 1}));
    EXPECT_EQ(U16(captured[0], 28), 0);
    EXPECT_EQ(RouterRequest(captured[1]), (Bytes{0x56, 2, 0x20, 0xB8, 0x24, 0x00, 1}));
    EXPECT_EQ(U16(captured[1], 28), 10);
    EXPECT_EQ(RouterRequest(captured[2]), (Bytes{0x55, 2, 0x20, 0xB8, 0x24, 0x00, 1}));
    EXPECT_EQ(U16(captured[2], 28), 10);
}

TEST(EipTransportTest, WholeMessagesOrNothing) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    // A message without a body is the header alone.
    WriteAll(pair[1], Message(kEncapSendUnitData, {}));
    auto m = CipRecvData(pair[0], 1000000);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->size(), 24u);
    // The largest body, sent by a writer that the receive has to wait for.
    Bytes body(65535);
    for (size_t i = 0; i < body.size(); ++i) body[i] = uint8_t(i);
    std::thread writer([&] { WriteAll(pair[1], Message(kEncapSendUnitData, body)); });
    m = CipRecvData(pair[0], 10000000);
    writer.join();
    ASSERT_TRUE(m);
    ASSERT_EQ(m->size(), 24u + 65535u);
    EXPECT_TRUE(std::equal(body.begin(), body.end(), m->begin() + 24));
    // Nothing, then half a header from a peer that goes away.
    EXPECT_FALSE(CipRecvData(pair[0], 100000));
    WriteAll(pair[1], Bytes(10, 0x70));
    close(pair[1]);
    EXPECT_FALSE(CipRecvData(pair[0], 10000000));
    EXPECT_EQ(_CIPEmptyBuffer(pair[0]), 0);
    close(pair[0]);
}
