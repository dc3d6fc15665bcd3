// The everyday poll: 100 records of mixed types on a prepared request set, read
// with wk_OMRON_plc_read from plc-sim over loopback, set against a floor taken
// in the same run: the same request messages sent and their whole replies
// received over the driver's own TCP connection, with no driver logic between.
//
// Runs in a directory holding PLC7F000001_1.csv (bench/poll_tags.csv), with
// plc-sim serving that list on 127.0.0.1:44818; bench/run_poll_bench.sh sets
// this up. `--sim-sets` prints the values the simulator must be given.
//
//   bench_poll [--polls N] [--rounds R] [--stats FILE [--count-only]] | --sim-sets
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "driver/plc_state.h"
#include "eip/cip_connection_manager.h"
#include "eip/eip_packet.h"
#include "util/wire.h"
#include "engine/batch_read_core.h"
#include "engine/cip_exchange.h"
#include "plc_driver.h"

namespace {

constexpr uint32_t kLoopback = 0x7F000001; // the tag list name follows from it
constexpr uint16_t kDevice = 1;
constexpr uint8_t kServiceRead = 0x55;
// Read requests go to class 0xB8, instance 0.
constexpr std::array<uint8_t, 4> kReadPath{0x20, 0xB8, 0x24, 0x00};

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
    Run{0, 0, 1}, Run{1, 0, 1}, Run{2, 0, 1}, Run{3, 0, 1}, Run{4, 0, 1}, Run{5, 0, 1},
    Run{6, 0, 1}, Run{7, 0, 1}, Run{8, 0, 1}, Run{9, 0, 1}, Run{10, 0, 1}, Run{11, 0, 1},
    Run{12, 0, 1},
    // EnergyTotal LINT, FlowTotal LREAL, CycleTime TIME, OperatorName STRING[20]
    Run{13, 0, 2}, Run{14, 0, 2}, Run{15, 0, 4}, Run{16, 0, 8},
    // SetPoints INT[0..9], MotorSpeed DINT[1..10], TempProfile REAL[2,5], FlowHistory
    // LREAL[10], Counters64 LINT[5], RawBytes USINT[16], DoorSwitch BOOL[8], WordTable UINT[2,8]
    Run{17, 0, 10}, Run{18, 1, 10}, Run{19, 0, 10}, Run{20, 0, 8}, Run{21, 0, 4},
    Run{22, 0, 4}, Run{23, 0, 4}, Run{24, 0, 3},
    // AlarmWord00..03 WORD, Zone01..04_Temp REAL, Tank1/2_Level LREAL, Valve01/02_Open
    // BOOL, Axis1_Targets DINT[0..3]
    Run{262144, 0, 1}, Run{262145, 0, 1}, Run{262146, 0, 1}, Run{262147, 0, 1},
    Run{270336, 0, 1}, Run{270337, 0, 1}, Run{270338, 0, 1}, Run{270339, 0, 1},
    Run{303104, 0, 2}, Run{303105, 0, 2}, Run{393216, 0, 1}, Run{393217, 0, 1},
    Run{524288, 0, 4},
};
constexpr size_t kRecords = [] {
    size_t n = 0;
    for (const Run &r : kPollSet) n += r.count;
    return n;
}();
static_assert(kRecords == 100, "the poll reads a full batch of 100 records");

// Values the simulator is started with, so that the poll reads something.
constexpr std::array<std::string_view, 27> kSimSets{
    "PartCounter=123456", "LineSpeed=12.5", "Running=true", "MachineState=2",
    "ProductCount=4000000000", "RejectCount=17", "StationNo=7", "TempOffset=-5",
    "ControlWord=0xA55A", "AlarmMask=0xDEADBEEF", "EStopOk=true", "BatchNo=2024",
    "EnergyTotal=0x123456789AB", "FlowTotal=1234.5678", "CycleTime=1234.5",
    "OperatorName=Alice Smith", "SetPoints=150", "SetPoints[3]=-20", "MotorSpeed[10]=1750",
    "TempProfile=21.5", "FlowHistory=0.25", "RawBytes=0x41", "DoorSwitch[1]=true",
    "Zone01_Temp=180.5", "Tank1_Level=512.25", "Valve01_Open=true", "Axis1_Targets[3]=-100000",
};

uint32_t float_bits(float f) {
    uint32_t w = 0;
    std::memcpy(&w, &f, sizeof w);
    return w;
}

