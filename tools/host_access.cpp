#include "tools/host_access.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "util/wire.h"

namespace plc::host {
namespace {

// The driver's value area holds the bytes of one single read.
constexpr size_t kSingleReadValueBytes = 4096;
// A write carries its value length in one byte.
constexpr size_t kMaxWriteValueBytes = 255;
// Records that carry one TIME text through the batch entry: two characters
// each, enough for the longest rendering ("49d17h2m47s295.999ms") and its end.
constexpr size_t kTimeTextRecords = 12;
constexpr uint32_t kMaxElementIndex = 0xFFFF;

bool fail(HostError &err, int code, std::string message) {
    err.exit_code = code;
    err.message = std::move(message);
    return false;
}

bool is_text_type(const HostType &t) { return t.code == kCodeString || t.code == 0xD5; }
// STIME, DATE, TIME_OF_DAY, DATE_AND_TIME: 8 bytes that the driver moves as bytes.
bool is_date_like(const HostType &t) {
    return t.code == 0xCC || t.code == 0xCD || t.code == 0xCE || t.code == 0xCF;
}
bool is_signed(const HostType &t) {
    return t.code == 0xC2 || t.code == 0xC3 || t.code == 0xC4 || t.code == 0xC5;
}
// A text type without a declared length: COUNT of a read is its character count.
bool open_text(const HostTag &tag) { return is_text_type(*tag.type) && tag.str_len == 0; }

bool usable(const HostTag &tag, HostError &err) {
    if (!tag.problem.empty())
        return fail(err, kExitConfig, "variable '" + tag.name + "' (tag list line " +
                                          std::to_string(tag.line) + "): " + tag.problem);
    if (tag.type == nullptr)
        return fail(err, kExitConfig, "variable '" + tag.name + "' has no data type");
    return true;
}

std::string bounds_text(const HostTag &tag) {
    std::string s = "[";
    for (size_t d = 0; d < tag.dims.size(); ++d) {
        if (d) s += ',';
        s += std::to_string(tag.dims[d].lo) + ".." + std::to_string(tag.dims[d].hi);
    }
    return s + "]";
}

bool parse_int(std::string_view text, int64_t &v) {
    if (text.empty()) return false;
    const std::string s(text);
    char *end = nullptr;
    errno = 0;
    const long long r = std::strtoll(s.c_str(), &end, 10);
    if (errno != 0 || end != s.c_str() + s.size()) return false;
    v = r;
    return true;
}

// One subscript list "a" or "a,b,c" to a linear position.
bool spec_position(const HostTag &tag, std::string_view spec, int64_t &position,
                   std::string_view full, HostError &err) {
    std::vector<int64_t> subs;
    size_t start = 0;
    for (;;) {
        const size_t comma = spec.find(',', start);
        const std::string_view part =
            spec.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
        int64_t v = 0;
        if (!parse_int(part, v))
            return fail(err, kExitUsage, "'" + std::string(full) + "': subscript '" +
                                             std::string(part) + "' is not a number");
        subs.push_back(v);
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    const std::string where = "'" + std::string(full) + "': ";
    if (tag.dims.empty())
        return fail(err, kExitUnknown, where + "'" + tag.name + "' is not an array");
    if (subs.size() == 1 && tag.dims.size() > 1) {
        // A single number on a multi-dimensional array is the host's own linear position.
        if (subs[0] < 0 || subs[0] >= tag.element_count())
            return fail(err, kExitUnknown, where + "linear position " + std::to_string(subs[0]) +
                                               " outside 0.." +
                                               std::to_string(tag.element_count() - 1) + " of " +
                                               tag.name + bounds_text(tag));
        position = subs[0];
        return true;
    }
    if (subs.size() != tag.dims.size())
        return fail(err, kExitUnknown, where + tag.name + " has " +
                                           std::to_string(tag.dims.size()) + " dimension(s)");
    int64_t p = 0;
    for (size_t d = 0; d < subs.size(); ++d) {
        const Bound &b = tag.dims[d];
        if (subs[d] < b.lo || subs[d] > b.hi)
            return fail(err, kExitUnknown,
                        where + "index outside the bounds " + tag.name + bounds_text(tag));
        p = p * b.size() + (subs[d] - b.lo);
    }
    position = p;
    return true;
}

std::string float_text(double v, bool single) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v < 0 ? "-inf" : "inf";
    char buf[64];
    const auto r = single ? std::to_chars(buf, buf + sizeof buf, float(v))
                          : std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

Value from_bits(const HostType &t, uint64_t raw) {
    Value v;
    switch (t.code) {
    case 0xC1: v.kind = Value::Kind::Bool; v.b = raw != 0; break;
    case 0xC2: v.kind = Value::Kind::Signed; v.i = int8_t(raw); break;
    case 0xC3: v.kind = Value::Kind::Signed; v.i = int16_t(raw); break;
    case 0xC4: v.kind = Value::Kind::Signed; v.i = int32_t(raw); break;
    case 0xC5: v.kind = Value::Kind::Signed; v.i = int64_t(raw); break;
    case 0xCA: {
        float f;
        const uint32_t w = uint32_t(raw);
        std::memcpy(&f, &w, 4);
        v.kind = Value::Kind::Float;
        v.f = f;
        break;
    }
    case 0xCB: {
        double d;
        std::memcpy(&d, &raw, 8);
        v.kind = Value::Kind::Double;
        v.f = d;
        break;
    }
    default: v.kind = Value::Kind::Unsigned; v.u = raw; break;
    }
    return v;
}

std::string text_until_nul(const std::vector<uint8_t> &bytes) {
    std::string s;
    for (uint8_t c : bytes) {
        if (c == 0) break;
        s.push_back(char(c));
    }
    return s;
}

// Parses a value for a numeric, BOOL or date-like element into raw bits.
bool parse_scalar(const HostType &t, std::string_view text, uint64_t &raw, HostError &err) {
    const std::string s(text);
    auto bad = [&](const std::string &why) {
        return fail(err, kExitUsage, "value '" + s + "' for " + t.name + ": " + why);
    };
    if (t.code == kCodeBool) {
        if (s == "1" || s == "true" || s == "TRUE" || s == "on" || s == "ON") { raw = 1; return true; }
        if (s == "0" || s == "false" || s == "FALSE" || s == "off" || s == "OFF") { raw = 0; return true; }
        return bad("expected true/false, on/off or 1/0");
    }
    if (t.code == 0xCA || t.code == 0xCB) {
        char *end = nullptr;
        errno = 0;
        const double d = std::strtod(s.c_str(), &end);
        if (s.empty() || end != s.c_str() + s.size()) return bad("not a number");
        if (t.code == 0xCA) {
            if (std::isfinite(d) && std::fabs(d) > std::numeric_limits<float>::max())
                return bad("outside the range of REAL");
            const float f = float(d);
            uint32_t w;
            std::memcpy(&w, &f, 4);
            raw = w;
        } else {
            std::memcpy(&raw, &d, 8);
        }
        return true;
    }
    if (s.empty()) return bad("empty");
    char *end = nullptr;
    errno = 0;
    if (is_signed(t)) {
        const long long v = std::strtoll(s.c_str(), &end, 0);
        if (end != s.c_str() + s.size()) return bad("not an integer");
        const int bits = t.bits;
        const long long lo = bits == 64 ? std::numeric_limits<long long>::min() : -(1LL << (bits - 1));
        const long long hi = bits == 64 ? std::numeric_limits<long long>::max() : (1LL << (bits - 1)) - 1;
        if (errno == ERANGE || v < lo || v > hi)
            return bad("outside " + std::to_string(lo) + ".." + std::to_string(hi));
        raw = uint64_t(v);
        return true;
    }
    if (s[0] == '-') return bad("negative value for an unsigned type");
    const unsigned long long v = std::strtoull(s.c_str(), &end, 0);
    if (end != s.c_str() + s.size()) return bad("not an integer");
    const int bits = is_date_like(t) ? 64 : t.bits;
    const unsigned long long hi = bits == 64 ? ~0ULL : (1ULL << bits) - 1;
    if (errno == ERANGE || v > hi) return bad("outside 0.." + std::to_string(hi));
    raw = v;
    return true;
}

} // namespace

// ---- references -------------------------------------------------------------

bool resolve_ref(const HostTagList &list, std::string_view text, ElementRun &run, HostError &err) {
    run = ElementRun{};
    if (const HostTag *tag = list.find(text)) {
        run.tag = tag;
        run.whole = true;
        run.first = 0;
        run.count = tag->element_count();
        return true;
    }
    if (text.empty() || text.back() != ']') {
        return fail(err, kExitUnknown, "unknown variable '" + std::string(text) + "'");
    }
    // Names may hold '[' themselves (element lines), so try every '[' from the last.
    const HostTag *tag = nullptr;
    size_t open = std::string_view::npos;
    for (size_t at = text.rfind('['); at != std::string_view::npos && at > 0;
         at = text.rfind('[', at - 1)) {
        if ((tag = list.find(text.substr(0, at))) != nullptr) {
            open = at;
            break;
        }
    }
    if (tag == nullptr) {
        const size_t first = text.find('[');
        return fail(err, kExitUnknown,
                    "unknown variable '" + std::string(text.substr(0, first)) + "'");
    }
    run.tag = tag;
    const std::string_view inside = text.substr(open + 1, text.size() - open - 2);
    const size_t dots = inside.find("..");
    int64_t first = 0, last = 0;
    if (dots == std::string_view::npos) {
        if (!spec_position(*tag, inside, first, text, err)) return false;
        last = first;
    } else {
        run.has_range = true;
        if (!spec_position(*tag, inside.substr(0, dots), first, text, err) ||
            !spec_position(*tag, inside.substr(dots + 2), last, text, err))
            return false;
        if (last < first)
            return fail(err, kExitUsage, "'" + std::string(text) + "': empty range");
    }
    run.first = first;
    run.count = last - first + 1;
    return true;
}

bool check_run(const ElementRun &run, HostError &err) {
    const HostTag &tag = *run.tag;
    if (run.count < 1) return fail(err, kExitUsage, "COUNT must be at least 1");
    if (tag.type != nullptr && open_text(tag)) {
        if (run.count > int64_t(kSingleReadValueBytes))
            return fail(err, kExitUsage, "at most 4096 characters per read");
        return true;
    }
    if (run.first + run.count > tag.element_count())
        return fail(err, kExitUnknown,
                    std::to_string(run.count) + " element(s) from " +
                        element_label(tag, run.first) + " run past the end of " + tag.name +
                        (tag.dims.empty() ? std::string(" (not an array)") : bounds_text(tag)));
    return true;
}

std::string element_label(const HostTag &tag, int64_t position) {
    if (tag.dims.empty()) return tag.name;
    std::vector<int64_t> subs(tag.dims.size());
    int64_t p = position;
    for (size_t d = tag.dims.size(); d-- > 0;) {
        subs[d] = tag.dims[d].lo + p % tag.dims[d].size();
        p /= tag.dims[d].size();
    }
    std::string s = tag.name + "[";
    for (size_t d = 0; d < subs.size(); ++d) {
        if (d) s += ',';
        s += std::to_string(subs[d]);
    }
    return s + "]";
}

bool host_element_index(const HostTag &tag, int64_t position, uint32_t &index, HostError &err) {
    const bool dw = tag.type != nullptr && is_double_word(tag.type->code);
    int64_t e = 0;
    if (tag.dims.size() == 1)
        e = tag.dims[0].lo + position;  // the subscript itself
    else if (!tag.dims.empty())
        e = position;                   // linear position from 0
    if (dw) e *= 2;                     // the low word; the high word follows
    if (e < 0 || e + (dw ? 1 : 0) > int64_t(kMaxElementIndex))
        return fail(err, kExitUnknown,
                    element_label(tag, position) + ": element index " + std::to_string(e) +
                        " does not fit the host's 16-bit element index");
    index = uint32_t(e);
    return true;
}

PlcRequest make_record(uint16_t device, const HostTag &tag, uint32_t element_index, uint16_t count) {
    PlcRequest r{};
    r.device = device;
    const uint32_t id = tag.tag_id;
    r.tag_high = id >= 0x40000u ? uint8_t(id >> 16) : 0;
    r.address = (id & 0xFFFFu) << 16 | (element_index & 0xFFFFu);
    r.count = count;
    return r;
}

// ---- values -----------------------------------------------------------------

std::string json_string(std::string_view s) {
    std::string out = "\"";
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20 || c >= 0x7F) {
                // Controller text is bytes, not necessarily UTF-8: keep the JSON valid.
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += char(c);
            }
        }
    }
    return out + "\"";
}

