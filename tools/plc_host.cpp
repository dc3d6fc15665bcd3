// plc-host: drives libplc_driver.so exactly as the operator-panel runtime does
// (dlopen, the C entry points, the host's request records) to read, write and
// poll controller variables by name from a shell.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tools/host_access.h"
#include "tools/host_driver.h"
#include "tools/host_tag_list.h"

#ifndef PLC_HOST_DEFAULT_LIBRARY
#define PLC_HOST_DEFAULT_LIBRARY "libplc_driver.so"
#endif

namespace plc::host {
namespace {

constexpr size_t kMaxBatchRecords = 100;
constexpr size_t kGuardBytes = 16;
constexpr uint8_t kGuardByte = 0xA5;

const char kUsage[] =
    R"(Usage:
  plc-host [OPTIONS] read  NAME[INDEX] [COUNT]
  plc-host [OPTIONS] write NAME[INDEX] VALUE...
  plc-host [OPTIONS] poll  NAME[INDEX]... [--interval MS] [--times N] [--file LIST]
  plc-host [OPTIONS] tags

Loads libplc_driver.so with dlopen as the panel runtime does, hands it the
controller address (wk_plc_init) and the device port (wk_plc_init2), and reads,
writes or polls controller variables named as in the tag list "PLC%X_%d.csv".

Options:
  --controller ADDR  controller IPv4 address (dotted), required
  --device N         device number: second number of the tag list name and
                     the device port handed to wk_plc_init2 (default 1)
  --dir DIR          directory holding the tag list; the tool changes into it
                     because the driver opens its tag list and its session
                     file in the working directory (default: current)
  --lib PATH         driver library (default: the one built with the tool)
  --json             machine output: one JSON object (per poll for poll)
  --quiet            throw the driver's own diagnostics away
  --driver-stdout    leave the driver's diagnostics on standard output, mixed
                     with the tool's output
  --interval MS      poll: time from the start of one poll to the next (1000)
  --times N          poll: number of polls (default: until interrupted)
  --file LIST        poll: read more names from LIST (one per line, # comments)
  --help             this text

Names:
  NAME               a scalar, a whole array, or a STRING
  NAME[I]            element I; one-dimensional arrays use the declared
                     subscript, multi-dimensional ones NAME[I,J] or NAME[I,J,K]
                     (or a single number: the linear position from 0)
  NAME[A..B]         the run of elements from A to B (same subscript forms)
  read COUNT         number of elements from NAME[I] (characters for a
                     STRING without a declared length)

Values are printed by type: integers, REAL/LREAL as floating point, LINT,
ULINT, LREAL and LWORD assembled from their two 32-bit words, STRING as text,
BOOL as true/false, TIME as a duration (1d2h3m4s5.000ms). TIME values and BOOL
array runs are read through the batch entry (wk_OMRON_plc_read); everything
else through the single read. The batch entry renders a TIME from its whole
milliseconds modulo 2^32 (about 49.7 days). A TIME is written as milliseconds
("1.5").

poll sends one record per element (two for the 64-bit types, one per
character of a STRING, 12 for a TIME), at most 100 records per batch call.
On a terminal it redraws a table in place; otherwise it prints one line per
poll; with --json one JSON object per poll. Every poll shows its duration
and the driver's status.

The driver prints its own diagnostics on standard output. The tool copies
them to standard error (or drops them with --quiet, or leaves them on standard
output with --driver-stdout), so that standard output carries only the
tool's own output. In the poll table they are shown under the table.

Exit status:
  0   success
  2   communication failure: driver status 2, or no connection after the
      bring-up (controller unreachable, no IPv4 address on eth0 or br0,
      session or connection refused)
  3   configuration or tag error (driver status 3 of a read or write, tag
      list missing or unusable, driver library not loadable)
  64  usage error (bad option, argument or value)
  65  unknown variable name or element index outside the variable
poll exits with the status of its last poll.
)";

struct Options {
    std::string command;
    std::vector<std::string> args;
    std::optional<uint32_t> controller;
    std::string controller_text;
    unsigned device = 1;
    std::string dir = ".";
    std::string lib;
    bool json = false;
    DriverOutput output = DriverOutput::Stderr;
    long interval_ms = 1000;
    long times = -1;  // forever
    std::vector<std::string> files;
};

volatile std::sig_atomic_t g_stop = 0;
void on_signal(int) { g_stop = 1; }

[[noreturn]] void die(int code, const std::string &message, bool json) {
    std::fflush(stdout);
    std::fprintf(stderr, "plc-host: %s\n", message.c_str());
    if (json) std::printf("{\"status\":%d,\"error\":%s}\n", code, json_string(message).c_str());
    std::fflush(stdout);
    std::exit(code);
}

bool parse_unsigned(const std::string &s, unsigned long max, unsigned long &out) {
    if (s.empty() || s[0] == '-') return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

Options parse_options(int argc, char **argv) {
    Options o;
    bool json = false;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--json") == 0) json = true;
    auto usage = [&](const std::string &m) -> void {
        die(kExitUsage, m + " (see plc-host --help)", json);
    };
    bool options_done = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (options_done || a.size() < 2 || a.compare(0, 2, "--") != 0) {
            if (o.command.empty()) o.command = a;
            else o.args.push_back(a);
            continue;
        }
        if (a == "--") { options_done = true; continue; }
        std::string value;
        bool inline_value = false;
        if (const size_t eq = a.find('='); eq != std::string::npos) {
            value = a.substr(eq + 1);
            a = a.substr(0, eq);
            inline_value = true;
        }
        auto need = [&]() -> std::string {
            if (inline_value) return value;
            if (i + 1 >= argc) usage(a + " needs a value");
            return argv[++i];
        };
        if (a == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--quiet") {
            o.output = DriverOutput::Discard;
        } else if (a == "--driver-stdout") {
            o.output = DriverOutput::Stdout;
        } else if (a == "--controller") {
            o.controller_text = need();
            in_addr addr{};
            if (inet_pton(AF_INET, o.controller_text.c_str(), &addr) != 1)
                usage("--controller needs a dotted IPv4 address, not '" + o.controller_text + "'");
            o.controller = ntohl(addr.s_addr);
        } else if (a == "--device") {
            unsigned long v = 0;
            if (!parse_unsigned(need(), 255, v)) usage("--device needs a number from 0 to 255");
            o.device = unsigned(v);
        } else if (a == "--dir") {
            o.dir = need();
        } else if (a == "--lib") {
            o.lib = need();
        } else if (a == "--interval") {
            unsigned long v = 0;
            if (!parse_unsigned(need(), 86400000, v)) usage("--interval needs milliseconds");
            o.interval_ms = long(v);
        } else if (a == "--times") {
            unsigned long v = 0;
            if (!parse_unsigned(need(), LONG_MAX, v) || v == 0) usage("--times needs a positive number");
            o.times = long(v);
        } else if (a == "--file") {
            o.files.push_back(need());
        } else {
            usage("unknown option " + a);
        }
    }
    if (o.command.empty()) usage("no command given");
    if (o.command != "read" && o.command != "write" && o.command != "poll" && o.command != "tags")
        usage("unknown command '" + o.command + "'");
    if (!o.controller) usage("--controller ADDR is required");
    if (o.command != "poll" && (!o.files.empty() || o.times != -1))
        usage("--file and --times belong to poll");
    return o;
}

std::string absolute_path(const std::string &p) {
    if (p.empty() || p[0] == '/') return p;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return p;
    return std::string(cwd) + "/" + p;
}

bool file_exists(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string default_library() {
    if (file_exists(PLC_HOST_DEFAULT_LIBRARY)) return PLC_HOST_DEFAULT_LIBRARY;
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n > 0) {
        exe[n] = '\0';
        std::string dir(exe);
        dir = dir.substr(0, dir.rfind('/'));
        for (const std::string &c : {dir + "/libplc_driver.so", dir + "/../libplc_driver.so"})
            if (file_exists(c)) return c;
    }
    return PLC_HOST_DEFAULT_LIBRARY;
}

const char *status_text(int status) {
    switch (status) {
    case 0: return "ok";
    case 2: return "communication failure";
    case 3: return "configuration or tag error";
    default: return "unexpected status";
    }
}

int exit_for_status(int status) {
    if (status == 0) return kExitOk;
    if (status == 3) return kExitConfig;
    return kExitComm;
}

double now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
}

std::string ms_text(double ms) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", ms);
    return buf;
}

