// plc-soak-host: a panel runtime in miniature for scripts/soak.sh. It loads
// libplc_driver.so with dlopen, polls every variable of the tag list with
// wk_OMRON_plc_read every interval, writes new values now and then with
// wk_plc_write, and checks every successful poll against what the controller
// must hold: the initial value of a variable it never wrote, the last value it
// wrote of the others. After any failed call the controller may have been
// restarted and forgotten the writes, so the host writes all its values again
// before it checks them. The driver's diagnostics stay on standard output; the
// soak's own lines and the final report go to standard error.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "plc_driver.h"
#include "soak_ledger.h"
#include "soak_model.h"

namespace {

using namespace plc;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kController = 0x7F000001; // 127.0.0.1, the namespace's loopback
constexpr uint16_t kDevice = 1;
constexpr uint8_t kDevicePort = 1;
constexpr size_t kMaxRecords = 100;
constexpr size_t kShownMismatches = 8;

struct Options {
    std::string lib, tags = "PLC7F000001_1.csv", initial, events;
    double seconds = 600, sample_seconds = 60, bound_seconds = 11;
    int interval_ms = 100, write_every = 10;
    uint64_t seed = 1;
};

struct Api {
    decltype(&wk_plc_driver_info) info;
    decltype(&wk_plc_init) init;
    decltype(&wk_plc_init2) init2;
    decltype(&wk_plc_write) write;
    decltype(&wk_OMRON_plc_read) batch_read;
};

bool load_api(const std::string &path, Api &api) {
    // RTLD_NOW, as a panel runtime loads its driver: a missing symbol fails here.
    void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (h == nullptr) {
        std::fprintf(stderr, "plc-soak-host: %s\n", dlerror());
        return false;
    }
    const auto sym = [h](const char *name) {
        void *p = dlsym(h, name);
        if (p == nullptr) std::fprintf(stderr, "plc-soak-host: no %s in the library\n", name);
        return p;
    };
    api.info = reinterpret_cast<decltype(api.info)>(sym("wk_plc_driver_info"));
    api.init = reinterpret_cast<decltype(api.init)>(sym("wk_plc_init"));
    api.init2 = reinterpret_cast<decltype(api.init2)>(sym("wk_plc_init2"));
    api.write = reinterpret_cast<decltype(api.write)>(sym("wk_plc_write"));
    api.batch_read = reinterpret_cast<decltype(api.batch_read)>(sym("wk_OMRON_plc_read"));
    return api.info && api.init && api.init2 && api.write && api.batch_read;
}

bool parse_options(int argc, char **argv, Options &o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string k = argv[i], v = argv[i + 1];
        if (k == "--lib")
            o.lib = v;
        else if (k == "--tags")
            o.tags = v;
        else if (k == "--initial")
            o.initial = v;
        else if (k == "--events")
            o.events = v;
        else if (k == "--seconds")
            o.seconds = std::atof(v.c_str());
        else if (k == "--sample-seconds")
            o.sample_seconds = std::atof(v.c_str());
        else if (k == "--bound-seconds")
            o.bound_seconds = std::atof(v.c_str());
        else if (k == "--interval-ms")
            o.interval_ms = std::atoi(v.c_str());
        else if (k == "--write-every")
            o.write_every = std::max(1, std::atoi(v.c_str()));
        else if (k == "--seed")
            o.seed = std::strtoull(v.c_str(), nullptr, 10);
        else
            return false;
    }
    return argc % 2 == 1 && !o.lib.empty() && !o.initial.empty();
}

class Soak {
public:
    Soak(const Options &o, const Api &api, soak::Model &model)
        : o_(o), api_(api), model_(model), ledger_(o.bound_seconds, stderr), rng_(o.seed) {}

    int run();

private:
    double now() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }
    void read_events();
    void poll();
    bool write(const host::ElementRun &run, const std::vector<std::string> &texts);
    void rewrite_all();
    void random_writes();

    const Options &o_;
    const Api &api_;
    soak::Model &model_;
    soak::Ledger ledger_;
    std::mt19937_64 rng_;
    Clock::time_point start_ = Clock::now();
    double unix_start_ = 0;
    int events_fd_ = -1;
    std::string events_pending_;
    uint64_t polls_ = 0;
    bool last_poll_ok_ = false;
    bool rewrite_needed_ = false;
    std::vector<soak::Mismatch> shown_;
    std::vector<std::string> texts_;
};

void Soak::read_events() {
    if (events_fd_ < 0) return;
    char buf[512];
    ssize_t n;
    while ((n = ::read(events_fd_, buf, sizeof buf)) > 0) events_pending_.append(buf, size_t(n));
    for (size_t nl; (nl = events_pending_.find('\n')) != std::string::npos;) {
        ledger_.event(events_pending_.substr(0, nl), unix_start_);
        events_pending_.erase(0, nl + 1);
    }
}

