#include "tools/host_refs.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace plc::host {
namespace {

constexpr uint32_t kMaxElementIndex = 0xFFFF;

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

bool parse_subscripts(std::string_view subscripts, std::vector<int64_t> &subs,
                      std::string_view full, HostError &err) {
    size_t start = 0;
    for (;;) {
        const size_t comma = subscripts.find(',', start);
        const std::string_view part = subscripts.substr(
            start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
        int64_t v = 0;
        if (!parse_int(part, v))
            return fail(err, kExitUsage,
                        "'" + std::string(full) + "': subscript '" + std::string(part) +
                            "' is not a number");
        subs.push_back(v);
        if (comma == std::string_view::npos) return true;
        start = comma + 1;
    }
}

// One subscript list "a" or "a,b,c" to a linear position.
bool subscript_position(const HostTag &tag, std::string_view subscripts, int64_t &position,
                        std::string_view full, HostError &err) {
    std::vector<int64_t> subs;
    if (!parse_subscripts(subscripts, subs, full, err)) return false;
    const std::string where = "'" + std::string(full) + "': ";
    if (tag.dims.empty())
        return fail(err, kExitUnknown, where + "'" + tag.name + "' is not an array");
    if (subs.size() == 1 && tag.dims.size() > 1) {
        // A single number on a multi-dimensional array is the host's own linear position.
        if (subs[0] < 0 || subs[0] >= tag.element_count())
            return fail(err, kExitUnknown,
                        where + "linear position " + std::to_string(subs[0]) + " outside 0.." +
                            std::to_string(tag.element_count() - 1) + " of " + tag.name +
                            bounds_text(tag));
        position = subs[0];
        return true;
    }
    if (subs.size() != tag.dims.size())
        return fail(err, kExitUnknown,
                    where + tag.name + " has " + std::to_string(tag.dims.size()) + " dimension(s)");
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

// The tag named by the text before one of its '[' (names may hold '[' themselves).
const HostTag *find_subscripted(const HostTagList &list, std::string_view text, size_t &open) {
    for (size_t at = text.rfind('['); at != std::string_view::npos && at > 0;
         at = text.rfind('[', at - 1)) {
        if (const HostTag *tag = list.find(text.substr(0, at))) {
            open = at;
            return tag;
        }
    }
    return nullptr;
}

bool subscripted_run(std::string_view text, size_t open, ElementRun &run, HostError &err) {
    const std::string_view inside = text.substr(open + 1, text.size() - open - 2);
    const size_t dots = inside.find("..");
    int64_t first = 0, last = 0;
    if (dots == std::string_view::npos) {
        if (!subscript_position(*run.tag, inside, first, text, err)) return false;
        last = first;
    } else {
        run.has_range = true;
        if (!subscript_position(*run.tag, inside.substr(0, dots), first, text, err) ||
            !subscript_position(*run.tag, inside.substr(dots + 2), last, text, err))
            return false;
        if (last < first) return fail(err, kExitUsage, "'" + std::string(text) + "': empty range");
    }
    run.first = first;
    run.count = last - first + 1;
    return true;
}

} // namespace

bool fail(HostError &err, int code, std::string message) {
    err.exit_code = code;
    err.message = std::move(message);
    return false;
}

bool resolve_ref(const HostTagList &list, std::string_view text, ElementRun &run, HostError &err) {
    run = ElementRun{};
    size_t open = std::string_view::npos;
    run.tag = list.find(text);
    if (run.tag == nullptr && !text.empty() && text.back() == ']')
        run.tag = find_subscripted(list, text, open);
    if (run.tag == nullptr)
        return fail(err, kExitUnknown,
                    "unknown variable '" + std::string(text.substr(0, text.find('['))) + "'");
    const HostTag &tag = *run.tag;
    if (!tag.unreachable.empty())
        return fail(err, kExitConfig,
                    "the driver cannot reach '" + tag.name + "': " + tag.unreachable);
    if (tag.type == nullptr)
        return fail(err, kExitConfig, "'" + tag.name + "' has no data type in the tag list");
    if (tag.element_count() == 0)
        return fail(err, kExitConfig,
                    "'" + tag.name + "' is declared without elements " + bounds_text(tag));
    if (open != std::string_view::npos) return subscripted_run(text, open, run, err);
    run.whole = true;
    run.count = tag.element_count();
    return true;
}

bool check_run(const ElementRun &run, HostError &err) {
    const HostTag &tag = *run.tag;
    if (run.count < 1) return fail(err, kExitUsage, "COUNT must be at least 1");
    // A text without a declared length is read by a count of characters.
    if (is_open_text(tag)) return true;
    if (run.first + run.count > tag.element_count())
        return fail(err, kExitUnknown,
                    std::to_string(run.count) + " element(s) from " +
                        element_label(tag, run.first) + " run past the end of " + tag.name +
                        (tag.dims.empty() ? std::string(" (not an array)") : bounds_text(tag)));
    return true;
}

bool is_text(const HostTag &tag) { return tag.code() == kTypeString || tag.code() == kTypeString2; }

bool is_open_text(const HostTag &tag) { return is_text(tag) && tag.str_len == 0; }

bool is_date_like(const HostTag &tag) {
    const uint16_t c = tag.code();
    return c == kTypeStime || c == kTypeDate || c == kTypeTimeOfDay || c == kTypeDateAndTime;
}

std::string bounds_text(const HostTag &tag) {
    std::string s = "[";
    for (size_t d = 0; d < tag.dims.size(); ++d) {
        if (d) s += ',';
        s += std::to_string(tag.dims[d].lo) + ".." + std::to_string(tag.dims[d].hi);
    }
    return s + "]";
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
    for (size_t d = 0; d < subs.size(); ++d) s += (d ? "," : "") + std::to_string(subs[d]);
    return s + "]";
}

bool host_element_index(const HostTag &tag, int64_t position, uint32_t &index, HostError &err) {
    const bool dw = tag.type != nullptr && is_double_word_type(tag.type->code);
    int64_t e = 0;
    if (tag.dims.size() == 1)
        e = tag.dims[0].lo + position; // the subscript itself
    else if (!tag.dims.empty())
        e = position; // linear position from 0
    if (dw) e *= 2;   // the low word; the high word follows
    if (e < 0 || e + (dw ? 1 : 0) > int64_t(kMaxElementIndex))
        return fail(err, kExitUnknown,
                    element_label(tag, position) + ": element index " + std::to_string(e) +
                        " does not fit the host's 16-bit element index");
    index = uint32_t(e);
    return true;
}

PlcRequest make_record(uint16_t device, const HostTag &tag, uint32_t element_index) {
    PlcRequest r{};
    r.device = device;
    const uint32_t id = tag.tag_id;
    r.tag_high = id >= PLC_INDEXED_TAG_BASE ? uint8_t(id >> 16) : 0;
    r.address = (id & 0xFFFFu) << 16 | (element_index & 0xFFFFu);
    r.count = 1;
    return r;
}

} // namespace plc::host