// The driver and the tool share one process; this bundles what every command needs.
struct Host {
    Options opt;
    HostTagList tags;
    std::string tag_list;
    std::string lib_path;
    DriverLibrary lib;
    DriverOutput output_mode = DriverOutput::Stderr;
    std::unique_ptr<DriverOutputRedirect> out;
    DriverSettings settings{};  // the driver keeps a pointer to it: lives as long as the tool

    const DriverApi &api() const { return lib.api(); }

    // Driver calls with its output kept away from the tool's.
    template <typename F>
    auto call(F &&f) {
        return with_driver_output(*out, std::forward<F>(f));
    }

    // Loads the library, then identity, settings, bring-up; returns
    // wk_plc_init2's status. Everything the tool can check by itself has been
    // checked before, so a bad name never needs the library.
    int start() {
        std::string error;
        if (!lib.load(lib_path, error)) die(kExitConfig, error, opt.json);
        out = std::make_unique<DriverOutputRedirect>(output_mode);
        DriverInfo info{};
        call([&] { return api().driver_info(&info); });
        settings.ip_address = *opt.controller;
        call([&] { return api().init(&settings); });
        const uint8_t port = uint8_t(opt.device);
        return call([&] { return api().init2(0, 0, &port); });
    }

    // A failed bring-up leaves the driver without a connection, whatever the
    // reason (controller unreachable, no IPv4 address on eth0 or br0, session
    // or connection refused): for the caller that is a communication failure,
    // as it is when the reconnection of a poll fails.
    void start_or_die() {
        const int init = start();
        if (init != 0)
            die(kExitComm, "no connection to the controller at " + opt.controller_text +
                               " (bring-up: driver status " + std::to_string(init) + ")",
                opt.json);
    }

