#include "sim/time_text.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace plc::sim {

namespace {

constexpr int64_t kUs = 1000;
constexpr int64_t kMs = 1000 * kUs;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kDay = 24 * kHour;

struct Unit {
    const char *name;
    int64_t ns;
};
// Two-letter units first, so that "ms" is never read as minutes and "s".
constexpr Unit kUnits[] = {{"ns", 1},      {"us", kUs},  {"ms", kMs}, {"s", kSecond},
                           {"m", kMinute}, {"h", kHour}, {"d", kDay}};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Leading digits with at most one '.', as a number; `s` moves past them.
std::optional<long double> TakeNumber(std::string_view &s) {
    size_t n = 0;
    bool dot = false;
    while (n < s.size() && (IsDigit(s[n]) || (s[n] == '.' && !dot))) dot |= s[n++] == '.';
    if (n == 0 || (n == 1 && dot)) return std::nullopt;
    const std::string digits(s.substr(0, n));
    s.remove_prefix(n);
    return std::strtold(digits.c_str(), nullptr);
}

std::optional<int64_t> TakeUnit(std::string_view &s) {
    for (const Unit &u : kUnits) {
        const std::string_view name(u.name);
        if (s.substr(0, name.size()) == name) {
            s.remove_prefix(name.size());
            return u.ns;
        }
    }
    return std::nullopt;
}

// Exactly `count` digits as a number; `s` moves past them.
std::optional<int> TakeDigits(std::string_view &s, size_t count) {
    if (s.size() < count) return std::nullopt;
    int v = 0;
    for (size_t i = 0; i < count; ++i) {
        if (!IsDigit(s[i])) return std::nullopt;
        v = v * 10 + (s[i] - '0');
    }
    s.remove_prefix(count);
    return v;
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian calendar).
int64_t DaysFromCivil(int64_t y, int m, int d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

struct Civil {
    int64_t year;
    int month;
    int day;
};

Civil CivilFromDays(int64_t z) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int day = int(doy - (153 * mp + 2) / 5 + 1);
    const int month = int(mp < 10 ? mp + 3 : mp - 9);
    return {yoe + era * 400 + (month <= 2), month, day};
}

int DaysInMonth(int64_t y, int m) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return m == 2 && leap ? 29 : kDays[m - 1];
}

// ".25" for 250 ms; nothing for a whole second.
std::string Fraction(int64_t ns) {
    if (ns == 0) return "";
    char buf[16];
    std::snprintf(buf, sizeof buf, ".%09lld", static_cast<long long>(ns));
    std::string s(buf);
    while (s.back() == '0') s.pop_back();
    return s;
}

// "13:45:30.25" for a time within one day.
std::string Clock(int64_t ns) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%02lld:%02lld:%02lld", static_cast<long long>(ns / kHour),
                  static_cast<long long>(ns / kMinute % 60),
                  static_cast<long long>(ns / kSecond % 60));
    return buf + Fraction(ns % kSecond);
}

} // namespace

std::optional<int64_t> ParseDuration(std::string_view text) {
    std::string_view s = text;
    const bool negative = !s.empty() && s[0] == '-';
    if (negative) s.remove_prefix(1);
    long double total = 0;
    bool first = true;
    do {
        const auto number = TakeNumber(s);
        if (!number) return std::nullopt;
        auto unit = TakeUnit(s);
        // A bare number is milliseconds, and only when it stands alone.
        if (!unit && first && s.empty()) unit = kMs;
        if (!unit) return std::nullopt;
        total += *number * static_cast<long double>(*unit);
        first = false;
    } while (!s.empty());
    total = std::round(negative ? -total : total);
    if (std::fabs(total) > 9.2e18L) return std::nullopt;
    return static_cast<int64_t>(total);
}

