// The desktop's volume keys on Linux, end to end: the desktop changes the multi-output sink's
// own volume (here with pactl, as the desktop's keys and slider do through pipewire-pulse);
// while Brightmix routes that sink, the change becomes its master volume, the speakers get
// exactly that level (no second attenuation: the tap is taken before the sink's volume), and
// Brightmix's own slider shows on the sink's volume.
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

#include "Brightmix/AppModel.h"
#include "app/linux/DesktopMuteKey.h"
#include "realtime/ProcessingState.h"
#include "tests/linux/ModelOnSession.h"

namespace brightmix {
namespace {

using namespace std::chrono_literals;

constexpr double kToneDb = -6.0206; // the played tone's peak: 0.5

TEST(SystemVolume, TheDesktopsVolumeOfTheSinkMovesBrightmixAndBack) {
    testing::ModelOnSession session;
    if (!session.start(/*followsSystemVolume=*/true)) {
        GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
    }
    AppModel& model = *session.model;
    auto& loop = session.loop;
    auto& hardware = session.hardware;
    testing::MonitorCapture desk("desk_speakers", 2);
    const std::string tone = testing::scratchDirectory() + "/system-volume-tone.wav";
    testing::writeToneFile(tone, 1000, 0.5, 30);
    testing::TonePlayer player(tone, "multi_output");

    const testing::FullSinkVolumeAfterwards restore;
    ASSERT_EQ(std::system("pactl set-sink-volume multi_output 70%"), 0);

    model.selectOutput("multi_output", false);
    model.setVolume(0.6);
    // Wait until the desktop's 70 % is in the backend's view of the graph.
    const AudioObjectID sink = model.devices().device("multi_output").value().id;
    const AudioObjectPropertyAddress volume{kAudioDevicePropertyVolumeScalar,
                                            kAudioObjectPropertyScopeOutput, 0};
    auto sinkVolume = [&] {
        hardware->synchronize();
        Float32 scalar = -1;
        UInt32 size = sizeof scalar;
        hardware->getPropertyData(sink, volume, 0, nullptr, &size, &scalar);
        return double(scalar);
    };
    for (int i = 0; i < 40 && std::fabs(sinkVolume() - 0.7) > 0.01; ++i) {
        std::this_thread::sleep_for(25ms);
    }
    model.setEnabled(true);
    ASSERT_TRUE(model.state().isEnabled) << model.state().errorMessage.value_or("");
    ASSERT_TRUE(model.isFollowingSystemVolume());
    EXPECT_NEAR(model.state().volume, 0.7, 0.01) << "switching on adopts the desktop's level";

    // The desktop's keys.
    ASSERT_EQ(std::system("pactl set-sink-volume multi_output 30%"), 0);
    bool hasFollowed = false;
    for (int i = 0; i < 60 && !hasFollowed; ++i) {
        std::this_thread::sleep_for(25ms);
        hardware->synchronize();
        loop.advance(AppModel::kSystemVolumeInterval);
        hasFollowed = std::fabs(model.state().volume - 0.3) < 0.01;
    }
    ASSERT_TRUE(hasFollowed) << model.state().volume;
    EXPECT_NEAR(ProcessingGetMasterGain(model.engine().gainState()), 0.3, 0.01);
    // What the speakers get: the tone at the new level, once — not twice attenuated.
    EXPECT_NEAR(testing::toneDb(desk.listen(0, 0.3), 1000), kToneDb + 20 * std::log10(0.3), 0.5);

    // Brightmix's slider goes the other way, and its own write is not taken for a change.
    model.setVolume(0.8);
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(25ms);
        loop.advance(AppModel::kSystemVolumeInterval);
    }
    EXPECT_NEAR(sinkVolume(), 0.8, 0.01);
    EXPECT_EQ(model.state().volume, 0.8);

    model.setEnabled(false);
    EXPECT_FALSE(model.isFollowingSystemVolume());
    hardware->synchronize();
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
}

TEST(SystemVolume, TheDesktopsMuteKeyTogglesBrightmixsMuteAndTheSinkStaysMuted) {
    testing::ModelOnSession session;
    if (!session.start())
        GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
    AppModel& model = *session.model;
    auto& loop = session.loop;
    auto& hardware = session.hardware;
    linuxapp::DesktopMuteKey muteKey(model, *hardware, loop);
    model.selectOutput("multi_output", false);
    model.setEnabled(true);
    ASSERT_TRUE(model.state().isEnabled) << model.state().errorMessage.value_or("");
    ASSERT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(true));

    auto pressMute = [&] {
        // The desktop's mute key on a sink it shows as muted: it unmutes it.
        ASSERT_EQ(std::system("pactl set-sink-mute multi_output 0"), 0);
        const bool wasMuted = model.state().isMuted;
        for (int i = 0; i < 60 && model.state().isMuted == wasMuted; ++i) {
            std::this_thread::sleep_for(25ms);
            hardware->synchronize();
            loop.advance(linuxapp::DesktopMuteKey::kInterval);
        }
        hardware->synchronize();
        EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(true))
            << "the sink is muted again at once";
    };
    pressMute();
    EXPECT_TRUE(model.state().isMuted);
    EXPECT_EQ(ProcessingGetMasterGain(model.engine().gainState()), 0.0f);
    pressMute();
    EXPECT_FALSE(model.state().isMuted);

    model.setEnabled(false);
    hardware->synchronize();
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    loop.advance(1.0); // nothing more happens once off
    EXPECT_FALSE(model.state().isMuted);
}

} // namespace
} // namespace brightmix
