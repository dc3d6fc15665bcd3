// Internals of the socket layer (the exported wrappers are in plc_driver.h).
#pragma once

#include <array>
#include <cstdint>

namespace plc {

// Dotted text of an IPv4 address whose most significant byte is the first
// octet: 0xC0A8010A becomes "192.168.1.10". Always terminated.
std::array<char, 16> address_text(uint32_t address);

} // namespace plc
