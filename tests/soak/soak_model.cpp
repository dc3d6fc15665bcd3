#include "soak_model.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace plc::soak {
namespace {

using host::HostTag;
using HostType = CipType;

constexpr uint16_t kCodeReal = 0xCA;
constexpr uint16_t kCodeLreal = 0xCB;
constexpr uint64_t kNsPerMs = 1000000;

bool is_signed(const HostType &t) { return t.code >= 0xC2 && t.code <= 0xC5; }

uint64_t float_bits(float f) {
    uint32_t w;
    std::memcpy(&w, &f, 4);
    return w;
}

uint64_t double_bits(double d) {
    uint64_t w;
    std::memcpy(&w, &d, 8);
    return w;
}

bool parse_raw(const HostType &t, const std::string &s, uint64_t &raw) {
    char *end = nullptr;
    if (t.code == kTypeBool) {
        raw = (s == "1" || s == "true") ? 1 : 0;
        return raw == 1 || s == "0" || s == "false";
    }
    if (t.code == kCodeReal)
        raw = float_bits(float(std::strtod(s.c_str(), &end)));
    else if (t.code == kCodeLreal)
        raw = double_bits(std::strtod(s.c_str(), &end));
    else if (t.code == kTypeTime)
        raw = uint64_t(std::llround(std::strtod(s.c_str(), &end) * double(kNsPerMs)));
    else if (is_signed(t))
        raw = uint64_t(std::strtoll(s.c_str(), &end, 0));
    else
        raw = std::strtoull(s.c_str(), &end, 0);
    return !s.empty() && end == s.c_str() + s.size();
}

// The value as plc-host's write takes it, read back exactly as `raw`.
std::string format_raw(const HostType &t, uint64_t raw) {
    char buf[64];
    if (t.code == kTypeBool) return raw ? "1" : "0";
    if (t.code == kTypeTime) return std::to_string(raw / kNsPerMs);
    if (is_signed(t)) return std::to_string(int64_t(raw));
    if (t.code == kCodeReal) {
        float f;
        const uint32_t w = uint32_t(raw);
        std::memcpy(&f, &w, 4);
        std::snprintf(buf, sizeof buf, "%.9g", double(f));
        return buf;
    }
    if (t.code == kCodeLreal) {
        double d;
        std::memcpy(&d, &raw, 8);
        std::snprintf(buf, sizeof buf, "%.17g", d);
        return buf;
    }
    return std::to_string(raw);
}

// Values that survive a text round trip exactly: REAL and LREAL in quarters
// and eighths, TIME in whole milliseconds below 49 days (32-bit milliseconds).
uint64_t random_raw(const HostType &t, std::mt19937_64 &rng) {
    const int w = t.bits;
    if (t.code == kTypeBool) return rng() & 1;
    if (t.code == kCodeReal) return float_bits(float(int64_t(rng() % 8000001) - 4000000) / 4.0f);
    if (t.code == kCodeLreal) {
        const int64_t span = int64_t(1) << 40;
        return double_bits(double(int64_t(rng() % uint64_t(2 * span + 1)) - span) / 8.0);
    }
    if (t.code == kTypeTime) {
        const uint64_t pick = rng() % 8;
        const uint64_t ms = pick == 0 ? 0 : pick < 3 ? rng() % 100000 : rng() % 4000000000u;
        return ms * kNsPerMs;
    }
    if (is_signed(t)) return uint64_t(int64_t(rng()) >> (64 - w));
    return w == 64 ? rng() : rng() >> (64 - w);
}

std::string random_text(uint32_t max_len, std::mt19937_64 &rng) {
    static const char kChars[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 _-";
    std::string s(rng() % (max_len + 1), ' ');
    for (char &c : s) c = kChars[rng() % (sizeof kChars - 1)];
    return s;
}

uint32_t element_index(const PlcRequest &r) { return r.address & 0xFFFFu; }

} // namespace

std::string render_time(uint64_t nanoseconds) {
    const uint32_t ms = uint32_t(nanoseconds / kNsPerMs);
    const uint32_t us = uint32_t((nanoseconds / 1000) % 1000);
    std::string out;
    char part[32];
    int parts = 0;
    const auto add = [&](uint32_t v, const char *unit) {
        std::snprintf(part, sizeof part, "%u%s", v, unit);
        out += part;
        ++parts;
    };
    if (ms > 86399999u) add(ms / 86400000u, "d");
    if ((ms / 3600000u) % 24) add((ms / 3600000u) % 24, "h");
    if ((ms / 60000u) % 60) add((ms / 60000u) % 60, "m");
    if ((ms / 1000u) % 60) add((ms / 1000u) % 60, "s");
    if (parts == 0 || ms % 1000) {
        std::snprintf(part, sizeof part, "%u.%03ums", ms % 1000, us);
        out += part;
    }
    return out;
}

bool Model::load(const std::string &tag_file, const std::string &initial_file, uint16_t device,
                 std::string &error) {
    if (!list_.load(tag_file)) {
        error = list_.refusal_text();
        return false;
    }
    for (const HostTag &tag : list_.tags()) {
        Variable v;
        v.tag = &tag;
        v.written = tag.name.rfind("Wr_", 0) == 0;
        v.raw.assign(size_t(tag.element_count()), 0);
        for (int64_t pos = 0; pos < tag.element_count(); ++pos) {
            PolledElement p;
            p.var = vars_.size();
            p.first_record = records_.size();
            host::HostError err;
            if (!host::plan_batch_element(device, tag, pos, p.element, err)) {
                error = err.message;
                return false;
            }
            records_.insert(records_.end(), p.element.records.begin(), p.element.records.end());
            polled_.push_back(std::move(p));
        }
        vars_.push_back(std::move(v));
    }
    expected_ = records_;
    std::ifstream in(initial_file);
    if (!in) {
        error = "cannot read " + initial_file;
        return false;
    }
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (!assign(line, error)) return false;
    }
    return true;
}

