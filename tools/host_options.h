// plc-host's command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plc::host {

struct Options {
    std::string command;
    std::vector<std::string> args;
    std::optional<uint32_t> controller; // first octet in the most significant byte
    std::string controller_text;
    unsigned device = 1;
    std::string dir = ".";
    std::string lib;
    bool json = false;
    bool driver_log = false;
    bool quiet = false;
    bool verify = false;
    long interval_ms = 1000;
    long times = -1; // forever
    std::vector<std::string> files;
};

// Parses the command line; prints the help or the version and exits for
// -h/--help and --version, and exits with 64 after a message on a usage error.
Options parse_options(int argc, char **argv);

// Prints "plc-host: MESSAGE" on standard error (and a JSON object with the
// status on standard output when `json`), then exits with `code`.
[[noreturn]] void die(int code, const std::string &message, bool json);

bool parse_unsigned(const std::string &s, unsigned long max, unsigned long &out);

} // namespace plc::host
