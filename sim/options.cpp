#include "sim/options.h"

#include <cstdlib>
#include <map>

namespace plc::sim {

namespace {

constexpr unsigned long kMaxTimeoutMs = 24ul * 3600 * 1000;

const char kUsage[] =
    "usage: plc-sim [options]\n"
    "  --address ADDR        IPv4 address to listen on, TCP and UDP (default 127.0.0.1)\n"
    "  --port N              encapsulation port, TCP and UDP (default 44818)\n"
    "  --tags FILE           declare the variables of a tag list file (repeatable)\n"
    "  --set NAME=VALUE      initial value; NAME may end in [i], [i,j] or [i,j,k];\n"
    "                        an array named without subscript gets VALUE in every\n"
    "                        element (repeatable, applied in order)\n"
    "  --live                animate LiveCounter (+1 every 100 ms), LiveSine (REAL,\n"
    "                        amplitude 100, period 10 s), LiveToggle (BOOL, every 1 s)\n"
    "  --live-counter NAME   --live-sine NAME   --live-toggle NAME   other names\n"
    "  --stats FILE          counters as 'key value' lines, rewritten after every message\n"
    "  --store FILE          'NAME TYPE VALUE...' lines, rewritten after every write\n"
    "  --connection-timeout MS\n"
    "                        close a connection idle for MS ms when that is sooner than\n"
    "                        its own timeout (O->T RPI x 4..512 from the Forward_Open)\n"
    "  --answer-unknown-connections\n"
    "                        answer a connected request naming no open connection with\n"
    "                        status 0x01/0x0107 instead of dropping it silently\n"
    "  --fault FAULT         a fault from the start (repeatable; syntax below)\n"
    "  --refuse-forward-open the same as --fault forward-open:refuse\n"
    "  --control PATH        control channel: a UNIX socket taking one command a connection\n"
    "  --verbose             trace every message received and sent\n"
    "  --help                this text\n"
    "Values: BOOL true/false/1/0; integers decimal or 0x hex; REAL/LREAL decimal;\n"
    "STRING text verbatim; TIME and STIME milliseconds, or numbers with units\n"
    "d/h/m/s/ms/us/ns (1.5 = 1.5 ms, 2s, 1h30m); DATE 2024-03-15; TIME_OF_DAY\n"
    "13:45:30.5; DATE_AND_TIME 2024-03-15-13:45:30 (each also a duration since its\n"
    "origin, 1000 = 1 s). The same syntax as plc-host's. SIGUSR1 prints the store.\n"
    "ListIdentity, ListServices and ListInterfaces are answered over TCP and UDP.\n"
    "\n"
    "Faults: KIND:ACTION[=VALUE][,after=N][,times=N][,p=P][,seed=S]\n"
    "  KIND    register, forward-open, forward-close, resolve, read, write,\n"
    "          connected (any SendUnitData), any (every message)\n"
    "  ACTION  no-reply          carried out, never answered\n"
    "          delay[=MS]        answered after MS ms (default 12000)\n"
    "          close | reset     half the reply, then the TCP connection closed / reset\n"
    "          truncate[=N]      only N body bytes (default half), length to match\n"
    "          length=+N|-N|N    the header's length field lies; the bytes are true\n"
    "          session | connection-id | sequence | service\n"
    "                            that field of the reply is wrong\n"
    "          status=GG[:EEEE...]  CIP general status GG, additional status words\n"
    "          fewer-bytes[=N] | more-bytes[=N]  N response data bytes (default 1)\n"
    "          garbage[=N]       N random bytes instead of the reply (default 64)\n"
    "          huge[=N]          the reply, then filler: N bytes in all (default 300000)\n"
    "          refuse            (forward-open) refused: out of connections\n"
    "          duplicate         the reply sent twice\n"
    "          restart           not carried out, no reply; every session, connection\n"
    "                            and handle forgotten, every TCP connection closed\n"
    "  after=N   skip the first N messages of the kind (counted from when it is set)\n"
    "  times=N   apply at most N times (default: no limit)\n"
    "  p=P,seed=S  apply with probability P, drawn from a generator seeded with S\n"
    "The first fault set that applies to a message wins.\n"
    "\n"
    "Control commands (--control): fault FAULT | clear [KIND] | faults | stats | restart\n"
    "Answer: 'ok' or 'error: why' on the first line, then the command's output.\n";

bool ParseNumber(const std::string &text, unsigned long max, unsigned long *out) {
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *out = std::strtoul(text.c_str(), nullptr, 10);
    return *out <= max;
}

using Setter = std::string (*)(Options &, const std::string &);

std::string SetPort(Options &o, const std::string &v) {
    unsigned long port = 0;
    if (!ParseNumber(v, 65535, &port)) return "bad port: " + v;
    o.server.port = uint16_t(port);
    return {};
}

std::string SetTimeout(Options &o, const std::string &v) {
    unsigned long ms = 0;
    if (!ParseNumber(v, kMaxTimeoutMs, &ms) || ms == 0) return "bad connection timeout: " + v;
    o.server.connection_timeout = std::chrono::milliseconds(ms);
    return {};
}

std::string AddFault(Options &o, const std::string &v) {
    std::string error;
    const auto fault = ParseFault(v, &error);
    if (!fault) return error;
    o.faults.push_back(*fault);
    return {};
}

std::string AddAssignment(Options &o, const std::string &v) {
    if (v.find('=') == std::string::npos) return "--set needs NAME=VALUE";
    o.assignments.push_back(v);
    return {};
}

std::string AddTagList(Options &o, const std::string &v) {
    o.tag_files.push_back(v);
    return {};
}

// Options whose value is checked or collected.
Setter CheckedOption(const std::string &name) {
    static const std::map<std::string, Setter> setters = {
        {"--port", SetPort},    {"--connection-timeout", SetTimeout},
        {"--fault", AddFault},  {"--set", AddAssignment},
        {"--tags", AddTagList},
    };
    const auto it = setters.find(name);
    return it == setters.end() ? nullptr : it->second;
}

// Options that keep their value as it is written.
std::string *TextOption(Options &o, const std::string &name) {
    const std::pair<const char *, std::string *> fields[] = {
        {"--address", &o.server.address},    {"--live-counter", &o.live_names.counter},
        {"--live-sine", &o.live_names.sine}, {"--live-toggle", &o.live_names.toggle},
        {"--stats", &o.stats_file},          {"--store", &o.store_file},
        {"--control", &o.control_socket},
    };
    for (const auto &[option, field] : fields) {
        if (name == option) return field;
    }
    return nullptr;
}

// Flags without a value; false for an unknown one.
bool SetFlag(Options &o, const std::string &arg) {
    if (arg == "--help" || arg == "-h")
        o.help = true;
    else if (arg == "--live")
        o.live = true;
    else if (arg == "--verbose")
        o.verbose = true;
    else if (arg == "--answer-unknown-connections")
        o.server.answer_unknown_connections = true;
    else if (arg == "--refuse-forward-open")
        AddFault(o, "forward-open:refuse");
    else
        return false;
    return true;
}

} // namespace

void PrintUsage(std::FILE *out) { std::fputs(kUsage, out); }

std::string ParseOptions(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool has_value = false;
        if (const size_t eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            has_value = true;
        }
        if (!has_value && SetFlag(o, arg)) continue;
        const Setter setter = CheckedOption(arg);
        std::string *text = setter ? nullptr : TextOption(o, arg);
        if (!setter && !text) return "unknown option: " + arg;
        if (!has_value) {
            if (i + 1 >= argc) return arg + " needs a value";
            value = argv[++i];
        }
        if (text) {
            *text = value;
        } else if (std::string error = setter(o, value); !error.empty()) {
            return error;
        }
    }
    return {};
}

} // namespace plc::sim
