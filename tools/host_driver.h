// Loading libplc_driver.so the way a panel runtime does (dlopen + dlsym of the
// C entry points), keeping the driver's diagnostics (it prints to standard
// output, and a few system errors to standard error) out of the tool's
// output, and ending the tool at once on Ctrl-C even inside a driver call,
// which can wait 10 s for a reply.
#pragma once

#include <string>

#include "plc_driver.h"

namespace plc::host {

struct DriverApi {
    decltype(&::wk_plc_driver_info) driver_info = nullptr;
    decltype(&::wk_plc_init) init = nullptr;
    decltype(&::wk_plc_init2) init2 = nullptr;
    decltype(&::wk_plc_read) read = nullptr;
    decltype(&::wk_plc_write) write = nullptr;
    decltype(&::wk_OMRON_plc_read) batch_read = nullptr;
};

// The library stays loaded for the life of the process (the driver keeps a
// pointer to the settings record and its connection in module state).
class DriverLibrary {
public:
    // Loads the library and resolves every entry point; false with a message.
    bool load(const std::string &path, std::string &error);
    const DriverApi &api() const { return api_; }

private:
    void *handle_ = nullptr;
    DriverApi api_;
};

// SIGINT and SIGTERM end the tool at once with status 130, inside a driver
// call too (the driver's output so far shown first when `show_log`); with
// `graceful`, outside a driver call they only turn interrupted() true, so
// that a poll ends after its current line.
void install_interrupt_handler(bool show_log, bool graceful);
bool interrupted();

// Standard output and standard error redirected into a buffer for the
// duration of each driver call; the tool's own output goes to the real ones.
class DriverLog {
public:
    DriverLog();
    ~DriverLog();
    DriverLog(const DriverLog &) = delete;
    DriverLog &operator=(const DriverLog &) = delete;

    void begin(); // before a driver call
    void end();   // after it
    // What the driver printed since the last take.
    std::string take();

private:
    std::string kept_;
};

} // namespace plc::host
