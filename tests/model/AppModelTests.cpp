// Whole scenarios of the app model in virtual time: start-up and resume, switching on and
// off, following devices, the repair of a display member, volume and keys, per-output
// settings and labels, automatic switching, the health fallback, diagnostics and reset.
#include "tests/model/AppModelFixture.h"

namespace brightmix::testing {
namespace {

using Sim = SimulatedAudioHardware;

TEST_F(AppModelFixture, StartsWithDefaultsFollowingTheSystemOutput) {
    launch();
    EXPECT_FALSE(state().isEnabled);
    EXPECT_EQ(state().selectedDeviceUID, "S");
    EXPECT_EQ(*defaults.get("selectedDeviceUID"), PropertyList("S"));
    EXPECT_EQ(state().appOutputStatus, "Automatic switching is off.");
    EXPECT_EQ(state().outputDevices.front().uid, "M") << "multi-output devices first";
    EXPECT_EQ(state().systemInputUID, "I");
    EXPECT_TRUE(state().hasMediaKeyPermission);
    EXPECT_FALSE(state().hasMediaKeyControlPermission);
    EXPECT_TRUE(model->isRefreshTimerRunning());
}

TEST_F(AppModelFixture, ResumeWithTheSavedOutputAndNoOutputAtAllSaysSo) {
    SimulatedAudioHardware empty;
    empty.addDevice({"I", "Mic", {}, {1}});
    defaults.set("resumeEnabled", PropertyList::boolean(true));
    defaults.set("selectedDeviceUID", PropertyList("M"));
    model = std::make_unique<AppModel>(services(empty, loop, defaults, writer));
    loop.runPending();
    EXPECT_FALSE(model->state().isEnabled);
    EXPECT_EQ(model->state().errorMessage, "No audio output is available.");
    EXPECT_EQ(*defaults.get("resumeEnabled"), PropertyList::boolean(false));
    EXPECT_EQ(model->state().selectedDeviceUID, "M") << "the saved choice is kept";
}

TEST_F(AppModelFixture, ResumeWithTheSavedOutputAbsentFollowsTheDefaultOutput) {
    defaults.set("resumeEnabled", PropertyList::boolean(true));
    defaults.set("selectedDeviceUID", PropertyList("gone"));
    launch();
    EXPECT_TRUE(state().isEnabled);
    EXPECT_EQ(state().selectedDeviceUID, "S");
    expectConsistent();
}

TEST_F(AppModelFixture, SwitchingOnAndOffWhenTheOutputIsAlreadyTheDefault) {
    launch();
    model->selectOutput("M", false);
    EXPECT_EQ(defaultOutputUID(), "M") << "choosing an output makes it the default";
    model->setEnabled(true);
    EXPECT_TRUE(state().isEnabled);
    EXPECT_FALSE(model->restoreDeviceUID()) << "M already was the default";
    EXPECT_EQ(*defaults.get("resumeEnabled"), PropertyList::boolean(true));
    EXPECT_EQ(model->engine().outputBufferRanges().size(), 2u);
    EXPECT_TRUE(model->outputMeter().isRunning()) << "the level meter runs while on";
    expectConsistent();
    model->setEnabled(false);
    EXPECT_FALSE(model->outputMeter().isRunning());
    EXPECT_EQ(defaultOutputUID(), "M") << "nothing to restore";
    EXPECT_EQ(*defaults.get("resumeEnabled"), PropertyList::boolean(false));
    expectNothingLeft();
}

TEST_F(AppModelFixture, SwitchingOnFollowsADefaultChosenInTheSystemMeanwhile) {
    launch();
    model->selectOutput("M", false);
    sim.setDefaultOutput(speakersID);
    model->setEnabled(true);
    EXPECT_EQ(state().selectedDeviceUID, "S");
    EXPECT_EQ(defaultOutputUID(), "S");
    expectConsistent();
}

TEST_F(AppModelFixture, ChoosingAnotherOutputWhileOnMovesTheRouter) {
    launch();
    switchOnDesk();
    model->selectOutput("S", false);
    EXPECT_TRUE(state().isEnabled);
    EXPECT_EQ(defaultOutputUID(), "S");
    EXPECT_EQ(model->engine().outputBufferRanges().count("S"), 1u);
    EXPECT_EQ(sim.liveAggregates(), 1u);
    expectConsistent();
}

TEST_F(AppModelFixture, UnpluggingTheOutputWhileOnSwitchesOffWithinOneTick) {
    launch();
    switchOnDesk();
    sim.removeDevice(multiID);
    tick();
    EXPECT_FALSE(state().isEnabled);
    EXPECT_EQ(state().errorMessage,
              "Brightmix was disabled because the selected output changed or disconnected.");
    EXPECT_EQ(*defaults.get("resumeEnabled"), PropertyList::boolean(false));
    EXPECT_EQ(defaultOutputUID(), "S") << "as the system chose";
    EXPECT_FALSE(model->restoreDeviceUID());
    expectNothingLeft();
}

TEST_F(AppModelFixture, AnotherDefaultChosenInTheSystemSwitchesOffAndMovesTheSelection) {
    launch();
    switchOnDesk();
    sim.setDefaultOutput(speakersID);
    tick();
    EXPECT_FALSE(state().isEnabled);
    EXPECT_EQ(state().selectedDeviceUID, "S");
    EXPECT_EQ(defaultOutputUID(), "S");
}

TEST_F(AppModelFixture, AMemberAddedWhileOnRestartsTheEngineInsteadOfSwitchingOff) {
    const AudioObjectID wide = sim.addMultiOutputDevice("W", "Wide", {"A", "C"}, "A");
    launch();
    model->selectOutput("W", false);
    model->setEnabled(true);
    ASSERT_TRUE(state().isEnabled);
    EXPECT_EQ(state().missingOutputUIDs, std::vector<std::string>{"C"});
    const AudioObjectID firstRouter = model->engine().aggregateID();
    sim.addDevice({"C", "Rear", {2}});
    tick();
    EXPECT_TRUE(state().isEnabled);
    EXPECT_TRUE(state().missingOutputUIDs.empty());
    EXPECT_EQ(state().childDevices.size(), 2u);
    EXPECT_NE(model->engine().aggregateID(), firstRouter);
    EXPECT_EQ(sim.liveAggregates(), 1u);
    EXPECT_EQ(model->engine().outputBufferRanges().count("C"), 1u);
    (void)wide;
}

TEST_F(AppModelFixture, VolumeStepsMuteAndTheLastAudibleVolume) {
    launch();
    switchOnDesk();
    model->setVolume(0.5);
    model->stepVolume(1);
    EXPECT_EQ(state().volume, 0.5625);
    model->setVolume(0.5);
    model->stepVolume(-1);
    EXPECT_EQ(state().volume, 0.4375);
    model->setVolume(0.53);
    model->stepVolume(1);
    EXPECT_EQ(state().volume, 0.5625);
    model->setVolume(0.53);
    model->stepVolume(-1);
    EXPECT_EQ(state().volume, 0.5);
    EXPECT_EQ(*defaults.get("volume"), PropertyList::real(0.5));
    EXPECT_FLOAT_EQ(masterGain(), 0.5f);

    model->setVolume(0.4);
    model->setVolume(0);
    model->toggleMute();
    EXPECT_TRUE(state().isMuted);
    EXPECT_EQ(masterGain(), 0.0f);
    model->toggleMute();
    EXPECT_FALSE(state().isMuted);
    EXPECT_EQ(state().volume, 0.4);
    EXPECT_FLOAT_EQ(masterGain(), 0.4f);
    model->toggleMute();
    model->stepVolume(1);
    EXPECT_FALSE(state().isMuted) << "a step un-mutes";
    model->setVolume(7);
    EXPECT_EQ(state().volume, 1.0);
}

TEST_F(AppModelFixture, VolumeKeysStepWhileOnAndTheIndicatorShowsTheLabel) {
    permissions.canPost = true;
    launch();
    switchOnDesk();
    ASSERT_TRUE(state().isReplacingSystemHUD);
    model->setDeviceLabel("Living Room", model->devices().device("M").value(),
                          DeviceDirection::output);
    model->setVolume(0.5);
    EXPECT_TRUE(tap.deliverKey(0, true)) << "filtering swallows the key-down";
    EXPECT_TRUE(tap.deliverKey(0, false)) << "and the key-up";
    EXPECT_EQ(state().volume, 0.5) << "delivered through the main loop";
    loop.runPending();
    EXPECT_EQ(state().volume, 0.5625);
    EXPECT_EQ(hud.content, (HudContent{0.5625, false, "Living Room"}));
    EXPECT_EQ(hud.alpha, 1.0);
    EXPECT_TRUE(tap.deliverKey(7, true));
    loop.runPending();
    EXPECT_TRUE(state().isMuted);
    EXPECT_TRUE(hud.content.isMuted);
    EXPECT_FALSE(tap.deliverKey(3, true)) << "other keys pass";
}

TEST_F(AppModelFixture, AVolumeKeyWhileTheOutputIsNotTheDefaultPassesUntouched) {
    permissions.canPost = true;
    launch();
    switchOnDesk();
    model->setVolume(0.5);
    // The system default changes; until the tick notices, keys are not ours.
    sim.setDefaultOutput(speakersID);
    EXPECT_FALSE(tap.deliverKey(0, true));
    loop.runPending();
    EXPECT_EQ(state().volume, 0.5);
}

TEST_F(AppModelFixture, APressQueuedBeforeAReactivationIsDropped) {
    launch();
    switchOnDesk();
    model->setVolume(0.5);
    EXPECT_FALSE(tap.deliverKey(0, true)) << "listening only: the key passes";
    model->setEnabled(false);
    model->selectOutput("M", false);
    model->setEnabled(true);
    loop.runPending();
    EXPECT_EQ(state().volume, 0.5);
    EXPECT_FALSE(tap.deliverKey(1, true));
    loop.runPending();
    EXPECT_EQ(state().volume, 0.4375);
}

TEST_F(AppModelFixture, KeysAreNotMonitoredWhileOff) {
    launch();
    EXPECT_EQ(tap.liveTapCount(), 0u);
    switchOnDesk();
    EXPECT_EQ(tap.liveTapCount(), 1u);
    EXPECT_TRUE(state().isMonitoringMediaKeys);
    EXPECT_FALSE(state().isReplacingSystemHUD) << "no post permission";
    model->setEnabled(false);
    EXPECT_EQ(tap.liveTapCount(), 0u);
    EXPECT_FALSE(state().isMonitoringMediaKeys);
}

TEST_F(AppModelFixture, ReplacingTheIndicatorAsksForAccessibilityAndOpensItsSettings) {
    launch();
    switchOnDesk();
    model->setReplaceSystemHUD(false);
    EXPECT_EQ(*defaults.get("replaceSystemHUD"), PropertyList::boolean(false));
    model->setReplaceSystemHUD(true);
    EXPECT_EQ(permissions.postRequests, 1);
    EXPECT_EQ(workspace.actions().back(), "open-url " + AppModel::kAccessibilityURL);
    permissions.grantsOnRequest = true;
    model->setReplaceSystemHUD(true);
    EXPECT_TRUE(state().hasMediaKeyControlPermission);
    EXPECT_TRUE(state().isReplacingSystemHUD);
}

TEST_F(AppModelFixture, SwitchingOnWithoutKeyPermissionAsksForInputMonitoring) {
    permissions.canListen = false;
    launch();
    switchOnDesk();
    EXPECT_EQ(permissions.listenRequests, 1);
    EXPECT_FALSE(state().isMonitoringMediaKeys);
}

TEST_F(AppModelFixture, PerOutputSettingsAreScopedToTheSelectedOutputAndWritten) {
    launch();
    model->selectOutput("M", false);
    model->setPreset(OutputPreset::subwoofer, "B");
    model->setEqualizer(EqualizerPreset::rock, "A");
    model->setChildVolume("B", 1.4);
    model->setCrossoverFrequency(95);
    EXPECT_EQ(model->preset("B"), OutputPreset::subwoofer);
    EXPECT_EQ(model->equalizer("A"), EqualizerPreset::rock);
    EXPECT_EQ(model->childVolume("B"), 1.0);
    EXPECT_EQ(model->childVolume("A"), 1.0);
    EXPECT_EQ(state().crossoverFrequency, 100);
    EXPECT_EQ(*defaults.get("crossoverFrequency"), PropertyList::real(100));
    relaunch();
    model->selectOutput("M", false);
    EXPECT_EQ(model->preset("B"), OutputPreset::subwoofer);
    EXPECT_EQ(model->equalizer("A"), EqualizerPreset::rock);
    EXPECT_EQ(state().crossoverFrequency, 100);
    model->setEnabled(true);
    EXPECT_EQ(model->engine().childPresets().at("B"), OutputPreset::subwoofer);
    EXPECT_EQ(model->engine().childEqualizers().at("A"), EqualizerPreset::rock);
    model->selectOutput("S", false);
    EXPECT_EQ(model->preset("B"), OutputPreset::fullRange) << "roles belong to their output";
}

TEST_F(AppModelFixture, WithoutASelectedOutputRoleAndEqualizerChangeAndWriteNothing) {
    SimulatedAudioHardware bare;
    bare.addDevice({"I", "Mic", {}, {1}});
    model = std::make_unique<AppModel>(services(bare, loop, defaults, writer));
    ASSERT_FALSE(model->state().selectedDeviceUID);
    const std::size_t writes = defaults.writeCount();
    model->setPreset(OutputPreset::subwoofer, "B");
    model->setEqualizer(EqualizerPreset::rock, "B");
    EXPECT_EQ(defaults.writeCount(), writes);
    EXPECT_TRUE(model->state().presets.scoped.empty());
    EXPECT_EQ(model->preset("B"), OutputPreset::fullRange);
}

TEST_F(AppModelFixture, RecordingFormatCannotChangeWhileRecording) {
    launch();
    switchOnDesk();
    model->setRecordingFormat(RecordingFormat::wav);
    EXPECT_EQ(*defaults.get("recordingFormat"), PropertyList("wav"));
    model->toggleRecording();
    ASSERT_TRUE(state().isRecording);
    model->setRecordingFormat(RecordingFormat::m4a);
    EXPECT_EQ(state().recordingFormat, RecordingFormat::wav);
    model->toggleRecording();
}

TEST_F(AppModelFixture, LabelsAreTrimmedForEmptinessKeptWhileOffAndPerDirection) {
    launch();
    const AudioDevice desk = model->devices().device("M").value();
    model->setDeviceLabel("Living Room", desk, DeviceDirection::output);
    EXPECT_EQ(model->displayName(desk, DeviceDirection::output), "Living Room");
    model->setDeviceLabel("   \n", desk, DeviceDirection::output);
    EXPECT_EQ(model->displayName(desk, DeviceDirection::output), "Desk");
    EXPECT_FALSE(state().deviceLabels.label("M", DeviceDirection::output));

    model->setDeviceLabel("Desk speakers", desk, DeviceDirection::output);
    model->setDeviceLabel("Desk mic", desk, DeviceDirection::input);
    model->setUseDeviceLabels(false);
    EXPECT_EQ(model->displayName(desk, DeviceDirection::output), "Desk");
    EXPECT_EQ(*defaults.get("useDeviceLabels"), PropertyList::boolean(false));
    relaunch();
    EXPECT_EQ(model->displayName(desk, DeviceDirection::output), "Desk");
    model->setUseDeviceLabels(true);
    EXPECT_EQ(model->displayName(desk, DeviceDirection::output), "Desk speakers");
    EXPECT_EQ(model->displayName(desk, DeviceDirection::input), "Desk mic");
}

TEST_F(AppModelFixture, ADisplayBackUnderANewUIDKeepsItsSettings) {
    launch();
    const AudioObjectID display = sim.deviceID(kDisplayUID);
    model->selectOutput(kDisplayUID, false);
    model->setChildVolume(kDisplayUID, 0.3);
    model->setDeviceLabel("TV", model->devices().device(kDisplayUID).value(),
                          DeviceDirection::output);
    model->setAppOutputRules({{"com.example.player", "Player", kDisplayUID, "TV"}});
    // The display comes back under a new UID and the system makes it the default again.
    sim.setDefaultOutput(sim.replaceDeviceUID(display, kDisplayUIDAgain));
    tick();
    EXPECT_EQ(state().selectedDeviceUID, kDisplayUIDAgain);
    EXPECT_EQ(model->childVolume(kDisplayUIDAgain), 0.3);
    EXPECT_EQ(state().deviceLabels.label(kDisplayUIDAgain, DeviceDirection::output), "TV");
    EXPECT_EQ(state().appOutputRules.at(0).outputUID, kDisplayUIDAgain);
    const AppSettings stored = AppSettings::load(defaults);
    EXPECT_EQ(stored.selectedDeviceUID, kDisplayUIDAgain);
    EXPECT_EQ(stored.childVolumes.count(kDisplayUID), 0u);
}

TEST_F(AppModelFixture, AMultiOutputDeviceWhoseDisplayCameBackIsRepairedOnce) {
    const AudioObjectID tv =
        sim.addMultiOutputDevice("T", "TV and Sub", {kDisplayUID, "B"}, kDisplayUID);
    launch();
    model->selectOutput("T", false);
    sim.replaceDeviceUID(sim.deviceID(kDisplayUID), kDisplayUIDAgain);
    sim.setCompositionSettable(tv, false);
    model->setEnabled(true);
    ASSERT_TRUE(state().deviceRecoveryMessage) << "the rewrite was refused";
    const std::size_t writes = sim.callCount(Sim::Call::setPropertyValue);
    tick(3);
    EXPECT_EQ(sim.callCount(Sim::Call::setPropertyValue), writes) << "not retried";
    EXPECT_EQ(state().missingOutputUIDs, std::vector<std::string>{kDisplayUID});

    // Something changes (the display is set free): one new attempt, which succeeds.
    sim.setCompositionSettable(tv, true);
    sim.addDevice({"X", "Headphones", {2}});
    tick();
    EXPECT_FALSE(state().deviceRecoveryMessage);
    EXPECT_TRUE(state().missingOutputUIDs.empty());
    EXPECT_TRUE(state().isEnabled);
    expectConsistent();
}

TEST_F(AppModelFixture, LaunchAtLoginRegistersAndReportsFailuresWithTheMoveHint) {
    launch();
    model->setLaunchAtLogin(true);
    EXPECT_TRUE(state().launchAtLogin);
    loginItem.failure = "The operation couldn’t be completed.";
    workspace.setOwnBundlePath("/Users/me/Downloads/Brightmix.app");
    model->setLaunchAtLogin(false);
    EXPECT_EQ(state().errorMessage,
              "Launch at Login could not be changed: The operation couldn’t be completed. Move "
              "Brightmix to Applications and try again.");
    model->setLaunchAtLogin(false);
    EXPECT_FALSE(state().errorMessage) << "a later success clears the login message";
    loginItem.statusAfterRegistering = LoginItem::Status::requiresApproval;
    model->setLaunchAtLogin(true);
    EXPECT_TRUE(state().launchAtLoginNeedsApproval);
    EXPECT_EQ(loginItem.settingsOpened, 1);
    // Approved in System Settings: seen when the panel next opens, not by polling the login
    // item service every second.
    loginItem.currentStatus = LoginItem::Status::enabled;
    const int reads = loginItem.statusReads;
    tick();
    tick();
    EXPECT_EQ(loginItem.statusReads, reads);
    EXPECT_FALSE(state().launchAtLogin);
    model->refreshLoginItemState();
    EXPECT_TRUE(state().launchAtLogin);
    EXPECT_FALSE(state().launchAtLoginNeedsApproval);
}

TEST_F(AppModelFixture, AutomaticSwitchingPicksTheAppsOutputAfterTwoTicks) {
    const AudioObjectID player = sim.addProcess({501, "com.example.player", true, {speakersID}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    launch();
    model->setEnabled(true); // on the speakers
    model->setAppOutputRules({{"com.example.player", "Player", "M", "Desk"}});
    model->setAutomaticallySwitchApps(true);
    EXPECT_EQ(state().appOutputStatus, "Waiting for app playback.");
    auto playSecond = [&] {
        if (const AppPlaybackMonitor* monitor = model->playbackMonitor()) {
            if (const PlaybackTap* detection = monitor->tap("com.example.player")) {
                sim.runCycles(detection->aggregateID(), 512, 100);
            }
        }
        tick();
    };
    playSecond(); // builds the detection tap; nothing heard yet
    playSecond(); // heard once
    EXPECT_EQ(state().selectedDeviceUID, "S");
    playSecond(); // heard twice: the rule takes the output
    EXPECT_EQ(state().selectedDeviceUID, "M");
    EXPECT_EQ(defaultOutputUID(), "M");
    EXPECT_TRUE(state().isEnabled);
    EXPECT_EQ(state().appOutputStatus, "Player is playing on Desk.");
    model->selectOutput("S", false);
    EXPECT_EQ(state().appOutputStatus, "Manual output. Waiting for new app playback.");
    (void)player;
}

TEST_F(AppModelFixture, AutomaticSwitchingStopsWithItsMessageWhenTheSwitchFails) {
    sim.addProcess({501, "com.example.player", true, {speakersID}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    launch();
    model->setEnabled(true);
    model->setAppOutputRules({{"com.example.player", "Player", "M", "Desk"}});
    model->setAutomaticallySwitchApps(true);
    // The system refuses to change its default output.
    sim.failAlways(Sim::Call::setPropertyData, kAudioHardwareIllegalOperationError);
    for (int i = 0; i < 4 && state().automaticallySwitchApps; ++i) {
        if (const AppPlaybackMonitor* monitor = model->playbackMonitor()) {
            if (const PlaybackTap* detection = monitor->tap("com.example.player")) {
                sim.runCycles(detection->aggregateID(), 512, 100);
            }
        }
        tick();
    }
    EXPECT_FALSE(state().automaticallySwitchApps);
    EXPECT_EQ(*defaults.get("automaticallySwitchApps"), PropertyList::boolean(false));
    EXPECT_EQ(state().appOutputStatus.rfind("Automatic switching stopped because Desk could not "
                                            "be started. ",
                                            0),
              0u)
        << state().appOutputStatus;
    EXPECT_EQ(model->playbackMonitor()->tapCount(), 0u);
    EXPECT_EQ(state().selectedDeviceUID, "S") << "the selection is unchanged";
    EXPECT_TRUE(state().errorMessage);
    expectNothingLeft();
    sim.clearFaults();
    tick(2);
    EXPECT_EQ(state().appOutputStatus, "Automatic switching is off.");
}

TEST_F(AppModelFixture, TheHealthFallbackRestartsOnTheGlobalTap) {
    sim.addProcess({501, "com.example.player", true, {multiID}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    launch();
    switchOnDesk();
    sim.setTapsDeliverSilence(true);
    for (int i = 0; i < 3 && !state().isUsingCompatibilityCapture; ++i) {
        sim.runCycles(model->engine().aggregateID(), 256, 4);
        tick();
    }
    EXPECT_TRUE(state().isUsingCompatibilityCapture);
    EXPECT_TRUE(state().isEnabled);
    expectConsistent();
}

TEST_F(AppModelFixture, AFailedHealthFallbackSwitchesOffWithItsMessage) {
    sim.addProcess({501, "com.example.player", true, {multiID}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    launch();
    switchOnDesk();
    sim.setTapsDeliverSilence(true);
    sim.runCycles(model->engine().aggregateID(), 256, 4);
    tick();
    sim.runCycles(model->engine().aggregateID(), 256, 4);
    sim.failNext(Sim::Call::createProcessTap, kAudioHardwareIllegalOperationError);
    tick();
    EXPECT_FALSE(state().isEnabled);
    ASSERT_TRUE(state().errorMessage);
    EXPECT_EQ(state().errorMessage->rfind("Brightmix’s audio tap never delivered sound and the "
                                          "compatibility tap could not start, so it switched "
                                          "off to restore ordinary Multi-Output playback. ",
                                          0),
              0u);
    EXPECT_EQ(defaultOutputUID(), "M") << "left to play by itself";
    expectNothingLeft();
}

TEST_F(AppModelFixture, TheDiagnosticsLogIsCappedAndOnlyKeptWhenAskedFor) {
    launch();
    for (int i = 0; i < 5; ++i)
        model->appendDiagnostic("event " + std::to_string(i));
    EXPECT_FALSE(defaults.get("diagnosticsLog"));
    defaults.set("diagnostics", PropertyList::boolean(true));
    for (int i = 0; i < 25; ++i)
        model->appendDiagnostic("event " + std::to_string(i));
    const PropertyList::Array log = *defaults.get("diagnosticsLog")->asArray();
    ASSERT_EQ(log.size(), 20u);
    const std::string first = *log.front().asString();
    EXPECT_EQ(first.substr(first.size() - 8), " event 5");
}

TEST_F(AppModelFixture, AFailedSwitchOnIsLoggedAndTheReportHasAnEmptyError) {
    defaults.set("diagnostics", PropertyList::boolean(true));
    launch();
    model->selectOutput("M", false);
    sim.failNext(Sim::Call::createAggregateDevice, kAudioHardwareIllegalOperationError);
    model->setEnabled(true);
    ASSERT_FALSE(state().isEnabled);
    const PropertyList::Array log = *defaults.get("diagnosticsLog")->asArray();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_NE(log[0].asString()->find(" enable failed: "), std::string::npos);

    model->setEnabled(true);
    tick();
    const PropertyList report = *defaults.get("diagnosticsReport");
    ASSERT_TRUE(report.find("error"));
    EXPECT_EQ(*report.find("error"), PropertyList(""));
    EXPECT_TRUE(report.find("callbacks"));
    EXPECT_TRUE(report.find("at"));
}

TEST_F(AppModelFixture, ResetDeletesTheDomainAndTheRelaunchHasEveryDefault) {
    launch();
    switchOnDesk();
    model->setVolume(0.2);
    model->setReplaceSystemHUD(false);
    model->setRecordingFormat(RecordingFormat::wav);
    model->setCrossoverFrequency(120);
    model->setDeviceLabel("X", model->devices().device("A").value(), DeviceDirection::output);
    model->setAppOutputRules({{"com.example.player", "Player", "M", "Desk"}});
    model->resetSettings();
    EXPECT_EQ(workspace.actions().back(), "terminate");
    EXPECT_TRUE(defaults.values().empty());
    EXPECT_FALSE(model->isRefreshTimerRunning());
    EXPECT_EQ(defaultOutputUID(), "M") << "switched off without restoring";
    expectNothingLeft();
    relaunch();
    EXPECT_EQ(state().volume, 0.75);
    EXPECT_TRUE(state().replaceSystemHUD);
    EXPECT_EQ(state().recordingFormat, RecordingFormat::m4a);
    EXPECT_EQ(state().crossoverFrequency, 80);
    EXPECT_TRUE(state().deviceLabels.empty());
    EXPECT_TRUE(state().appOutputRules.empty());
    EXPECT_FALSE(state().isEnabled);
}

TEST_F(AppModelFixture, ChangesArePublishedOnlyWhenSomethingChanged) {
    launch();
    const int before = changes;
    tick(3);
    EXPECT_EQ(changes, before) << "a quiet tick publishes nothing";
    model->setVolume(0.3);
    EXPECT_EQ(changes, before + 1);
    model->setVolume(0.3);
    EXPECT_EQ(changes, before + 1);
    switchOnDesk();
    EXPECT_EQ(changes, before + 3) << "one publication per operation";
}

} // namespace
} // namespace brightmix::testing

namespace brightmix::testing {
namespace {

TEST_F(AppModelFixture, ThePanelListsTheAppsPlayingToTheDefaultOutput) {
    sim.addProcess({501, "com.example.player", true, {speakersID}});
    sim.addProcess({502, "com.example.other", true, {multiID}});
    workspace.setRunningApplication(501, "/Applications/Player.app/Contents/MacOS/Player",
                                    "com.example.player");
    workspace.setRunningApplication(502, "/Applications/Other.app", "com.example.other");
    launch();
    ASSERT_EQ(model->playingApps().apps().size(), 1u);
    EXPECT_EQ(model->playingApps().apps()[0].name, "Player");
    model->selectOutput("M", false);
    tick();
    ASSERT_EQ(model->playingApps().apps().size(), 1u);
    EXPECT_EQ(model->playingApps().apps()[0].name, "Other");
}

} // namespace
} // namespace brightmix::testing

namespace brightmix::testing {
namespace {

TEST_F(AppModelFixture, WhereTheDesktopOwnsTheKeysTheOutputsOwnVolumeIsTheirChannel) {
    const AudioObjectID speakers = sim.addDevice(
        SimulatedAudioHardware::DeviceSpec("V", "Room Speakers", {2}).volumeControl(0));
    followsSystemVolume = true;
    launch();
    model->selectOutput("V", false);
    model->setVolume(0.6);
    EXPECT_FALSE(model->isFollowingSystemVolume()) << "only while on";
    const Float32 desktopLevel = 0.45f;
    const AudioObjectPropertyAddress volume{kAudioDevicePropertyVolumeScalar,
                                            kAudioObjectPropertyScopeOutput, 0};
    ASSERT_EQ(sim.setPropertyData(speakers, volume, 0, nullptr, sizeof desktopLevel, &desktopLevel),
              0);
    model->setEnabled(true);
    ASSERT_TRUE(state().isEnabled);
    EXPECT_TRUE(model->isFollowingSystemVolume());
    EXPECT_TRUE(state().isMonitoringMediaKeys);
    EXPECT_NEAR(state().volume, 0.45, 1e-6) << "switching on adopts the desktop's level";
    EXPECT_FLOAT_EQ(masterGain(), 0.45f);
    loop.advance(0.3);
    EXPECT_NEAR(state().volume, 0.45, 1e-6);

    // The desktop's volume keys move the output's volume.
    const Float32 lower = 0.3f;
    ASSERT_EQ(sim.setPropertyData(speakers, volume, 0, nullptr, sizeof lower, &lower), 0);
    loop.advance(AppModel::kSystemVolumeInterval);
    EXPECT_NEAR(state().volume, 0.3, 1e-6);
    EXPECT_FLOAT_EQ(masterGain(), 0.3f);
    EXPECT_EQ(*defaults.get("volume"), PropertyList::real(double(lower)));

    // The panel's slider goes the other way, and its own write is not taken for a change.
    model->setVolume(0.8);
    EXPECT_FLOAT_EQ(sim.volumeScalar(speakers, 0), 0.8f);
    loop.advance(0.5);
    EXPECT_EQ(state().volume, 0.8);

    model->setEnabled(false);
    EXPECT_FALSE(model->isFollowingSystemVolume());
    ASSERT_EQ(sim.setPropertyData(speakers, volume, 0, nullptr, sizeof lower, &lower), 0);
    loop.advance(0.5);
    EXPECT_EQ(state().volume, 0.8) << "off: the output's volume is its own again";
}

TEST_F(AppModelFixture, WithoutTheOptionTheOutputsVolumeIsLeftAlone) {
    const AudioObjectID speakers = sim.addDevice(
        SimulatedAudioHardware::DeviceSpec("V", "Room Speakers", {2}).volumeControl(0));
    launch();
    model->selectOutput("V", false);
    model->setEnabled(true);
    model->setVolume(0.4);
    EXPECT_FALSE(model->isFollowingSystemVolume());
    EXPECT_FLOAT_EQ(sim.volumeScalar(speakers, 0), 1.0f);
}

} // namespace
} // namespace brightmix::testing
