#include "tools/host_tags.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tags/tag_kinds.h"

namespace plc::host {
namespace {

const CipType *type_of(uint16_t code) {
    for (const CipType &row : type_list) {
        if (row.code == kTypeTerminator) break;
        if (row.code == code) return &row;
    }
    return nullptr;
}

// The entry's bounds as the line declared them: a double-word scalar is
// stored as [0..1] and every bound of a double-word array doubled (an array
// never ends on an odd word, so [0..1] is always the scalar).
std::vector<Bound> declared_dims(const TagEntry &e) {
    const bool dw = is_double_word_type(e.type_code);
    const int64_t div = dw ? 2 : 1;
    switch (dim_kind(e)) {
    case DimKind::OneDim:
        if (dw && e.lo1 == 0 && e.hi1 == 1) return {};
        return {{e.lo1 / div, e.hi1 / div}};
    case DimKind::TwoDims: return {{e.lo1 / div, e.hi1 / div}, {e.lo2 / div, e.hi2 / div}};
    case DimKind::ThreeDims:
        return {{e.lo1 / div, e.hi1 / div}, {e.lo2 / div, e.hi2 / div}, {e.lo3 / div, e.hi3 / div}};
    default: return {};
    }
}

} // namespace

int64_t HostTag::element_count() const {
    int64_t n = 1;
    for (const Bound &b : dims) n *= b.size() > 0 ? b.size() : 0;
    return n;
}

uint32_t element_bytes(const HostTag &tag) {
    if (tag.type == nullptr) return 0;
    if (tag.type->bits == 64) return 8;
    return tag.type->bits / 8;
}

bool HostTagList::load(const std::string &path) {
    path_ = path;
    errno = 0;
    parsed_ = parse_tag_list(path_.c_str());
    open_errno_ = errno;
    if (parsed_.status != TagListStatus::Accepted) return false;
    for (const TagEntry &e : parsed_.plain) add(e, "");
    for (size_t g = 0; g < parsed_.groups.size(); ++g) {
        std::string why;
        if (parsed_.shadowed(g)) {
            const auto &owner = parsed_.groups[parsed_.block_owner(g)].tags;
            why = "its tag id lies in the id block of the group starting at tag id " +
                  std::to_string(owner[0].tag_id) + ", which the driver finds instead";
        }
        for (const TagEntry &e : parsed_.groups[g].tags) add(e, why);
    }
    return true;
}

void HostTagList::add(const TagEntry &e, std::string unreachable) {
    HostTag tag;
    tag.name = std::string(e.name, strnlen(e.name, sizeof e.name));
    tag.type = type_of(e.type_code);
    tag.dims = declared_dims(e);
    tag.str_len = dim_kind(e) == DimKind::String ? e.str_len : 0;
    tag.tag_id = e.tag_id;
    tag.unreachable = std::move(unreachable);
    // The first line of a name is the one a host reaches by that name.
    by_name_.emplace(tag.name, tags_.size());
    tags_.push_back(std::move(tag));
}

std::string HostTagList::refusal_text() const {
    const TagListRefusal &r = parsed_.refusal;
    switch (parsed_.status) {
    case TagListStatus::Accepted: return "";
    case TagListStatus::CannotOpen:
        return "cannot open " + path_ + ": " + std::strerror(open_errno_);
    case TagListStatus::Refused:
        return "the driver refuses " + path_ +
               (r.line ? " line " + std::to_string(r.line) + " " : ": ") + r.reason;
    case TagListStatus::CloseFailed: return "cannot read " + path_ + " to its end";
    default: return "not enough memory for " + path_;
    }
}

const HostTag *HostTagList::find(std::string_view name) const {
    const auto it = by_name_.find(std::string(name));
    return it == by_name_.end() ? nullptr : &tags_[it->second];
}

std::string tag_list_file_name(uint32_t address, unsigned device) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "PLC%X_%u.csv", address, device);
    return buf;
}

} // namespace plc::host
