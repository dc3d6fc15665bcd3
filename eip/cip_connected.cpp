#include "eip/cip_connected.h"

#include <array>
#include <cstdio>
#include <sys/socket.h>
#include <sys/time.h>

#include "eip/cip.h"
#include "eip/eip_packet.h"
#include "eip/mr_reply.h"

namespace plc {

namespace {

// Class segment xx, instance 0. The class byte is rewritten before every
// request and keeps its last value in between.
std::array<uint8_t, kClassPathSize> CLASS_PATH{cip::kSegmentClass8, cip::kClassVariable,
                                               cip::kSegmentInstance8, 0x00};

constexpr size_t kSequenceSize = 2;
constexpr size_t kItemHeader = 4;
constexpr size_t kConnectedAddressLength = 4;
constexpr uint16_t kItemCount = 2;

uint16_t timeout_field(int32_t timeout_us) {
    switch (Change_Time) {
    case 0: return static_cast<uint16_t>(timeout_us % 1000000);
    case 1: return static_cast<uint16_t>(timeout_us / 1000000);
    default: return 8;
    }
}

// Writes the encapsulation header and both items in front of the
// message-router request; false when the request cannot be described.
bool frame_request(const EipSession &session, const CipConnection &connection, uint16_t sequence,
                   const ConnectedBuffers &buffers, size_t mr_len) {
    const size_t body = kConnectedMrRequestAt - kEncapHeaderSize + mr_len;
    if (body > 0xFFFF || kConnectedMrRequestAt + mr_len > buffers.send.size) return false;
    wire::Writer out(buffers.send.data, kConnectedMrRequestAt);
    EncapHeader header;
    header.command = kEncapSendUnitData;
    header.length = static_cast<uint16_t>(body);
    header.session_handle = session.handle;
    header.sender_context = session.sender_context;
    WriteEncapHeader(out, header);
    out.u32(0).u16(timeout_field(session.timeout_us)).u16(kItemCount);
    out.u16(kItemConnectedAddress).u16(kConnectedAddressLength).u32(connection.ot_conn_id);
    out.u16(kItemConnectedData).u16(static_cast<uint16_t>(mr_len + kSequenceSize)).u16(sequence);
    return out.ok() && out.size() == kConnectedMrRequestAt;
}

// Gives the session's socket a receive time-out equal to its reply time-out,
// once per socket: the first wait for each reply is then the receive itself,
// a system call fewer per exchange. False when the socket has none.
bool receive_timeout_is_reply_timeout(EipSession &session) {
    if (session.timeout_us <= 0) return false;
    if (session.receive_timeout_sock == session.sock &&
        session.receive_timeout_us == session.timeout_us)
        return true;
    timeval t{};
    t.tv_sec = session.timeout_us / 1000000;
    t.tv_usec = session.timeout_us % 1000000;
    if (::setsockopt(session.sock, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t) != 0) return false;
    session.receive_timeout_sock = session.sock;
    session.receive_timeout_us = session.timeout_us;
    return true;
}

} // namespace

ConnectedReply match_connected_reply(wire::Bytes message, uint32_t to_conn_id, uint16_t sequence) {
    const wire::Reader in(message);
    if (in.u16_at(0) != kEncapSendUnitData) return {};
    const auto address = _GetAdressItem(message);
    if (!address || in.u16_at(*address) != kItemConnectedAddress ||
        in.u16_at(*address + 2) < kConnectedAddressLength || in.u32_at(*address + 4) != to_conn_id)
        return {};
    // On our connection. The sequence count it echoes, when it gets that far,
    // tells whether it answers this request; a reply to it that is cut short
    // or too short to echo a count is this request's reply, and unusable.
    const size_t at = *address + 4 + *in.u16_at(*address + 2);
    const auto echoed = in.u16_at(at + kItemHeader);
    if (echoed && *echoed != sequence) return {};
    const auto data = _GetDataItem(message);
    if (!data) return {ReplyMatch::Malformed, {}};
    const uint16_t length = *in.u16_at(*data + 2); // wholly inside, as _GetDataItem found it
    const wire::Bytes item{message.data + *data, kItemHeader + length};
    return {length < kSequenceSize ? ReplyMatch::Malformed : ReplyMatch::Ours, item};
}

std::optional<wire::Bytes> _ConnectedSend(EipSession &session, CipConnection &connection,
                                          const ConnectedBuffers &buffers, size_t mr_len) {
    const uint16_t sequence = connection.sequence;
    connection.sequence = static_cast<uint16_t>(sequence + 1);

    // A request that cannot be described in one item is never sent; it ends
    // like an exchange that got no answer.
    bool sent = false;
    if (frame_request(session, connection, sequence, buffers, mr_len)) {
        discard_stale_input(session.sock);
        sent = send_message(session.sock, buffers.send.data, kConnectedMrRequestAt + mr_len) >= 0;
        if (!sent) std::puts("CipSendData err\r");
    }
    ReplyWait wait(session.timeout_us);
    wait.receive_waits = sent && receive_timeout_is_reply_timeout(session);
    while (sent) {
        const auto size = receive_message_into(session.sock, buffers.recv, wait);
        if (!size) break;
        const ConnectedReply reply = match_connected_reply(wire::Bytes{buffers.recv.data, *size},
                                                           connection.to_conn_id, sequence);
        if (reply.match == ReplyMatch::Other) continue;
        // A reply whose data item does not even fit the message says nothing.
        if (reply.data_item.size == 0) break;
        return reply.data_item;
    }
    if (sent && Clock::now() >= wait.deadline) session.went_silent = true;
    LogCip(2, "!Exiting ConnectedSend with no response\r\n");
    return std::nullopt;
}

int32_t CIP_TransRecv(EipSession &session, CipConnection &connection,
                      const ConnectedBuffers &buffers, size_t request_len, uint8_t service,
                      wire::Bytes *reply) {
    if (reply == nullptr || buffers.send.data == nullptr ||
        buffers.send.size < kConnectedRequestHeadroom ||
        request_len > buffers.send.size - kConnectedRequestHeadroom)
        return -1;

    CLASS_PATH[1] = (service == cip::kServiceResolveOrWrite && connection.write_mode != 1)
                        ? cip::kClassResolve
                        : cip::kClassVariable;
    wire::Writer mr(buffers.send.data + kConnectedMrRequestAt,
                    kConnectedRequestHeadroom - kConnectedMrRequestAt);
    mr.u8(service).u8(kClassPathSize / 2).bytes(CLASS_PATH.data(), CLASS_PATH.size());
    if (!mr.ok()) return -1;

    Change_Time = (service == cip::kServiceReadByHandle || connection.write_mode == 1) ? 1 : 0;
    const auto item =
        _ConnectedSend(session, connection, buffers,
                       kConnectedRequestHeadroom - kConnectedMrRequestAt + request_len);
    if (!item) return -1;

    const long reply_size = long{*wire::Reader(*item).u16_at(2)} - long{kSequenceSize};
    if (reply_size < 0) {
        std::printf("[PLC] DATASIZE is incorrect at line %d\r\n", 868);
        return -1;
    }
    if (static_cast<size_t>(reply_size) < kMrReplyFixedSize) {
        std::printf("[PLC] MR_Reply is incorrect at line %d\r\n", 854);
        return -1;
    }
    *reply = wire::Bytes{item->data + kItemHeader + kSequenceSize, size_t(reply_size)};
    return 0;
}

} // namespace plc