std::string format_value(const Value &v) {
    switch (v.kind) {
    case Value::Kind::None: return "?";
    case Value::Kind::Signed: return std::to_string(v.i);
    case Value::Kind::Unsigned: return std::to_string(v.u);
    case Value::Kind::Float: return float_text(v.f, true);
    case Value::Kind::Double: return float_text(v.f, false);
    case Value::Kind::Bool: return v.b ? "true" : "false";
    case Value::Kind::Duration: return v.text;
    case Value::Kind::Text: {
        std::string out = "\"";
        for (const char ch : v.text) {
            const auto c = static_cast<unsigned char>(ch);
            if (c == '"' || c == '\\') {
                out += '\\';
                out += char(c);
            } else if (c < 0x20 || c >= 0x7F) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\x%02x", c);
                out += buf;
            } else {
                out += char(c);
            }
        }
        return out + "\"";
    }
    }
    return "?";
}

std::string json_value(const Value &v) {
    switch (v.kind) {
    case Value::Kind::None: return "null";
    case Value::Kind::Float:
    case Value::Kind::Double:
        // JSON has no NaN or infinity; give them as strings.
        if (!std::isfinite(v.f)) return json_string(format_value(v));
        return format_value(v);
    case Value::Kind::Text:
    case Value::Kind::Duration: return json_string(v.text);
    default: return format_value(v);
    }
}

