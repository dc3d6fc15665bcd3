// The control channel of a running simulator: a UNIX stream socket on which
// a test sets and clears faults, reads the counters or restarts the
// controller. One command line per connection; the answer is "ok" or
// "error: why" on its first line, then what the command returns, then EOF.
//
//   fault FAULT    add a fault (syntax in faults.h)
//   clear [KIND]   remove every fault, or those of one message kind
//   faults         the faults in force: FAULT seen=N applied=N, one a line
//   stats          the counters, as the --stats file has them
//   restart        forget every session, connection and handle now
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "sim/server.h"

namespace plc::sim {

// The answer of the simulator to one command line.
std::string RunControlCommand(Server &server, const Stats &stats, const std::string &line);

class ControlChannel {
public:
    using Handler = std::function<std::string(const std::string &line)>;
    ControlChannel(std::string path, Handler handler)
        : path_(std::move(path)), handler_(std::move(handler)) {}
    ~ControlChannel() { Stop(); }
    ControlChannel(const ControlChannel &) = delete;
    ControlChannel &operator=(const ControlChannel &) = delete;

    // Replaces a stale socket file at the path, listens, starts answering.
    bool Start(std::string *error);
    // Stops answering and removes the socket file.
    void Stop();

private:
    void Loop();
    void Answer(int fd);

    std::string path_;
    Handler handler_;
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    std::thread thread_;
};

} // namespace plc::sim
