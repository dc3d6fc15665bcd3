// How the host tool turns a variable reference ("Speed", "Temps[3]",
// "Grid[1,2..2,0]") into the element index of the driver's request records.
//
// Host element index rules (the low 16 bits of the address word):
//  - one-dimensional arrays: the subscript itself (an array declared [1..10]
//    is addressed with 1..10);
//  - two and three dimensions: the linear position from 0, last dimension fastest;
//  - LINT, ULINT, LREAL, LWORD: every element is two 32-bit words and the host
//    addresses words: the low word of subscript s of a one-dimensional array is
//    word 2 * s, the high word 2 * s + 1; a scalar is words 0 and 1, a
//    multi-dimensional element at linear position p words 2 * p and 2 * p + 1;
//  - a STRING with a declared length is one text: its characters are elements
//    0 .. length - 1;
//  - tag ids from 0x40000 put their bits 16..23 into the record's high byte.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "plc_driver.h"
#include "tools/host_tags.h"

namespace plc::host {

// Exit statuses of the tool.
constexpr int kExitOk = 0;
constexpr int kExitComm = 2;
constexpr int kExitConfig = 3;
constexpr int kExitUsage = 64;
constexpr int kExitUnknown = 65;
constexpr int kExitInterrupted = 130;

// A failure that the tool reports before (or instead of) calling the driver.
struct HostError {
    int exit_code = kExitUsage;
    std::string message;
};

// Sets `err` and returns false, for one-line refusals.
bool fail(HostError &err, int code, std::string message);

// A run of elements of one variable, by linear position from 0.
struct ElementRun {
    const HostTag *tag = nullptr;
    int64_t first = 0;
    int64_t count = 1;
    bool whole = false;     // named without subscript
    bool has_range = false; // named with FIRST..LAST
};

// Parses a reference and checks it against the tag list. On failure returns
// false with kExitUnknown (unknown name, index outside the bounds), kExitUsage
// (malformed text) or kExitConfig (a variable the driver cannot reach).
bool resolve_ref(const HostTagList &list, std::string_view text, ElementRun &run, HostError &err);
// Checks that a run's count fits the variable (after a COUNT argument changed it).
bool check_run(const ElementRun &run, HostError &err);

// STRING and STRING2; "open" when no length is declared.
bool is_text(const HostTag &tag);
bool is_open_text(const HostTag &tag);
// STIME, DATE, TIME_OF_DAY, DATE_AND_TIME: 8 bytes that the driver moves as bytes.
bool is_date_like(const HostTag &tag);

// "Name", "Name[3]" or "Name[1,2]" for the element at a linear position.
std::string element_label(const HostTag &tag, int64_t position);
// "[0..9]" or "[1..2,0..4]".
std::string bounds_text(const HostTag &tag);
// The element index the driver expects for the element at a linear position
// (the low word for the double-word types); false when it does not fit 16 bits.
bool host_element_index(const HostTag &tag, int64_t position, uint32_t &index, HostError &err);
// A request record addressing one element index of the tag.
PlcRequest make_record(uint16_t device, const HostTag &tag, uint32_t element_index);

} // namespace plc::host
