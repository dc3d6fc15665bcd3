#include "sim/connection_manager.h"

#include <algorithm>
#include <array>

#include "util/wire.h"

namespace plc::sim {

namespace {

// Port 1, link 0, then the message router (class 2, instance 1): the only
// connection path this controller accepts.
constexpr std::array<uint8_t, 6> kRouterPath = {0x01, 0x00, 0x20, 0x02, 0x24, 0x01};

// Network connection parameters of the Large_Forward_Open: bits 29-30 the
// connection type (2 = point-to-point), bits 0-15 the connection size. Other
// bits (owner, priority, fixed/variable, reserved) are accepted as sent.
constexpr uint32_t kPointToPoint = 2;
// A connected request needs at least its sequence count and a message-router
// header. Message sizes are not held against the connection size: the
// variable services legitimately send and answer more than it announces.
constexpr uint32_t kMinConnectionSize = 8;
// Transport class/trigger: class 3 (low nibble) with the server bit (bit 7).
constexpr uint8_t kTransportClassMask = 0x0F;
constexpr uint8_t kTransportClass3 = 0x03;
constexpr uint8_t kTransportServer = 0x80;
constexpr uint8_t kMaxTimeoutMultiplier = 7;

constexpr size_t kForwardOpenFixed = 40;
constexpr size_t kForwardCloseFixed = 12;

struct Triple {
    uint16_t serial = 0;
    uint16_t vendor = 0;
    uint32_t orig_serial = 0;
};

// Success data of Forward_Close, and the data of every connection manager
// refusal: the triple, remaining path size 0 and a reserved byte.
std::vector<uint8_t> TripleReplyData(const Triple &t) {
    wire::VecWriter out(10);
    out.u16(t.serial).u16(t.vendor).u32(t.orig_serial).u8(0).u8(0);
    return out.take();
}

CipReply Refuse(const Triple &t, uint16_t extended_status) {
    CipReply reply = CipReply::Error(general::kConnectionFailure, {extended_status});
    reply.data = TripleReplyData(t);
    return reply;
}

// Reads the connection path that ends both requests; a status on failure.
uint8_t ReadPath(wire::Reader &in, uint8_t words, std::vector<uint8_t> &path) {
    const size_t bytes = size_t(words) * 2;
    if (!in.ok() || in.remaining() < bytes) return general::kNotEnoughData;
    if (in.remaining() > bytes) return general::kTooMuchData;
    path.assign(in.here(), in.here() + bytes);
    return general::kSuccess;
}

bool IsRouterPath(const std::vector<uint8_t> &path) {
    return path.size() == kRouterPath.size() &&
           std::equal(path.begin(), path.end(), kRouterPath.begin());
}

} // namespace

ConnectionManager::ConnectionManager(Stats &stats, size_t max_connections,
                                     bool refuse_forward_open)
    : stats_(stats), max_connections_(max_connections),
      refuse_forward_open_(refuse_forward_open), random_(std::random_device{}()) {}

uint32_t ConnectionManager::RandomNonZero() {
    uint32_t v;
    do {
        v = uint32_t(random_());
    } while (v == 0);
    return v;
}

void ConnectionManager::Publish() {
    stats_.connections_open = connections_.size();
    stats_.sessions_open = sessions_.size();
}

uint32_t ConnectionManager::RegisterSession() {
    std::lock_guard<std::mutex> lock(mutex_);
    uint32_t handle;
    do {
        handle = RandomNonZero();
    } while (sessions_.count(handle));
    sessions_.insert(handle);
    ++stats_.sessions_registered;
    Publish();
    return handle;
}

void ConnectionManager::UnregisterSession(uint32_t session) {
    std::lock_guard<std::mutex> lock(mutex_);
    sessions_.erase(session);
    for (auto it = connections_.begin(); it != connections_.end();) {
        it = it->second.session == session ? connections_.erase(it) : std::next(it);
    }
    Publish();
}

void ConnectionManager::DropSession(uint32_t session) {
    std::lock_guard<std::mutex> lock(mutex_);
    sessions_.erase(session);
    for (auto &[id, entry] : connections_) {
        if (entry.session == session) entry.session = 0;
    }
    Publish();
}

std::shared_ptr<Connection> ConnectionManager::Find(uint32_t session, uint32_t ot_id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = connections_.find(ot_id);
    if (session == 0 || it == connections_.end() || it->second.session != session) return nullptr;
    return it->second.connection;
}

size_t ConnectionManager::open_connections() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_.size();
}

bool ConnectionManager::EvictOrphan() {
    auto oldest = connections_.end();
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if (it->second.session == 0 &&
            (oldest == connections_.end() ||
             it->second.connection->opened < oldest->second.connection->opened))
            oldest = it;
    }
    if (oldest == connections_.end()) return false;
    connections_.erase(oldest);
    return true;
}

CipReply ConnectionManager::Execute(uint32_t session, const MrRequest &request) {
    const auto path = ParseClassInstancePath(request.path);
    if (!path) return CipReply::Error(general::kPathSegmentError);
    if (path->class_id != kClassConnectionManager || path->instance != 1)
        return CipReply::Error(general::kPathDestinationUnknown);
    switch (request.service) {
    case kServiceLargeForwardOpen: return ForwardOpen(session, request.data);
    case kServiceForwardClose: return ForwardClose(request.data);
    default: return CipReply::Error(general::kServiceNotSupported);
    }
}