    // One batch call with guard records behind the caller's, so that a driver
    // writing past the records it was given is caught instead of trusted.
    int batch(PlcRequest *records, size_t n, bool &overrun) {
        std::vector<PlcRequest> copy(records, records + n);
        PlcRequest guard{};
        std::memset(&guard, kGuardByte, sizeof guard);
        copy.push_back(guard);
        copy.push_back(guard);
        const int status = call([&] { return api().batch_read(copy.data(), int32_t(n)); });
        overrun = std::memcmp(&copy[n], &guard, sizeof guard) != 0 ||
                  std::memcmp(&copy[n + 1], &guard, sizeof guard) != 0;
        std::copy(copy.begin(), copy.begin() + long(n), records);
        return status;
    }
};

ElementRun resolve_or_die(const Host &h, const std::string &text) {
    ElementRun run;
    HostError err;
    if (!resolve_ref(h.tags, text, run, err)) {
        if (err.exit_code == kExitUnknown && run.tag == nullptr)
            err.message += " (not in " + h.tag_list + ")";
        die(err.exit_code, err.message, h.opt.json);
    }
    return run;
}

std::string type_name(const HostTag &t) { return t.type ? t.type->name : "?"; }

// ---- read --------------------------------------------------------------------

void print_values(const Host &h, int status, const std::vector<std::string> &labels,
                  const std::vector<const HostTag *> &tags, const std::vector<Value> &values) {
    if (h.opt.json) {
        std::string s = "{\"status\":" + std::to_string(status) + ",\"values\":[";
        for (size_t i = 0; i < values.size(); ++i) {
            if (i) s += ',';
            s += "{\"name\":" + json_string(labels[i]) + ",\"type\":" +
                 json_string(type_name(*tags[i])) + ",\"value\":" + json_value(values[i]) + "}";
        }
        std::printf("%s]}\n", s.c_str());
        return;
    }
    for (size_t i = 0; i < values.size(); ++i)
        std::printf("%s = %s\n", labels[i].c_str(), format_value(values[i]).c_str());
}

