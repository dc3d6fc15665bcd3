// Declares the simulated controller's variables from the panel's tag list files
// (comma-separated, eight fields a line).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "sim/variable_store.h"

namespace plc::sim {

struct TagListSummary {
    size_t declared = 0; // new variables
    size_t repeated = 0; // lines naming an already declared variable with the same shape
    size_t skipped = 0;  // lines that could not be taken (a warning each)
};

// Each line declares one variable: the name (field 1; fields 2, 3, ... are
// joined to it with ',' until one of them is a type name), the type, then,
// counted from the type, the array bounds ("", "[a..b]", "[a..b_c..d]" or
// "[a..b_c..d_e..f]"), the declared string length (STRING and STRING2; empty
// gives kDefaultStringLength), three fields not used here and the tag id.
// Bounds are the real element bounds for every type, 64-bit ones included.
// Blank lines are ignored; any other line that cannot be taken apart, or that
// contradicts an earlier declaration of the same name, is skipped with a
// warning appended to `warnings` ("origin:line: why").
TagListSummary LoadTagListText(std::string_view text, const std::string &origin,
                               VariableStore &store, std::vector<std::string> &warnings);

// Reads a file and loads it as above; false (with a warning) when the file
// cannot be read.
bool LoadTagListFile(const std::string &path, VariableStore &store,
                     std::vector<std::string> &warnings, TagListSummary *summary = nullptr);

} // namespace plc::sim
