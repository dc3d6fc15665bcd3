// A reply to a write: only the write service's reply with status 0 counts as
// written.
#include "eip/cip.h"
#include "engine/write_codec.h"
#include "fuzz_support.h"

using namespace plc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const ReplyCheck check = parse_write_reply(wire::Bytes{data, size});
    if (check == ReplyCheck::Ok) {
        fuzz::require(size >= 4 && data[0] == cip::reply_service(cip::kServiceResolveOrWrite) &&
                          data[2] == 0,
                      "written only by a successful write reply");
    }
    return 0;
}
