#include "sim/session.h"

#include "sim/discovery.h"
#include "sim/log.h"
#include "sim/trace.h"
#include "sim/wire.h"

namespace plc::sim {

namespace {

constexpr size_t kRegisterBodySize = 4;
constexpr size_t kSequenceSize = 2;
constexpr size_t kConnectionIdSize = 4;
constexpr size_t kMinConnectedData = kSequenceSize + 1; // a service byte at least
// A SendRRData reply's MR reply must fit after interface handle, timeout,
// item count, null address item and data item header.
constexpr size_t kMaxUnconnectedReply = kMaxBody - 6 - 2 - 4 - 4;

} // namespace

ClientProtocol::~ClientProtocol() {
    if (session_) ctx_.table.CloseSession(session_);
}

ClientProtocol::Outcome ClientProtocol::Handle(const Header &h, const std::vector<uint8_t> &body,
                                               bool refuse_open) {
    Log::Trace("rx " + peer_ + " " + DescribeRequest(h, body));
    Outcome out = Dispatch(h, body, refuse_open);
    if (out.reply) {
        if (ParseHeader(out.reply->data()).status != uint32_t(EncapStatus::Success))
            ++ctx_.stats.errors;
        Log::Trace("tx " + peer_ + " " + DescribeReply(*out.reply));
    } else if (out.close) {
        Log::Trace("-- " + peer_ + " connection closed");
    }
    return out;
}

// Messages with options set, Nop and an unknown connection's requests get
// no reply; unknown commands are answered "invalid command".
ClientProtocol::Outcome ClientProtocol::Dispatch(const Header &h, const std::vector<uint8_t> &body,
                                                 bool refuse_open) {
    if (h.options != 0 || h.Is(Command::Nop)) return {};
    if (IsDiscovery(h)) {
        ++ctx_.stats.discovery_requests;
        return Outcome{AnswerDiscovery(h, body.size(), ctx_.identity, local_address_, local_port_)};
    }
    if (h.Is(Command::RegisterSession)) return RegisterSession(h, body);
    const bool known = h.Is(Command::UnRegisterSession) || h.Is(Command::SendRRData) ||
                       h.Is(Command::SendUnitData);
    if (!known) return Reply(h, EncapStatus::InvalidCommand);
    // UnRegisterSession is never answered, not even for a wrong session.
    if (!SessionOk(h))
        return h.Is(Command::UnRegisterSession) ? Outcome{} : Reply(h, EncapStatus::InvalidSession);
    if (h.Is(Command::SendRRData)) return SendRRData(h, body, refuse_open);
    if (h.Is(Command::SendUnitData)) return SendUnitData(h, body);
    ctx_.table.CloseSession(session_);
    session_ = 0;
    return Outcome{std::nullopt, true};
}

ClientProtocol::Outcome ClientProtocol::Reply(const Header &h, EncapStatus status,
                                              const std::vector<uint8_t> &body) {
    return Outcome{EncodeMessage(h, h.session, status, body), false};
}

// Body: u16 protocol version, u16 options (0). An unsupported version is
// answered with the version served. One session per TCP connection: a second
// registration is refused.
ClientProtocol::Outcome ClientProtocol::RegisterSession(const Header &h,
                                                        const std::vector<uint8_t> &body) {
    if (body.size() != kRegisterBodySize) return Reply(h, EncapStatus::InvalidLength);
    if (session_ != 0) return Reply(h, EncapStatus::InvalidCommand, body);
    wire::Reader in(body);
    const uint16_t version = in.u16();
    const uint16_t options = in.u16();
    if (version != kEncapProtocolVersion || options != 0) {
        wire::VecWriter supported(kRegisterBodySize);
        supported.u16(kEncapProtocolVersion).u16(0);
        return Reply(h, EncapStatus::UnsupportedProtocol, supported.take());
    }
    session_ = ctx_.table.OpenSession();
    return Outcome{EncodeMessage(h, session_, EncapStatus::Success, body), false};
}

// Unconnected: null address item, unconnected data item with a message
// router request.
ClientProtocol::Outcome
ClientProtocol::SendRRData(const Header &h, const std::vector<uint8_t> &body, bool refuse_open) {
    const auto cpf = ParseCpf(body);
    if (!cpf || !cpf->address.Is(Item::NullAddress) || !cpf->address.data.empty() ||
        !cpf->data.Is(Item::UnconnectedData) || cpf->data.data.empty())
        return Reply(h, EncapStatus::IncorrectData);
    const std::vector<uint8_t> &request = cpf->data.data;
    const uint8_t service = wire::Reader(request).u8();
    const auto mr = ParseMrRequest(request.data(), request.size());
    const CipReply reply = mr ? ctx_.router.Unconnected(session_, *mr, refuse_open)
                              : CipReply::Error(general::kPathSegmentError);
    if (!reply.ok()) ++ctx_.stats.errors;
    std::vector<uint8_t> mr_reply = EncodeMrReply(service, reply);
    if (mr_reply.size() > kMaxUnconnectedReply)
        mr_reply = EncodeMrReply(service, CipReply::Error(general::kReplyDataTooLarge));
    return Reply(h, EncapStatus::Success,
                 EncodeCpf({{uint16_t(Item::NullAddress), {}},
                            {uint16_t(Item::UnconnectedData), std::move(mr_reply)}}));
}

// Connected: address item with our O->T id, data item with the sequence
// count and a message-router request. The reply carries the client's T->O
// id and echoes the sequence count.
ClientProtocol::Outcome ClientProtocol::SendUnitData(const Header &h,
                                                     const std::vector<uint8_t> &body) {
    const auto cpf = ParseCpf(body);
    if (!cpf || !cpf->address.Is(Item::ConnectedAddress) ||
        cpf->address.data.size() != kConnectionIdSize || !cpf->data.Is(Item::ConnectedData) ||
        cpf->data.data.size() < kMinConnectedData)
        return Reply(h, EncapStatus::IncorrectData);
    const uint32_t ot_id = wire::Reader(cpf->address.data).u32();
    wire::Reader data(cpf->data.data);
    const uint16_t sequence = data.u16();
    const std::vector<uint8_t> request(data.here(), data.here() + data.remaining());

    const std::shared_ptr<Connection> c = ctx_.table.Find(session_, ot_id);
    if (!c) ++ctx_.stats.dropped_requests;
    if (!c && !ctx_.answer_unknown_connections) {
        Log::Trace("!! " + peer_ + " no connection " + Hex(ot_id, 8) + "; request dropped");
        return {};
    }
    std::vector<uint8_t> mr_reply;
    if (c) {
        c->Touch();
        mr_reply = Execute(*c, sequence, request);
    } else {
        ++ctx_.stats.errors;
        mr_reply = EncodeMrReply(
            wire::Reader(request).u8(),
            CipReply::Error(general::kConnectionFailure, {extended::kConnectionNotFound}));
    }
    wire::VecWriter address(kConnectionIdSize);
    address.u32(c ? c->terms.to_id : 0);
    wire::VecWriter payload(kSequenceSize + mr_reply.size());
    payload.u16(sequence).bytes(mr_reply.data(), mr_reply.size());
    return Reply(h, EncapStatus::Success,
                 EncodeCpf({{uint16_t(Item::ConnectedAddress), address.take()},
                            {uint16_t(Item::ConnectedData), payload.take()}}));
}

//  - A sequence count equal to the previous one is a retransmission: the
//    previous reply is sent again and nothing is executed.
//  - Any other count that is not previous + 1 (or, first on a connection,
//    not 0) is executed and counted as a sequence anomaly.
std::vector<uint8_t> ClientProtocol::Execute(Connection &c, uint16_t sequence,
                                             const std::vector<uint8_t> &request) {
    if (c.has_last && sequence == c.last_sequence) {
        ++ctx_.stats.retransmissions;
        ++ctx_.stats.sequence_anomalies;
        if (request != c.last_request_bytes)
            Log::Trace("!! " + peer_ + " sequence " + std::to_string(sequence) +
                       " repeated with a different request; previous reply sent again");
        return c.last_reply;
    }
    const uint16_t expected = c.has_last ? uint16_t(c.last_sequence + 1) : 0;
    if (sequence != expected) {
        ++ctx_.stats.sequence_anomalies;
        Log::Trace("!! " + peer_ + " sequence " + std::to_string(sequence) + ", expected " +
                   std::to_string(expected));
    }
    const auto mr = ParseMrRequest(request.data(), request.size());
    const CipReply reply =
        mr ? ctx_.router.Connected(c, *mr) : CipReply::Error(general::kPathSegmentError);
    if (!reply.ok()) ++ctx_.stats.errors;
    c.has_last = true;
    c.last_sequence = sequence;
    c.last_request_bytes = request;
    c.last_reply = EncodeMrReply(wire::Reader(request).u8(), reply);
    return c.last_reply;
}

} // namespace plc::sim
