// plc-sim: a stand-in controller for the driver's integration tests, benchmarks
// and demo. Start-up and signal handling; see options.cpp for the options.
#include <signal.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/control.h"
#include "sim/live.h"
#include "sim/log.h"
#include "sim/options.h"
#include "sim/server.h"
#include "sim/stats.h"
#include "sim/tag_list.h"
#include "sim/variable_store.h"

namespace {

using namespace plc::sim;

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;

// Declares the tag lists' variables and applies the --set values; false
// (reported) when a file cannot be read or a value cannot be set.
bool LoadVariables(const Options &options, SharedStore &shared) {
    std::vector<std::string> warnings;
    size_t declared = 0;
    size_t skipped = 0;
    for (const std::string &file : options.tag_files) {
        TagListSummary summary;
        const bool read = LoadTagListFile(file, shared.store, warnings, &summary);
        for (const std::string &w : warnings) Log::Warn(w);
        warnings.clear();
        if (!read) return false;
        declared += summary.declared;
        skipped += summary.skipped;
    }
    for (const std::string &assignment : options.assignments) {
        const size_t eq = assignment.find('=');
        std::string error;
        if (!shared.store.Assign(std::string_view(assignment).substr(0, eq),
                                 std::string_view(assignment).substr(eq + 1), &error)) {
            std::fprintf(stderr, "plc-sim: --set %s: %s\n", assignment.c_str(), error.c_str());
            return false;
        }
    }
    Log::Line("plc-sim: " + std::to_string(declared) + " variables declared from " +
              std::to_string(options.tag_files.size()) + " tag list(s), " +
              std::to_string(skipped) + " line(s) skipped");
    return true;
}

// Signals are taken by sigwait; every thread started later inherits the
// blocked mask, so none of them is interrupted by one.
sigset_t BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int s : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&signals, s);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Until SIGINT or SIGTERM; SIGUSR1 prints the store.
void WaitForSignals(const sigset_t &signals, SharedStore &shared) {
    while (true) {
        int signal_number = 0;
        if (sigwait(&signals, &signal_number) != 0) continue;
        if (signal_number != SIGUSR1) return;
        std::string dump;
        {
            std::lock_guard<std::mutex> lock(shared.mutex);
            dump = shared.store.Render();
        }
        Log::Block(dump);
    }
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    if (const std::string error = ParseOptions(argc, argv, options); !error.empty()) {
        std::fprintf(stderr, "plc-sim: %s\n", error.c_str());
        PrintUsage(stderr);
        return kExitUsage;
    }
    if (options.help) {
        PrintUsage(stdout);
        return 0;
    }
    Log::SetVerbose(options.verbose);

    const sigset_t signals = BlockSignals();

    SharedStore shared;
    if (!LoadVariables(options, shared)) return kExitUsage;

    Stats stats;
    PublishedFile stats_file(options.stats_file);
    PublishedFile store_file(options.store_file);
    store_file.Write(shared.store.Render());
    stats_file.Write(stats.Render());

    Server server(options.server, shared, stats, &stats_file, &store_file);
    for (const Fault &fault : options.faults) server.faults().Add(fault);
    std::string error;
    if (!server.Start(&error)) {
        std::fprintf(stderr, "plc-sim: %s\n", error.c_str());
        return kExitFailure;
    }
    std::unique_ptr<ControlChannel> control;
    if (!options.control_socket.empty()) {
        control =
            std::make_unique<ControlChannel>(options.control_socket, [&](const std::string &line) {
                return RunControlCommand(server, stats, line);
            });
    }
    if (control && !control->Start(&error)) {
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

    WaitForSignals(signals, shared);
    if (live) live->Stop();
    if (control) control->Stop();
    server.Stop();
    stats_file.Write(stats.Render());
    Log::Line("plc-sim stopped");
    return 0;
}
