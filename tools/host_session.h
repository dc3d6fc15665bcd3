// What every command that talks to the controller shares: the options, the
// tag list, the loaded driver with its log, and the settings record the
// driver keeps a pointer to.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/host_access.h"
#include "tools/host_driver.h"
#include "tools/host_options.h"
#include "tools/host_tags.h"

namespace plc::host {

struct Host {
    Options opt;
    HostTagList tags;
    std::string tag_list;
    std::string lib_path;
    DriverLibrary lib;
    std::unique_ptr<DriverLog> log;
    DriverSettings settings{}; // the driver keeps a pointer to it: lives as long as the tool
    // Poll table: the driver's lines are shown under it, not on standard error.
    bool table = false;
    std::vector<std::string> table_lines;
    // What the driver printed during the last call, and how long it took.
    std::string last_log;
    double last_seconds = 0;

    const DriverApi &api() const { return lib.api(); }

    // One driver call with its output kept apart from the tool's.
    template <typename F>
    auto call(F &&f) {
        log->begin();
        const double start = now_seconds();
        const auto result = f();
        last_seconds = now_seconds() - start;
        log->end();
        keep_log(log->take());
        return result;
    }

    // Loads the library, then identity, settings and bring-up (with a
    // "connecting to" line); returns wk_plc_init2's status.
    int start();
    // The same; a failed bring-up ends the tool with its reason.
    void start_or_die();
    // Ends the tool after a driver status other than 0, in plain words.
    [[noreturn]] void die_status(const std::string &what, int status, bool write);

    // One single read into `bytes` bytes, and one batch call; guard bytes and
    // records behind the caller's catch a driver writing past what it was given.
    int single_read(PlcRequest &request, uint32_t count, size_t bytes,
                    std::vector<uint8_t> &buffer);
    int batch(PlcRequest *records, size_t n, bool &overrun);

    static double now_seconds();

private:
    void keep_log(std::string text);
};

int exit_for_status(int status);

// Reads elements through the batch entry in calls of at most 100 records;
// `values` gets one value per element (none for what was not delivered).
int run_batch_elements(Host &h, const std::vector<BatchElement> &shown, std::vector<Value> &values,
                       int &calls_made);

// Refuses a read that the entries cannot carry, before anything is sent.
bool check_read(uint16_t device, const ElementRun &run, HostError &err);
// The run a reference names; unknown names and bad indexes end the tool.
ElementRun resolve_or_die(const Host &h, const std::string &text);
// Reads a run (checked by check_read) the way `read` does; false with the
// driver status in `status`.
bool read_run(Host &h, const ElementRun &run, std::vector<std::string> &labels,
              std::vector<Value> &values, int &status);

} // namespace plc::host
