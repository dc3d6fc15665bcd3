#include "tools/host_options.h"

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/host_refs.h"
#include "tools/host_values.h"

#ifndef PLC_HOST_VERSION
#define PLC_HOST_VERSION "unknown"
#endif

namespace plc::host {
namespace {

const char kUsage[] =
    R"(Usage:
  plc-host [OPTIONS] read  NAME[INDEX] [COUNT]
  plc-host [OPTIONS] write NAME[INDEX] VALUE... [--verify]
  plc-host [OPTIONS] poll  NAME[INDEX]... [--interval MS] [--times N] [--file LIST]
  plc-host [OPTIONS] tags
  plc-host check LIST
  plc-host --version | -h | --help

Loads libplc_driver.so with dlopen as a panel runtime does, hands it the
controller address (wk_plc_init) and the device port (wk_plc_init2), and reads,
writes or polls controller variables named as in the tag list "PLC%X_%d.csv"
(read by the driver's own parser).

Commands:
  read     print a variable, an element or a run of elements
  write    write values, one per element from NAME[INDEX] on
  poll     read the names every interval through the batch entry
           (wk_OMRON_plc_read); a table refreshed in place on a terminal,
           one line per poll otherwise
  tags     list the variables of the tag list with their tag ids
  check    check a tag list file as the driver reads it: its refusal (line
           and reason), groups of tag ids it cannot reach, a last line
           without a newline (which it skips)

Options:
  --controller ADDR  controller IPv4 address (dotted); required but for check
  --device N         device number: second number of the tag list name and
                     the device port handed to wk_plc_init2 (default 1)
  --dir DIR          directory holding the tag list; the tool changes into it,
                     as the driver opens its tag list and session file in the
                     working directory (default: current)
  --lib PATH         driver library (default: the one built with the tool)
  --json             machine output: one JSON object (one per poll)
  --driver-log       show the driver's own diagnostics ("[PLC] ..." lines) on
                     standard error (under the table when polling a terminal);
                     hidden otherwise
  --quiet            no progress lines ("connecting to ...")
  --verify           write: read every written value back and show both
  --interval MS      poll: time from the start of one poll to the next (1000)
  --times N          poll: number of polls (default: until interrupted)
  --file LIST        poll: more names from LIST (one per line, # comments)
  --version          the version of plc-host and of the driver it was built with
  -h, --help         this text

Names:
  NAME               a scalar, a whole array, or a text
  NAME[I]            element I; one-dimensional arrays use the declared
                     subscript, multi-dimensional ones NAME[I,J] or NAME[I,J,K]
                     (or a single number: the linear position from 0)
  NAME[A..B]         the run of elements from A to B (same subscript forms)
  read COUNT         number of elements from NAME[I] (characters for a
                     STRING without a declared length)

Values (the syntax of plc-sim --set, printed the same way):
  BOOL               true, false (TRUE, True, 1, 0)
  SINT INT DINT LINT, USINT UINT UDINT ULINT
                     decimal, or 0x hex for the bit pattern
  BYTE WORD DWORD LWORD
                     printed in hex (0x00FF); written in hex or decimal
  REAL LREAL         decimal floating point (1.5, -2e-3)
  STRING STRING2     the text (quote it in the shell when it has blanks)
  TIME STIME         milliseconds, or numbers with units d h m s ms us ns:
                     1500, 1.5s, 2s, 1h30m, 250us; printed as 1h30m, 1.5ms
                     (a TIME is written with microsecond resolution)
  DATE               2024-03-15
  TIME_OF_DAY        13:45:30.25 (or 13:45)
  DATE_AND_TIME      2024-03-15-13:45:30.25
  Every time type also takes a duration since its origin (midnight, or
  1970-01-01): 1000 is one second past it.

TIME values and BOOL array runs are read through the batch entry; dates,
times of day, STIME and texts without a declared length are read through
the single read, in a poll too.

Exit status:
  0   success
  2   communication failure: no connection to the controller, no reply, a
      reply that was not the expected one, a write the controller refused
  3   configuration or tag error: tag list missing or refused, a variable
      the controller does not know, an element the driver refuses, driver
      library not loadable
  64  usage error (bad option, argument or value)
  65  unknown variable name or element index outside the variable
  130 interrupted (Ctrl-C)
poll exits with the status of its last poll.
)";

struct Parser {
    Options o;
    int argc;
    char **argv;
    int i = 1;

    [[noreturn]] void usage(const std::string &m) const {
        die(kExitUsage, m + " (see plc-host --help)", o.json);
    }
    std::string value_of(const std::string &name, const std::string *inline_value) {
        if (inline_value) return *inline_value;
        if (i + 1 >= argc) usage(name + " needs a value");
        return argv[++i];
    }
    unsigned long number(const std::string &name, const std::string *inline_value,
                         unsigned long max, const char *what) {
        unsigned long v = 0;
        if (!parse_unsigned(value_of(name, inline_value), max, v)) usage(name + " needs " + what);
        return v;
    }
    bool flag(const std::string &a);
    void option(const std::string &name, const std::string *inline_value);
    void check() const;
};

bool Parser::flag(const std::string &a) {
    if (a == "-h" || a == "--help") {
        std::fputs(kUsage, stdout);
        std::exit(kExitOk);
    }
    if (a == "--version") {
        std::printf("plc-host %s (built with libplc_driver %s)\n", PLC_HOST_VERSION,
                    PLC_HOST_VERSION);
        std::exit(kExitOk);
    }
    bool *const flags[] = {&o.json, &o.driver_log, &o.quiet, &o.verify};
    const char *const names[] = {"--json", "--driver-log", "--quiet", "--verify"};
    for (size_t k = 0; k < 4; ++k) {
        if (a == names[k]) return *flags[k] = true;
    }
    return false;
}

void Parser::option(const std::string &name, const std::string *inline_value) {
    if (name == "--controller") {
        o.controller_text = value_of(name, inline_value);
        in_addr addr{};
        if (inet_pton(AF_INET, o.controller_text.c_str(), &addr) != 1)
            usage("--controller needs a dotted IPv4 address, not '" + o.controller_text + "'");
        o.controller = ntohl(addr.s_addr);
    } else if (name == "--device") {
        o.device = unsigned(number(name, inline_value, 255, "a number from 0 to 255"));
    } else if (name == "--dir") {
        o.dir = value_of(name, inline_value);
    } else if (name == "--lib") {
        o.lib = value_of(name, inline_value);
    } else if (name == "--interval") {
        o.interval_ms = long(number(name, inline_value, 86400000, "milliseconds"));
    } else if (name == "--times") {
        o.times = long(number(name, inline_value, LONG_MAX, "a positive number"));
        if (o.times == 0) usage("--times needs a positive number");
    } else if (name == "--file") {
        o.files.push_back(value_of(name, inline_value));
    } else {
        usage("unknown option " + name);
    }
}

void Parser::check() const {
    static const char *const kCommands[] = {"read", "write", "poll", "tags", "check"};
    bool known = false;
    for (const char *c : kCommands) known = known || o.command == c;
    if (o.command.empty()) usage("no command given");
    if (!known) usage("unknown command '" + o.command + "'");
    if (o.command == "check" && o.args.size() != 1) usage("check takes one LIST file");
    if (o.command != "check" && !o.controller) usage("--controller ADDR is required");
    if (o.command != "poll" && (!o.files.empty() || o.times != -1))
        usage("--file and --times belong to poll");
    if (o.command != "write" && o.verify) usage("--verify belongs to write");
}

} // namespace

[[noreturn]] void die(int code, const std::string &message, bool json) {
    std::fflush(stdout);
    std::fprintf(stderr, "plc-host: %s\n", message.c_str());
    if (json) std::printf("{\"status\":%d,\"error\":%s}\n", code, json_string(message).c_str());
    std::fflush(stdout);
    std::exit(code);
}

bool parse_unsigned(const std::string &s, unsigned long max, unsigned long &out) {
    if (s.empty() || s[0] == '-') return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

Options parse_options(int argc, char **argv) {
    Parser p{Options{}, argc, argv};
    for (int k = 1; k < argc; ++k) p.o.json = p.o.json || std::strcmp(argv[k], "--json") == 0;
    bool options_done = false;
    for (; p.i < argc; ++p.i) {
        std::string a = argv[p.i];
        const bool is_option =
            !options_done && a.size() >= 2 && a[0] == '-' && (a[1] == '-' || a == "-h");
        if (!is_option) {
            (p.o.command.empty() ? p.o.command : p.o.args.emplace_back()) = a;
            continue;
        }
        if (a == "--") {
            options_done = true;
            continue;
        }
        if (p.flag(a)) continue;
        const size_t eq = a.find('=');
        if (eq == std::string::npos) {
            p.option(a, nullptr);
        } else {
            const std::string value = a.substr(eq + 1);
            p.option(a.substr(0, eq), &value);
        }
    }
    p.check();
    return p.o;
}

} // namespace plc::host
