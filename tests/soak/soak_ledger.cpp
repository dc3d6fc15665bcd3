#include "soak_ledger.h"

#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <cstring>

namespace plc::soak {
namespace {

constexpr const char *kEntryNames[2] = {"wk_OMRON_plc_read", "wk_plc_write"};
constexpr size_t kMaxFaults = 4096;
constexpr size_t kMaxSamples = 4096;
constexpr uint64_t kShownWrongPolls = 20;
// Growth that counts as a leak when it is also steady (see grew_steadily).
constexpr double kRssMarginKb = 64;
constexpr double kHeapMarginKb = 16;

long rss_kb() {
    FILE *f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) return -1;
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, f))
        if (std::strncmp(line, "VmRSS:", 6) == 0) kb = std::strtol(line + 6, nullptr, 10);
    std::fclose(f);
    return kb;
}

int open_fds() {
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    int n = 0;
    while (const dirent *e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n - 1; // the directory being read
}

// Every sample after the first (taken before the driver warmed up) at least
// the one before, the last more than `margin` above the first of them, and
// growth in the second half of the run too: memory that settles after a
// while does not count, memory that keeps climbing does.
template <typename F>
bool grew_steadily(const std::vector<Sample> &s, F value, double margin) {
    if (s.size() < 4) return false;
    for (size_t i = 2; i < s.size(); ++i)
        if (value(s[i]) < value(s[i - 1])) return false;
    const double first = value(s[1]), middle = value(s[1 + (s.size() - 1) / 2]),
                 last = value(s.back());
    return last > first + margin && last > middle;
}

} // namespace

Ledger::Ledger(double bound_seconds, FILE *out) : bound_(bound_seconds), out_(out) {
    faults_.reserve(kMaxFaults);
    samples_.reserve(kMaxSamples);
}

void Ledger::call(Entry entry, int status, double start, double end) {
    CallStats &s = stats_[entry == Entry::Poll ? 0 : 1];
    ++s.calls;
    ++s.by_status[status == 0 ? 0 : status == 2 ? 1 : status == 3 ? 2 : 3];
    const double d = end - start;
    if (d > s.longest) {
        s.longest = d;
        s.longest_at = start;
    }
    if (d > bound_) {
        ++over_bound_;
        std::fprintf(out_,
                     "[soak %7.1f s] %s blocked %.2f s (status %d), beyond the %.2f s bound\n",
                     start, kEntryNames[entry == Entry::Poll ? 0 : 1], d, status, bound_);
    }
    if (status != 0) {
        if (outage_start_ < 0) outage_start_ = start;
    } else if (outage_start_ >= 0) {
        ++outages_;
        if (end - outage_start_ > longest_outage_) {
            longest_outage_ = end - outage_start_;
            longest_outage_at_ = outage_start_;
        }
        outage_start_ = -1;
    }
    if (entry == Entry::Poll) last_poll_ok_ = status == 0;
    if (!faults_.empty()) follow_fault(faults_.back(), entry, status, start, end);
}

void Ledger::follow_fault(Fault &f, Entry entry, int status, double start, double end) {
    if (status != 0 && end >= f.down_at && f.recovered_at < 0) {
        if (f.first_fail < 0) f.first_fail = start;
        if (entry == Entry::Poll) ++f.failed_polls;
    }
    // Recovered: the first good poll once the host has seen the fault (the
    // controller may answer a moment before the script notes it is back).
    if (entry != Entry::Poll || f.first_fail < 0 || f.recovered_at >= 0) return;
    if (f.up_at >= 0 && start >= f.up_at) ++f.polls_after_up;
    if (status == 0) f.recovered_at = end;
}

void Ledger::event(const std::string &line, double unix_start) {
    double t = 0;
    char what[16] = {}, kind[32] = {};
    if (std::sscanf(line.c_str(), "%lf %15s %31s", &t, what, kind) != 3) return;
    const double at = t - unix_start;
    if (std::strcmp(what, "down") == 0 && faults_.size() < kMaxFaults) {
        if (!faults_.empty() && faults_.back().recovered_at < 0) faults_.back().superseded = true;
        Fault f;
        f.kind = kind;
        f.down_at = at;
        faults_.push_back(f);
    } else if (std::strcmp(what, "up") == 0 && !faults_.empty()) {
        faults_.back().up_at = at;
    }
}

void Ledger::wrong_values(double at, uint64_t poll, size_t count,
                          const std::vector<Mismatch> &shown) {
    wrong_ += count;
    ++wrong_polls_;
    // A fault that sticks would repeat in every poll: the first polls tell it.
    if (wrong_polls_ > kShownWrongPolls) return;
    for (const Mismatch &m : shown)
        std::fprintf(out_, "[soak %7.1f s] WRONG VALUE in poll %llu: %s = %s, expected %s\n", at,
                     static_cast<unsigned long long>(poll), m.label.c_str(), m.got.c_str(),
                     m.expected.c_str());
    if (count > shown.size())
        std::fprintf(out_, "[soak %7.1f s] ... and %zu more wrong values in that poll\n", at,
                     count - shown.size());
}

void Ledger::sample(double at) {
    if (samples_.size() >= kMaxSamples) return;
    Sample s;
    s.at = at;
    s.rss_kb = rss_kb();
    s.heap_kb = long(mallinfo2().uordblks / 1024);
    s.fds = open_fds();
    samples_.push_back(s);
}

