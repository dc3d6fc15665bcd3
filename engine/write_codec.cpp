#include "engine/write_codec.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

#include "eip/cip.h"
#include "engine/element_rules.h"
#include "tags/cip_types.h"
#include "tags/tag_kinds.h"

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

Status encode_time(const uint8_t *buffer, WriteValue &out) {
    const std::optional<uint64_t> ns =
        parse_time_text(reinterpret_cast<const char *>(buffer), kMaxTimeText);
    if (!ns) return Status::ConfigError;
    wire::Writer v(out.bytes.data(), out.bytes.size());
    v.u64(*ns);
    out.size = v.size();
    out.length_byte = 8;
    return Status::Ok;
}

void encode_bool(const TagEntry &entry, uint32_t element, const uint8_t *buffer, WriteValue &out) {
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
}

} // namespace

uint16_t write_bit_position(const TagEntry &entry, uint32_t element) {
    // Unsigned arithmetic: a bit number below the lower bound wraps by a
    // multiple of 16 and leaves the position modulo 16 intact.
    const uint32_t base =
        dim_kind(entry) == DimKind::OneDim ? entry.bit_no - entry.lo1 : entry.bit_no;
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

Status encode_write_value(const TagEntry &entry, uint32_t element, const PlcData &data,
                          WriteValue &out) {
    out = WriteValue{};
    const Kind kind = kind_of(entry);
    if (kind == Kind::Unwritable) return Status::CommFailure;
    const auto *buffer = static_cast<const uint8_t *>(data.buffer);
    if (buffer == nullptr) return Status::ConfigError;

    const ItemGeometry geometry = item_geometry(entry, element, data.count);
    out.bit_offset = geometry.bit_offset;
    out.bit_size = geometry.bit_length;
    if (kind == Kind::Time) return encode_time(buffer, out);
    if (kind == Kind::Bool) {
        encode_bool(entry, element, buffer, out);
        return Status::Ok;
    }

    const uint64_t count = data.count;
    const bool bytewise = kind == Kind::Byte || kind == Kind::Text;
    // The length byte counts the value bytes (for bytes and characters, the
    // elements: the pad byte of an odd run is not among them). A run it cannot
    // describe is refused, never cut to its low 8 bits.
    const uint64_t counted = bytewise ? count : count * (kind == Kind::Word ? 2 : 4);
    if (counted > kMaxWriteValueBytes) return Status::ConfigError;
    out.length_byte = static_cast<uint8_t>(counted);
    if (bytewise) {
        // One element (or character) per 16-bit register, in its first byte;
        // an odd run is padded with a zero byte.
        for (size_t i = 0; i < count; ++i) out.bytes[i] = buffer[2 * i];
        out.size = static_cast<size_t>(count + (count & 1u));
    } else {
        std::memcpy(out.bytes.data(), buffer, static_cast<size_t>(counted));
        out.size = static_cast<size_t>(counted);
    }
    return Status::Ok;
}

bool build_write_request(wire::Writer &out, const RequestPrefix &prefix, const VarHandle &handle,
                         const WriteValue &value) {
    out.bytes(prefix.data(), prefix.size()).u8(1).u8(0).u8(value.length_byte).u8(0);
    if (value.is_bool) {
        // The BOOL item: handle bytes 0-4, five zero bytes, handle bytes 5-8
        // in the offset field and 1 in the size field; byte 9 is not sent.
        out.bytes(handle.data(), 5).zeros(5).bytes(handle.data() + 5, 4).u32(1);
    } else {
        out.bytes(handle.data(), handle.size()).u32(value.bit_offset).u32(value.bit_size);
    }
    out.bytes(value.bytes.data(), std::min(value.size, value.bytes.size()));
    return out.ok();
}

ReplyCheck parse_write_reply(wire::Bytes reply) {
    return check_mr_reply(parse_mr_reply(reply), cip::kServiceResolveOrWrite);
}

} // namespace plc
