#include "sim/variable_services.h"

#include <string>
#include <string_view>
#include <vector>

namespace plc::sim {

namespace {

constexpr std::string_view kNamePrefix = "VAR://";
constexpr uint16_t kResolveField1 = 0x3FFF; // second u16 of every resolve request
constexpr uint16_t kSymbolSegment = 0x0092; // announces the name text of an item
constexpr size_t kReservedItemTail = 6;

CipReply Refuse(uint8_t general_status) { return CipReply::Error(general_status); }

// The 10-byte prefix of read and write requests: bytes 0..3 the connection's
// token, 4..7 zero, 8 the name count of the resolve reply it came from (any
// value), 9 zero.
uint8_t CheckPrefix(wire::Reader &in, uint32_t token) {
    const uint32_t got = in.u32();
    const uint32_t zero = in.u32();
    in.u8();
    const uint8_t zero2 = in.u8();
    if (!in.ok()) return general::kNotEnoughData;
    if (got != token) return general::kPathDestinationUnknown;
    if (zero != 0 || zero2 != 0) return general::kInvalidParameter;
    return general::kSuccess;
}

// A handle is ours when it names an existing variable of this connection with
// the variable's type; flags other than 0 and 1 were never issued.
const Variable *CheckHandle(const VariableStore &store, const VarHandle &h, uint32_t token) {
    if (h.index >= store.size() || h.token_low != uint16_t(token) || h.flags > VarHandle::kElement)
        return nullptr;
    const Variable &var = store.at(h.index);
    if (uint8_t(var.type->code) != h.type_low) return nullptr;
    return &var;
}

uint64_t EvenBytes(uint64_t bits) {
    const uint64_t bytes = (bits + 7) / 8;
    return bytes + (bytes & 1);
}

} // namespace

std::array<uint8_t, kHandleSize> VarHandle::Encode() const {
    std::array<uint8_t, kHandleSize> out{};
    wire::Writer w(out.data(), out.size());
    w.u16(index).u16(token_low).u8(type_low).u32(bit_base).u8(flags);
    return out;
}

VarHandle VarHandle::Decode(wire::Reader &in) {
    VarHandle h;
    h.index = in.u16();
    h.token_low = in.u16();
    h.type_low = in.u8();
    h.bit_base = in.u32();
    h.flags = in.u8();
    return h;
}

CipReply VariableServices::Execute(uint32_t token, const MrRequest &request,
                                   const RequestPath &path, size_t max_reply) {
    if (path.attribute) return Refuse(general::kPathSegmentError);
    if (path.instance != 0) return Refuse(general::kPathDestinationUnknown);
    if (path.class_id == cip_class::kResolve && request.service == service::kResolveOrWrite)
        return Resolve(token, request.data);
    if (path.class_id == cip_class::kVariable && request.service == service::kRead)
        return Read(token, request.data, max_reply);
    if (path.class_id == cip_class::kVariable && request.service == service::kResolveOrWrite)
        return Write(token, request.data);
    return Refuse(general::kServiceNotSupported);
}

// Request: u16 0, u16 0x3FFF, u32 0, u8 N (1..20), u8 0, then N items of
// u16 (P + 4), u16 0x0092, u16 T, T text bytes "VAR://name" and one zero pad
// byte when T is odd (P = T rounded up to even).
// Reply data: u16 0, the 10-byte prefix (token, 0, N, 0), then per name 24
// bytes: handle, u16 type code, u16 element size in bytes, u32 element count
// (1 for an element), 6 zero bytes. One unknown name refuses the request.
CipReply VariableServices::Resolve(uint32_t token, const std::vector<uint8_t> &data) {
    wire::Reader in(data);
    const uint16_t zero = in.u16();
    const uint16_t field1 = in.u16();
    const uint32_t zero2 = in.u32();
    const uint8_t count = in.u8();
    const uint8_t zero3 = in.u8();
    if (!in.ok()) return Refuse(general::kNotEnoughData);
    if (zero != 0 || field1 != kResolveField1 || zero2 != 0 || zero3 != 0 || count == 0 ||
        count > kMaxResolveNames)
        return Refuse(general::kInvalidParameter);
    stats_.resolve_names += count;

    std::vector<std::string_view> names;
    for (uint8_t i = 0; i < count; ++i) {
        const uint16_t item_length = in.u16();
        const uint16_t segment = in.u16();
        const uint16_t text_length = in.u16();
        if (!in.ok()) return Refuse(general::kNotEnoughData);
        const size_t padded = size_t(text_length) + (text_length & 1u);
        if (segment != kSymbolSegment || item_length != padded + 4)
            return Refuse(general::kInvalidParameter);
        if (in.remaining() < padded) return Refuse(general::kNotEnoughData);
        const std::string_view text(reinterpret_cast<const char *>(in.here()), text_length);
        in.skip(text_length);
        if ((text_length & 1u) && in.u8() != 0) return Refuse(general::kInvalidParameter);
        if (text.substr(0, kNamePrefix.size()) != kNamePrefix)
            return Refuse(general::kPathDestinationUnknown);
        names.push_back(text.substr(kNamePrefix.size()));
    }
    if (in.remaining() != 0) return Refuse(general::kTooMuchData);

    wire::VecWriter out(2 + kPrefixSize + kResolveItemSize * count);
    out.u16(0).u32(token).u32(0).u8(count).u8(0);
    std::lock_guard<std::mutex> lock(shared_.mutex);
    const VariableStore &store = shared_.store;
    for (const std::string_view name : names) {
        const auto ref = store.Lookup(name);
        if (!ref) return Refuse(general::kPathDestinationUnknown);
        const Variable &var = store.at(ref->index);
        VarHandle h;
        h.index = ref->index;
        h.token_low = uint16_t(token);
        h.type_low = uint8_t(var.type->code);
        h.bit_base = uint32_t(ref->position * var.element_bits);
        h.flags = ref->element ? VarHandle::kElement : 0;
        const auto handle = h.Encode();
        out.bytes(handle.data(), handle.size());
        out.u16(var.type->code);
        out.u16(uint16_t(var.element_bytes()));
        out.u32(ref->element ? 1u : uint32_t(var.element_count));
        out.zeros(kReservedItemTail);
    }
    CipReply reply;
    reply.data = out.take();
    return reply;
}

// Request: prefix, u8 item count (1..15), u8 0, then 18-byte items: handle,
// u32 bit offset, u24 bit length, u8 0. The single-item form sends the length
// as a u32, which is the same bytes as long as its top byte is 0.
// The item's bits start at handle bit base + bit offset and must lie inside
// the variable. Reply data: u32 item count, a u16 0 per item, then each item's
// ceil(length / 8) value bytes padded with a zero byte to an even count.
CipReply VariableServices::Read(uint32_t token, const std::vector<uint8_t> &data,
                                size_t max_reply) {
    wire::Reader in(data);
    if (const uint8_t status = CheckPrefix(in, token)) return Refuse(status);
    const uint8_t count = in.u8();
    const uint8_t zero = in.u8();
    if (!in.ok()) return Refuse(general::kNotEnoughData);
    if (zero != 0 || count == 0 || count > kMaxReadItems) return Refuse(general::kInvalidParameter);
    stats_.read_items += count;
    if (in.remaining() < size_t(count) * kReadItemSize) return Refuse(general::kNotEnoughData);
    if (in.remaining() > size_t(count) * kReadItemSize) return Refuse(general::kTooMuchData);

    struct Item {
        VarHandle handle;
        uint64_t start;
        uint64_t length;
    };
    std::vector<Item> items;
    uint64_t reply_size = 4 + 4 + 2 * uint64_t(count);
    for (uint8_t i = 0; i < count; ++i) {
        Item item;
        item.handle = VarHandle::Decode(in);
        const uint32_t offset = in.u32();
        const uint32_t length = in.u32();
        if (length >> 24 != 0 || length == 0) return Refuse(general::kInvalidParameter);
        item.start = uint64_t(item.handle.bit_base) + offset;
        item.length = length;
        reply_size += EvenBytes(length);
        items.push_back(item);
    }
    if (reply_size > max_reply) return Refuse(general::kReplyDataTooLarge);

    wire::VecWriter out{size_t(reply_size)};
    out.u32(count);
    for (uint8_t i = 0; i < count; ++i) out.u16(0);
    std::vector<uint8_t> &bytes = out.vec();
    std::lock_guard<std::mutex> lock(shared_.mutex);
    const VariableStore &store = shared_.store;
    for (const Item &item : items) {
        if (!CheckHandle(store, item.handle, token))
            return Refuse(general::kPathDestinationUnknown);
        if (!store.ReadBits(item.handle.index, item.start, item.length, bytes))
            return Refuse(general::kInvalidParameter);
        out.pad_even();
    }
    CipReply reply;
    reply.data = out.take();
    return reply;
}

// Request: prefix, u8 1, u8 0, u8 L, u8 0, handle, u32 bit offset, u32 bit
// size, value bytes (size / 8 of them, padded to an even count; L is their
// number before padding, low 8 bits).
// A bit size of 1 writes one bit: the value is 2 bytes (L = 2) in which the
// client has shifted the bit to some position of its own, so the bit is set
// when the 16-bit value is non-zero and cleared when it is zero. The BOOL form
// sends the handle's first 5 bytes, zeros instead of bit base and flags, and
// the bit position in the offset field; base + offset covers both forms.
// Other sizes must be whole bytes at a byte-aligned start (a 64-bit element may
// be written one 32-bit half at a time). The reply has no data.
CipReply VariableServices::Write(uint32_t token, const std::vector<uint8_t> &data) {
    wire::Reader in(data);
    if (const uint8_t status = CheckPrefix(in, token)) return Refuse(status);
    const uint8_t count = in.u8();
    const uint8_t zero = in.u8();
    const uint8_t length_byte = in.u8();
    const uint8_t zero2 = in.u8();
    const VarHandle handle = VarHandle::Decode(in);
    const uint32_t offset = in.u32();
    const uint32_t size = in.u32();
    if (!in.ok()) return Refuse(general::kNotEnoughData);
    if (count != 1 || zero != 0 || zero2 != 0 || size == 0 || (size != 1 && size % 8 != 0))
        return Refuse(general::kInvalidParameter);
    const uint64_t value_bytes = size == 1 ? 2 : size / 8;
    if (length_byte != uint8_t(value_bytes)) return Refuse(general::kInvalidParameter);
    const uint64_t sent = value_bytes + (value_bytes & 1);
    if (in.remaining() < sent) return Refuse(general::kNotEnoughData);
    if (in.remaining() > sent) return Refuse(general::kTooMuchData);
    const uint64_t start = uint64_t(handle.bit_base) + offset;
    if (size != 1 && start % 8 != 0) return Refuse(general::kInvalidParameter);

    std::lock_guard<std::mutex> lock(shared_.mutex);
    VariableStore &store = shared_.store;
    if (!CheckHandle(store, handle, token)) return Refuse(general::kPathDestinationUnknown);
    bool written;
    if (size == 1) {
        const uint8_t bit = in.u16() != 0 ? 1 : 0;
        written = store.WriteBits(handle.index, start, 1, &bit);
    } else {
        written = store.WriteBits(handle.index, start, size, in.here());
    }
    if (!written) return Refuse(general::kInvalidParameter);
    if (store_file_ && store_file_->enabled()) store_file_->Write(store.Render());
    return CipReply{};
}

} // namespace plc::sim
