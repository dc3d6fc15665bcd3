// What the host tool hands the driver for a read, a poll or a write, and how
// it turns what comes back into element values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/host_refs.h"
#include "tools/host_values.h"

namespace plc::host {

// The driver moves a text, a date or a time of day as one whole variable, so
// an element of an array of them is refused with a reason rather than read
// or written at another element than the one named. (A subscript on a
// variable that is no array is refused when the name is read.)
bool addressed_whole(const ElementRun &run, HostError &err);

// ---- reading ---------------------------------------------------------------

// Whether the batch entry carries this variable's values: it ends a byte run
// at a zero byte, so dates, times of day, STIME and texts without a declared
// length come through the single read instead.
bool batch_carries(const HostTag &tag);

// Which entry a read takes: the batch read for TIME (the single read does not
// carry it), BOOL arrays with more than one element and elements of
// multi-dimensional BOOL arrays; the single read for everything else.
bool read_through_batch(const ElementRun &run);

struct SingleReadPlan {
    uint32_t element_index = 0;
    uint32_t count = 0;      // PlcData count
    size_t buffer_bytes = 0; // what the driver fills on success
};
bool plan_single_read(const ElementRun &run, SingleReadPlan &plan, HostError &err);
// One value per element of the run from the buffer the driver filled.
std::vector<Value> decode_single_read(const ElementRun &run, const uint8_t *buffer, size_t size);

// The records that read one element through the batch entry (count field 1 each).
struct BatchElement {
    const HostTag *tag = nullptr;
    int64_t position = 0;
    std::string label;
    std::vector<PlcRequest> records;
};
bool plan_batch_element(uint16_t device, const HostTag &tag, int64_t position, BatchElement &out,
                        HostError &err);
// Decodes the element from its records' result fields.
Value decode_batch_element(const BatchElement &element, const PlcRequest *records);

// Splits elements into calls of at most `limit` records. An element is never
// split unless it alone needs more than `limit` records.
struct BatchCall {
    size_t first_element = 0;
    size_t end_element = 0;
    size_t first_record = 0;
    size_t records = 0;
};
std::vector<BatchCall> split_batch(const std::vector<BatchElement> &elements, size_t limit);

// ---- writing ---------------------------------------------------------------

struct WriteOp {
    uint32_t element_index = 0;
    uint32_t count = 0;
    std::vector<uint8_t> buffer;
    std::string label;
};
// Turns the values given on the command line into driver writes (several when
// the values do not fit one request, and one per element of a BOOL array).
bool plan_write(const ElementRun &run, const std::vector<std::string> &values,
                std::vector<WriteOp> &ops, HostError &err);

} // namespace plc::host
