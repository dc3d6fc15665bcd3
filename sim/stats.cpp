#include "sim/stats.h"

#include <cstdio>
#include <utility>

#include "sim/log.h"

namespace plc::sim {

std::string Stats::Render() const {
    const std::pair<const char *, const std::atomic<uint64_t> *> rows[] = {
        {"messages", &messages},
        {"register_requests", &register_requests},
        {"sessions_registered", &sessions_registered},
        {"sessions_open", &sessions_open},
        {"forward_open", &forward_open},
        {"forward_close", &forward_close},
        {"connections_open", &connections_open},
        {"resolve_requests", &resolve_requests},
        {"resolve_names", &resolve_names},
        {"read_requests", &read_requests},
        {"read_items", &read_items},
        {"write_requests", &write_requests},
        {"connected_requests", &connected_requests},
        {"dropped_requests", &dropped_requests},
        {"connections_timed_out", &connections_timed_out},
        {"discovery_requests", &discovery_requests},
        {"faults_applied", &faults_applied},
        {"restarts", &restarts},
        {"errors", &errors},
        {"sequence_anomalies", &sequence_anomalies},
        {"retransmissions", &retransmissions},
    };
    std::string text;
    for (const auto &[key, value] : rows) {
        text += key;
        text += ' ';
        text += std::to_string(value->load());
        text += '\n';
    }
    return text;
}

bool WriteFileAtomically(const std::string &path, const std::string &content) {
    const std::string temp = path + ".tmp";
    std::FILE *f = std::fopen(temp.c_str(), "wb");
    if (!f) return false;
    const bool written = std::fwrite(content.data(), 1, content.size(), f) == content.size();
    const bool closed = std::fclose(f) == 0;
    if (!written || !closed || std::rename(temp.c_str(), path.c_str()) != 0) {
        std::remove(temp.c_str());
        return false;
    }
    return true;
}

void PublishedFile::Write(const std::string &content) {
    if (!enabled()) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!WriteFileAtomically(path_, content) && !failure_reported_) {
        failure_reported_ = true;
        Log::Warn("cannot write " + path_);
    }
}

} // namespace plc::sim
