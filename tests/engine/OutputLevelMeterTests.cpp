// The output meter's envelope under a hand-driven clock: instant rise, linear fall, the
// floor, publication only on change, and a clock that steps back.
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <utility>
#include <vector>

#include "Brightmix/OutputLevelMeter.h"
#include "platform/sim/VirtualMainLoop.h"
#include "realtime/ProcessingState.h"

namespace brightmix {
namespace {

// A main loop whose clock the test sets freely (even backwards) and whose repeating timers
// fire when the test says so.
class HandDrivenLoop final : public MainLoop {
public:
    void post(Task task) override { task(); }
    TimerID scheduleOnce(double, Task) override { return 0; }
    TimerID scheduleRepeating(double interval, Task task) override {
        TimerID id = ++lastID_;
        timers_[id] = {interval, std::move(task)};
        return id;
    }
    void cancel(TimerID timer) override { timers_.erase(timer); }
    double uptime() const override { return uptime_; }
    double now() const override { return 1.7e9 + uptime_; }

    // Moves the clock and fires every repeating timer once.
    void fireAt(double uptime) {
        uptime_ = uptime;
        auto copy = timers_;
        for (auto& [id, timer] : copy)
            timer.task();
    }
    void setUptime(double uptime) { uptime_ = uptime; }
    std::size_t timerCount() const { return timers_.size(); }
    double intervalOf(TimerID id) const { return timers_.at(id).interval; }
    TimerID lastID() const { return lastID_; }

private:
    struct Timer {
        double interval;
        Task task;
    };
    std::map<TimerID, Timer> timers_;
    TimerID lastID_ = 0;
    double uptime_ = 100;
};

class OutputLevelMeterTest : public ::testing::Test {
protected:
    void SetUp() override {
        meter.setObserver([this](const OutputLevelEnvelope& envelope) {
            published.push_back(envelope.decibels);
        });
    }
    void startWith(float* peak) {
        meter.start([peak] {
            float value = *peak;
            *peak = 0; // a take: the render's peak is reset by reading it
            return value;
        });
    }

