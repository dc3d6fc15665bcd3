// The host's entry points. Each one is a barrier: no C++ exception leaves the
// library, and pointers the host passes are checked before they are used.
//
// Refusals at the barrier:
//  - a null pointer from the host returns 3 (a configuration error: the call
//    cannot name anything), before any state changes;
//  - an exception escaping a request entry (read, write, batch read) returns 2
//    and clears `init`: the exchange may have been cut short, so the next call
//    rebuilds the connection before it uses it again; the host retries a 2 on
//    its next poll. An exception in the set-up entries returns 3.
#include <cstdio>
#include <exception>

#include "driver/connection.h"
#include "driver/driver_link.h"
#include "driver/plc_state.h"
#include "engine/batch_read.h"
#include "engine/engine_state.h"
#include "engine/single_request.h"
#include "platform/plc_ethernet.h"
#include "plc_driver.h"
#include "tags/tag_cache.h"
#include "util/status.h"

namespace plc {
namespace {

constexpr uint16_t kDriverInfoFirst = 236;
constexpr uint16_t kDriverInfoSecond = 10;

void report_exception(const char *entry, const char *what) {
    std::printf("[PLC] %s aborted: %s\r\n", entry, what);
}

// Runs `body`, turning any exception into `status`; request entries also mark
// the connection for rebuilding.
template <typename Body>
int32_t guarded(const char *entry, Status status, bool request_entry, Body &&body) noexcept {
    try {
        return to_host(body());
    } catch (const std::exception &e) {
        report_exception(entry, e.what());
    } catch (...) {
        report_exception(entry, "unknown exception");
    }
    if (request_entry) init = 0;
    return to_host(status);
}

} // namespace
} // namespace plc

extern "C" {

int32_t wk_plc_driver_info(DriverInfo *info) {
    if (info == nullptr) return plc::to_host(plc::Status::ConfigError);
    info->first = plc::kDriverInfoFirst;
    info->second = plc::kDriverInfoSecond;
    return plc::to_host(plc::Status::Ok);
}

int32_t wk_plc_init(DriverSettings *settings) {
    if (settings == nullptr) return plc::to_host(plc::Status::ConfigError);
    return plc::guarded("wk_plc_init", plc::Status::ConfigError, false, [settings]() {
        wk_srand();
        const auto text = plc::address_text(settings->ip_address);
        std::snprintf(plc::ip_buff, sizeof plc::ip_buff, "%s", text.data());
        std::printf("[PLC] ");
        std::printf("server ip = %s", plc::ip_buff);
        std::printf(", at line: %d\r\n", 678);
        plc::init_tag(plc::g_plc_tags);
        plc::label_reupdata = 1;
        plc::g_s_settings = settings;
        return plc::Status::Ok;
    });
}

int32_t wk_plc_init2(uint32_t /*unused1*/, uint32_t /*unused2*/, const uint8_t *device_port) {
    if (device_port == nullptr) return plc::to_host(plc::Status::ConfigError);
    return plc::guarded("wk_plc_init2", plc::Status::ConfigError, false, [device_port]() {
        plc::deviceport = *device_port;
        plc::read_past_session();
        return plc::OMRON_EIP_INIT(0);
    });
}

int32_t wk_plc_read(PlcRequest *request, PlcData *data) {
    if (request == nullptr || data == nullptr || data->buffer == nullptr) {
        return plc::to_host(plc::Status::ConfigError);
    }
    return plc::guarded("wk_plc_read", plc::Status::CommFailure, true, [request, data]() {
        plc::DriverLink link;
        return plc::single_read(link, plc::g_s_settings, *request, *data);
    });
}

int32_t wk_plc_write(PlcRequest *request, PlcData *data) {
    if (request == nullptr || data == nullptr || data->buffer == nullptr) {
        return plc::to_host(plc::Status::ConfigError);
    }
    return plc::guarded("wk_plc_write", plc::Status::CommFailure, true, [request, data]() {
        plc::DriverLink link;
        return plc::write_entry(link, plc::g_s_settings, *request, *data);
    });
}

int32_t wk_OMRON_plc_read(PlcRequest *requests, int32_t count) {
    // The batch names its tag list from the first record, even for a count of 0.
    if (requests == nullptr) return plc::to_host(plc::Status::ConfigError);
    return plc::guarded("wk_OMRON_plc_read", plc::Status::CommFailure, true, [requests, count]() {
        plc::DriverLink link;
        return plc::batch_read(link, plc::g_s_settings, requests, count);
    });
}

int32_t wk_OMRON_plc_register(void) { return plc::to_host(plc::Status::Ok); }

void wk_plc_slave_main(void) {
    // The driver has no slave mode; the host's slave thread is parked here.
    for (;;) {
        try {
            wk_sleep(5);
            std::puts("PLC DRIVER : slave mode not support!\r");
        } catch (...) {
            // Nothing above throws; the loop must not end either way.
        }
    }
}

} // extern "C"
