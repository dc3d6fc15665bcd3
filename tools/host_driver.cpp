#include "tools/host_driver.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace plc::host {
namespace {

template <typename Fn>
bool resolve(void *handle, const char *name, Fn &out, std::string &error) {
    dlerror();
    void *sym = dlsym(handle, name);
    if (sym == nullptr) {
        const char *why = dlerror();
        error = std::string("entry point ") + name + " not found" + (why ? std::string(": ") + why : "");
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

DriverOutputRedirect::DriverOutputRedirect(DriverOutput mode) : mode_(mode) {
    if (mode_ == DriverOutput::Stderr || mode_ == DriverOutput::Keep) {
        capture_fd_ = memfd_create("plc-driver-output", MFD_CLOEXEC);
        if (capture_fd_ < 0) {
            if (FILE *f = std::tmpfile()) capture_fd_ = dup(fileno(f));
        }
    } else if (mode_ == DriverOutput::Discard) {
        capture_fd_ = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    }
}

DriverOutputRedirect::~DriverOutputRedirect() {
    if (saved_fd_ >= 0) end();
    if (capture_fd_ >= 0) ::close(capture_fd_);
}

void DriverOutputRedirect::begin() {
    if (mode_ == DriverOutput::Stdout || capture_fd_ < 0 || saved_fd_ >= 0) return;
    std::fflush(stdout);
    saved_fd_ = dup(STDOUT_FILENO);
    if (saved_fd_ < 0) return;
    dup2(capture_fd_, STDOUT_FILENO);
}

void DriverOutputRedirect::end() {
    if (saved_fd_ < 0) return;
    std::fflush(stdout);
    dup2(saved_fd_, STDOUT_FILENO);
    ::close(saved_fd_);
    saved_fd_ = -1;
    if (mode_ != DriverOutput::Stderr && mode_ != DriverOutput::Keep) return;

    const off_t size = lseek(capture_fd_, 0, SEEK_END);
    if (size <= 0) return;
    std::string text(size_t(size), '\0');
    lseek(capture_fd_, 0, SEEK_SET);
    size_t got = 0;
    while (got < text.size()) {
        const ssize_t n = ::read(capture_fd_, &text[got], text.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += size_t(n);
    }
    text.resize(got);
    if (ftruncate(capture_fd_, 0) != 0) { /* the next read starts from 0 anyway */ }
    lseek(capture_fd_, 0, SEEK_SET);
    if (mode_ == DriverOutput::Stderr) write_all(STDERR_FILENO, text.data(), text.size());
    else kept_ += text;
}

std::string DriverOutputRedirect::take_captured() {
    std::string out;
    out.swap(kept_);
    return out;
}

} // namespace plc::host
