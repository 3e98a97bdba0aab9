#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "Brightmix/AppPlaybackMonitor.h"
#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/AudioRecording.h"
#include "platform/sim/HeldStartHardware.h"
#include "platform/sim/ScriptedWorkspace.h"
#include "platform/sim/SimulatedAudioHardware.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/support/AllocationGuard.h"

namespace brightmix {
namespace {

using Call = SimulatedAudioHardware::Call;
using BundleIDSet = AppPlaybackMonitor::BundleIDSet;

const std::string kPlayer = "com.example.player";
const std::string kRadio = "com.example.radio";
const std::string kNoAudioMessage = "Playback detection is not receiving audio. Check Brightmix’s "
                                    "System Audio Recording permission in System Settings.";

AudioStreamBasicDescription floatFormat(double rate) {
    return AudioRecording::clientFormat(rate);
}

class AppPlaybackMonitorTests : public ::testing::Test {
protected:
    // A running app: its audio process, the workspace's view of it, and a loud signal.
    AudioObjectID addApp(std::int32_t pid, const std::string& bundleID, const std::string& path,
                         const std::string& processBundleID = "") {
        const auto object =
            sim.addProcess({pid, processBundleID.empty() ? bundleID : processBundleID, true});
        workspace.setRunningApplication(pid, path, bundleID);
        if (const auto bundle = outermostAppBundlePath(path)) {
            workspace.setBundleIdentifier(*bundle, bundleID);
        }
        sim.setProcessAudio(pid, [](std::uint64_t, UInt32) { return 0.5f; });
        return object;
    }

    // Runs IO cycles on the app's detection aggregate, `frames` frames in all.
    void play(const std::string& bundleID, std::uint32_t frames) {
        const PlaybackTap* tap = monitor.tap(bundleID);
        ASSERT_NE(tap, nullptr) << bundleID;
        while (frames > 0) {
            const std::uint32_t cycle = std::min<std::uint32_t>(frames, 512);
            ASSERT_EQ(sim.pumpCycle(tap->aggregateID(), cycle), 1u);
            frames -= cycle;
        }
    }

    void expectNothingLeft() {
        EXPECT_EQ(monitor.tapCount(), 0u);
        EXPECT_EQ(sim.liveTaps(), 0u);
        EXPECT_EQ(sim.liveAggregates(), 0u);
        EXPECT_EQ(sim.liveIOProcs(), 0u);
        EXPECT_EQ(sim.runningIOProcs(), 0u);
    }

