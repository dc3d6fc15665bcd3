// The soak's book-keeping: every driver call with its status and duration,
// the outages the host saw, how it came back after each controller fault that
// the soak script announced, its own memory and descriptors over time, and
// the wrong values. Sized once at start: the host's own memory must stay flat
// so that a growing driver shows.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "soak_model.h"

namespace plc::soak {

enum class Entry { Poll, Write };

struct CallStats {
    uint64_t calls = 0;
    uint64_t by_status[4] = {}; // 0, 2, 3, anything else
    double longest = 0;
    double longest_at = 0;
};

// One fault of the controller, as the soak script announced it.
struct Fault {
    std::string kind;         // kill, term, stop
    double down_at = 0;       // seconds since the host started
    double up_at = -1;        // back (started again, or continued)
    double first_fail = -1;   // the host's first failed call after down_at
    double recovered_at = -1; // the first good poll after first_fail
    int failed_polls = 0;
    int polls_after_up = 0; // polls begun after up_at, up to the first good one
    bool superseded = false;
};

struct Sample {
    double at = 0;
    long rss_kb = 0;
    long heap_kb = 0;
    int fds = 0;
};

struct Verdict {
    bool failed = false;
    std::vector<std::string> reasons;
};

class Ledger {
public:
    Ledger(double bound_seconds, FILE *out);

    // A driver call that began at `start` and ended at `end` (seconds since
    // the host started).
    void call(Entry entry, int status, double start, double end);
    // A line of the soak script's event file: "<unix time> down|up <kind>".
    void event(const std::string &line, double unix_start);
    // A good poll, checked in full or (before the rewrite that follows a
    // failure) for the never-written variables only.
    void checked(bool full) { ++(full ? full_checks_ : partial_checks_); }
    void rewrote() { ++rewrites_; }
    void wrong_values(double at, uint64_t poll, size_t count, const std::vector<Mismatch> &shown);
    void sample(double at);
    void progress(double at) const;

    Verdict report(double seconds, size_t records) const;

private:
    void follow_fault(Fault &f, Entry entry, int status, double start, double end);
    void print_faults() const;
    void print_memory() const;

    double bound_;
    FILE *out_;
    CallStats stats_[2];
    double outage_start_ = -1;
    uint64_t outages_ = 0;
    double longest_outage_ = 0;
    double longest_outage_at_ = 0;
    uint64_t over_bound_ = 0;
    uint64_t wrong_ = 0;
    uint64_t full_checks_ = 0;
    uint64_t partial_checks_ = 0;
    uint64_t rewrites_ = 0;
    uint64_t wrong_polls_ = 0;
    bool last_poll_ok_ = false;
    std::vector<Fault> faults_;
    std::vector<Sample> samples_;
};

} // namespace plc::soak
