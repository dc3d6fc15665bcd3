// How a reply leaves (or does not leave) on a client's TCP connection: whole,
// or as a delivery fault asks: late, twice, cut off by a close or a reset,
// replaced by garbage, followed by a flood.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "sim/faults.h"

namespace plc::sim {

// Set once the simulator stops, so that a delayed reply does not hold it up.
class StopSignal {
public:
    void Stop();
    bool stopped() const;
    // Waits; false when stopped before the time was up.
    bool SleepFor(std::chrono::milliseconds duration) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable wake_;
    bool stopped_ = false;
};

bool ReadExact(int fd, uint8_t *buffer, size_t size);
bool SendAll(int fd, const uint8_t *bytes, size_t size);

// What becomes of the TCP connection after a delivery.
enum class AfterDelivery { KeepOpen, Close, Reset, Restart };

// Sends `reply` (none: the request gets no reply) as `fault` asks.
AfterDelivery Deliver(int fd, const std::optional<std::vector<uint8_t>> &reply,
                      const std::optional<Fault> &fault, const StopSignal &stop);

} // namespace plc::sim
