// Tag ids of the integration tests' tag list (tests/integration/PLC7F000001_1.csv).
#pragma once

#include <cstdint>

namespace plc::itest::tags {

constexpr uint32_t kCounter = 0;       // DINT
constexpr uint32_t kSpeeds = 1;        // INT [0..9]
constexpr uint32_t kRanks = 2;         // INT [1..10]
constexpr uint32_t kBytes = 3;         // SINT [0..7]
constexpr uint32_t kLabel = 4;         // STRING, 20 characters
constexpr uint32_t kTotal = 5;         // LINT
constexpr uint32_t kLevels = 6;        // LREAL [1..5]
constexpr uint32_t kTemperature = 7;   // REAL
constexpr uint32_t kFlags = 8;         // BOOL [0..15], bit 0
constexpr uint32_t kRunning = 9;       // BOOL, bit 0
constexpr uint32_t kGrid = 10;         // INT [1..2, 0..4]
constexpr uint32_t kCube = 11;         // DINT [0..1, 0..2, 0..3]
constexpr uint32_t kDuration = 12;     // TIME
constexpr uint32_t kBig = 13;          // ULINT
constexpr uint32_t kMasks = 14;        // LWORD [0..3]
constexpr uint32_t kStatus = 15;       // WORD
constexpr uint32_t kCode = 16;         // UDINT
constexpr uint32_t kSmall = 17;        // USINT [0..5]
constexpr uint32_t kMatrix = 18;       // BOOL [0..2, 0..3]
constexpr uint32_t kRatio = 19;        // UINT
constexpr uint32_t kPattern = 20;      // DWORD
constexpr uint32_t kRaw = 21;          // BYTE
constexpr uint32_t kOffset = 22;       // SINT
constexpr uint32_t kName = 23;         // STRING, 8 characters
constexpr uint32_t kStationSpeed = 24; // INT, named "Station,1,Speed"
constexpr uint32_t kGauge = 25;        // REAL [0..3]
constexpr uint32_t kAlarm = 26;        // BOOL, bit 10 of its word
constexpr uint32_t kPlainCount = 27;

constexpr uint32_t kGroup0 = 0x40000; // DINT
constexpr uint32_t kGroup1 = 0x40001; // UINT
constexpr uint32_t kGroup2 = 0x40002; // INT [0..3]
constexpr uint32_t kFar0 = 0x42000;   // REAL, a group of its own
constexpr uint32_t kMaxIndexed = kFar0;

} // namespace plc::itest::tags
