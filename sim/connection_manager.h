// Encapsulation sessions and class-3 connections of the simulated controller,
// and the connection manager object (class 6, instance 1) that opens and closes
// the connections: Large_Forward_Open (0x5B) and Forward_Close (0x4E).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <vector>

#include "sim/cip.h"
#include "sim/stats.h"

namespace plc::sim {

constexpr uint8_t kServiceLargeForwardOpen = 0x5B;
constexpr uint8_t kServiceForwardClose = 0x4E;
constexpr uint16_t kClassConnectionManager = 0x06;

struct Connection {
    uint32_t ot_id = 0; // chosen here; the client addresses its requests with it
    uint32_t to_id = 0; // chosen by the client; our replies carry it
    uint16_t serial = 0;
    uint16_t vendor = 0;
    uint32_t orig_serial = 0;
    uint32_t ot_rpi = 0;
    uint32_t to_rpi = 0;
    uint32_t token = 0; // see VariableServices
    uint64_t opened = 0; // order of opening, for eviction

    // Sequence state of the connected requests. Only the thread serving the
    // owning session touches it.
    bool has_last = false;
    uint16_t last_sequence = 0;
    std::vector<uint8_t> last_request;
    std::vector<uint8_t> last_reply;
};

class ConnectionManager {
public:
    // With `refuse_forward_open` every Large_Forward_Open is answered "out of
    // connections": a controller whose connections are all taken.
    explicit ConnectionManager(Stats &stats, size_t max_connections = 64,
                               bool refuse_forward_open = false);

    // A fresh random non-zero session handle.
    uint32_t RegisterSession();
    // UnRegisterSession: the session and its connections go.
    void UnregisterSession(uint32_t session);
    // The TCP connection ended without UnRegisterSession: the session goes, its
    // connections stay open (as on a controller, until they are closed) so that
    // a Forward_Close with their triple from a later session finds them. When
    // the table is full, the oldest such orphaned connection makes room.
    void DropSession(uint32_t session);

    // An unconnected request addressed to `path`: the connection manager's
    // services, or the refusal a controller gives for anything else.
    CipReply Execute(uint32_t session, const MrRequest &request);

    // The open connection with this O->T id owned by this session, or null.
    std::shared_ptr<Connection> Find(uint32_t session, uint32_t ot_id) const;
    size_t open_connections() const;

private:
    struct Entry {
        std::shared_ptr<Connection> connection;
        uint32_t session = 0; // 0 once orphaned
    };

    CipReply ForwardOpen(uint32_t session, const std::vector<uint8_t> &data);
    CipReply ForwardClose(const std::vector<uint8_t> &data);
    uint32_t RandomNonZero();
    bool EvictOrphan();
    void Publish();

    Stats &stats_;
    const size_t max_connections_;
    const bool refuse_forward_open_;
    mutable std::mutex mutex_;
    std::mt19937 random_;
    std::set<uint32_t> sessions_;
    std::map<uint32_t, Entry> connections_; // by O->T id
    uint64_t opened_ = 0;
};

} // namespace plc::sim