    SimulatedAudioHardware sim;
    AudioDeviceService devices{sim};
    VirtualMainLoop loop;
    ScriptedWorkspace workspace;
    AppPlaybackMonitor monitor{devices, loop, workspace};
    std::vector<AppOutputRule> rules = {{kPlayer, "Player", "out-1", "Desk"},
                                        {kRadio, "Radio", "out-2", "Kitchen"}};
};

TEST_F(AppPlaybackMonitorTests, AnAppThatIsNotRunningGetsNoTap) {
    for (int poll = 0; poll < 3; ++poll) {
        EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
    }
    expectNothingLeft();
    EXPECT_EQ(sim.callCount(Call::createProcessTap), 0u);
}

TEST_F(AppPlaybackMonitorTests, BuildsAPrivateUnmutedMixdownTapAndATapOnlyAggregate) {
    const auto second = addApp(502, kPlayer, "/Applications/Player.app");
    const auto first = addApp(501, kPlayer, "/Applications/Player.app");
    ASSERT_TRUE(monitor.poll(rules));

    const PlaybackTap* tap = monitor.tap(kPlayer);
    ASSERT_NE(tap, nullptr);
    EXPECT_EQ(tap->processIDs(),
              (std::vector<AudioObjectID>{std::min(first, second), std::max(first, second)}));
    const auto description = sim.tapDescription(tap->tapID());
    ASSERT_TRUE(description);
    EXPECT_EQ(description->kind, TapDescription::Kind::stereoMixdownOfProcesses);
    EXPECT_EQ(description->processes, tap->processIDs());
    EXPECT_EQ(description->name, "Brightmix Playback: Player");
    EXPECT_TRUE(description->isPrivate);
    EXPECT_EQ(description->muteBehavior, kCATapUnmuted);

    const PropertyList composition = sim.composition(tap->aggregateID());
    const auto text = [&](const char* key) {
        const PropertyList* value = composition.find(key);
        return value && value->asString() ? *value->asString() : std::string("<none>");
    };
    EXPECT_EQ(text("name"), "Brightmix Playback: Player");
    EXPECT_EQ(text("uid").rfind("com.corvale.brightmix.private.meter.", 0), 0u) << text("uid");
    EXPECT_EQ(text("uid").size(), std::string("com.corvale.brightmix.private.meter.").size() + 36);
    ASSERT_NE(composition.find("private"), nullptr);
    EXPECT_EQ(composition.find("private")->asNumber(), 1.0);
    ASSERT_NE(composition.find("tapautostart"), nullptr);
    EXPECT_EQ(composition.find("tapautostart")->asNumber(), 1.0);
    ASSERT_NE(composition.find("subdevices"), nullptr);
    ASSERT_NE(composition.find("subdevices")->asArray(), nullptr);
    EXPECT_TRUE(composition.find("subdevices")->asArray()->empty());
    const PropertyList* taps = composition.find("taps");
    ASSERT_TRUE(taps && taps->asArray() && taps->asArray()->size() == 1u);
    const PropertyList* tapUID = taps->asArray()->front().find("uid");
    ASSERT_TRUE(tapUID && tapUID->asString());
    EXPECT_EQ(sim.tapID(*tapUID->asString()), tap->tapID());
    EXPECT_EQ(sim.runningIOProcs(), 1u);

    // Every tap gets an aggregate UID of its own.
    monitor.stop();
    expectNothingLeft();
    ASSERT_TRUE(monitor.poll(rules));
    const PropertyList rebuilt = sim.composition(monitor.tap(kPlayer)->aggregateID());
    const PropertyList* again = rebuilt.find("uid");
    ASSERT_TRUE(again && again->asString());
    EXPECT_NE(*again->asString(), text("uid"));
}

TEST_F(AppPlaybackMonitorTests, ExactlyThePlayingThresholdCountsAgainstTheTapsOwnRate) {
    addApp(501, kPlayer, "/Applications/Player.app");
    const struct {
        double rate;
        std::uint32_t thresholdFrames; // 0.15 s at that rate
    } rates[] = {{48000.0, 7200}, {44100.0, 6615}, {96000.0, 14400}};
    for (const auto& r : rates) {
        SCOPED_TRACE(r.rate);
        monitor.stop();
        sim.overrideTapFormat(floatFormat(r.rate));
        ASSERT_EQ(monitor.poll(rules), BundleIDSet{});
        EXPECT_EQ(monitor.tap(kPlayer)->sampleRate(), r.rate);

        play(kPlayer, r.thresholdFrames);
        EXPECT_EQ(monitor.poll(rules), BundleIDSet{kPlayer});
        play(kPlayer, r.thresholdFrames - 1);
        EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
        // The counter starts afresh each poll: frames do not pile up across polls.
        play(kPlayer, r.thresholdFrames / 2);
        EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
        play(kPlayer, r.thresholdFrames / 2);
        EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
    }
}

TEST_F(AppPlaybackMonitorTests, AChangedProcessSetRebuildsTheTapWithAFreshCounter) {
    addApp(501, kPlayer, "/Applications/Player.app");
    ASSERT_TRUE(monitor.poll(rules));
    const AudioObjectID firstTap = monitor.tap(kPlayer)->tapID();
    play(kPlayer, 48000);

    // An auxiliary process starts, named below the app's identifier.
    const auto helper = sim.addProcess({601, kPlayer + ".renderer", true});
    EXPECT_EQ(monitor.poll(rules), BundleIDSet{}); // the old counter's second is gone
    const PlaybackTap* tap = monitor.tap(kPlayer);
    ASSERT_NE(tap, nullptr);
    EXPECT_NE(tap->tapID(), firstTap);
    EXPECT_EQ(tap->processIDs().size(), 2u);
    EXPECT_EQ(tap->processIDs().back(), helper);
    EXPECT_EQ(sim.liveTaps(), 1u);
    EXPECT_EQ(sim.liveAggregates(), 1u);

    // The helper stops its output: rebuilt again for the app alone.
    sim.setProcessRunningOutput(helper, false);
    ASSERT_TRUE(monitor.poll(rules));
    EXPECT_EQ(monitor.tap(kPlayer)->processIDs().size(), 1u);

    // No process with running output left: no tap.
    sim.setProcessRunningOutput(sim.processObject(501), false);
    EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
    expectNothingLeft();
}

TEST_F(AppPlaybackMonitorTests, FourPollsWithoutCallbacksAreToleratedTheFifthFailsAndRests) {
    addApp(501, kPlayer, "/Applications/Player.app");
    for (int poll = 1; poll <= 4; ++poll) {
        EXPECT_TRUE(monitor.poll(rules)) << poll;
        EXPECT_EQ(monitor.tap(kPlayer)->missingCallbackPolls(), poll);
    }
    // One cycle resets the count.
    play(kPlayer, 64);
    ASSERT_TRUE(monitor.poll(rules));
    EXPECT_EQ(monitor.tap(kPlayer)->missingCallbackPolls(), 0);
    for (int poll = 1; poll <= 4; ++poll) {
        ASSERT_TRUE(monitor.poll(rules));
    }
    try {
        monitor.poll(rules);
        FAIL() << "the fifth poll without callbacks passed";
    } catch (const AudioDeviceError& error) {
        EXPECT_EQ(error.kind(), AudioDeviceError::Kind::unavailable);
        EXPECT_EQ(error.localizedDescription(), kNoAudioMessage);
    }
    expectNothingLeft();
    EXPECT_EQ(monitor.retryAfter(), loop.uptime() + 15.0);

    // Resting: nothing is read or created.
    const auto reads = sim.callCount(Call::getPropertyData);
    const auto taps = sim.callCount(Call::createProcessTap);
    for (int second = 0; second < 15; ++second) {
        EXPECT_EQ(monitor.poll(rules), std::nullopt) << second;
        loop.advance(0.999);
        EXPECT_EQ(monitor.poll(rules), std::nullopt) << second;
        loop.advance(0.001);
    }
    EXPECT_EQ(sim.callCount(Call::getPropertyData), reads);
    EXPECT_EQ(sim.callCount(Call::createProcessTap), taps);
    EXPECT_EQ(sim.liveTaps(), 0u);

    // Fifteen seconds on, it starts afresh.
    EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
    EXPECT_EQ(monitor.tapCount(), 1u);
}

TEST_F(AppPlaybackMonitorTests, AnAppListedTwiceIsReadOncePerPoll) {
    addApp(501, kPlayer, "/Applications/Player.app");
    rules.push_back({kPlayer, "Player", "out-3", "Headphones"});
    ASSERT_TRUE(monitor.poll(rules));
    for (int poll = 2; poll <= 6; ++poll) {
        play(kPlayer, 7200);
        EXPECT_EQ(monitor.poll(rules), BundleIDSet{kPlayer}) << poll;
        EXPECT_EQ(monitor.tap(kPlayer)->missingCallbackPolls(), 0);
    }
    EXPECT_EQ(sim.liveTaps(), 1u);
}

TEST_F(AppPlaybackMonitorTests, AnyFailureDropsEveryTapAndLeavesNothingBehind) {
    const AudioStreamBasicDescription int16 = [] {
        auto format = floatFormat(48000.0);
        format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
        format.mBitsPerChannel = 16;
        return format;
    }();
    const AudioStreamBasicDescription noRate = floatFormat(0.0);
    const AudioStreamBasicDescription float64 = [] {
        auto format = floatFormat(48000.0);
        format.mBitsPerChannel = 64;
        return format;
    }();
    const OSStatus nope = kAudioHardwareIllegalOperationError;
    const struct {
        const char* name;
        std::function<void(SimulatedAudioHardware&)> inject;
        AudioDeviceError expected;
    } cases[] = {
        {"tap creation", [&](auto& s) { s.failNext(Call::createProcessTap, nope); },
         AudioDeviceError::coreAudio("Detecting playback from Radio", nope)},
        {"integer format", [&](auto& s) { s.overrideTapFormat(int16); },
         AudioDeviceError::unavailable("Radio returned an unsupported playback format.")},
        {"64-bit format", [&](auto& s) { s.overrideTapFormat(float64); },
         AudioDeviceError::unavailable("Radio returned an unsupported playback format.")},
        {"zero rate", [&](auto& s) { s.overrideTapFormat(noRate); },
         AudioDeviceError::unavailable("Radio returned an unsupported playback format.")},
        {"unreadable format",
         [&](auto& s) {
             s.failProperty(kAudioObjectUnknown, kAudioTapPropertyFormat, nope,
                            SimulatedAudioHardware::Times::once);
         },
         AudioDeviceError::unavailable("Radio returned an unsupported playback format.")},
        {"unreadable tap UID",
         [&](auto& s) {
             s.failProperty(kAudioObjectUnknown, kAudioTapPropertyUID, nope,
                            SimulatedAudioHardware::Times::once);
         },
         AudioDeviceError::unavailable("Radio returned an unsupported playback format.")},
        {"aggregate creation", [&](auto& s) { s.failNext(Call::createAggregateDevice, nope); },
         AudioDeviceError::coreAudio("Preparing playback detection for Radio", nope)},
        {"IOProc creation", [&](auto& s) { s.failNext(Call::createIOProcID, nope); },
         AudioDeviceError::coreAudio("Preparing the playback meter for Radio", nope)},
        {"start", [&](auto& s) { s.failNext(Call::startDevice, nope); },
         AudioDeviceError::coreAudio("Starting playback detection for Radio", nope)},
        {"process list",
         [&](auto& s) {
             s.failProperty(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList,
                            kAudioHardwareBadObjectError, SimulatedAudioHardware::Times::once);
         },
         AudioDeviceError::coreAudio("Reading audio property size", kAudioHardwareBadObjectError)},
    };
    addApp(501, kPlayer, "/Applications/Player.app");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        monitor.stop();
        sim.clearFaults();
        sim.overrideTapFormat(std::nullopt);
        ASSERT_TRUE(monitor.poll(rules));
        ASSERT_EQ(monitor.tapCount(), 1u); // the player's tap stands

        const auto radio = addApp(701, kRadio, "/Applications/Radio.app");
        c.inject(sim);
        try {
            monitor.poll(rules);
            ADD_FAILURE() << "no failure";
        } catch (const AudioDeviceError& error) {
            EXPECT_EQ(error, c.expected) << error.localizedDescription();
        }
        expectNothingLeft();
        EXPECT_EQ(monitor.poll(rules), std::nullopt);
        sim.removeProcess(radio);
        sim.clearFaults();
        loop.advance(15.0);
    }
}

TEST_F(AppPlaybackMonitorTests, ThisProgramsOwnProcessIsNeverTapped) {
    const std::int32_t own = sim.currentProcessID();
    sim.removeProcess(sim.processObject(own));
    sim.addProcess({own, kPlayer, true});
    workspace.setRunningApplication(own, "/Applications/Player.app", kPlayer);
    sim.setProcessAudio(own, [](std::uint64_t, UInt32) { return 0.5f; });
    EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
    expectNothingLeft();
}

TEST_F(AppPlaybackMonitorTests, ProcessesCountByTheirOwnAppAndEnclosingBundle) {
    // A helper with no bundle ID of its own inside the player's bundle.
    const auto helper = sim.addProcess({801, "", true});
    workspace.setRunningApplication(
        801, "/Applications/Player.app/Contents/Frameworks/Render.app/Contents/MacOS/Render",
        "com.example.render");
    workspace.setBundleIdentifier("/Applications/Player.app", kPlayer);
    // A process whose running application has no bundle path: its own identifier counts.
    const auto radio = sim.addProcess({802, "", true});
    workspace.setRunningApplication(802, std::nullopt, kRadio);
    // Silent processes and unreadable PIDs are skipped.
    sim.addProcess({803, kPlayer, false});
    const auto unreadable = sim.addProcess({804, kPlayer, true});
    sim.hideProperty(unreadable, kAudioProcessPropertyPID);
    // An undotted continuation of a wanted identifier is another app.
    sim.addProcess({805, kPlayer + "extra", true});

    const auto processes = monitor.processObjectsByBundleID({kPlayer, kRadio});
    EXPECT_EQ(processes, (AppPlaybackMonitor::ProcessMap{{kPlayer, {helper}}, {kRadio, {radio}}}));
}

TEST(AppPlaybackMonitorMatchTests, MatchesExactThenEnclosingAppThenLongestDottedPrefix) {
    const BundleIDSet wanted = {"com.example", "com.example.player", "org.other"};
    const std::vector<std::string> longestFirst = {"com.example.player", "com.example",
                                                   "org.other"};
    using Opt = std::optional<std::string>;
    const struct {
        Opt process;
        Opt app;
        Opt expected;
    } cases[] = {
        {"com.example.player", "org.other", "com.example.player"},
        {"com.unknown", "org.other", "org.other"},
        {std::nullopt, "org.other", "org.other"},
        {"com.example.player.helper", std::nullopt, "com.example.player"},
        {"com.example.player.helper.gpu", "com.unknown", "com.example.player"},
        {"com.example.other", std::nullopt, "com.example"},
        {"com.example.playerx", std::nullopt, "com.example"},
        {"com.examplex.player", std::nullopt, std::nullopt},
        {"org.otherthing", std::nullopt, std::nullopt},
        {"org.other.", std::nullopt, "org.other"},
        {"com", std::nullopt, std::nullopt},
        {std::nullopt, std::nullopt, std::nullopt},
        {std::nullopt, "com.example.player.helper", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(AppPlaybackMonitor::matchBundleID(c.process, c.app, wanted, longestFirst),
                  c.expected)
            << c.process.value_or("<none>") << " / " << c.app.value_or("<none>");
    }
}

TEST_F(AppPlaybackMonitorTests, StoppingDropsTapsAndEndsTheRest) {
    addApp(501, kPlayer, "/Applications/Player.app");
    sim.failNext(Call::createProcessTap, kAudioHardwareIllegalOperationError);
    EXPECT_THROW(monitor.poll(rules), AudioDeviceError);
    EXPECT_EQ(monitor.poll(rules), std::nullopt);
    monitor.stop();
    EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
    EXPECT_EQ(monitor.tapCount(), 1u);
    monitor.stop();
    expectNothingLeft();
}

TEST_F(AppPlaybackMonitorTests, TheDetectionIOProcAllocatesNothing) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    addApp(501, kPlayer, "/Applications/Player.app");
    ASSERT_TRUE(monitor.poll(rules));
    const AudioObjectID aggregate = monitor.tap(kPlayer)->aggregateID();
    sim.pumpCycle(aggregate, 512); // lets the simulation prepare its buffers
    testing::AllocationGuard guard;
    sim.pumpCycle(aggregate, 512);
    EXPECT_EQ(guard.allocations(), 0u);
}

TEST_F(AppPlaybackMonitorTests, PollsWhileRealIOThreadsCount) {
    sim.setThreadedMode(true, 256, std::chrono::microseconds(200));
    addApp(501, kPlayer, "/Applications/Player.app");
    addApp(701, kRadio, "/Applications/Radio.app");
    ASSERT_TRUE(monitor.poll(rules));
    EXPECT_EQ(sim.runningIOProcs(), 2u);
    // 0.15 s at 48 kHz is 7200 frames, about 29 cycles; wait until both taps heard that.
    std::optional<BundleIDSet> heard;
    BundleIDSet total;
    for (int attempt = 0; attempt < 500 && total.size() < 2; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        heard = monitor.poll(rules);
        ASSERT_TRUE(heard);
        total.insert(heard->begin(), heard->end());
    }
    EXPECT_EQ(total, (BundleIDSet{kPlayer, kRadio}));
    monitor.stop();
    expectNothingLeft();
}

} // namespace
} // namespace brightmix

