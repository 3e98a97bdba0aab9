// The audio system restarting under the app model (the audio daemon restarted, or the
// connection to the audio server lost): everything built on it is forgotten without touching
// it, the panel says that Brightmix is reconnecting, and once the system answers again the
// user has what they had.
#include "platform/linux/audiofile/AudioFileReader.h"
#include "tests/model/AppModelFixture.h"

namespace brightmix::testing {
namespace {

using Call = SimulatedAudioHardware::Call;

class ServiceRestartTest : public AppModelFixture {
protected:
    ServiceRestartTest() {
        sim.addProcess({501, "com.example.player", true, {multiID}});
        sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    }
    // Half a second of IO on the router.
    void play() { sim.runCycles(model->engine().aggregateID(), 480, 50); }
    // What a restart must never do: call destroy on IDs of the old audio system.
    std::size_t destroyCalls() {
        return sim.callCount(Call::destroyAggregateDevice) +
               sim.callCount(Call::destroyProcessTap) + sim.callCount(Call::destroyIOProcID) +
               sim.callCount(Call::stopDevice);
    }
    void switchOnWithSettings() {
        switchOnDesk();
        model->setVolume(0.3);
        model->setChildVolume("B", 0.5);
        model->setPreset(OutputPreset::subwoofer, "B");
    }
    void expectRestored() {
        ASSERT_TRUE(state().isEnabled) << state().errorMessage.value_or("");
        EXPECT_FALSE(state().errorMessage);
        EXPECT_TRUE(model->engine().isRunning());
        EXPECT_EQ(defaultOutputUID(), "M");
        EXPECT_FLOAT_EQ(masterGain(), 0.3f);
        EXPECT_FLOAT_EQ(model->engine().childGains().at("B"), 0.5f);
        EXPECT_EQ(model->engine().childPresets().at("B"), OutputPreset::subwoofer);
        EXPECT_TRUE(defaults.boolForKey("resumeEnabled"));
        // It plays again: the speaker hears the player at the panel's volume.
        play();
        const std::vector<float> left = sim.memberOutput(model->engine().aggregateID(), "A");
        ASSERT_FALSE(left.empty());
        EXPECT_NEAR(left.back(), 0.5f * 0.3f, 1e-4f);
        expectConsistent();
    }
};

TEST_F(ServiceRestartTest, WhileOnItWaitsSaysSoAndComesBackWithEverySetting) {
    launch();
    switchOnWithSettings();
    const std::size_t destroys = destroyCalls();
    sim.restartService(true); // down for a while
    tick();
    EXPECT_FALSE(state().isEnabled);
    EXPECT_EQ(state().errorMessage, AppModel::kReconnectingMessage);
    EXPECT_FALSE(model->engine().isRunning());
    EXPECT_EQ(destroyCalls(), destroys) << "old IDs are forgotten, never destroyed";
    EXPECT_TRUE(defaults.boolForKey("resumeEnabled")) << "a crash now still comes back on";
    tick(3);
    EXPECT_EQ(state().errorMessage, AppModel::kReconnectingMessage);
    sim.setDefaultOutput(speakersID); // the restarted system chose its own default
    sim.setServiceUp(true);
    tick();
    expectRestored();
    EXPECT_EQ(sim.liveAggregates(), 1u) << "one router, none left over";
    EXPECT_EQ(sim.liveTaps(), 1u);
}

TEST_F(ServiceRestartTest, WhileOffItStaysOffAndTheMessageGoes) {
    launch();
    model->selectOutput("M", false);
    sim.restartService();
    tick();
    EXPECT_FALSE(state().isEnabled);
    EXPECT_FALSE(state().errorMessage);
    EXPECT_EQ(sim.callCount(Call::createProcessTap), 0u);
}

TEST_F(ServiceRestartTest, TwiceInARowAndAgainWhileWaiting) {
    launch();
    switchOnWithSettings();
    sim.restartService();
    sim.restartService(true);
    tick();
    EXPECT_EQ(state().errorMessage, AppModel::kReconnectingMessage);
    sim.restartService(true); // again before it ever answered
    tick();
    sim.setServiceUp(true);
    tick();
    expectRestored();
    sim.restartService(); // and once more at once, coming straight back
    tick();
    expectRestored();
}

TEST_F(ServiceRestartTest, DuringSwitchOnItSwitchesOnOnceTheSystemAnswers) {
    defaults.set("resumeEnabled", PropertyList::boolean(true));
    defaults.set("selectedDeviceUID", PropertyList::string("M"));
    sim.setDefaultOutput(multiID); // as Brightmix left it
    sim.restartService(true);      // the audio system is restarting as Brightmix starts
    launch();
    EXPECT_FALSE(state().isEnabled);
    EXPECT_EQ(state().errorMessage, AppModel::kReconnectingMessage);
    EXPECT_TRUE(defaults.boolForKey("resumeEnabled"));
    sim.setServiceUp(true);
    tick();
    ASSERT_TRUE(state().isEnabled) << state().errorMessage.value_or("");
    EXPECT_EQ(defaultOutputUID(), "M");
}

TEST_F(ServiceRestartTest, SwitchedOffWhileWaitingStaysOff) {
    launch();
    switchOnWithSettings();
    sim.restartService(true);
    tick();
    model->setEnabled(false);
    sim.setServiceUp(true);
    tick(2);
    EXPECT_FALSE(state().isEnabled);
    EXPECT_FALSE(state().errorMessage);
}

TEST_F(ServiceRestartTest, AnOutputThatComesBackLateIsWaitedForThenGivenUp) {
    launch();
    switchOnWithSettings();
    sim.restartService(true);
    tick();
    const AudioObjectID multi = sim.deviceID("M");
    sim.removeDevice(multi); // the multi-output device is not back yet
    sim.setServiceUp(true);
    tick(3);
    EXPECT_FALSE(state().isEnabled);
    EXPECT_EQ(state().errorMessage, AppModel::kReconnectingMessage);
    EXPECT_TRUE(defaults.boolForKey("resumeEnabled"));
    multiID = sim.addMultiOutputDevice("M", "Desk", {"A", "B"}, "A");
    tick();
    expectRestored();

    // A device that never comes back: after a while Brightmix stops waiting and says why.
    sim.restartService();
    sim.removeDevice(multiID);
    tick(static_cast<int>(AppModel::kReconnectPatience) + 2);
    EXPECT_FALSE(state().isEnabled);
    ASSERT_TRUE(state().errorMessage);
    EXPECT_EQ(state().errorMessage->rfind(AppModel::kReconnectFailedLeadIn, 0), 0u)
        << *state().errorMessage;
}

TEST_F(ServiceRestartTest, ARecordingStopsWithItsFileKeptAndNamed) {
    launch();
    switchOnWithSettings();
    model->setRecordingFormat(RecordingFormat::wav);
    model->toggleRecording();
    ASSERT_TRUE(state().isRecording) << state().recordingMessage.value_or("");
    play();
    play();
    sim.restartService();
    tick();
    EXPECT_FALSE(state().isRecording);
    ASSERT_TRUE(state().lastRecordingURL);
    const std::filesystem::path file = *state().lastRecordingURL;
    EXPECT_EQ(state().recordingMessage, "The audio system restarted, so recording stopped. “" +
                                            file.filename().string() +
                                            "” keeps everything recorded until then.");
    const auto audio = readAudioFile(file.string());
    ASSERT_TRUE(audio) << "the file is whole";
    EXPECT_DOUBLE_EQ(audio->duration(), 1.0);
    EXPECT_TRUE(folders.accessing.empty());
    expectRestored();
}

TEST_F(ServiceRestartTest, AutomaticSwitchingGoesOnWithFreshDetection) {
    sim.addProcess({502, "com.example.radio", true, {speakersID}});
    sim.setProcessAudio(502, [](std::uint64_t, UInt32) { return 0.5f; });
    launch();
    switchOnWithSettings();
    model->setAppOutputRules({{"com.example.radio", "Radio", "M", "Desk"}});
    model->setAutomaticallySwitchApps(true);
    tick();
    ASSERT_TRUE(model->playbackMonitor());
    ASSERT_TRUE(model->playbackMonitor()->tap("com.example.radio"));
    const std::size_t destroys = destroyCalls();
    sim.restartService();
    tick();
    EXPECT_EQ(destroyCalls(), destroys) << "the detection taps are forgotten, not destroyed";
    EXPECT_TRUE(state().isEnabled);
    EXPECT_TRUE(state().automaticallySwitchApps);
    tick();
    ASSERT_TRUE(model->playbackMonitor()->tap("com.example.radio")) << "detection rebuilt";
    EXPECT_EQ(state().appOutputStatus.find("unavailable"), std::string::npos)
        << state().appOutputStatus;
}

// Where the desktop's volume is the keys' channel, the output comes back from a restart at
// whatever level the restarted system gave it: the user's level is Brightmix's, not that one.
TEST_F(ServiceRestartTest, TheOutputComesBackAtTheUsersLevelWhereTheDesktopOwnsTheKeys) {
    const AudioObjectID speakers = sim.addDevice(
        SimulatedAudioHardware::DeviceSpec("V", "Room Speakers", {2}).volumeControl(0));
    followsSystemVolume = true;
    launch();
    model->selectOutput("V", false);
    model->setEnabled(true);
    ASSERT_TRUE(model->isFollowingSystemVolume());
    model->setVolume(0.4);
    sim.restartService(true);
    tick();
    sim.setServiceUp(true);
    const Float32 fresh = 1.0f;
    const AudioObjectPropertyAddress volume{kAudioDevicePropertyVolumeScalar,
                                            kAudioObjectPropertyScopeOutput, 0};
    ASSERT_EQ(sim.setPropertyData(speakers, volume, 0, nullptr, sizeof fresh, &fresh), 0);
    tick();
    ASSERT_TRUE(state().isEnabled) << state().errorMessage.value_or("");
    EXPECT_NEAR(state().volume, 0.4, 1e-6);
    EXPECT_FLOAT_EQ(masterGain(), 0.4f);
    EXPECT_FLOAT_EQ(sim.volumeScalar(speakers, 0), 0.4f) << "the output is given ours";
}

} // namespace
} // namespace brightmix::testing
