#include "sim/tag_list.h"

#include <fstream>
#include <optional>
#include <sstream>

namespace plc::sim {

namespace {

// Fields that follow the type, counted from it.
constexpr size_t kBoundsField = 1;
constexpr size_t kStringLengthField = 2;
constexpr size_t kFieldsFromType = 7; // bounds, length, 3 unused, tag id, plus the type

std::vector<std::string_view> SplitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    size_t pos = 0;
    while (true) {
        const size_t comma = line.find(',', pos);
        if (comma == std::string_view::npos) {
            fields.push_back(line.substr(pos));
            return fields;
        }
        fields.push_back(line.substr(pos, comma - pos));
        pos = comma + 1;
    }
}

std::optional<int32_t> ParseBound(std::string_view text) {
    const auto subs = ParseSubscript(text);
    if (!subs || subs->size() != 1) return std::nullopt;
    return int32_t(subs->front());
}

// "[a..b]", "[a..b_c..d]" or "[a..b_c..d_e..f]"; none for anything else.
std::optional<std::vector<Dim>> ParseBounds(std::string_view text) {
    if (text.size() < 2 || text.front() != '[' || text.back() != ']') return std::nullopt;
    text = text.substr(1, text.size() - 2);
    std::vector<Dim> dims;
    while (true) {
        const size_t underscore = text.find('_');
        const std::string_view range = text.substr(0, underscore);
        const size_t dots = range.find("..");
        if (dots == std::string_view::npos) return std::nullopt;
        const auto lo = ParseBound(range.substr(0, dots));
        const auto hi = ParseBound(range.substr(dots + 2));
        if (!lo || !hi) return std::nullopt;
        dims.push_back(Dim{*lo, *hi});
        if (underscore == std::string_view::npos) break;
        text.remove_prefix(underscore + 1);
    }
    if (dims.size() > 3) return std::nullopt;
    return dims;
}

bool SameShape(const Variable &var, const TypeInfo &type, const std::vector<Dim> &dims,
               uint32_t str_len) {
    if (var.type != &type || var.dims.size() != dims.size()) return false;
    if (type.kind == ValueKind::Text && var.str_len != str_len) return false;
    for (size_t i = 0; i < dims.size(); ++i) {
        if (var.dims[i].lo != dims[i].lo || var.dims[i].hi != dims[i].hi) return false;
    }
    return true;
}

// Declares the variable of one line; an empty result, or why the line is skipped.
std::optional<std::string> TakeLine(std::string_view line, VariableStore &store,
                                    TagListSummary &summary) {
    const std::vector<std::string_view> fields = SplitFields(line);
    std::string name(fields[0]);
    size_t t = 1;
    while (t < fields.size() && !fields[t].empty() && !FindType(fields[t])) {
        name += ',';
        name += fields[t];
        ++t;
    }
    if (t >= fields.size() || fields[t].empty()) return std::string("no data type");
    const TypeInfo &type = *FindType(fields[t]);
    if (fields.size() != t + kFieldsFromType)
        return "expected 8 fields, found " + std::to_string(fields.size() - t + 1) +
               " counting from the name's first part";
    if (name.empty()) return std::string("empty variable name");

    std::vector<Dim> dims;
    const std::string_view bounds = fields[t + kBoundsField];
    if (!bounds.empty()) {
        const auto parsed = ParseBounds(bounds);
        if (!parsed) return "cannot read array bounds '" + std::string(bounds) + "'";
        dims = *parsed;
    }
    uint32_t str_len = kDefaultStringLength;
    const std::string_view length = fields[t + kStringLengthField];
    if (type.kind == ValueKind::Text && !length.empty()) {
        const auto n = ParseSubscript(length);
        if (!n || n->size() != 1 || n->front() < 0 ||
            n->front() > int64_t(VariableStore::kMaxStringLength))
            return "cannot read string length '" + std::string(length) + "'";
        str_len = uint32_t(n->front());
    }

    if (const auto existing = store.Find(name)) {
        if (!SameShape(store.at(*existing), type, dims, str_len))
            return "variable " + name + " was declared before with another type or shape";
        ++summary.repeated;
        return std::nullopt;
    }
    std::string error;
    if (!store.Declare(name, type, std::move(dims), str_len, &error)) return error;
    ++summary.declared;
    return std::nullopt;
}

} // namespace

TagListSummary LoadTagListText(std::string_view text, const std::string &origin,
                               VariableStore &store, std::vector<std::string> &warnings) {
    TagListSummary summary;
    size_t line_no = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t nl = text.find('\n', pos);
        std::string_view line =
            text.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos);
        pos = nl == std::string_view::npos ? text.size() : nl + 1;
        ++line_no;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.find_first_not_of(" \t") == std::string_view::npos) continue;
        if (const auto why = TakeLine(line, store, summary)) {
            ++summary.skipped;
            warnings.push_back(origin + ":" + std::to_string(line_no) + ": " + *why +
                               "; line skipped");
        }
    }
    return summary;
}

bool LoadTagListFile(const std::string &path, VariableStore &store,
                     std::vector<std::string> &warnings, TagListSummary *summary) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        warnings.push_back("cannot open tag list " + path);
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad()) {
        warnings.push_back("cannot read tag list " + path);
        return false;
    }
    const TagListSummary s = LoadTagListText(content.str(), path, store, warnings);
    if (summary) *summary = s;
    return true;
}

} // namespace plc::sim
