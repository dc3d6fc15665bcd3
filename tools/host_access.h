// How the host tool turns a variable reference ("Speed", "Temps[3]",
// "Grid[1,2..2,0]") into the driver's request records and data buffers, and
// how it turns what the driver returns back into typed values.
//
// Host element index rules (what goes into the low 16 bits of the address word):
//  - one-dimensional arrays: the subscript itself (so an array declared
//    [1..10] is addressed with 1..10);
//  - two and three dimensions: the linear position from 0, last dimension fastest;
//  - LINT, ULINT, LREAL, LWORD: every element is two 32-bit words and the host
//    addresses words: the low word of subscript s of a one-dimensional array is
//    word 2 * s (the driver doubles the declared bounds), the high word 2 * s + 1;
//    a scalar is words 0 and 1, a multi-dimensional element at linear position p
//    is words 2 * p and 2 * p + 1;
//  - a STRING with a declared length is one text: its characters are elements
//    0 .. length - 1;
//  - tag ids from 0x40000 put their bits 16..23 into the record's high byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "plc_driver.h"
#include "tools/host_tag_list.h"

namespace plc::host {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitComm = 2;
constexpr int kExitConfig = 3;
constexpr int kExitUsage = 64;
constexpr int kExitUnknown = 65;

// A failure that the tool reports before (or instead of) calling the driver.
struct HostError {
    int exit_code = kExitUsage;
    std::string message;
};

// A run of elements of one variable, by linear position from 0.
struct ElementRun {
    const HostTag *tag = nullptr;
    int64_t first = 0;
    int64_t count = 1;
    bool whole = false;      // named without subscript
    bool has_range = false;  // named with FIRST..LAST
};

// Parses a reference and checks it against the tag list. On failure returns
// false with kExitUnknown (unknown name, index outside the bounds) or
// kExitUsage (malformed text).
bool resolve_ref(const HostTagList &list, std::string_view text, ElementRun &run, HostError &err);
// Checks that a run's count fits the variable (after a COUNT argument changed it).
bool check_run(const ElementRun &run, HostError &err);

// "Name", "Name[3]" or "Name[1,2]" for the element at a linear position.
std::string element_label(const HostTag &tag, int64_t position);
// The element index the driver expects for the element at a linear position
// (the low word for the double-word types); false when it does not fit 16 bits.
bool host_element_index(const HostTag &tag, int64_t position, uint32_t &index, HostError &err);
// A request record addressing one element index of the tag.
PlcRequest make_record(uint16_t device, const HostTag &tag, uint32_t element_index,
                       uint16_t count = 1);

// A typed value as the tool prints it.
struct Value {
    // Duration: a TIME rendered as text ("1d2h3m"), printed without quotes.
    enum class Kind { None, Signed, Unsigned, Float, Double, Bool, Text, Duration };
    Kind kind = Kind::None;
    int64_t i = 0;
    uint64_t u = 0;
    double f = 0;
    bool b = false;
    std::string text;

    static Value none() { return {}; }
};
std::string format_value(const Value &v);  // for people
std::string json_value(const Value &v);    // a JSON value
std::string json_string(std::string_view s);

// ---- reading ---------------------------------------------------------------

// Which entry the tool reads a run with: the single read, or the batch read
// (TIME, BOOL arrays with more than one element, elements of multi-dimensional
// BOOL arrays).
bool read_through_batch(const ElementRun &run);

struct SingleReadPlan {
    uint32_t element_index = 0;
    uint32_t count = 0;          // PlcData count
    size_t buffer_bytes = 0;     // what the driver fills on success
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
// Refuses variables whose values the batch decoding cannot carry.
bool plan_batch_element(uint16_t device, const HostTag &tag, int64_t position,
                        BatchElement &out, HostError &err);
// Decodes the element from its records' result fields.
Value decode_batch_element(const BatchElement &element, const PlcRequest *records);

// Splits elements into calls of at most `limit` records. An element is never
// split unless it alone needs more than `limit` records. Returns, per call,
// the range [first, last) of element indexes and the record count.
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
