// Internals of the checksum helpers (CalcFileMD5 and crc16 are exported
// through plc_driver.h). Exposed here so that the tests can reach them.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

namespace plc {

// The digest state of CalcFileMD5 is one set for the whole library: two
// digests must never be computed at the same time.
namespace md5_state {
extern uint32_t A, B, C, D;          // chaining values
extern std::array<uint32_t, 16> x;   // current 64-byte block, little-endian words
extern std::array<uint32_t, 2> flen; // message length in bits: low word, high word
extern int32_t len;                  // file length in bytes
extern uint32_t i;                   // block counter
extern std::FILE *fp;                // file being digested, null between calls
} // namespace md5_state

// Folds the block in md5_state::x into md5_state::A..D (one MD5 compression).
void md5();

namespace detail {
// One entry of the reflected 0xA001 CRC table.
constexpr uint16_t crc16_entry(unsigned index) {
    uint16_t crc = static_cast<uint16_t>(index);
    for (int bit = 0; bit < 8; ++bit)
        crc = (crc & 1u) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001u)
                         : static_cast<uint16_t>(crc >> 1);
    return crc;
}

constexpr std::array<uint8_t, 256> crc16_half(bool upper) {
    std::array<uint8_t, 256> table{};
    for (unsigned n = 0; n < table.size(); ++n) {
        const uint16_t entry = crc16_entry(n);
        table[n] = static_cast<uint8_t>(upper ? entry >> 8 : entry & 0xFFu);
    }
    return table;
}
} // namespace detail

// The two halves of the Modbus CRC-16 lookup table. auchCRCHi updates the
// running byte that a Modbus frame transmits first (the CRC's low byte).
inline constexpr std::array<uint8_t, 256> auchCRCHi = detail::crc16_half(false);
inline constexpr std::array<uint8_t, 256> auchCRCLo = detail::crc16_half(true);

static_assert(auchCRCHi[1] == 0xC1 && auchCRCHi[2] == 0x81 && auchCRCHi[3] == 0x40 &&
                  auchCRCHi[7] == 0x41,
              "auchCRCHi must be the Modbus table");
static_assert(auchCRCLo[1] == 0xC0 && auchCRCLo[2] == 0xC1 && auchCRCLo[3] == 0x01 &&
                  auchCRCLo[7] == 0xC2,
              "auchCRCLo must be the Modbus table");

} // namespace plc
