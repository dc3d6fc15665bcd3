// The numbers of the EtherNet/IP encapsulation and of CIP that the simulated
// controller speaks: commands, item types, services, classes and statuses.
// Every byte the simulator puts on the wire or compares with comes from here.
#pragma once

#include <cstdint>

namespace plc::sim {

constexpr uint16_t kEncapPort = 44818;
constexpr uint16_t kEncapProtocolVersion = 1; // the only (and so highest) version served

enum class Command : uint16_t {
    Nop = 0x0000,
    ListServices = 0x0004,
    ListIdentity = 0x0063,
    ListInterfaces = 0x0064,
    RegisterSession = 0x0065,
    UnRegisterSession = 0x0066,
    SendRRData = 0x006F,
    SendUnitData = 0x0070,
};

enum class EncapStatus : uint32_t {
    Success = 0x0000,
    InvalidCommand = 0x0001,
    IncorrectData = 0x0003,
    InvalidSession = 0x0064,
    InvalidLength = 0x0065,
    UnsupportedProtocol = 0x0069,
};

// Common packet format item type ids.
enum class Item : uint16_t {
    NullAddress = 0x0000,
    Identity = 0x000C,
    ConnectedAddress = 0x00A1,
    ConnectedData = 0x00B1,
    UnconnectedData = 0x00B2,
    Services = 0x0100,
};

namespace service {
constexpr uint8_t kGetAttributesAll = 0x01;
constexpr uint8_t kGetAttributeSingle = 0x0E;
constexpr uint8_t kForwardClose = 0x4E;
constexpr uint8_t kUnconnectedSend = 0x52;
constexpr uint8_t kForwardOpen = 0x54;
constexpr uint8_t kRead = 0x55;           // read by handle (variable class)
constexpr uint8_t kResolveOrWrite = 0x56; // resolve (resolve class), write (variable class)
constexpr uint8_t kLargeForwardOpen = 0x5B;
constexpr uint8_t kReplyBit = 0x80;
} // namespace service

namespace cip_class {
constexpr uint16_t kIdentity = 0x01;
constexpr uint16_t kMessageRouter = 0x02;
constexpr uint16_t kConnectionManager = 0x06;
constexpr uint16_t kResolve = 0x6D;
constexpr uint16_t kVariable = 0xB8;
} // namespace cip_class

// General status codes this controller answers with.
namespace general {
constexpr uint8_t kSuccess = 0x00;
constexpr uint8_t kConnectionFailure = 0x01;
constexpr uint8_t kPathSegmentError = 0x04;
constexpr uint8_t kPathDestinationUnknown = 0x05;
constexpr uint8_t kServiceNotSupported = 0x08;
constexpr uint8_t kReplyDataTooLarge = 0x11;
constexpr uint8_t kNotEnoughData = 0x13;
constexpr uint8_t kAttributeNotSupported = 0x14;
constexpr uint8_t kTooMuchData = 0x15;
constexpr uint8_t kInvalidParameter = 0x20;
} // namespace general

// Extended status words that accompany general status 0x01 from the
// connection manager.
namespace extended {
constexpr uint16_t kConnectionInUse = 0x0100;
constexpr uint16_t kTransportNotSupported = 0x0103;
constexpr uint16_t kConnectionNotFound = 0x0107;
constexpr uint16_t kInvalidConnectionParameter = 0x0108;
constexpr uint16_t kInvalidConnectionSize = 0x0109;
constexpr uint16_t kOutOfConnections = 0x0113;
constexpr uint16_t kParameterError = 0x0205;
constexpr uint16_t kInvalidPort = 0x0311;
constexpr uint16_t kInvalidLinkAddress = 0x0312;
constexpr uint16_t kInvalidConnectionPath = 0x0315;
} // namespace extended

} // namespace plc::sim
