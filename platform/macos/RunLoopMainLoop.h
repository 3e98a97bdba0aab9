// MainLoop over the main run loop: posted work on the main dispatch queue, timers as
// CFRunLoopTimers in the common modes (so they also fire while a menu is tracked or a slider is
// dragged), uptime from the system's uptime clock and the wall clock from CFAbsoluteTime.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <map>
#include <memory>

#include "platform/MainLoop.h"

namespace brightmix {

class RunLoopMainLoop final : public MainLoop {
public:
    RunLoopMainLoop();
    ~RunLoopMainLoop() override;
    RunLoopMainLoop(const RunLoopMainLoop&) = delete;
    RunLoopMainLoop& operator=(const RunLoopMainLoop&) = delete;

    void post(Task task) override;
    TimerID scheduleOnce(double delaySeconds, Task task) override;
    TimerID scheduleRepeating(double intervalSeconds, Task task) override;
    void cancel(TimerID timer) override;
    double uptime() const override;
    double now() const override;

private:
    struct Timer;
    TimerID schedule(double delaySeconds, double intervalSeconds, Task task);
    // Runs a timer's task, catching what it throws (a timer is an entry point of the system).
    void fire(TimerID timer);

    std::map<TimerID, std::shared_ptr<Timer>> timers_;
    TimerID next_ = 1;
    // Posted blocks hold this weakly, so that work posted before the loop's end is dropped.
    std::shared_ptr<bool> alive_;
};

// Runs `task`, logging instead of letting an exception leave a system callback.
void runCatching(const char* where, const std::function<void()>& task);

} // namespace brightmix
