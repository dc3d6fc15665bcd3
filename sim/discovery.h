// The encapsulation commands that need no session and also come over UDP:
// ListIdentity, ListServices and ListInterfaces, and the UDP responder on the
// encapsulation port that answers them.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sim/encap.h"
#include "sim/identity.h"
#include "sim/stats.h"

namespace plc::sim {

// The reply to a discovery request, or none when `header` is not one (or is
// one that must be discarded). `local_address` (host order) and `port` are
// where the request arrived, which the identity item reports.
std::optional<std::vector<uint8_t>> AnswerDiscovery(const Header &header, size_t body_size,
                                                    const Identity &identity,
                                                    uint32_t local_address, uint16_t port);

bool IsDiscovery(const Header &header);

// Answers discovery datagrams on address:port until stopped. Replies go back
// to the sender, unicast.
class UdpDiscovery {
public:
    UdpDiscovery(const Identity &identity, Stats &stats) : identity_(identity), stats_(stats) {}
    ~UdpDiscovery() { Stop(); }
    UdpDiscovery(const UdpDiscovery &) = delete;
    UdpDiscovery &operator=(const UdpDiscovery &) = delete;

    bool Start(const std::string &address, uint16_t port, std::string *error);
    void Stop();

private:
    void Loop();
    ssize_t Receive(std::vector<uint8_t> &buffer, sockaddr_in &peer, uint32_t &local);

    const Identity &identity_;
    Stats &stats_;
    int fd_ = -1;
    int wake_[2] = {-1, -1};
    uint32_t local_address_ = 0;
    uint16_t port_ = 0;
    std::thread thread_;
};

} // namespace plc::sim
