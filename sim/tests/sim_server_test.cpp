// The simulator as a client sees it over loopback: encapsulation and session
// rules, discovery, the connection manager, connected requests with their
// sequence counts, connections ending with their session or their timeout,
// and robustness against garbage.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "sim/server.h"
#include "sim/tests/sim_client.h"

using namespace plc::sim;
using namespace simtest;

namespace {

class SimServer : public ::testing::Test {
protected:
    void SetUp() override { Start(ServerOptions{}); }
    void Start(ServerOptions options) {
        if (server_) server_->Stop();
        std::string error;
        if (shared_.store.size() == 0) {
            ASSERT_TRUE(shared_.store.Declare("Counter", *FindType("DINT"), {}, 0, &error));
        }
        options.port = 0;
        server_ = std::make_unique<Server>(options, shared_, stats_, &stats_file_);
        ASSERT_TRUE(server_->Start(&error)) << error;
        port_ = server_->port();
    }
    void TearDown() override {
        server_->Stop();
        std::remove(stats_path_.c_str());
    }
    // Waits (bounded, not timed) until the counter reaches the value.
    bool Eventually(const std::atomic<uint64_t> &counter, uint64_t value) {
        for (int i = 0; i < 500 && counter != value; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return counter == value;
    }

    SharedStore shared_;
    Stats stats_;
    // One file per process: CTest runs the tests of this fixture side by side.
    std::string stats_path_ =
        ::testing::TempDir() + "sim_server_stats_" + std::to_string(::getpid()) + ".txt";
    PublishedFile stats_file_{stats_path_};
    std::unique_ptr<Server> server_;
    uint16_t port_ = 0;
};

} // namespace

TEST_F(SimServer, SessionRulesAndEncapsulationErrors) {
    Client c(port_);
    ASSERT_TRUE(c.connected());
    auto r = c.Exchange(kRRData, 0, RRBody(ForwardClose(1)));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x64u); // no session yet
    // An unsupported version is answered with the one served.
    for (const Bytes &request : {Bytes{2, 0, 0, 0}, Bytes{1, 0, 1, 0}}) {
        r = c.Exchange(kRegister, 0, request);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 0x69u);
        EXPECT_EQ(r->session, 0u);
        EXPECT_EQ(r->body, (Bytes{1, 0, 0, 0}));
    }
    r = c.Exchange(kRegister, 0, {1, 0});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x65u);

    const uint32_t session = c.Register();
    ASSERT_NE(session, 0u);
    r = c.Exchange(kRegister, 0, {1, 0, 0, 0});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x01u); // one session per TCP connection
    r = c.Exchange(kRRData, session ^ 1, RRBody(ForwardClose(1)));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x64u);
    r = c.Exchange(0x61, session, {});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->command, 0x61);
    EXPECT_EQ(r->status, 0x01u);

    Bytes one_item = RRBody(ForwardClose(1));
    one_item[6] = 1;
    Bytes trailing = RRBody(ForwardClose(1));
    trailing.push_back(0);
    const std::pair<uint16_t, Bytes> malformed[] = {
        {kRRData, one_item}, {kRRData, trailing}, {kUnitData, UnitBody(1, 0, {})}};
    for (const auto &[command, body] : malformed) {
        r = c.Exchange(command, session, body);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 0x03u);
    }
    // UnRegisterSession is never answered, not even for another session.
    c.Send(Encap(kUnregister, session ^ 1, {}));
    // Options set: discarded without a word; the next message is answered.
    c.Send(Encap(kRRData, session, RRBody(ForwardClose(1)), 1));
    r = c.Exchange(kListServices, 0, {});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->command, kListServices);

    c.Send(Encap(kUnregister, session, {}));
    EXPECT_FALSE(c.Receive()); // no reply; the connection is closed
    EXPECT_EQ(stats_.sessions_registered, 1u);
    EXPECT_EQ(stats_.register_requests, 5u);
    EXPECT_EQ(stats_.sessions_open, 0u);
    std::ifstream in(stats_path_);
    std::stringstream published;
    published << in.rdbuf();
    EXPECT_NE(published.str().find("sessions_registered 1\n"), std::string::npos);
    EXPECT_NE(published.str().find("errors 10\n"), std::string::npos) << published.str();
}

