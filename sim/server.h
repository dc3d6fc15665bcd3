// The simulated controller's TCP side: the listener, one thread per client,
// the encapsulation protocol (RegisterSession, UnRegisterSession, SendRRData,
// SendUnitData) and the dispatch of the CIP requests they carry.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "sim/connection_manager.h"
#include "sim/stats.h"
#include "sim/variable_services.h"
#include "sim/variable_store.h"

namespace plc::sim {

constexpr uint16_t kEncapPort = 44818;

struct ServerOptions {
    std::string address = "127.0.0.1"; // IPv4 address to listen on
    uint16_t port = kEncapPort;          // 0 picks a free port (tests)
    size_t max_clients = 64;             // further clients are closed at once
    size_t max_connections = 64;         // class-3 connections, all sessions together
    bool refuse_forward_open = false;    // answer every Large_Forward_Open with a refusal
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

    ConnectionManager &connections() { return connections_; }

private:
    struct Client {
        int fd = -1;
        std::string peer;
        std::thread thread;
        std::atomic<bool> finished{false};
    };

    void AcceptLoop();
    void Serve(Client &client);
    void Wake();
    void ReapFinished(bool all);

    ServerOptions options_;
    SharedStore &store_;
    Stats &stats_;
    PublishedFile *stats_file_;
    ConnectionManager connections_;
    VariableServices services_;

    int listen_fd_ = -1;
    int wake_pipe_[2] = {-1, -1};
    uint16_t bound_port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread accept_thread_;
    std::mutex clients_mutex_;
    std::list<std::unique_ptr<Client>> clients_;
};

} // namespace plc::sim
