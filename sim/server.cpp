#include "sim/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "util/wire.h"
#include "sim/log.h"

namespace plc::sim {

namespace {

constexpr size_t kHeaderSize = 24;

constexpr uint16_t kCmdNop = 0x0000;
constexpr uint16_t kCmdRegisterSession = 0x0065;
constexpr uint16_t kCmdUnRegisterSession = 0x0066;
constexpr uint16_t kCmdSendRRData = 0x006F;
constexpr uint16_t kCmdSendUnitData = 0x0070;

// Encapsulation status codes.
constexpr uint32_t kStatusSuccess = 0x0000;
constexpr uint32_t kStatusInvalidCommand = 0x0001;
constexpr uint32_t kStatusIncorrectData = 0x0003;
constexpr uint32_t kStatusInvalidSession = 0x0064;
constexpr uint32_t kStatusInvalidLength = 0x0065;
constexpr uint32_t kStatusUnsupportedProtocol = 0x0069;

constexpr uint16_t kProtocolVersion = 1;

constexpr uint16_t kItemNullAddress = 0x0000;
constexpr uint16_t kItemConnectedAddress = 0x00A1;
constexpr uint16_t kItemConnectedData = 0x00B1;
constexpr uint16_t kItemUnconnectedData = 0x00B2;

// A SendRRData reply's MR reply must fit after header, interface handle,
// timeout, item count, null address item and data item header.
constexpr size_t kMaxUnconnectedReply = 0xFFFF - 6 - 2 - 4 - 4;

struct Header {
    uint16_t command = 0;
    uint16_t length = 0;
    uint32_t session = 0;
    uint32_t status = 0;
    std::array<uint8_t, 8> context{};
    uint32_t options = 0;
};

Header ParseHeader(const uint8_t *bytes) {
    wire::Reader in(bytes, kHeaderSize);
    Header h;
    h.command = in.u16();
    h.length = in.u16();
    h.session = in.u32();
    h.status = in.u32();
    in.bytes(h.context.data(), h.context.size());
    h.options = in.u32();
    return h;
}

// Header + body; the body never exceeds 65535 bytes (see the reply limits).
std::vector<uint8_t> Message(const Header &request, uint32_t session, uint32_t status,
                             const std::vector<uint8_t> &body = {}) {
    wire::VecWriter out(kHeaderSize + body.size());
    out.u16(request.command).u16(uint16_t(body.size())).u32(session).u32(status);
    out.bytes(request.context.data(), request.context.size()).u32(0);
    out.bytes(body.data(), body.size());
    return out.take();
}

const char *CommandName(uint16_t command) {
    switch (command) {
    case kCmdNop: return "Nop";
    case kCmdRegisterSession: return "RegisterSession";
    case kCmdUnRegisterSession: return "UnRegisterSession";
    case kCmdSendRRData: return "SendRRData";
    case kCmdSendUnitData: return "SendUnitData";
    default: return "Command";
    }
}

std::string Hex(uint32_t v, int width = 2) {
    char b[16];
    std::snprintf(b, sizeof b, "0x%0*X", width, v);
    return b;
}

std::string DescribeMrRequest(const uint8_t *bytes, size_t size) {
    const auto mr = ParseMrRequest(bytes, size);
    if (!mr) return " mr=<malformed " + std::to_string(size) + "B>";
    return " svc=" + Hex(mr->service) + " path=" + HexBytes(mr->path) +
           " data=" + std::to_string(mr->data.size()) + "B [" + HexBytes(mr->data, 16) + "]";
}

std::string DescribeMrReply(const std::vector<uint8_t> &reply) {
    wire::Reader in(reply);
    const uint8_t service = in.u8();
    in.u8();
    const uint8_t general = in.u8();
    const uint8_t words = in.u8();
    std::string text = " svc=" + Hex(service) + " general=" + Hex(general);
    if (words) {
        text += " ext=";
        for (uint8_t i = 0; i < words && in.ok(); ++i) text += (i ? "," : "") + Hex(in.u16(), 4);
    }
    if (in.ok()) text += " data=" + std::to_string(in.remaining()) + "B [" +
                         HexBytes(in.here(), in.remaining(), 16) + "]";
    return text;
}

// The common packet format of SendRRData and SendUnitData: interface handle,
// timeout, then exactly two items (an address item and a data item) that fill
// the rest of the message.
struct Cpf {
    uint16_t address_type = 0;
    std::vector<uint8_t> address;
    uint16_t data_type = 0;
    std::vector<uint8_t> data;
};

std::optional<Cpf> ParseCpf(const std::vector<uint8_t> &body) {
    wire::Reader in(body);
    const uint32_t interface_handle = in.u32();
    in.u16(); // timeout: the replies here are immediate
    const uint16_t count = in.u16();
    if (!in.ok() || interface_handle != 0 || count != 2) return std::nullopt;
    Cpf cpf;
    for (int item = 0; item < 2; ++item) {
        const uint16_t type = in.u16();
        const uint16_t length = in.u16();
        if (!in.ok() || in.remaining() < length) return std::nullopt;
        std::vector<uint8_t> &dest = item == 0 ? cpf.address : cpf.data;
        dest.assign(in.here(), in.here() + length);
        in.skip(length);
        (item == 0 ? cpf.address_type : cpf.data_type) = type;
    }
    if (in.remaining() != 0) return std::nullopt;
    return cpf;
}

std::vector<uint8_t> CpfBody(uint16_t address_type, const std::vector<uint8_t> &address,
                             uint16_t data_type, const std::vector<uint8_t> &data) {
    wire::VecWriter out(8 + 4 + address.size() + 4 + data.size());
    out.u32(0).u16(0).u16(2);
    out.u16(address_type).u16(uint16_t(address.size())).bytes(address.data(), address.size());
    out.u16(data_type).u16(uint16_t(data.size())).bytes(data.data(), data.size());
    return out.take();
}

bool ReadExact(int fd, uint8_t *buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = recv(fd, buffer + done, size - done, 0);
        if (n > 0) {
            done += size_t(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return false;
        }
    }
    return true;
}

bool SendAll(int fd, const std::vector<uint8_t> &message) {
    size_t done = 0;
    while (done < message.size()) {
        const ssize_t n = send(fd, message.data() + done, message.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += size_t(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return false;
        }
    }
    return true;
}

// The encapsulation protocol of one TCP connection: at most one session, and
// through it the connection manager and the connected variable services.
class ClientProtocol {
public:
    ClientProtocol(const std::string &peer, ConnectionManager &connections,
                   VariableServices &services, Stats &stats)
        : peer_(peer), connections_(connections), services_(services), stats_(stats) {}

    ~ClientProtocol() {
        // A client that vanished without UnRegisterSession leaves its
        // connections open, as a controller keeps them until they are closed.
        if (session_) connections_.DropSession(session_);
    }

    struct Outcome {
        std::optional<std::vector<uint8_t>> reply;
        bool close = false;
    };

    Outcome Handle(const Header &h, const std::vector<uint8_t> &body) {
        Log::Trace("rx " + peer_ + " " + CommandName(h.command) + " cmd=" + Hex(h.command, 4) +
                   " session=" + Hex(h.session, 8) + " len=" + std::to_string(h.length) +
                   Details(h, body));
        Outcome out = Dispatch(h, body);
        if (out.reply) {
            const Header r = ParseHeader(out.reply->data());
            if (r.status != kStatusSuccess) ++stats_.errors;
            Log::Trace("tx " + peer_ + " " + CommandName(r.command) + " session=" +
                       Hex(r.session, 8) + " status=" + Hex(r.status, 4) + " len=" +
                       std::to_string(r.length) + ReplyDetails(r, *out.reply));
        } else if (out.close) {
            Log::Trace("-- " + peer_ + " connection closed");
        }
        return out;
    }

private:
    Outcome Dispatch(const Header &h, const std::vector<uint8_t> &body) {
        if (h.command == kCmdNop) return {};
        if (h.options != 0) return Reply(h, kStatusIncorrectData);
        switch (h.command) {
        case kCmdRegisterSession: return RegisterSession(h, body);
        case kCmdUnRegisterSession:
            if (!SessionOk(h)) return Reply(h, kStatusInvalidSession);
            connections_.UnregisterSession(session_);
            session_ = 0;
            return Outcome{std::nullopt, true};
        case kCmdSendRRData:
            if (!SessionOk(h)) return Reply(h, kStatusInvalidSession);
            return SendRRData(h, body);
        case kCmdSendUnitData:
            if (!SessionOk(h)) return Reply(h, kStatusInvalidSession);
            return SendUnitData(h, body);
        default: return Reply(h, kStatusInvalidCommand);
        }
    }

    bool SessionOk(const Header &h) const { return session_ != 0 && h.session == session_; }

    Outcome Reply(const Header &h, uint32_t status, const std::vector<uint8_t> &body = {}) {
        return Outcome{Message(h, h.session, status, body), false};
    }

    // Body: u16 protocol version (must be 1), u16 options (must be 0). One
    // session per TCP connection: a second registration is refused.
    Outcome RegisterSession(const Header &h, const std::vector<uint8_t> &body) {
        if (body.size() != 4) return Reply(h, kStatusInvalidLength);
        if (session_ != 0) return Reply(h, kStatusInvalidCommand, body);
        wire::Reader in(body);
        const uint16_t version = in.u16();
        const uint16_t options = in.u16();
        if (version != kProtocolVersion || options != 0)
            return Reply(h, kStatusUnsupportedProtocol, body);
        session_ = connections_.RegisterSession();
        return Outcome{Message(h, session_, kStatusSuccess, body), false};
    }

    // Unconnected: null address item, unconnected data item with a message
    // router request; only the connection manager answers here.
    Outcome SendRRData(const Header &h, const std::vector<uint8_t> &body) {
        const auto cpf = ParseCpf(body);
        if (!cpf || cpf->address_type != kItemNullAddress || !cpf->address.empty() ||
            cpf->data_type != kItemUnconnectedData || cpf->data.empty())
            return Reply(h, kStatusIncorrectData);
        const uint8_t service = cpf->data[0];
        const auto mr = ParseMrRequest(cpf->data.data(), cpf->data.size());
        const CipReply reply = mr ? connections_.Execute(session_, *mr)
                                  : CipReply::Error(general::kPathSegmentError);
        if (!reply.ok()) ++stats_.errors;
        std::vector<uint8_t> mr_reply = EncodeMrReply(service, reply);
        if (mr_reply.size() > kMaxUnconnectedReply)
            mr_reply = EncodeMrReply(service, CipReply::Error(general::kReplyDataTooLarge));
        return Reply(h, kStatusSuccess,
                     CpfBody(kItemNullAddress, {}, kItemUnconnectedData, mr_reply));
    }

    // Connected: address item with our O->T id, data item with the sequence
    // count and a message-router request. The reply carries the client's T->O
    // id and echoes the sequence count.
    //  - A sequence count equal to the previous one is a retransmission: the
    //    previous reply is sent again and nothing is executed.
    //  - Any other count that is not previous + 1 (or, first on a connection,
    //    not 0) is executed and counted as a sequence anomaly.
    //  - An O->T id that is not an open connection of this session is answered
    //    with general status 0x01, extended status 0x0107, T->O id 0.
    Outcome SendUnitData(const Header &h, const std::vector<uint8_t> &body) {
        const auto cpf = ParseCpf(body);
        if (!cpf || cpf->address_type != kItemConnectedAddress || cpf->address.size() != 4 ||
            cpf->data_type != kItemConnectedData || cpf->data.size() < 3)
            return Reply(h, kStatusIncorrectData);
        wire::Reader address(cpf->address);
        const uint32_t ot_id = address.u32();
        wire::Reader data(cpf->data);
        const uint16_t sequence = data.u16();
        const std::vector<uint8_t> request(data.here(), data.here() + data.remaining());
        const uint8_t service = request[0];

        const std::shared_ptr<Connection> c = connections_.Find(session_, ot_id);
        std::vector<uint8_t> mr_reply;
        uint32_t to_id = 0;
        if (!c) {
            ++stats_.errors;
            mr_reply = EncodeMrReply(
                service, CipReply::Error(general::kConnectionFailure,
                                         {extended::kConnectionNotFound}));
        } else if (c->has_last && sequence == c->last_sequence) {
            ++stats_.retransmissions;
            ++stats_.sequence_anomalies;
            if (request != c->last_request)
                Log::Trace("!! " + peer_ + " sequence " + std::to_string(sequence) +
                           " repeated with a different request; previous reply sent again");
            to_id = c->to_id;
            mr_reply = c->last_reply;
        } else {
            const uint16_t expected = c->has_last ? uint16_t(c->last_sequence + 1) : 0;
            if (sequence != expected) {
                ++stats_.sequence_anomalies;
                Log::Trace("!! " + peer_ + " sequence " + std::to_string(sequence) +
                           ", expected " + std::to_string(expected));
            }
            const auto mr = ParseMrRequest(request.data(), request.size());
            const CipReply reply = mr ? services_.Execute(c->token, *mr)
                                      : CipReply::Error(general::kPathSegmentError);
            if (!reply.ok()) ++stats_.errors;
            mr_reply = EncodeMrReply(service, reply);
            to_id = c->to_id;
            c->has_last = true;
            c->last_sequence = sequence;
            c->last_request = request;
            c->last_reply = mr_reply;
        }
        wire::VecWriter address_out(4);
        address_out.u32(to_id);
        wire::VecWriter data_out(2 + mr_reply.size());
        data_out.u16(sequence).bytes(mr_reply.data(), mr_reply.size());
        return Reply(h, kStatusSuccess,
                     CpfBody(kItemConnectedAddress, address_out.take(), kItemConnectedData,
                             data_out.take()));
    }

    std::string Details(const Header &h, const std::vector<uint8_t> &body) const {
        if (!Log::verbose()) return {};
        const auto cpf = ParseCpf(body);
        if (h.command == kCmdSendRRData && cpf)
            return " items=" + Hex(cpf->address_type, 4) + "," + Hex(cpf->data_type, 4) +
                   DescribeMrRequest(cpf->data.data(), cpf->data.size());
        if (h.command == kCmdSendUnitData && cpf && cpf->address.size() == 4 &&
            cpf->data.size() >= 2) {
            wire::Reader a(cpf->address), d(cpf->data);
            const uint32_t id = a.u32();
            const uint16_t seq = d.u16();
            return " conn=" + Hex(id, 8) + " seq=" + std::to_string(seq) +
                   DescribeMrRequest(d.here(), d.remaining());
        }
        if (h.command == kCmdRegisterSession || h.command == kCmdUnRegisterSession) return {};
        return " body=[" + HexBytes(body.data(), body.size(), 16) + "]";
    }

    std::string ReplyDetails(const Header &r, const std::vector<uint8_t> &message) const {
        if (!Log::verbose() || r.status != kStatusSuccess) return {};
        const std::vector<uint8_t> body(message.begin() + kHeaderSize, message.end());
        const auto cpf = ParseCpf(body);
        if (!cpf) return {};
        if (r.command == kCmdSendUnitData && cpf->address.size() == 4) {
            wire::Reader a(cpf->address), d(cpf->data);
            const uint32_t id = a.u32();
            const uint16_t seq = d.u16();
            return " conn=" + Hex(id, 8) + " seq=" + std::to_string(seq) +
                   DescribeMrReply(std::vector<uint8_t>(d.here(), d.here() + d.remaining()));
        }
        return DescribeMrReply(cpf->data);
    }

    const std::string &peer_;
    ConnectionManager &connections_;
    VariableServices &services_;
    Stats &stats_;
    uint32_t session_ = 0;
};

std::string PeerName(const sockaddr_in &addr) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(addr.sin_port));
}

} // namespace