bool Model::assign(const std::string &line, std::string &error) {
    const size_t eq = line.find('=');
    host::ElementRun run;
    host::HostError err;
    if (eq == std::string::npos || !host::resolve_ref(list_, line.substr(0, eq), run, err)) {
        error = "initial value '" + line + "': " + (err.message.empty() ? "no '='" : err.message);
        return false;
    }
    Variable &v = vars_[size_t(run.tag - list_.tags().data())];
    const std::string value = line.substr(eq + 1);
    if (run.tag->type->code == kTypeString) {
        v.text = value;
        return true;
    }
    uint64_t raw = 0;
    if (!parse_raw(*run.tag->type, value, raw)) {
        error = "initial value '" + line + "': not understood";
        return false;
    }
    for (int64_t k = 0; k < run.count; ++k) v.raw[size_t(run.first + k)] = raw;
    return true;
}

void Model::expect(const PolledElement &p, PlcRequest *out) const {
    const Variable &v = vars_[p.var];
    const HostType &t = *v.tag->type;
    const uint64_t raw = v.raw[size_t(p.element.position)];
    const std::string time_text = t.code == kTypeTime ? render_time(raw) : std::string();
    const auto char_at = [](const std::string &s, size_t i) -> uint32_t {
        return i < s.size() ? uint8_t(s[i]) : 0;
    };
    for (size_t k = 0; k < p.element.records.size(); ++k) {
        const uint32_t e = element_index(p.element.records[k]);
        uint32_t r;
        if (t.code == kTypeTime)
            r = char_at(time_text, 2 * e) | char_at(time_text, 2 * e + 1) << 8;
        else if (t.code == kTypeString)
            r = char_at(v.text, e);
        else if (is_double_word_type(t.code))
            r = uint32_t(k == 0 ? raw : raw >> 32);
        else if (t.code == kTypeBool)
            r = raw != 0;
        else if (t.bits == 8)
            r = uint32_t(raw & 0xFF);
        else if (t.bits == 16)
            r = uint32_t(raw & 0xFFFF);
        else
            r = uint32_t(raw);
        out[k].result = r;
    }
}

std::vector<PlcRequest> &Model::prepare_poll() {
    for (const PolledElement &p : polled_) expect(p, &expected_[p.first_record]);
    for (size_t i = 0; i < records_.size(); ++i) {
        records_[i] = expected_[i];
        records_[i].result = ~expected_[i].result;
    }
    return records_;
}

size_t Model::check(bool check_written, std::vector<Mismatch> &out, size_t keep) const {
    size_t wrong = 0;
    for (const PolledElement &p : polled_) {
        if (vars_[p.var].written && !check_written) continue;
        const PlcRequest *got = &records_[p.first_record];
        const PlcRequest *want = &expected_[p.first_record];
        bool same = true;
        for (size_t k = 0; k < p.element.records.size(); ++k)
            same &= got[k].result == want[k].result;
        if (same) continue;
        if (++wrong > keep) continue;
        const host::HostTag &tag = *p.element.tag;
        out.push_back({p.element.label,
                       host::format_value(tag, host::decode_batch_element(p.element, want)),
                       host::format_value(tag, host::decode_batch_element(p.element, got))});
    }
    return wrong;
}

std::vector<size_t> Model::written_variables() const {
    std::vector<size_t> out;
    for (size_t i = 0; i < vars_.size(); ++i)
        if (vars_[i].written) out.push_back(i);
    return out;
}

host::ElementRun Model::change(size_t var, std::mt19937_64 &rng, std::vector<std::string> &texts) {
    Variable &v = vars_[var];
    const HostType &t = *v.tag->type;
    const int64_t n = v.tag->element_count();
    // A zero byte would end a batch run of byte-wide array elements early.
    const bool no_zero = v.tag->is_array() && t.bits == 8 && t.code != kTypeBool;
    if (t.code == kTypeString) {
        v.text = random_text(v.tag->str_len, rng);
        return whole(var, texts);
    }
    const bool all = n == 1 || rng() % 2 == 0;
    const int64_t first = all ? 0 : int64_t(rng() % uint64_t(n));
    for (int64_t k = first; k < (all ? n : first + 1); ++k) {
        uint64_t raw;
        do raw = random_raw(t, rng);
        while (no_zero && (raw & 0xFF) == 0);
        v.raw[size_t(k)] = raw;
    }
    if (all) return whole(var, texts);
    host::ElementRun run;
    run.tag = v.tag;
    run.first = first;
    run.count = 1;
    texts.assign(1, format_raw(t, v.raw[size_t(first)]));
    return run;
}

host::ElementRun Model::whole(size_t var, std::vector<std::string> &texts) const {
    const Variable &v = vars_[var];
    host::ElementRun run;
    run.tag = v.tag;
    run.whole = true;
    run.count = v.tag->element_count();
    texts.clear();
    if (v.tag->type->code == kTypeString)
        texts.push_back(v.text);
    else
        for (const uint64_t raw : v.raw) texts.push_back(format_raw(*v.tag->type, raw));
    return run;
}

} // namespace plc::soak
