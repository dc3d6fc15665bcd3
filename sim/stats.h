// Counters that tests read to see what the simulated controller was asked, and
// the files through which they (and the variable values) are published.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace plc::sim {

// Request counters count request messages received, by kind (see Kind),
// refused, dropped and faulted ones included; `errors` counts every reply
// that carried a non-zero status plus every client that was turned away.
// `connections_open` and `sessions_open` are current values, the rest only
// grow (a restart clears no counter).
struct Stats {
    std::atomic<uint64_t> messages{0};
    std::atomic<uint64_t> register_requests{0};
    std::atomic<uint64_t> sessions_registered{0};
    std::atomic<uint64_t> sessions_open{0};
    std::atomic<uint64_t> forward_open{0};
    std::atomic<uint64_t> forward_close{0};
    std::atomic<uint64_t> connections_open{0};
    std::atomic<uint64_t> resolve_requests{0};
    std::atomic<uint64_t> resolve_names{0};
    std::atomic<uint64_t> read_requests{0};
    std::atomic<uint64_t> read_items{0};
    std::atomic<uint64_t> write_requests{0};
    std::atomic<uint64_t> connected_requests{0};
    std::atomic<uint64_t> dropped_requests{0}; // connected, naming no open connection
    std::atomic<uint64_t> connections_timed_out{0};
    std::atomic<uint64_t> discovery_requests{0}; // ListIdentity/Services/Interfaces, TCP or UDP
    std::atomic<uint64_t> faults_applied{0};
    std::atomic<uint64_t> restarts{0};
    std::atomic<uint64_t> errors{0};
    std::atomic<uint64_t> sequence_anomalies{0};
    std::atomic<uint64_t> retransmissions{0};

    // "key value" lines, one per counter, in a fixed order.
    std::string Render() const;
};

// Replaces `path` by `content` through a temporary file and a rename, so a
// reader never sees a half-written file. False when either step fails.
bool WriteFileAtomically(const std::string &path, const std::string &content);

// A published file: rewrites are serialised so that the last one wins.
class PublishedFile {
public:
    explicit PublishedFile(std::string path) : path_(std::move(path)) {}
    bool enabled() const { return !path_.empty(); }
    // Failures are reported once on stderr; the simulator keeps serving.
    void Write(const std::string &content);

private:
    std::string path_;
    std::mutex mutex_;
    bool failure_reported_ = false;
};

} // namespace plc::sim
