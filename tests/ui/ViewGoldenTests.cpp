// What every window shows, as text, in the states that decide which control shows when:
// checked against golden files under tests/golden/ui/ (BRIGHTMIX_UPDATE_GOLDEN=1 rewrites
// them after a deliberate change).
#include "Brightmix/RecordingControlsView.h"
#include "Brightmix/VolumeHUDView.h"
#include "tests/ui/UIFixture.h"

namespace brightmix::testing {
namespace {

using Sim = SimulatedAudioHardware;

TEST_F(UIFixture, PanelOff) {
    start();
    expectPanel("panel-off");
    EXPECT_EQ(app->accessibilityLabel(), "Brightmix off");
}

TEST_F(UIFixture, PanelOnAMultiOutputDeviceWithSubwooferAndSatellite) {
    permissions.canPost = true;
    start();
    switchOnDesk();
    model->setPreset(OutputPreset::subwoofer, "B");
    model->setPreset(OutputPreset::satellite, "A");
    model->setEqualizer(EqualizerPreset::bassBooster, "B");
    model->setChildVolume("A", 0.8);
    model->setCrossoverFrequency(100);
    model->setVolume(0.5);
    expectPanel("panel-on-roles");
    EXPECT_EQ(app->accessibilityLabel(), "Brightmix on");
}

TEST_F(UIFixture, PanelMutedWhileListeningOnly) {
    start();
    switchOnDesk();
    model->toggleMute();
    expectPanel("panel-muted");
    EXPECT_EQ(app->accessibilityLabel(), "Brightmix muted");
}

TEST_F(UIFixture, PanelOnCompatibilityRouting) {
    sim.addProcess({501, "com.example.player", true, {multiID}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    start();
    switchOnDesk();
    sim.setTapsDeliverSilence(true);
    for (int i = 0; i < 3 && !state().isUsingCompatibilityCapture; ++i) {
        sim.runCycles(model->engine().aggregateID(), 256, 4);
        tick();
    }
    ASSERT_TRUE(state().isUsingCompatibilityCapture);
    EXPECT_EQ(ui::findNode(app->panel(), "status")->text, "On, using compatibility routing");
}

TEST_F(UIFixture, StatusAndKeyHelpTextsFollowTheKeyState) {
    AppModelState state;
    EXPECT_EQ(BrightmixMenuView::statusLine(state), "Off. Volume keys use macOS.");
    EXPECT_EQ(BrightmixMenuView::volumeHelp(state),
              "Volume keys use macOS. This slider adjusts the processed audio level.");
    state.isEnabled = true;
    state.selectedDeviceUID = state.systemOutputUID = "M";
    EXPECT_EQ(BrightmixMenuView::statusLine(state), "On. Volume keys use macOS.");
    state.isMonitoringMediaKeys = true;
    EXPECT_EQ(BrightmixMenuView::statusLine(state), "On. Volume keys control the level below.");
    EXPECT_EQ(BrightmixMenuView::volumeHelp(state),
              "Volume keys move this. macOS may still show its own indicator.");
    state.isReplacingSystemHUD = true;
    EXPECT_EQ(BrightmixMenuView::volumeHelp(state),
              "Volume keys move this and show the Brightmix indicator.");
    state.isRecording = true;
    EXPECT_EQ(menuBarAccessibilityLabel(state), "Brightmix recording");
}

TEST_F(UIFixture, PanelWithAnUnavailableSavedOutputAndMissingMember) {
    sim.addMultiOutputDevice("W", "Wide", {"A", "C"}, "A");
    start();
    model->selectOutput("W", false);
    model->setDeviceLabel("Living Room", model->devices().device("W").value(),
                          DeviceDirection::output);
    expectPanel("panel-missing-member");
    sim.setDefaultOutput(0);
    sim.removeDevice(sim.deviceID("W"));
    tick();
    ASSERT_EQ(state().selectedDeviceUID, "W");
    const ui::Node panel = app->panel();
    const ui::Node* output = ui::findNode(panel, "output");
    ASSERT_TRUE(output);
    EXPECT_EQ(output->options.back().title, "Living Room — unavailable");
    EXPECT_FALSE(output->options.back().isEnabled);
}

TEST_F(UIFixture, PanelCallouts) {
    permissions.canListen = false;
    updater.pending = "2.1";
    loginItem.statusAfterRegistering = LoginItem::Status::requiresApproval;
    start();
    switchOnDesk();
    model->setLaunchAtLogin(true);
    loginItem.failure = "The operation couldn’t be completed.";
    model->setLaunchAtLogin(false);
    expectPanel("panel-callouts");

    // Each key callout in its own state.
    auto calloutTexts = [&] {
        std::vector<std::string> texts;
        for (const Callout& callout : BrightmixMenuView::callouts(*model, updater)) {
            texts.push_back(callout.message);
        }
        return texts;
    };
    permissions.canListen = true;
    model->setEnabled(true);
    tap.setRefused(EventTapMode::listening, true);
    tap.setRefused(EventTapMode::filtering, true);
    model->retryMediaKeys();
    EXPECT_EQ(calloutTexts().at(0),
              "Volume-key monitoring could not start. You can still use the volume slider.");
    tap.setRefused(EventTapMode::listening, false);
    model->retryMediaKeys();
    EXPECT_EQ(calloutTexts().at(0), "macOS is showing its own volume indicator, which will not "
                                    "move. Accessibility permission lets Brightmix replace it.");
    permissions.canPost = true;
    model->retryMediaKeys();
    EXPECT_EQ(calloutTexts().at(0), "The macOS volume indicator could not be replaced. "
                                    "Volume-key listening is still active.");
}

TEST_F(UIFixture, RecordingStates) {
    start();
    switchOnDesk();
    expectMatchesGolden("ui/recording-idle.txt", stable(RecordingControlsView::body(*model)));
    model->toggleRecording();
    sim.runCycles(model->engine().aggregateID(), 480, 100);
    sim.runCycles(model->engine().aggregateID(), 480, 100);
    tick();
    expectMatchesGolden("ui/recording-running.txt", stable(RecordingControlsView::body(*model)));
    EXPECT_EQ(app->accessibilityLabel(), "Brightmix recording");
    model->toggleRecording();
    expectMatchesGolden("ui/recording-saved.txt", stable(RecordingControlsView::body(*model)));

    folders.isAnswerDeferred = true;
    model->toggleRecording();
    expectMatchesGolden("ui/recording-preparing.txt", stable(RecordingControlsView::body(*model)));
    folders.answer(std::nullopt);
}

TEST_F(UIFixture, RecordingIncomplete) {
    start();
    switchOnDesk();
    model->toggleRecording(); // nothing played: the recording received no frames
    model->toggleRecording();
    ASSERT_EQ(state().recordingMessage, "Recording incomplete");
    const ui::Node controls = RecordingControlsView::body(*model);
    EXPECT_EQ(ui::findNode(controls, "recording.message")->textRole, ui::TextRole::error);
    EXPECT_FALSE(ui::findNode(controls, "recording.reveal"));
}

TEST_F(UIFixture, AppOutputsWindow) {
    start();
    app->openWindow("app-outputs");
    expectWindow("app-outputs", "app-outputs-empty");
    model->setAppOutputRules({{"com.example.player", "Player", "M", "Desk"},
                              {"com.example.radio", "Radio", "gone", "Old Speakers"}});
    model->setAutomaticallySwitchApps(true);
    expectWindow("app-outputs", "app-outputs-rules");
}

TEST_F(UIFixture, DeviceLabelsWindow) {
    start();
    model->setDeviceLabel("Desk speakers", model->devices().device("A").value(),
                          DeviceDirection::output);
    model->setDeviceLabel("Old TV", "gone-uid", "Bedroom TV", DeviceDirection::output);
    model->setDeviceLabel("Voice", model->devices().device("I").value(), DeviceDirection::input);
    app->openWindow("device-labels");
    expectWindow("device-labels", "device-labels");
}

TEST_F(UIFixture, SetupWindowThroughItsSteps) {
    permissions.canListen = false;
    // As on a Mac: the capture permission cannot be asked about.
    permissions.captureAccess = CaptureAccess::unknown;
    start();
    app->launch();
    ASSERT_TRUE(app->isWindowOpen("setup")) << "a permission is missing";
    expectWindow("setup", "setup-start");
    press("input.open");
    EXPECT_EQ(workspace.actions().back(), "open-url " + AppModel::kInputMonitoringURL);
    expectWindow("setup", "setup-opening-settings");
    workspace.setFrontmostApplication("com.apple.systempreferences");
    loop.advance(1.0);
    expectWindow("setup", "setup-waiting");
    press("capture.open");
    EXPECT_EQ(workspace.actions().back(), "open-url " + AppModel::kSystemAudioRecordingURL);
    press("accessibility.open");
    EXPECT_EQ(permissions.postRequests, 1);
    expectWindow("setup", "setup-accessibility-steps");
    permissions.canListen = true;
    permissions.canPost = true;
    loop.advance(1.0);
    expectWindow("setup", "setup-granted");
}

TEST_F(UIFixture, SetupDoesNotOpenWhenTheKeysCanBeHeardAndSwallowed) {
    permissions.canPost = true;
    start();
    app->launch();
    EXPECT_FALSE(app->isWindowOpen("setup"));
    model->setReplaceSystemHUD(false);
    permissions.canPost = false;
    app->launch();
    EXPECT_FALSE(app->isWindowOpen("setup")) << "listening is enough without the own indicator";
}

TEST(VolumeHUDViewText, MutedSilentAndOutOfRange) {
    brightmix::testing::expectMatchesGolden(
        "ui/hud.txt", ui::renderText(VolumeHUDView{0.5, true, "Desk"}.body()) +
                          ui::renderText(VolumeHUDView{0, false, "Desk"}.body()) +
                          ui::renderText(VolumeHUDView{1.2, false, "Living Room"}.body()));
    EXPECT_EQ((VolumeHUDView{1.2, false, ""}.fillFraction()), 1.0);
    EXPECT_EQ((VolumeHUDView{-0.1, false, ""}.fillFraction()), 0.0);
    EXPECT_EQ((VolumeHUDView{std::nan(""), false, ""}.fillFraction()), 0.0);
    EXPECT_EQ((VolumeHUDView{0.7, true, ""}.fillFraction()), 0.0);
}

} // namespace
} // namespace brightmix::testing
