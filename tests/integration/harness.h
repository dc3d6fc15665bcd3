// What the integration tests share: a private working directory, a plc-sim
// process of their own, the files through which it publishes its counters and
// its variables, and a capture of what the driver prints.
//
// Every test program runs inside its own network namespace (in_netns.sh), one
// test per process, so each test has the controller port of 127.0.0.1 and the
// driver's module state to itself.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "plc_driver.h"

namespace plc::itest {

// 127.0.0.1 as the host's settings record carries it.
constexpr uint32_t kLoopback = 0x7F000001;
constexpr const char *kTagListName = "PLC7F000001_1.csv";

std::string SimPath();
std::string HostPath();
std::string DriverLibraryPath();
std::string TestTagListPath(); // the tests' own tag list (tests/integration)
std::string ExampleTagListPath();

// A fresh directory under $TMPDIR; the process changes into it (the driver opens
// its tag list and session file in the working directory). Removed at the end.
class WorkDir {
public:
    WorkDir();
    ~WorkDir();
    WorkDir(const WorkDir &) = delete;
    WorkDir &operator=(const WorkDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    void Write(const std::string &name, const std::string &content) const;
    std::optional<std::string> Read(const std::string &name) const;
    bool Exists(const std::string &name) const;
    void Remove(const std::string &name) const;

private:
    std::string path_;
    std::string previous_cwd_;
};

struct SimConfig {
    std::string tag_list;           // file name inside the work dir
    std::vector<std::string> sets;  // --set NAME=VALUE
    std::vector<std::string> extra; // further options
    std::string address = "127.0.0.1";
};

// One plc-sim process, started with --stats and --store files and a control
// socket in the work dir.
class Sim {
public:
    explicit Sim(const WorkDir &dir) : dir_(dir) {}
    ~Sim();
    Sim(const Sim &) = delete;
    Sim &operator=(const Sim &) = delete;

    // Starts it and waits for its ready line; false with the reason.
    bool Start(const SimConfig &config, std::string *error = nullptr);
    bool Restart(std::string *error = nullptr); // the same configuration again
    void Kill();                                // SIGKILL and reap
    bool running() const { return pid_ > 0; }

    // The counters as last published; a missing key reads 0.
    std::map<std::string, uint64_t> Stats() const;
    uint64_t Stat(const std::string &key) const;
    // The element values of a variable as the store file shows them (texts
    // unquoted and unescaped); none when the variable is not there.
    std::optional<std::vector<std::string>> Values(const std::string &name) const;
    std::string Output() const; // what the simulator printed

    // Sets or clears faults through the control channel (see plc-sim --help).
    bool SetFault(const std::string &fault) const;
    bool ClearFaults() const;

private:
    const WorkDir &dir_;
    SimConfig config_;
    pid_t pid_ = -1;
    int starts_ = 0;
};

// Collects what the process writes to file descriptor 1 (the driver's
// diagnostics) while it lives; text() gives what was written so far.
class StdoutCapture {
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;
    std::string text();

private:
    int saved_ = -1;
    int fd_ = -1;
};

// The host side of the driver: the settings record it keeps a pointer to.
struct Host {
    DriverSettings settings{};
    // wk_plc_driver_info, wk_plc_init, wk_plc_init2; returns wk_plc_init2's status.
    int32_t Start(uint32_t address = kLoopback, uint8_t device_port = 1);
};

// A request record for a tag id and element index (device 1).
PlcRequest Record(uint32_t tag_id, uint32_t element, uint16_t count = 1, uint16_t device = 1);

// The result of running a program.
struct RunResult {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};
// Runs a program in `cwd`, waiting at most `timeout_seconds` (then kills it).
RunResult RunProgram(const std::vector<std::string> &argv, const std::string &cwd,
                     int timeout_seconds = 60);

// Decodes helpers for value checks.
uint32_t FloatBits(float f);
float BitsFloat(uint32_t w);

} // namespace plc::itest
