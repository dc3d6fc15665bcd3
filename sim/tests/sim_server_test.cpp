// The simulator as a client sees it over loopback TCP: encapsulation and
// session rules, the connection manager, connected requests with their
// sequence counts, and robustness against garbage.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "sim/server.h"
#include "sim/tests/sim_requests.h"

using namespace plc::sim;
using namespace simtest;

namespace {

constexpr uint16_t kRegister = 0x65, kUnregister = 0x66, kRRData = 0x6F, kUnitData = 0x70;
constexpr uint32_t kToId = 0x9D9D0029;

Bytes Encap(uint16_t command, uint32_t session, const Bytes &body, uint32_t options = 0) {
    plc::wire::VecWriter w;
    w.u16(command).u16(uint16_t(body.size())).u32(session).u32(0);
    w.text("context!").u32(options).bytes(body.data(), body.size());
    return w.take();
}

Bytes RRBody(const Bytes &mr) {
    plc::wire::VecWriter w;
    w.u32(0).u16(0).u16(2).u16(0).u16(0).u16(0xB2).u16(uint16_t(mr.size()));
    w.bytes(mr.data(), mr.size());
    return w.take();
}

Bytes UnitBody(uint32_t ot_id, uint16_t sequence, const Bytes &mr) {
    plc::wire::VecWriter w;
    w.u32(0).u16(0).u16(2).u16(0xA1).u16(4).u32(ot_id);
    w.u16(0xB1).u16(uint16_t(mr.size() + 2)).u16(sequence).bytes(mr.data(), mr.size());
    return w.take();
}

Bytes Mr(uint8_t service, const Bytes &path, const Bytes &data) {
    plc::wire::VecWriter w;
    w.u8(service).u8(uint8_t(path.size() / 2)).bytes(path.data(), path.size());
    w.bytes(data.data(), data.size());
    return w.take();
}

const Bytes kCmPath = {0x20, 0x06, 0x24, 0x01};
const Bytes kRouterPath = {0x01, 0x00, 0x20, 0x02, 0x24, 0x01};

struct OpenParams {
    uint16_t serial = 0x0102;
    uint32_t params = 0x43F807CC;
    uint8_t transport = 0xA3;
    uint8_t multiplier = 7;
    Bytes path = kRouterPath;
};

Bytes ForwardOpen(const OpenParams &p) {
    plc::wire::VecWriter w;
    w.u8(6).u8(0x9A).u32(0x33000000).u32(kToId).u16(p.serial).u16(0x30).u32(0xC0A8015A);
    w.u8(p.multiplier).zeros(3).u32(7236392).u32(p.params).u32(7236392).u32(p.params);
    w.u8(p.transport).u8(uint8_t((p.path.size() + 1) / 2)).bytes(p.path.data(), p.path.size());
    return Mr(0x5B, kCmPath, w.take());
}

Bytes ForwardClose(uint16_t serial) {
    plc::wire::VecWriter w;
    w.u8(5).u8(0xF7).u16(serial).u16(0x30).u32(0xC0A8015A).u8(3).u8(0);
    w.bytes(kRouterPath.data(), kRouterPath.size());
    return Mr(0x4E, kCmPath, w.take());
}

struct Reply {
    uint16_t command = 0;
    uint32_t session = 0;
    uint32_t status = 0;
    Bytes body;
    // The message-router reply inside a SendRRData / SendUnitData reply.
    Bytes RRMr() const { return Bytes(body.begin() + 16, body.end()); }
    Bytes UnitMr() const { return Bytes(body.begin() + 22, body.end()); }
    uint32_t UnitConnection() const { return *plc::wire::Reader(body).u32_at(12); }
    uint16_t UnitSequence() const { return *plc::wire::Reader(body).u16_at(20); }
};

class Client {
public:
    explicit Client(uint16_t port) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        // A guard against a hung test, not a timing assertion.
        timeval guard{10, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    }
    ~Client() { close(fd_); }
    bool connected() const { return connected_; }

