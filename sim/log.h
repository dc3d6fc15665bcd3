// Output of the simulator: whole lines on stdout (status, the verbose trace,
// store dumps) and warnings on stderr, never interleaved within a line.
#pragma once

#include <string>

namespace plc::sim {

class Log {
public:
    static void SetVerbose(bool on);
    static bool verbose();
    // One line (a newline is added) on stdout, flushed at once so that a test
    // reading the pipe sees it immediately.
    static void Line(const std::string &text);
    // A block of lines written at once (the store dump).
    static void Block(const std::string &text);
    // "plc-sim: warning: ..." on stderr.
    static void Warn(const std::string &text);
    // Verbose trace line; nothing unless verbose.
    static void Trace(const std::string &text) {
        if (verbose()) Line(text);
    }
};

} // namespace plc::sim
