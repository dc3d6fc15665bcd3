// Loading libplc_driver.so the way a panel runtime does (dlopen + dlsym of the
// C entry points), and keeping the driver's own diagnostics, which it prints
// to standard output, apart from the tool's output.
#pragma once

#include <cstdint>
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

// Where the driver's standard output goes while the tool calls it.
enum class DriverOutput {
    Stderr,   // copied to the tool's standard error (default)
    Stdout,   // left on standard output, mixed with the tool's output
    Discard,  // thrown away (--quiet)
    Keep,     // collected; the caller takes it with take_captured()
};

// Redirects file descriptor 1 for the duration of driver calls. Between calls
// the tool's own output goes to the real standard output.
class DriverOutputRedirect {
public:
    explicit DriverOutputRedirect(DriverOutput mode);
    ~DriverOutputRedirect();
    DriverOutputRedirect(const DriverOutputRedirect &) = delete;
    DriverOutputRedirect &operator=(const DriverOutputRedirect &) = delete;

    void begin();  // before a driver call
    void end();    // after it
    // Text the driver printed since the last take (mode Keep).
    std::string take_captured();

private:
    DriverOutput mode_;
    int capture_fd_ = -1;
    int saved_fd_ = -1;
    std::string kept_;
};

// Runs f() with the driver's output redirected.
template <typename F>
auto with_driver_output(DriverOutputRedirect &redirect, F &&f) {
    struct Scope {
        DriverOutputRedirect &r;
        ~Scope() { r.end(); }
    };
    redirect.begin();
    Scope scope{redirect};
    return f();
}

} // namespace plc::host