std::string FormatDuration(int64_t ns) {
    std::string out = ns < 0 ? "-" : "";
    uint64_t u = ns < 0 ? 0 - static_cast<uint64_t>(ns) : static_cast<uint64_t>(ns);
    for (const Unit &unit : {Unit{"d", kDay}, Unit{"h", kHour}, Unit{"m", kMinute}}) {
        const uint64_t n = u / uint64_t(unit.ns);
        if (n != 0) out += std::to_string(n) + unit.name;
        u %= uint64_t(unit.ns);
    }
    // Seconds with their fraction; below a second, the largest unit it reaches.
    const bool whole = out.size() > (ns < 0 ? 1u : 0u);
    if (u >= uint64_t(kSecond) || (whole && u != 0))
        out += std::to_string(u / kSecond) + Fraction(int64_t(u % kSecond)) + "s";
    else if (u >= uint64_t(kMs) || (u == 0 && !whole))
        out += std::to_string(u / kMs) + Fraction(int64_t(u % kMs) * 1000) + "ms";
    else if (u >= uint64_t(kUs))
        out += std::to_string(u / kUs) + Fraction(int64_t(u % kUs) * 1000000) + "us";
    else if (u != 0)
        out += std::to_string(u) + "ns";
    return out;
}

std::optional<int64_t> ParseTimeOfDay(std::string_view text) {
    std::string_view s = text;
    std::optional<int> hour = TakeDigits(s, 2);
    if (!hour) hour = TakeDigits(s, 1);
    if (!hour || s.empty() || s[0] != ':') return std::nullopt;
    s.remove_prefix(1);
    const auto minute = TakeDigits(s, 2);
    int second = 0;
    int64_t fraction = 0;
    if (minute && !s.empty() && s[0] == ':') {
        s.remove_prefix(1);
        const auto sec = TakeDigits(s, 2);
        if (!sec) return std::nullopt;
        second = *sec;
        if (!s.empty() && s[0] == '.' && s.size() >= 2 && s.size() <= 10) {
            s.remove_prefix(1);
            for (size_t i = 0; i < 9; ++i) {
                if (i < s.size() && !IsDigit(s[i])) return std::nullopt;
                fraction = fraction * 10 + (i < s.size() ? s[i] - '0' : 0);
            }
            s = {};
        }
    }
    if (!minute || !s.empty() || *hour > 23 || *minute > 59 || second > 59) return std::nullopt;
    return *hour * kHour + *minute * kMinute + second * kSecond + fraction;
}

std::optional<int64_t> ParseDateTime(std::string_view text) {
    std::string_view s = text;
    const auto year = TakeDigits(s, 4);
    if (!year || s.size() < 6 || s[0] != '-') return std::nullopt;
    s.remove_prefix(1);
    const auto month = TakeDigits(s, 2);
    if (!month || s.empty() || s[0] != '-') return std::nullopt;
    s.remove_prefix(1);
    const auto day = TakeDigits(s, 2);
    if (!day || *month < 1 || *month > 12 || *day < 1 || *day > DaysInMonth(*year, *month))
        return std::nullopt;
    int64_t clock = 0;
    if (!s.empty()) {
        if (s[0] != '-' && s[0] != 'T' && s[0] != '_') return std::nullopt;
        const auto tod = ParseTimeOfDay(s.substr(1));
        if (!tod) return std::nullopt;
        clock = *tod;
    }
    const int64_t days = DaysFromCivil(*year, *month, *day);
    int64_t ns = 0;
    if (__builtin_mul_overflow(days, kDay, &ns) || __builtin_add_overflow(ns, clock, &ns))
        return std::nullopt;
    return ns;
}

std::string FormatDateAndTime(int64_t ns) {
    int64_t days = ns / kDay;
    int64_t rest = ns % kDay;
    if (rest < 0) {
        rest += kDay;
        --days;
    }
    const Civil c = CivilFromDays(days);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04lld-%02d-%02d", static_cast<long long>(c.year), c.month,
                  c.day);
    return std::string(buf) + "-" + Clock(rest);
}

std::string FormatDate(int64_t ns) {
    const std::string text = FormatDateAndTime(ns);
    return ns % kDay == 0 ? text.substr(0, text.find('-', 5) + 3) : text;
}

std::string FormatTimeOfDay(int64_t ns) {
    return ns >= 0 && ns < kDay ? Clock(ns) : FormatDuration(ns);
}

} // namespace plc::sim
