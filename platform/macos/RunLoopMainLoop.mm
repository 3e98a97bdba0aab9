#include "platform/macos/RunLoopMainLoop.h"

#include <CoreFoundation/CoreFoundation.h>
#include <Foundation/Foundation.h>
#include <dispatch/dispatch.h>
#include <exception>
#include <os/log.h>

namespace brightmix {

void runCatching(const char* where, const std::function<void()>& task) {
    try {
        if (task) task();
    } catch (const std::exception& error) {
        os_log_error(OS_LOG_DEFAULT, "Brightmix: %{public}s failed: %{public}s", where,
                     error.what());
    } catch (...) {
        os_log_error(OS_LOG_DEFAULT, "Brightmix: %{public}s failed", where);
    }
}

struct RunLoopMainLoop::Timer {
    CFRunLoopTimerRef timer = nullptr;
    Task task;
    bool repeats = false;
};

RunLoopMainLoop::RunLoopMainLoop() : alive_(std::make_shared<bool>(true)) {}

RunLoopMainLoop::~RunLoopMainLoop() {
    for (auto& [id, timer] : timers_) {
        CFRunLoopTimerInvalidate(timer->timer);
        CFRelease(timer->timer);
    }
}

void RunLoopMainLoop::post(Task task) {
    std::weak_ptr<bool> alive = alive_;
    auto shared = std::make_shared<Task>(std::move(task));
    dispatch_async(dispatch_get_main_queue(), ^{
      if (alive.expired()) return;
      runCatching("posted work", *shared);
    });
}

MainLoop::TimerID RunLoopMainLoop::scheduleOnce(double delaySeconds, Task task) {
    return schedule(delaySeconds, 0, std::move(task));
}

MainLoop::TimerID RunLoopMainLoop::scheduleRepeating(double intervalSeconds, Task task) {
    return schedule(intervalSeconds, intervalSeconds, std::move(task));
}

MainLoop::TimerID RunLoopMainLoop::schedule(double delaySeconds, double intervalSeconds,
                                            Task task) {
    const TimerID id = next_++;
    auto timer = std::make_shared<Timer>();
    timer->task = std::move(task);
    timer->repeats = intervalSeconds > 0;
    std::weak_ptr<bool> alive = alive_;
    timer->timer = CFRunLoopTimerCreateWithHandler(
        kCFAllocatorDefault, CFAbsoluteTimeGetCurrent() + std::max(delaySeconds, 0.0),
        intervalSeconds, 0, 0, ^(CFRunLoopTimerRef) {
          if (alive.expired()) return;
          fire(id);
        });
    CFRunLoopAddTimer(CFRunLoopGetMain(), timer->timer, kCFRunLoopCommonModes);
    timers_.emplace(id, std::move(timer));
    return id;
}

void RunLoopMainLoop::fire(TimerID id) {
    const auto found = timers_.find(id);
    if (found == timers_.end()) return;
    // The task may cancel this timer (or others): keep it alive while it runs.
    std::shared_ptr<Timer> timer = found->second;
    if (!timer->repeats) {
        timers_.erase(found);
        CFRunLoopTimerInvalidate(timer->timer);
        CFRelease(timer->timer);
        timer->timer = nullptr;
    }
    runCatching("a timer", timer->task);
}

void RunLoopMainLoop::cancel(TimerID id) {
    const auto found = timers_.find(id);
    if (found == timers_.end()) return;
    CFRunLoopTimerInvalidate(found->second->timer);
    CFRelease(found->second->timer);
    found->second->timer = nullptr;
    timers_.erase(found);
}

double RunLoopMainLoop::uptime() const {
    return [[NSProcessInfo processInfo] systemUptime];
}

double RunLoopMainLoop::now() const {
    return CFAbsoluteTimeGetCurrent() + kCFAbsoluteTimeIntervalSince1970;
}

} // namespace brightmix