    void Send(const Bytes &bytes) {
        ASSERT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    }
    // One whole reply, or none when the simulator closed the connection.
    std::optional<Reply> Receive() {
        uint8_t header[24];
        if (!ReadExact(header, sizeof header)) return std::nullopt;
        plc::wire::Reader in(header, sizeof header);
        Reply r;
        r.command = in.u16();
        const uint16_t length = in.u16();
        r.session = in.u32();
        r.status = in.u32();
        r.body.resize(length);
        if (!ReadExact(r.body.data(), length)) return std::nullopt;
        return r;
    }
    std::optional<Reply> Exchange(uint16_t command, uint32_t session, const Bytes &body) {
        Send(Encap(command, session, body));
        return Receive();
    }
    uint32_t Register() {
        const auto r = Exchange(kRegister, 0, {1, 0, 0, 0});
        EXPECT_TRUE(r && r->status == 0 && r->session != 0);
        session_ = r ? r->session : 0;
        return session_;
    }
    Bytes RR(const Bytes &mr) {
        const auto r = Exchange(kRRData, session_, RRBody(mr));
        EXPECT_TRUE(r && r->status == 0 && r->body.size() >= 20);
        return r && r->body.size() >= 16 ? r->RRMr() : Bytes{};
    }
    // Opens a connection; its O->T id.
    uint32_t Open(uint16_t serial = 0x0102) {
        OpenParams p;
        p.serial = serial;
        const Bytes mr = RR(ForwardOpen(p));
        EXPECT_TRUE(mr.size() == 30 && mr[0] == 0xDB && mr[2] == 0);
        return mr.size() == 30 ? *plc::wire::Reader(mr).u32_at(4) : 0;
    }
    std::optional<Reply> Unit(uint32_t ot_id, uint16_t sequence, const Bytes &mr) {
        return Exchange(kUnitData, session_, UnitBody(ot_id, sequence, mr));
    }

private:
    bool ReadExact(uint8_t *p, size_t n) {
        while (n) {
            const ssize_t got = recv(fd_, p, n, 0);
            if (got <= 0) return false;
            p += got;
            n -= size_t(got);
        }
        return true;
    }
    int fd_ = -1;
    bool connected_ = false;
    uint32_t session_ = 0;
};

// General status and first extended status word of a message-router reply.
std::pair<uint8_t, uint16_t> Status(const Bytes &mr) {
    plc::wire::Reader in(mr);
    in.skip(2);
    const uint8_t general = in.u8();
    const uint8_t words = in.u8();
    return {general, words ? in.u16() : uint16_t(0)};
}

class SimServer : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(shared_.store.Declare("Counter", *FindType("DINT"), {}, 0, &error));
        stats_path_ = ::testing::TempDir() + "sim_server_stats.txt";
        ServerOptions options;
        options.port = 0;
        server_ = std::make_unique<Server>(options, shared_, stats_, &stats_file_);
        ASSERT_TRUE(server_->Start(&error)) << error;
        port_ = server_->port();
    }
    void TearDown() override {
        server_->Stop();
        std::remove(stats_path_.c_str());
    }

    SharedStore shared_;
    Stats stats_;
    std::string stats_path_ = ::testing::TempDir() + "sim_server_stats.txt";
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
    r = c.Exchange(kRegister, 0, {2, 0, 0, 0});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x69u);
    EXPECT_EQ(r->session, 0u);
    r = c.Exchange(kRegister, 0, {1, 0, 1, 0});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x69u);
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
    r = c.Exchange(0x63, session, {});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->command, 0x63);
    EXPECT_EQ(r->status, 0x01u);

    Bytes one_item = RRBody(ForwardClose(1));
    one_item[6] = 1;
    r = c.Exchange(kRRData, session, one_item);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x03u);
    Bytes trailing = RRBody(ForwardClose(1));
    trailing.push_back(0);
    r = c.Exchange(kRRData, session, trailing);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x03u);
    c.Send(Encap(kRRData, session, RRBody(ForwardClose(1)), 1)); // options must be 0
    r = c.Receive();
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x03u);
    r = c.Exchange(kUnitData, session, UnitBody(1, 0, {}));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 0x03u);

    c.Send(Encap(kUnregister, session, {}));
    EXPECT_FALSE(c.Receive()); // no reply; the connection is closed
    EXPECT_EQ(stats_.sessions_registered, 1u);
    EXPECT_EQ(stats_.sessions_open, 0u);
    std::ifstream in(stats_path_);
    std::stringstream published;
    published << in.rdbuf();
    EXPECT_NE(published.str().find("sessions_registered 1\n"), std::string::npos);
    EXPECT_NE(published.str().find("errors 11\n"), std::string::npos) << published.str();
}