TEST_F(SimServer, DiscoveryAndIdentityAnswerWithoutAConnection) {
    Client c(port_);
    auto r = c.Exchange(kListIdentity, 0, {});
    ASSERT_TRUE(r);
    const Bytes identity = r->body;
    plc::wire::Reader id(identity);
    EXPECT_EQ(id.u16(), 1u);    // one item
    EXPECT_EQ(id.u16(), 0x0Cu); // CIP identity
    const uint16_t length = id.u16();
    EXPECT_EQ(length, id.remaining());
    EXPECT_EQ(id.u16(), 1u); // encapsulation version
    // The socket address in network order: family 2, the port, 127.0.0.1.
    EXPECT_EQ(Bytes(id.here(), id.here() + 8),
              (Bytes{0, 2, uint8_t(port_ >> 8), uint8_t(port_), 127, 0, 0, 1}));
    r = c.Exchange(kListServices, 0, {});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->body.size(), 26u);
    EXPECT_EQ(Bytes(r->body.begin(), r->body.begin() + 10),
              (Bytes{1, 0, 0, 1, 20, 0, 1, 0, 0x20, 0}));
    r = c.Exchange(kListInterfaces, 0, {});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->body, (Bytes{0, 0}));

    c.Register();
    const Bytes all = c.RR(Mr(0x01, kIdentityPath));
    ASSERT_GE(all.size(), 4u + 15);
    EXPECT_EQ(Status(all).first, 0x00);
    EXPECT_EQ(Bytes(all.begin() + 4, all.begin() + 6), (Bytes(id.here() + 16, id.here() + 18)));
    struct Case {
        Bytes mr;
        uint8_t general;
        Bytes data;
    };
    const Case cases[] = {
        {Mr(0x0E, {0x20, 0x01, 0x24, 0x01, 0x30, 0x02}), 0x00, {0x0E, 0x00}}, // device type
        {Mr(0x0E, {0x20, 0x01, 0x24, 0x00, 0x30, 0x02}), 0x00, {0x01, 0x00}}, // max instance
        {Mr(0x0E, {0x20, 0x01, 0x24, 0x01, 0x30, 0x09}), 0x14, {}},
        {Mr(0x0E, {0x20, 0x01, 0x24, 0x02, 0x30, 0x01}), 0x05, {}},
        {Mr(0x10, {0x20, 0x01, 0x24, 0x01, 0x30, 0x01}), 0x08, {}},
        {Mr(0x01, {0x20, 0x42, 0x24, 0x01}), 0x05, {}},
        {Mr(0x01, {0x91, 0x02, 'A', 'B'}), 0x04, {}},
        {Mr(0x55, kVariablePath), 0x08, {}}, // variables need a connection
        // Unconnected_Send routed to slot 2 of the backplane: not us.
        {Mr(0x52, kCmPath,
            {0x0A, 0xF0, 8, 0, 0x0E, 3, 0x20, 0x01, 0x24, 0x01, 0x30, 0x02, 1, 0, 0x01, 0x02}),
         0x01,
         {0x12, 0x03, 1}},
    };
    // Routed to this controller's own slot, the embedded request is answered
    // with its own service.
    const Bytes routed =
        c.RR(Mr(0x52, kCmPath,
                {0x0A, 0xF0, 8, 0, 0x0E, 3, 0x20, 0x01, 0x24, 0x01, 0x30, 0x02, 1, 0, 0x01, 0x00}));
    EXPECT_EQ(routed, (Bytes{0x8E, 0, 0, 0, 0x0E, 0x00}));
    // Delivered here, it is not routed on: nesting would have no end.
    const Bytes inner =
        Mr(0x52, kCmPath,
           {0x0A, 0xF0, 8, 0, 0x0E, 3, 0x20, 0x01, 0x24, 0x01, 0x30, 0x02, 1, 0, 0x01, 0x00});
    Bytes outer = {0x0A, 0xF0, uint8_t(inner.size()), 0};
    outer.insert(outer.end(), inner.begin(), inner.end());
    if (inner.size() & 1) outer.push_back(0);
    outer.insert(outer.end(), {1, 0, 0x01, 0x00});
    EXPECT_EQ(Status(c.RR(Mr(0x52, kCmPath, outer))).first, 0x08);
    for (const Case &k : cases) {
        const Bytes mr = c.RR(k.mr);
        SCOPED_TRACE(HexBytes(k.mr));
        EXPECT_EQ(Status(mr).first, k.general);
        EXPECT_EQ(Bytes(mr.begin() + 4, mr.end()), k.data);
    }
    EXPECT_EQ(stats_.discovery_requests, 3u);
}

