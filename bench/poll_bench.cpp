// The everyday poll as the panel pays for it: libplc_driver.so loaded like the
// host loads it, wk_OMRON_plc_read over a real loopback connection.
//
//   bench_poll lists DIR
//       writes the generated tag lists next to bench/poll_tags.csv (device 1):
//       device 2, 5,000 DINT scalars; devices 3, 4, 5, lists of 1,000, 10,000
//       and 100,000 lines.
//   bench_poll record
//       bring-up and one poll of the 100 mixed records, checked, through
//       poll-replay --record.
//   bench_poll timed [--polls N] [--rounds R] [--floor RECORDING]
//       rounds of N polls of the prepared set; with --floor, each round also
//       times the floor: the recorded read requests of one poll sent by a bare
//       client loop on a connection of its own, against the same server.
//   bench_poll count GROUP [--polls K] [--reps N] [--stats FILE]
//       the regions whose instructions and system calls the tools count:
//       GROUP poll, records, handles, sets, single or taglist.
//
// Runs in a directory holding PLC7F000001_<device>.csv, with the controller
// (plc-sim or poll-replay) on 127.0.0.1:44818; bench/run_poll_bench.sh sets
// this up and prints the tables. `bench_poll sim-sets` prints the values
// plc-sim must be given.
//
// Results are lines "R|group|label|ops|wall us per op|allocations per op|
// exchanges per op|peak heap KiB|retained heap KiB" on standard output; what the
// driver prints goes to driver.log. Each region is bracketed by markers that
// callgrind (client requests), strace and the qemu plugin (insn_count_plugin.c)
// see: write(2) on descriptors -1 and -2 with the region number as the size.
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(label) ((void)(label))
#endif

#include "bench/taglist_gen.h"
#include "plc_driver.h"

// ------------------------------------------------------------ heap counting
// Every allocation of the process goes through the functions below, the
// driver's included: the calls are counted, and the live bytes with their
// peak. A sanitizer's allocator keeps its own (nothing is counted then).
namespace {
struct Heap {
    uint64_t calls = 0;
    long long live = 0;
    long long peak = 0;
};
Heap g_heap;
} // namespace

#ifndef __SANITIZE_ADDRESS__
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);
}

namespace {
void *noted(void *p) {
    if (p != nullptr) {
        ++g_heap.calls;
        g_heap.live += (long long)malloc_usable_size(p);
        g_heap.peak = std::max(g_heap.peak, g_heap.live);
    }
    return p;
}
} // namespace

extern "C" {
void *malloc(size_t n) { return noted(__libc_malloc(n)); }
void *calloc(size_t n, size_t size) { return noted(__libc_calloc(n, size)); }
void *memalign(size_t align, size_t n) { return noted(__libc_memalign(align, n)); }
void *aligned_alloc(size_t align, size_t n) { return noted(__libc_memalign(align, n)); }
int posix_memalign(void **p, size_t align, size_t n) {
    *p = noted(__libc_memalign(align, n));
    return *p != nullptr ? 0 : ENOMEM;
}
void free(void *p) {
    if (p != nullptr) g_heap.live -= (long long)malloc_usable_size(p);
    __libc_free(p);
}
void *realloc(void *p, size_t n) {
    const long long before = p != nullptr ? (long long)malloc_usable_size(p) : 0;
    void *q = __libc_realloc(p, n);
    if (q != nullptr) {
        g_heap.live -= before;
        noted(q);
    } else if (n == 0) {
        g_heap.live -= before;
    }
    return q;
}
}
#endif

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kLoopback = 0x7F000001; // the tag list names follow from it
constexpr uint16_t kMixedDevice = 1;       // bench/poll_tags.csv
constexpr uint16_t kScalarDevice = 2;      // 5,000 DINT scalars
constexpr uint32_t kScalars = 5000;
constexpr uint16_t kListDevices[] = {3, 4, 5};
constexpr size_t kListLines[] = {1000, 10000, 100000};

// ------------------------------------------------------------ the poll set
// One run of records: `count` consecutive elements of one tag, from `first`.
struct Run {
    uint32_t tag;
    uint16_t first;
    uint16_t count;
};

