// Encapsulation transport and session: the TCP connection to the controller,
// framing of encapsulation messages, RegisterSession / UnRegisterSession.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <vector>

#include "eip/wire.h"

namespace plc {

constexpr uint16_t kEncapRegisterSession = 0x0065;
constexpr uint16_t kEncapUnRegisterSession = 0x0066;
constexpr uint16_t kEncapSendRRData = 0x006F;
constexpr uint16_t kEncapSendUnitData = 0x0070;
constexpr size_t kEncapHeaderSize = 24;

// One received encapsulation message: the 24-byte header and exactly as many
// bytes as its length field announced.
using EipMessage = std::vector<uint8_t>;

// The 24-byte encapsulation header, decoded.
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

// Bytes one discard of stale input reads at most.
constexpr size_t kCipEmptyBuffSize = 512;

struct EipSession {
    int32_t sock = -1;
    uint32_t handle = 0;
    std::array<uint8_t, 8> sender_context{};
    int32_t timeout_us = 0;
};

std::unique_ptr<EipSession> _OpenSession(const char *host, uint16_t port, int buffer_size,
                                         int32_t timeout_us);
int _CipOpenSock(const char *host, uint16_t port);
// Connects with a 30 ms limit; 0 when connected, -1 (socket closed) when not.
int Set_NoBlock(int sock, const ::sockaddr_in &address);
int32_t RegisterSession(EipSession &session);
long UnRegisterSession(EipSession &session);
// Closes the socket and frees the session.
void CloseSession(std::unique_ptr<EipSession> session);

long CipSendData(int sock, const uint8_t *message, size_t size);
std::optional<EipMessage> CipRecvData(int sock, int32_t timeout_us);
long _CIPEmptyBuffer(int sock);

void LogCip(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
void FlushCipBuffer(int enable, const uint8_t *bytes, int count);

} // namespace plc
