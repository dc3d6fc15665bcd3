// Values of the tool's variables in the value syntax it shares with plc-sim
// (sim/value_text.h): an element is held as its little-endian image in the
// controller's layout, whichever driver entry carried it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "sim/value_text.h"
#include "tools/host_tags.h"

namespace plc::host {

// One element as read; empty when the driver did not deliver it.
struct Value {
    std::vector<uint8_t> image;
    bool ok() const { return !image.empty(); }
};

sim::ValueType value_type(const HostTag &tag);

// For people; "?" for a value not delivered.
std::string format_value(const HostTag &tag, const Value &v);
// A JSON value: numbers for numbers and true/false, strings for the rest.
std::string json_value(const HostTag &tag, const Value &v);
std::string json_string(std::string_view s);

// The element image of a value given on the command line; false with `why`.
bool parse_value(const HostTag &tag, std::string_view text, std::vector<uint8_t> &image,
                 std::string &why);

} // namespace plc::host
