#include "sim/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "sim/fault_reply.h"
#include "sim/log.h"
#include "sim/message_kind.h"

namespace plc::sim {

namespace {

constexpr int kListenBacklog = 16;

std::string PeerName(const sockaddr_in &addr) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(addr.sin_port));
}

// The local address a client reached (host order).
uint32_t LocalAddress(int fd) {
    sockaddr_in local{};
    socklen_t len = sizeof local;
    getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len);
    return ntohl(local.sin_addr.s_addr);
}

// A close that sends RST instead of FIN once the descriptor is closed.
void ArmReset(int fd) {
    const linger abort{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

} // namespace

Server::Server(ServerOptions options, SharedStore &store, Stats &stats, PublishedFile *stats_file,
               PublishedFile *store_file)
    : options_(std::move(options)), stats_(stats), stats_file_(stats_file),
      table_(stats, options_.max_connections, options_.connection_timeout,
             [this] { PublishStats(); }),
      services_(store, stats, store_file),
      router_(table_, services_, identity_), context_{table_, router_, stats, identity_,
                                                      options_.answer_unknown_connections},
      udp_(identity_, stats) {}

Server::~Server() { Stop(); }

bool Server::Start(std::string *error) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(options_.port);
    if (inet_pton(AF_INET, options_.address.c_str(), &addr.sin_addr) != 1) {
        *error = "not an IPv4 address: " + options_.address;
        return false;
    }
    if (pipe2(wake_pipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (listen_fd_ >= 0) setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (listen_fd_ < 0 ||
        bind(listen_fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, kListenBacklog) != 0) {
        *error = "cannot listen on " + options_.address + ":" + std::to_string(options_.port) +
                 ": " + std::strerror(errno);
        return false;
    }
    sockaddr_in bound{};
    socklen_t len = sizeof bound;
    getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&bound), &len);
    bound_port_ = ntohs(bound.sin_port);
    if (!udp_.Start(options_.address, bound_port_, error)) return false;
    table_.StartWatchdog();
    accept_thread_ = std::thread([this] { AcceptLoop(); });
    return true;
}

void Server::Wake() {
    const char byte = 1;
    // A full pipe already holds a wake-up, so a failed write loses nothing.
    [[maybe_unused]] const ssize_t n = write(wake_pipe_[1], &byte, 1);
}

void Server::AcceptLoop() {
    while (!stopping_) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_pipe_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            Log::Warn(std::string("poll: ") + std::strerror(errno));
            break;
        }
        if (fds[1].revents) {
            char drain[64];
            while (read(wake_pipe_[0], drain, sizeof drain) > 0) {}
            ReapFinished(false);
        }
        if (stopping_) break;
        if (!(fds[0].revents & POLLIN)) continue;
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        const int fd = accept4(listen_fd_, reinterpret_cast<sockaddr *>(&peer), &len, SOCK_CLOEXEC);
        if (fd < 0) continue;
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const auto ms = options_.inactivity_timeout.count();
        const timeval limit{time_t(ms / 1000), suseconds_t(ms % 1000 * 1000)};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        std::lock_guard<std::mutex> lock(clients_mutex_);
        if (clients_.size() >= options_.max_clients) {
            Log::Warn("too many clients; closing the connection from " + PeerName(peer));
            ++stats_.errors;
            close(fd);
            continue;
        }
        auto client = std::make_unique<Client>();
        client->fd = fd;
        client->peer = PeerName(peer);
        Client &ref = *client;
        clients_.push_back(std::move(client));
        ref.thread = std::thread([this, &ref] { Serve(ref); });
    }
}

// Rendered under the lock, so that a thread that counted earlier cannot
// overwrite the file with older counters after a later one wrote it.
void Server::PublishStats() {
    if (!stats_file_) return;
    std::lock_guard<std::mutex> lock(publish_mutex_);
    stats_file_->Write(stats_.Render());
}