Server::Server(ServerOptions options, SharedStore &store, Stats &stats, PublishedFile *stats_file,
               PublishedFile *store_file)
    : options_(std::move(options)),
      store_(store),
      stats_(stats),
      stats_file_(stats_file),
      connections_(stats, options_.max_connections, options_.refuse_forward_open),
      services_(store, stats, store_file) {}

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
    if (listen_fd_ < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    const int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(listen_fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 16) != 0) {
        *error = "cannot listen on " + options_.address + ":" + std::to_string(options_.port) +
                 ": " + std::strerror(errno);
        return false;
    }
    sockaddr_in bound{};
    socklen_t len = sizeof bound;
    getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&bound), &len);
    bound_port_ = ntohs(bound.sin_port);
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
            while (read(wake_pipe_[0], drain, sizeof drain) > 0) {
            }
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

void Server::Serve(Client &client) {
    Log::Trace("-- " + client.peer + " connected");
    {
        ClientProtocol protocol(client.peer, connections_, services_, stats_);
        std::array<uint8_t, kHeaderSize> header_bytes{};
        std::vector<uint8_t> body;
        while (!stopping_) {
            if (!ReadExact(client.fd, header_bytes.data(), header_bytes.size())) break;
            const Header header = ParseHeader(header_bytes.data());
            body.resize(header.length);
            if (!ReadExact(client.fd, body.data(), body.size())) break;
            ++stats_.messages;
            const auto outcome = protocol.Handle(header, body);
            // Published before the reply leaves, so that a client holding the
            // reply finds the counters that include its request.
            if (stats_file_) stats_file_->Write(stats_.Render());
            const bool sent = !outcome.reply || SendAll(client.fd, *outcome.reply);
            if (!sent || outcome.close) break;
        }
    }
    if (stats_file_) stats_file_->Write(stats_.Render());
    Log::Trace("-- " + client.peer + " disconnected");
    // The descriptor stays open (shut down) until the thread is joined, so
    // its number cannot be reused while Stop() might still shut it down.
    shutdown(client.fd, SHUT_RDWR);
    client.finished = true;
    Wake();
}

void Server::ReapFinished(bool all) {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    for (auto it = clients_.begin(); it != clients_.end();) {
        Client &c = **it;
        if (!all && !c.finished) {
            ++it;
            continue;
        }
        if (all) shutdown(c.fd, SHUT_RDWR);
        if (c.thread.joinable()) c.thread.join();
        close(c.fd);
        it = clients_.erase(it);
    }
}

void Server::Stop() {
    if (stopping_.exchange(true)) return;
    if (accept_thread_.joinable()) {
        Wake();
        accept_thread_.join();
    }
    ReapFinished(true);
    if (listen_fd_ >= 0) close(listen_fd_);
    for (int &fd : wake_pipe_) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    listen_fd_ = -1;
}

} // namespace plc::sim
