#include "engine/prepare.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>


namespace plc {

namespace {

constexpr std::string_view kPathPrefix = "VAR://";
constexpr int kLineTransRecv = 2470;

std::string_view init_name(const InitTagEntry &entry) {
    return std::string_view(entry.name.data(), strnlen(entry.name.data(), entry.name.size()));
}

size_t path_length(std::string_view name) { return kPathPrefix.size() + name.size(); }

size_t item_size(std::string_view name) {
    const size_t text = path_length(name);
    const size_t padded = text + (text & 1u);
    if (padded > kMaxPathText) return 0;
    return padded + 6;
}

} // namespace

size_t prepare_item_size(const char *name) {
    if (name == nullptr) return 0;
    return item_size(std::string_view(name));
}

bool prepare_names_fit(const InitTagEntry *names, size_t count) {
    if (count > 0 && names == nullptr) return false;
    for (size_t start = 0; start < count; start += kNamesPerRequest) {
        const size_t end = std::min(count, start + kNamesPerRequest);
        size_t items = 0;
        for (size_t k = start; k < end; ++k) {
            const size_t size = item_size(init_name(names[k]));
            if (size == 0) return false;
            items += size;
        }
        if (items > kMaxPrepareItemsBytes) return false;
    }
    return true;
}

bool build_prepare_request(wire::Writer &out, const InitTagEntry *names, size_t count) {
    if (count == 0 || count > kNamesPerRequest || names == nullptr) return false;
    if (!prepare_names_fit(names, count)) return false;
    out.u8(0x00).u8(0x00).u8(0xFF).u8(0x3F).u32(0).u8(static_cast<uint8_t>(count)).u8(0);
    for (size_t k = 0; k < count; ++k) {
        const std::string_view name = init_name(names[k]);
        const size_t text = path_length(name);
        const size_t padded = text + (text & 1u);
        out.u8(static_cast<uint8_t>(padded + 4))
            .u8(0)
            .u8(0x92)
            .u8(0)
            .u8(static_cast<uint8_t>(text))
            .u8(0)
            .text(kPathPrefix)
            .text(name)
            .zeros(padded - text);
    }
    return out.ok();
}

int parse_prepare_reply(const uint8_t *reply, size_t reply_len, size_t sent,
                        std::array<uint8_t, 10> &prefix, VarHandle *handles) {
    if (reply == nullptr || sent == 0 || sent > kNamesPerRequest || handles == nullptr) return 2;
    wire::Reader in(reply, reply_len);
    if (in.u8_at(0) != kReplyResolve) return 2;
    if (in.u8_at(14) != sent) return 2;
    // Every announced item must lie inside what CIP_TransRecv delivered: the
    // buffer beyond it holds bytes of earlier replies, never handles.
    if (!in.has(kPrepareReplyItemsAt, sent * kPrepareReplyItemSize)) return 2;
    in.seek(6);
    in.bytes(prefix.data(), prefix.size());
    for (size_t m = 0; m < sent; ++m) {
        in.seek(kPrepareReplyItemsAt + m * kPrepareReplyItemSize);
        in.bytes(handles[m].data(), handles[m].size());
    }
    return in.ok() ? 0 : 2;
}

int prepare_variables(CipExchange &link, ExchangeBuffer &send, const TagTable &table,
                      ExchangeBuffer &recv) {
    send.fill(0);
    recv.fill(0);
    const size_t total = reg_init_num;
    // Refused before anything is sent; the batch entry checks the same first,
    // so that the host sees 3 (a tag list the controller cannot be asked for)
    // and the set is never remembered.
    if (total > INIT_TAG.size() || !prepare_names_fit(INIT_TAG.data(), total)) return 3;

    std::array<VarHandle, kBatchCapacity> handles{};
    for (size_t start = 0; start < total; start += kNamesPerRequest) {
        const size_t names = std::min(kNamesPerRequest, total - start);
        wire::Writer out(send.data(), send.size());
        if (!build_prepare_request(out, &INIT_TAG[start], names)) return 3;

        uint32_t reply_len = 0;
        if (link.transact(send.data(), static_cast<uint32_t>(out.size()), recv.data(),
                          &reply_len, kServiceResolve, recv.size()) < 0) {
            init = 0;
            std::printf("[PLC] CIP_TransRecv err at line %d\r\n", kLineTransRecv);
            return 3;
        }
        std::array<uint8_t, 10> prefix{};
        if (parse_prepare_reply(recv.data(), std::min<size_t>(reply_len, recv.size()), names,
                                prefix, &handles[start]) != 0) {
            init = 0;
            return 2;
        }
        recv_flag_data1 = prefix;
    }
    for (size_t k = 0; k < total; ++k) {
        if (queue_data_link(INIT_RET_DATA, INIT_TAG[k].element, INIT_TAG[k].tag_id, handles[k],
                            table) < 0)
            return 2;
    }
    return 0;
}

int OMRON_INIT_REQ(EipSession *session, CipConnection *connection, ExchangeBuffer &send,
                   const TagTable &table, ExchangeBuffer &recv) {
    ConnectedExchange link(session, connection);
    return prepare_variables(link, send, table, recv);
}

} // namespace plc
