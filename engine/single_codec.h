// Pure encoders and decoders of the single-request engine: the bytes of the
// resolve, read and write requests from their inputs, the values from the
// replies, and the element checks made before any traffic. Nothing here
// touches the connection or the module state, so every message can be checked
// byte for byte on its own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "engine/handle_store.h"
#include "engine/read_request.h"
#include "plc_driver.h"

namespace plc {

// The resolve request describes the path text with one length byte.
constexpr size_t kMaxPathText = 255;
constexpr uint8_t kServiceResolve = 0x56;
constexpr uint8_t kServiceWrite = 0x56;
constexpr uint8_t kReplyResolve = 0xD6;
constexpr uint8_t kReplyWrite = 0xD6;
constexpr size_t kWriteHeaderSize = 32;
// Longest value run of one write: the length byte counts the value bytes.
constexpr size_t kMaxWriteValueBytes = 255;

// Width of one element in bits for offsets, sizes and the host layout: the
// low byte of `bits`, 8 for the types of no fixed width (STRING and friends).
uint32_t element_width(const TagEntry &entry);

// ---- element checks (0 admitted, 3 refused) ----

// For two and three dimensions: whether a linear index from 0 (last
// dimension fastest) lies inside the declared bounds. A dimension with no
// elements, or with its upper bound below its lower one, admits nothing.
bool linear_index_fits(const TagEntry &entry, uint64_t index);

// A read of `count` elements from `element` (linear index for 2 and 3
// dimensions, character index for a STRING with a declared length).
int32_t check_read_range(const TagEntry &entry, uint32_t element, uint32_t count);

// A write of `count` elements from `element`. `double_word` halves the host's
// word index for the bounds, which hold the variable's doubled declaration.
int32_t check_write_range(const TagEntry &entry, uint32_t element, uint32_t count,
                          bool double_word);

// ---- resolve (service 0x56 by name) ----

// "VAR://name", or "VAR://name[element]" for one element of a BOOL array;
// none when the text would not fit the length byte.
std::optional<std::string> resolve_path(const TagEntry &entry, uint32_t element, uint32_t count);

// Request data for the path: 16 + the path padded to even. 0 when it does not
// fit `capacity` or the path is too long.
size_t build_resolve_request(std::string_view path, uint8_t *out, size_t capacity);

struct ResolveReply {
    RequestPrefix prefix{};
    VarHandle handle{};
};
// The prefix and handle of a usable resolve reply (`size` is the reply length
// the exchange reported); none when it is not 0xD6 or too short.
std::optional<ResolveReply> parse_resolve_reply(const uint8_t *reply, size_t size);

// ---- read by handle (service 0x55) ----

// The one item of a single read; a BOOL run of other than one element
// carries the low byte of the element index in byte 5 of the handle.
ReadItem make_read_item(const TagEntry &entry, uint32_t element, uint32_t count,
                        const VarHandle &handle);

struct ReadValues {
    const uint8_t *bytes = nullptr; // inside the reply
    size_t size = 0;                // V, 0 when the reply carries none
};
// The value bytes of a read reply of `size` bytes; none when the reply is not
// 0xD5 with one item, or is shorter than its fixed fields, or carries more
// than the value area holds.
std::optional<ReadValues> parse_read_reply(const uint8_t *reply, size_t size);

// Value bytes needed for `count` elements of the entry's width.
size_t read_value_bytes(const TagEntry &entry, uint32_t count);

// Places the values in the host's register layout: 0, or 2 when the width
// cannot be presented or the reply carried fewer bytes than `count` needs.
// Writes nothing on 2.
int32_t store_read_values(const TagEntry &entry, uint32_t count, const uint8_t *values,
                          size_t value_size, uint8_t *host_buffer);

// ---- write (service 0x56 to class 0xB8) ----

struct WriteValue {
    bool is_bool = false;
    uint8_t length_byte = 0;
    uint32_t bit_offset = 0;
    uint32_t bit_size = 0;
    size_t size = 0; // value bytes in `bytes`
    std::array<uint8_t, kMaxWriteValueBytes + 1> bytes{}; // an odd 255-byte run and its pad
};

// Position of a BOOL's bit in its 16-bit word; every write stores it into the
// request's field at offset 8.
uint16_t write_bit_position(const TagEntry &entry, uint32_t element);

// The TIME text of a write as nanoseconds, trunc(seconds x 1000) x 1000; none
// for text that is not a non-negative decimal number, or too large. Reads at
// most `max_len` bytes up to the first NUL.
std::optional<uint64_t> parse_time_text(const char *text, size_t max_len);

// Encodes the host's value for the entry: 0; 2 when the type is not
// writable; 3 when the value is refused (too many bytes for the length byte,
// a TIME text that is not a non-negative number).
uint32_t encode_write_value(const TagEntry &entry, uint32_t element, const PlcData &data,
                            WriteValue &out);

// 32 + value bytes of request data, or 0 when `capacity` is too small.
size_t build_write_request(const RequestPrefix &prefix, const VarHandle &handle,
                           const WriteValue &value, uint8_t *out, size_t capacity);

// True when a write reply of `size` bytes reports the write service.
bool write_reply_ok(const uint8_t *reply, size_t size);

} // namespace plc
