// The simulated controller's variables, held in the controller's own memory
// layout, with bit-level access for the variable services and text values for
// the command line and the published store file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "sim/value_text.h"

namespace plc::sim {

struct TypeInfo {
    const char *name;
    uint16_t code;  // CIP data type code
    uint32_t bytes; // bytes per element; 0 for BOOL (one bit) and the text types
    ValueKind kind;
};

// Exact, case-sensitive lookup of a type name ("DINT", "TIME_OF_DAY", ...).
const TypeInfo *FindType(std::string_view name);

// Text types without a declared length get this many characters.
constexpr uint32_t kDefaultStringLength = 80;

struct Dim {
    int32_t lo = 0;
    int32_t hi = 0;
    uint64_t size() const { return uint64_t(int64_t(hi) - int64_t(lo) + 1); }
};

// Layout of a variable:
//  - elements are contiguous, row-major (last subscript fastest), little-endian;
//  - BOOL elements are packed bits: element i is bit i % 8 of byte i / 8 (a BOOL
//    scalar is a single bit);
//  - a text element (STRING, STRING2) is its declared length + 1 bytes;
//  - 64-bit types (LINT, ULINT, LREAL, LWORD) take 8 bytes per declared element;
//  - the time types (TIME, STIME, DATE, TIME_OF_DAY, DATE_AND_TIME) are a signed
//    64-bit count of nanoseconds.
struct Variable {
    std::string name;
    const TypeInfo *type = nullptr;
    std::vector<Dim> dims; // empty for a scalar
    uint32_t str_len = 0;  // text types only
    uint32_t element_bits = 0;
    uint64_t element_count = 1;
    std::vector<uint8_t> data;

    uint64_t bit_size() const { return element_bits * element_count; }
    // Bytes per element as the resolve reply reports it (1 for a BOOL bit).
    uint32_t element_bytes() const { return element_bits == 1 ? 1 : element_bits / 8; }
    bool is_array() const { return !dims.empty(); }
};

// A name resolved against the store: the whole variable, or one element of it
// (`position` is the row-major element number from 0).
struct ElementRef {
    uint16_t index = 0;
    bool element = false;
    uint64_t position = 0;
};

// "i", "i,j" or "i,j,k": decimal integers, optionally negative, nothing else.
std::optional<std::vector<int64_t>> ParseSubscript(std::string_view text);

// Not thread-safe by itself; see SharedStore.
class VariableStore {
public:
    // Variables are addressed by a 16-bit index in handles.
    static constexpr size_t kMaxVariables = 0xFFFF;
    // Bit offsets travel as 32-bit numbers; this keeps every variable far below.
    static constexpr uint64_t kMaxVariableBytes = uint64_t(16) << 20;
    static constexpr uint32_t kMaxStringLength = 65535;

    // Declares a zero-filled variable. Refused (false, `error` set) for an empty
    // or already declared name, inverted bounds, a too large variable, or a full
    // store. `str_len` is used by the text types only.
    bool Declare(const std::string &name, const TypeInfo &type, std::vector<Dim> dims,
                 uint32_t str_len, std::string *error);

    size_t size() const { return vars_.size(); }
    const Variable &at(size_t index) const { return vars_[index]; }
    std::optional<uint16_t> Find(std::string_view name) const;

    // A name as clients write it: a variable's name, or an array variable's name
    // followed by one subscript per dimension in declared indexes ("[i]",
    // "[i,j]", "[i,j,k]"). Only a trailing [...] after the name of an array
    // variable is taken as a subscript, since names may contain commas, dots and
    // brackets themselves; otherwise the whole text is the name. None for an
    // unknown name or a subscript outside the bounds.
    std::optional<ElementRef> Lookup(std::string_view name) const;

    // Bits [start, start + count) of the variable's image, LSB first: appends
    // ceil(count / 8) bytes to `out`, unused high bits of the last byte zero.
    // False (nothing appended) when the range is not inside the variable.
    bool ReadBits(uint16_t index, uint64_t start, uint64_t count, std::vector<uint8_t> &out) const;
    // Stores `count` bits taken LSB first from `src` at bit `start`.
    bool WriteBits(uint16_t index, uint64_t start, uint64_t count, const uint8_t *src);

    // Sets a value from text (the --set option). `target` is a name as for
    // Lookup; naming an array without subscript sets every element. Values
    // in the shared syntax of ParseValue (sim/value_text.h).
    bool Assign(std::string_view target, std::string_view value, std::string *error);

    // Numeric element access for the live animation. Integers wrap to the
    // element width; BOOL takes 0 / non-zero.
    std::optional<int64_t> GetInteger(uint16_t index, uint64_t element) const;
    bool SetInteger(uint16_t index, uint64_t element, int64_t value);
    bool SetReal(uint16_t index, uint64_t element, double value);

    // "NAME TYPE VALUE..." with the values of all elements in row-major order:
    // BOOL true/false, integers in decimal, REAL/LREAL in shortest round-trip
    // decimal, text quoted with \" \\ and \xNN escapes, time types as "<n>ns".
    std::string FormatLine(size_t index) const;
    // Every variable's line, in declaration order.
    std::string Render() const;

private:
    std::string Refusal(const std::string &name, const TypeInfo &type, size_t dims,
                        uint32_t str_len) const;
    bool PutElement(Variable &var, uint64_t element, const std::vector<uint8_t> &bytes);

    std::vector<Variable> vars_;
    std::unordered_map<std::string, uint16_t> by_name_;
};

// The store as the server threads share it: hold `mutex` around every use.
struct SharedStore {
    VariableStore store;
    mutable std::mutex mutex;
};

} // namespace plc::sim
