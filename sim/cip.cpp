#include "sim/cip.h"

#include <cstdio>

#include "util/wire.h"

namespace plc::sim {

std::optional<MrRequest> ParseMrRequest(const uint8_t *bytes, size_t size) {
    wire::Reader in(bytes, size);
    MrRequest request;
    request.service = in.u8();
    const size_t path_bytes = size_t(in.u8()) * 2;
    if (!in.ok() || in.remaining() < path_bytes) return std::nullopt;
    request.path.assign(in.here(), in.here() + path_bytes);
    in.skip(path_bytes);
    request.data.assign(in.here(), in.here() + in.remaining());
    return request;
}

std::vector<uint8_t> EncodeMrReply(uint8_t request_service, const CipReply &reply) {
    wire::VecWriter out(4 + 2 * reply.additional.size() + reply.data.size());
    out.u8(uint8_t(request_service | 0x80)).u8(0).u8(reply.general);
    out.u8(uint8_t(reply.additional.size()));
    for (const uint16_t word : reply.additional) out.u16(word);
    out.bytes(reply.data.data(), reply.data.size());
    return out.take();
}

std::optional<ClassInstance> ParseClassInstancePath(const std::vector<uint8_t> &path) {
    wire::Reader in(path);
    ClassInstance result;
    switch (in.u8()) {
    case 0x20: result.class_id = in.u8(); break;
    case 0x21: in.skip(1); result.class_id = in.u16(); break;
    default: return std::nullopt;
    }
    switch (in.u8()) {
    case 0x24: result.instance = in.u8(); break;
    case 0x25: in.skip(1); result.instance = in.u16(); break;
    default: return std::nullopt;
    }
    if (!in.ok() || in.remaining() != 0) return std::nullopt;
    return result;
}

std::string HexBytes(const uint8_t *bytes, size_t size, size_t max) {
    std::string text;
    const size_t shown = size < max ? size : max;
    for (size_t i = 0; i < shown; ++i) {
        char b[4];
        std::snprintf(b, sizeof b, i ? " %02X" : "%02X", bytes[i]);
        text += b;
    }
    if (shown < size) text += " ...";
    return text;
}

} // namespace plc::sim