// Spot checks of the first poll: (tag, element, expected result).
struct Check {
    uint32_t tag;
    uint16_t element;
    uint32_t expected;
};
const std::array kChecks{
    Check{0, 0, 123456},         Check{1, 0, float_bits(12.5f)}, Check{2, 0, 1},
    Check{7, 0, 0xFB},           Check{16, 0, 'A'},              Check{16, 6, 'S'},
    Check{17, 3, 0xFFEC},        Check{18, 10, 1750},            Check{23, 1, 1},
    Check{270336, 0, float_bits(180.5f)}, Check{524288, 3, uint32_t(-100000)},
};

std::vector<PlcRequest> make_records() {
    std::vector<PlcRequest> records;
    for (const Run &run : kPollSet) {
        for (uint16_t k = 0; k < run.count; ++k) {
            PlcRequest r{};
            r.device = kDevice;
            r.tag_high = static_cast<uint8_t>(run.tag >> 16);
            r.address = (run.tag & 0xFFFFu) << 16 | uint32_t(run.first + k);
            r.count = 1;
            records.push_back(r);
        }
    }
    return records;
}

std::optional<uint32_t> result_of(const std::vector<PlcRequest> &records, uint32_t tag,
                                  uint16_t element) {
    for (const PlcRequest &r : records) {
        const uint32_t id = uint32_t(r.tag_high) << 16 | r.address >> 16;
        if (id == tag && (r.address & 0xFFFFu) == element) return r.result;
    }
    return std::nullopt;
}

using Counters = std::map<std::string, uint64_t>;

uint64_t value(const Counters &c, const char *key) {
    const auto it = c.find(key);
    return it == c.end() ? 0 : it->second;
}

// The simulator's published counters ("key value" lines). The file is
// rewritten with every message (a message without a reply may still be on its
// way), so readers wait for the number of messages they expect, or (not
// knowing it) for the counts to stand still.
Counters read_counters(const std::string &path) {
    Counters values;
    std::ifstream in(path);
    std::string key;
    uint64_t v = 0;
    while (in >> key >> v) values[key] = v;
    return values;
}
Counters wait_for_messages(const std::string &path, uint64_t messages) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    Counters values = read_counters(path);
    while (value(values, "messages") < messages && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        values = read_counters(path);
    }
    return values;
}
Counters settled_counters(const std::string &path) {
    for (Counters before = read_counters(path);;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        Counters now = read_counters(path);
        if (now == before) return now;
        before = std::move(now);
    }
}

// Passes every exchange of one poll through to the driver's connection and
// keeps each request and its reply.
class RecordingExchange final : public plc::CipExchange {
public:
    struct Exchange {
        uint8_t service = 0;
        std::vector<uint8_t> request;
        std::vector<uint8_t> reply; // message-router reply, from the reply service on
    };
    int32_t transact(const uint8_t *request, uint32_t request_len, uint8_t *reply,
                     uint32_t *reply_len, uint8_t service, size_t reply_capacity) override {
        const int32_t r = link_.transact(request, request_len, reply, reply_len, service,
                                         reply_capacity);
        Exchange e{service, {request, request + request_len}, {}};
        if (r == 0) e.reply.assign(reply, reply + *reply_len);
        exchanges.push_back(std::move(e));
        return r;
    }
    std::vector<Exchange> exchanges;

private:
    plc::DriverConnectionExchange link_;
};

// One prebuilt SendUnitData of the floor and the reply it must bring back.
struct FloorMessage {
    std::vector<uint8_t> bytes;
    size_t sequence_at = 0;
    std::vector<uint8_t> reply; // the message-router reply the driver got
    size_t reply_size = 0;      // the whole reply message, once seen
};

// Wraps a captured read request as the driver's CIP client would send it on
// the connection; only the sequence count changes from one send to the next.
std::optional<FloorMessage> build_floor_message(const RecordingExchange::Exchange &captured) {
    if (captured.service != kServiceRead || captured.reply.empty()) return std::nullopt;
    size_t mr_size = 0;
    const auto mr = plc::_BuildMRRequest(kServiceRead, kReadPath.data(), kReadPath.size(),
                                         captured.request.data(), captured.request.size(),
                                         &mr_size);
    if (!mr) return std::nullopt;
    plc::CpfItem address;
    address.type_id = plc::kItemConnectedAddress;
    address.connection_id = plc::connection->ot_conn_id;
    plc::CpfItem data;
    data.type_id = plc::kItemConnectedData;
    data.length = static_cast<uint16_t>(mr_size);
    plc::Change_Time = 1; // the timeout field of a read request
    auto request = plc::_BuildRequest(*plc::session, address, nullptr, data, mr->data(),
                                      plc::session->timeout_us);
    if (!request) return std::nullopt;
    plc::wire::Writer(request->data(), request->size()).u16(plc::kEncapSendUnitData);
    const auto item = plc::_GetDataItem(*request);
    if (!item || !plc::wire::Reader(*request).has(*item + 4, 2)) return std::nullopt;
    return FloorMessage{std::move(*request), *item + 4, captured.reply};
}