int run_batch_elements(Host &h, const std::vector<BatchElement> &shown, std::vector<Value> &values,
                       int &calls_made);

int cmd_read(Host &h) {
    if (h.opt.args.empty() || h.opt.args.size() > 2) die(kExitUsage, "read takes NAME[INDEX] [COUNT]", h.opt.json);
    ElementRun run = resolve_or_die(h, h.opt.args[0]);
    HostError err;
    if (h.opt.args.size() == 2) {
        unsigned long n = 0;
        if (!parse_unsigned(h.opt.args[1], 65536, n) || n == 0)
            die(kExitUsage, "COUNT must be a number from 1 to 65536", h.opt.json);
        if (run.has_range) die(kExitUsage, "give either a range or a COUNT", h.opt.json);
        run.count = long(n);
    } else if (!run.whole && !run.has_range) {
        run.count = 1;
    }
    if (!check_run(run, err)) die(err.exit_code, err.message, h.opt.json);

    std::vector<std::string> labels;
    std::vector<const HostTag *> tags;
    std::vector<Value> values;

    if (read_through_batch(run)) {
        std::vector<BatchElement> elements;
        for (int64_t k = 0; k < run.count; ++k) {
            BatchElement e;
            if (!plan_batch_element(uint16_t(h.opt.device), *run.tag, run.first + k, e, err))
                die(err.exit_code, err.message, h.opt.json);
            elements.push_back(std::move(e));
        }
        h.start_or_die();
        int calls = 0;
        const int status = run_batch_elements(h, elements, values, calls);
        if (status != 0)
            die(exit_for_status(status), "read of " + h.opt.args[0] + " failed: driver status " +
                                             std::to_string(status) + " (" + status_text(status) + ")",
                h.opt.json);
        for (const BatchElement &e : elements) {
            labels.push_back(e.label);
            tags.push_back(e.tag);
        }
        print_values(h, 0, labels, tags, values);
        return kExitOk;
    }

    SingleReadPlan plan;
    if (!plan_single_read(run, plan, err)) die(err.exit_code, err.message, h.opt.json);
    h.start_or_die();

    std::vector<uint8_t> buffer(plan.buffer_bytes + kGuardBytes, kGuardByte);
    PlcRequest request = make_record(uint16_t(h.opt.device), *run.tag, plan.element_index);
    PlcData data{};
    data.count = plan.count;
    data.buffer = buffer.data();
    const int status = h.call([&] { return h.api().read(&request, &data); });
    for (size_t i = plan.buffer_bytes; i < buffer.size(); ++i)
        if (buffer[i] != kGuardByte)
            die(kExitComm, "the driver wrote past the " + std::to_string(plan.buffer_bytes) +
                               " bytes of the read buffer", h.opt.json);
    if (status != 0)
        die(exit_for_status(status), "read of " + h.opt.args[0] + " failed: driver status " +
                                         std::to_string(status) + " (" + status_text(status) + ")",
            h.opt.json);
    values = decode_single_read(run, buffer.data(), plan.buffer_bytes);
    if (values.size() == 1 && (run.tag->dims.empty())) {
        labels.push_back(run.tag->name);
        tags.push_back(run.tag);
    } else {
        for (int64_t k = 0; k < int64_t(values.size()); ++k) {
            labels.push_back(element_label(*run.tag, run.first + k));
            tags.push_back(run.tag);
        }
    }
    print_values(h, 0, labels, tags, values);
    return kExitOk;
}

