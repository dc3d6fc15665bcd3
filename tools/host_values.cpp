#include "tools/host_values.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace plc::host {

using sim::ValueKind;

sim::ValueType value_type(const HostTag &tag) {
    sim::ValueType t;
    t.bytes = element_bytes(tag);
    t.str_len = tag.str_len;
    switch (tag.code()) {
    case kTypeBool: t.kind = ValueKind::Bool; break;
    case kTypeSint:
    case kTypeInt:
    case kTypeDint:
    case kTypeLint: t.kind = ValueKind::Signed; break;
    case kTypeByte:
    case kTypeWord:
    case kTypeDword:
    case kTypeLword:
        t.kind = ValueKind::Unsigned;
        t.hex = true;
        break;
    case kTypeReal:
    case kTypeLreal: t.kind = ValueKind::Real; break;
    case kTypeString:
    case kTypeString2: t.kind = ValueKind::Text; break;
    case kTypeTime:
    case kTypeStime: t.kind = ValueKind::Duration; break;
    case kTypeDate: t.kind = ValueKind::Date; break;
    case kTypeTimeOfDay: t.kind = ValueKind::TimeOfDay; break;
    case kTypeDateAndTime: t.kind = ValueKind::DateAndTime; break;
    default: t.kind = ValueKind::Unsigned; break;
    }
    if (t.kind != ValueKind::Bool && t.kind != ValueKind::Text && t.bytes == 0) t.bytes = 8;
    return t;
}

std::string format_value(const HostTag &tag, const Value &v) {
    if (!v.ok()) return "?";
    return sim::FormatValue(value_type(tag), v.image.data(), v.image.size());
}

std::string json_string(std::string_view s) {
    std::string out = "\"";
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c < 0x20 || c >= 0x7F) {
            // Controller text is bytes, not necessarily UTF-8: keep the JSON valid.
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += ch;
        }
    }
    return out + "\"";
}

std::string json_value(const HostTag &tag, const Value &v) {
    if (!v.ok()) return "null";
    sim::ValueType t = value_type(tag);
    switch (t.kind) {
    case ValueKind::Bool:
    case ValueKind::Signed: return sim::FormatValue(t, v.image.data(), v.image.size());
    case ValueKind::Unsigned:
        t.hex = false;
        return sim::FormatValue(t, v.image.data(), v.image.size());
    case ValueKind::Real: {
        // JSON has no NaN or infinity: those go as strings.
        const std::string text = sim::FormatValue(t, v.image.data(), v.image.size());
        const double d = std::strtod(text.c_str(), nullptr);
        return std::isfinite(d) ? text : json_string(text);
    }
    case ValueKind::Text: {
        const auto end = std::find(v.image.begin(), v.image.end(), uint8_t(0));
        return json_string(std::string(v.image.begin(), end));
    }
    default: return json_string(sim::FormatValue(t, v.image.data(), v.image.size()));
    }
}

bool parse_value(const HostTag &tag, std::string_view text, std::vector<uint8_t> &image,
                 std::string &why) {
    auto parsed = sim::ParseValue(value_type(tag), text, &why);
    if (!parsed) return false;
    image = std::move(*parsed);
    return true;
}

} // namespace plc::host