namespace brightmix {
namespace {

// Core Audio holds the start of an auto-start aggregate until a tapped app delivers audio:
// the poll, on the main thread, must never be the one that waits.
TEST(AppPlaybackMonitorHeldStarts, ThePollNeverWaitsForAnAppsFirstAudio) {
    SimulatedAudioHardware sim;
    HeldStartHardware system(sim);
    AudioDeviceService devices{system};
    VirtualMainLoop loop;
    ScriptedWorkspace workspace;
    AppPlaybackMonitor monitor{devices, loop, workspace};
    for (const auto& [pid, bundleID] : {std::pair{501, kPlayer}, std::pair{502, kRadio}}) {
        sim.addProcess({pid, bundleID, true});
        workspace.setRunningApplication(pid, "/Applications/" + bundleID + ".app", bundleID);
        workspace.setBundleIdentifier("/Applications/" + bundleID + ".app", bundleID);
        sim.setProcessAudio(pid, [](std::uint64_t, UInt32) { return 0.5f; });
    }
    const std::vector<AppOutputRule> rules = {{kPlayer, "Player", "out-1", "Desk"},
                                              {kRadio, "Radio", "out-2", "Kitchen"}};
    EXPECT_EQ(monitor.poll(rules), BundleIDSet{});
    ASSERT_EQ(monitor.tapCount(), 2u);
    EXPECT_EQ(system.heldStarts(), 0u) << "a detection start went through the waiting call";
    // The starts did go through: the taps run and hear their apps.
    for (const std::string& bundleID : {kPlayer, kRadio})
        EXPECT_EQ(sim.pumpCycle(monitor.tap(bundleID)->aggregateID(), 48000), 1u) << bundleID;
    EXPECT_EQ(monitor.poll(rules), (BundleIDSet{kPlayer, kRadio}));
}

} // namespace
} // namespace brightmix
