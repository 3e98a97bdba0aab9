// Playback detection against the real session: apps are found by their Linux identity,
// an app that plays is heard, one that plays nothing is not, and the detection taps leave
// every app audible.
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include "Brightmix/AppPlaybackMonitor.h"
#include "Brightmix/AudioDeviceService.h"
#include "platform/sim/ScriptedWorkspace.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/linux/PipeWireTestSupport.h"

namespace brightmix {
namespace {

using namespace std::chrono_literals;

TEST(PlaybackDetectionEndToEnd, HearsAPlayingAppByItsLinuxIdentityAndNotASilentOne) {
    auto hardware = testing::connectToSession();
    if (!hardware) {
        GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
    }
    std::string folder = testing::scratchDirectory();
    testing::writeToneFile(folder + "/detect-tone.wav", 1000, 0.5, 20);
    testing::writeToneFile(folder + "/detect-silence.wav", 1000, 0.0, 20);
    testing::MonitorCapture desk("desk_speakers", 2);
    testing::TonePlayer playing(folder + "/detect-tone.wav", "multi_output", "org.example.Player");
    // A paused player that keeps its stream open: the stream runs, the audio is silence.
    testing::TonePlayer paused(folder + "/detect-silence.wav", "multi_output",
                               "org.example.Paused");

    AudioDeviceService service(*hardware);
    VirtualMainLoop loop;
    ScriptedWorkspace workspace;
    AppPlaybackMonitor monitor(service, loop, workspace);
    const std::vector<AppOutputRule> rules = {
        {"org.example.Player", "Player", "desk_speakers", "Desk Speakers"},
        {"org.example.Paused", "Paused", "desk_speakers", "Desk Speakers"},
        {"org.example.Absent", "Absent", "desk_speakers", "Desk Speakers"},
    };

    // Both players are found by the identity they report, once their streams run.
    AppPlaybackMonitor::ProcessMap processes;
    for (int i = 0; i < 100; ++i) {
        processes = monitor.processObjectsByBundleID(
            {"org.example.Player", "org.example.Paused", "org.example.Absent"});
        if (processes.size() == 2) {
            break;
        }
        std::this_thread::sleep_for(30ms);
    }
    ASSERT_EQ(processes.size(), 2u);
    EXPECT_EQ(processes.count("org.example.Absent"), 0u);

    std::optional<AppPlaybackMonitor::BundleIDSet> heard;
    for (int tick = 0; tick < 3; ++tick) {
        heard = monitor.poll(rules);
        ASSERT_TRUE(heard.has_value());
        std::this_thread::sleep_for(1s);
        loop.advance(1.0);
    }
    heard = monitor.poll(rules);
    ASSERT_TRUE(heard.has_value());
    EXPECT_EQ(*heard, AppPlaybackMonitor::BundleIDSet{"org.example.Player"});
    EXPECT_EQ(monitor.tapCount(), 2u);

    // Detection listens beside the app: the speakers still get the tone at full level.
    EXPECT_NEAR(testing::toneDb(desk.listen(0), 1000), -6.02, 0.2);
    monitor.stop();
    EXPECT_EQ(monitor.tapCount(), 0u);
}

} // namespace
} // namespace brightmix
