// Who the simulated controller says it is: the Identity object (class 0x01)
// and the identity item that ListIdentity carries, which repeats it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/cip.h"

namespace plc::sim {

struct Identity {
    uint16_t vendor_id = 0xFFFE;   // not a vendor's: this is a simulator
    uint16_t device_type = 0x000E; // programmable logic controller
    uint16_t product_code = 1;
    uint8_t revision_major = 1;
    uint8_t revision_minor = 1;
    uint16_t status = 0x0030; // extended device status 3: no I/O connection
    uint32_t serial_number = 0x53494D31;
    std::string product_name = "plc-sim controller simulator";
    uint8_t state = 3; // operational
};

// Get_Attributes_All (instance 1: attributes 1 to 7) and
// Get_Attribute_Single (class attributes 1 to 3, instance attributes 1 to 8).
CipReply ExecuteIdentity(const Identity &identity, const MrRequest &request,
                         const RequestPath &path);

// The ListIdentity item's data: encapsulation version, the socket address
// the request reached (big-endian, as sockaddr_in), then the identity.
std::vector<uint8_t> IdentityItemData(const Identity &identity, uint32_t address_host_order,
                                      uint16_t port);

} // namespace plc::sim
