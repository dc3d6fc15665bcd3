// The connection to the controller as the engines see it. The driver owns the
// session and the connection and implements this interface; the engines only
// ask for the connection to be up, report it broken, and exchange requests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "util/wire.h"

namespace plc {

// What a connected request does; the service and the class it is addressed to
// follow from it.
enum class CipCall {
    Resolve, // names to handles (service 0x56 to the resolution class)
    Read,    // values by handle (service 0x55)
    Write,   // a value by handle (service 0x56 to the variable class)
};

class ControllerLink {
public:
    virtual ~ControllerLink() = default;
    // Rebuilds the connection when it is down: false when it could not be.
    virtual bool ensure_up() = 0;
    // The number of the connection that stands: it changes with every
    // connection brought up, by a rebuild or otherwise. Handles resolved on
    // another number belong to a connection that is gone.
    virtual uint32_t generation() const = 0;
    // Reports the connection broken: the next ensure_up rebuilds it.
    virtual void mark_down() = 0;
    // Where the next request's data is written.
    virtual wire::MutableBytes request_area() = 0;
    // Sends the first request_len bytes of request_area() and waits for the
    // reply to them: the message-router reply from its reply service on, valid
    // until the next exchange; none when no reply came or it was malformed.
    virtual std::optional<wire::Bytes> exchange(CipCall call, size_t request_len) = 0;
};

} // namespace plc