    HandDrivenLoop loop;
    OutputLevelMeter meter{loop, nullptr};
    std::vector<double> published;
};

TEST_F(OutputLevelMeterTest, PeaksMapToDecibelsCappedAtZeroWithTheFloorForNothing) {
    const std::pair<float, double> cases[] = {
        {0.5f, 20 * std::log10(0.5)},
        {1.0f, 0},
        {2.0f, 0},
        {1e-6f, -60},
        {0, -60},
        {-0.5f, -60},
        {std::numeric_limits<float>::quiet_NaN(), -60},
        {std::numeric_limits<float>::infinity(), -60},
    };
    for (auto [peak, expected] : cases) {
        float value = peak;
        startWith(&value);
        loop.fireAt(loop.uptime() + 0.05);
        EXPECT_NEAR(meter.envelope().decibels, expected, 1e-9) << peak;
    }
}

TEST_F(OutputLevelMeterTest, FallsAt72DecibelsPerSecondToTheFloor) {
    float peak = 1.0f;
    startWith(&peak);
    double start = loop.uptime();
    EXPECT_EQ(loop.intervalOf(loop.lastID()), 0.05);
    loop.fireAt(start + 0.05);
    EXPECT_EQ(meter.envelope().decibels, 0);

    double t0 = loop.uptime();
    for (int tick = 1; tick <= 10; ++tick)
        loop.fireAt(t0 + 0.05 * tick);
    EXPECT_NEAR(meter.envelope().decibels, -36, 1e-9);
    for (int tick = 11; tick <= 17; ++tick)
        loop.fireAt(t0 + 0.05 * tick); // 0.85 s: past 0.84 s
    EXPECT_EQ(meter.envelope().decibels, -60);
    EXPECT_EQ(OutputLevelMeter::displayText(meter.envelope().decibels), "Silent");

    // Once at the floor nothing more is published.
    std::size_t count = published.size();
    loop.fireAt(t0 + 2);
    loop.fireAt(t0 + 3);
    EXPECT_EQ(published.size(), count);
}

TEST_F(OutputLevelMeterTest, RiseIsInstantAndAClockSteppingBackDoesNotRaiseTheLevel) {
    float peak = 0.1f; // -20 dB
    startWith(&peak);
    double t = loop.uptime();
    loop.fireAt(t + 0.05);
    EXPECT_NEAR(meter.envelope().decibels, -20, 1e-6);
    loop.fireAt(t + 0.10);
    EXPECT_NEAR(meter.envelope().decibels, -23.6, 1e-6);

    // Back in time: elapsed counts as 0, so the level holds instead of climbing back.
    loop.fireAt(t - 5);
    EXPECT_NEAR(meter.envelope().decibels, -23.6, 1e-6);
    loop.fireAt(t - 4.95);
    EXPECT_NEAR(meter.envelope().decibels, -27.2, 1e-6);

    peak = 0.5f;
    loop.fireAt(t - 4.90);
    EXPECT_NEAR(meter.envelope().decibels, 20 * std::log10(0.5), 1e-6);
}

TEST_F(OutputLevelMeterTest, StartClearsAStalePeakAndStopDropsToTheFloor) {
    ProcessingState* state = ProcessingCreate(1.0f);
    ASSERT_NE(state, nullptr);
    OutputLevelMeter withState(loop, state);
    // A full-scale cycle rendered before the meter started.
    std::vector<float> in(64, 1.0f), out(64, 0.0f);
    AudioBufferList input{1, {{2, 256, in.data()}}};
    AudioBufferList output{1, {{2, 256, out.data()}}};
    ProcessingRender(&input, &output, state);

    withState.start([state] { return ProcessingTakeOutputPeak(state); });
    loop.fireAt(loop.uptime() + 0.05);
    EXPECT_EQ(withState.envelope().decibels, -60) << "the old peak must not be shown";
    EXPECT_TRUE(withState.isRunning());

    ProcessingRender(&input, &output, state);
    loop.fireAt(loop.uptime() + 0.05);
    EXPECT_EQ(withState.envelope().decibels, 0);
    // Muting drops the meter at once and the peak of the last loud cycle is not shown later.
    ProcessingRender(&input, &output, state);
    withState.resetToFloor();
    EXPECT_EQ(withState.envelope().decibels, -60);
    ProcessingSetMasterGain(state, 0);
    ProcessingRender(&input, &output, state);
    loop.fireAt(loop.uptime() + 0.05);
    EXPECT_EQ(withState.envelope().decibels, -60);

    withState.stop();
    EXPECT_FALSE(withState.isRunning());
    EXPECT_EQ(withState.envelope().decibels, -60);
    ProcessingDestroy(state);
}

TEST_F(OutputLevelMeterTest, RestartKeepsOneTimerAndTeardownCancelsIt) {
    float peak = 0;
    {
        OutputLevelMeter local(loop, nullptr);
        local.start([&] { return peak; });
        local.start([&] { return peak; });
        EXPECT_EQ(loop.timerCount(), 1u);
    }
    EXPECT_EQ(loop.timerCount(), 0u);
}

TEST_F(OutputLevelMeterTest, ResetToFloorPublishesOnlyAChange) {
    float peak = 1.0f;
    startWith(&peak);
    loop.fireAt(loop.uptime() + 0.05);
    published.clear();
    meter.resetToFloor();
    meter.resetToFloor();
    EXPECT_EQ(published, std::vector<double>{-60});
}

TEST(OutputLevelMeterTextTest, SilentAtTheFloorElseRoundedDecibels) {
    const std::pair<double, const char*> cases[] = {
        {-60, "Silent"},     {-75, "Silent"},  {-59.6, "-60 dBFS"}, {-12.4, "-12 dBFS"},
        {-12.5, "-13 dBFS"}, {-0.2, "0 dBFS"}, {0, "0 dBFS"},
    };
    for (auto [decibels, text] : cases)
        EXPECT_EQ(OutputLevelMeter::displayText(decibels), text) << decibels;
    EXPECT_STREQ(OutputLevelMeter::kAccessibilityLabel, "Output level");
}

TEST(OutputLevelMeterTimerTest, TicksEveryFiftyMillisecondsOfVirtualTime) {
    VirtualMainLoop loop;
    OutputLevelMeter meter(loop, nullptr);
    int ticks = 0;
    float peak = 1.0f;
    meter.start([&] {
        ++ticks;
        return std::exchange(peak, 0.0f);
    });
    loop.advance(0.05);
    EXPECT_EQ(meter.envelope().decibels, 0);
    loop.advance(0.501); // ten more ticks: 0.5 s after the peak
    EXPECT_NEAR(meter.envelope().decibels, -36, 1e-6);
    EXPECT_EQ(ticks, 11);
    loop.advance(0.35); // 0.85 s after the peak
    EXPECT_EQ(meter.envelope().decibels, -60);
    meter.stop();
    loop.advance(1);
    EXPECT_EQ(ticks, 18);
    EXPECT_EQ(loop.pendingTimers(), 0u);
}

} // namespace
} // namespace brightmix
