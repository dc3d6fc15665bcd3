#include "tests/integration/harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "sim/control_client.h"

namespace plc::itest {
namespace {

void sleep_ms(int ms) {
    timespec ts{ms / 1000, long(ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

double now_s() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

std::optional<std::string> read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Child side of a fork: never returns.
[[noreturn]] void exec_child(const std::vector<std::string> &argv, const std::string &cwd,
                             const std::string &out, const std::string &err) {
    // The child must not outlive the test, whatever happens to the test.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (chdir(cwd.c_str()) != 0) _exit(126);
    const int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int in = ::open("/dev/null", O_RDONLY);
    if (o < 0 || e < 0 || in < 0) _exit(126);
    dup2(in, 0);
    dup2(o, 1);
    dup2(e, 2);
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

// Unquotes one store token: "text" with \" \\ \xNN escapes; others as they are.
std::string unquote(const std::string &token) {
    if (token.size() < 2 || token.front() != '"') return token;
    std::string out;
    for (size_t i = 1; i + 1 < token.size(); ++i) {
        if (token[i] != '\\' || i + 2 >= token.size()) {
            out += token[i];
            continue;
        }
        const char c = token[++i];
        if (c == 'x' && i + 2 < token.size()) {
            out += char(std::strtol(token.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            out += c;
        }
    }
    return out;
}

// Splits a store line's values: blanks separate, quoted texts are one token.
std::vector<std::string> tokens(const std::string &s) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && s[i] == ' ') ++i;
        if (i >= s.size()) break;
        size_t j = i;
        if (s[i] == '"') {
            ++j;
            while (j < s.size() && s[j] != '"') j += (s[j] == '\\') ? 2 : 1;
            j = std::min(s.size(), j + 1);
        } else {
            while (j < s.size() && s[j] != ' ') ++j;
        }
        out.push_back(unquote(s.substr(i, j - i)));
        i = j;
    }
    return out;
}

} // namespace

std::string SimPath() { return PLC_SIM_PATH; }
std::string HostPath() { return PLC_HOST_PATH; }
std::string DriverLibraryPath() { return PLC_DRIVER_PATH; }
std::string TestTagListPath() {
    return std::string(PLC_SOURCE_DIR) + "/tests/integration/" + kTagListName;
}
std::string ExampleTagListPath() {
    return std::string(PLC_SOURCE_DIR) + "/examples/" + kTagListName;
}

// ---- WorkDir -----------------------------------------------------------------

WorkDir::WorkDir() {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd)) previous_cwd_ = cwd;
    const char *tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/plc-itest-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    path_ = buf.data();
    if (chdir(path_.c_str()) != 0) {
        std::perror("chdir");
        std::abort();
    }
}

WorkDir::~WorkDir() {
    if (!previous_cwd_.empty() && chdir(previous_cwd_.c_str()) != 0) { /* nothing to do */
    }
    if (std::getenv("PLC_ITEST_KEEP") == nullptr) {
        const std::string cmd = "rm -rf '" + path_ + "'";
        if (std::system(cmd.c_str()) != 0) { /* left behind in $TMPDIR */
        }
    } else {
        std::fprintf(stderr, "kept %s\n", path_.c_str());
    }
}

void WorkDir::Write(const std::string &name, const std::string &content) const {
    std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
    out << content;
}

std::optional<std::string> WorkDir::Read(const std::string &name) const {
    return read_file(file(name));
}

bool WorkDir::Exists(const std::string &name) const {
    struct stat st {};
    return ::stat(file(name).c_str(), &st) == 0;
}

void WorkDir::Remove(const std::string &name) const { ::unlink(file(name).c_str()); }

// ---- Sim ---------------------------------------------------------------------

Sim::~Sim() { Kill(); }

bool Sim::Start(const SimConfig &config, std::string *error) {
    config_ = config;
    return Restart(error);
}

bool Sim::Restart(std::string *error) {
    Kill();
    ++starts_;
    std::vector<std::string> argv = {SimPath(),       "--tags",  config_.tag_list, "--address",
                                     config_.address, "--port",  "44818",          "--stats",
                                     "stats.txt",     "--store", "store.txt",      "--control",
                                     "control.sock"};
    for (const std::string &s : config_.sets) {
        argv.push_back("--set");
        argv.push_back(s);
    }
    argv.insert(argv.end(), config_.extra.begin(), config_.extra.end());
    const std::string out = dir_.file("sim.out." + std::to_string(starts_));
    const std::string err = dir_.file("sim.err");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        if (error) *error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0) exec_child(argv, dir_.path(), out, err);
    pid_ = pid;

