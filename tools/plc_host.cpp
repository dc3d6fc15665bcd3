// plc-host: drives libplc_driver.so exactly as the operator-panel runtime does
// (dlopen, the C entry points, the host's request records) to read, write and
// poll controller variables by name from a shell.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "tools/host_commands.h"

#ifndef PLC_HOST_DEFAULT_LIBRARY
#define PLC_HOST_DEFAULT_LIBRARY "libplc_driver.so"
#endif

namespace plc::host {
namespace {

std::string absolute_path(const std::string &p) {
    if (p.empty() || p[0] == '/') return p;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return p;
    return std::string(cwd) + "/" + p;
}

bool file_exists(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The library built with the tool, else one next to it or a directory above.
std::string default_library() {
    if (file_exists(PLC_HOST_DEFAULT_LIBRARY)) return PLC_HOST_DEFAULT_LIBRARY;
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n > 0) {
        exe[n] = '\0';
        std::string dir(exe);
        dir = dir.substr(0, dir.rfind('/'));
        for (const std::string &c : {dir + "/libplc_driver.so", dir + "/../libplc_driver.so"})
            if (file_exists(c)) return c;
    }
    return PLC_HOST_DEFAULT_LIBRARY;
}

// Names from the command line and the --file lists (# comments, blanks, CRLF).
std::vector<std::string> poll_names(const Options &opt) {
    std::vector<std::string> names = opt.args;
    for (const std::string &f : opt.files) {
        std::ifstream in(f);
        if (!in) die(kExitUsage, "cannot open name list " + f, opt.json);
        for (std::string line; std::getline(in, line);) {
            const size_t s = line.find_first_not_of(" \t\r");
            const size_t e = line.find_last_not_of(" \t\r");
            if (s == std::string::npos || line[s] == '#') continue;
            names.push_back(line.substr(s, e - s + 1));
        }
    }
    return names;
}

int run(int argc, char **argv) {
    Host h;
    h.opt = parse_options(argc, argv);
    if (h.opt.command == "check") return cmd_check(h.opt);
    const bool json = h.opt.json;
    h.lib_path = h.opt.lib.empty() ? default_library() : absolute_path(h.opt.lib);
    const std::vector<std::string> names =
        h.opt.command == "poll" ? poll_names(h.opt) : std::vector<std::string>{};

    if (chdir(h.opt.dir.c_str()) != 0)
        die(kExitConfig, "cannot change into " + h.opt.dir + ": " + std::strerror(errno), json);
    h.tag_list = tag_list_file_name(*h.opt.controller, h.opt.device);
    if (!h.tags.load(h.tag_list)) die(kExitConfig, h.tags.refusal_text(), json);
    if (h.opt.command == "tags") return cmd_tags(h);
    if (h.opt.command == "read") return cmd_read(h);
    if (h.opt.command == "write") return cmd_write(h);
    return cmd_poll(h, names);
}

} // namespace
} // namespace plc::host

int main(int argc, char **argv) {
    try {
        return plc::host::run(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "plc-host: %s\n", e.what());
        return plc::host::kExitComm;
    }
}