// Receives one whole encapsulation message into `buffer`; its size, or 0.
size_t receive_message(int sock, std::vector<uint8_t> &buffer) {
    size_t got = 0;
    size_t want = plc::kEncapHeaderSize;
    while (got < want) {
        const ssize_t n = recv(sock, buffer.data() + got, buffer.size() - got, 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return 0;
        }
        got += size_t(n);
        if (want == plc::kEncapHeaderSize && got >= want)
            want += plc::wire::Reader(buffer.data(), got).u16_at(2).value_or(0);
    }
    return got;
}

bool send_message(int sock, const std::vector<uint8_t> &message) {
    for (size_t sent = 0; sent < message.size();) {
        const ssize_t n = send(sock, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return false;
        }
        sent += size_t(n);
    }
    return true;
}

// One floor "poll": every message of the poll out and its reply in. The
// sequence count runs on from the driver's and is handed back afterwards.
bool floor_poll(std::vector<FloorMessage> &messages, std::vector<uint8_t> &buffer) {
    const int sock = plc::session->sock;
    for (FloorMessage &m : messages) {
        plc::wire::Writer(m.bytes.data() + m.sequence_at, 2).u16(plc::connection->sequence++);
        if (!send_message(sock, m.bytes)) return false;
        // Same request, same values: a reply of another size is not the same exchange.
        if (receive_message(sock, buffer) != m.reply_size) return false;
    }
    return true;
}

// The floor messages of the recorded poll, each sent once to check that it
// brings back exactly the reply the driver got; none when one does not.
std::optional<std::vector<FloorMessage>> prepare_floor(const RecordingExchange &recorder,
                                                       std::vector<uint8_t> &buffer) {
    std::vector<FloorMessage> floor;
    for (const auto &e : recorder.exchanges) {
        auto m = build_floor_message(e);
        if (!m) return std::nullopt;
        plc::wire::Writer(m->bytes.data() + m->sequence_at, 2).u16(plc::connection->sequence++);
        const int sock = plc::session->sock;
        m->reply_size = send_message(sock, m->bytes) ? receive_message(sock, buffer) : 0;
        // The data item: type, length, the echoed sequence count, then the
        // message-router reply.
        const std::vector<uint8_t> reply(buffer.begin(),
                                         buffer.begin() + std::ptrdiff_t(m->reply_size));
        const auto item = plc::_GetDataItem(reply);
        plc::wire::Reader in(reply);
        in.seek(item.value_or(reply.size()) + 2);
        const uint16_t length = in.u16();
        in.skip(2);
        const plc::wire::Reader mr = in.sub(length >= 2 ? length - 2u : reply.size());
        if (!item || !in.ok() || mr.size() != m->reply.size() ||
            !std::equal(m->reply.begin(), m->reply.end(), mr.data()))
            return std::nullopt;
        floor.push_back(std::move(*m));
    }
    return floor;
}

// User and system CPU seconds of this process so far.
std::pair<double, double> cpu_now() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    const auto seconds = [](const timeval &t) {
        return double(t.tv_sec) + double(t.tv_usec) * 1e-6;
    };
    return {seconds(ru.ru_utime), seconds(ru.ru_stime)};
}

// Wall and CPU seconds of `polls` calls of `poll`, and each call's wall time.
struct Block {
    double wall = 0, user = 0, sys = 0;
    std::vector<double> each;
};
template <typename Poll> std::optional<Block> time_block(int polls, Poll &&poll) {
    using Clock = std::chrono::steady_clock;
    Block b;
    b.each.reserve(size_t(polls));
    const auto [user0, sys0] = cpu_now();
    const auto t0 = Clock::now();
    auto last = t0;
    for (int i = 0; i < polls; ++i) {
        if (!poll()) return std::nullopt;
        const auto now = Clock::now();
        b.each.push_back(std::chrono::duration<double>(now - last).count());
        last = now;
    }
    b.wall = std::chrono::duration<double>(last - t0).count();
    const auto [user1, sys1] = cpu_now();
    b.user = user1 - user0;
    b.sys = sys1 - sys0;
    return b;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}