TEST_F(SimServer, ForwardOpenValidatesAndForwardCloseFindsTheTripleFromAnySession) {
    auto a = std::make_unique<Client>(port_);
    a->Register();
    const auto refused = [&](const OpenParams &p) { return Status(a->RR(ForwardOpen(p))); };
    OpenParams p;
    p.path = {0x01, 0x00, 0x20, 0x02, 0x24, 0x02};
    EXPECT_EQ(refused(p), std::make_pair(uint8_t(0x01), uint16_t(0x0315)));
    p = OpenParams{};
    p.transport = 0x01;
    EXPECT_EQ(refused(p), std::make_pair(uint8_t(0x01), uint16_t(0x0103)));
    p = OpenParams{};
    p.params = 0x00004302; // null connection type
    EXPECT_EQ(refused(p), std::make_pair(uint8_t(0x01), uint16_t(0x0108)));
    p.params = 0x43F80000; // size 0
    EXPECT_EQ(refused(p), std::make_pair(uint8_t(0x01), uint16_t(0x0109)));
    p = OpenParams{};
    p.multiplier = 8;
    EXPECT_EQ(refused(p), std::make_pair(uint8_t(0x01), uint16_t(0x0205)));
    Bytes short_open = ForwardOpen(OpenParams{});
    short_open.pop_back();
    EXPECT_EQ(Status(a->RR(short_open)).first, 0x13);
    Bytes other_class = ForwardOpen(OpenParams{});
    other_class[3] = 0x07;
    EXPECT_EQ(Status(a->RR(other_class)).first, 0x05);
    Bytes small_open = ForwardOpen(OpenParams{});
    small_open[0] = 0x54;
    EXPECT_EQ(Status(a->RR(small_open)).first, 0x08);

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
    EXPECT_EQ(Bytes(duplicate.begin() + 6, duplicate.begin() + 10), (Bytes{0x02, 0x01, 0x30, 0x00}));
    a->Open(0x0200);
    EXPECT_EQ(stats_.connections_open, 2u);

    a.reset(); // gone without UnRegisterSession: its connections stay open
    Client b(port_);
    b.Register();
    const Bytes closed = b.RR(ForwardClose(0x0102));
    EXPECT_EQ(closed, (Bytes{0xCE, 0, 0, 0, 0x02, 0x01, 0x30, 0x00, 0x5A, 0x01, 0xA8, 0xC0, 0, 0}));
    EXPECT_EQ(stats_.connections_open, 1u);
    EXPECT_EQ(Status(b.RR(ForwardClose(0x0102))), std::make_pair(uint8_t(0x01), uint16_t(0x0107)));
    EXPECT_NE(b.Open(0x0102), 0u);
}

TEST_F(SimServer, ConnectedRequestsEchoTheSequenceAndReplayRetransmissions) {
    Client c(port_);
    c.Register();
    const uint32_t ot_id = c.Open();
    ASSERT_NE(ot_id, 0u);

    auto r = c.Unit(ot_id, 0, Mr(0x56, {0x20, 0x6D, 0x24, 0x00}, ResolveRequest({"Counter"})));
    ASSERT_TRUE(r);
    EXPECT_EQ(r->UnitConnection(), kToId);
    EXPECT_EQ(r->UnitSequence(), 0);
    const Bytes resolved = r->UnitMr();
    ASSERT_EQ(resolved.size(), 40u);
    EXPECT_EQ(Status(resolved).first, 0x00);
    const uint32_t token = *plc::wire::Reader(resolved).u32_at(6);
    Handle handle{};
    std::copy_n(resolved.begin() + 16, 10, handle.begin());

    const Bytes path = {0x20, 0xB8, 0x24, 0x00};
    const auto write = [&](uint16_t seq, uint8_t value) {
        return c.Unit(ot_id, seq, Mr(0x56, path, WriteRequest(token, 4, handle, 0, 32, {value, 0, 0, 0})));
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
    EXPECT_EQ(stats_.write_requests, 2u);

    const Bytes read = Mr(0x55, path, ReadRequest(token, {{handle, 0, 32}}));
    r = c.Unit(ot_id, 7, read); // a gap is executed, and counted
    ASSERT_TRUE(r);
    EXPECT_EQ(r->UnitSequence(), 7);
    EXPECT_EQ(r->UnitMr(), (Bytes{0xD5, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(stats_.sequence_anomalies, 2u);

    r = c.Unit(ot_id ^ 0x10000, 8, read);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->UnitConnection(), 0u);
    EXPECT_EQ(r->UnitMr(), (Bytes{0xD5, 0, 0x01, 1, 0x07, 0x01}));
    Client other(port_);
    other.Register();
    r = other.Unit(ot_id, 0, read); // another session's connection
    ASSERT_TRUE(r);
    EXPECT_EQ(Status(r->UnitMr()), std::make_pair(uint8_t(0x01), uint16_t(0x0107)));
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
