// Socket entry points shared by the host framework and the driver, plus the
// host's UDP and TCP set-up helpers. The wrappers pass everything through so
// that errno and results stay exactly those of the system calls.
#include "platform/plc_ethernet.h"

#include "plc_driver_sockets.h"

#include <arpa/inet.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace plc {

std::array<char, 16> address_text(uint32_t address) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", (address >> 24) & 0xFFu,
                  (address >> 16) & 0xFFu, (address >> 8) & 0xFFu, address & 0xFFu);
    return text;
}

namespace {

// Resolves the dotted text through the shared wrapper and takes the first
// IPv4 address of the result. Anything but a usable IPv4 entry is a failure.
bool resolve(const char *text, in_addr &resolved) {
    const hostent *host = wk_gethostbyname(text);
    if (host == nullptr || host->h_addrtype != AF_INET || host->h_length != 4 ||
        host->h_addr_list == nullptr || host->h_addr_list[0] == nullptr)
        return false;
    std::memcpy(&resolved, host->h_addr_list[0], sizeof resolved);
    return true;
}

void print_line(const char *text) { std::printf("%s\n", text); }

} // namespace
} // namespace plc

extern "C" {

ssize_t wk_recv(int sock, void *buffer, size_t length) { return ::recv(sock, buffer, length, 0); }

ssize_t wk_send(int sock, const void *buffer, size_t length) {
    return ::send(sock, buffer, length, 0);
}

ssize_t wk_recvfrom(int sock, void *buffer, size_t length, int flags, struct sockaddr *from,
                    socklen_t *from_length) {
    return ::recvfrom(sock, buffer, length, flags, from, from_length);
}

ssize_t wk_sendto(int sock, const void *buffer, size_t length, int flags, const struct sockaddr *to,
                  socklen_t to_length) {
    return ::sendto(sock, buffer, length, flags, to, to_length);
}

int wk_socket(int domain, int type, int protocol) { return ::socket(domain, type, protocol); }

int wk_connect(int sock, const struct sockaddr *address, socklen_t length) {
    return ::connect(sock, address, length);
}

struct hostent *wk_gethostbyname(const char *name) {
    if (name == nullptr) return nullptr;
    return ::gethostbyname(name);
}

int wk_setsockopt(int sock, int level, int name, const void *value, socklen_t length) {
    return ::setsockopt(sock, level, name, value, length);
}

int wk_bind(int sock, const struct sockaddr *address, socklen_t length) {
    return ::bind(sock, address, length);
}

int wk_listen(int sock, int backlog) { return ::listen(sock, backlog); }

int wk_accept(int sock, struct sockaddr *address, socklen_t *length) {
    return ::accept(sock, address, length);
}

int wk_close_handel(int sock) { return ::close(sock); }

int wk_closesocket(int sock) { return wk_close_handel(sock); }

int wk_time_set(CommHandle *handle, int mode) {
    if (handle == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const int sock = handle->socket;
    // select's descriptor set has a fixed size; a descriptor outside it would
    // write past the set, so it is refused like any other bad descriptor.
    if (sock < 0 || sock >= FD_SETSIZE) {
        errno = EBADF;
        return -1;
    }

    // Mode 0 waits whole seconds, mode 1 milliseconds (carried into seconds so
    // the microsecond field stays in range). Any other mode only polls: it
    // reports the socket's readiness at once without waiting. A negative wait
    // is refused by select itself with -1.
    timeval timeout{};
    if (mode == 0) {
        timeout.tv_sec = handle->wait_seconds;
    } else if (mode == 1) {
        timeout.tv_sec = handle->wait_milliseconds / 1000;
        timeout.tv_usec = static_cast<suseconds_t>(handle->wait_milliseconds % 1000) * 1000;
    }

    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(sock, &readable);
    return ::select(sock + 1, &readable, nullptr, nullptr, &timeout);
}

int init_udp_comm(const CommSettings *settings, int *sock, struct sockaddr_in *destination) {
    // Without the settings, or somewhere to put the socket and the
    // destination, no socket is made at all.
    if (settings == nullptr || sock == nullptr || destination == nullptr) return -1;

    const int created = wk_socket(AF_INET, SOCK_DGRAM, 0);
    if (created < 0) {
        plc::print_line("socket error\r");
        return -1;
    }

    const auto text = plc::address_text(settings->address);
    in_addr resolved{};
    if (plc::resolve(text.data(), resolved)) {
        destination->sin_family = AF_INET;
        destination->sin_port = htons(settings->port);
        destination->sin_addr = resolved;
    } else {
        // The socket is still handed over; the destination stays as it was.
        plc::print_line("error resolving local host\r");
    }
    *sock = created;
    return 0;
}

int CommunicationSet(const CommSettings *settings, CommHandle *handle) {
    if (settings == nullptr || handle == nullptr) return -1;

    const auto text = plc::address_text(settings->address);
    in_addr resolved{};
    if (!plc::resolve(text.data(), resolved)) {
        plc::print_line("error resolving local host\r");
        return -1;
    }
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(settings->port);
    peer.sin_addr = resolved;

    const int type = settings->protocol == 'U' ? SOCK_STREAM : SOCK_DGRAM;
    const int sock = wk_socket(AF_INET, type, 0);
    if (sock < 0) {
        plc::print_line("socket error\r");
        return -1;
    }

    // Best effort: a socket without these options still works.
    timeval send_timeout{};
    send_timeout.tv_sec = static_cast<time_t>(handle->send_timeout_figure % 10 + 3);
    (void)wk_setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
    const int reuse = 1;
    (void)wk_setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);

    if (wk_connect(sock, reinterpret_cast<const sockaddr *>(&peer), sizeof peer) != 0) {
        wk_close_handel(sock);
        std::printf("connect to %s failed\r\n", text.data());
        return -1;
    }
    handle->socket = sock;
    return 0;
}

int ReCommunicationSet(const CommSettings *settings, CommHandle *handle) {
    return CommunicationSet(settings, handle);
}

} // extern "C"
