// Message-router framing shared by the simulated controller's services: the
// request (service, path, data), the reply (service | 0x80, general status,
// additional status, data) and the logical class/instance paths.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace plc::sim {

// General status codes this controller answers with.
namespace general {
constexpr uint8_t kSuccess = 0x00;
constexpr uint8_t kConnectionFailure = 0x01;
constexpr uint8_t kPathSegmentError = 0x04;
constexpr uint8_t kPathDestinationUnknown = 0x05;
constexpr uint8_t kServiceNotSupported = 0x08;
constexpr uint8_t kReplyDataTooLarge = 0x11;
constexpr uint8_t kNotEnoughData = 0x13;
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
constexpr uint16_t kInvalidConnectionPath = 0x0315;
} // namespace extended

struct MrRequest {
    uint8_t service = 0;
    std::vector<uint8_t> path;
    std::vector<uint8_t> data;
};

// Splits a message-router request; none when the announced path does not fit.
std::optional<MrRequest> ParseMrRequest(const uint8_t *bytes, size_t size);

// What a service answers; the reply service code is added when it is encoded.
struct CipReply {
    uint8_t general = general::kSuccess;
    std::vector<uint16_t> additional;
    std::vector<uint8_t> data;

    static CipReply Error(uint8_t general_status, std::vector<uint16_t> additional_status = {}) {
        CipReply r;
        r.general = general_status;
        r.additional = std::move(additional_status);
        return r;
    }
    bool ok() const { return general == general::kSuccess; }
};

// service | 0x80, reserved 0, general status, additional size in words, the
// additional words, then the response data.
std::vector<uint8_t> EncodeMrReply(uint8_t request_service, const CipReply &reply);

struct ClassInstance {
    uint16_t class_id = 0;
    uint16_t instance = 0;
};

// An 8- or 16-bit class segment followed by an 8- or 16-bit instance segment,
// nothing else; none for any other path.
std::optional<ClassInstance> ParseClassInstancePath(const std::vector<uint8_t> &path);

// "20 06 24 01" style text of at most `max` bytes ("..." when there are more).
std::string HexBytes(const uint8_t *bytes, size_t size, size_t max = 24);
inline std::string HexBytes(const std::vector<uint8_t> &v, size_t max = 24) {
    return HexBytes(v.data(), v.size(), max);
}

} // namespace plc::sim
