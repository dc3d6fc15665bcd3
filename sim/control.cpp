#include "sim/control.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sim/delivery.h"
#include "sim/faults.h"
#include "sim/message_kind.h"

namespace plc::sim {

namespace {

constexpr size_t kMaxCommand = 4096;
constexpr timeval kClientPatience{2, 0}; // a silent client cannot hold the channel

std::string Ok(const std::string &content = {}) { return "ok\n" + content; }
std::string Error(const std::string &why) { return "error: " + why + "\n"; }

} // namespace

std::string RunControlCommand(Server &server, const Stats &stats, const std::string &line) {
    const size_t space = line.find(' ');
    const std::string verb = line.substr(0, space);
    const std::string argument = space == std::string::npos ? "" : line.substr(space + 1);
    if (verb == "fault") {
        std::string error;
        const auto fault = ParseFault(argument, &error);
        if (!fault) return Error(error);
        server.faults().Add(*fault);
        return Ok();
    }
    if (verb == "clear") {
        if (argument.empty()) {
            server.faults().Clear();
            return Ok();
        }
        const auto kind = ParseKind(argument);
        if (!kind) return Error("unknown message kind: " + argument);
        server.faults().Clear(*kind);
        return Ok();
    }
    if (verb == "faults" && argument.empty()) return Ok(server.faults().List());
    if (verb == "stats" && argument.empty()) return Ok(stats.Render());
    if (verb == "restart" && argument.empty()) {
        server.Restart();
        server.PublishStats();
        return Ok();
    }
    return Error("unknown command: " + line);
}

bool ControlChannel::Start(std::string *error) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof addr.sun_path) {
        *error = "control socket path too long: " + path_;
        return false;
    }
    std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    unlink(path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 4) != 0 || pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = "cannot listen on control socket " + path_ + ": " + std::strerror(errno);
        return false;
    }
    thread_ = std::thread([this] { Loop(); });
    return true;
}

void ControlChannel::Loop() {
    while (true) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
        if (fds[1].revents) break;
        if (!(fds[0].revents & POLLIN)) continue;
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        Answer(fd);
        close(fd);
    }
}

// Reads up to the first newline (or EOF), answers, and the caller closes.
void ControlChannel::Answer(int fd) {
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kClientPatience, sizeof kClientPatience);
    std::string line;
    char buffer[256];
    while (line.find('\n') == std::string::npos && line.size() < kMaxCommand) {
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        line.append(buffer, size_t(n));
    }
    line = line.substr(0, line.find('\n'));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::string answer = handler_(line);
    SendAll(fd, reinterpret_cast<const uint8_t *>(answer.data()), answer.size());
}

void ControlChannel::Stop() {
    if (thread_.joinable()) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = write(wake_[1], &byte, 1);
        thread_.join();
    }
    for (int *fd : {&listen_fd_, &wake_[0], &wake_[1]}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    if (!path_.empty()) unlink(path_.c_str());
}

} // namespace plc::sim