// ---- reading ----------------------------------------------------------------

bool read_through_batch(const ElementRun &run) {
    const HostTag &tag = *run.tag;
    if (tag.type == nullptr) return false;
    if (tag.type->code == kCodeTime) return true;
    // The single read resolves one BOOL element by "name[index]", which names a
    // multi-dimensional element wrongly; the batch entry spells its subscripts.
    if (tag.type->code == kCodeBool && tag.is_array()) return run.count > 1 || tag.dims.size() > 1;
    return false;
}

bool plan_single_read(const ElementRun &run, SingleReadPlan &plan, HostError &err) {
    const HostTag &tag = *run.tag;
    if (!usable(tag, err)) return false;
    const HostType &t = *tag.type;
    plan = SingleReadPlan{};
    size_t bytes_per = 0;  // value bytes per element in the driver's value area
    if (is_text_type(t)) {
        if (!run.whole)
            return fail(err, kExitUnknown, "'" + tag.name + "' is a text: read it by its name");
        plan.element_index = 0;
        plan.count = tag.str_len ? tag.str_len : uint32_t(run.count);
        plan.buffer_bytes = size_t(plan.count) * 2;
        if (plan.count > kSingleReadValueBytes)
            return fail(err, kExitConfig, "'" + tag.name + "': a text of more than 4096 characters");
        return true;
    }
    if (is_date_like(t)) {
        if (tag.is_array())
            return fail(err, kExitConfig, "arrays of " + std::string(t.name) + " cannot be addressed by the host");
        plan.element_index = 0;
        plan.count = 8;
        plan.buffer_bytes = 16;
        return true;
    }
    if (t.code == kCodeTime)
        return fail(err, kExitConfig, "the single read does not carry TIME values");
    if (!host_element_index(tag, run.first, plan.element_index, err)) return false;
    const uint32_t n = uint32_t(run.count);
    if (is_double_word(t.code)) {
        uint32_t last = 0;
        if (!host_element_index(tag, run.first + run.count - 1, last, err)) return false;
        plan.count = 2 * n;
        plan.buffer_bytes = 8 * size_t(n);
        bytes_per = 8;
    } else if (t.bits == 32) {
        plan.count = n;
        plan.buffer_bytes = 4 * size_t(n);
        bytes_per = 4;
    } else if (t.bits == 16) {
        plan.count = n;
        plan.buffer_bytes = 2 * size_t(n);
        bytes_per = 2;
    } else if (t.bits == 8) {
        plan.count = n;
        plan.buffer_bytes = 2 * size_t(n);  // one 16-bit register per byte
        bytes_per = 1;
    } else if (t.bits == 1) {
        plan.count = 1;
        plan.buffer_bytes = 1;
        bytes_per = 1;
    }
    if (bytes_per * size_t(n) > kSingleReadValueBytes)
        return fail(err, kExitUsage, "at most " + std::to_string(kSingleReadValueBytes / bytes_per) +
                                         " " + t.name + " elements per read");
    return true;
}

