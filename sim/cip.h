// Message-router framing shared by the simulated controller's objects: the
// request (service, path, data), the reply (service | 0x80, general status,
// additional status, data), request paths and connection paths.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/codes.h"

namespace plc::sim {

struct MrRequest {
    uint8_t service = 0;
    std::vector<uint8_t> path;
    std::vector<uint8_t> data;
};

// Splits a message-router request; none when the announced path does not fit.
std::optional<MrRequest> ParseMrRequest(const uint8_t *bytes, size_t size);

// What a service answers; the reply service code is added when it is encoded:
// the request's, unless `service` names another (a routed request answers
// with the service it carried).
struct CipReply {
    std::optional<uint8_t> service;
    uint8_t general = general::kSuccess;
    std::vector<uint16_t> additional;
    std::vector<uint8_t> data;

    static CipReply Error(uint8_t general_status, std::vector<uint16_t> additional_status = {}) {
        CipReply r;
        r.general = general_status;
        r.additional = std::move(additional_status);
        return r;
    }
    static CipReply Data(std::vector<uint8_t> bytes) {
        CipReply r;
        r.data = std::move(bytes);
        return r;
    }
    bool ok() const { return general == general::kSuccess; }
};

// service | 0x80, reserved 0, general status, additional size in words, the
// additional words, then the response data.
std::vector<uint8_t> EncodeMrReply(uint8_t request_service, const CipReply &reply);

// A request path: an 8- or 16-bit class segment, an 8- or 16-bit instance
// segment and, for attribute services, an 8- or 16-bit attribute segment.
struct RequestPath {
    uint16_t class_id = 0;
    uint16_t instance = 0;
    std::optional<uint16_t> attribute;
};

// None for a path that is not made of those segments in that order.
std::optional<RequestPath> ParseRequestPath(const std::vector<uint8_t> &path);

// A connection path as a Forward_Open carries it: optionally the port segment
// of the backplane slot this controller sits in (port 1, link address 0),
// then the message router (class 2, instance 1). 0 when the path reaches the
// message router, else the connection manager's extended status.
uint16_t CheckRouterPath(const std::vector<uint8_t> &path);
// A route path of Unconnected_Send: exactly the port segment of this
// controller's slot. 0, or the extended status of the routing error.
uint16_t CheckOwnSlotRoute(const std::vector<uint8_t> &route);

// "20 06 24 01" style text of at most `max` bytes ("..." when there are more).
std::string HexBytes(const uint8_t *bytes, size_t size, size_t max = 24);
inline std::string HexBytes(const std::vector<uint8_t> &v, size_t max = 24) {
    return HexBytes(v.data(), v.size(), max);
}

} // namespace plc::sim
