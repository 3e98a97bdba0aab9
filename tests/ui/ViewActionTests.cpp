// Pressing the controls of the panel and the windows as a renderer would, and checking the
// model afterwards: every action is wired to the right operation with the right arguments.
#include "tests/ui/UIFixture.h"

namespace brightmix::testing {
namespace {

TEST_F(UIFixture, PanelControlsReachTheModel) {
    start();
    EXPECT_TRUE(press("output", "M"));
    EXPECT_EQ(state().selectedDeviceUID, "M");
    EXPECT_TRUE(press("enabled", "true"));
    EXPECT_TRUE(state().isEnabled);
    EXPECT_TRUE(press("volume", "0.25"));
    EXPECT_EQ(state().volume, 0.25);
    EXPECT_TRUE(press("mute"));
    EXPECT_TRUE(state().isMuted);
    EXPECT_EQ(ui::findNode(app->panel(), "mute") != nullptr, true);
    EXPECT_TRUE(press("mute"));
    EXPECT_FALSE(state().isMuted);
    EXPECT_TRUE(press("card.B.role", "subwoofer"));
    EXPECT_EQ(model->preset("B"), OutputPreset::subwoofer);
    EXPECT_EQ(model->engine().childPresets().at("B"), OutputPreset::subwoofer);
    EXPECT_TRUE(press("card.A.sound", "rock"));
    EXPECT_EQ(model->equalizer("A"), EqualizerPreset::rock);
    EXPECT_TRUE(press("card.A.volume", "0.5"));
    EXPECT_EQ(model->childVolume("A"), 0.5);
    EXPECT_TRUE(press("crossover", "120"));
    EXPECT_EQ(state().crossoverFrequency, 120);
    EXPECT_TRUE(press("input", "I"));
    EXPECT_TRUE(press("enabled", "false"));
    EXPECT_FALSE(state().isEnabled);
    EXPECT_GT(rebuilds, 0);
}

TEST_F(UIFixture, MalformedValuesChangeNothing) {
    start();
    EXPECT_FALSE(app->perform({{"setVolume", {}}, std::string("loud")}));
    EXPECT_FALSE(app->perform({{"setVolume", {}}, std::string("nan")}));
    EXPECT_FALSE(app->perform({{"setEnabled", {}}, std::string("yes")}));
    EXPECT_FALSE(app->perform({{"setPreset", {"A"}}, std::string("woofer")}));
    EXPECT_FALSE(app->perform({{"setChildVolume", {}}, std::string("0.5")}));
    EXPECT_FALSE(app->perform({{"noSuchThing", {}}, std::nullopt}));
    EXPECT_EQ(state().volume, 0.75);
    EXPECT_FALSE(state().isEnabled);
}

TEST_F(UIFixture, OptionsMenuEntries) {
    start();
    EXPECT_TRUE(press("options.app-outputs"));
    EXPECT_TRUE(app->isWindowOpen("app-outputs"));
    EXPECT_EQ(shown.back(), "app-outputs");
    EXPECT_TRUE(press("options.device-labels"));
    EXPECT_TRUE(press("options.setup"));
    EXPECT_TRUE(app->isWindowOpen("setup"));
    EXPECT_TRUE(press("options.use-labels", "false"));
    EXPECT_FALSE(state().useDeviceLabels);
    EXPECT_TRUE(press("options.replace-hud", "false"));
    EXPECT_FALSE(state().replaceSystemHUD);
    EXPECT_TRUE(press("options.format.wav"));
    EXPECT_EQ(state().recordingFormat, RecordingFormat::wav);
    EXPECT_TRUE(press("options.recording-folder"));
    EXPECT_EQ(state().recordingMessage,
              "Recordings will save to " + recordings.path().filename().string());
    EXPECT_TRUE(press("options.launch-at-login", "true"));
    EXPECT_TRUE(state().launchAtLogin);
    EXPECT_TRUE(press("options.audio-midi-setup"));
    EXPECT_EQ(workspace.actions().back(),
              "open-app /System/Applications/Utilities/Audio MIDI Setup.app");
    EXPECT_TRUE(press("options.privacy"));
    EXPECT_EQ(workspace.actions().back(), "open-url " + BrightmixMenuView::kPrivacyPolicyURL);
    EXPECT_TRUE(press("options.check-updates"));
    EXPECT_EQ(updater.checks, 1);
    EXPECT_TRUE(press("options.auto-updates", "false"));
    EXPECT_FALSE(updater.checksAutomatically);
    EXPECT_TRUE(press("options.about"));
    EXPECT_EQ(aboutShown, 1);
    EXPECT_TRUE(press("options.quit"));
    EXPECT_EQ(workspace.actions().back(), "terminate");
}

TEST_F(UIFixture, UpdateEntriesAreHiddenWithoutAnUpdater) {
    updater.available = false;
    updater.pending = "9.9";
    start();
    const ui::Node panel = app->panel();
    EXPECT_FALSE(ui::findMenuEntry(panel, "options.check-updates"));
    EXPECT_FALSE(ui::findNode(panel, "callout.checkForUpdates"));
}

TEST_F(UIFixture, UpdateEntriesOfABuildWithoutUpdateKeyAreDisabledWithTheReason) {
    updater.reason = "Updates are not configured for this build of Brightmix.";
    start();
    const ui::Node panel = app->panel();
    for (const char* key : {"options.check-updates", "options.auto-updates"}) {
        const ui::MenuEntry* entry = ui::findMenuEntry(panel, key);
        ASSERT_TRUE(entry) << key;
        EXPECT_FALSE(entry->isEnabled) << key;
        EXPECT_EQ(entry->help, updater.reason) << key;
    }
    // Even an action that arrives anyway does nothing.
    app->perform({{"checkForUpdates", {}}, std::nullopt});
    app->perform({{"setAutomaticallyChecksForUpdates", {}}, std::string("false")});
    EXPECT_EQ(updater.checks, 0);
    EXPECT_TRUE(updater.checksAutomatically);
}

TEST_F(UIFixture, AListenOnlyKeyTapTurnsTheIndicatorOptionIntoAnExplanation) {
    permissions.canPost = true; // Accessibility granted, and still the filtering tap is refused
    tap.setRefused(EventTapMode::filtering, true);
    start();
    press("output", "M");
    press("enabled", "true");
    EXPECT_TRUE(state().isMonitoringMediaKeys);
    ui::Node panel = app->panel();
    const ui::MenuEntry* option = ui::findMenuEntry(panel, "options.replace-hud");
    ASSERT_TRUE(option);
    EXPECT_FALSE(option->isEnabled);
    EXPECT_EQ(option->help, BrightmixMenuView::kHUDReplacementRefusedHelp);

    // Once the system allows the filtering tap, the setting is offered again.
    tap.setRefused(EventTapMode::filtering, false);
    model->retryMediaKeys();
    panel = app->panel();
    option = ui::findMenuEntry(panel, "options.replace-hud");
    ASSERT_TRUE(option);
    EXPECT_TRUE(option->isEnabled);
    EXPECT_TRUE(state().isReplacingSystemHUD);
}

TEST_F(UIFixture, OpeningThePanelReadsTheLoginItemState) {
    start();
    loginItem.currentStatus = LoginItem::Status::requiresApproval;
    tick();
    EXPECT_FALSE(ui::findNode(app->panel(), "callout.openLoginItems"));
    app->panelWillOpen();
    EXPECT_TRUE(ui::findNode(app->panel(), "callout.openLoginItems"));
}

TEST_F(UIFixture, ResetAsksFirstAndCancelKeepsEverything) {
    start();
    model->setVolume(0.3);
    EXPECT_TRUE(press("options.reset"));
    const ui::Node asking = app->panel();
    const ui::Node* dialog = ui::findNode(asking, "reset");
    ASSERT_TRUE(dialog);
    EXPECT_EQ(dialog->title, "Reset Brightmix settings?");
    EXPECT_EQ(dialog->buttonTitle, "Reset and Quit");
    EXPECT_TRUE(press("reset", "cancel"));
    EXPECT_FALSE(ui::findNode(app->panel(), "reset"));
    EXPECT_EQ(state().volume, 0.3);
    EXPECT_TRUE(press("options.reset"));
    EXPECT_TRUE(press("reset", "confirm"));
    EXPECT_TRUE(defaults.values().empty());
    EXPECT_EQ(workspace.actions().back(), "terminate");
}

TEST_F(UIFixture, RecordingControls) {
    start();
    press("output", "M");
    EXPECT_TRUE(press("recording.start"));
    EXPECT_TRUE(state().isRecording);
    sim.runCycles(model->engine().aggregateID(), 480, 50);
    EXPECT_TRUE(press("recording.stop"));
    EXPECT_FALSE(state().isRecording);
    EXPECT_TRUE(press("recording.reveal"));
    EXPECT_EQ(workspace.actions().back(), "reveal " + *state().lastRecordingURL);
}

TEST_F(UIFixture, CalloutButtons) {
    permissions.canListen = false;
    start();
    press("output", "M");
    press("enabled", "true");
    EXPECT_TRUE(press("callout.openInputMonitoringSettings"));
    EXPECT_EQ(workspace.actions().back(), "open-url " + AppModel::kInputMonitoringURL);
    sim.addMultiOutputDevice("W", "Wide", {"A", "C"}, "A");
    tick();
    press("output", "W");
    EXPECT_TRUE(press("callout.openAudioMIDISetup"));
    EXPECT_EQ(workspace.actions().back(),
              "open-app /System/Applications/Utilities/Audio MIDI Setup.app");
}

TEST_F(UIFixture, AppOutputsEditing) {
    sim.addProcess({501, "com.example.player", true, {speakersID}});
    workspace.setRunningApplication(501, "/Applications/Player.app/Contents/MacOS/Player",
                                    "com.example.player");
    workspace.setBundleIdentifier("/Applications/Player.app", "com.example.player");
    workspace.setBundleIdentifier("/Applications/Radio.app", "com.example.radio");
    workspace.setBundleName("/Applications/Radio.app", "Radio");
    start();
    app->openWindow("app-outputs");
    EXPECT_TRUE(press("automatic", "true"));
    EXPECT_TRUE(state().automaticallySwitchApps);

    EXPECT_TRUE(press("add.com.example.player"));
    ASSERT_EQ(state().appOutputRules.size(), 1u);
    EXPECT_EQ(state().appOutputRules[0],
              (AppOutputRule{"com.example.player", "Player", "S", "MacBook Speakers"}));
    EXPECT_FALSE(ui::findMenuEntry(*app->window("app-outputs"), "add.com.example.player"))
        << "an app with a rule is not offered again";

    folders.applicationAnswer = "/Applications/Radio.app";
    EXPECT_TRUE(press("add.choose"));
    EXPECT_EQ(folders.applicationChoicesShown.back(),
              std::make_pair(std::string("Choose an app for automatic output switching"),
                             std::string("/Applications")));
    ASSERT_EQ(state().appOutputRules.size(), 2u);
    EXPECT_EQ(state().appOutputRules[1].appName, "Radio");

    folders.applicationAnswer = "/Applications/Nameless.app";
    press("add.choose");
    EXPECT_EQ(app->appOutputsEditor().message(),
              "This application has no bundle identifier. Choose another app.");
    EXPECT_EQ(state().appOutputRules.size(), 2u);

    EXPECT_TRUE(press("rule.com.example.radio.output", "M"));
    EXPECT_EQ(state().appOutputRules[1].outputUID, "M");
    EXPECT_EQ(state().appOutputRules[1].outputName, "Desk");
    EXPECT_TRUE(press("rule.com.example.player.remove"));
    ASSERT_EQ(state().appOutputRules.size(), 1u);
    EXPECT_EQ(AppSettings::load(defaults).appOutputRules, state().appOutputRules);
}

TEST_F(UIFixture, LabelEditing) {
    start();
    app->openWindow("device-labels");
    EXPECT_TRUE(press("label.output.A.field", "Left"));
    EXPECT_EQ(state().deviceLabels.label("A", DeviceDirection::output), "Left");
    EXPECT_EQ(ui::findNode(app->panel(), "output") != nullptr, true);
    EXPECT_TRUE(press("label.input.I.field", "Voice"));
    EXPECT_EQ(state().deviceLabels.label("I", DeviceDirection::input), "Voice");
    EXPECT_TRUE(press("label.output.A.clear"));
    EXPECT_FALSE(state().deviceLabels.label("A", DeviceDirection::output));
    EXPECT_TRUE(press("label.input.I.field", "   "));
    EXPECT_FALSE(state().deviceLabels.label("I", DeviceDirection::input));
    EXPECT_TRUE(press("use-labels", "false"));
    EXPECT_FALSE(state().useDeviceLabels);
}

TEST_F(UIFixture, SetupRestartRelaunchesAndClosingStopsThePoll) {
    start();
    app->openWindow("setup");
    const std::size_t timers = loop.pendingTimers();
    EXPECT_TRUE(press("done"));
    EXPECT_FALSE(app->isWindowOpen("setup"));
    EXPECT_EQ(hidden.back(), "setup");
    EXPECT_EQ(loop.pendingTimers(), timers - 1) << "the window's poll stopped";
    app->openWindow("setup");
    press("accessibility.open");
    permissions.canPost = true; // the user switched it on in System Settings
    loop.advance(1.0);
    ASSERT_TRUE(press("accessibility.done"));
    EXPECT_EQ(workspace.actions().back(), "terminate");
    EXPECT_EQ(workspace.actions()[workspace.actions().size() - 2], "relaunch");
}

} // namespace
} // namespace brightmix::testing