// ---- write -------------------------------------------------------------------

int cmd_write(Host &h) {
    if (h.opt.args.size() < 2) die(kExitUsage, "write takes NAME[INDEX] VALUE...", h.opt.json);
    ElementRun run = resolve_or_die(h, h.opt.args[0]);
    const std::vector<std::string> values(h.opt.args.begin() + 1, h.opt.args.end());
    std::vector<WriteOp> ops;
    HostError err;
    if (!plan_write(run, values, ops, err)) die(err.exit_code, err.message, h.opt.json);

    h.start_or_die();
    std::string json = "{\"status\":";
    std::string written;
    int final_status = 0;
    for (WriteOp &op : ops) {
        PlcRequest request = make_record(uint16_t(h.opt.device), *run.tag, op.element_index);
        PlcData data{};
        data.count = op.count;
        data.buffer = op.buffer.data();
        const int status = h.call([&] { return h.api().write(&request, &data); });
        if (!written.empty()) written += ',';
        written += "{\"name\":" + json_string(op.label) + ",\"status\":" + std::to_string(status) + "}";
        if (status != 0) {
            final_status = status;
            std::fprintf(stderr, "plc-host: write of %s failed: driver status %d (%s)\n",
                         op.label.c_str(), status, status_text(status));
            break;
        }
        if (!h.opt.json) std::printf("wrote %s\n", op.label.c_str());
    }
    if (h.opt.json) std::printf("%s%d,\"written\":[%s]}\n", json.c_str(), final_status, written.c_str());
    return exit_for_status(final_status);
}

// ---- poll --------------------------------------------------------------------

// The batch read folds records for consecutive elements of one variable into
// one read item, and in an item of 8-bit elements it reads everything behind
// a zero byte as 0. Elements of one 8-bit array that stand together are
// therefore asked for from the highest down, which it never folds.
std::vector<size_t> send_order(const std::vector<BatchElement> &elements) {
    std::vector<size_t> order(elements.size());
    std::iota(order.begin(), order.end(), size_t(0));
    for (size_t i = 0; i < order.size();) {
        const HostTag *tag = elements[i].tag;
        size_t j = i + 1;
        if (tag->is_array() && tag->type->bits == 8)
            while (j < order.size() && elements[j].tag == tag) ++j;
        std::sort(order.begin() + long(i), order.begin() + long(j),
                  [&](size_t a, size_t b) { return elements[a].position > elements[b].position; });
        i = j;
    }
    return order;
}

int run_batch_elements(Host &h, const std::vector<BatchElement> &shown, std::vector<Value> &values,
                       int &calls_made) {
    const std::vector<size_t> order = send_order(shown);
    std::vector<BatchElement> elements;
    for (size_t k : order) elements.push_back(shown[k]);
    std::vector<PlcRequest> records;
    for (const BatchElement &e : elements) records.insert(records.end(), e.records.begin(), e.records.end());
    std::vector<char> ok(records.size(), 0);
    int status = 0;
    calls_made = 0;
    for (const BatchCall &c : split_batch(elements, kMaxBatchRecords)) {
        bool overrun = false;
        const int s = h.batch(&records[c.first_record], c.records, overrun);
        ++calls_made;
        if (overrun) {
            std::fprintf(stderr, "plc-host: the driver wrote past the %zu records of a batch call\n", c.records);
            if (status == 0) status = 2;
            continue;
        }
        if (s == 0) {
            std::fill(ok.begin() + long(c.first_record), ok.begin() + long(c.first_record + c.records), 1);
        } else if (status == 0) {
            status = s;
        }
        // A lost connection fails the rest of this poll too; leave the retry to the next poll.
        if (s == 2) break;
    }
    values.assign(shown.size(), Value::none());
    size_t at = 0;
    for (size_t i = 0; i < elements.size(); ++i) {
        const BatchElement &e = elements[i];
        bool all = true;
        for (size_t k = 0; k < e.records.size(); ++k) all = all && ok[at + k];
        if (all) values[order[i]] = decode_batch_element(e, &records[at]);
        at += e.records.size();
    }
    return status;
}

