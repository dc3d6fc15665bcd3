// plc-sim's command line: the options, their parsing and the usage text.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "sim/faults.h"
#include "sim/live.h"
#include "sim/server.h"

namespace plc::sim {

struct Options {
    ServerOptions server;
    std::vector<std::string> tag_files;
    std::vector<std::string> assignments; // NAME=VALUE
    std::vector<Fault> faults;
    bool live = false;
    LiveOptions live_names;
    std::string stats_file;
    std::string store_file;
    std::string control_socket;
    bool verbose = false;
    bool help = false;
};

void PrintUsage(std::FILE *out);

// "--name value" or "--name=value"; an error message, or empty on success.
std::string ParseOptions(int argc, char **argv, Options &options);

} // namespace plc::sim
