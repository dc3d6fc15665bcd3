#include "sim/discovery.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sim/log.h"
#include "sim/wire.h"

namespace plc::sim {

namespace {

constexpr uint16_t kServicesVersion = 1;
// Capability flags of the communications service: CIP over TCP (bit 5). No
// class 0/1 UDP I/O: the simulator has no implicit connections.
constexpr uint16_t kCapabilityCipOverTcp = 0x0020;
constexpr size_t kServiceNameSize = 16;
constexpr const char kServiceName[] = "Communications";
constexpr size_t kMaxDatagram = kHeaderSize + kMaxBody;

std::vector<uint8_t> ServicesItemData() {
    wire::VecWriter out(4 + kServiceNameSize);
    out.u16(kServicesVersion).u16(kCapabilityCipOverTcp);
    out.text(kServiceName).zeros(kServiceNameSize - (sizeof kServiceName - 1));
    return out.take();
}

} // namespace

bool IsDiscovery(const Header &header) {
    return header.Is(Command::ListIdentity) || header.Is(Command::ListServices) ||
           header.Is(Command::ListInterfaces);
}

std::optional<std::vector<uint8_t>> AnswerDiscovery(const Header &header, size_t body_size,
                                                    const Identity &identity,
                                                    uint32_t local_address, uint16_t port) {
    if (!IsDiscovery(header) || header.options != 0) return std::nullopt;
    if (body_size != 0) return EncodeMessage(header, header.session, EncapStatus::IncorrectData);
    std::vector<CpfItem> items;
    if (header.Is(Command::ListIdentity))
        items.push_back(
            {uint16_t(Item::Identity), IdentityItemData(identity, local_address, port)});
    else if (header.Is(Command::ListServices))
        items.push_back({uint16_t(Item::Services), ServicesItemData()});
    // ListInterfaces: no interface besides the CIP one, so no item.
    return EncodeMessage(header, header.session, EncapStatus::Success, EncodeItems(items));
}

bool UdpDiscovery::Start(const std::string &address, uint16_t port, std::string *error) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &addr.sin_addr) != 1) {
        *error = "not an IPv4 address: " + address;
        return false;
    }
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (fd_ >= 0) {
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        setsockopt(fd_, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    }
    if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
        pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = "cannot listen on UDP " + address + ":" + std::to_string(port) + ": " +
                 std::strerror(errno);
        return false;
    }
    local_address_ = ntohl(addr.sin_addr.s_addr);
    port_ = port;
    thread_ = std::thread([this] { Loop(); });
    return true;
}

// One datagram: its bytes, the sender and the local address it reached (the
// one the identity item reports, which matters when bound to 0.0.0.0).
ssize_t UdpDiscovery::Receive(std::vector<uint8_t> &buffer, sockaddr_in &peer, uint32_t &local) {
    iovec iov{buffer.data(), buffer.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr msg{};
    msg.msg_name = &peer;
    msg.msg_namelen = sizeof peer;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(fd_, &msg, 0);
    local = local_address_;
    if (n < 0) return n; // nothing received, no control data to read
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_PKTINFO) continue;
        in_pktinfo info;
        std::memcpy(&info, CMSG_DATA(c), sizeof info);
        local = ntohl(info.ipi_spec_dst.s_addr);
    }
    return n;
}

void UdpDiscovery::Loop() {
    std::vector<uint8_t> buffer(kMaxDatagram);
    while (true) {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
        if (fds[1].revents) break;
        if (!(fds[0].revents & POLLIN)) continue;
        sockaddr_in peer{};
        uint32_t local = 0;
        const ssize_t n = Receive(buffer, peer, local);
        if (n < ssize_t(kHeaderSize)) continue;
        const Header header = ParseHeader(buffer.data());
        if (header.length != size_t(n) - kHeaderSize) continue;
        const auto reply = AnswerDiscovery(header, header.length, identity_, local, port_);
        if (!reply) continue;
        ++stats_.discovery_requests;
        Log::Trace("udp " + std::string(inet_ntoa(peer.sin_addr)) + " discovery command " +
                   std::to_string(header.command));
        sendto(fd_, reply->data(), reply->size(), 0, reinterpret_cast<sockaddr *>(&peer),
               sizeof peer);
    }
}

void UdpDiscovery::Stop() {
    if (thread_.joinable()) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = write(wake_[1], &byte, 1);
        thread_.join();
    }
    for (int *fd : {&fd_, &wake_[0], &wake_[1]}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

} // namespace plc::sim
