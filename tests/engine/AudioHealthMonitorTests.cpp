// The health monitor over the simulated hardware: when a silent per-device tap makes it fall
// back to the global tap, when it must not, the fallback contract with the app model, and
// the diagnostics report.
#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "Brightmix/AudioHealthMonitor.h"
#include "platform/sim/InMemoryDefaults.h"
#include "tests/engine/EngineFixture.h"

namespace brightmix {
namespace {

class AudioHealthMonitorTest : public testing::EngineFixture {
protected:
    AudioHealthMonitorTest() {
        player = sim.addProcess({501, "com.example.player", true, {deskID}});
        sim.setProcessAudio(
            501, [](std::uint64_t frame, UInt32) { return (frame / 24) % 2 ? 0.3f : -0.3f; });
        selected = desk();
    }

    void startEngine(AudioCaptureMode mode) {
        engine.start(*selected, mode);
        monitor.reset(engine);
    }
    // One refresh tick: some IO cycles, then the poll.
    bool tick(int cycles = 4) {
        sim.runCycles(engine.aggregateID(), 256, std::size_t(cycles));
        now += 1;
        return monitor.poll({engine, devices, selected, defaults, errorMessage, now});
    }

    AudioObjectID player = 0;
    std::optional<AudioDevice> selected;
    AudioHealthMonitor monitor;
    InMemoryDefaults defaults;
    std::string errorMessage;
    double now = 1.8e9;
};

TEST_F(AudioHealthMonitorTest, TwoSilentPollsWhileAnotherAppPlaysFallBackExactlyOnce) {
    sim.setTapsDeliverSilence(true);
    startEngine(AudioCaptureMode::selectedDevice);
    EXPECT_FALSE(tick());
    EXPECT_EQ(monitor.silentActivePollCount, 1);
    EXPECT_TRUE(tick());
    EXPECT_TRUE(monitor.hasRequestedFallback);
    EXPECT_FALSE(tick()) << "at most once per reset";
    EXPECT_EQ(monitor.silentActivePollCount, 3);

    EXPECT_EQ(monitor.fallBack(engine, *selected), std::nullopt);
    EXPECT_TRUE(engine.isRunning());
    EXPECT_TRUE(engine.isUsingCompatibilityCapture());
    EXPECT_EQ(sim.liveAggregates(), 1u);
    EXPECT_FALSE(monitor.hasRequestedFallback);
    EXPECT_EQ(monitor.silentActivePollCount, 0);
    EXPECT_EQ(monitor.lastCallbackCount, ProcessingRenderCycles(engine.gainState()));
    // Still silent on the global tap: the count climbs, but nothing more is asked.
    for (int poll = 0; poll < 5; ++poll)
        EXPECT_FALSE(tick());
    EXPECT_EQ(monitor.silentActivePollCount, 5);
}

TEST_F(AudioHealthMonitorTest, NeverFallsBackFromTheCompatibilityCapture) {
    sim.setTapsDeliverSilence(true);
    startEngine(AudioCaptureMode::compatibilityGlobal);
    for (int poll = 1; poll <= 4; ++poll) {
        EXPECT_FALSE(tick());
        EXPECT_EQ(monitor.silentActivePollCount, poll);
    }
    EXPECT_FALSE(monitor.hasRequestedFallback);
}

TEST_F(AudioHealthMonitorTest, SilenceWithNothingElsePlayingIsNeverAFault) {
    sim.setTapsDeliverSilence(true);
    sim.setProcessRunningOutput(player, false);
    startEngine(AudioCaptureMode::selectedDevice);
    for (int poll = 0; poll < 10; ++poll)
        EXPECT_FALSE(tick());
    EXPECT_EQ(monitor.silentActivePollCount, 0);
}

TEST_F(AudioHealthMonitorTest, ATapThatOnceDeliveredIsTrusted) {
    sim.setTapsDeliverSilence(true);
    startEngine(AudioCaptureMode::selectedDevice);
    EXPECT_FALSE(tick());
    sim.setTapsDeliverSilence(false);
    EXPECT_FALSE(tick());
    EXPECT_TRUE(monitor.hasDeliveredSound);
    EXPECT_EQ(monitor.silentActivePollCount, 0);
    sim.setTapsDeliverSilence(true);
    for (int poll = 0; poll < 5; ++poll)
        EXPECT_FALSE(tick());
    EXPECT_EQ(monitor.silentActivePollCount, 0);
}

TEST_F(AudioHealthMonitorTest, StalledCallbacksResetTheCount) {
    sim.setTapsDeliverSilence(true);
    startEngine(AudioCaptureMode::selectedDevice);
    EXPECT_FALSE(tick());
    sim.setCallbacksSuppressed(engine.aggregateID(), true);
    EXPECT_FALSE(tick());
    EXPECT_EQ(monitor.silentActivePollCount, 0);
    sim.setCallbacksSuppressed(engine.aggregateID(), false);
    EXPECT_FALSE(tick());
    EXPECT_TRUE(tick()) << "two consecutive silent polls again";
}

TEST_F(AudioHealthMonitorTest, AProcessPlayingWithoutNamingADeviceCounts) {
    sim.setTapsDeliverSilence(true);
    sim.setProcessDevices(player, {});
    startEngine(AudioCaptureMode::selectedDevice);
    EXPECT_FALSE(tick());
    EXPECT_TRUE(tick());
}

TEST_F(AudioHealthMonitorTest, FailedFallbackReportsWhyAndIsNotRetried) {
    sim.setTapsDeliverSilence(true);
    startEngine(AudioCaptureMode::selectedDevice);
    tick();
    ASSERT_TRUE(tick());
    sim.failNext(SimulatedAudioHardware::Call::createProcessTap,
                 kAudioHardwareIllegalOperationError);
    EXPECT_EQ(monitor.fallBack(engine, *selected),
              "Brightmix’s audio tap never delivered sound and the compatibility tap could not "
              "start, so it switched off to restore ordinary Multi-Output playback. Creating the "
              "system audio tap failed ('nope').");
    EXPECT_FALSE(engine.isRunning());
    EXPECT_EQ(sim.liveTaps() + sim.liveAggregates() + sim.liveIOProcs(), 0u);
    EXPECT_TRUE(monitor.hasRequestedFallback) << "stays set until the next successful start";

    // Even if the app started the per-device tap again without a reset, no second request.
    engine.start(*selected, AudioCaptureMode::selectedDevice);
    for (int poll = 0; poll < 3; ++poll)
        EXPECT_FALSE(tick());
}

TEST_F(AudioHealthMonitorTest, DoesNothingWithoutASelectedDeviceOrARunningEngine) {
    sim.setTapsDeliverSilence(true);
    startEngine(AudioCaptureMode::selectedDevice);
    defaults.set("diagnostics", PropertyList::boolean(true));
    selected.reset();
    AudioHealthMonitor before = monitor;
    for (int poll = 0; poll < 3; ++poll)
        EXPECT_FALSE(tick());
    selected = desk();
    engine.stop();
    EXPECT_FALSE(monitor.poll({engine, devices, selected, defaults, errorMessage, now}));
    EXPECT_EQ(monitor.lastCallbackCount, before.lastCallbackCount);
    EXPECT_EQ(monitor.silentActivePollCount, 0);
    EXPECT_FALSE(defaults.get("diagnosticsReport"));
}

TEST_F(AudioHealthMonitorTest, ReportIsWrittenOnlyWhileDiagnosticsAreOn) {
    startEngine(AudioCaptureMode::selectedDevice);
    tick();
    EXPECT_EQ(defaults.writeCount(), 0u);
    EXPECT_FALSE(defaults.get("diagnosticsReport"));

    defaults.set("diagnostics", PropertyList::boolean(true));
    tick();
    std::optional<PropertyList> report = defaults.get("diagnosticsReport");
    ASSERT_TRUE(report);
    const PropertyList::Dictionary& members = *report->asDictionary();
    using Kind = PropertyList::Kind;
    const std::pair<const char*, Kind> expected[] = {
        {"callbacks", Kind::unsignedInteger},
        {"nonSilent", Kind::unsignedInteger},
        {"otherProcessPlaying", Kind::boolean},
        {"silentPolls", Kind::integer},
        {"tapDeliveredSound", Kind::boolean},
        {"error", Kind::string},
        {"at", Kind::real},
        {"inputPeak", Kind::real},
        {"inputShape", Kind::string},
        {"tapFormat", Kind::string},
        {"gain", Kind::real},
        {"mode", Kind::string},
        {"outputPeak L", Kind::real},
        {"outputPeak H", Kind::real},
    };
    EXPECT_EQ(members.size(), std::size(expected)) << report->description();
    for (auto [key, kind] : expected) {
        ASSERT_TRUE(members.count(key)) << key;
        EXPECT_EQ(members.at(key).kind(), kind) << key;
    }
    EXPECT_EQ(members.at("callbacks").asUnsignedInteger(),
              ProcessingRenderCycles(engine.gainState()));
    EXPECT_EQ(members.at("nonSilent").asUnsignedInteger(),
              ProcessingSignalCycles(engine.gainState()));
    EXPECT_EQ(members.at("otherProcessPlaying").asBoolean(), true);
    EXPECT_EQ(members.at("tapDeliveredSound").asBoolean(), true);
    EXPECT_EQ(members.at("silentPolls").asInteger(), 0);
    EXPECT_EQ(*members.at("error").asString(), "") << "no error is an empty string";
    EXPECT_EQ(members.at("at").asNumber(), now);

    // The next report replaces it and carries the current error.
    errorMessage = "Something failed.";
    tick();
    EXPECT_EQ(*defaults.get("diagnosticsReport")->find("error")->asString(), "Something failed.");
    EXPECT_EQ(defaults.get("diagnosticsReport")->find("at")->asNumber(), now);
}

} // namespace
} // namespace brightmix