std::vector<std::string> poll_names(const Host &h) {
    std::vector<std::string> names = h.opt.args;
    for (const std::string &f : h.opt.files) {
        std::ifstream in(f);
        if (!in) die(kExitUsage, "cannot open name list " + f, h.opt.json);
        std::string line;
        while (std::getline(in, line)) {
            while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
                line.pop_back();
            size_t s = 0;
            while (s < line.size() && (line[s] == ' ' || line[s] == '\t')) ++s;
            line = line.substr(s);
            if (line.empty() || line[0] == '#') continue;
            names.push_back(line);
        }
    }
    return names;
}

int cmd_poll(Host &h, const std::vector<std::string> &names) {
    if (names.empty()) die(kExitUsage, "poll takes at least one NAME", h.opt.json);
    std::vector<BatchElement> elements;
    HostError err;
    for (const std::string &n : names) {
        const ElementRun run = resolve_or_die(h, n);
        for (int64_t k = 0; k < run.count; ++k) {
            BatchElement e;
            if (!plan_batch_element(uint16_t(h.opt.device), *run.tag, run.first + k, e, err))
                die(err.exit_code, err.message, h.opt.json);
            elements.push_back(std::move(e));
        }
    }
    const bool table = !h.opt.json && isatty(STDOUT_FILENO);
    const int init = h.start();
    std::deque<std::string> driver_lines;
    auto keep_driver_lines = [&] {
        if (!table) return;
        std::istringstream in(h.out->take_captured());
        std::string line;
        while (std::getline(in, line)) {
            while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
            if (line.empty()) continue;
            driver_lines.push_back(line);
            if (driver_lines.size() > 6) driver_lines.pop_front();
        }
    };
    keep_driver_lines();
    if (init != 0 && !table)
        std::fprintf(stderr,
                     "plc-host: no connection to the controller at %s (bring-up: driver status %d); "
                     "polling anyway\n",
                     h.opt.controller_text.c_str(), init);

    size_t width = 4;
    for (const BatchElement &e : elements) width = std::max(width, e.label.size());

    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    int last_status = 0;
    const double t0 = now_ms();
    for (long poll = 1; (h.opt.times < 0 || poll <= h.opt.times) && !g_stop; ++poll) {
        std::vector<Value> values;
        int calls = 0;
        const double start = now_ms();
        const int status = run_batch_elements(h, elements, values, calls);
        const double duration = now_ms() - start;
        keep_driver_lines();
        last_status = status;

        if (h.opt.json) {
            std::string s = "{\"poll\":" + std::to_string(poll) + ",\"status\":" + std::to_string(status) +
                            ",\"duration_ms\":" + ms_text(duration) + ",\"calls\":" +
                            std::to_string(calls) + ",\"values\":[";
            for (size_t i = 0; i < elements.size(); ++i) {
                if (i) s += ',';
                s += "{\"name\":" + json_string(elements[i].label) + ",\"type\":" +
                     json_string(type_name(*elements[i].tag)) + ",\"value\":" + json_value(values[i]) + "}";
            }
            std::printf("%s]}\n", s.c_str());
        } else if (table) {
            std::printf("\033[H\033[2J");
            std::printf("plc-host poll  %s  device %u  poll %ld  status %d (%s)  %s ms  every %ld ms\n\n",
                        h.opt.controller_text.c_str(), h.opt.device, poll, status, status_text(status),
                        ms_text(duration).c_str(), h.opt.interval_ms);
            std::printf("%-*s  %-13s  %s\n", int(width), "NAME", "TYPE", "VALUE");
            for (size_t i = 0; i < elements.size(); ++i)
                std::printf("%-*s  %-13s  %s\n", int(width), elements[i].label.c_str(),
                            type_name(*elements[i].tag).c_str(), format_value(values[i]).c_str());
            if (!driver_lines.empty()) {
                std::printf("\ndriver:\n");
                for (const std::string &l : driver_lines) std::printf("  %s\n", l.c_str());
            }
        } else {
            std::string s = "poll " + std::to_string(poll) + " status " + std::to_string(status) + " " +
                            ms_text(duration) + " ms:";
            for (size_t i = 0; i < elements.size(); ++i)
                s += " " + elements[i].label + "=" + format_value(values[i]);
            std::printf("%s\n", s.c_str());
        }
        std::fflush(stdout);

        if (h.opt.times >= 0 && poll >= h.opt.times) break;
        // Polls start on a fixed schedule; a slow poll is followed at once by the next.
        const double next = t0 + double(poll) * double(h.opt.interval_ms);
        double wait = next - now_ms();
        while (wait > 0 && !g_stop) {
            timespec ts{};
            ts.tv_sec = time_t(wait / 1000);
            ts.tv_nsec = long((wait - double(ts.tv_sec) * 1000) * 1e6);
            nanosleep(&ts, nullptr);
            wait = next - now_ms();
        }
    }
    return exit_for_status(last_status);
}

