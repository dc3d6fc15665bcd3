// Animated variables, so that a panel polling the simulated controller sees
// values change: a counter, a sine wave and a toggling bit.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "sim/variable_store.h"

namespace plc::sim {

struct LiveOptions {
    std::string counter = "LiveCounter"; // integer scalar: +1 every tick
    std::string sine = "LiveSine";       // REAL/LREAL scalar: amplitude 100, period 10 s
    std::string toggle = "LiveToggle";   // BOOL scalar: inverted every second
};

// Every 100 ms one tick. A named variable that is missing is left alone; one
// of an unsuitable type or shape is left alone with a warning. The store file
// is not rewritten for these changes (only client writes rewrite it).
class LiveAnimation {
public:
    static constexpr int kTickMs = 100;
    static constexpr int kTicksPerToggle = 10;
    static constexpr double kSineAmplitude = 100.0;
    static constexpr double kSinePeriodTicks = 100.0;

    LiveAnimation(SharedStore &shared, const LiveOptions &options);
    ~LiveAnimation();
    LiveAnimation(const LiveAnimation &) = delete;
    LiveAnimation &operator=(const LiveAnimation &) = delete;

    void Start();
    void Stop();
    // One step, as the timer does it (tests call it directly).
    void Tick();

private:
    SharedStore &shared_;
    std::optional<uint16_t> counter_, sine_, toggle_;
    uint64_t ticks_ = 0;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
};

} // namespace plc::sim
