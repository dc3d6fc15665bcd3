// Encoding and exchange of one write: the value taken from the host's
// registers, carried by handle with service 0x56 to class 0xB8.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "eip/cip_connected.h"
#include "eip/wire.h"
#include "engine/single_codec.h"
#include "engine/single_request.h"
#include "tags/cip_types.h"

namespace plc {

namespace {

// Longest TIME text taken from the host's buffer, terminator included. The
// host gives a NUL-terminated text; the bound keeps an unterminated buffer
// from being read without end.
constexpr size_t kMaxTimeText = 64;

enum class Kind { Time, Bool, Byte, Word, DoubleWord, Text, Unwritable };

Kind kind_of(const TagEntry &entry) {
    if (entry.type_code == kTypeTime) return Kind::Time;
    switch (entry.bits) {
    case 1: return Kind::Bool;
    case 8: return Kind::Byte;
    case 16: return Kind::Word;
    case 32: return Kind::DoubleWord;
    case 0: return Kind::Text;
    default: return Kind::Unwritable;
    }
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The connection addresses a write to class 0xB8 while write_mode is set; it
// must be cleared on every way out, or the next resolve would go there too.
class WriteModeScope {
public:
    explicit WriteModeScope(CipConnection &c) : c_(c) { c_.write_mode = 1; }
    ~WriteModeScope() { c_.write_mode = 0; }
    WriteModeScope(const WriteModeScope &) = delete;
    WriteModeScope &operator=(const WriteModeScope &) = delete;

private:
    CipConnection &c_;
};

} // namespace

uint16_t write_bit_position(const TagEntry &entry, uint32_t element) {
    // Unsigned arithmetic: a bit number below the lower bound wraps by a
    // multiple of 16 and leaves the position modulo 16 intact.
    const uint32_t base = entry.dim_type == 1 ? entry.bit_no - entry.lo1 : entry.bit_no;
    return static_cast<uint16_t>((base + element) % 16u);
}

std::optional<uint64_t> parse_time_text(const char *text, size_t max_len) {
    if (text == nullptr) return std::nullopt;
    const void *nul = std::memchr(text, '\0', max_len);
    if (nul == nullptr) return std::nullopt;
    std::string_view s(text, static_cast<size_t>(static_cast<const char *>(nul) - text));
    while (!s.empty() && is_space(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_space(s.back())) s.remove_suffix(1);
    if (!s.empty() && s.front() == '+') s.remove_prefix(1);
    if (s.empty() || s.front() == '+') return std::nullopt;

    // Decimal only, whatever locale the host process runs under.
    double seconds = 0;
    const auto [end, ec] =
        std::from_chars(s.data(), s.data() + s.size(), seconds, std::chars_format::general);
    if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
    // A duration before zero, infinity or NaN has no encoding: refused.
    if (!std::isfinite(seconds) || seconds < 0) return std::nullopt;
    const double milliseconds = std::trunc(seconds * 1000.0);
    // The nanoseconds must fit the unsigned 64-bit field.
    if (milliseconds * 1000.0 >= 18446744073709551616.0) return std::nullopt;
    return static_cast<uint64_t>(milliseconds) * 1000u;
}

uint32_t encode_write_value(const TagEntry &entry, uint32_t element, const PlcData &data,
                            WriteValue &out) {
    out = WriteValue{};
    const Kind kind = kind_of(entry);
    if (kind == Kind::Unwritable) return 2;
    const auto *buffer = static_cast<const uint8_t *>(data.buffer);
    if (buffer == nullptr) return 3;

    const uint64_t count = data.count;
    const uint32_t w = kind == Kind::Time ? 64 : element_width(entry);
    const uint32_t index = entry.dim_type == 1 ? element - entry.lo1 : element;
    out.bit_offset = index * w;

    uint64_t n = 0;
    switch (kind) {
    case Kind::Time: {
        const std::optional<uint64_t> ns =
            parse_time_text(reinterpret_cast<const char *>(buffer), kMaxTimeText);
        if (!ns) return 3;
        wire::Writer v(out.bytes.data(), out.bytes.size());
        v.u64(*ns);
        out.size = v.size();
        out.length_byte = 8;
        out.bit_size = 64;
        return 0;
    }
    case Kind::Bool: {
        const uint16_t pos = write_bit_position(entry, element);
        if (pos < 8) {
            out.bytes[0] = static_cast<uint8_t>(buffer[0] << pos);
        } else {
            out.bytes[1] = static_cast<uint8_t>(buffer[0] << (pos - 8));
        }
        out.is_bool = true;
        out.size = 2;
        out.length_byte = 2;
        out.bit_size = 1;
        return 0;
    }
    case Kind::Byte:
    case Kind::Text:
        // The length byte counts the elements; the pad byte of an odd run is
        // not among them.
        if (count > kMaxWriteValueBytes) return 3;
        n = count + (count & 1u);
        break;
    case Kind::Word: n = count * 2; break;
    default: n = count * 4; break; // DoubleWord
    }

    // The length byte counts the value bytes: a run it cannot describe is
    // refused, never cut to its low 8 bits.
    if (kind != Kind::Byte && kind != Kind::Text && n > kMaxWriteValueBytes) return 3;
    if (kind == Kind::Byte || kind == Kind::Text) {
        // One element (or character) per 16-bit register, in its first byte;
        // an odd run is padded with a zero byte.
        for (size_t i = 0; i < count; ++i) out.bytes[i] = buffer[2 * i];
        out.length_byte = static_cast<uint8_t>(count);
        out.bit_size = static_cast<uint32_t>(count * 8);
    } else {
        std::memcpy(out.bytes.data(), buffer, static_cast<size_t>(n));
        out.length_byte = static_cast<uint8_t>(n);
        out.bit_size = static_cast<uint32_t>(count * (kind == Kind::Word ? 16 : 32));
    }
    out.size = static_cast<size_t>(n);
    return 0;
}

size_t build_write_request(const RequestPrefix &prefix, const VarHandle &handle,
                           const WriteValue &value, uint8_t *out, size_t capacity) {
    wire::Writer w(out, capacity);
    w.bytes(prefix.data(), prefix.size()).u8(1).u8(0).u8(value.length_byte).u8(0);
    if (value.is_bool) {
        // The BOOL item: handle bytes 0-4, five zero bytes, handle bytes 5-8
        // in the offset field and 1 in the size field; byte 9 is not sent.
        w.bytes(handle.data(), 5).zeros(5).bytes(handle.data() + 5, 4).u32(1);
    } else {
        w.bytes(handle.data(), handle.size()).u32(value.bit_offset).u32(value.bit_size);
    }
    w.bytes(value.bytes.data(), std::min(value.size, value.bytes.size()));
    return w.ok() ? w.size() : 0;
}

bool write_reply_ok(const uint8_t *reply, size_t size) {
    const std::optional<uint8_t> service = wire::Reader(reply, size).u8_at(0);
    return service && *service == kReplyWrite;
}

uint32_t OMRON_WRITE_REQ(EipSession *session_in, CipConnection *connection_in,
                         PlcRequest &request, ExchangeBuffer &send, const TagTable &table,
                         PlcData &data, ExchangeBuffer &reply) {
    const uint32_t tag_id = compose_tag_id(request);
    const uint32_t element = element_index(request);
    const TagEntry *entry = find_entry(table, tag_id);
    if (entry == nullptr) return 3;

    request.count = write_bit_position(*entry, element);

    // Everything the request needs from the host is checked before the first
    // byte is sent, the resolve included.
    WriteValue value;
    switch (encode_write_value(*entry, element, data, value)) {
    case 0: break;
    case 2: init = 0; return 2; // a type with no write encoding
    default: return 3;
    }

    if (locate_link(INIT_RET_DATA.get(), element, tag_id, table) != 1 || label_reupdata == 1) {
        if (REG_INIT(table, request, send, reply, data) != 0) return 2;
    }
    if (session_in == nullptr || connection_in == nullptr) {
        init = 0;
        std::printf("[PLC] CIP_TransRecv err at line %d\r\n", 1518);
        return 2;
    }

    const WriteModeScope write_mode(*connection_in);
    VarHandle handle{};
    if (copy_from_link(INIT_RET_DATA.get(), element, tag_id, handle, table) != 0) return 2;
    const size_t request_len =
        build_write_request(recv_flag_data1, handle, value, send.data(), send.size());
    if (request_len == 0) return 3;

    uint32_t reply_len = 0;
    if (CIP_TransRecv(session_in, connection_in, send.data(), static_cast<uint32_t>(request_len),
                      reply.data(), &reply_len, kServiceWrite, reply.size()) < 0) {
        init = 0;
        std::printf("[PLC] CIP_TransRecv err at line %d\r\n", 1518);
        return 2;
    }
    // Only the reply service decides; its general status is not examined.
    if (!write_reply_ok(reply.data(), std::min<size_t>(reply_len, reply.size()))) return 2;
    label_reupdata = 0;
    return 0;
}

} // namespace plc
