#include "engine/resolve_codec.h"

#include <algorithm>
#include <cstdio>

#include "eip/cip.h"

namespace plc {

namespace {

constexpr uint16_t kResolveMarker = 0x3FFF;
constexpr uint16_t kSymbolSegment = 0x0092;
constexpr size_t kItemFixed = 6;
// Inside the response data: a reserved word, the request prefix, whose byte 8
// is the number of names answered, then the items.
constexpr size_t kReplyPrefixAt = 2;
constexpr size_t kReplyCountAt = kReplyPrefixAt + 8;
constexpr size_t kReplyItemsAt = kReplyPrefixAt + 10;

size_t path_length(std::string_view name) { return kPathScheme.size() + name.size(); }

} // namespace

size_t resolve_item_size(std::string_view name) {
    const size_t text = path_length(name);
    if (text > kMaxPathText) return 0;
    return text + (text & 1u) + kItemFixed;
}

bool resolve_names_fit(const std::string_view *names, size_t count) {
    if (count > 0 && names == nullptr) return false;
    for (size_t start = 0; start < count; start += kNamesPerRequest) {
        const size_t end = std::min(count, start + kNamesPerRequest);
        size_t items = 0;
        for (size_t k = start; k < end; ++k) {
            const size_t size = resolve_item_size(names[k]);
            if (size == 0) return false;
            items += size;
        }
        if (items > kMaxResolveItemsBytes) return false;
    }
    return true;
}

bool build_resolve_request(wire::Writer &out, const std::string_view *names, size_t count) {
    if (count == 0 || count > kNamesPerRequest || !resolve_names_fit(names, count)) return false;
    out.u16(0).u16(kResolveMarker).u32(0).u16(static_cast<uint16_t>(count));
    for (size_t k = 0; k < count; ++k) {
        const size_t text = path_length(names[k]);
        const size_t padded = text + (text & 1u);
        out.u16(static_cast<uint16_t>(padded + 4))
            .u16(kSymbolSegment)
            .u16(static_cast<uint16_t>(text))
            .text(kPathScheme)
            .text(names[k])
            .pad_even();
    }
    return out.ok();
}

ReplyCheck parse_resolve_reply(wire::Bytes reply, size_t sent, RequestPrefix &prefix,
                               VarHandle *handles, uint8_t *general_status) {
    const auto view = parse_mr_reply(reply);
    const ReplyCheck check = check_mr_reply(view, cip::kServiceResolveOrWrite);
    if (general_status != nullptr) *general_status = view ? view->general_status : 0;
    if (check != ReplyCheck::Ok) return check;
    wire::Reader in(view->data);
    // Every announced item must lie inside the reply: the buffer beyond it
    // holds bytes of other messages, never handles.
    if (sent == 0 || handles == nullptr || in.u8_at(kReplyCountAt) != sent ||
        !in.has(kReplyItemsAt, sent * kResolveReplyItemSize))
        return ReplyCheck::Unexpected;
    in.seek(kReplyPrefixAt);
    in.bytes(prefix.data(), prefix.size());
    for (size_t m = 0; m < sent; ++m) {
        in.seek(kReplyItemsAt + m * kResolveReplyItemSize);
        in.bytes(handles[m].data(), handles[m].size());
    }
    return in.ok() ? ReplyCheck::Ok : ReplyCheck::Unexpected;
}

void report_unknown_variables(const std::string_view *names, size_t count, uint8_t general) {
    std::printf("[PLC] %s ", count == 1 ? "variable" : "one of the variables");
    for (size_t k = 0; k < count; ++k) {
        std::printf("%s%.*s", k == 0 ? "" : ", ", static_cast<int>(names[k].size()),
                    names[k].data());
    }
    std::printf(" is not known to the controller (general status 0x%02X)\r\n", general);
}

} // namespace plc
