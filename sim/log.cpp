#include "sim/log.h"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace plc::sim {

namespace {
std::atomic<bool> g_verbose{false};
std::mutex g_output;
} // namespace

void Log::SetVerbose(bool on) { g_verbose = on; }
bool Log::verbose() { return g_verbose; }

void Log::Line(const std::string &text) {
    std::lock_guard<std::mutex> lock(g_output);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Log::Block(const std::string &text) {
    std::lock_guard<std::mutex> lock(g_output);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void Log::Warn(const std::string &text) {
    std::lock_guard<std::mutex> lock(g_output);
    std::fprintf(stderr, "plc-sim: warning: %s\n", text.c_str());
    std::fflush(stderr);
}

} // namespace plc::sim
