// The 24-byte encapsulation header that begins every message in both
// directions, and the commands the client sends.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "util/wire.h"

namespace plc {

enum EncapCommand : uint16_t {
    kEncapNop = 0x0000,
    kEncapListServices = 0x0004,
    kEncapListIdentity = 0x0063,
    kEncapListInterfaces = 0x0064,
    kEncapRegisterSession = 0x0065,
    kEncapUnRegisterSession = 0x0066,
    kEncapSendRRData = 0x006F,
    kEncapSendUnitData = 0x0070,
    kEncapIndicateStatus = 0x0072,
    kEncapCancel = 0x0073,
};

// Whether a received header names a command of the protocol at all: anything
// else means the stream has lost its framing (bytes of no message, the tail of
// a flood), and no later header on it can be trusted.
bool is_encap_command(uint16_t command);

constexpr size_t kEncapHeaderSize = 24;
constexpr size_t kEncapLengthAt = 2;
// The longest message: a header and the most bytes its 16-bit length announces.
constexpr size_t kMaxEncapMessage = kEncapHeaderSize + 0xFFFF;

// One received encapsulation message: the 24-byte header and exactly as many
// bytes as its length field announced.
using EipMessage = std::vector<uint8_t>;

struct EncapHeader {
    uint16_t command = 0;
    uint16_t length = 0;
    uint32_t session_handle = 0;
    uint32_t status = 0;
    std::array<uint8_t, 8> sender_context{};
    uint32_t options = 0;
};

// Decodes the header at the start of a message; none when fewer than 24 bytes.
std::optional<EncapHeader> ParseEncapHeader(const uint8_t *data, size_t size);
// Encodes the 24-byte header; the writer reports whether it fitted.
void WriteEncapHeader(wire::Writer &out, const EncapHeader &header);

} // namespace plc
