#include "engine/prepare.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "engine/classify.h"
#include "engine/resolve_codec.h"

namespace plc {

namespace {

constexpr int kLineTransRecv = 2470;

} // namespace

Status OMRON_INIT_REQ(ControllerLink &link, const TagTable &table) {
    const size_t total = std::min<size_t>(reg_init_num, INIT_TAG.size());
    std::array<std::string_view, kBatchCapacity> names;
    for (size_t k = 0; k < total; ++k) {
        names[k] = std::string_view(INIT_TAG[k].name.data(),
                                    strnlen(INIT_TAG[k].name.data(), INIT_TAG[k].name.size()));
    }
    // Names the requests cannot carry are refused before anything is sent.
    if (!resolve_names_fit(names.data(), total)) return Status::ConfigError;

    std::array<VarHandle, kBatchCapacity> handles{};
    for (size_t start = 0; start < total; start += kNamesPerRequest) {
        const size_t count = std::min(kNamesPerRequest, total - start);
        wire::Writer out(link.request_area());
        if (!build_resolve_request(out, &names[start], count)) return Status::ConfigError;
        const auto reply = link.exchange(CipCall::Resolve, out.size());
        if (!reply) {
            link.mark_down();
            std::printf("[PLC] CIP_TransRecv err at line %d\r\n", kLineTransRecv);
            return Status::CommFailure;
        }
        RequestPrefix prefix{};
        uint8_t general = 0;
        switch (parse_resolve_reply(*reply, count, prefix, &handles[start], &general)) {
        case ReplyCheck::Ok: break;
        case ReplyCheck::Refused:
            // The controller answered: the connection works, the tag list
            // names a variable its program does not have.
            report_unknown_variables(&names[start], count, general);
            return Status::ConfigError;
        case ReplyCheck::Unexpected: link.mark_down(); return Status::CommFailure;
        }
        recv_flag_data1 = prefix;
    }
    // Handles are kept only once every request has been answered.
    for (size_t k = 0; k < total; ++k) {
        const InitTagEntry &e = INIT_TAG[k];
        const HandleKey key = handle_key(table.serial, e.tag_id, e.element, e.by_element);
        if (queue_data_link(INIT_RET_DATA, key, handles[k]) < 0) return Status::CommFailure;
    }
    return Status::Ok;
}

} // namespace plc
