// One tag list line taken apart into a tag entry.
#pragma once

#include <cstddef>
#include <string_view>

#include "plc_driver_records.h"
#include "plc_driver_tags.h"

namespace plc {

// Longest tag line, newline included.
constexpr size_t kMaxLineLength = 255;

// The first problem found in a line, worded to follow "line N ".
class LineReason {
public:
    bool set() const { return set_; }
    const char *text() const { return text_; }
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    void
    operator()(const char *format, ...);

private:
    bool set_ = false;
    char text_[160] = {};
};

// Takes one tag list line (its newline included or not) apart into `entry`,
// which is zero-filled first. Returns false, with the reason, when the line
// cannot be read without guessing; the entry then still holds whatever fields
// could be read, and never anything beyond itself.
bool pase_str(std::string_view line, TagEntry &entry, LineReason &why);

} // namespace plc
