#include "sim/live.h"

#include <chrono>
#include <cmath>

#include "sim/log.h"

namespace plc::sim {

namespace {

constexpr double kPi = 3.14159265358979323846;

std::optional<uint16_t> Pick(const VariableStore &store, const std::string &name,
                             std::initializer_list<ValueKind> kinds, const char *what) {
    if (name.empty()) return std::nullopt;
    const auto index = store.Find(name);
    if (!index) return std::nullopt;
    const Variable &var = store.at(*index);
    bool kind_ok = false;
    for (const ValueKind k : kinds) kind_ok = kind_ok || var.type->kind == k;
    if (!kind_ok || var.is_array()) {
        Log::Warn("live " + std::string(what) + " " + name + " is a " + var.type->name +
                  (var.is_array() ? " array" : "") + "; not animated");
        return std::nullopt;
    }
    return index;
}

} // namespace

LiveAnimation::LiveAnimation(SharedStore &shared, const LiveOptions &options) : shared_(shared) {
    std::lock_guard<std::mutex> lock(shared_.mutex);
    counter_ =
        Pick(shared_.store, options.counter, {ValueKind::Signed, ValueKind::Unsigned}, "counter");
    sine_ = Pick(shared_.store, options.sine, {ValueKind::Real}, "sine");
    toggle_ = Pick(shared_.store, options.toggle, {ValueKind::Bool}, "toggle");
}

LiveAnimation::~LiveAnimation() { Stop(); }

void LiveAnimation::Tick() {
    ++ticks_;
    std::lock_guard<std::mutex> lock(shared_.mutex);
    VariableStore &store = shared_.store;
    if (counter_) {
        // Unsigned arithmetic: the store wraps the value to the element width.
        const uint64_t now = uint64_t(store.GetInteger(*counter_, 0).value_or(0));
        store.SetInteger(*counter_, 0, int64_t(now + 1));
    }
    if (sine_) {
        const double phase =
            2 * kPi * double(ticks_ % uint64_t(kSinePeriodTicks)) / kSinePeriodTicks;
        store.SetReal(*sine_, 0, kSineAmplitude * std::sin(phase));
    }
    if (toggle_ && ticks_ % kTicksPerToggle == 0)
        store.SetInteger(*toggle_, 0, store.GetInteger(*toggle_, 0).value_or(0) ? 0 : 1);
}

void LiveAnimation::Start() {
    thread_ = std::thread([this] {
        auto next = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            next += std::chrono::milliseconds(kTickMs);
            if (wake_.wait_until(lock, next, [this] { return stop_; })) break;
            lock.unlock();
            Tick();
            lock.lock();
        }
    });
}

void LiveAnimation::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

} // namespace plc::sim