std::vector<Value> decode_single_read(const ElementRun &run, const uint8_t *buffer, size_t size) {
    const HostTag &tag = *run.tag;
    const HostType &t = *tag.type;
    wire::Reader in(buffer, size);
    std::vector<Value> out;
    if (is_text_type(t)) {
        std::vector<uint8_t> chars;
        while (in.remaining() >= 2) chars.push_back(uint8_t(in.u16()));
        Value v;
        v.kind = Value::Kind::Text;
        v.text = text_until_nul(chars);
        out.push_back(v);
        return out;
    }
    if (is_date_like(t)) {
        uint64_t raw = 0;
        for (int i = 0; i < 8; ++i) raw |= uint64_t(uint8_t(in.u16())) << (8 * i);
        Value v;
        v.kind = Value::Kind::Unsigned;
        v.u = raw;
        out.push_back(in.ok() ? v : Value::none());
        return out;
    }
    for (int64_t k = 0; k < run.count; ++k) {
        uint64_t raw = 0;
        if (is_double_word(t.code)) raw = in.u64();
        else if (t.bits == 32) raw = in.u32();
        else if (t.bits == 16) raw = in.u16();
        else if (t.bits == 8) raw = uint8_t(in.u16());
        else if (t.bits == 1) raw = in.u8();
        out.push_back(in.ok() ? from_bits(t, raw) : Value::none());
    }
    return out;
}

