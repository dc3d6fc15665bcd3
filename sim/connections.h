// Encapsulation sessions and the class-3 connections opened in them. A
// connection belongs to the session that opened it and ends with it
// (UnRegisterSession or the TCP connection closing), with a Forward_Close, or
// when it sees no request for its timeout: O->T RPI x the timeout multiplier.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "sim/stats.h"

namespace plc::sim {

using Clock = std::chrono::steady_clock;

// What identifies a connection to the connection manager.
struct Triple {
    uint16_t serial = 0;
    uint16_t vendor = 0;
    uint32_t orig_serial = 0;
    bool operator==(const Triple &o) const {
        return serial == o.serial && vendor == o.vendor && orig_serial == o.orig_serial;
    }
};

// The terms a Forward_Open asks for.
struct ConnectionTerms {
    Triple triple;
    uint32_t to_id = 0;
    uint32_t ot_rpi = 0; // microseconds
    uint32_t to_rpi = 0;
    uint8_t timeout_multiplier = 0; // coded: 0 -> x4, 1 -> x8, ... 7 -> x512
};

struct Connection {
    uint32_t ot_id = 0; // chosen here; the client addresses its requests with it
    ConnectionTerms terms;
    uint32_t token = 0; // see VariableServices
    Clock::duration timeout{};
    std::atomic<Clock::rep> last_request{0};

    // Sequence state of the connected requests. Only the thread serving the
    // owning session touches it.
    bool has_last = false;
    uint16_t last_sequence = 0;
    std::vector<uint8_t> last_request_bytes;
    std::vector<uint8_t> last_reply;

    void Touch() { last_request = Clock::now().time_since_epoch().count(); }
};

class ConnectionTable {
public:
    // `timeout_cap` (when not zero) shortens every connection's timeout to at
    // most that, for tests that wait for one to expire. `on_expiry` is called
    // (without the table's lock) after connections timed out.
    ConnectionTable(Stats &stats, size_t max_connections, std::chrono::milliseconds timeout_cap,
                    std::function<void()> on_expiry = {});
    ~ConnectionTable();
    ConnectionTable(const ConnectionTable &) = delete;
    ConnectionTable &operator=(const ConnectionTable &) = delete;

    // Starts and stops the thread that closes idle connections.
    void StartWatchdog();
    void StopWatchdog();

    // A fresh random non-zero session handle.
    uint32_t OpenSession();
    // The session and every connection it opened go.
    void CloseSession(uint32_t session);

    // A new connection for the session, or the connection manager's extended
    // status when there is none: the triple is in use, or the table is full.
    std::shared_ptr<Connection> Open(uint32_t session, const ConnectionTerms &terms,
                                     uint16_t *extended_status);
    // Closes the connection with this triple whichever session opened it.
    bool Close(const Triple &triple);
    // The open connection with this O->T id owned by this session, or null.
    std::shared_ptr<Connection> Find(uint32_t session, uint32_t ot_id) const;
    // Whether the session holds an open connection.
    bool HasConnections(uint32_t session) const;
    // Closes the connections whose timeout has passed.
    void ExpireIdle(Clock::time_point now);
    // A restart: every session and connection forgotten.
    void Forget();

private:
    struct Entry {
        std::shared_ptr<Connection> connection;
        uint32_t session = 0;
    };

    uint32_t RandomNonZero();
    uint32_t FreshToken() const;
    void Publish();
    void WatchdogLoop();

    Stats &stats_;
    const size_t max_connections_;
    const std::chrono::milliseconds timeout_cap_;
    const std::function<void()> on_expiry_;
    mutable std::mutex mutex_;
    mutable std::mt19937 random_;
    std::set<uint32_t> sessions_;
    std::map<uint32_t, Entry> connections_; // by O->T id

    std::thread watchdog_;
    std::condition_variable wake_;
    bool stop_ = false;
};

// RPI x the coded multiplier (0 -> x4 ... 7 -> x512).
Clock::duration ConnectionTimeout(uint32_t rpi_us, uint8_t coded_multiplier);

} // namespace plc::sim
