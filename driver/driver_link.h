// The connection as the engines reach it: the driver's session and
// connection behind the engine's link interface, with the recovery that
// rebuilds them.
#pragma once

#include "engine/link.h"

namespace plc {

class DriverLink final : public ControllerLink {
public:
    bool ensure_up() override;
    uint32_t generation() const override;
    void mark_down() override;
    wire::MutableBytes request_area() override;
    std::optional<wire::Bytes> exchange(CipCall call, size_t request_len) override;
};

} // namespace plc