double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

// The driver writes its diagnostics to standard output. They go to a file in
// the working directory, and the report to a stream on the original output.
std::FILE *divert_driver_output(const char *path) {
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    std::FILE *report = saved >= 0 ? fdopen(saved, "w") : nullptr;
    if (report == nullptr) return stdout;
    if (std::freopen(path, "w", stdout) == nullptr)
        std::fputs("bench_poll: the driver's diagnostics are lost\n", stderr);
    std::setvbuf(report, nullptr, _IOLBF, 0);
    return report;
}

constexpr const char *kUsage =
    "usage: bench_poll [--polls N] [--rounds R] [--stats FILE] [--count-only] | --sim-sets";

int fail(const char *what) {
    std::fprintf(stderr, "bench_poll: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char **argv) {
    int polls = 1000;
    int rounds = 9;
    bool count_only = false;
    std::string stats_path;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--sim-sets") {
            for (const auto set : kSimSets) std::printf("%.*s\n", int(set.size()), set.data());
            return 0;
        }
        if (arg == "--count-only") {
            count_only = true;
        } else if (i + 1 < argc && arg == "--polls") {
            polls = std::max(1, std::atoi(argv[++i]));
        } else if (i + 1 < argc && arg == "--rounds") {
            rounds = std::max(1, std::atoi(argv[++i]));
        } else if (i + 1 < argc && arg == "--stats") {
            stats_path = argv[++i];
        } else {
            return fail(kUsage);
        }
    }
    if (count_only && stats_path.empty()) return fail("--count-only needs --stats");
    std::FILE *out = divert_driver_output("driver.log");

    // Bring-up as the host does it; the first poll prepares the set, the
    // second is an ordinary one and is checked.
    DriverSettings settings{};
    settings.ip_address = kLoopback;
    DriverInfo info{};
    const uint8_t device_port = 1;
    wk_plc_driver_info(&info);
    wk_plc_init(&settings);
    if (wk_plc_init2(0, 0, &device_port) != 0) return fail("bring-up failed (is plc-sim running?)");
    std::vector<PlcRequest> records = make_records();
    const auto poll = [&records] {
        return wk_OMRON_plc_read(records.data(), int32_t(records.size())) == PLC_STATUS_OK;
    };
    if (!poll()) return fail("the first poll (with preparation) did not return 0");
    records = make_records();
    if (!poll()) return fail("the poll of the prepared set did not return 0");
    for (const Check &c : kChecks) {
        const auto got = result_of(records, c.tag, c.element);
        if (got != c.expected) {
            std::fprintf(stderr, "bench_poll: tag %u element %u read 0x%X, expected 0x%X\n",
                         c.tag, c.element, got.value_or(0), c.expected);
            return 1;
        }
    }

    // One more poll through a recorder gives the exact requests of a poll.
    RecordingExchange recorder;
    if (plc::batch_read_over(recorder, records.data(), int32_t(records.size())) != 0)
        return fail("the recorded poll did not return 0");
    std::vector<uint8_t> buffer(plc::kEncapHeaderSize + 0xFFFF);
    auto floor = prepare_floor(recorder, buffer);
    if (!floor) return fail("the floor messages do not bring back the driver's replies");
    std::fprintf(out, "poll: %zu records, %zu requests per poll:", records.size(), floor->size());
    for (const FloorMessage &m : *floor)
        std::fprintf(out, " %zu->%zu", m.bytes.size(), m.reply_size);
    std::fprintf(out, " bytes (request->reply)\n");

    for (int i = 0; i < 200; ++i) {
        if (!poll() || !floor_poll(*floor, buffer)) return fail("warm-up failed");
    }
    const Counters start = stats_path.empty() ? Counters{} : settled_counters(stats_path);
    uint64_t driver_messages = 0, floor_messages = 0;
    const auto sim_line = [&](double per_poll_floor) {
        const Counters end = wait_for_messages(
            stats_path, value(start, "messages") + driver_messages + floor_messages);
        const auto delta = [&](const char *key) {
            return double(value(end, key) - value(start, key));
        };
        const double n = double(polls) * (count_only ? 1 : rounds);
        const double reads = delta("read_requests") / n - per_poll_floor;
        const double resolves = delta("resolve_requests") / n, writes = delta("write_requests") / n;
        std::fprintf(out, "  exchanges per poll (plc-sim)   %10.2f     (read %.2f, resolve %.2f, "
                     "write %.2f", reads + resolves + writes, reads, resolves, writes);
        // With the floor's traffic in the counts only the requests can be told apart.
        if (per_poll_floor == 0) std::fprintf(out, "; read items %.1f", delta("read_items") / n);
        std::fprintf(out, ")\n");
        return delta("errors") == 0 && delta("sequence_anomalies") == 0;
    };

    if (count_only) {
        const uint16_t seq0 = plc::connection->sequence;
        for (int i = 0; i < polls; ++i) {
            if (!poll()) return fail("a poll did not return 0");
        }
        driver_messages = uint16_t(plc::connection->sequence - seq0);
        return sim_line(0) ? 0 : fail("the simulator saw errors or sequence anomalies");
    }

    // Rounds of driver polls and floor polls in turn, so that both see the
    // same machine; the ratio is taken within each round.
    std::vector<double> driver_wall, floor_wall, ratios;
    Block driver_sum, floor_sum;
    std::fprintf(out, "\nround  driver us/poll  floor us/poll  ratio  driver CPU us/poll  "
                 "floor CPU us/poll\n");
    for (int r = 1; r <= rounds; ++r) {
        const uint16_t seq0 = plc::connection->sequence;
        const auto d = time_block(polls, poll);
        if (!d) return fail("a timed poll did not return 0");
        driver_messages += uint16_t(plc::connection->sequence - seq0);
        const auto f = time_block(polls, [&] { return floor_poll(*floor, buffer); });
        if (!f) return fail("a floor exchange failed");
        floor_messages += floor->size() * size_t(polls);

        driver_wall.push_back(d->wall / polls);
        floor_wall.push_back(f->wall / polls);
        ratios.push_back(d->wall / f->wall);
        for (auto [sum, block] : {std::pair{&driver_sum, &*d}, std::pair{&floor_sum, &*f}}) {
            sum->user += block->user;
            sum->sys += block->sys;
            sum->each.insert(sum->each.end(), block->each.begin(), block->each.end());
        }
        std::fprintf(out, "%5d  %14.1f  %13.1f  %5.2f  %17.1f  %17.1f\n", r,
                     d->wall / polls * 1e6, f->wall / polls * 1e6, ratios.back(),
                     (d->user + d->sys) / polls * 1e6, (f->user + f->sys) / polls * 1e6);
    }

    const double us = 1e6 / (double(polls) * rounds);
    const double wall = median(driver_wall);
    const double p50 = percentile(driver_sum.each, 0.5);
    const double floor_p50 = percentile(floor_sum.each, 0.5);
    std::fprintf(out, "\nsummary of %d rounds of %d polls (wall: median of the rounds; "
                 "CPU: mean)\n", rounds, polls);
    std::fprintf(out, "  polls per second (wall)        %10.0f\n", 1.0 / wall);
    std::fprintf(out, "  wall time per poll             %10.1f us  (p50 %.1f, p99 %.1f)\n",
                 wall * 1e6, p50 * 1e6, percentile(driver_sum.each, 0.99) * 1e6);
    std::fprintf(out, "  exchanges per poll             %10.2f     (driver's sequence count)\n",
                 double(driver_messages) / (double(polls) * rounds));
    if (!stats_path.empty() && !sim_line(double(floor->size())))
        return fail("the simulator saw errors or sequence anomalies");
    std::fprintf(out, "  driver CPU per poll            %10.1f us  (user %.1f, sys %.1f)\n",
                 (driver_sum.user + driver_sum.sys) * us, driver_sum.user * us,
                 driver_sum.sys * us);
    std::fprintf(out, "  floor per poll                 %10.1f us  (p50 %.1f, p99 %.1f)\n",
                 median(floor_wall) * 1e6, floor_p50 * 1e6, percentile(floor_sum.each, 0.99) * 1e6);
    std::fprintf(out, "  floor CPU per poll             %10.1f us  (user %.1f, sys %.1f)\n",
                 (floor_sum.user + floor_sum.sys) * us, floor_sum.user * us, floor_sum.sys * us);
    std::fprintf(out, "  ratio wall/floor               %10.2f     (median of the rounds' ratios; "
                 "of the p50s %.2f)\n", median(ratios), p50 / floor_p50);
    return 0;
}