TEST_F(SimServer, ForwardOpensOfBothSizesAndAnyPathToTheRouter) {
    Client a(port_);
    a.Register();
    const auto status = [&](const OpenParams &p) { return Status(a.RR(ForwardOpen(p))); };
    struct Case {
        OpenParams p;
        std::pair<uint8_t, uint16_t> expect;
    };
    const auto with = [](auto change) {
        OpenParams p;
        change(p);
        return p;
    };
    const Case cases[] = {
        {with([](OpenParams &p) { p.path = {0x01, 0x00, 0x20, 0x02, 0x24, 0x02}; }),
         {0x01, 0x0315}},
        {with([](OpenParams &p) { p.path = {0x02, 0x00, 0x20, 0x02, 0x24, 0x01}; }),
         {0x01, 0x0311}},
        {with([](OpenParams &p) { p.path = {0x01, 0x03, 0x20, 0x02, 0x24, 0x01}; }),
         {0x01, 0x0312}},
        {with([](OpenParams &p) { p.transport = 0x01; }), {0x01, 0x0103}},
        {with([](OpenParams &p) { p.params = 0x00004302; }), {0x01, 0x0108}}, // null type
        {with([](OpenParams &p) { p.params = 0x43F80000; }), {0x01, 0x0109}}, // size 0
        {with([](OpenParams &p) { p.multiplier = 8; }), {0x01, 0x0205}},
        {with([](OpenParams &p) {
             p.service = 0x54;
             p.params = 0x4200;
         }),
         {0x01, 0x0109}},
        // Accepted, each closed again right away.
        {with([](OpenParams &p) {
             p.path = {0x20, 0x02, 0x24, 0x01};
         }),
         {0x00, 0}},
        {with([](OpenParams &p) { p.path = {0x21, 0x00, 0x02, 0x00, 0x25, 0x00, 0x01, 0x00}; }),
         {0x00, 0}},
        {with([](OpenParams &p) {
             p.service = 0x54;
             p.params = 0x43F4;
         }),
         {0x00, 0}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(HexBytes(ForwardOpen(k.p)));
        EXPECT_EQ(status(k.p), k.expect);
        if (k.expect.first == 0) {
            EXPECT_EQ(Status(a.RR(ForwardClose(k.p.serial))).first, 0x00);
        }
    }
    Bytes short_open = ForwardOpen(OpenParams{});
    short_open.pop_back();
    EXPECT_EQ(Status(a.RR(short_open)).first, 0x13);
    Bytes other_instance = ForwardOpen(OpenParams{});
    other_instance[5] = 0x02;
    EXPECT_EQ(Status(a.RR(other_instance)).first, 0x05);
}

TEST_F(SimServer, ConnectionsEndWithTheirSessionAndForwardCloseFindsAnyTriple) {
    auto a = std::make_unique<Client>(port_);
    a->Register();
    const Bytes open = a->RR(ForwardOpen(OpenParams{}));
    ASSERT_EQ(open.size(), 30u);
    EXPECT_EQ(open[0], 0xDB);
    plc::wire::Reader in(open);
    in.skip(4);
    EXPECT_NE(in.u32(), 0u);
    EXPECT_EQ(in.u32(), kToId);
    EXPECT_EQ(in.u16(), 0x0102);
    EXPECT_EQ(in.u16(), 0x0030);
    EXPECT_EQ(in.u32(), 0xC0A8015Au);
    EXPECT_EQ(in.u32(), 7236392u);
    EXPECT_EQ(in.u32(), 7236392u);
    EXPECT_EQ(in.u16(), 0u);
    const Bytes duplicate = a->RR(ForwardOpen(OpenParams{}));
    EXPECT_EQ(Status(duplicate), std::make_pair(uint8_t(0x01), uint16_t(0x0100)));
    EXPECT_EQ(Bytes(duplicate.begin() + 6, duplicate.begin() + 10),
              (Bytes{0x02, 0x01, 0x30, 0x00}));
    a->Open(0x0200);
    Client b(port_);
    b.Register();
    b.Open(0x0300);
    EXPECT_EQ(stats_.connections_open, 3u);
    // Another session's Forward_Close finds the triple.
    const Bytes closed = b.RR(ForwardClose(0x0102));
    EXPECT_EQ(closed, (Bytes{0xCE, 0, 0, 0, 0x02, 0x01, 0x30, 0x00, 0x5A, 0x01, 0xA8, 0xC0, 0, 0}));
    EXPECT_EQ(stats_.connections_open, 2u);

    a.reset(); // gone without UnRegisterSession: its connection goes too
    EXPECT_TRUE(Eventually(stats_.connections_open, 1u));
    EXPECT_EQ(Status(b.RR(ForwardClose(0x0200))), std::make_pair(uint8_t(0x01), uint16_t(0x0107)));
    b.Send(Encap(kUnregister, b.session(), {}));
    EXPECT_FALSE(b.Receive());
    EXPECT_TRUE(Eventually(stats_.connections_open, 0u));
}

TEST_F(SimServer, ConnectedRequestsEchoTheSequenceAndReplayRetransmissions) {
    Client c(port_);
    c.Register();
    const uint32_t ot_id = c.Open();
    ASSERT_NE(ot_id, 0u);

    auto r = c.Unit(ot_id, 0, Mr(0x56, kResolvePath, ResolveRequest({"Counter"})));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->UnitConnection(), kToId);
    EXPECT_EQ(r->UnitSequence(), 0);
    const Bytes resolved = r->UnitMr();
    ASSERT_EQ(resolved.size(), 40u);
    EXPECT_EQ(Status(resolved).first, 0x00);
    const uint32_t token = *plc::wire::Reader(resolved).u32_at(6);
    Handle handle{};
    std::copy_n(resolved.begin() + 16, 10, handle.begin());

    const auto write = [&](uint16_t seq, uint8_t value) {
        return c.Unit(
            ot_id, seq,
            Mr(0x56, kVariablePath, WriteRequest(token, 4, handle, 0, 32, {value, 0, 0, 0})));
    };
    r = write(1, 1);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->UnitMr(), (Bytes{0xD6, 0, 0, 0}));
    const auto second = write(2, 2);
    ASSERT_TRUE(second);
    // Same sequence count again: the earlier reply, and nothing written.
    const auto again = write(2, 3);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->body, second->body);
    {
        std::lock_guard<std::mutex> lock(shared_.mutex);
        EXPECT_EQ(shared_.store.GetInteger(0, 0), 2);
    }
    EXPECT_EQ(stats_.retransmissions, 1u);
    EXPECT_EQ(stats_.sequence_anomalies, 1u);
    EXPECT_EQ(stats_.write_requests, 3u);

    const Bytes read = Mr(0x55, kVariablePath, ReadRequest(token, {{handle, 0, 32}}));
    r = c.Unit(ot_id, 7, read); // a gap is executed, and counted
    ASSERT_TRUE(r);
    EXPECT_EQ(r->UnitSequence(), 7);
    EXPECT_EQ(r->UnitMr(), (Bytes{0xD5, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(stats_.sequence_anomalies, 2u);
    r = c.Unit(ot_id, 8, Mr(0x0E, {0x20, 0x01, 0x24, 0x01, 0x30, 0x01})); // identity, connected
    ASSERT_TRUE(r);
    EXPECT_EQ(Status(r->UnitMr()).first, 0x00);

    // A connection that is not ours: dropped without a word.
    c.Send(Encap(kUnitData, c.session(), UnitBody(ot_id ^ 0x10000, 9, read)));
    Client other(port_);
    other.Register();
    other.Send(Encap(kUnitData, other.session(), UnitBody(ot_id, 0, read)));
    r = c.Exchange(kListServices, 0, {});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->command, kListServices);
    EXPECT_TRUE(Eventually(stats_.dropped_requests, 2u));
}

TEST_F(SimServer, UnknownConnectionsAnsweredWhenAskedAndIdleConnectionsClosed) {
    ServerOptions options;
    options.answer_unknown_connections = true;
    options.connection_timeout = std::chrono::milliseconds(50);
    Start(options);
    Client c(port_);
    c.Register();
    const uint32_t ot_id = c.Open();
    auto r = c.Unit(ot_id ^ 0x10000, 0, Mr(0x55, kVariablePath));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->UnitConnection(), 0u);
    EXPECT_EQ(r->UnitMr(), (Bytes{0xD5, 0, 0x01, 1, 0x07, 0x01}));
    EXPECT_TRUE(Eventually(stats_.connections_timed_out, 1u));
    EXPECT_EQ(stats_.connections_open, 0u);
    r = c.Unit(ot_id, 0, Mr(0x55, kVariablePath));
    ASSERT_TRUE(r);
    EXPECT_EQ(Status(r->UnitMr()), std::make_pair(uint8_t(0x01), uint16_t(0x0107)));
}

