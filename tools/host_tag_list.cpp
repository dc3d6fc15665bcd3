#include "tools/host_tag_list.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace plc::host {
namespace {

constexpr std::array<HostType, 22> kTypes = {{
    {"BOOL", 0xC1, 1},     {"SINT", 0xC2, 8},        {"INT", 0xC3, 16},
    {"DINT", 0xC4, 32},    {"LINT", 0xC5, 64},       {"USINT", 0xC6, 8},
    {"UINT", 0xC7, 16},    {"UDINT", 0xC8, 32},      {"ULINT", 0xC9, 64},
    {"REAL", 0xCA, 32},    {"LREAL", 0xCB, 64},      {"STIME", 0xCC, 0},
    {"DATE", 0xCD, 0},     {"STRING", 0xD0, 0},      {"BYTE", 0xD1, 8},
    {"WORD", 0xD2, 16},    {"DWORD", 0xD3, 32},      {"LWORD", 0xD4, 64},
    {"STRING2", 0xD5, 0},  {"TIME_OF_DAY", 0xCE, 0}, {"DATE_AND_TIME", 0xCF, 0},
    {"TIME", 0xD6, 64},
}};

// The driver reads lines into a 256-byte buffer: 255 characters with the newline.
constexpr size_t kMaxLine = 255;

std::vector<std::string_view> split_fields(std::string_view line) {
    std::vector<std::string_view> out;
    size_t start = 0;
    for (;;) {
        const size_t comma = line.find(',', start);
        if (comma == std::string_view::npos) {
            out.push_back(line.substr(start));
            return out;
        }
        out.push_back(line.substr(start, comma - start));
        start = comma + 1;
    }
}

// A decimal number the way the driver's parse reads it: leading digits, the
// rest (a trailing '\r' for instance) ignored. None when there is no digit.
std::optional<uint64_t> leading_number(std::string_view field) {
    size_t i = 0;
    while (i < field.size() && (field[i] == ' ' || field[i] == '\t')) ++i;
    uint64_t v = 0;
    size_t digits = 0;
    for (; i < field.size() && field[i] >= '0' && field[i] <= '9'; ++i, ++digits) {
        v = v * 10 + uint64_t(field[i] - '0');
        if (v > 0xFFFFFFFFull) return std::nullopt;
    }
    if (digits == 0) return std::nullopt;
    return v;
}

// "[a..b]", "[a..b_c..d]" or "[a..b_c..d_e..f]"; false when the text is none of them.
bool parse_bounds(std::string_view field, std::vector<Bound> &dims) {
    const std::string text(field);
    long v[6] = {};
    int n = 0;
    const auto underscores = std::count(text.begin(), text.end(), '_');
    int got = 0;
    if (underscores == 2) {
        n = 3;
        got = std::sscanf(text.c_str(), "[%ld..%ld_%ld..%ld_%ld..%ld]", &v[0], &v[1], &v[2], &v[3],
                          &v[4], &v[5]);
    } else if (underscores == 1) {
        n = 2;
        got = std::sscanf(text.c_str(), "[%ld..%ld_%ld..%ld]", &v[0], &v[1], &v[2], &v[3]);
    } else {
        n = 1;
        got = std::sscanf(text.c_str(), "[%ld..%ld]", &v[0], &v[1]);
    }
    if (got != 2 * n) return false;
    dims.clear();
    for (int d = 0; d < n; ++d) dims.push_back(Bound{v[2 * d], v[2 * d + 1]});
    return true;
}

uint32_t digit_value(char c) {
    if (c >= '0' && c <= '9') return uint32_t(c - '0');
    if (c >= 'A' && c <= 'F') return uint32_t(c - 'A' + 10);
    if (c >= 'a' && c <= 'f') return uint32_t(c - 'a' + 10);
    return 0;
}

// Parses one line (without its newline) into a tag; the caller sets tag_id
// and line. Problems are recorded on the tag, never thrown.
HostTag parse_line(std::string_view line) {
    HostTag tag;
    const auto fields = split_fields(line);
    tag.name = std::string(fields[0]);
    size_t t = 1;
    for (; t < fields.size(); ++t) {
        if (fields[t].empty()) break;
        if (const HostType *type = find_host_type(fields[t])) {
            tag.type = type;
            break;
        }
        tag.name += ',';
        tag.name += fields[t];
    }
    if (tag.type == nullptr) {
        tag.problem = "no data type on its line";
        return tag;
    }
    auto field = [&](size_t k) -> std::string_view {
        return t + k < fields.size() ? fields[t + k] : std::string_view();
    };

    const std::string_view bounds = field(1);
    if (!bounds.empty() && !parse_bounds(bounds, tag.dims))
        tag.problem = "array bounds \"" + std::string(bounds) + "\" not understood";

    const std::string_view length = field(2);
    if (!length.empty() && fields[t] == "STRING") {
        tag.str_len = uint32_t(leading_number(length).value_or(0));
        tag.dims.clear();  // the driver treats a STRING with a length as one text
    }

    tag.field8_id = uint32_t(leading_number(field(6)).value_or(0));

    const std::string_view address = field(4);
    const size_t dot = address.find('.');
    if (dot != std::string_view::npos) {
        const std::string_view digits = address.substr(dot + 1, 2);
        uint32_t weight = 1;
        for (size_t i = digits.size(); i-- > 0; weight *= 10) tag.bit_no += digit_value(digits[i]) * weight;
    }

    for (const Bound &b : tag.dims) {
        if (b.lo < 0 || b.hi > 0xFFFF || b.hi < b.lo) {
            tag.problem = "array bounds outside 0..65535 or empty";
            break;
        }
    }
    return tag;
}

} // namespace

