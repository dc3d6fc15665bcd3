// Resolution of one variable by name: the controller answers a "VAR://" path
// with a request prefix for later reads and writes and the variable's handle.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "engine/resolve_codec.h"
#include "engine/single_request.h"
#include "tags/tag_kinds.h"

namespace plc {

namespace {

std::string_view name_view(const NameText &name) {
    return std::string_view(name.data(), strnlen(name.data(), name.size()));
}

} // namespace

Status find_single_target(const DriverSettings *settings, PlcRequest &request, const PlcData &data,
                          const TagLookupLines &lines, SingleTarget &target) {
    target.tag_id = compose_tag_id(request);
    target.element = element_index(request);
    TagTable *table = nullptr;
    target.entry = find_request_entry(settings, request, target.tag_id, lines, &table);
    if (target.entry == nullptr) return Status::ConfigError;
    target.table = table;
    const TagEntry &entry = *target.entry;
    // One element of a BOOL array is resolved by itself, by its subscripts;
    // every other request resolves the whole variable.
    const bool by_element =
        data.count == 1 && dim_kind(entry) != DimKind::Scalar && entry.bits == 1;
    target.key = handle_key(table->serial, target.tag_id, target.element, by_element);
    if (by_element) {
        if (!bool_element_name(entry, target.element, target.name)) return Status::ConfigError;
    } else {
        variable_name(entry, target.name);
    }
    // A name the resolve request cannot carry is refused before any traffic.
    const std::string_view name = name_view(target.name);
    return resolve_item_size(name) != 0 ? Status::Ok : Status::ConfigError;
}

Status REG_INIT(ControllerLink &link, const SingleTarget &target) {
    const std::string_view name = name_view(target.name);
    wire::Writer out(link.request_area());
    if (!build_resolve_request(out, &name, 1)) return Status::ConfigError;

    const auto reply = link.exchange(CipCall::Resolve, out.size());
    if (!reply) {
        link.mark_down();
        return Status::CommFailure;
    }
    RequestPrefix prefix{};
    VarHandle handle{};
    uint8_t general = 0;
    switch (parse_resolve_reply(*reply, 1, prefix, &handle, &general)) {
    case ReplyCheck::Ok: break;
    case ReplyCheck::Refused:
        // The controller answered: the connection works, the tag list names a
        // variable its program does not have. Nothing is kept, so that the
        // next call asks again and finds a variable a new program adds.
        report_unknown_variables(&name, 1, general);
        return Status::ConfigError;
    case ReplyCheck::Unexpected: link.mark_down(); return Status::CommFailure;
    }
    recv_flag_data1 = prefix;
    if (queue_data_link(INIT_RET_DATA, target.key, handle) < 0) return Status::CommFailure;
    return Status::Ok;
}

Status ensure_resolved(ControllerLink &link, const SingleTarget &target) {
    if (locate_link(INIT_RET_DATA.get(), target.key) == 1 && label_reupdata != 1) return Status::Ok;
    return REG_INIT(link, target);
}

} // namespace plc
