// plc-sim: a stand-in controller for the driver's integration tests, benchmarks
// and demo. Options, start-up and signal handling; see Usage() for the options.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/live.h"
#include "sim/log.h"
#include "sim/server.h"
#include "sim/stats.h"
#include "sim/tag_list.h"
#include "sim/variable_store.h"

namespace {

using namespace plc::sim;

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;

void Usage(std::FILE *out) {
    std::fputs(
        "usage: plc-sim [options]\n"
        "  --address ADDR        IPv4 address to listen on (default 127.0.0.1)\n"
        "  --port N              TCP port (default 44818)\n"
        "  --tags FILE           declare the variables of a tag list file (repeatable)\n"
        "  --set NAME=VALUE      initial value; NAME may end in [i], [i,j] or [i,j,k];\n"
        "                        an array named without subscript gets VALUE in every\n"
        "                        element (repeatable, applied in order)\n"
        "  --live                animate LiveCounter (+1 every 100 ms), LiveSine (REAL,\n"
        "                        amplitude 100, period 10 s), LiveToggle (BOOL, every 1 s)\n"
        "  --live-counter NAME   --live-sine NAME   --live-toggle NAME   other names\n"
        "  --stats FILE          counters as 'key value' lines, rewritten after every message\n"
        "  --store FILE          'NAME TYPE VALUE...' lines, rewritten after every write\n"
        "  --refuse-forward-open refuse every Large_Forward_Open (out of connections)\n"
        "  --verbose             trace every message received and sent\n"
        "  --help                this text\n"
        "Values: BOOL true/false/1/0; integers decimal or 0x hex; REAL/LREAL decimal;\n"
        "STRING text verbatim; TIME and the other time types milliseconds, or with a\n"
        "unit suffix ns/us/ms/s (1.5 = 1.5 ms, 2s = 2 seconds). SIGUSR1 prints the store.\n",
        out);
}

struct Options {
    ServerOptions server;
    std::vector<std::string> tag_files;
    std::vector<std::string> assignments;
    bool live = false;
    LiveOptions live_names;
    std::string stats_file;
    std::string store_file;
    bool verbose = false;
};

bool ParsePort(const std::string &text, uint16_t *port) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long v = std::strtoul(text.c_str(), nullptr, 10);
    if (v > 65535) return false;
    *port = uint16_t(v);
    return true;
}

// "--name value" or "--name=value"; an error message, or empty on success.
std::string ParseOptions(int argc, char **argv, Options &o, bool *help) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool has_value = false;
        if (const size_t eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            has_value = true;
        }
        const auto take = [&]() -> bool {
            if (has_value) return true;
            if (i + 1 >= argc) return false;
            value = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            *help = true;
        } else if (arg == "--live") {
            o.live = true;
        } else if (arg == "--verbose") {
            o.verbose = true;
        } else if (arg == "--refuse-forward-open") {
            o.server.refuse_forward_open = true;
        } else if (arg == "--address" || arg == "--port" || arg == "--tags" || arg == "--set" ||
                   arg == "--live-counter" || arg == "--live-sine" || arg == "--live-toggle" ||
                   arg == "--stats" || arg == "--store") {
            if (!take()) return arg + " needs a value";
            if (arg == "--address") {
                o.server.address = value;
            } else if (arg == "--port") {
                if (!ParsePort(value, &o.server.port)) return "bad port: " + value;
            } else if (arg == "--tags") {
                o.tag_files.push_back(value);
            } else if (arg == "--set") {
                if (value.find('=') == std::string::npos) return "--set needs NAME=VALUE";
                o.assignments.push_back(value);
            } else if (arg == "--live-counter") {
                o.live_names.counter = value;
            } else if (arg == "--live-sine") {
                o.live_names.sine = value;
            } else if (arg == "--live-toggle") {
                o.live_names.toggle = value;
            } else if (arg == "--stats") {
                o.stats_file = value;
            } else {
                o.store_file = value;
            }
        } else {
            return "unknown option: " + arg;
        }
    }
    return {};
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    bool help = false;
    if (const std::string error = ParseOptions(argc, argv, options, &help); !error.empty()) {
        std::fprintf(stderr, "plc-sim: %s\n", error.c_str());
        Usage(stderr);
        return kExitUsage;
    }
    if (help) {
        Usage(stdout);
        return 0;
    }
    Log::SetVerbose(options.verbose);

    // Signals are taken by sigwait below; every thread started later inherits
    // the blocked mask, so none of them is interrupted by one.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    SharedStore shared;
    {
        std::vector<std::string> warnings;
        size_t declared = 0;
        size_t skipped = 0;
        for (const std::string &file : options.tag_files) {
            TagListSummary summary;
            const bool read = LoadTagListFile(file, shared.store, warnings, &summary);
            for (const std::string &w : warnings) Log::Warn(w);
            warnings.clear();
            if (!read) return kExitUsage;
            declared += summary.declared;
            skipped += summary.skipped;
        }
        for (const std::string &assignment : options.assignments) {
            const size_t eq = assignment.find('=');
            std::string error;
            if (!shared.store.Assign(std::string_view(assignment).substr(0, eq),
                                     std::string_view(assignment).substr(eq + 1), &error)) {
                std::fprintf(stderr, "plc-sim: --set %s: %s\n", assignment.c_str(), error.c_str());
                return kExitUsage;
            }
        }
        Log::Line("plc-sim: " + std::to_string(declared) + " variables declared from " +
                  std::to_string(options.tag_files.size()) + " tag list(s), " +
                  std::to_string(skipped) + " line(s) skipped");
    }

    Stats stats;
    PublishedFile stats_file(options.stats_file);
    PublishedFile store_file(options.store_file);
    store_file.Write(shared.store.Render());
    stats_file.Write(stats.Render());

    Server server(options.server, shared, stats, &stats_file, &store_file);
    std::string error;
    if (!server.Start(&error)) {
        std::fprintf(stderr, "plc-sim: %s\n", error.c_str());
        return kExitFailure;
    }
    std::unique_ptr<LiveAnimation> live;
    if (options.live) {
        live = std::make_unique<LiveAnimation>(shared, options.live_names);
        live->Start();
    }
    Log::Line("plc-sim listening on " + options.server.address + ":" +
              std::to_string(server.port()));

    while (true) {
        int signal_number = 0;
        if (sigwait(&signals, &signal_number) != 0) continue;
        if (signal_number == SIGUSR1) {
            std::string dump;
            {
                std::lock_guard<std::mutex> lock(shared.mutex);
                dump = shared.store.Render();
            }
            Log::Block(dump);
            continue;
        }
        break;
    }
    if (live) live->Stop();
    server.Stop();
    stats_file.Write(stats.Render());
    Log::Line("plc-sim stopped");
    return 0;
}
