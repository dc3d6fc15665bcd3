// One-line descriptions of requests and replies for the verbose trace.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/encap.h"

namespace plc::sim {

std::string Hex(uint32_t v, int width = 2);
const char *CommandName(uint16_t command);

// "rx" / "tx" lines without their direction and peer.
std::string DescribeRequest(const Header &h, const std::vector<uint8_t> &body);
std::string DescribeReply(const std::vector<uint8_t> &message);

} // namespace plc::sim
