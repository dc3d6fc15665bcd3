#include "sim/store_text.h"

#include "sim/value_text.h"

namespace plc::sim {

namespace {

ValueType ShapeOf(const Variable &var) {
    ValueType t;
    t.kind = var.type->kind;
    t.bytes = var.type->bytes;
    t.str_len = var.str_len;
    return t;
}

} // namespace

std::optional<std::vector<uint8_t>> EncodeElement(const Variable &var, std::string_view text,
                                                  std::string *error) {
    std::string why;
    auto encoded = ParseValue(ShapeOf(var), text, &why);
    if (!encoded)
        *error =
            "bad " + std::string(var.type->name) + " value '" + std::string(text) + "': " + why;
    return encoded;
}

std::string FormatElement(const Variable &var, uint64_t element) {
    const uint64_t start = element * var.element_bits;
    if (var.type->kind == ValueKind::Bool)
        return (var.data[start / 8] >> (start % 8)) & 1u ? "true" : "false";
    const uint8_t *bytes = var.data.data() + start / 8;
    switch (var.type->kind) {
    case ValueKind::Duration:
    case ValueKind::Date:
    case ValueKind::TimeOfDay:
    case ValueKind::DateAndTime: return std::to_string(int64_t(FromLittleEndian(bytes, 8))) + "ns";
    default: return FormatValue(ShapeOf(var), bytes, var.element_bits / 8);
    }
}

} // namespace plc::sim
