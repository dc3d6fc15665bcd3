// The CIP names the client uses: services, classes and general statuses,
// named once for the connection manager, the connected messages and the
// engines that build their request data.
#pragma once

#include <cstdint>

namespace plc::cip {

// A reply carries its request's service code with this bit set.
constexpr uint8_t kReplyBit = 0x80;
constexpr uint8_t reply_service(uint8_t service) { return uint8_t(service | kReplyBit); }

enum Service : uint8_t {
    kServiceForwardClose = 0x4E,
    kServiceReadByHandle = 0x55,
    kServiceResolveOrWrite = 0x56, // resolution by name (class 0x6D) or a write (class 0xB8)
    kServiceLargeForwardOpen = 0x5B,
};

enum Class : uint8_t {
    kClassMessageRouter = 0x02,
    kClassConnectionManager = 0x06,
    kClassResolve = 0x6D,
    kClassVariable = 0xB8,
};

// Logical path segments: an 8-bit class, then an 8-bit instance.
constexpr uint8_t kSegmentClass8 = 0x20;
constexpr uint8_t kSegmentInstance8 = 0x24;

enum GeneralStatus : uint8_t {
    kStatusSuccess = 0x00,
};

} // namespace plc::cip
