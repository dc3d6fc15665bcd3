// A received encapsulation message of any shape: the header, the common
// packet format, the address and data items and the message-router reply in
// them are only ever found wholly inside the message.
#include "eip/cip_connection_manager.h"
#include "eip/eip_packet.h"
#include "eip/mr_reply.h"
#include "fuzz_support.h"

using namespace plc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const wire::Bytes message{data, size};
    const auto header = ParseEncapHeader(data, size);
    fuzz::require(header.has_value() == (size >= kEncapHeaderSize), "header whenever 24 bytes");
    const auto cpf = _GetEipCPF(message);
    const auto address = _GetAdressItem(message);
    const auto item = _GetDataItem(message);
    fuzz::require(!address || cpf, "no address item without a packet format");
    fuzz::require(!item || address, "no data item without an address item");
    const wire::Reader in(message);
    for (const auto &at : {address, item}) {
        if (!at) continue;
        const auto length = in.u16_at(*at + 2);
        fuzz::require(length && in.has(*at + 4, *length), "an item lies inside the message");
    }
    if (const auto span = _GetMRReply(message)) {
        fuzz::require(item && in.has(span->at, span->size), "the reply lies inside its item");
        const auto view = parse_mr_reply(wire::Bytes{data + span->at, span->size});
        if (view) {
            fuzz::require(fuzz::inside(view->additional, data, size), "status inside");
            fuzz::require(fuzz::inside(view->data, data, size), "data inside");
        }
    }
    return 0;
}
