// A message arriving while a connected request waits: it is taken as the
// answer only when it is a SendUnitData on our connection with our sequence
// count (or one cut short before the count), and the data item handed out
// lies inside it. The connection id and
// sequence count waited for come from the first 6 bytes, so that the fuzzer
// can make messages match.
#include "eip/cip_connected.h"
#include "eip/eip_packet.h"
#include "fuzz_support.h"

using namespace plc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 6) return 0;
    wire::Reader head(data, 6);
    const uint32_t to_conn_id = head.u32();
    const uint16_t sequence = head.u16();
    const wire::Bytes message{data + 6, size - 6};
    const ConnectedReply reply = match_connected_reply(message, to_conn_id, sequence);
    if (reply.match == ReplyMatch::Other) return 0;
    // A reply of ours cut short hands out no item at all.
    if (reply.data_item.size == 0) {
        fuzz::require(reply.match == ReplyMatch::Malformed, "only a malformed reply has no item");
        return 0;
    }
    fuzz::require(fuzz::inside(reply.data_item, message.data, message.size), "item inside");
    const wire::Reader item(reply.data_item);
    fuzz::require(item.u16_at(2).value_or(0xFFFF) + 4u == reply.data_item.size, "item length");
    const wire::Reader in(message);
    const auto address = _GetAdressItem(message);
    fuzz::require(in.u16_at(0) == kEncapSendUnitData && address &&
                      in.u32_at(*address + 4) == to_conn_id,
                  "a SendUnitData on our connection");
    if (reply.match == ReplyMatch::Ours)
        fuzz::require(item.u16_at(4) == sequence, "our sequence count");
    return 0;
}