    // The ready line says the listener is bound; nothing is timed beyond a
    // generous limit for a machine under load.
    const double deadline = now_s() + 20;
    while (now_s() < deadline) {
        if (read_file(out).value_or("").find("plc-sim listening on") != std::string::npos)
            return true;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            if (error)
                *error = "plc-sim exited before it was ready: " + read_file(err).value_or("");
            return false;
        }
        sleep_ms(5);
    }
    if (error) *error = "plc-sim did not print its ready line: " + read_file(err).value_or("");
    Kill();
    return false;
}

void Sim::Kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {}
    pid_ = -1;
}

std::map<std::string, uint64_t> Sim::Stats() const {
    // plc-sim rewrites the file before it sends a reply, but a message that
    // gets none (UnRegisterSession, a dropped client) may still be on its
    // way: take the file once it holds still. (Settling only; no test asserts
    // on how long it takes.)
    std::string text = read_file(dir_.file("stats.txt")).value_or("");
    for (int i = 0; i < 200; ++i) {
        sleep_ms(15);
        std::string again = read_file(dir_.file("stats.txt")).value_or("");
        if (again == text) break;
        text = std::move(again);
    }
    std::map<std::string, uint64_t> out;
    std::istringstream in(text);
    std::string key;
    uint64_t value = 0;
    while (in >> key >> value) out[key] = value;
    return out;
}

uint64_t Sim::Stat(const std::string &key) const {
    const auto s = Stats();
    const auto it = s.find(key);
    return it == s.end() ? 0 : it->second;
}

std::optional<std::vector<std::string>> Sim::Values(const std::string &name) const {
    std::istringstream in(read_file(dir_.file("store.txt")).value_or(""));
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, name.size() + 1, name + " ") != 0) continue;
        std::vector<std::string> t = tokens(line.substr(name.size() + 1));
        if (t.empty()) return std::nullopt;
        t.erase(t.begin()); // the type
        return t;
    }
    return std::nullopt;
}

std::string Sim::Output() const {
    std::string all;
    for (int i = 1; i <= starts_; ++i)
        all += read_file(dir_.file("sim.out." + std::to_string(i))).value_or("");
    return all + read_file(dir_.file("sim.err")).value_or("");
}

bool Sim::SetFault(const std::string &fault) const {
    return sim::control::SetFault(dir_.file("control.sock"), fault);
}

bool Sim::ClearFaults() const { return sim::control::ClearFaults(dir_.file("control.sock")); }

// ---- StdoutCapture -----------------------------------------------------------

StdoutCapture::StdoutCapture() {
    std::fflush(stdout);
    fd_ = memfd_create("driver-stdout", MFD_CLOEXEC);
    saved_ = dup(STDOUT_FILENO);
    dup2(fd_, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
    ::close(fd_);
}

std::string StdoutCapture::text() {
    std::fflush(stdout);
    std::string out;
    char buf[4096];
    off_t at = 0;
    for (;;) {
        const ssize_t n = pread(fd_, buf, sizeof buf, at);
        if (n <= 0) break;
        out.append(buf, size_t(n));
        at += n;
    }
    return out;
}

// ---- driver ------------------------------------------------------------------

int32_t Host::Start(uint32_t address, uint8_t device_port) {
    DriverInfo info{};
    wk_plc_driver_info(&info);
    settings.ip_address = address;
    wk_plc_init(&settings);
    return wk_plc_init2(0, 0, &device_port);
}

PlcRequest Record(uint32_t tag_id, uint32_t element, uint16_t count, uint16_t device) {
    PlcRequest r{};
    r.device = device;
    r.tag_high = tag_id >= PLC_INDEXED_TAG_BASE ? uint8_t(tag_id >> 16) : 0;
    r.address = (tag_id & 0xFFFFu) << 16 | (element & 0xFFFFu);
    r.count = count;
    return r;
}

RunResult RunProgram(const std::vector<std::string> &argv, const std::string &cwd,
                     int timeout_seconds) {
    RunResult r;
    char out_name[] = "/tmp/plc-itest-out-XXXXXX";
    char err_name[] = "/tmp/plc-itest-err-XXXXXX";
    const int o = mkstemp(out_name);
    const int e = mkstemp(err_name);
    if (o < 0 || e < 0) return r;
    ::close(o);
    ::close(e);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) exec_child(argv, cwd, out_name, err_name);
    const double deadline = now_s() + timeout_seconds;
    int status = 0;
    for (;;) {
        const pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid) break;
        if (now_s() > deadline) {
            ::kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        sleep_ms(2);
    }
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read_file(out_name).value_or("");
    r.err = read_file(err_name).value_or("");
    ::unlink(out_name);
    ::unlink(err_name);
    return r;
}

uint32_t FloatBits(float f) {
    uint32_t w;
    std::memcpy(&w, &f, 4);
    return w;
}

float BitsFloat(uint32_t w) {
    float f;
    std::memcpy(&f, &w, 4);
    return f;
}

} // namespace plc::itest