bool plan_batch_element(uint16_t device, const HostTag &tag, int64_t position, BatchElement &out,
                        HostError &err) {
    if (!usable(tag, err)) return false;
    const HostType &t = *tag.type;
    out = BatchElement{};
    out.tag = &tag;
    out.position = position;
    out.label = element_label(tag, position);
    if (is_date_like(t) || (is_text_type(t) && tag.str_len == 0) || t.code == 0xD5)
        return fail(err, kExitConfig,
                    "'" + out.label + "': " + t.name +
                        (t.code == kCodeString ? " without a declared length" : "") +
                        " values cannot be carried by the batch read (it ends a byte run at a "
                        "zero byte); use read");
    if (t.code == kCodeTime) {
        if (tag.is_array())
            return fail(err, kExitConfig,
                        "'" + out.label + "': the batch read renders TIME texts only for scalars");
        for (uint32_t e = 0; e < kTimeTextRecords; ++e) out.records.push_back(make_record(device, tag, e));
        return true;
    }
    if (is_text_type(t)) {
        for (uint32_t e = 0; e < tag.str_len && e <= kMaxElementIndex; ++e)
            out.records.push_back(make_record(device, tag, e));
        return true;
    }
    uint32_t e = 0;
    if (!host_element_index(tag, position, e, err)) return false;
    out.records.push_back(make_record(device, tag, e));
    if (is_double_word(t.code)) out.records.push_back(make_record(device, tag, e + 1));
    return true;
}

