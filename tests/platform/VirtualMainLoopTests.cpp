// The virtual-time main loop: ordering of timers and posted work, repeating timers,
// cancellation from inside a task, and the two clocks.
#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/sim/VirtualMainLoop.h"

namespace brightmix {
namespace {

TEST(VirtualMainLoop, RunsTimersInDueOrderAtTheirDueTime) {
    VirtualMainLoop loop;
    const double start = loop.uptime();
    std::vector<std::pair<std::string, double>> ran;
    const auto record = [&](std::string name) {
        return [&ran, &loop, start, name] { ran.emplace_back(name, loop.uptime() - start); };
    };
    loop.scheduleOnce(2.0, record("late"));
    loop.scheduleRepeating(1.0, record("tick"));
    loop.scheduleOnce(1.0, record("same time, scheduled after the tick"));
    loop.post(record("posted"));

    loop.advance(2.5);
    EXPECT_EQ(ran, (std::vector<std::pair<std::string, double>>{
                       {"posted", 0.0},
                       {"tick", 1.0},
                       {"same time, scheduled after the tick", 1.0},
                       {"late", 2.0},
                       {"tick", 2.0}}));
    EXPECT_DOUBLE_EQ(loop.uptime() - start, 2.5);
    EXPECT_EQ(loop.pendingTimers(), 1u); // only the repeating one is left
}

TEST(VirtualMainLoop, NothingRunsUntilTimeAdvances) {
    VirtualMainLoop loop;
    int runs = 0;
    loop.scheduleOnce(0.0, [&] { ++runs; });
    loop.post([&] { ++runs; });
    EXPECT_EQ(runs, 0);
    loop.runPending();
    EXPECT_EQ(runs, 1);
    loop.advance(0.0);
    EXPECT_EQ(runs, 2);
}

TEST(VirtualMainLoop, WorkPostedByATimerRunsBeforeTheNextTimer) {
    VirtualMainLoop loop;
    std::vector<std::string> ran;
    loop.scheduleOnce(1.0, [&] {
        ran.push_back("first");
        loop.post([&] { ran.push_back("posted by first"); });
        loop.scheduleOnce(0.0, [&] { ran.push_back("scheduled by first"); });
    });
    loop.scheduleOnce(1.0, [&] { ran.push_back("second"); });
    loop.advance(1.0);
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "posted by first", "second",
                                             "scheduled by first"}));
}

TEST(VirtualMainLoop, RepeatingTimerCanCancelItself) {
    VirtualMainLoop loop;
    int ticks = 0;
    MainLoop::TimerID timer = 0;
    timer = loop.scheduleRepeating(1.0, [&] {
        if (++ticks == 3) loop.cancel(timer);
    });
    loop.advance(10.0);
    EXPECT_EQ(ticks, 3);
    EXPECT_EQ(loop.pendingTimers(), 0u);
    loop.cancel(timer); // already gone: ignored
    loop.cancel(0);
    loop.cancel(12345);
}

TEST(VirtualMainLoop, CancelledTimersNeverRun) {
    VirtualMainLoop loop;
    int runs = 0;
    const auto once = loop.scheduleOnce(1.0, [&] { ++runs; });
    const auto repeating = loop.scheduleRepeating(0.5, [&] { ++runs; });
    EXPECT_NE(once, repeating);
    EXPECT_NE(once, 0u);
    loop.cancel(once);
    loop.cancel(repeating);
    loop.advance(5.0);
    EXPECT_EQ(runs, 0);
}

TEST(VirtualMainLoop, BadDurationsAreHandled) {
    VirtualMainLoop loop;
    EXPECT_THROW(loop.advance(-1.0), std::invalid_argument);
    EXPECT_THROW(loop.advance(std::nan("")), std::invalid_argument);
    int once = 0;
    loop.scheduleOnce(-3.0, [&] { ++once; });
    loop.scheduleOnce(std::nan(""), [&] { ++once; });
    int ticks = 0;
    loop.scheduleRepeating(0.0, [&] { ++ticks; }); // raised to the minimum interval
    loop.advance(0.00105);
    EXPECT_EQ(once, 2);
    EXPECT_EQ(ticks, 10);
}

TEST(VirtualMainLoop, ClocksAdvanceTogetherAndTheWallClockCanStepBack) {
    VirtualMainLoop loop(50.0, 1000.0);
    EXPECT_EQ(loop.uptime(), 50.0);
    EXPECT_EQ(loop.now(), 1000.0);
    double wallAtTimer = 0;
    loop.scheduleOnce(1.5, [&] { wallAtTimer = loop.now(); });
    loop.advance(2.0);
    EXPECT_EQ(wallAtTimer, 1001.5);
    EXPECT_EQ(loop.now(), 1002.0);
    loop.stepWallClock(-3600.0);
    EXPECT_EQ(loop.now(), -2598.0);
    EXPECT_EQ(loop.uptime(), 52.0);
}

} // namespace
} // namespace brightmix