// ---- tags --------------------------------------------------------------------

int cmd_tags(const Host &h) {
    if (h.opt.json) std::printf("[");
    bool first = true;
    for (const HostTag &t : h.tags.tags()) {
        std::string shape;
        if (!t.dims.empty()) {
            shape = "[";
            for (size_t d = 0; d < t.dims.size(); ++d)
                shape += (d ? "," : "") + std::to_string(t.dims[d].lo) + ".." + std::to_string(t.dims[d].hi);
            shape += "]";
        }
        if (t.str_len) shape = "(" + std::to_string(t.str_len) + ")";
        if (h.opt.json) {
            std::printf("%s{\"name\":%s,\"type\":%s,\"shape\":%s,\"tag_id\":%u%s}", first ? "" : ",",
                        json_string(t.name).c_str(), json_string(type_name(t)).c_str(),
                        json_string(shape).c_str(), t.tag_id,
                        t.problem.empty() ? "" : (",\"problem\":" + json_string(t.problem)).c_str());
        } else {
            std::printf("%-8u %-13s %-16s %s%s\n", t.tag_id, type_name(t).c_str(), shape.c_str(),
                        t.name.c_str(), t.problem.empty() ? "" : ("   (" + t.problem + ")").c_str());
        }
        first = false;
    }
    if (h.opt.json) std::printf("]\n");
    return kExitOk;
}

int run(int argc, char **argv) {
    Host h;
    h.opt = parse_options(argc, argv);
    const bool json = h.opt.json;
    std::string lib = h.opt.lib.empty() ? default_library() : absolute_path(h.opt.lib);
    const std::vector<std::string> names =
        h.opt.command == "poll" ? poll_names(h) : std::vector<std::string>{};

    if (chdir(h.opt.dir.c_str()) != 0)
        die(kExitConfig, "cannot change into " + h.opt.dir + ": " + std::strerror(errno), json);
    h.tag_list = tag_list_file_name(*h.opt.controller, h.opt.device);
    if (auto e = h.tags.load(h.tag_list)) die(kExitConfig, *e, json);
    if (h.opt.command == "tags") return cmd_tags(h);

    h.lib_path = lib;
    const bool table = h.opt.command == "poll" && !json && isatty(STDOUT_FILENO);
    h.output_mode = h.opt.output;
    if (table && h.output_mode == DriverOutput::Stderr) h.output_mode = DriverOutput::Keep;

    if (h.opt.command == "read") return cmd_read(h);
    if (h.opt.command == "write") return cmd_write(h);
    return cmd_poll(h, names);
}

} // namespace
} // namespace plc::host

int main(int argc, char **argv) {
    try {
        return plc::host::run(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "plc-host: %s\n", e.what());
        return plc::host::kExitComm;
    }
}