Value decode_batch_element(const BatchElement &element, const PlcRequest *records) {
    const HostType &t = *element.tag->type;
    const size_t n = element.records.size();
    if (t.code == kCodeTime || is_text_type(t)) {
        std::vector<uint8_t> bytes;
        for (size_t k = 0; k < n; ++k) {
            bytes.push_back(uint8_t(records[k].result));
            if (t.code == kCodeTime) bytes.push_back(uint8_t(records[k].result >> 8));
        }
        Value v;
        v.kind = t.code == kCodeTime ? Value::Kind::Duration : Value::Kind::Text;
        v.text = text_until_nul(bytes);
        return v;
    }
    uint64_t raw = records[0].result;
    if (is_double_word(t.code)) raw |= uint64_t(records[1].result) << 32;
    else if (t.bits == 16) raw &= 0xFFFF;
    else if (t.bits == 8) raw &= 0xFF;
    return from_bits(t, raw);
}

std::vector<BatchCall> split_batch(const std::vector<BatchElement> &elements, size_t limit) {
    std::vector<BatchCall> calls;
    BatchCall cur;
    size_t record = 0;
    auto flush = [&] {
        if (cur.records) calls.push_back(cur);
        cur = BatchCall{};
    };
    for (size_t i = 0; i < elements.size(); ++i) {
        const size_t r = elements[i].records.size();
        if (r > limit) {
            flush();
            for (size_t done = 0; done < r; done += limit)
                calls.push_back(BatchCall{i, i + 1, record + done, std::min(limit, r - done)});
            record += r;
            cur.first_element = i + 1;
            cur.end_element = i + 1;
            cur.first_record = record;
            continue;
        }
        if (cur.records + r > limit) flush();
        if (cur.records == 0) {
            cur.first_element = i;
            cur.first_record = record;
        }
        cur.records += r;
        cur.end_element = i + 1;
        record += r;
    }
    flush();
    return calls;
}

// ---- writing ----------------------------------------------------------------

