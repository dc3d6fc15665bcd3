#include "tools/host_driver.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/host_refs.h"

namespace plc::host {
namespace {

// Shared with the signal handler, which may only use what is async-signal-safe.
volatile std::sig_atomic_t g_in_call = 0;
volatile std::sig_atomic_t g_stop = 0;
volatile std::sig_atomic_t g_show_log = 0;
volatile std::sig_atomic_t g_graceful = 0;
int g_capture_fd = -1;
int g_saved_out = -1;
int g_saved_err = -1;

template <typename Fn>
bool resolve(void *handle, const char *name, Fn &out, std::string &error) {
    dlerror();
    void *sym = dlsym(handle, name);
    if (sym == nullptr) {
        const char *why = dlerror();
        error = std::string("entry point ") + name + " not found" +
                (why ? std::string(": ") + why : "");
        return false;
    }
    out = reinterpret_cast<Fn>(sym);
    return true;
}

void write_all(int fd, const char *data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        size -= size_t(n);
    }
}

void restore_outputs() {
    if (g_saved_out < 0) return;
    dup2(g_saved_out, STDOUT_FILENO);
    dup2(g_saved_err, STDERR_FILENO);
}

void on_interrupt(int) {
    if (!g_in_call && g_graceful) {
        g_stop = 1;
        return;
    }
    restore_outputs();
    if (g_show_log && g_capture_fd >= 0 && lseek(g_capture_fd, 0, SEEK_SET) == 0) {
        char buf[4096];
        for (ssize_t n; (n = ::read(g_capture_fd, buf, sizeof buf)) > 0;)
            write_all(STDERR_FILENO, buf, size_t(n));
    }
    static const char kMessage[] = "\nplc-host: interrupted\n";
    write_all(STDERR_FILENO, kMessage, sizeof kMessage - 1);
    _exit(kExitInterrupted);
}

} // namespace

bool DriverLibrary::load(const std::string &path, std::string &error) {
    // RTLD_NOW: a library that misses a symbol is refused here, not mid-poll.
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char *why = dlerror();
        error = "cannot load " + path + (why ? std::string(": ") + why : "");
        return false;
    }
    return resolve(handle_, "wk_plc_driver_info", api_.driver_info, error) &&
           resolve(handle_, "wk_plc_init", api_.init, error) &&
           resolve(handle_, "wk_plc_init2", api_.init2, error) &&
           resolve(handle_, "wk_plc_read", api_.read, error) &&
           resolve(handle_, "wk_plc_write", api_.write, error) &&
           resolve(handle_, "wk_OMRON_plc_read", api_.batch_read, error);
}

void install_interrupt_handler(bool show_log, bool graceful) {
    g_show_log = show_log;
    g_graceful = graceful;
    struct sigaction sa {};
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool interrupted() { return g_stop != 0; }

DriverLog::DriverLog() {
    g_capture_fd = memfd_create("plc-driver-output", MFD_CLOEXEC);
    if (g_capture_fd < 0) {
        if (FILE *f = std::tmpfile()) g_capture_fd = dup(fileno(f));
    }
}

DriverLog::~DriverLog() {
    if (g_saved_out >= 0) end();
    if (g_capture_fd >= 0) ::close(g_capture_fd);
    g_capture_fd = -1;
}

void DriverLog::begin() {
    if (g_capture_fd < 0 || g_saved_out >= 0) return;
    std::fflush(stdout);
    std::fflush(stderr);
    g_saved_out = dup(STDOUT_FILENO);
    g_saved_err = dup(STDERR_FILENO);
    g_in_call = 1;
    dup2(g_capture_fd, STDOUT_FILENO);
    dup2(g_capture_fd, STDERR_FILENO);
}

void DriverLog::end() {
    if (g_saved_out < 0) return;
    std::fflush(stdout);
    std::fflush(stderr);
    g_in_call = 0;
    restore_outputs();
    ::close(g_saved_out);
    ::close(g_saved_err);
    g_saved_out = g_saved_err = -1;

    const off_t size = lseek(g_capture_fd, 0, SEEK_END);
    if (size <= 0) return;
    std::string text(size_t(size), '\0');
    lseek(g_capture_fd, 0, SEEK_SET);
    size_t got = 0;
    while (got < text.size()) {
        const ssize_t n = ::read(g_capture_fd, &text[got], text.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += size_t(n);
    }
    text.resize(got);
    if (ftruncate(g_capture_fd, 0) != 0) std::perror("plc-host: driver output buffer");
    lseek(g_capture_fd, 0, SEEK_SET);
    kept_ += text;
}

std::string DriverLog::take() {
    std::string out;
    out.swap(kept_);
    return out;
}

} // namespace plc::host
