#include "tools/host_session.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>

#include "tools/host_diagnose.h"

namespace plc::host {
namespace {

constexpr size_t kGuardBytes = 16;
constexpr uint8_t kGuardByte = 0xA5;
constexpr size_t kTableDriverLines = 6;

} // namespace

double Host::now_seconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

void Host::keep_log(std::string text) {
    last_log = text;
    if (!opt.driver_log || text.empty()) return;
    if (!table) {
        std::fputs(text.c_str(), stderr);
        return;
    }
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
        if (line.empty()) continue;
        table_lines.push_back(line);
        if (table_lines.size() > kTableDriverLines) table_lines.erase(table_lines.begin());
    }
}

int Host::start() {
    std::string error;
    if (!lib.load(lib_path, error)) die(kExitConfig, error, opt.json);
    log = std::make_unique<DriverLog>();
    install_interrupt_handler(opt.driver_log, opt.command == "poll");
    DriverInfo info{};
    call([&] { return api().driver_info(&info); });
    settings.ip_address = *opt.controller;
    call([&] { return api().init(&settings); });
    if (!opt.quiet) {
        std::fprintf(stderr, "plc-host: connecting to %s:44818 (device port %u) ...\n",
                     opt.controller_text.c_str(), opt.device);
    }
    const uint8_t port = uint8_t(opt.device);
    return call([&] { return api().init2(0, 0, &port); });
}

void Host::start_or_die() {
    const int init = start();
    if (init != 0)
        die(kExitComm,
            "no connection to the controller at " + opt.controller_text + ": " +
                explain_bringup(init, last_log, *opt.controller, last_seconds),
            opt.json);
}

void Host::die_status(const std::string &what, int status, bool write) {
    die(exit_for_status(status),
        what +
            " failed: " + explain_status(status, last_log, write, *opt.controller, last_seconds) +
            " (driver status " + std::to_string(status) + ")",
        opt.json);
}

int Host::single_read(PlcRequest &request, uint32_t count, size_t bytes,
                      std::vector<uint8_t> &buffer) {
    buffer.assign(bytes + kGuardBytes, kGuardByte);
    PlcData data{};
    data.count = count;
    data.buffer = buffer.data();
    const int status = call([&] { return api().read(&request, &data); });
    for (size_t i = bytes; i < buffer.size(); ++i) {
        if (buffer[i] != kGuardByte)
            die(kExitComm,
                "the driver wrote past the " + std::to_string(bytes) + " bytes of the read buffer",
                opt.json);
    }
    buffer.resize(bytes);
    return status;
}

int Host::batch(PlcRequest *records, size_t n, bool &overrun) {
    std::vector<PlcRequest> copy(records, records + n);
    PlcRequest guard{};
    std::memset(&guard, kGuardByte, sizeof guard);
    copy.push_back(guard);
    copy.push_back(guard);
    const int status = call([&] { return api().batch_read(copy.data(), int32_t(n)); });
    overrun = std::memcmp(&copy[n], &guard, sizeof guard) != 0 ||
              std::memcmp(&copy[n + 1], &guard, sizeof guard) != 0;
    std::copy(copy.begin(), copy.begin() + long(n), records);
    return status;
}

int exit_for_status(int status) {
    if (status == 0) return kExitOk;
    if (status == 3) return kExitConfig;
    return kExitComm;
}

} // namespace plc::host
