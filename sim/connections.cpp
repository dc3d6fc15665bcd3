#include "sim/connections.h"

#include <algorithm>

#include "sim/codes.h"
#include "sim/log.h"
#include "sim/trace.h"

namespace plc::sim {

namespace {
// How often idle connections are looked for; their timeouts are far longer.
constexpr auto kWatchdogTick = std::chrono::milliseconds(20);
constexpr unsigned kBaseMultiplier = 4;
} // namespace

Clock::duration ConnectionTimeout(uint32_t rpi_us, uint8_t coded_multiplier) {
    const uint64_t factor = uint64_t(kBaseMultiplier) << coded_multiplier;
    return std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(rpi_us * factor));
}

ConnectionTable::ConnectionTable(Stats &stats, size_t max_connections,
                                 std::chrono::milliseconds timeout_cap,
                                 std::function<void()> on_expiry)
    : stats_(stats), max_connections_(max_connections), timeout_cap_(timeout_cap),
      on_expiry_(std::move(on_expiry)), random_(std::random_device{}()) {}

ConnectionTable::~ConnectionTable() { StopWatchdog(); }

void ConnectionTable::StartWatchdog() {
    watchdog_ = std::thread([this] { WatchdogLoop(); });
}

void ConnectionTable::StopWatchdog() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (watchdog_.joinable()) watchdog_.join();
}

void ConnectionTable::WatchdogLoop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, kWatchdogTick, [this] { return stop_; })) {
        lock.unlock();
        ExpireIdle(Clock::now());
        lock.lock();
    }
}

uint32_t ConnectionTable::RandomNonZero() {
    uint32_t v;
    do {
        v = uint32_t(random_());
    } while (v == 0);
    return v;
}

// The token's low half goes into handles, so it must tell the open
// connections apart and never be 0.
uint32_t ConnectionTable::FreshToken() const {
    while (true) {
        const uint32_t token = uint32_t(random_());
        bool clash = uint16_t(token) == 0;
        for (const auto &[id, entry] : connections_)
            clash = clash || uint16_t(entry.connection->token) == uint16_t(token);
        if (!clash) return token;
    }
}

void ConnectionTable::Publish() {
    stats_.connections_open = connections_.size();
    stats_.sessions_open = sessions_.size();
}

uint32_t ConnectionTable::OpenSession() {
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

void ConnectionTable::CloseSession(uint32_t session) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!sessions_.erase(session)) return;
    for (auto it = connections_.begin(); it != connections_.end();)
        it = it->second.session == session ? connections_.erase(it) : std::next(it);
    Publish();
}

std::shared_ptr<Connection> ConnectionTable::Open(uint32_t session, const ConnectionTerms &terms,
                                                  uint16_t *extended_status) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto &[id, entry] : connections_) {
        if (entry.connection->terms.triple == terms.triple) {
            *extended_status = extended::kConnectionInUse;
            return nullptr;
        }
    }
    if (connections_.size() >= max_connections_ || !sessions_.count(session)) {
        *extended_status = extended::kOutOfConnections;
        return nullptr;
    }
    auto c = std::make_shared<Connection>();
    do {
        c->ot_id = RandomNonZero();
    } while (connections_.count(c->ot_id));
    c->terms = terms;
    c->token = FreshToken();
    c->timeout = ConnectionTimeout(terms.ot_rpi, terms.timeout_multiplier);
    if (timeout_cap_.count() > 0 && c->timeout > timeout_cap_) c->timeout = timeout_cap_;
    c->Touch();
    connections_[c->ot_id] = Entry{c, session};
    Publish();
    return c;
}

bool ConnectionTable::Close(const Triple &triple) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if (it->second.connection->terms.triple == triple) {
            connections_.erase(it);
            Publish();
            return true;
        }
    }
    return false;
}

std::shared_ptr<Connection> ConnectionTable::Find(uint32_t session, uint32_t ot_id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = connections_.find(ot_id);
    if (session == 0 || it == connections_.end() || it->second.session != session) return nullptr;
    return it->second.connection;
}

bool ConnectionTable::HasConnections(uint32_t session) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return session != 0 && std::any_of(connections_.begin(), connections_.end(),
                                       [&](const auto &e) { return e.second.session == session; });
}

void ConnectionTable::ExpireIdle(Clock::time_point now) {
    size_t expired = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = connections_.begin(); it != connections_.end();) {
            const Connection &c = *it->second.connection;
            const Clock::time_point last{Clock::duration(c.last_request.load())};
            if (now - last < c.timeout) {
                ++it;
                continue;
            }
            Log::Trace("-- connection " + Hex(c.ot_id, 8) + " timed out");
            it = connections_.erase(it);
            ++expired;
        }
        if (expired == 0) return;
        stats_.connections_timed_out += expired;
        Publish();
    }
    if (on_expiry_) on_expiry_();
}

void ConnectionTable::Forget() {
    std::lock_guard<std::mutex> lock(mutex_);
    sessions_.clear();
    connections_.clear();
    Publish();
}

} // namespace plc::sim