// One request: counted by kind, a fault picked for it, handled, the reply
// rewritten and delivered as the fault asks.
AfterDelivery Server::ServeOne(int fd, ClientProtocol &protocol, const Header &header,
                               const std::vector<uint8_t> &body) {
    ++stats_.messages;
    const Kinds kinds = Classify(header, body);
    CountKinds(stats_, kinds);
    const std::optional<Fault> fault = faults_.Pick(kinds);
    if (fault) {
        ++stats_.faults_applied;
        Log::Trace("!! fault " + fault->text);
    }
    ClientProtocol::Outcome outcome;
    if (!fault || fault->action != Action::Restart)
        outcome = protocol.Handle(header, body, fault && fault->action == Action::Refuse);
    if (fault && outcome.reply) RewriteReply(*fault, *outcome.reply);
    // Published before the reply leaves, so that a client holding the reply
    // finds the counters that include its request.
    PublishStats();
    const AfterDelivery after = Deliver(fd, outcome.reply, fault, stop_);
    return outcome.close && after == AfterDelivery::KeepOpen ? AfterDelivery::Close : after;
}

void Server::Serve(Client &client) {
    Log::Trace("-- " + client.peer + " connected");
    AfterDelivery after = AfterDelivery::Close;
    {
        ClientProtocol protocol(client.peer, context_, LocalAddress(client.fd), bound_port_);
        std::array<uint8_t, kHeaderSize> header_bytes{};
        std::vector<uint8_t> body;
        while (!stop_.stopped()) {
            pollfd p{client.fd, POLLIN, 0};
            const int ready = poll(&p, 1, int(options_.inactivity_timeout.count()));
            if (ready < 0 && errno == EINTR) continue;
            if (ready == 0) {
                if (protocol.HoldsConnections()) continue;
                Log::Trace("-- " + client.peer + " silent too long");
                break;
            }
            if (!ReadExact(client.fd, header_bytes.data(), header_bytes.size())) break;
            const Header header = ParseHeader(header_bytes.data());
            body.resize(header.length);
            if (!ReadExact(client.fd, body.data(), body.size())) break;
            after = ServeOne(client.fd, protocol, header, body);
            if (after != AfterDelivery::KeepOpen) break;
        }
    }
    if (after == AfterDelivery::Restart) Restart(client.fd);
    PublishStats();
    Log::Trace("-- " + client.peer + " disconnected");
    // The descriptor stays open until the thread is joined, so that its
    // number cannot be reused while Stop() or Restart() might shut it down.
    // A reset is sent when it is closed.
    if (after == AfterDelivery::Reset)
        ArmReset(client.fd);
    else
        shutdown(client.fd, SHUT_RDWR);
    client.finished = true;
    Wake();
}

void Server::Restart(int except_fd) {
    table_.Forget();
    ++stats_.restarts;
    Log::Trace("-- restart: every session and connection forgotten");
    std::lock_guard<std::mutex> lock(clients_mutex_);
    for (const auto &c : clients_) {
        if (!c->finished && c->fd != except_fd) shutdown(c->fd, SHUT_RDWR);
    }
}

// Threads are joined outside the lock: a client thread may still need it to
// restart the controller.
void Server::ReapFinished(bool all) {
    std::list<std::unique_ptr<Client>> done;
    {
        std::lock_guard<std::mutex> lock(clients_mutex_);
        for (auto it = clients_.begin(); it != clients_.end();) {
            const auto next = std::next(it);
            if (all) shutdown((*it)->fd, SHUT_RDWR);
            if (all || (*it)->finished) done.splice(done.end(), clients_, it);
            it = next;
        }
    }
    for (const auto &c : done) {
        if (c->thread.joinable()) c->thread.join();
        close(c->fd);
    }
}

void Server::Stop() {
    if (stopping_.exchange(true)) return;
    stop_.Stop();
    if (accept_thread_.joinable()) {
        Wake();
        accept_thread_.join();
    }
    ReapFinished(true);
    udp_.Stop();
    table_.StopWatchdog();
    if (listen_fd_ >= 0) close(listen_fd_);
    for (int &fd : wake_pipe_) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    listen_fd_ = -1;
}

} // namespace plc::sim
