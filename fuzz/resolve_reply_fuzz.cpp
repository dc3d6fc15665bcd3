// A reply to a resolve request of 1 to 20 names (the first byte says how
// many): handles and the prefix come only from an Ok reply that answers every
// name inside its bytes, and nothing is written beyond the names sent.
#include <array>

#include "engine/resolve_codec.h"
#include "fuzz_support.h"

using namespace plc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t sent = size_t(data[0] % kNamesPerRequest) + 1;
    std::array<VarHandle, kNamesPerRequest + 1> handles;
    for (VarHandle &h : handles) h.fill(0x5A);
    RequestPrefix prefix;
    prefix.fill(0x5A);
    uint8_t general = 0;
    const ReplyCheck check = parse_resolve_reply(wire::Bytes{data + 1, size - 1}, sent, prefix,
                                                 handles.data(), &general);
    VarHandle guard;
    guard.fill(0x5A);
    fuzz::require(handles[sent] == guard, "no handle written beyond the names sent");
    if (check != ReplyCheck::Ok) {
        RequestPrefix untouched;
        untouched.fill(0x5A);
        fuzz::require(prefix == untouched, "no prefix from a reply that is not Ok");
        for (size_t k = 0; k < sent; ++k)
            fuzz::require(handles[k] == guard, "no handle from a reply that is not Ok");
    }
    if (check == ReplyCheck::Ok) {
        fuzz::require(size - 1 >= 16 + sent * kResolveReplyItemSize, "every item answered");
        fuzz::require(general == 0, "an Ok reply has status 0");
    }
    if (check == ReplyCheck::Refused) fuzz::require(general != 0, "a refusal has a status");
    return 0;
}
