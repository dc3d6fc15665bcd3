// For tests: talking to a running plc-sim through its control channel
// (--control PATH). Header-only, so that a test needs nothing of the
// simulator but this file.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>
#include <string>

namespace plc::sim::control {

// Sends one command line; the whole answer ("ok\n..." or "error: ...\n"),
// or none when the simulator could not be reached.
inline std::optional<std::string> Send(const std::string &socket_path, const std::string &command) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path) return std::nullopt;
    std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::nullopt;
    const std::string line = command + "\n";
    std::optional<std::string> answer;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
        send(fd, line.data(), line.size(), MSG_NOSIGNAL) == ssize_t(line.size())) {
        answer.emplace();
        char buffer[4096];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            answer->append(buffer, size_t(n));
    }
    close(fd);
    return answer;
}

inline bool Succeeded(const std::optional<std::string> &answer) {
    return answer && answer->compare(0, 3, "ok\n") == 0;
}

// Adds a fault, e.g. "read:no-reply,after=2,times=1".
inline bool SetFault(const std::string &socket_path, const std::string &fault) {
    return Succeeded(Send(socket_path, "fault " + fault));
}

// Removes every fault, or those of one message kind ("read", ...).
inline bool ClearFaults(const std::string &socket_path, const std::string &kind = {}) {
    return Succeeded(Send(socket_path, kind.empty() ? "clear" : "clear " + kind));
}

inline bool Restart(const std::string &socket_path) {
    return Succeeded(Send(socket_path, "restart"));
}

// The simulator's counters (read_requests, forward_open, ...); empty when it
// could not be reached.
inline std::map<std::string, uint64_t> Counters(const std::string &socket_path) {
    std::map<std::string, uint64_t> counters;
    const auto answer = Send(socket_path, "stats");
    if (!Succeeded(answer)) return counters;
    std::istringstream in(answer->substr(3));
    std::string key;
    uint64_t value = 0;
    while (in >> key >> value) counters[key] = value;
    return counters;
}

} // namespace plc::sim::control
