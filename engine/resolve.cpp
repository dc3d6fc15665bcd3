// Resolution of one variable by name: the controller answers a "VAR://" path
// with a request prefix for later reads and writes and the variable's handle.
#include <algorithm>
#include <cstring>
#include <cstdio>

#include "eip/cip_connected.h"
#include "eip/wire.h"
#include "engine/single_codec.h"
#include "engine/single_request.h"

namespace plc {

namespace {
constexpr std::string_view kPathScheme = "VAR://";
constexpr uint16_t kPathSegment = 0x0092;
constexpr size_t kResolveHeaderSize = 16;
constexpr size_t kReplyPrefixAt = 6;
constexpr size_t kReplyHandleAt = 16;
} // namespace

std::optional<std::string> resolve_path(const TagEntry &entry, uint32_t element, uint32_t count) {
    // The name field of an entry is NUL-terminated within its 256 bytes; a
    // name that fills them all is taken up to the end of the field.
    const size_t name_len = strnlen(entry.name, sizeof entry.name);
    std::string path(kPathScheme);
    path.append(entry.name, name_len);
    // One element of a BOOL array is resolved by itself; every other request
    // resolves the whole variable.
    if (count == 1 && entry.dim_type != 0 && entry.bits == 1) {
        char subscript[16];
        std::snprintf(subscript, sizeof subscript, "[%d]", static_cast<int>(element));
        path += subscript;
    }
    // The request describes the text with one length byte: a longer path
    // cannot be sent, and is refused before any traffic.
    if (path.size() > kMaxPathText) return std::nullopt;
    return path;
}

size_t build_resolve_request(std::string_view path, uint8_t *out, size_t capacity) {
    if (path.size() > kMaxPathText) return 0;
    const size_t padded = path.size() + (path.size() & 1u);
    wire::Writer w(out, capacity);
    w.u16(0).u16(0x3FFF).u32(0).u16(1);
    w.u16(static_cast<uint16_t>(padded + 4)).u16(kPathSegment);
    w.u16(static_cast<uint16_t>(path.size() & 0xFFu));
    w.text(path).pad_even();
    return w.ok() ? w.size() : 0;
}

std::optional<ResolveReply> parse_resolve_reply(const uint8_t *reply, size_t size) {
    wire::Reader r(reply, size);
    if (r.u8() != kReplyResolve || !r.ok()) return std::nullopt;
    ResolveReply out;
    r.seek(kReplyPrefixAt);
    r.bytes(out.prefix.data(), out.prefix.size());
    r.seek(kReplyHandleAt);
    r.bytes(out.handle.data(), out.handle.size());
    // A reply that ends before the handle does not describe the variable:
    // nothing of it is kept.
    if (!r.ok()) return std::nullopt;
    return out;
}

uint32_t REG_INIT(const TagTable &table, PlcRequest &request, ExchangeBuffer &send,
                  ExchangeBuffer &reply, const PlcData &data) {
    const uint32_t tag_id = compose_tag_id(request);
    const uint32_t element = element_index(request);

    const TagEntry *entry = find_entry(table, tag_id);
    if (entry == nullptr) return 3; // indexed position outside its group
    const std::optional<std::string> path = resolve_path(*entry, element, data.count);
    if (!path) return 3;
    const size_t request_len = build_resolve_request(*path, send.data(), send.size());
    if (request_len == 0) return 3;

    if (!session || !connection) {
        init = 0;
        return 2;
    }
    uint32_t reply_len = 0;
    const int32_t rc = CIP_TransRecv(session.get(), connection.get(), send.data(),
                                     static_cast<uint32_t>(request_len), reply.data(), &reply_len,
                                     kServiceResolve, reply.size());
    std::fill_n(send.begin(), request_len, 0);

    // Without a usable reply there is no handle to keep: storing one would
    // only make the following read or write carry bytes of no meaning. A
    // failed exchange means the connection is broken, so the next entry
    // rebuilds it; a reply of another kind leaves the connection as it is.
    if (rc < 0) {
        init = 0;
        return 2;
    }
    const size_t valid = std::min<size_t>(reply_len, reply.size());
    const std::optional<ResolveReply> parsed = parse_resolve_reply(reply.data(), valid);
    if (!parsed) return 2;

    recv_flag_data1 = parsed->prefix;
    if (queue_data_link(INIT_RET_DATA, element, tag_id, parsed->handle, table) < 0) return 2;
    return 0;
}

} // namespace plc
