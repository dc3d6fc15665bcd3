// The encapsulation layer of the simulated controller: the 24-byte header
// that frames every message and the common packet format (CPF) of its bodies.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "sim/codes.h"

namespace plc::sim {

constexpr size_t kHeaderSize = 24;
constexpr size_t kMaxBody = 0xFFFF;

struct Header {
    uint16_t command = 0;
    uint16_t length = 0;
    uint32_t session = 0;
    uint32_t status = 0;
    std::array<uint8_t, 8> context{};
    uint32_t options = 0;

    bool Is(Command c) const { return command == uint16_t(c); }
};

Header ParseHeader(const uint8_t *bytes);

// A reply to `request`: its command and sender context, the given session
// handle, status and body (at most kMaxBody bytes).
std::vector<uint8_t> EncodeMessage(const Header &request, uint32_t session, EncapStatus status,
                                   const std::vector<uint8_t> &body = {});

struct CpfItem {
    uint16_t type = 0;
    std::vector<uint8_t> data;

    bool Is(Item t) const { return type == uint16_t(t); }
};

// Item count and items that fill `bytes` exactly; none when an announced
// length does not fit or bytes are left over.
std::optional<std::vector<CpfItem>> ParseItems(const uint8_t *bytes, size_t size);
std::vector<uint8_t> EncodeItems(const std::vector<CpfItem> &items);

// SendRRData and SendUnitData bodies: interface handle 0, timeout, then the
// items (exactly two: an address item and a data item).
struct Cpf {
    CpfItem address;
    CpfItem data;
};
std::optional<Cpf> ParseCpf(const std::vector<uint8_t> &body);
std::vector<uint8_t> EncodeCpf(const Cpf &cpf);

} // namespace plc::sim