void Ledger::progress(double at) const {
    const CallStats &p = stats_[0];
    const Sample s = samples_.empty() ? Sample{} : samples_.back();
    std::fprintf(out_,
                 "[soak %7.1f s] polls %llu (failed %llu), writes %llu (failed %llu), faults %zu, "
                 "wrong values %llu, rss %ld kB, heap %ld kB, fds %d\n",
                 at, static_cast<unsigned long long>(p.calls),
                 static_cast<unsigned long long>(p.calls - p.by_status[0]),
                 static_cast<unsigned long long>(stats_[1].calls),
                 static_cast<unsigned long long>(stats_[1].calls - stats_[1].by_status[0]),
                 faults_.size(), static_cast<unsigned long long>(wrong_), s.rss_kb, s.heap_kb,
                 s.fds);
    std::fflush(out_);
}

void Ledger::print_faults() const {
    std::fprintf(out_, "\ncontroller faults (times in s since the host started; outage: first\n"
                       "failed call to first good poll; back: from the controller's return)\n");
    std::fprintf(out_, "  %3s %-5s %8s %7s %12s %9s %10s %7s\n", "#", "kind", "at", "away",
                 "failed polls", "outage", "polls-back", "s-back");
    for (size_t i = 0; i < faults_.size(); ++i) {
        const Fault &f = faults_[i];
        const bool back = f.recovered_at >= 0;
        std::fprintf(out_, "  %3zu %-5s %8.1f %7.1f %12d %9.2f %10d %7.2f%s\n", i + 1,
                     f.kind.c_str(), f.down_at, f.up_at >= 0 ? f.up_at - f.down_at : -1,
                     f.failed_polls, back ? f.recovered_at - f.first_fail : -1, f.polls_after_up,
                     back ? std::max(0.0, f.recovered_at - f.up_at) : -1,
                     f.superseded ? "  NOT RECOVERED before the next fault"
                     : back       ? ""
                                  : "  not recovered");
    }
}

void Ledger::print_memory() const {
    std::fprintf(out_, "\nhost process (sampled after a successful poll)\n");
    std::fprintf(out_, "  %8s %9s %9s %5s\n", "at s", "rss kB", "heap kB", "fds");
    for (const Sample &s : samples_)
        std::fprintf(out_, "  %8.1f %9ld %9ld %5d\n", s.at, s.rss_kb, s.heap_kb, s.fds);
}

Verdict Ledger::report(double seconds, size_t records) const {
    std::fprintf(out_, "\n==== soak report: %.0f s, %zu records per poll\n", seconds, records);
    std::fprintf(out_, "  %-18s %8s %8s %6s %6s %6s %9s %8s\n", "entry", "calls", "ok", "st 2",
                 "st 3", "other", "longest s", "at s");
    for (int e = 0; e < 2; ++e) {
        const CallStats &s = stats_[e];
        std::fprintf(out_, "  %-18s %8llu %8llu %6llu %6llu %6llu %9.3f %8.1f\n", kEntryNames[e],
                     static_cast<unsigned long long>(s.calls),
                     static_cast<unsigned long long>(s.by_status[0]),
                     static_cast<unsigned long long>(s.by_status[1]),
                     static_cast<unsigned long long>(s.by_status[2]),
                     static_cast<unsigned long long>(s.by_status[3]), s.longest, s.longest_at);
    }
    std::fprintf(out_, "  calls beyond the %.2f s bound: %llu\n", bound_,
                 static_cast<unsigned long long>(over_bound_));
    std::fprintf(out_,
                 "  outages (first failed call to next success): %llu, longest %.2f s at %.1f s\n",
                 static_cast<unsigned long long>(outages_), longest_outage_, longest_outage_at_);
    std::fprintf(out_,
                 "  good polls checked in full: %llu; before a rewrite, never-written "
                 "variables only: %llu; full rewrites after a failure: %llu\n",
                 static_cast<unsigned long long>(full_checks_),
                 static_cast<unsigned long long>(partial_checks_),
                 static_cast<unsigned long long>(rewrites_));
    std::fprintf(out_, "  wrong values: %llu (in %llu polls)\n",
                 static_cast<unsigned long long>(wrong_),
                 static_cast<unsigned long long>(wrong_polls_));
    print_faults();
    print_memory();

    Verdict v;
    const auto fail = [&v](const std::string &why) {
        v.failed = true;
        v.reasons.push_back(why);
    };
    if (wrong_) fail(std::to_string(wrong_) + " wrong values");
    if (over_bound_) fail(std::to_string(over_bound_) + " calls blocked beyond the bound");
    if (stats_[0].by_status[0] == 0)
        fail("no successful poll");
    else if (!last_poll_ok_)
        fail("the last poll failed: not recovered at the end");
    for (const Fault &f : faults_)
        if (f.superseded || f.recovered_at < 0) {
            fail("a controller fault was not recovered from before the next one (or the end)");
            break;
        }
    if (grew_steadily(
            samples_, [](const Sample &s) { return double(s.rss_kb); }, kRssMarginKb))
        fail("resident memory grew steadily");
    if (grew_steadily(
            samples_, [](const Sample &s) { return double(s.heap_kb); }, kHeapMarginKb))
        fail("heap in use grew steadily");
    if (grew_steadily(
            samples_, [](const Sample &s) { return double(s.fds); }, 0))
        fail("open descriptors grew steadily");
    if (samples_.size() < 4) v.reasons.push_back("(too few memory samples to judge growth)");
    std::fprintf(out_, "\nverdict: %s\n", v.failed ? "FAIL" : "PASS");
    for (const std::string &r : v.reasons) std::fprintf(out_, "  %s\n", r.c_str());
    std::fflush(out_);
    return v;
}

} // namespace plc::soak
