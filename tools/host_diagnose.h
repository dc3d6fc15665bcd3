// Plain words for what went wrong, where the driver only returns 3, -1 or 2:
// what it printed during the call (its log), how long the call took, and a
// look at the panel's interfaces and the controller's port.
#pragma once

#include <cstdint>
#include <string>

namespace plc::host {

// Why the bring-up (wk_plc_init2) ended with `status`, from the driver's log
// of the call and its duration; probes the interfaces and the port.
std::string explain_bringup(int status, const std::string &log, uint32_t controller,
                            double seconds);

// What a read, write or poll status means, from the driver's log of the call.
std::string explain_status(int status, const std::string &log, bool write, uint32_t controller,
                           double seconds);

// "127.0.0.1" for an address whose first octet is the most significant byte.
std::string address_text(uint32_t address);

} // namespace plc::host
