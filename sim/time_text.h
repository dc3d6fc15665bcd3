// Durations, dates and times of day as text, for the shared value syntax
// (see value_text.h). Every value is a signed 64-bit nanosecond count.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace plc::sim {

// "1500" (milliseconds), "2s", "1h30m", "-7ns", "1d1h1m1s1.002ms".
std::optional<int64_t> ParseDuration(std::string_view text);
// Days, hours, minutes, then seconds with their fraction, nothing for a zero
// unit: "1h2m3.0045s", "1.5s"; below a second "1.5ms", "250us", "7ns"; "0ms".
std::string FormatDuration(int64_t ns);

// "2024-03-15" (midnight), "2024-03-15-13:45:30.25"; the separator between
// date and time may also be 'T' or '_'. Nanoseconds since 1970-01-01.
std::optional<int64_t> ParseDateTime(std::string_view text);
// "13:45", "13:45:30.25"; nanoseconds since midnight.
std::optional<int64_t> ParseTimeOfDay(std::string_view text);

// "2024-03-15", or the date and time when the value is not a midnight.
std::string FormatDate(int64_t ns);
// "13:45:30.25"; a value outside one day as a duration.
std::string FormatTimeOfDay(int64_t ns);
// "2024-03-15-13:45:30.25".
std::string FormatDateAndTime(int64_t ns);

} // namespace plc::sim
