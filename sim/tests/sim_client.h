// A bare EtherNet/IP client over loopback TCP for the simulator's tests, and
// the request bytes it sends, built here independently of the simulator.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <utility>

#include "sim/tests/sim_requests.h"

namespace simtest {

constexpr uint16_t kRegister = 0x65, kUnregister = 0x66, kRRData = 0x6F, kUnitData = 0x70;
constexpr uint16_t kListServices = 0x04, kListIdentity = 0x63, kListInterfaces = 0x64;
constexpr uint32_t kToId = 0x9D9D0029;

inline Bytes Encap(uint16_t command, uint32_t session, const Bytes &body, uint32_t options = 0) {
    plc::wire::VecWriter w;
    w.u16(command).u16(uint16_t(body.size())).u32(session).u32(0);
    w.text("context!").u32(options).bytes(body.data(), body.size());
    return w.take();
}

inline Bytes RRBody(const Bytes &mr) {
    plc::wire::VecWriter w;
    w.u32(0).u16(0).u16(2).u16(0).u16(0).u16(0xB2).u16(uint16_t(mr.size()));
    w.bytes(mr.data(), mr.size());
    return w.take();
}

inline Bytes UnitBody(uint32_t ot_id, uint16_t sequence, const Bytes &mr) {
    plc::wire::VecWriter w;
    w.u32(0).u16(0).u16(2).u16(0xA1).u16(4).u32(ot_id);
    w.u16(0xB1).u16(uint16_t(mr.size() + 2)).u16(sequence).bytes(mr.data(), mr.size());
    return w.take();
}

inline Bytes Mr(uint8_t service, const Bytes &path, const Bytes &data = {}) {
    plc::wire::VecWriter w;
    w.u8(service).u8(uint8_t(path.size() / 2)).bytes(path.data(), path.size());
    w.bytes(data.data(), data.size());
    return w.take();
}

const Bytes kCmPath = {0x20, 0x06, 0x24, 0x01};
const Bytes kRouterPath = {0x01, 0x00, 0x20, 0x02, 0x24, 0x01};
const Bytes kIdentityPath = {0x20, 0x01, 0x24, 0x01};
const Bytes kVariablePath = {0x20, 0xB8, 0x24, 0x00};
const Bytes kResolvePath = {0x20, 0x6D, 0x24, 0x00};

struct OpenParams {
    uint8_t service = 0x5B;
    uint16_t serial = 0x0102;
    uint32_t params = 0x43F807CC; // the small form takes the low 16 bits
    uint8_t transport = 0xA3;
    uint8_t multiplier = 7;
    uint32_t rpi = 7236392;
    Bytes path = kRouterPath;
};

inline Bytes ForwardOpen(const OpenParams &p) {
    const bool large = p.service == 0x5B;
    plc::wire::VecWriter w;
    w.u8(6).u8(0x9A).u32(0x33000000).u32(kToId).u16(p.serial).u16(0x30).u32(0xC0A8015A);
    w.u8(p.multiplier).zeros(3).u32(p.rpi);
    large ? w.u32(p.params) : w.u16(uint16_t(p.params));
    w.u32(p.rpi);
    large ? w.u32(p.params) : w.u16(uint16_t(p.params));
    w.u8(p.transport).u8(uint8_t((p.path.size() + 1) / 2)).bytes(p.path.data(), p.path.size());
    return Mr(p.service, kCmPath, w.take());
}

inline Bytes ForwardClose(uint16_t serial) {
    plc::wire::VecWriter w;
    w.u8(5).u8(0xF7).u16(serial).u16(0x30).u32(0xC0A8015A).u8(3).u8(0);
    w.bytes(kRouterPath.data(), kRouterPath.size());
    return Mr(0x4E, kCmPath, w.take());
}

struct Reply {
    uint16_t command = 0;
    uint16_t length = 0; // as the header announces it
    uint32_t session = 0;
    uint32_t status = 0;
    Bytes body;
    // The message-router reply inside a SendRRData / SendUnitData reply.
    Bytes RRMr() const { return Bytes(body.begin() + 16, body.end()); }
    Bytes UnitMr() const { return Bytes(body.begin() + 22, body.end()); }
    uint32_t UnitConnection() const { return *plc::wire::Reader(body).u32_at(12); }
    uint16_t UnitSequence() const { return *plc::wire::Reader(body).u16_at(20); }
};

// General status and first extended status word of a message-router reply.
inline std::pair<uint8_t, uint16_t> Status(const Bytes &mr) {
    plc::wire::Reader in(mr);
    in.skip(2);
    const uint8_t general = in.u8();
    const uint8_t words = in.u8();
    return {general, words ? in.u16() : uint16_t(0)};
}

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
    uint32_t session() const { return session_; }

    void Send(const Bytes &bytes) {
        ASSERT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    }
    // Exactly n bytes, or none when the simulator closed the connection.
    std::optional<Bytes> Raw(size_t n) {
        Bytes b(n);
        if (!ReadExact(b.data(), n)) return std::nullopt;
        return b;
    }
    // One whole reply (the header's length of body), or none.
    std::optional<Reply> Receive() {
        const auto header = Raw(24);
        if (!header) return std::nullopt;
        plc::wire::Reader in(*header);
        Reply r;
        r.command = in.u16();
        r.length = in.u16();
        r.session = in.u32();
        r.status = in.u32();
        const auto body = Raw(r.length);
        if (!body) return std::nullopt;
        r.body = *body;
        return r;
    }
    // Whether the simulator closes the connection (rather than the guard
    // running out) before anything arrives.
    bool ClosedByPeer() {
        uint8_t byte;
        return recv(fd_, &byte, 1, 0) == 0;
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

} // namespace simtest
