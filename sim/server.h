// The simulated controller's network side: the TCP listener with one thread
// per client, the UDP discovery responder, the connection watchdog, and the
// faults applied to the requests the clients send.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "sim/connections.h"
#include "sim/delivery.h"
#include "sim/discovery.h"
#include "sim/faults.h"
#include "sim/identity.h"
#include "sim/message_router.h"
#include "sim/session.h"
#include "sim/stats.h"
#include "sim/variable_services.h"
#include "sim/variable_store.h"

namespace plc::sim {

struct ServerOptions {
    std::string address = "127.0.0.1"; // IPv4 address to listen on
    uint16_t port = kEncapPort;        // 0 picks a free port (tests)
    size_t max_clients = 64;           // further clients are closed at once
    size_t max_connections = 64;       // class-3 connections, all sessions together
    // When not zero: no connection waits longer than this for a request
    // before it is closed (its own timeout is RPI x multiplier).
    std::chrono::milliseconds connection_timeout{0};
    bool answer_unknown_connections = false; // see SessionContext
    // A TCP connection that sends nothing for this long is closed, unless its
    // session holds a connection; a message begun and not finished within it
    // closes it too. Silent clients would otherwise keep their places for ever.
    std::chrono::milliseconds inactivity_timeout{120000};
};

class Server {
public:
    // `stats_file` and `store_file` may be null; they are rewritten after every
    // handled message and after every write respectively.
    Server(ServerOptions options, SharedStore &store, Stats &stats,
           PublishedFile *stats_file = nullptr, PublishedFile *store_file = nullptr);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds, listens and starts accepting; false with `error` set on failure.
    bool Start(std::string *error);
    // The port actually bound (after Start).
    uint16_t port() const { return bound_port_; }
    // Closes the listener and every client, joins all threads. Idempotent.
    void Stop();

    FaultBook &faults() { return faults_; }
    // As a controller that restarts: every session, connection and handle is
    // forgotten and every client's TCP connection closed (but `except_fd`,
    // which its own thread closes once the others are).
    void Restart(int except_fd = -1);
    void PublishStats();

private:
    struct Client {
        int fd = -1;
        std::string peer;
        std::thread thread;
        std::atomic<bool> finished{false};
    };

    void AcceptLoop();
    void Serve(Client &client);
    AfterDelivery ServeOne(int fd, ClientProtocol &protocol, const Header &header,
                           const std::vector<uint8_t> &body);
    void Wake();
    void ReapFinished(bool all);

    ServerOptions options_;
    Stats &stats_;
    PublishedFile *stats_file_;
    Identity identity_;
    ConnectionTable table_;
    VariableServices services_;
    MessageRouter router_;
    SessionContext context_;
    FaultBook faults_;
    StopSignal stop_;
    UdpDiscovery udp_;

    int listen_fd_ = -1;
    int wake_pipe_[2] = {-1, -1};
    uint16_t bound_port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread accept_thread_;
    std::mutex clients_mutex_;
    std::mutex publish_mutex_;
    std::list<std::unique_ptr<Client>> clients_;
};

} // namespace plc::sim