// What a panel screen typically polls (tag ids of bench/poll_tags.csv): scalars
// of every width, 64-bit values as word pairs, a TIME as text, a STRING's
// characters, array runs, BOOL array elements and indexed tags of four groups.
constexpr std::array kPollSet{
    // PartCounter .. BatchNo: DINT REAL BOOL INT UDINT UINT USINT SINT WORD DWORD BOOL BOOL DINT
    Run{0, 0, 1},
    Run{1, 0, 1},
    Run{2, 0, 1},
    Run{3, 0, 1},
    Run{4, 0, 1},
    Run{5, 0, 1},
    Run{6, 0, 1},
    Run{7, 0, 1},
    Run{8, 0, 1},
    Run{9, 0, 1},
    Run{10, 0, 1},
    Run{11, 0, 1},
    Run{12, 0, 1},
    // EnergyTotal LINT, FlowTotal LREAL, CycleTime TIME, OperatorName STRING[20]
    Run{13, 0, 2},
    Run{14, 0, 2},
    Run{15, 0, 4},
    Run{16, 0, 8},
    // SetPoints INT[0..9], MotorSpeed DINT[1..10], TempProfile REAL[2,5], FlowHistory
    // LREAL[10], Counters64 LINT[5], RawBytes USINT[16], DoorSwitch BOOL[8], WordTable UINT[2,8]
    Run{17, 0, 10},
    Run{18, 1, 10},
    Run{19, 0, 10},
    Run{20, 0, 8},
    Run{21, 0, 4},
    Run{22, 0, 4},
    Run{23, 0, 4},
    Run{24, 0, 3},
    // AlarmWord00..03 WORD, Zone01..04_Temp REAL, Tank1/2_Level LREAL, Valve01/02_Open
    // BOOL, Axis1_Targets DINT[0..3]
    Run{262144, 0, 1},
    Run{262145, 0, 1},
    Run{262146, 0, 1},
    Run{262147, 0, 1},
    Run{270336, 0, 1},
    Run{270337, 0, 1},
    Run{270338, 0, 1},
    Run{270339, 0, 1},
    Run{303104, 0, 2},
    Run{303105, 0, 2},
    Run{393216, 0, 1},
    Run{393217, 0, 1},
    Run{524288, 0, 4},
};

// Values the simulator is started with, so that the poll reads something.
constexpr std::array<std::string_view, 27> kSimSets{
    "PartCounter=123456",
    "LineSpeed=12.5",
    "Running=true",
    "MachineState=2",
    "ProductCount=4000000000",
    "RejectCount=17",
    "StationNo=7",
    "TempOffset=-5",
    "ControlWord=0xA55A",
    "AlarmMask=0xDEADBEEF",
    "EStopOk=true",
    "BatchNo=2024",
    "EnergyTotal=0x123456789AB",
    "FlowTotal=1234.5678",
    "CycleTime=1234.5",
    "OperatorName=Alice Smith",
    "SetPoints=150",
    "SetPoints[3]=-20",
    "MotorSpeed[10]=1750",
    "TempProfile=21.5",
    "FlowHistory=0.25",
    "RawBytes=0x41",
    "DoorSwitch[1]=true",
    "Zone01_Temp=180.5",
    "Tank1_Level=512.25",
    "Valve01_Open=true",
    "Axis1_Targets[3]=-100000",
};

uint32_t float_bits(float f) {
    uint32_t w = 0;
    std::memcpy(&w, &f, sizeof w);
    return w;
}

// Spot checks of a poll of the whole set: (tag, element, expected result).
struct Check {
    uint32_t tag;
    uint16_t element;
    uint32_t expected;
};
const std::array kChecks{
    Check{0, 0, 123456},
    Check{1, 0, float_bits(12.5f)},
    Check{2, 0, 1},
    Check{7, 0, 0xFB},
    Check{16, 0, 'A'},
    Check{16, 6, 'S'},
    Check{17, 3, 0xFFEC},
    Check{18, 10, 1750},
    Check{23, 1, 1},
    Check{270336, 0, float_bits(180.5f)},
    Check{524288, 3, uint32_t(-100000)},
};

