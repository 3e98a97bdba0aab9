// VirtualMainLoop: timers on a virtual clock, advanced by tests.
#include "platform/sim/VirtualMainLoop.h"

#include <cmath>
#include <stdexcept>
#include <utility>

namespace brightmix {

VirtualMainLoop::VirtualMainLoop(double uptime, double wallClock)
    : uptime_(uptime), wallClock_(wallClock) {}

void VirtualMainLoop::post(Task task) {
    if (task) posted_.push_back(std::move(task));
}

MainLoop::TimerID VirtualMainLoop::add(double delay, double interval, Task task) {
    const TimerID id = nextTimer_++;
    const std::pair<double, std::uint64_t> position{uptime_ + delay, nextSequence_++};
    timers_[id] = Timer{position.first, interval, std::move(task)};
    queue_[position] = id;
    queuePosition_[id] = position;
    return id;
}

MainLoop::TimerID VirtualMainLoop::scheduleOnce(double delaySeconds, Task task) {
    const double delay = std::isnan(delaySeconds) || delaySeconds < 0 ? 0.0 : delaySeconds;
    return add(delay, 0.0, std::move(task));
}

MainLoop::TimerID VirtualMainLoop::scheduleRepeating(double intervalSeconds, Task task) {
    const double interval = std::isnan(intervalSeconds) || intervalSeconds < kMinimumInterval
                                ? kMinimumInterval
                                : intervalSeconds;
    return add(interval, interval, std::move(task));
}

void VirtualMainLoop::cancel(TimerID timer) {
    const auto position = queuePosition_.find(timer);
    if (position == queuePosition_.end()) return;
    queue_.erase(position->second);
    queuePosition_.erase(position);
    timers_.erase(timer);
}

void VirtualMainLoop::runPending() {
    while (!posted_.empty()) {
        Task task = std::move(posted_.front());
        posted_.pop_front();
        task();
    }
}

void VirtualMainLoop::advance(double seconds) {
    if (std::isnan(seconds) || seconds < 0)
        throw std::invalid_argument("VirtualMainLoop::advance: duration must be 0 or more");
    const double target = uptime_ + seconds;
    runPending();
    while (!queue_.empty() && queue_.begin()->first.first <= target) {
        const auto [position, id] = *queue_.begin();
        queue_.erase(queue_.begin());
        queuePosition_.erase(id);
        const double step = position.first - uptime_;
        if (step > 0) {
            uptime_ = position.first;
            wallClock_ += step;
        }
        Timer& timer = timers_.at(id);
        // Re-arm before running, so that the task can cancel its own repeating timer.
        Task task = timer.task;
        if (timer.interval > 0) {
            const std::pair<double, std::uint64_t> next{position.first + timer.interval,
                                                        nextSequence_++};
            timer.due = next.first;
            queue_[next] = id;
            queuePosition_[id] = next;
        } else {
            timers_.erase(id);
        }
        task();
        runPending();
    }
    wallClock_ += target - uptime_;
    uptime_ = target;
    runPending();
}

void VirtualMainLoop::stepWallClock(double seconds) {
    if (!std::isnan(seconds)) wallClock_ += seconds;
}

} // namespace brightmix