bool plan_write(const ElementRun &run, const std::vector<std::string> &values,
                std::vector<WriteOp> &ops, HostError &err) {
    const HostTag &tag = *run.tag;
    if (!usable(tag, err)) return false;
    const HostType &t = *tag.type;
    ops.clear();
    if (values.empty()) return fail(err, kExitUsage, "write needs at least one VALUE");

    if (is_text_type(t)) {
        if (!run.whole)
            return fail(err, kExitUnknown, "'" + tag.name + "' is a text: write it by its name");
        if (values.size() != 1)
            return fail(err, kExitUsage, "a text takes one VALUE (quote it if it has blanks)");
        const std::string &s = values[0];
        if (s.find('\0') != std::string::npos) return fail(err, kExitUsage, "text with a NUL");
        if (tag.str_len && s.size() > tag.str_len)
            return fail(err, kExitUsage, "'" + tag.name + "' holds at most " +
                                             std::to_string(tag.str_len) + " characters");
        // The whole declared length is written, zero-padded, so that no old
        // characters survive behind the new text.
        const size_t count = tag.str_len ? tag.str_len : s.size() + 1;
        if (count > kMaxWriteValueBytes)
            return fail(err, kExitUsage, "a write carries at most 255 characters");
        WriteOp op;
        op.label = tag.name;
        op.count = uint32_t(count);
        op.buffer.assign(2 * count, 0);
        for (size_t j = 0; j < s.size(); ++j) op.buffer[2 * j] = uint8_t(s[j]);
        ops.push_back(std::move(op));
        return true;
    }

    // Where the values start and how many the variable takes from there.
    const int64_t first = run.first;
    const int64_t n = int64_t(values.size());
    if (run.has_range && n != run.count)
        return fail(err, kExitUsage, "the range has " + std::to_string(run.count) +
                                         " element(s) but " + std::to_string(n) + " value(s) were given");
    if (first + n > tag.element_count())
        return fail(err, kExitUnknown, std::to_string(n) + " value(s) from " +
                                           element_label(tag, first) + " run past the end of " +
                                           tag.name +
                                           (tag.dims.empty() ? std::string() : bounds_text(tag)));

    if (is_date_like(t)) {
        if (tag.is_array())
            return fail(err, kExitConfig, "arrays of " + std::string(t.name) + " cannot be addressed by the host");
        uint64_t raw = 0;
        if (!parse_scalar(t, values[0], raw, err)) return false;
        WriteOp op;
        op.label = tag.name;
        op.count = 8;
        op.buffer.assign(16, 0);
        for (int j = 0; j < 8; ++j) op.buffer[2 * j] = uint8_t(raw >> (8 * j));
        ops.push_back(std::move(op));
        return true;
    }

    if (t.code == kCodeTime) {
        // The driver takes a TIME as decimal text in milliseconds.
        for (int64_t k = 0; k < n; ++k) {
            const std::string &s = values[size_t(k)];
            char *end = nullptr;
            const double ms = std::strtod(s.c_str(), &end);
            if (s.empty() || end != s.c_str() + s.size() || !std::isfinite(ms) || ms < 0 ||
                ms * 1e6 > 1.8e19)
                return fail(err, kExitUsage, "value '" + s + "' for TIME: expected a non-negative "
                                                             "number of milliseconds, e.g. 1.5");
            WriteOp op;
            op.label = element_label(tag, first + k);
            if (!host_element_index(tag, first + k, op.element_index, err)) return false;
            op.count = 1;
            op.buffer.assign(s.begin(), s.end());
            op.buffer.push_back(0);
            ops.push_back(std::move(op));
        }
        return true;
    }

    std::vector<uint64_t> raws;
    for (const std::string &s : values) {
        uint64_t raw = 0;
        if (!parse_scalar(t, s, raw, err)) return false;
        raws.push_back(raw);
    }

    if (t.code == kCodeBool) {
        // The driver resolves a single BOOL element as "name[index]", which for
        // more than one dimension names no element the controller knows.
        if (tag.dims.size() > 1)
            return fail(err, kExitConfig,
                        "'" + element_label(tag, first) + "': the driver cannot write elements of a "
                        "multi-dimensional BOOL array (it would name " + tag.name + "[" +
                            std::to_string(first) + "])");
        // Each BOOL element is its own write (the driver shifts the bit into place).
        for (int64_t k = 0; k < n; ++k) {
            WriteOp op;
            op.label = element_label(tag, first + k);
            if (!host_element_index(tag, first + k, op.element_index, err)) return false;
            op.count = 1;
            op.buffer = {uint8_t(raws[size_t(k)]), 0};
            ops.push_back(std::move(op));
        }
        return true;
    }

    const bool dw = is_double_word(t.code);
    const size_t value_bytes = dw ? 8 : t.bits / 8;
    const size_t per_write = std::max<size_t>(1, (t.bits == 8 ? kMaxWriteValueBytes : kMaxWriteValueBytes / value_bytes));
    for (int64_t k0 = 0; k0 < n; k0 += int64_t(per_write)) {
        const int64_t m = std::min<int64_t>(int64_t(per_write), n - k0);
        WriteOp op;
        op.label = element_label(tag, first + k0);
        if (m > 1) op.label += " +" + std::to_string(m - 1);
        if (!host_element_index(tag, first + k0, op.element_index, err)) return false;
        uint32_t last = 0;
        if (!host_element_index(tag, first + k0 + m - 1, last, err)) return false;
        wire::VecWriter w;
        for (int64_t k = 0; k < m; ++k) {
            const uint64_t raw = raws[size_t(k0 + k)];
            if (dw) w.u64(raw);                                       // low word first
            else if (t.bits == 32) w.u32(uint32_t(raw));
            else if (t.bits == 16) w.u16(uint16_t(raw));
            else w.u8(uint8_t(raw)).u8(0);                            // byte i at buffer byte 2i
        }
        op.count = uint32_t(dw ? 2 * m : m);
        op.buffer = w.take();
        ops.push_back(std::move(op));
    }
    return true;
}

} // namespace plc::host