PlcRequest record_for(uint16_t device, uint32_t tag, uint32_t element) {
    PlcRequest r{};
    r.device = device;
    r.tag_high = static_cast<uint8_t>(tag >> 16);
    r.address = (tag & 0xFFFFu) << 16 | (element & 0xFFFFu);
    r.count = 1;
    return r;
}

std::vector<PlcRequest> mixed_records(size_t n = 100) {
    std::vector<PlcRequest> records;
    for (const Run &run : kPollSet) {
        for (uint16_t k = 0; k < run.count && records.size() < n; ++k)
            records.push_back(record_for(kMixedDevice, run.tag, run.first + k));
    }
    return records;
}

// Ten scalars of device 2 from `first`.
std::vector<PlcRequest> scalar_records(uint32_t first) {
    std::vector<PlcRequest> records;
    for (uint32_t k = 0; k < 10; ++k) records.push_back(record_for(kScalarDevice, first + k, 0));
    return records;
}

bool values_ok(const std::vector<PlcRequest> &records, std::FILE *err) {
    for (const Check &c : kChecks) {
        for (const PlcRequest &r : records) {
            const uint32_t id = uint32_t(r.tag_high) << 16 | r.address >> 16;
            if (id != c.tag || (r.address & 0xFFFFu) != c.element) continue;
            if (r.result != c.expected) {
                std::fprintf(err, "bench_poll: tag %u element %u read 0x%X, expected 0x%X\n", c.tag,
                             c.element, r.result, c.expected);
                return false;
            }
        }
    }
    return true;
}

int32_t poll(std::vector<PlcRequest> &records) {
    return wk_OMRON_plc_read(records.data(), int32_t(records.size()));
}

// ------------------------------------------------------------ report and regions
std::FILE *g_out = stdout;

int fail(const char *what) {
    std::fprintf(stderr, "bench_poll: %s\n", what);
    return 1;
}

// The driver writes its diagnostics to standard output; they go to driver.log
// and the report to the original standard output.
void divert_driver_output() {
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    std::FILE *report = saved >= 0 ? fdopen(saved, "w") : nullptr;
    if (report == nullptr) return;
    if (std::freopen("driver.log", "w", stdout) == nullptr) std::abort();
    std::setvbuf(report, nullptr, _IOLBF, 0);
    g_out = report;
}

// The simulator's published counter `key` ("key value" lines), 0 without it.
uint64_t sim_counter(const std::string &path, const char *key) {
    if (path.empty()) return 0;
    std::ifstream in(path);
    std::string k;
    uint64_t v = 0;
    while (in >> k >> v) {
        if (k == key) return v;
    }
    return 0;
}

// A region's markers: write(2) calls that fail at once on descriptors -1
// (begin) and -2 (end), carrying the region number as their size.
constexpr char kMarkerText[] = "bench_poll region marker";
void marker(long fd, int id) { syscall(SYS_write, fd, kMarkerText, long(id)); }

struct Regions {
    std::string group;
    std::string stats; // plc-sim's counter file, for the exchanges
    int next_id = 0;

    // Runs `body` (which performs `ops` operations and returns false on a
    // failure) as one marked region and reports it.
    template <typename Body>
    bool run(const std::string &label, int ops, Body &&body) {
        const int id = next_id++;
        const uint64_t messages = sim_counter(stats, "messages");
        const std::string dump = "r" + std::to_string(id);
        const Heap heap0 = g_heap;
        g_heap.peak = g_heap.live;
        const auto t0 = Clock::now();
        CALLGRIND_START_INSTRUMENTATION;
        CALLGRIND_ZERO_STATS;
        marker(-1, id);
        const bool ok = body();
        marker(-2, id);
        CALLGRIND_DUMP_STATS_AT(dump.c_str());
        CALLGRIND_STOP_INSTRUMENTATION;
        const auto t1 = Clock::now();
        const Heap heap1 = g_heap;
        const double exchanges = double(sim_counter(stats, "messages") - messages) / double(ops);
        std::fprintf(g_out, "R|%s|%s|%d|%.2f|%.2f|%.2f|%.1f|%.1f\n", group.c_str(), label.c_str(),
                     ops, std::chrono::duration<double, std::micro>(t1 - t0).count() / ops,
                     double(heap1.calls - heap0.calls) / ops, stats.empty() ? -1.0 : exchanges,
                     double(heap1.peak - heap0.live) / 1024,
                     double(heap1.live - heap0.live) / 1024);
        g_heap.peak = std::max(heap0.peak, heap1.peak);
        if (!ok) std::fprintf(stderr, "bench_poll: region '%s' failed\n", label.c_str());
        return ok;
    }
};

