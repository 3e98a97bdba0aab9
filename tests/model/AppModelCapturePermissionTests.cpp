// The permission to capture the Mac's sound, whose absence makes every tap deliver silence
// while it mutes what it captures: known denied, pending and then granted, and granted.
#include "tests/model/AppModelFixture.h"

namespace brightmix::testing {
namespace {

class CapturePermissionTest : public AppModelFixture {
protected:
    CapturePermissionTest() {
        sim.addProcess({501, "com.example.player", true, {multiID}});
        sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    }
    // One second of the router running while the player plays, then the tick.
    void playSecond() {
        if (model->engine().isRunning()) sim.runCycles(model->engine().aggregateID(), 256, 4);
        tick();
    }
};

TEST_F(CapturePermissionTest, KnownDeniedNeverStartsTheRouterAndSaysWhereToAllowIt) {
    permissions.captureAccess = CaptureAccess::denied;
    launch();
    model->selectOutput("M", false);
    model->setEnabled(true);
    EXPECT_FALSE(state().isEnabled);
    EXPECT_EQ(state().errorMessage, AppModel::kCaptureDeniedMessage);
    EXPECT_EQ(sim.callCount(SimulatedAudioHardware::Call::createProcessTap), 0u)
        << "no tap, so nothing is muted";
    EXPECT_FALSE(sim.isDirectPathMuted(multiID));
    EXPECT_FALSE(defaults.boolForKey("resumeEnabled"));
    EXPECT_EQ(state().systemAudioCapture, CaptureAccess::denied);
    expectNothingLeft();
}

TEST_F(CapturePermissionTest, PendingSwitchesOffAfterBothCapturesStaySilentThenAGrantWorks) {
    permissions.captureAccess = CaptureAccess::unknown; // as on a Mac: it cannot be asked
    sim.setTapsDeliverSilence(true);                    // the prompt is still unanswered
    launch();
    switchOnDesk();
    EXPECT_EQ(state().systemAudioCapture, CaptureAccess::unknown);
    for (int i = 0; i < 8 && state().isEnabled; ++i)
        playSecond();
    EXPECT_FALSE(state().isEnabled) << "the fallback, too, heard nothing";
    EXPECT_EQ(state().errorMessage, AppModel::kCaptureSilentMessage);
    EXPECT_EQ(sim.callCount(SimulatedAudioHardware::Call::createProcessTap), 2u)
        << "the tap, then the global one";
    EXPECT_EQ(defaultOutputUID(), "M") << "ordinary multi-output playback";
    EXPECT_FALSE(sim.isDirectPathMuted(multiID)) << "no muting tap is left";
    EXPECT_FALSE(defaults.boolForKey("resumeEnabled"));
    EXPECT_EQ(state().systemAudioCapture, CaptureAccess::denied);
    expectNothingLeft();

    // Granted in System Settings; switching on builds a new tap, which now carries sound.
    sim.setTapsDeliverSilence(false);
    model->setEnabled(true);
    ASSERT_TRUE(state().isEnabled) << state().errorMessage.value_or("");
    EXPECT_FALSE(state().errorMessage);
    EXPECT_EQ(sim.callCount(SimulatedAudioHardware::Call::createProcessTap), 3u);
    for (int i = 0; i < 6; ++i)
        playSecond();
    EXPECT_TRUE(state().isEnabled);
    EXPECT_FALSE(state().isUsingCompatibilityCapture);
    EXPECT_EQ(state().systemAudioCapture, CaptureAccess::granted) << "sound was heard";
}

TEST_F(CapturePermissionTest, GrantedKeepsRoutingEvenThroughSilence) {
    permissions.captureAccess = CaptureAccess::granted;
    launch();
    switchOnDesk();
    for (int i = 0; i < 3; ++i)
        playSecond();
    EXPECT_TRUE(state().isEnabled);
    EXPECT_EQ(state().systemAudioCapture, CaptureAccess::granted);

    // A granted permission is not the cause of silence: the fallback runs as always, and the
    // compatibility capture is kept however long it stays quiet.
    sim.setTapsDeliverSilence(true);
    model->restartAudioEngine();
    for (int i = 0; i < 8; ++i)
        playSecond();
    EXPECT_TRUE(state().isEnabled);
    EXPECT_TRUE(state().isUsingCompatibilityCapture);
    EXPECT_FALSE(state().errorMessage);
}

} // namespace
} // namespace brightmix::testing
