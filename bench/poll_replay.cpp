// poll-replay: the smallest controller the everyday poll can talk to. Once, as
// a recording proxy between a client and plc-sim, it writes every request and
// the simulator's reply to a file; then it answers from that file, so that the
// bench sets the driver and a bare client loop against a server that costs
// next to nothing and answers both alike.
//
//   poll-replay --record FILE --upstream PORT [--port N]   one client, then exits
//   poll-replay --replay FILE [--port N]                    until killed
//
// A request is known by its encapsulation command and, for SendRRData, its
// service, for SendUnitData, its message-router request: the session handle,
// the connection id and the sequence count are not part of it. A reply goes
// out as recorded, with the request's session handle and sequence count in it.
// Single-threaded; listens on 127.0.0.1 only.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kHeader = 24;
constexpr uint16_t kUnregisterSession = 0x66;
constexpr uint16_t kSendRRData = 0x6F;
constexpr uint16_t kSendUnitData = 0x70;
// Offsets in a message with the two items of this protocol.
constexpr size_t kSessionAt = 4;
constexpr size_t kUnconnectedServiceAt = 40; // behind the null address and data item headers
constexpr size_t kSequenceAt = 44;           // behind the connected address item
constexpr size_t kConnectedRequestAt = 46;

uint16_t u16(const Bytes &b, size_t at) { return uint16_t(b[at] | b[at + 1] << 8); }

int fail(const char *what) {
    std::fprintf(stderr, "poll-replay: %s: %s\n", what, std::strerror(errno));
    return 1;
}

