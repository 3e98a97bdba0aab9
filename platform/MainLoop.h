// The main thread's run loop as the core sees it: posting work, one-shot and repeating
// timers, system uptime and the wall clock. Time enters the core only through here, so
// tests drive whole scenarios with a virtual clock instead of sleeping.
//
// Thread: control for every call; timers and posted work run on the main thread.
// Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>

namespace brightmix {

class MainLoop {
public:
    using TimerID = std::uint64_t; // 0 is never a timer
    using Task = std::function<void()>;

    virtual ~MainLoop() = default;

    // Runs `task` on the main thread soon, after the work already queued.
    virtual void post(Task task) = 0;

    // Runs `task` once after `delaySeconds`.
    virtual TimerID scheduleOnce(double delaySeconds, Task task) = 0;

    // Runs `task` every `intervalSeconds`, the first time one interval from now.
    virtual TimerID scheduleRepeating(double intervalSeconds, Task task) = 0;

    // Stops a timer; an unknown or already cancelled ID is ignored. A timer may cancel
    // itself from its own task.
    virtual void cancel(TimerID timer) = 0;

    // Seconds since boot, monotonic (the meter's and the back-off's clock).
    virtual double uptime() const = 0;

    // Wall-clock seconds since 1970.
    virtual double now() const = 0;
};

} // namespace brightmix
