// File MD5 digest (RFC 1321) and the Modbus RTU CRC-16, both exported for the
// host framework.
#include "util/checksum.h"

#include "plc_driver_utilities.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace plc {

namespace md5_state {
uint32_t A = 0, B = 0, C = 0, D = 0;
std::array<uint32_t, 16> x{};
std::array<uint32_t, 2> flen{};
int32_t len = 0;
uint32_t i = 0;
std::FILE *fp = nullptr;
} // namespace md5_state

namespace {

constexpr std::array<uint32_t, 64> kSine = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr std::array<uint8_t, 16> kShift = {7, 12, 17, 22, 5, 9,  14, 20,
                                            4, 11, 16, 23, 6, 10, 15, 21};

constexpr uint32_t rotl(uint32_t v, unsigned n) { return (v << n) | (v >> (32u - n)); }

constexpr uint32_t byte_swap(uint32_t v) {
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

// Closes the module's file on every way out of CalcFileMD5.
struct FileCloser {
    ~FileCloser() {
        if (md5_state::fp != nullptr) std::fclose(md5_state::fp);
        md5_state::fp = nullptr;
    }
};

// Clears x and fills it with up to 64 bytes of the file. Never more than the
// bytes still due according to the length taken at the start, so a file that
// grows meanwhile cannot slip extra data in front of the padding. False when
// fewer bytes arrive than are due (the file shrank or a read failed).
bool load_block(uint32_t due) {
    using namespace md5_state;
    std::array<uint8_t, 64> bytes{};
    const size_t want = std::min<size_t>(bytes.size(), due);
    const size_t got = want == 0 ? 0 : std::fread(bytes.data(), 1, want, fp);
    for (size_t w = 0; w < x.size(); ++w)
        x[w] = uint32_t(bytes[4 * w]) | uint32_t(bytes[4 * w + 1]) << 8 |
               uint32_t(bytes[4 * w + 2]) << 16 | uint32_t(bytes[4 * w + 3]) << 24;
    return got == want;
}

// Strips surrounding double quotes in place: the last character goes first,
// then the first.
void strip_quotes(char *path) {
    if (path[0] != '"') return;
    path[std::strlen(path) - 1] = '\0';
    if (path[0] != '\0') std::memmove(path, path + 1, std::strlen(path + 1) + 1);
}

} // namespace

void md5() {
    using namespace md5_state;
    uint32_t a = A, b = B, c = C, d = D;
    for (unsigned k = 0; k < 64; ++k) {
        uint32_t f;
        unsigned g;
        switch (k / 16) {
        case 0:
            f = (b & c) | (~b & d);
            g = k;
            break;
        case 1:
            f = (d & b) | (~d & c);
            g = (5 * k + 1) % 16;
            break;
        case 2:
            f = b ^ c ^ d;
            g = (3 * k + 5) % 16;
            break;
        default:
            f = c ^ (b | ~d);
            g = (7 * k) % 16;
            break;
        }
        const uint32_t rotated = rotl(a + f + kSine[k] + x[g], kShift[(k / 16) * 4 + k % 4]);
        a = d;
        d = c;
        c = b;
        b = b + rotated;
    }
    A += a;
    B += b;
    C += c;
    D += d;
}

} // namespace plc

extern "C" {

int CalcFileMD5(char *path, char *digest_out) {
    using namespace plc::md5_state;
    // Without somewhere to write the digest there is nothing worth doing.
    if (digest_out == nullptr) return 0;
    if (path == nullptr) {
        std::puts("Can not open this file!");
        return 0;
    }
    plc::strip_quotes(path);
    if (std::strcmp(path, "exit") == 0) std::exit(0);

    fp = std::fopen(path, "rb");
    const plc::FileCloser closer;
    // A directory opens as a stream on this system but has no bytes to digest.
    struct stat info {};
    if (fp == nullptr || (::fstat(fileno(fp), &info) == 0 && S_ISDIR(info.st_mode))) {
        std::puts("Can not open this file!");
        return 0;
    }

    // The length must fit the signed 32-bit module length; anything larger
    // (or a stream without a length) is refused rather than wrapped.
    const off_t end = std::fseek(fp, 0, SEEK_END) == 0 ? ::ftello(fp) : off_t(-1);
    if (end < 0 || end > off_t(INT32_MAX)) {
        std::puts("Sorry! Can not calculate files which larger than 2 GB!");
        return 0;
    }
    len = static_cast<int32_t>(end);
    std::rewind(fp);

    A = 0x67452301u;
    B = 0xEFCDAB89u;
    C = 0x98BADCFEu;
    D = 0x10325476u;
    const uint32_t length = static_cast<uint32_t>(len);
    flen[0] = length << 3;
    flen[1] = length >> 29;

    // A file that shrinks or fails to read while being digested would yield
    // the digest of zero bytes it does not hold: report failure instead.
    bool complete = plc::load_block(length);
    for (i = 0; i < length / 64 && complete; ++i) {
        plc::md5();
        complete = plc::load_block(length - (i + 1) * 64);
    }
    if (!complete) return 0;

    const uint32_t tail = length % 64;
    x[tail / 4] |= 0x80u << (8 * (tail % 4));
    if (tail > 55) {
        plc::md5();
        x.fill(0);
    }
    x[14] = flen[0];
    x[15] = flen[1];
    plc::md5();

    std::snprintf(digest_out, 33, "%08x%08x%08x%08x", plc::byte_swap(A), plc::byte_swap(B),
                  plc::byte_swap(C), plc::byte_swap(D));
    return 1;
}

uint16_t crc16(const uint8_t *bytes, uint8_t count) {
    // A missing buffer is treated like an empty one.
    if (count == 0 || bytes == nullptr) return 0xFFFF;
    uint8_t hi = 0xFF;
    uint8_t lo = 0xFF;
    for (unsigned n = 0; n < count; ++n) {
        const uint8_t index = static_cast<uint8_t>(bytes[n] ^ hi);
        hi = static_cast<uint8_t>(plc::auchCRCHi[index] ^ lo);
        lo = plc::auchCRCLo[index];
    }
    return static_cast<uint16_t>(lo | (hi << 8));
}

} // extern "C"
