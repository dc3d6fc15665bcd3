#include "sim/encap.h"

#include "sim/wire.h"

namespace plc::sim {

namespace {
constexpr size_t kItemHeader = 4;
constexpr uint16_t kRequestItems = 2;
} // namespace

Header ParseHeader(const uint8_t *bytes) {
    wire::Reader in(bytes, kHeaderSize);
    Header h;
    h.command = in.u16();
    h.length = in.u16();
    h.session = in.u32();
    h.status = in.u32();
    in.bytes(h.context.data(), h.context.size());
    h.options = in.u32();
    return h;
}

std::vector<uint8_t> EncodeMessage(const Header &request, uint32_t session, EncapStatus status,
                                   const std::vector<uint8_t> &body) {
    wire::VecWriter out(kHeaderSize + body.size());
    out.u16(request.command).u16(uint16_t(body.size())).u32(session).u32(uint32_t(status));
    out.bytes(request.context.data(), request.context.size()).u32(0);
    out.bytes(body.data(), body.size());
    return out.take();
}

std::optional<std::vector<CpfItem>> ParseItems(const uint8_t *bytes, size_t size) {
    wire::Reader in(bytes, size);
    const uint16_t count = in.u16();
    std::vector<CpfItem> items;
    for (uint16_t i = 0; i < count && in.ok(); ++i) {
        CpfItem item;
        item.type = in.u16();
        const uint16_t length = in.u16();
        if (!in.ok() || in.remaining() < length) return std::nullopt;
        item.data.assign(in.here(), in.here() + length);
        in.skip(length);
        items.push_back(std::move(item));
    }
    if (!in.ok() || in.remaining() != 0) return std::nullopt;
    return items;
}

std::vector<uint8_t> EncodeItems(const std::vector<CpfItem> &items) {
    size_t size = 2;
    for (const CpfItem &item : items) size += kItemHeader + item.data.size();
    wire::VecWriter out(size);
    out.u16(uint16_t(items.size()));
    for (const CpfItem &item : items) {
        out.u16(item.type).u16(uint16_t(item.data.size()));
        out.bytes(item.data.data(), item.data.size());
    }
    return out.take();
}

std::optional<Cpf> ParseCpf(const std::vector<uint8_t> &body) {
    wire::Reader in(body);
    const uint32_t interface_handle = in.u32();
    in.u16(); // timeout: the replies here are immediate
    if (!in.ok() || interface_handle != 0) return std::nullopt;
    auto items = ParseItems(in.here(), in.remaining());
    if (!items || items->size() != kRequestItems) return std::nullopt;
    return Cpf{std::move((*items)[0]), std::move((*items)[1])};
}

std::vector<uint8_t> EncodeCpf(const Cpf &cpf) {
    const std::vector<uint8_t> items = EncodeItems({cpf.address, cpf.data});
    wire::VecWriter out(6 + items.size());
    out.u32(0).u16(0).bytes(items.data(), items.size());
    return out.take();
}

} // namespace plc::sim
