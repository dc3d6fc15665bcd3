// The write (service 0x56 to the variable class): the host's value taken from
// its 16-bit registers, the request that carries it by handle, and the reply.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "eip/mr_reply.h"
#include "engine/engine_state.h"
#include "engine/handle_store.h"
#include "plc_driver_records.h"
#include "plc_driver_tags.h"
#include "util/status.h"

namespace plc {

// Longest value run of one write: the length byte counts the value bytes.
constexpr size_t kMaxWriteValueBytes = 255;

struct WriteValue {
    bool is_bool = false;
    uint8_t length_byte = 0;
    uint32_t bit_offset = 0;
    uint32_t bit_size = 0;
    size_t size = 0;                                      // value bytes in `bytes`
    std::array<uint8_t, kMaxWriteValueBytes + 1> bytes{}; // an odd 255-byte run and its pad
};

// Position of a BOOL's bit in its 16-bit word; every write stores it into the
// request's field at offset 8.
uint16_t write_bit_position(const TagEntry &entry, uint32_t element);

// The TIME text of a write as nanoseconds, trunc(seconds x 1000) x 1000; none
// for text that is not a non-negative decimal number, or too large. Reads at
// most `max_len` bytes up to the first NUL.
std::optional<uint64_t> parse_time_text(const char *text, size_t max_len);

// Encodes the host's value for the entry: Ok; CommFailure when the type is
// not writable; ConfigError when the value is refused (too many bytes for the
// length byte, a TIME text that is not a non-negative number).
Status encode_write_value(const TagEntry &entry, uint32_t element, const PlcData &data,
                          WriteValue &out);

// The request data: 32 bytes of header and the value bytes; false when `out`
// ran out of room.
bool build_write_request(wire::Writer &out, const RequestPrefix &prefix, const VarHandle &handle,
                         const WriteValue &value);

// How the controller answered the write.
ReplyCheck parse_write_reply(wire::Bytes reply);

} // namespace plc