// ------------------------------------------------------------ bring-up
DriverSettings g_settings{};

bool bring_up(bool connect) {
    DriverInfo info{};
    wk_plc_driver_info(&info);
    g_settings.ip_address = kLoopback;
    if (wk_plc_init(&g_settings) != 0) return false;
    const uint8_t device_port = 1;
    return !connect || wk_plc_init2(0, 0, &device_port) == 0;
}

// Builds (and keeps) a device's tag list without any traffic: a batch naming a
// tag id beyond every list is refused after the list is read.
bool load_tag_list(uint16_t device) {
    PlcRequest r{};
    r.device = device;
    r.tag_high = 0xFF;
    r.address = 0xFFFF0000u;
    r.count = 1;
    return wk_OMRON_plc_read(&r, 1) == 3;
}

bool single_read(uint16_t device, uint32_t tag, uint32_t element, uint32_t count, void *buffer) {
    PlcRequest r = record_for(device, tag, element);
    r.count = 0;
    PlcData d{};
    d.count = count;
    d.buffer = buffer;
    return wk_plc_read(&r, &d) == 0;
}

// ------------------------------------------------------------ the floor
// The bare client: the recorded read requests of one poll, sent one after the
// other with the next sequence count, each reply received whole.
class Floor {
public:
    bool load(const char *recording) {
        std::FILE *f = std::fopen(recording, "rb");
        if (f == nullptr) return false;
        Bytes request, reply;
        while (get_block(f, request) && get_block(f, reply)) {
            // SendUnitData requests of the read service (0x55).
            if (request.size() > 46 && request[0] == 0x70 && request[1] == 0 && request[46] == 0x55)
                requests_.push_back(request);
        }
        std::fclose(f);
        return !requests_.empty();
    }
    bool connect() {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(44818);
        a.sin_addr.s_addr = htonl(kLoopback);
        return fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    }
    size_t exchanges() const { return requests_.size(); }
    bool poll() {
        for (Bytes &m : requests_) {
            m[44] = uint8_t(sequence_);
            m[45] = uint8_t(sequence_ >> 8);
            ++sequence_;
            if (::send(fd_, m.data(), m.size(), MSG_NOSIGNAL) != ssize_t(m.size())) return false;
            size_t got = 0, want = 24;
            while (got < want) {
                const ssize_t n = ::recv(fd_, buffer_.data() + got, buffer_.size() - got, 0);
                if (n <= 0) return false;
                got += size_t(n);
                if (got >= 24) want = 24 + size_t(buffer_[2] | buffer_[3] << 8);
            }
        }
        return true;
    }

private:
    static bool get_block(std::FILE *f, Bytes &b) {
        uint8_t size[4];
        if (std::fread(size, 1, 4, f) != 4) return false;
        b.resize(size_t(size[0] | size[1] << 8 | size[2] << 16 | uint32_t(size[3]) << 24));
        return std::fread(b.data(), 1, b.size(), f) == b.size();
    }
    std::vector<Bytes> requests_;
    Bytes buffer_ = Bytes(65536);
    int fd_ = -1;
    uint16_t sequence_ = 0;
};

// ------------------------------------------------------------ timing
double thread_cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// Each call's wall time, and the CPU time of all of them.
struct Side {
    std::vector<double> each;
    double cpu = 0;
    double sum() const {
        double s = 0;
        for (double w : each) s += w;
        return s;
    }
};

