#include "eip/mr_reply.h"

#include "eip/cip.h"

namespace plc {

std::optional<MrReplyView> parse_mr_reply(wire::Bytes reply) {
    wire::Reader in(reply);
    MrReplyView view;
    view.service = in.u8();
    in.skip(1); // reserved
    view.general_status = in.u8();
    view.additional_words = in.u8();
    const size_t additional_size = size_t{view.additional_words} * 2;
    if (!in.ok() || in.remaining() < additional_size) return std::nullopt;
    view.additional = wire::Bytes{in.here(), additional_size};
    in.skip(additional_size);
    view.data_offset = in.pos();
    view.data = wire::Bytes{in.here(), in.remaining()};
    return view;
}

ReplyCheck check_mr_reply(const std::optional<MrReplyView> &view, uint8_t service) {
    if (!view || view->service != cip::reply_service(service)) return ReplyCheck::Unexpected;
    return view->general_status == cip::kStatusSuccess ? ReplyCheck::Ok : ReplyCheck::Refused;
}

} // namespace plc