void Soak::poll() {
    std::vector<PlcRequest> &records = model_.prepare_poll();
    const double t0 = now();
    const int status = api_.batch_read(records.data(), int32_t(records.size()));
    const double t1 = now();
    ledger_.call(soak::Entry::Poll, status, t0, t1);
    ++polls_;
    last_poll_ok_ = status == 0;
    if (status != 0) {
        rewrite_needed_ = true;
        return;
    }
    shown_.clear();
    ledger_.checked(!rewrite_needed_);
    if (const size_t wrong = model_.check(!rewrite_needed_, shown_, kShownMismatches))
        ledger_.wrong_values(t1, polls_, wrong, shown_);
}

bool Soak::write(const host::ElementRun &run, const std::vector<std::string> &texts) {
    std::vector<host::WriteOp> ops;
    host::HostError err;
    if (!host::plan_write(run, texts, ops, err)) {
        std::fprintf(stderr, "plc-soak-host: cannot plan a write of %s: %s\n",
                     run.tag->name.c_str(), err.message.c_str());
        std::exit(2);
    }
    for (host::WriteOp &op : ops) {
        PlcRequest request = host::make_record(kDevice, *run.tag, op.element_index);
        PlcData data{op.count, op.buffer.data()};
        const double t0 = now();
        const int status = api_.write(&request, &data);
        ledger_.call(soak::Entry::Write, status, t0, now());
        if (status != 0) {
            rewrite_needed_ = true;
            return false;
        }
    }
    return true;
}

void Soak::rewrite_all() {
    for (const size_t var : model_.written_variables()) {
        const host::ElementRun run = model_.whole(var, texts_);
        if (!write(run, texts_)) return;
    }
    rewrite_needed_ = false;
    ledger_.rewrote();
}

void Soak::random_writes() {
    const std::vector<size_t> vars = model_.written_variables();
    for (uint64_t n = 1 + rng_() % 3; n > 0; --n) {
        const host::ElementRun run = model_.change(vars[rng_() % vars.size()], rng_, texts_);
        if (!write(run, texts_)) return;
    }
}

int Soak::run() {
    if (!o_.events.empty()) events_fd_ = ::open(o_.events.c_str(), O_RDONLY | O_CLOEXEC);
    unix_start_ =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    start_ = Clock::now();
    double next_sample = 0, next_progress = o_.sample_seconds;
    const auto interval = std::chrono::milliseconds(o_.interval_ms);
    auto tick = Clock::now();
    for (uint64_t i = 0; now() < o_.seconds; ++i) {
        read_events();
        poll();
        // Writes keep their schedule while the link is down, as an operator's
        // would, so the write entry's own recovery is exercised too.
        const bool write_due = i % uint64_t(o_.write_every) == 0;
        if (rewrite_needed_ && (last_poll_ok_ || write_due))
            rewrite_all();
        else if (!rewrite_needed_ && write_due)
            random_writes();
        // Samples are taken in the same state every time: connection up.
        if (last_poll_ok_ && now() >= next_sample) {
            ledger_.sample(now());
            while (next_sample <= now()) next_sample += o_.sample_seconds;
        }
        if (now() >= next_progress) {
            ledger_.progress(now());
            while (next_progress <= now()) next_progress += o_.sample_seconds;
        }
        tick += interval;
        if (tick < Clock::now()) tick = Clock::now(); // a late poll does not make a burst
        std::this_thread::sleep_until(tick);
    }
    read_events();
    ledger_.sample(now());
    return ledger_.report(now(), model_.polled_records()).failed ? 1 : 0;
}

} // namespace

int main(int argc, char **argv) {
    Options o;
    if (!parse_options(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: plc-soak-host --lib LIB --initial FILE [--tags FILE] [--events FILE]\n"
                     "         [--seconds N] [--sample-seconds N] [--bound-seconds N]\n"
                     "         [--interval-ms N] [--write-every POLLS] [--seed N]\n");
        return 64;
    }
    soak::Model model;
    std::string error;
    if (!model.load(o.tags, o.initial, kDevice, error)) {
        std::fprintf(stderr, "plc-soak-host: %s\n", error.c_str());
        return 2;
    }
    if (model.polled_records() > kMaxRecords) {
        std::fprintf(stderr, "plc-soak-host: %zu records, one batch read takes %zu\n",
                     model.polled_records(), kMaxRecords);
        return 2;
    }
    Api api{};
    if (!load_api(o.lib, api)) return 2;
    // The settings record must outlive every call: the driver keeps its address.
    static DriverSettings settings{};
    settings.ip_address = kController;
    DriverInfo info{};
    api.info(&info);
    api.init(&settings);
    const uint8_t port = kDevicePort;
    const int init2 = api.init2(0, 0, &port);
    std::fprintf(
        stderr,
        "plc-soak-host: driver %u.%u, wk_plc_init2 -> %d, %zu records per poll, seed %llu\n",
        info.first, info.second, init2, model.polled_records(),
        static_cast<unsigned long long>(o.seed));
    Soak soak(o, api, model);
    return soak.run();
}