template <typename Op>
bool timed_call(Op &&op, Side &side) {
    const double c0 = thread_cpu_seconds();
    const auto t0 = Clock::now();
    const bool ok = op();
    const auto t1 = Clock::now();
    side.cpu += thread_cpu_seconds() - c0;
    side.each.push_back(std::chrono::duration<double>(t1 - t0).count());
    return ok;
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

// Rounds of `polls` driver polls, each followed by a floor poll when there is
// a recording: both see the same moments of a shared machine, and a round's
// ratio is the sum of its driver polls' wall times over its floor polls'.
int timed(int polls, int rounds, const char *recording) {
    if (!bring_up(true)) return fail("bring-up failed (is the controller listening?)");
    std::vector<PlcRequest> records = mixed_records();
    if (poll(records) != 0) return fail("the first poll (with preparation) did not return 0");
    if (poll(records) != 0 || !values_ok(records, stderr))
        return fail("the poll of the prepared set is not right");
    Floor floor;
    const bool with_floor = recording != nullptr;
    if (with_floor && (!floor.load(recording) || !floor.connect()))
        return fail("no floor: the recording has no read requests, or no connection");
    const auto driver_poll = [&records] { return poll(records) == 0; };
    const auto floor_poll = [&floor] { return floor.poll(); };
    for (int i = 0; i < 200; ++i) {
        if (!driver_poll() || (with_floor && !floor_poll())) return fail("warm-up failed");
    }

    std::fprintf(g_out, "round  driver us/poll  %s  driver CPU us/poll  %s\n",
                 with_floor ? "floor us/poll  ratio" : "", with_floor ? "floor CPU us/poll" : "");
    std::vector<double> driver_wall, floor_wall, ratios, driver_each, floor_each;
    double driver_cpu = 0, floor_cpu = 0;
    uint64_t allocations = 0;
    for (int r = 1; r <= rounds; ++r) {
        Side d, f;
        d.each.reserve(size_t(polls));
        f.each.reserve(size_t(polls));
        for (int i = 0; i < polls; ++i) {
            const uint64_t calls = g_heap.calls;
            if (!timed_call(driver_poll, d)) return fail("a timed poll did not return 0");
            allocations += g_heap.calls - calls;
            if (with_floor && !timed_call(floor_poll, f)) return fail("a floor exchange failed");
        }
        driver_wall.push_back(d.sum() / polls);
        driver_each.insert(driver_each.end(), d.each.begin(), d.each.end());
        driver_cpu += d.cpu;
        std::fprintf(g_out, "%5d  %14.1f", r, d.sum() / polls * 1e6);
        if (with_floor) {
            floor_wall.push_back(f.sum() / polls);
            floor_each.insert(floor_each.end(), f.each.begin(), f.each.end());
            floor_cpu += f.cpu;
            ratios.push_back(d.sum() / f.sum());
            std::fprintf(g_out, "  %13.1f  %5.3f", f.sum() / polls * 1e6, ratios.back());
        }
        std::fprintf(g_out, "  %17.1f", d.cpu / polls * 1e6);
        if (with_floor) std::fprintf(g_out, "  %17.1f", f.cpu / polls * 1e6);
        std::fprintf(g_out, "\n");
    }
    if (!values_ok(records, stderr)) return fail("the last poll read wrong values");
    const double n = double(polls) * rounds;
    std::fprintf(g_out, "\n%d rounds of %d polls of 100 records (wall: median of the rounds)\n",
                 rounds, polls);
    std::fprintf(g_out, "  S|wall us/poll|%.1f|p50 %.1f, p99 %.1f\n",
                 percentile(driver_wall, 0.5) * 1e6, percentile(driver_each, 0.5) * 1e6,
                 percentile(driver_each, 0.99) * 1e6);
    std::fprintf(g_out, "  S|CPU us/poll|%.1f|user and system, this thread\n",
                 driver_cpu / n * 1e6);
    std::fprintf(g_out, "  S|heap allocations per poll|%.3f|%llu in %.0f polls\n",
                 double(allocations) / n, (unsigned long long)allocations, n);
    if (with_floor) {
        std::fprintf(g_out, "  S|exchanges per poll|%zu|the recorded poll's read requests\n",
                     floor.exchanges());
        std::fprintf(g_out, "  S|floor us/poll|%.1f|p50 %.1f, p99 %.1f\n",
                     percentile(floor_wall, 0.5) * 1e6, percentile(floor_each, 0.5) * 1e6,
                     percentile(floor_each, 0.99) * 1e6);
        std::fprintf(g_out, "  S|floor CPU us/poll|%.1f|\n", floor_cpu / n * 1e6);
        std::fprintf(g_out,
                     "  S|ratio wall/floor|%.3f|median of the rounds' ratios (%.3f to %.3f); "
                     "of the p50s %.3f\n",
                     percentile(ratios, 0.5), percentile(ratios, 0), percentile(ratios, 1),
                     percentile(driver_each, 0.5) / percentile(floor_each, 0.5));
    }
    return 0;
}

// ------------------------------------------------------------ counted regions
int count(const std::string &group, int polls, int reps, const std::string &stats) {
    Regions regions{group, stats};
    const auto polls_of = [](std::vector<PlcRequest> &records, int n) {
        return [&records, n] {
            for (int i = 0; i < n; ++i) {
                if (poll(records) != 0) return false;
            }
            return true;
        };
    };

    if (group == "taglist") {
        // The loads before the counted one warm the file cache and the heap.
        for (size_t k = 0; k < std::size(kListDevices); ++k) {
            for (int rep = 1; rep < reps; ++rep) {
                if (!bring_up(false) || !load_tag_list(kListDevices[k]))
                    return fail("a load failed");
            }
            if (!bring_up(false)) return fail("wk_plc_init failed");
            const std::string label = "tag list of " + std::to_string(kListLines[k]) + " lines";
            if (!regions.run(label, 1, [k] { return load_tag_list(kListDevices[k]); })) return 1;
        }
        return 0;
    }

    if (!bring_up(true)) return fail("bring-up failed (is plc-sim running?)");
    if (group == "poll" || group == "records") {
        if (!load_tag_list(kMixedDevice)) return fail("the tag list of device 1 did not load");
        std::vector<PlcRequest> all = mixed_records();
        if (group == "poll") {
            if (!regions.run("first poll of a new set, 100 records (resolution)", 1,
                             [&all] { return poll(all) == 0; }) ||
                !values_ok(all, stderr))
                return 1;
            if (!polls_of(all, 5)() || !values_ok(all, stderr)) return fail("polls failed");
            return regions.run("prepared poll, 100 records", polls, polls_of(all, polls)) ? 0 : 1;
        }
        for (size_t n : {1, 10, 50, 100}) {
            std::vector<PlcRequest> records = mixed_records(n);
            if (!polls_of(records, 3)()) return fail("polls failed");
            const std::string label = "prepared poll, " + std::to_string(n) + " records";
            if (!regions.run(label, polls, polls_of(records, polls))) return 1;
        }
        return 0;
    }
    if (group == "handles") {
        std::vector<PlcRequest> set = scalar_records(0);
        if (!polls_of(set, 3)()) return fail("polls failed");
        uint32_t resolved = 10;
        uint8_t value[4];
        for (uint32_t target : {10u, 500u, kScalars}) {
            for (; resolved < target; ++resolved) {
                if (!single_read(kScalarDevice, resolved, 0, 1, value))
                    return fail("a single read failed");
            }
            if (!polls_of(set, 3)()) return fail("polls failed");
            const std::string label = "poll of 10 scalars, " + std::to_string(target) + " resolved";
            if (!regions.run(label, polls, polls_of(set, polls))) return 1;
        }
        return 0;
    }
    if (group == "sets") {
        std::vector<std::vector<PlcRequest>> sets;
        for (size_t n : {1, 2, 20}) {
            while (sets.size() < n) {
                sets.push_back(scalar_records(uint32_t(sets.size()) * 10));
                if (!polls_of(sets.back(), 3)()) return fail("polls failed");
            }
            const int ops = polls / int(n) * int(n);
            const std::string label = "poll of 10 scalars, " + std::to_string(n) +
                                      (n == 1 ? " set" : " alternating sets");
            if (!regions.run(label, ops, [&sets, n, ops] {
                    for (int i = 0; i < ops; ++i) {
                        if (poll(sets[size_t(i) % n]) != 0) return false;
                    }
                    return true;
                }))
                return 1;
        }
        return 0;
    }
    if (group == "single") {
        // PartCounter (DINT), MotorSpeed (DINT[1..10]), SetPoints (INT[0..9]).
        std::array<uint8_t, 64> buffer{};
        const auto reads = [&buffer](uint32_t tag, uint32_t element, uint32_t n, int times) {
            return [&buffer, tag, element, n, times] {
                for (int i = 0; i < times; ++i) {
                    if (!single_read(kMixedDevice, tag, element, n, buffer.data())) return false;
                }
                return true;
            };
        };
        if (!load_tag_list(kMixedDevice)) return fail("the tag list of device 1 did not load");
        if (!regions.run("single read, first (resolution), DINT", 1, reads(18, 1, 1, 1)) ||
            !reads(0, 0, 1, 3)() || !reads(17, 0, 10, 3)())
            return 1;
        if (!regions.run("single read, DINT", polls, reads(0, 0, 1, polls)) ||
            !regions.run("single read, 10 INT elements", polls, reads(17, 0, 10, polls)))
            return 1;
        const auto writes = [](int times) {
            return [times] {
                uint8_t value[4] = {0x40, 0xE2, 0x01, 0x00}; // 123456, as plc-sim holds it
                for (int i = 0; i < times; ++i) {
                    PlcRequest r = record_for(kMixedDevice, 0, 0);
                    PlcData d{};
                    d.count = 1;
                    d.buffer = value;
                    if (wk_plc_write(&r, &d) != 0) return false;
                }
                return true;
            };
        };
        if (!writes(3)()) return fail("writes failed");
        return regions.run("single write, DINT", polls, writes(polls)) ? 0 : 1;
    }
    return fail("unknown group (poll, records, handles, sets, single, taglist)");
}

int write_lists(const std::string &dir) {
    {
        std::ofstream out(dir + "/PLC7F000001_2.csv", std::ios::binary);
        for (uint32_t i = 0; i < kScalars; ++i)
            out << "Scalar" << i << ",DINT,,,,,BASIC," << i << "\n";
        if (!out) return fail("cannot write the list of device 2");
    }
    for (size_t k = 0; k < std::size(kListDevices); ++k) {
        plc::bench::TagListShape shape;
        shape.plain = kListLines[k] * 9 / 10;
        shape.groups = kListLines[k] >= 100000 ? 40 : 4;
        shape.group_size = kListLines[k] / 10 / shape.groups;
        std::ofstream out(dir + "/PLC7F000001_" + std::to_string(kListDevices[k]) + ".csv",
                          std::ios::binary);
        if (!plc::bench::write_tag_list(out, shape) || !out) return fail("cannot write a list");
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    std::string arg1 = argc > 2 && argv[2][0] != '-' ? argv[2] : "";
    int polls = 1000, rounds = 9, reps = 1;
    const char *recording = nullptr;
    std::string stats;
    for (int i = arg1.empty() ? 2 : 3; i + 1 < argc; i += 2) {
        const std::string_view opt = argv[i];
        if (opt == "--polls")
            polls = std::max(1, std::atoi(argv[i + 1]));
        else if (opt == "--rounds")
            rounds = std::max(1, std::atoi(argv[i + 1]));
        else if (opt == "--reps")
            reps = std::max(1, std::atoi(argv[i + 1]));
        else if (opt == "--floor")
            recording = argv[i + 1];
        else if (opt == "--stats")
            stats = argv[i + 1];
        else
            return fail("unknown option");
    }
    if (mode == "sim-sets") {
        for (const auto set : kSimSets) std::printf("%.*s\n", int(set.size()), set.data());
        return 0;
    }
    if (mode == "lists" && !arg1.empty()) return write_lists(arg1);
    divert_driver_output();
    if (mode == "record") {
        std::vector<PlcRequest> records = mixed_records();
        if (!bring_up(true) || poll(records) != 0 || !values_ok(records, stderr))
            return fail("the recorded poll is not right");
        return 0;
    }
    if (mode == "timed") return timed(polls, rounds, recording);
    if (mode == "count" && !arg1.empty()) return count(arg1, polls, reps, stats);
    return fail("usage: bench_poll lists DIR | record | timed [--polls N] [--rounds R] "
                "[--floor FILE] | count GROUP [--polls K] [--reps N] [--stats FILE] | sim-sets");
}
