// plc-host tags and check: the tag list as the driver reads it.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "tools/host_commands.h"

namespace plc::host {
namespace {

std::string shape_text(const HostTag &t) {
    if (t.str_len) return "(" + std::to_string(t.str_len) + ")";
    return t.dims.empty() ? "" : bounds_text(t);
}

// The text of the file's last line when it has no newline.
std::string unterminated_text(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    const std::string text = all.str();
    const size_t nl = text.rfind('\n');
    return nl == std::string::npos ? text : text.substr(nl + 1);
}

// Groups of ids the driver cannot reach: another group starting later in the
// same 8192-id block takes the block's only slot.
int report_shadowed(const ParsedTagList &list, bool json, std::string &out) {
    int count = 0;
    for (size_t g = 0; g < list.groups.size(); ++g) {
        if (!list.shadowed(g)) continue;
        const auto &tags = list.groups[g].tags;
        const uint32_t first = tags.front().tag_id, last = tags.back().tag_id;
        const uint32_t owner = list.groups[list.block_owner(g)].tags.front().tag_id;
        const std::string why = "tag ids " + std::to_string(first) + " to " + std::to_string(last) +
                                " (" + std::to_string(tags.size()) + " variable(s) from " +
                                tags.front().name + ") cannot be reached: the group starting at " +
                                std::to_string(owner) +
                                " comes later in the same id block, and "
                                "the driver finds that group instead";
        if (json)
            out += std::string(count ? "," : "") + json_string(why);
        else
            std::printf("unreachable: %s\n", why.c_str());
        ++count;
    }
    return count;
}

} // namespace

int cmd_tags(const Host &h) {
    std::string json;
    for (const HostTag &t : h.tags.tags()) {
        const char *type = t.type ? t.type->name : "?";
        if (h.opt.json) {
            json +=
                std::string(json.empty() ? "" : ",") + "{\"name\":" + json_string(t.name) +
                ",\"type\":" + json_string(type) + ",\"shape\":" + json_string(shape_text(t)) +
                ",\"tag_id\":" + std::to_string(t.tag_id) +
                (t.unreachable.empty() ? "" : ",\"unreachable\":" + json_string(t.unreachable)) +
                "}";
        } else {
            std::printf("%-8u %-13s %-16s %s%s\n", t.tag_id, type, shape_text(t).c_str(),
                        t.name.c_str(), t.unreachable.empty() ? "" : "   (unreachable)");
        }
    }
    if (h.opt.json) std::printf("[%s]\n", json.c_str());
    return kExitOk;
}

int cmd_check(const Options &opt) {
    const std::string &path = opt.args[0];
    HostTagList list;
    if (!list.load(path)) {
        const std::string why = list.refusal_text();
        if (opt.json)
            std::printf("{\"status\":%d,\"refused\":%s}\n", kExitConfig, json_string(why).c_str());
        else
            std::printf("refused: %s\n", why.c_str());
        return kExitConfig;
    }
    const ParsedTagList &p = list.parsed();
    std::string shadowed;
    if (!opt.json)
        std::printf("%s: %u plain tag(s), %zu group(s) of indexed tags\n", path.c_str(),
                    p.plain_count(), p.groups.size());
    const int unreachable = report_shadowed(p, opt.json, shadowed);
    std::string skipped;
    if (p.unterminated_line != 0) {
        const std::string line = unterminated_text(path);
        skipped = "line " + std::to_string(p.unterminated_line) + " (" +
                  line.substr(0, line.find(',')) +
                  ") has no newline at its end: the driver skips it, so its variable is not in "
                  "the list; end the line with a newline";
        if (!opt.json) std::printf("skipped: %s\n", skipped.c_str());
    }
    const int status = unreachable || !skipped.empty() ? kExitConfig : kExitOk;
    if (opt.json)
        std::printf(
            "{\"status\":%d,\"plain\":%u,\"groups\":%zu,\"unreachable\":[%s],\"skipped\":%s}\n",
            status, p.plain_count(), p.groups.size(), shadowed.c_str(),
            skipped.empty() ? "null" : json_string(skipped).c_str());
    else if (status == kExitOk)
        std::printf("ok: the driver takes every line\n");
    return status;
}

} // namespace plc::host
