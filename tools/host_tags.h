// The tag list as the host tool sees it: read by the driver's own parser, so
// that every list the tool accepts is one the driver accepts, and turned into
// variables with their declared shape (the driver's entries present LINT,
// ULINT, LREAL and LWORD as pairs of 32-bit words; the tool shows elements).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tags/cip_types.h"
#include "tags/tag_list_parse.h"

namespace plc::host {

struct Bound {
    int64_t lo = 0;
    int64_t hi = 0;
    int64_t size() const { return hi - lo + 1; }
};

struct HostTag {
    std::string name;
    const CipType *type = nullptr; // none when the line names no type
    std::vector<Bound> dims;       // as declared (not doubled)
    uint32_t str_len = 0;          // declared STRING length, 0 when none
    uint32_t tag_id = 0;
    // Why the driver cannot reach it by its tag id; empty when it can.
    std::string unreachable;

    bool is_array() const { return !dims.empty(); }
    // Elements the variable holds (1 for a scalar or a STRING).
    int64_t element_count() const;
    uint16_t code() const { return type != nullptr ? type->code : 0; }
};

// LINT, ULINT, LREAL, LWORD and TIME: 64-bit elements.
uint32_t element_bytes(const HostTag &tag);

class HostTagList {
public:
    // Parses the file; the parse is kept (see parsed()) whatever its outcome.
    // False when the driver would not take the list.
    bool load(const std::string &path);
    const ParsedTagList &parsed() const { return parsed_; }
    // Why the driver does not take the list: "the driver refuses PATH line N
    // reason", or why the file cannot be opened.
    std::string refusal_text() const;

    const std::vector<HostTag> &tags() const { return tags_; }
    const HostTag *find(std::string_view name) const;

private:
    void add(const TagEntry &entry, std::string unreachable);

    std::string path_;
    int open_errno_ = 0;
    ParsedTagList parsed_;
    std::vector<HostTag> tags_;
    std::unordered_map<std::string, size_t> by_name_;
};

// "PLC%X_%u.csv" for a controller address (first octet in the most
// significant byte) and a device number.
std::string tag_list_file_name(uint32_t address, unsigned device);

} // namespace plc::host