// Request data (40 bytes + path): priority/tick, time-out ticks, O->T id, T->O
// id, connection serial, vendor id, originator serial, timeout multiplier, 3
// reserved, O->T RPI, O->T parameters, T->O RPI, T->O parameters, transport,
// path size in words, path. Reply data (26 bytes): our O->T id, the client's
// T->O id, the triple, the actual packet intervals (the requested RPIs),
// application reply size 0, reserved 0.
CipReply ConnectionManager::ForwardOpen(uint32_t session, const std::vector<uint8_t> &data) {
    ++stats_.forward_open;
    wire::Reader in(data);
    in.u8(); // priority/time tick
    in.u8(); // time-out ticks
    in.u32(); // O->T id proposed by the client; the target chooses its own
    const uint32_t to_id = in.u32();
    Triple t;
    t.serial = in.u16();
    t.vendor = in.u16();
    t.orig_serial = in.u32();
    const uint8_t multiplier = in.u8();
    in.skip(3);
    const uint32_t ot_rpi = in.u32();
    const uint32_t ot_params = in.u32();
    const uint32_t to_rpi = in.u32();
    const uint32_t to_params = in.u32();
    const uint8_t transport = in.u8();
    const uint8_t words = in.u8();
    std::vector<uint8_t> path;
    if (data.size() < kForwardOpenFixed) return CipReply::Error(general::kNotEnoughData);
    if (const uint8_t status = ReadPath(in, words, path)) return CipReply::Error(status);

    if (!IsRouterPath(path)) return Refuse(t, extended::kInvalidConnectionPath);
    if ((transport & kTransportClassMask) != kTransportClass3 || !(transport & kTransportServer))
        return Refuse(t, extended::kTransportNotSupported);
    for (const uint32_t params : {ot_params, to_params}) {
        if (((params >> 29) & 3u) != kPointToPoint)
            return Refuse(t, extended::kInvalidConnectionParameter);
        if ((params & 0xFFFFu) < kMinConnectionSize)
            return Refuse(t, extended::kInvalidConnectionSize);
    }
    if (multiplier > kMaxTimeoutMultiplier) return Refuse(t, extended::kParameterError);
    if (refuse_forward_open_) return Refuse(t, extended::kOutOfConnections);

    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &[id, entry] : connections_) {
        const Connection &c = *entry.connection;
        if (c.serial == t.serial && c.vendor == t.vendor && c.orig_serial == t.orig_serial)
            return Refuse(t, extended::kConnectionInUse);
    }
    if (connections_.size() >= max_connections_ && !EvictOrphan())
        return Refuse(t, extended::kOutOfConnections);

    auto c = std::make_shared<Connection>();
    do {
        c->ot_id = RandomNonZero();
    } while (connections_.count(c->ot_id));
    // The token's low half goes into handles, so it must tell the open
    // connections apart and never be 0.
    bool clash;
    do {
        c->token = RandomNonZero();
        clash = uint16_t(c->token) == 0;
        for (const auto &[id, entry] : connections_)
            clash = clash || uint16_t(entry.connection->token) == uint16_t(c->token);
    } while (clash);
    c->to_id = to_id;
    c->serial = t.serial;
    c->vendor = t.vendor;
    c->orig_serial = t.orig_serial;
    c->ot_rpi = ot_rpi;
    c->to_rpi = to_rpi;
    c->opened = ++opened_;
    connections_[c->ot_id] = Entry{c, session};
    Publish();

    wire::VecWriter out(26);
    out.u32(c->ot_id).u32(c->to_id).u16(t.serial).u16(t.vendor).u32(t.orig_serial);
    out.u32(ot_rpi).u32(to_rpi).u8(0).u8(0);
    CipReply reply;
    reply.data = out.take();
    return reply;
}

// Request data (12 bytes + path): priority/tick, time-out ticks, the triple,
// path size in words, reserved, path. The connection with that triple is
// closed whichever session opened it. Reply data: the triple, application
// reply size 0, reserved 0.
CipReply ConnectionManager::ForwardClose(const std::vector<uint8_t> &data) {
    ++stats_.forward_close;
    wire::Reader in(data);
    in.u8();
    in.u8();
    Triple t;
    t.serial = in.u16();
    t.vendor = in.u16();
    t.orig_serial = in.u32();
    const uint8_t words = in.u8();
    in.u8();
    std::vector<uint8_t> path;
    if (data.size() < kForwardCloseFixed) return CipReply::Error(general::kNotEnoughData);
    if (const uint8_t status = ReadPath(in, words, path)) return CipReply::Error(status);
    if (!IsRouterPath(path)) return Refuse(t, extended::kInvalidConnectionPath);

    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        const Connection &c = *it->second.connection;
        if (c.serial == t.serial && c.vendor == t.vendor && c.orig_serial == t.orig_serial) {
            connections_.erase(it);
            Publish();
            CipReply reply;
            reply.data = TripleReplyData(t);
            return reply;
        }
    }
    return Refuse(t, extended::kConnectionNotFound);
}

} // namespace plc::sim
