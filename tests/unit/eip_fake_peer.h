// A scripted controller on 127.0.0.1 for the EtherNet/IP client tests, and
// builders for the messages it answers with.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "eip/eip_session.h"
#include "eip/wire.h"

namespace eiptest {

using Bytes = std::vector<uint8_t>;

// Header with `command` and `status`, the body's length (or a lying one), body.
inline Bytes Message(uint16_t command, const Bytes &body, int length = -1, uint32_t status = 0,
                     uint32_t handle = 0) {
    plc::wire::VecWriter w;
    w.u16(command).u16(uint16_t(length >= 0 ? length : int(body.size())));
    w.u32(handle).u32(status).zeros(12).bytes(body.data(), body.size());
    return w.take();
}

inline Bytes RegisterReply(uint32_t status, uint32_t handle) {
    return Message(plc::kEncapRegisterSession, {1, 0, 0, 0}, -1, status, handle);
}

// Interface handle, timeout, then two items whose lengths may lie.
inline Bytes CpfBody(uint16_t addr_type, const Bytes &addr, uint16_t data_type, const Bytes &data,
                     int data_length = -1) {
    plc::wire::VecWriter w;
    w.u32(0).u16(0).u16(2);
    w.u16(addr_type).u16(uint16_t(addr.size())).bytes(addr.data(), addr.size());
    w.u16(data_type).u16(uint16_t(data_length >= 0 ? data_length : int(data.size())));
    w.bytes(data.data(), data.size());
    return w.take();
}

inline Bytes RRReply(const Bytes &mr) {
    return Message(plc::kEncapSendRRData, CpfBody(0x0000, {}, 0x00B2, mr));
}

// A SendUnitData answer: address item with 0x11223344, data item with the
// sequence count and `mr`; its announced length may lie.
inline Bytes UnitReply(uint16_t sequence, const Bytes &mr, int data_length = -1) {
    Bytes data{uint8_t(sequence), uint8_t(sequence >> 8)};
    data.insert(data.end(), mr.begin(), mr.end());
    return Message(plc::kEncapSendUnitData,
                   CpfBody(0x00A1, {0x44, 0x33, 0x22, 0x11}, 0x00B1, data, data_length));
}

// Replaces every printed pointer ("0x" and hex digits) by "P", so that output
// carrying addresses can be compared exactly.
inline std::string MaskPointers(const std::string &text) {
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

// Waits at most 10 s for each piece so that a broken client cannot hang a test.
inline bool ReadExact(int fd, uint8_t *p, size_t n) {
    size_t got = 0;
    while (got < n) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, 10000) != 1) return false;
        const ssize_t r = recv(fd, p + got, n - got, 0);
        if (r <= 0) return false;
        got += size_t(r);
    }
    return true;
}

inline std::optional<Bytes> ReadMessage(int fd) {
    Bytes m(24);
    if (!ReadExact(fd, m.data(), 24)) return std::nullopt;
    const size_t length = m[2] | (m[3] << 8);
    m.resize(24 + length);
    if (!ReadExact(fd, m.data() + 24, length)) return std::nullopt;
    return m;
}

inline void WriteAll(int fd, const Bytes &b) {
    size_t sent = 0;
    while (sent < b.size()) {
        const ssize_t r = send(fd, b.data() + sent, b.size() - sent, MSG_NOSIGNAL);
        if (r <= 0) return;
        sent += size_t(r);
    }
}

inline bool WaitReadable(int fd) {
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, 10000) == 1;
}

// Accepts one client and runs `script` on it; captured requests are read
// after join(). When the script ends the peer waits for the client to close.
class FakePeer {
public:
    struct Conn {
        int fd;
        std::vector<Bytes> &captured;
        // Reads one request into `captured`; false when none came.
        bool Expect() {
            auto m = ReadMessage(fd);
            if (m) captured.push_back(std::move(*m));
            return bool(m);
        }
        void Send(const Bytes &b) { WriteAll(fd, b); }
    };
    using Script = std::function<void(Conn &)>;

    explicit FakePeer(Script script) {
        listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listen_fd_, reinterpret_cast<sockaddr *>(&a), sizeof a);
        listen(listen_fd_, 1);
        socklen_t len = sizeof a;
        getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this, script = std::move(script)] {
            pollfd pfd{listen_fd_, POLLIN, 0};
            if (poll(&pfd, 1, 10000) != 1) return;
            const int fd = accept(listen_fd_, nullptr, nullptr);
            if (fd < 0) return;
            Conn conn{fd, captured_};
            script(conn);
            uint8_t sink[4096];
            while (WaitReadable(fd) && recv(fd, sink, sizeof sink, 0) > 0) {
            }
            close(fd);
        });
    }
    // Replies in turn, one per request; an empty reply leaves the request unanswered.
    explicit FakePeer(std::vector<Bytes> replies)
        : FakePeer([replies = std::move(replies)](Conn &c) {
              for (const auto &reply : replies) {
                  if (!c.Expect()) return;
                  c.Send(reply);
              }
          }) {}
    ~FakePeer() {
        join();
        close(listen_fd_);
    }
    FakePeer(const FakePeer &) = delete;
    FakePeer &operator=(const FakePeer &) = delete;

    uint16_t port() const { return port_; }
    void join() {
        if (thread_.joinable()) thread_.join();
    }
    const std::vector<Bytes> &captured() {
        join();
        return captured_;
    }

private:
    int listen_fd_ = -1;
    uint16_t port_ = 0;
    std::vector<Bytes> captured_;
    std::thread thread_;
};

// A session that is closed when the test leaves its scope.
struct SessionGuard {
    std::unique_ptr<plc::EipSession> s;
    ~SessionGuard() { Close(); }
    void Close() { plc::CloseSession(std::move(s)); }
    plc::EipSession *operator->() { return s.get(); }
    plc::EipSession &operator*() { return *s; }
};

inline SessionGuard OpenLoopback(uint16_t port, int32_t timeout_us) {
    return SessionGuard{plc::_OpenSession("127.0.0.1", port, 1024, timeout_us)};
}

} // namespace eiptest
