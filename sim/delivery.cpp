#include "sim/delivery.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <random>

namespace plc::sim {

namespace {
constexpr uint8_t kFiller = 0x5A;
} // namespace

void StopSignal::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    wake_.notify_all();
}

bool StopSignal::stopped() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopped_;
}

bool StopSignal::SleepFor(std::chrono::milliseconds duration) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, duration, [this] { return stopped_; });
}

bool ReadExact(int fd, uint8_t *buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = recv(fd, buffer + done, size - done, 0);
        if (n > 0)
            done += size_t(n);
        else if (n < 0 && errno == EINTR)
            continue;
        else
            return false;
    }
    return true;
}

bool SendAll(int fd, const uint8_t *bytes, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = send(fd, bytes + done, size - done, MSG_NOSIGNAL);
        if (n > 0)
            done += size_t(n);
        else if (n < 0 && errno == EINTR)
            continue;
        else
            return false;
    }
    return true;
}

AfterDelivery Deliver(int fd, const std::optional<std::vector<uint8_t>> &reply,
                      const std::optional<Fault> &fault, const StopSignal &stop) {
    const auto send_all = [fd](const std::vector<uint8_t> &bytes, size_t size) {
        return SendAll(fd, bytes.data(), size) ? AfterDelivery::KeepOpen : AfterDelivery::Close;
    };
    if (fault && fault->action == Action::Restart) return AfterDelivery::Restart;
    if (!reply) return AfterDelivery::KeepOpen;
    if (!fault) return send_all(*reply, reply->size());
    switch (fault->action) {
    case Action::NoReply: return AfterDelivery::KeepOpen;
    case Action::Delay:
        if (!stop.SleepFor(std::chrono::milliseconds(fault->value))) return AfterDelivery::Close;
        return send_all(*reply, reply->size());
    case Action::Close:
    case Action::Reset:
        send_all(*reply, reply->size() / 2);
        return fault->action == Action::Close ? AfterDelivery::Close : AfterDelivery::Reset;
    case Action::Garbage: {
        std::vector<uint8_t> noise(size_t(fault->value));
        std::mt19937 random(fault->draw);
        for (uint8_t &b : noise) b = uint8_t(random());
        return send_all(noise, noise.size());
    }
    case Action::Huge: {
        std::vector<uint8_t> flood = *reply;
        flood.resize(std::max(flood.size(), size_t(fault->value)), kFiller);
        return send_all(flood, flood.size());
    }
    case Action::Duplicate:
        if (send_all(*reply, reply->size()) == AfterDelivery::Close) return AfterDelivery::Close;
        return send_all(*reply, reply->size());
    default: return send_all(*reply, reply->size());
    }
}

} // namespace plc::sim
