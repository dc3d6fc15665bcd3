#include "sim/faults.h"

#include <cstdlib>
#include <limits>

namespace plc::sim {

namespace {

constexpr int64_t kDefaultDelayMs = 12000;
constexpr int64_t kDefaultGarbage = 64;
constexpr int64_t kDefaultHuge = 300000;
constexpr int64_t kMaxValue = 1 << 30;

enum class Value { None, Optional, Required };

struct ActionName {
    const char *name;
    Action action;
    Value value;
    int64_t default_value;
};

constexpr ActionName kActions[] = {
    {"no-reply", Action::NoReply, Value::None, 0},
    {"delay", Action::Delay, Value::Optional, kDefaultDelayMs},
    {"close", Action::Close, Value::None, 0},
    {"reset", Action::Reset, Value::None, 0},
    {"truncate", Action::Truncate, Value::Optional, -1},
    {"length", Action::Length, Value::Required, 0},
    {"session", Action::WrongSession, Value::None, 0},
    {"connection-id", Action::WrongConnection, Value::None, 0},
    {"sequence", Action::WrongSequence, Value::None, 0},
    {"service", Action::WrongService, Value::None, 0},
    {"status", Action::Status, Value::Required, 0},
    {"fewer-bytes", Action::FewerBytes, Value::Optional, 1},
    {"more-bytes", Action::MoreBytes, Value::Optional, 1},
    {"garbage", Action::Garbage, Value::Optional, kDefaultGarbage},
    {"huge", Action::Huge, Value::Optional, kDefaultHuge},
    {"refuse", Action::Refuse, Value::None, 0},
    {"duplicate", Action::Duplicate, Value::None, 0},
    {"restart", Action::Restart, Value::None, 0},
};

// Decimal or 0x hex, within [0, max].
std::optional<uint64_t> Number(std::string_view text, uint64_t max) {
    if (text.empty() || text.size() > 20) return std::nullopt;
    const std::string s(text);
    char *end = nullptr;
    const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    if (s[0] == '-' || s[0] == '+') return std::nullopt;
    const unsigned long long v = std::strtoull(s.c_str(), &end, hex ? 16 : 10);
    if (*end != '\0' || v > max) return std::nullopt;
    return v;
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (true) {
        const size_t at = text.find(separator);
        parts.push_back(text.substr(0, at));
        if (at == std::string_view::npos) return parts;
        text.remove_prefix(at + 1);
    }
}

// status=GG[:EEEE...]
bool ParseStatus(std::string_view value, Fault &f) {
    const auto words = Split(value, ':');
    const auto general = Number(words[0], 0xFF);
    if (!general || *general == 0) return false;
    f.general = uint8_t(*general);
    for (size_t i = 1; i < words.size(); ++i) {
        const auto word = Number(words[i], 0xFFFF);
        if (!word) return false;
        f.additional.push_back(uint16_t(*word));
    }
    return f.additional.size() <= std::numeric_limits<uint8_t>::max();
}

bool ParseValue(const ActionName &a, std::string_view value, Fault &f) {
    if (a.action == Action::Status) return ParseStatus(value, f);
    if (a.action == Action::Length && !value.empty() && (value[0] == '+' || value[0] == '-')) {
        const auto n = Number(value.substr(1), kMaxValue);
        f.relative = true;
        f.value = value[0] == '-' ? -int64_t(n.value_or(0)) : int64_t(n.value_or(0));
        return n.has_value();
    }
    const auto n = Number(value, kMaxValue);
    f.value = int64_t(n.value_or(0));
    return n.has_value();
}

// ACTION[=VALUE]
bool ParseAction(std::string_view text, Fault &f, std::string *error) {
    const size_t eq = text.find('=');
    const std::string_view name = text.substr(0, eq);
    for (const ActionName &a : kActions) {
        if (name != a.name) continue;
        f.action = a.action;
        f.value = a.default_value;
        if (eq == std::string_view::npos) {
            if (a.value != Value::Required) return true;
            *error = std::string(a.name) + " needs a value";
            return false;
        }
        if (a.value != Value::None && ParseValue(a, text.substr(eq + 1), f)) return true;
        *error = "bad value for " + std::string(a.name) + ": " + std::string(text.substr(eq + 1));
        return false;
    }
    *error = "unknown fault action: " + std::string(name);
    return false;
}

// after=N, times=N, p=P, seed=S
bool ParseCondition(std::string_view text, Fault &f, std::string *error) {
    const size_t eq = text.find('=');
    const std::string_view key = text.substr(0, eq);
    const std::string value(eq == std::string_view::npos ? "" : text.substr(eq + 1));
    bool ok = !value.empty();
    if (key == "after" || key == "times") {
        const auto n = Number(value, std::numeric_limits<uint32_t>::max());
        (key == "after" ? f.after : f.times) = n.value_or(0);
        ok = ok && n;
    } else if (key == "seed") {
        const auto n = Number(value, std::numeric_limits<uint32_t>::max());
        f.seed = uint32_t(n.value_or(0));
        ok = ok && n;
    } else if (key == "p") {
        char *end = nullptr;
        f.probability = std::strtod(value.c_str(), &end);
        ok = ok && *end == '\0' && f.probability >= 0.0 && f.probability <= 1.0;
    } else {
        *error = "unknown fault condition: " + std::string(key);
        return false;
    }
    if (!ok) *error = "bad fault condition: " + std::string(text);
    return ok;
}

} // namespace

std::optional<Fault> ParseFault(std::string_view text, std::string *error) {
    Fault f;
    f.text = std::string(text);
    const size_t colon = text.find(':');
    const auto kind = ParseKind(text.substr(0, colon));
    if (colon == std::string_view::npos || !kind) {
        *error = "a fault starts with a message kind and ':' (register, forward-open, "
                 "forward-close, resolve, read, write, connected, any): " +
                 f.text;
        return std::nullopt;
    }
    f.kind = *kind;
    const auto parts = Split(text.substr(colon + 1), ',');
    if (!ParseAction(parts[0], f, error)) return std::nullopt;
    for (size_t i = 1; i < parts.size(); ++i) {
        if (!ParseCondition(parts[i], f, error)) return std::nullopt;
    }
    if (f.action == Action::Refuse && f.kind != Kind::ForwardOpen) {
        *error = "refuse applies to forward-open only";
        return std::nullopt;
    }
    return f;
}

void FaultBook::Add(const Fault &fault) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(Entry{fault, std::mt19937(fault.seed)});
}

void FaultBook::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

void FaultBook::Clear(Kind kind) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end();)
        it = it->fault.kind == kind ? entries_.erase(it) : std::next(it);
}

std::string FaultBook::List() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string text;
    for (const Entry &e : entries_) {
        text += e.fault.text + " seen=" + std::to_string(e.seen) +
                " applied=" + std::to_string(e.applied) + "\n";
    }
    return text;
}

std::optional<Fault> FaultBook::Pick(Kinds kinds) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::optional<Fault> chosen;
    for (Entry &e : entries_) {
        if (!kinds.Has(e.fault.kind)) continue;
        ++e.seen;
        if (chosen || e.seen <= e.fault.after) continue;
        if (e.fault.times != 0 && e.applied >= e.fault.times) continue;
        if (e.fault.probability < 1.0 &&
            std::uniform_real_distribution<double>(0.0, 1.0)(e.random) >= e.fault.probability)
            continue;
        ++e.applied;
        chosen = e.fault;
        chosen->draw = uint32_t(e.random());
    }
    return chosen;
}

} // namespace plc::sim
