// The connection manager object (class 6, instance 1): Forward_Open (0x54),
// Large_Forward_Open (0x5B) and Forward_Close (0x4E) over unconnected
// messages, opening and closing connections in the connection table.
#pragma once

#include <cstdint>

#include "sim/cip.h"
#include "sim/connections.h"

namespace plc::sim {

class ConnectionManager {
public:
    explicit ConnectionManager(ConnectionTable &table) : table_(table) {}

    // `refuse_open` answers a Forward_Open that would succeed with "out of
    // connections", as a controller whose connections are all taken.
    CipReply Execute(uint32_t session, const MrRequest &request, bool refuse_open);

private:
    CipReply ForwardOpen(uint32_t session, const MrRequest &request, bool refuse_open);
    CipReply ForwardClose(const std::vector<uint8_t> &data);

    ConnectionTable &table_;
};

} // namespace plc::sim
