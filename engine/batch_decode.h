// Decoding of a batch's value bytes into the host's request records: one
// element per record, TIME values as text, and the memory of empty strings.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "engine/batch_plan.h"
#include "plc_driver_records.h"
#include "tags/tag_cache.h"
#include "util/status.h"
#include "util/wire.h"

namespace plc {

// What the driver remembers of a STRING variable whose first piece was read.
struct StringInfoRecord {
    uint32_t tag_id = 0;
    uint32_t zero = 0;
    uint16_t count = 0;     // count of the slot that made the record
    uint8_t first_char = 0; // first character as last read
};

constexpr size_t kStringInfoCapacity = 50;
// Kept for the life of the driver, never cleared (not even by a reconnection).
extern std::array<StringInfoRecord, kStringInfoCapacity> StringInfo;
extern uint32_t string_id; // records of StringInfo in use

constexpr size_t kTimeTextSize = 256;
using TimeText = std::array<char, kTimeTextSize>;

// Renders a TIME value (nanoseconds) as text such as 1d1h1m1s1.002ms into a
// cleared buffer; returns the text length.
size_t format_time_text(uint64_t nanoseconds, TimeText &text);

// The 16-bit unit `unit` of the text: characters 2*unit and 2*unit+1, the first
// in the low byte; 0 past the text and past the buffer.
uint32_t time_text_unit(const TimeText &text, uint32_t unit);

// Decodes the value area into the records of the plan's items, item after
// item: Ok when every record was written; CommFailure for a type without a
// decoding, or when the area holds fewer bytes than the items need (the
// caller then reports the connection broken). Records of items before a
// failing one have been written. Allocates nothing.
Status decode_batch_values(wire::Bytes area, const BatchPlan &plan, PlcRequest *records);

} // namespace plc