bool read_exact(int fd, uint8_t *dst, size_t n) {
    while (n > 0) {
        const ssize_t r = ::recv(fd, dst, n, 0);
        if (r > 0) {
            dst += r;
            n -= size_t(r);
        } else if (r == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool write_all(int fd, const uint8_t *src, size_t n) {
    while (n > 0) {
        const ssize_t r = ::send(fd, src, n, MSG_NOSIGNAL);
        if (r > 0) {
            src += r;
            n -= size_t(r);
        } else if (r == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

// One whole encapsulation message, or false at the end of the stream.
bool read_message(int fd, Bytes &m) {
    m.resize(kHeader);
    if (!read_exact(fd, m.data(), kHeader)) return false;
    m.resize(kHeader + u16(m, 2));
    return read_exact(fd, m.data() + kHeader, m.size() - kHeader);
}

std::string key_of(const Bytes &m) {
    const uint16_t command = u16(m, 0);
    std::string key(reinterpret_cast<const char *>(m.data()), 2);
    if (command == kSendRRData && m.size() > kUnconnectedServiceAt)
        key += char(m[kUnconnectedServiceAt]);
    if (command == kSendUnitData && m.size() > kConnectedRequestAt)
        key.append(reinterpret_cast<const char *>(m.data()) + kConnectedRequestAt,
                   m.size() - kConnectedRequestAt);
    return key;
}

int listen_on(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    const int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(fd, 8) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int accept_client(int listener) {
    const int fd = ::accept(listener, nullptr, nullptr);
    if (fd >= 0) {
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    return fd;
}

// File format: for every exchange, the request and the reply, each as a 32-bit
// little-endian size and the bytes (a request without a reply has size 0).
void put_block(std::FILE *f, const Bytes &b) {
    const uint32_t n = uint32_t(b.size());
    const uint8_t size[4] = {uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), uint8_t(n >> 24)};
    std::fwrite(size, 1, 4, f);
    std::fwrite(b.data(), 1, b.size(), f);
}

bool get_block(std::FILE *f, Bytes &b) {
    uint8_t size[4];
    if (std::fread(size, 1, 4, f) != 4) return false;
    b.resize(size_t(size[0] | size[1] << 8 | size[2] << 16 | uint32_t(size[3]) << 24));
    return std::fread(b.data(), 1, b.size(), f) == b.size();
}

int record(const char *path, uint16_t port, uint16_t upstream_port) {
    std::FILE *file = std::fopen(path, "wb");
    if (file == nullptr) return fail(path);
    const int listener = listen_on(port);
    if (listener < 0) return fail("listen");
    std::printf("poll-replay: recording, listening on 127.0.0.1:%u\n", port);
    std::fflush(stdout);
    const int client = accept_client(listener);
    if (client < 0) return fail("accept");
    const int upstream = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(upstream_port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (upstream < 0 || ::connect(upstream, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        return fail("upstream");
    Bytes request, reply;
    size_t exchanges = 0;
    while (read_message(client, request)) {
        if (!write_all(upstream, request.data(), request.size())) return fail("upstream send");
        reply.clear();
        if (u16(request, 0) != kUnregisterSession) {
            if (!read_message(upstream, reply)) return fail("upstream reply");
            if (!write_all(client, reply.data(), reply.size())) break;
        }
        put_block(file, request);
        put_block(file, reply);
        ++exchanges;
    }
    std::fclose(file);
    std::printf("poll-replay: %zu exchanges recorded\n", exchanges);
    return 0;
}

int replay(const char *path, uint16_t port) {
    std::FILE *file = std::fopen(path, "rb");
    if (file == nullptr) return fail(path);
    std::map<std::string, Bytes> replies;
    for (Bytes request, reply; get_block(file, request) && get_block(file, reply);) {
        if (request.size() >= kHeader && (reply.empty() || reply.size() >= kHeader))
            replies.emplace(key_of(request), reply);
    }
    std::fclose(file);
    const int listener = listen_on(port);
    if (listener < 0) return fail("listen");
    std::printf("poll-replay: %zu replies, listening on 127.0.0.1:%u\n", replies.size(), port);
    std::fflush(stdout);

    std::vector<pollfd> fds{{listener, POLLIN, 0}};
    Bytes request, reply;
    for (;;) {
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return fail("poll");
        }
        if (fds[0].revents & POLLIN) {
            const int client = accept_client(listener);
            if (client >= 0) fds.push_back({client, POLLIN, 0});
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            bool keep = read_message(fds[i].fd, request);
            const auto it = keep ? replies.find(key_of(request)) : replies.end();
            if (keep && it == replies.end()) {
                std::fprintf(stderr, "poll-replay: no recorded reply (command 0x%04X, %zu bytes)\n",
                             u16(request, 0), request.size());
                keep = false;
            }
            if (keep && !it->second.empty()) {
                reply = it->second;
                std::memcpy(reply.data() + kSessionAt, request.data() + kSessionAt, 4);
                if (u16(request, 0) == kSendUnitData && request.size() > kSequenceAt + 1 &&
                    reply.size() > kSequenceAt + 1)
                    std::memcpy(reply.data() + kSequenceAt, request.data() + kSequenceAt, 2);
                keep = write_all(fds[i].fd, reply.data(), reply.size());
            }
            if (!keep) {
                ::close(fds[i].fd);
                fds.erase(fds.begin() + std::ptrdiff_t(i));
                --i;
            }
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    const char *record_path = nullptr, *replay_path = nullptr;
    long port = 44818, upstream = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        if (arg == "--record")
            record_path = argv[i + 1];
        else if (arg == "--replay")
            replay_path = argv[i + 1];
        else if (arg == "--port")
            port = std::strtol(argv[i + 1], nullptr, 10);
        else if (arg == "--upstream")
            upstream = std::strtol(argv[i + 1], nullptr, 10);
        else
            record_path = replay_path = nullptr, i = argc;
    }
    const bool ports_ok = port > 0 && port < 65536 && upstream >= 0 && upstream < 65536;
    if (argc % 2 == 0 || !ports_ok || (record_path != nullptr) == (replay_path != nullptr) ||
        (record_path != nullptr && upstream == 0)) {
        std::fprintf(stderr, "usage: poll-replay --record FILE --upstream PORT [--port N]\n"
                             "       poll-replay --replay FILE [--port N]\n");
        return 2;
    }
    return record_path != nullptr ? record(record_path, uint16_t(port), uint16_t(upstream))
                                  : replay(replay_path, uint16_t(port));
}
