#include "sim/variable_store.h"

#include "sim/store_text.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace plc::sim {

namespace {

// Element widths of the types this controller knows. The time types and DATE
// are 64-bit nanosecond counts; STIME is taken the same way.
constexpr TypeInfo kTypes[] = {
    {"BOOL", 0xC1, 0, ValueKind::Bool},
    {"SINT", 0xC2, 1, ValueKind::Signed},
    {"INT", 0xC3, 2, ValueKind::Signed},
    {"DINT", 0xC4, 4, ValueKind::Signed},
    {"LINT", 0xC5, 8, ValueKind::Signed},
    {"USINT", 0xC6, 1, ValueKind::Unsigned},
    {"UINT", 0xC7, 2, ValueKind::Unsigned},
    {"UDINT", 0xC8, 4, ValueKind::Unsigned},
    {"ULINT", 0xC9, 8, ValueKind::Unsigned},
    {"REAL", 0xCA, 4, ValueKind::Real},
    {"LREAL", 0xCB, 8, ValueKind::Real},
    {"STIME", 0xCC, 8, ValueKind::Duration},
    {"DATE", 0xCD, 8, ValueKind::Date},
    {"STRING", 0xD0, 0, ValueKind::Text},
    {"BYTE", 0xD1, 1, ValueKind::Unsigned},
    {"WORD", 0xD2, 2, ValueKind::Unsigned},
    {"DWORD", 0xD3, 4, ValueKind::Unsigned},
    {"LWORD", 0xD4, 8, ValueKind::Unsigned},
    {"STRING2", 0xD5, 0, ValueKind::Text},
    {"TIME_OF_DAY", 0xCE, 8, ValueKind::TimeOfDay},
    {"DATE_AND_TIME", 0xCF, 8, ValueKind::DateAndTime},
    {"TIME", 0xD6, 8, ValueKind::Duration},
};

bool InRange(const Variable &var, uint64_t start, uint64_t count) {
    return start <= var.bit_size() && count <= var.bit_size() - start;
}

bool BitAt(const std::vector<uint8_t> &bytes, uint64_t bit) {
    return (bytes[bit / 8] >> (bit % 8)) & 1u;
}

void ReadBitsOf(const Variable &var, uint64_t start, uint64_t count, uint8_t *dst) {
    const size_t out_bytes = size_t((count + 7) / 8);
    std::memset(dst, 0, out_bytes);
    uint64_t done = 0;
    if (start % 8 == 0) {
        const size_t whole = size_t(count / 8);
        std::memcpy(dst, var.data.data() + start / 8, whole);
        done = uint64_t(whole) * 8;
    }
    for (; done < count; ++done) {
        if (BitAt(var.data, start + done)) dst[done / 8] |= uint8_t(1u << (done % 8));
    }
}

void WriteBitsOf(Variable &var, uint64_t start, uint64_t count, const uint8_t *src) {
    uint64_t done = 0;
    if (start % 8 == 0) {
        const size_t whole = size_t(count / 8);
        std::memcpy(var.data.data() + start / 8, src, whole);
        done = uint64_t(whole) * 8;
    }
    for (; done < count; ++done) {
        const uint64_t bit = start + done;
        const uint8_t mask = uint8_t(1u << (bit % 8));
        if ((src[done / 8] >> (done % 8)) & 1u)
            var.data[bit / 8] |= mask;
        else
            var.data[bit / 8] &= uint8_t(~mask);
    }
}

} // namespace

const TypeInfo *FindType(std::string_view name) {
    for (const TypeInfo &t : kTypes) {
        if (name == t.name) return &t;
    }
    return nullptr;
}

std::optional<std::vector<int64_t>> ParseSubscript(std::string_view text) {
    std::vector<int64_t> values;
    size_t pos = 0;
    while (true) {
        const size_t comma = text.find(',', pos);
        const std::string_view part = text.substr(
            pos, comma == std::string_view::npos ? std::string_view::npos : comma - pos);
        const auto n = ParseIntText(part);
        if (!n || n->hex || n->magnitude > uint64_t(std::numeric_limits<int32_t>::max()))
            return std::nullopt;
        values.push_back(n->negative ? -int64_t(n->magnitude) : int64_t(n->magnitude));
        if (comma == std::string_view::npos) break;
        pos = comma + 1;
    }
    return values;
}

// Why a declaration cannot be taken before its size is known; empty if it can.
std::string VariableStore::Refusal(const std::string &name, const TypeInfo &type, size_t dims,
                                   uint32_t str_len) const {
    if (name.empty()) return "empty variable name";
    if (by_name_.count(name)) return "variable " + name + " is already declared";
    if (vars_.size() >= kMaxVariables) return "too many variables";
    if (dims > 3) return "more than three dimensions";
    if (type.kind == ValueKind::Text && str_len > kMaxStringLength)
        return "string length " + std::to_string(str_len) + " is above " +
               std::to_string(kMaxStringLength);
    return {};
}

