// A main loop on virtual time for tests: nothing runs until the test advances the clock,
// and then due timers and posted work run in order, on the calling thread, exactly as the
// main thread would have run them.
//
//     VirtualMainLoop loop;
//     loop.scheduleRepeating(1.0, [&] { model.tick(); });
//     loop.advance(2.0);  // two ticks, at 1.0 s and 2.0 s
//
// Uptime and the wall clock advance together; the wall clock can also be stepped on its
// own (backwards too) to test code that must not trust it.
//
// Thread: control (the test's thread) for every call. Realtime-safe: no.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>

#include "platform/MainLoop.h"

namespace brightmix {

class VirtualMainLoop final : public MainLoop {
public:
    // Both clocks start at fixed, arbitrary values so that runs are reproducible.
    static constexpr double kDefaultUptime = 1000.0;
    static constexpr double kDefaultWallClock = 1'800'000'000.0; // early 2027

    explicit VirtualMainLoop(double uptime = kDefaultUptime, double wallClock = kDefaultWallClock);

    void post(Task task) override;
    // A negative or not-a-number delay counts as 0.
    TimerID scheduleOnce(double delaySeconds, Task task) override;
    // Intervals below kMinimumInterval (or not a number) are raised to it, so that a
    // repeating timer can never stall time.
    TimerID scheduleRepeating(double intervalSeconds, Task task) override;
    void cancel(TimerID timer) override;
    double uptime() const override { return uptime_; }
    double now() const override { return wallClock_; }

    static constexpr double kMinimumInterval = 0.0001;

    // Moves time forward by `seconds`, running posted work first, then every timer that
    // falls due, in due-time order (ties in scheduling order), with the clocks set to each
    // timer's due time while it runs; work posted meanwhile runs before the next timer.
    // Throws std::invalid_argument for a negative or not-a-number duration.
    void advance(double seconds);
    // Runs the posted work without moving time.
    void runPending();
    // Steps the wall clock alone, forwards or backwards; uptime stays monotonic.
    void stepWallClock(double seconds);

    std::size_t pendingTimers() const { return timers_.size(); }
    std::size_t pendingPosts() const { return posted_.size(); }

private:
    struct Timer {
        double due = 0;
        double interval = 0; // 0: one-shot
        Task task;
    };
    TimerID add(double delay, double interval, Task task);

    double uptime_;
    double wallClock_;
    TimerID nextTimer_ = 1;
    std::uint64_t nextSequence_ = 0;
    std::deque<Task> posted_;
    std::map<TimerID, Timer> timers_;
    // due time and sequence -> timer, so that equal due times keep scheduling order
    std::map<std::pair<double, std::uint64_t>, TimerID> queue_;
    std::map<TimerID, std::pair<double, std::uint64_t>> queuePosition_;
};

} // namespace brightmix
