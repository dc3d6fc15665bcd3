// A message-router reply to Large_Forward_Open or Forward_Close: a connection
// is granted only by the open's own successful reply carrying both ids.
#include "eip/cip.h"
#include "eip/cip_connection_manager.h"
#include "eip/mr_reply.h"
#include "fuzz_support.h"

using namespace plc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const wire::Bytes reply{data, size};
    const auto view = parse_mr_reply(reply);
    const auto ids = parse_forward_open_reply(reply);
    if (ids) {
        fuzz::require(view && view->service == cip::reply_service(cip::kServiceLargeForwardOpen),
                      "only the open's reply grants a connection");
        fuzz::require(view->general_status == 0 && view->data.size >= 8, "a successful reply");
        fuzz::require(wire::Reader(view->data).u32_at(0) == ids->ot_conn_id, "the first id");
        fuzz::require(wire::Reader(view->data).u32_at(4) == ids->to_conn_id, "the second id");
    }
    if (check_mr_reply(view, cip::kServiceForwardClose) == ReplyCheck::Ok)
        fuzz::require(view->service == cip::reply_service(cip::kServiceForwardClose) &&
                          view->general_status == 0,
                      "only the close's own successful reply closes");
    return 0;
}
