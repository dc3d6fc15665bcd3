// The simulator's variables as text: --set values in, store file lines out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/variable_store.h"

namespace plc::sim {

// Value text -> the bytes of one element of `var` (BOOL: one byte 0 or 1);
// none with `error` set when the text is not a value of its type.
std::optional<std::vector<uint8_t>> EncodeElement(const Variable &var, std::string_view text,
                                                  std::string *error);

// One element as the store file shows it: time kinds as "<n>ns", integers in
// decimal, so that tests and scripts read plain numbers.
std::string FormatElement(const Variable &var, uint64_t element);

} // namespace plc::sim
