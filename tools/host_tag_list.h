// The host tool's own reader of a tag list file "PLC%X_%d.csv". It knows just
// enough to turn a variable name into what the host puts into its request
// records: the tag id, the data type and the declared array shape. It reads
// the file the way the driver does (same line, name and field rules), so that
// the ids it computes are the ids the driver will look up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plc::host {

// One CIP elementary type as the host sees it: `bits` is the real element
// width (64 for LINT), unlike the driver's tag entries which present the
// double-word types as pairs of 32-bit words.
struct HostType {
    const char *name;
    uint16_t code;
    uint16_t bits;
};

constexpr uint16_t kCodeBool = 0xC1;
constexpr uint16_t kCodeString = 0xD0;
constexpr uint16_t kCodeTime = 0xD6;

// Exact, case-sensitive lookup of a type name; nullptr when it names no type.
const HostType *find_host_type(std::string_view name);

// LINT, ULINT, LREAL and LWORD: each element is two 32-bit words for the host.
constexpr bool is_double_word(uint16_t code) {
    return code == 0xC5 || code == 0xC9 || code == 0xCB || code == 0xD4;
}

struct Bound {
    int64_t lo = 0;
    int64_t hi = 0;
    int64_t size() const { return hi - lo + 1; }
};

struct HostTag {
    std::string name;
    const HostType *type = nullptr;  // none when the line names no type
    std::vector<Bound> dims;         // declared bounds, as written (not doubled)
    uint32_t str_len = 0;            // declared STRING length, 0 when none
    uint32_t bit_no = 0;
    uint32_t tag_id = 0;
    uint32_t field8_id = 0;          // the id in the eighth field (from the type on)
    unsigned line = 0;               // 1-based line number in the file
    std::string problem;             // why the host cannot address it, empty when fine

    bool indexed() const { return tag_id >= 0x40000u; }
    bool is_array() const { return !dims.empty(); }
    // Number of elements the variable holds (1 for a scalar or a STRING).
    int64_t element_count() const;
};

class HostTagList {
public:
    // Reads the file; on failure returns a message and leaves the list empty.
    std::optional<std::string> load(const std::string &path);
    // Parses text that is already in memory (the file's contents).
    void parse(std::string_view text);

    const std::vector<HostTag> &tags() const { return tags_; }
    // The tag of exactly this name, or nullptr.
    const HostTag *find(std::string_view name) const;

private:
    std::vector<HostTag> tags_;
};

// The tag list file name for a controller address (first octet in the most
// significant byte) and a device number: "PLC%X_%d.csv".
std::string tag_list_file_name(uint32_t address, unsigned device);

} // namespace plc::host