TEST_F(SimServer, SilentClientsAreClosedUnlessTheyHoldAConnection) {
    ServerOptions options;
    options.inactivity_timeout = std::chrono::milliseconds(200);
    Start(options);
    Client idle(port_), half(port_), holder(port_);
    half.Send({0x65, 0, 4});
    holder.Register();
    holder.Open();
    EXPECT_TRUE(idle.ClosedByPeer());
    EXPECT_TRUE(half.ClosedByPeer()) << "a message begun and never finished";
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    const auto r = holder.Exchange(kListServices, 0, {});
    ASSERT_TRUE(r) << "closed although its session holds a connection";
    EXPECT_EQ(r->command, kListServices);
}

TEST(SimConnectionTimeout, IsTheRpiTimesTheCodedMultiplier) {
    using std::chrono::microseconds;
    EXPECT_EQ(ConnectionTimeout(10000, 0), microseconds(40000));
    EXPECT_EQ(ConnectionTimeout(10000, 1), microseconds(80000));
    EXPECT_EQ(ConnectionTimeout(7236392, 7), microseconds(3705032704));
}

TEST_F(SimServer, GarbageGetsAnErrorOrADisconnectAndOthersAreStillServed) {
    Client g(port_);
    Bytes junk(24 + 3, 0xA5);
    junk[2] = 3; // length 3: a whole message of an unknown command
    junk[3] = 0;
    std::fill(junk.begin() + 20, junk.begin() + 24, 0); // options
    g.Send(junk);
    auto r = g.Receive();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->command, 0xA5A5);
    EXPECT_EQ(r->status, 0x01u);
    EXPECT_TRUE(r->body.empty());
    // A maximal length of noise without a session.
    g.Send(Encap(kRRData, 0x11111111, Bytes(0xFFFF, 0xEE)));
    r = g.Receive();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x64u);

    Client partial(port_); // announces a body that never comes
    partial.Send(Bytes{0x6F, 0x00, 0x40, 0x00, 1, 2, 3});
    Client reg(port_);
    reg.Register();
    const uint32_t ot_id = reg.Open();
    ASSERT_NE(ot_id, 0u);
    // Truncated connected data and an unparseable message-router request.
    auto u = reg.Unit(ot_id, 0, {0x55, 0x05, 0x20});
    ASSERT_TRUE(u);
    EXPECT_EQ(Status(u->UnitMr()).first, 0x04);
    // TearDown stops the server with `partial` still in the middle of a message.
}