bool VariableStore::Declare(const std::string &name, const TypeInfo &type, std::vector<Dim> dims,
                            uint32_t str_len, std::string *error) {
    if (std::string why = Refusal(name, type, dims.size(), str_len); !why.empty()) {
        *error = why;
        return false;
    }
    Variable var;
    var.name = name;
    var.type = &type;
    if (type.kind == ValueKind::Text) var.str_len = str_len;
    var.element_bits = type.kind == ValueKind::Bool   ? 1
                       : type.kind == ValueKind::Text ? (var.str_len + 1) * 8
                                                      : type.bytes * 8;
    // count stays below 2^27 between dimensions and a dimension below 2^33, so
    // neither product can overflow.
    const uint64_t max_bits = kMaxVariableBytes * 8;
    uint64_t count = 1;
    for (const Dim &d : dims) {
        if (d.hi < d.lo) {
            *error =
                "bounds " + std::to_string(d.lo) + ".." + std::to_string(d.hi) + " are inverted";
            return false;
        }
        count *= d.size();
        if (count > max_bits || count * var.element_bits > max_bits) {
            *error = "variable " + name + " is larger than " + std::to_string(kMaxVariableBytes) +
                     " bytes";
            return false;
        }
    }
    var.dims = std::move(dims);
    var.element_count = count;
    var.data.assign(size_t((var.bit_size() + 7) / 8), 0);
    by_name_.emplace(name, uint16_t(vars_.size()));
    vars_.push_back(std::move(var));
    return true;
}

std::optional<uint16_t> VariableStore::Find(std::string_view name) const {
    const auto it = by_name_.find(std::string(name));
    if (it == by_name_.end()) return std::nullopt;
    return it->second;
}

namespace {

// The row-major position of a subscript text inside an array's bounds.
std::optional<uint64_t> ElementPosition(const Variable &var, std::string_view subscript) {
    const auto subs = ParseSubscript(subscript);
    if (!subs || subs->size() != var.dims.size()) return std::nullopt;
    uint64_t position = 0;
    for (size_t d = 0; d < var.dims.size(); ++d) {
        const int64_t s = (*subs)[d];
        if (s < var.dims[d].lo || s > var.dims[d].hi) return std::nullopt;
        position = position * var.dims[d].size() + uint64_t(s - var.dims[d].lo);
    }
    return position;
}

} // namespace

std::optional<ElementRef> VariableStore::Lookup(std::string_view name) const {
    const size_t open = name.rfind('[');
    if (!name.empty() && name.back() == ']' && open != std::string_view::npos && open > 0) {
        const auto index = Find(name.substr(0, open));
        if (index && vars_[*index].is_array()) {
            const auto position =
                ElementPosition(vars_[*index], name.substr(open + 1, name.size() - open - 2));
            if (position) return ElementRef{*index, true, *position};
        }
    }
    if (const auto index = Find(name)) return ElementRef{*index, false, 0};
    return std::nullopt;
}

bool VariableStore::ReadBits(uint16_t index, uint64_t start, uint64_t count,
                             std::vector<uint8_t> &out) const {
    if (index >= vars_.size() || !InRange(vars_[index], start, count)) return false;
    const size_t at = out.size();
    out.resize(at + size_t((count + 7) / 8));
    ReadBitsOf(vars_[index], start, count, out.data() + at);
    return true;
}

bool VariableStore::WriteBits(uint16_t index, uint64_t start, uint64_t count, const uint8_t *src) {
    if (index >= vars_.size() || !InRange(vars_[index], start, count)) return false;
    WriteBitsOf(vars_[index], start, count, src);
    return true;
}

bool VariableStore::PutElement(Variable &var, uint64_t element, const std::vector<uint8_t> &bytes) {
    if (element >= var.element_count) return false;
    WriteBitsOf(var, element * var.element_bits, var.element_bits, bytes.data());
    return true;
}

bool VariableStore::Assign(std::string_view target, std::string_view value, std::string *error) {
    const auto ref = Lookup(target);
    if (!ref) {
        *error = "no variable or element " + std::string(target);
        return false;
    }
    Variable &var = vars_[ref->index];
    const auto bytes = EncodeElement(var, value, error);
    if (!bytes) return false;
    if (ref->element) return PutElement(var, ref->position, *bytes);
    for (uint64_t e = 0; e < var.element_count; ++e) PutElement(var, e, *bytes);
    return true;
}

std::optional<int64_t> VariableStore::GetInteger(uint16_t index, uint64_t element) const {
    if (index >= vars_.size()) return std::nullopt;
    const Variable &var = vars_[index];
    const ValueKind kind = var.type->kind;
    if (element >= var.element_count ||
        (kind != ValueKind::Bool && kind != ValueKind::Signed && kind != ValueKind::Unsigned))
        return std::nullopt;
    uint8_t raw[8] = {};
    ReadBitsOf(var, element * var.element_bits, var.element_bits, raw);
    const uint64_t v = FromLittleEndian(raw, sizeof raw);
    return int64_t(kind == ValueKind::Signed ? SignExtend(v, var.element_bits) : v);
}

bool VariableStore::SetInteger(uint16_t index, uint64_t element, int64_t value) {
    if (index >= vars_.size()) return false;
    Variable &var = vars_[index];
    const ValueKind kind = var.type->kind;
    if (kind == ValueKind::Bool) return PutElement(var, element, {uint8_t(value != 0)});
    if (kind != ValueKind::Signed && kind != ValueKind::Unsigned) return false;
    return PutElement(var, element, LittleEndian(uint64_t(value), var.type->bytes));
}

bool VariableStore::SetReal(uint16_t index, uint64_t element, double value) {
    if (index >= vars_.size() || vars_[index].type->kind != ValueKind::Real) return false;
    Variable &var = vars_[index];
    return PutElement(var, element, RealBytes(value, var.type->bytes));
}

std::string VariableStore::FormatLine(size_t index) const {
    const Variable &var = vars_[index];
    std::string line = var.name + ' ' + var.type->name;
    for (uint64_t e = 0; e < var.element_count; ++e) {
        line += ' ';
        line += FormatElement(var, e);
    }
    return line;
}

std::string VariableStore::Render() const {
    std::string text;
    for (size_t i = 0; i < vars_.size(); ++i) {
        text += FormatLine(i);
        text += '\n';
    }
    return text;
}

} // namespace plc::sim