const HostType *find_host_type(std::string_view name) {
    for (const HostType &t : kTypes)
        if (name == t.name) return &t;
    return nullptr;
}

int64_t HostTag::element_count() const {
    int64_t n = 1;
    for (const Bound &b : dims) n *= b.size();
    return n;
}

std::optional<std::string> HostTagList::load(const std::string &path) {
    tags_.clear();
    std::ifstream in(path, std::ios::binary);
    if (!in) return "cannot open tag list " + path + ": " + std::strerror(errno);
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return "cannot read tag list " + path;
    parse(text.str());
    return std::nullopt;
}

void HostTagList::parse(std::string_view text) {
    tags_.clear();
    uint32_t next_plain = 0;
    unsigned line_no = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t nl = text.find('\n', pos);
        ++line_no;
        // The driver takes only lines that end with a newline.
        if (nl == std::string_view::npos) break;
        std::string_view line = text.substr(pos, nl - pos);
        pos = nl + 1;
        if (line.size() + 1 > kMaxLine) continue;  // the driver cannot take it whole either
        if (line.find(',') == std::string_view::npos) continue;

        // Plain or indexed is decided by the number after the last ',', as the
        // driver's first pass does; plain tags are numbered in file order.
        const std::string_view last = line.substr(line.rfind(',') + 1);
        const auto last_id = leading_number(last);
        const bool indexed = last_id && *last_id > 0x3FFFF;

        HostTag tag = parse_line(line);
        tag.line = line_no;
        if (indexed) {
            tag.tag_id = uint32_t(*last_id);
            // The driver places an indexed entry by the id of its eighth field
            // (counted from the type); the host needs both to agree.
            if (tag.problem.empty() && tag.field8_id != tag.tag_id)
                tag.problem = "its eighth field does not hold its tag id";
            if (tag.tag_id > 0xFFFFFF && tag.problem.empty())
                tag.problem = "indexed tag id above 0xFFFFFF";
        } else {
            tag.tag_id = next_plain++;
            if (tag.tag_id > 0xFFFF && tag.problem.empty())
                tag.problem = "plain tag id above 65535 cannot be addressed by the host";
        }
        tags_.push_back(std::move(tag));
    }
}

const HostTag *HostTagList::find(std::string_view name) const {
    for (const HostTag &t : tags_)
        if (t.name == name) return &t;
    return nullptr;
}

std::string tag_list_file_name(uint32_t address, unsigned device) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "PLC%X_%u.csv", address, device);
    return buf;
}

} // namespace plc::host
