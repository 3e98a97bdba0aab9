#include "Brightmix/BrightmixMenuView.h"

#include <cmath>
#include <cstdio>

#include "Brightmix/RecordingControlsView.h"

namespace brightmix {

namespace {

const AudioDevice* findDevice(const std::vector<AudioDevice>& devices, const std::string& uid) {
    for (const AudioDevice& device : devices) {
        if (device.uid == uid) return &device;
    }
    return nullptr;
}

bool areKeysWanted(const AppModelState& state) {
    return state.isEnabled && state.selectedDeviceUID &&
           state.systemOutputUID == state.selectedDeviceUID;
}

ui::Node header(const AppModelState& state, const PlatformProfile& profile) {
    std::vector<ui::Node> lines{
        ui::row("header",
                {ui::text("title", "Brightmix", ui::TextRole::title), ui::spacer("header.space"),
                 ui::toggle("enabled", "Brightmix", state.isEnabled, {"setEnabled", {}})}),
        ui::text("status", BrightmixMenuView::statusLine(state, profile), ui::TextRole::status)};
    if (state.isMuted) lines.push_back(ui::text("muted", "Muted", ui::TextRole::status));
    return ui::stack("top", std::move(lines));
}

ui::Node devicePickers(const AppModel& model) {
    const AppModelState& state = model.state();
    std::vector<ui::Option> outputs;
    for (const Option& option : BrightmixMenuView::outputOptions(model)) {
        outputs.push_back({option.uid, option.title, option.device.has_value()});
    }
    std::vector<ui::Option> inputs;
    for (const AudioDevice& device : state.inputDevices) {
        inputs.push_back({device.uid, model.displayName(device, DeviceDirection::input)});
    }
    std::vector<ui::Node> pickers{ui::picker("output", "Output", std::move(outputs),
                                             state.selectedDeviceUID.value_or(""),
                                             {"selectOutput", {}})};
    if (!inputs.empty()) {
        pickers.push_back(ui::picker("input", "Input", std::move(inputs),
                                     state.systemInputUID.value_or(""), {"selectInput", {}}));
    }
    return ui::section("devices", "", std::move(pickers));
}

ui::Node volume(const AppModelState& state, const PlatformProfile& profile) {
    ui::Node level = ui::slider("volume", "Volume", state.volume, 0, 1, percentText(state.volume),
                                {"setVolume", {}});
    level.accessibilityLabel = "Volume";
    ui::Node mute = state.isMuted
                        ? ui::button("mute", "Unmute", "speaker.slash.fill", {"toggleMute", {}})
                        : ui::button("mute", "Mute", "speaker.wave.2.fill", {"toggleMute", {}});
    return ui::section("volume.section", "",
                       {ui::row("volume.row", {std::move(level), std::move(mute)}),
                        ui::text("volume.help", BrightmixMenuView::volumeHelp(state, profile),
                                 ui::TextRole::help)});
}

ui::Node outputCard(const AppModel& model, const OutputCard& card) {
    const std::string& uid = card.device.uid;
    const std::string prefix = "card." + uid;
    std::vector<ui::Option> roles;
    for (OutputPreset role : kAllOutputPresets) {
        roles.push_back({std::string(rawValue(role)), std::string(label(role))});
    }
    std::vector<ui::Option> sounds;
    for (EqualizerPreset preset : kAllEqualizerPresets) {
        sounds.push_back({std::string(rawValue(preset)), std::string(displayName(preset))});
    }
    ui::Node level = ui::slider(prefix + ".volume", card.name, card.volume, 0, 1,
                                percentText(card.volume), {"setChildVolume", {uid}});
    level.accessibilityLabel = card.name + " volume";
    return ui::stack(
        prefix,
        {ui::row(
             prefix + ".title",
             {ui::image(prefix + ".symbol", card.device.outputChannels >= 2 ? "hifispeaker.2.fill"
                                                                            : "hifispeaker.fill"),
              ui::text(prefix + ".name", card.name, ui::TextRole::headline)}),
         std::move(level),
         ui::row(prefix + ".pickers",
                 {ui::picker(prefix + ".role", "Role", std::move(roles),
                             std::string(rawValue(card.role)), {"setPreset", {uid}}),
                  ui::picker(prefix + ".sound", "Sound", std::move(sounds),
                             std::string(rawValue(card.equalizer)), {"setEqualizer", {uid}})}),
         ui::text(prefix + ".explanation", description(card.role, model.state().crossoverFrequency),
                  ui::TextRole::caption)});
}

ui::Node outputs(const AppModel& model) {
    std::vector<ui::Node> cards;
    for (const OutputCard& card : BrightmixMenuView::outputCards(model)) {
        cards.push_back(outputCard(model, card));
    }
    std::vector<ui::Option> frequencies;
    for (double hertz : kCrossoverFrequencies) {
        frequencies.push_back({ui::formatNumber(hertz), ui::formatNumber(hertz) + " Hz"});
    }
    cards.push_back(ui::picker("crossover", "Crossover", std::move(frequencies),
                               ui::formatNumber(model.state().crossoverFrequency),
                               {"setCrossoverFrequency", {}}));
    return ui::section("outputs", "Outputs", std::move(cards));
}

// Keyed by what the callout is about, so that one stays in place when others come and go.
ui::Node calloutNode(const Callout& callout) {
    return ui::callout("callout." +
                           (callout.perform.empty() ? callout.symbol : callout.perform.name),
                       callout.symbol, callout.message, callout.action, callout.perform);
}

std::vector<ui::MenuEntry> optionsMenu(const AppModel& model, const Updater& updater,
                                       const PlatformProfile& profile) {
    const AppModelState& state = model.state();
    std::vector<ui::MenuEntry> entries{
        ui::menuItem("options.app-outputs", "App Outputs…", {"openWindow", {"app-outputs"}}),
        ui::menuItem("options.device-labels", "Device Labels…", {"openWindow", {"device-labels"}}),
        ui::menuToggle("options.use-labels", "Use Custom Device Labels", state.useDeviceLabels,
                       {"setUseDeviceLabels", {}}),
        ui::menuSeparator("options.separator.audio"),
        ui::menuItem("options.restart-engine", "Restart Audio Engine", {"restartAudioEngine", {}}),
        ui::menuItem("options.audio-midi-setup", profile.soundSetupTitle,
                     {"openAudioMIDISetup", {}}),
        ui::menuToggle("options.replace-hud", "Replace macOS Volume Indicator",
                       state.replaceSystemHUD, {"setReplaceSystemHUD", {}}),
        ui::menuItem("options.setup", "Set Up Permissions…", {"openWindow", {"setup"}}),
        ui::menuSeparator("options.separator.recording"),
        ui::submenu("options.format", "Format",
                    {ui::menuToggle("options.format.wav", "WAV (lossless)",
                                    state.recordingFormat == RecordingFormat::wav,
                                    {"setRecordingFormat", {"wav"}}),
                     ui::menuToggle("options.format.m4a", "M4A",
                                    state.recordingFormat == RecordingFormat::m4a,
                                    {"setRecordingFormat", {"m4a"}})}),
        ui::menuItem("options.recording-folder", "Choose Recording Folder…",
                     {"chooseRecordingFolder", {}}),
        ui::menuSeparator("options.separator.app"),
        ui::menuToggle("options.launch-at-login", "Launch at Login", state.launchAtLogin,
                       {"setLaunchAtLogin", {}}),
        ui::menuItem("options.reset", "Reset Saved Settings…", {"confirmReset", {}}),
    };
    entries[5].isEnabled = !profile.soundSetupPath.empty();
    entries[6].help = "Uses Accessibility permission to show the Brightmix volume indicator for "
                      "outputs macOS cannot control itself. Outputs with their own volume "
                      "control keep the macOS indicator.";
    if (state.isSystemHUDReplacementRefused) {
        // The setting would have no effect: say so rather than offer it.
        entries[6].isEnabled = false;
        entries[6].help = BrightmixMenuView::kHUDReplacementRefusedHelp;
    }
    const bool isBusy = state.isRecording || state.isPreparingRecording;
    entries[9].isEnabled = !isBusy;
    entries[10].isEnabled = !isBusy;
    if (!profile.hasKeyPermissions) {
        // The desktop shows its own indicator and owns the keys: nothing to replace.
        entries.erase(entries.begin() + 6);
    }
    if (updater.isAvailable()) {
        const std::string reason = updater.unavailableReason();
        ui::MenuEntry check =
            ui::menuItem("options.check-updates", "Check for Updates…", {"checkForUpdates", {}});
        check.isEnabled = reason.empty() && updater.canCheckForUpdates();
        check.help = reason;
        ui::MenuEntry automatic =
            ui::menuToggle("options.auto-updates", "Check for Updates Automatically",
                           reason.empty() && updater.automaticallyChecksForUpdates(),
                           {"setAutomaticallyChecksForUpdates", {}});
        automatic.isEnabled = reason.empty();
        automatic.help = reason;
        entries.push_back(ui::menuSeparator("options.separator.updates"));
        entries.push_back(std::move(check));
        entries.push_back(std::move(automatic));
    }
    entries.push_back(ui::menuSeparator("options.separator.help"));
    entries.push_back(ui::menuItem("options.about", "About Brightmix", {"about", {}}));
    entries.push_back(ui::menuItem("options.privacy", "Privacy Policy",
                                   {"openURL", {BrightmixMenuView::kPrivacyPolicyURL}}));
    entries.push_back(
        ui::menuItem("options.help", "Help / Contact", {"openURL", {BrightmixMenuView::kHelpURL}}));
    entries.push_back(ui::menuItem("options.email", "Email Support",
                                   {"openURL", {BrightmixMenuView::kSupportMailURL}}));
    entries.push_back(ui::menuSeparator("options.separator.quit"));
    entries.push_back(ui::menuItem("options.quit", "Quit Brightmix", {"quit", {}}));
    return entries;
}

} // namespace

std::string percentText(double level) {
    const double clamped = std::isnan(level) ? 0 : std::fmin(std::fmax(level, 0.0), 1.0);
    char text[24];
    std::snprintf(text, sizeof text, "%lld", static_cast<long long>(std::llround(clamped * 100)));
    return text;
}

std::string BrightmixMenuView::statusLine(const AppModelState& state,
                                          const PlatformProfile& profile) {
    if (!state.isEnabled) return "Off. Volume keys use " + profile.systemName + ".";
    if (state.isUsingCompatibilityCapture) return "On, using compatibility routing";
    if (state.isMonitoringMediaKeys) return "On. Volume keys control the level below.";
    return "On. Volume keys use " + profile.systemName + ".";
}

std::string BrightmixMenuView::volumeHelp(const AppModelState& state,
                                          const PlatformProfile& profile) {
    if (!areKeysWanted(state) || !state.isMonitoringMediaKeys) {
        return "Volume keys use " + profile.systemName +
               ". This slider adjusts the processed audio level.";
    }
    if (!profile.hasKeyPermissions) {
        // The desktop's keys move its own volume of the output, which carries this level.
        return "The desktop’s volume keys and indicator move this level.";
    }
    if (!state.isReplacingSystemHUD) {
        return "Volume keys move this. " + profile.systemName +
               " may still show its own indicator.";
    }
    return "Volume keys move this and show the Brightmix indicator.";
}

std::vector<Option> BrightmixMenuView::outputOptions(const AppModel& model) {
    const AppModelState& state = model.state();
    std::vector<Option> options;
    for (const AudioDevice& device : state.outputDevices) {
        options.push_back({device, device.uid, model.displayName(device, DeviceDirection::output)});
    }
    if (state.selectedDeviceUID && !findDevice(state.outputDevices, *state.selectedDeviceUID)) {
        const std::string& uid = *state.selectedDeviceUID;
        std::string name = uid;
        if (const auto found = state.deviceLabels.outputs.find(uid);
            found != state.deviceLabels.outputs.end()) {
            name = state.useDeviceLabels && !trimmedWhitespace(found->second.label).empty()
                       ? found->second.label
                       : found->second.originalName;
        }
        options.push_back({std::nullopt, uid, name + " — unavailable"});
    }
    return options;
}

std::vector<OutputCard> BrightmixMenuView::outputCards(const AppModel& model) {
    std::vector<OutputCard> cards;
    for (const AudioDevice& device : model.state().childDevices) {
        cards.push_back({device, model.displayName(device, DeviceDirection::output),
                         model.childVolume(device.uid), model.preset(device.uid),
                         model.equalizer(device.uid)});
    }
    return cards;
}

std::vector<Callout> BrightmixMenuView::callouts(const AppModel& model, const Updater& updater,
                                                 const PlatformProfile& profile) {
    const AppModelState& state = model.state();
    std::vector<Callout> callouts;
    if (!state.missingOutputUIDs.empty()) {
        if (profile.hasKeyPermissions) {
            callouts.push_back({"exclamationmark.triangle.fill",
                                "Reconnect the missing output or check its selection in Audio "
                                "MIDI Setup.",
                                profile.soundSetupButton,
                                {"openAudioMIDISetup", {}}});
        } else if (!profile.soundSetupPath.empty()) {
            callouts.push_back({"exclamationmark.triangle.fill",
                                "Reconnect the missing output or check the multi-output device "
                                "in the sound settings.",
                                profile.soundSetupButton,
                                {"openAudioMIDISetup", {}}});
        } else {
            callouts.push_back({"exclamationmark.triangle.fill",
                                "Reconnect the missing output. A multi-output device’s members "
                                "come from the PipeWire configuration (a combine-stream "
                                "module); check its rules.",
                                "",
                                {}});
        }
    }
    if (state.deviceRecoveryMessage) {
        callouts.push_back({"exclamationmark.triangle.fill", *state.deviceRecoveryMessage, "", {}});
    }
    if (areKeysWanted(state) && profile.hasKeyPermissions) {
        if (!state.hasMediaKeyPermission) {
            callouts.push_back({"keyboard",
                                "Input Monitoring is needed for the volume keys.",
                                "Allow volume keys…",
                                {"openInputMonitoringSettings", {}}});
        } else if (!state.isMonitoringMediaKeys) {
            callouts.push_back({"keyboard",
                                "Volume-key monitoring could not start. You can still use the "
                                "volume slider.",
                                "Retry volume keys",
                                {"retryMediaKeys", {}}});
        } else if (state.replaceSystemHUD && !state.hasMediaKeyControlPermission) {
            callouts.push_back({"rectangle.on.rectangle",
                                "macOS is showing its own volume indicator, which will not move. "
                                "Accessibility permission lets Brightmix replace it.",
                                "Allow Accessibility…",
                                {"openAccessibilitySettings", {}}});
        } else if (state.replaceSystemHUD && !state.isReplacingSystemHUD) {
            callouts.push_back({"rectangle.on.rectangle",
                                "The macOS volume indicator could not be replaced. Volume-key "
                                "listening is still active.",
                                "Retry volume keys",
                                {"retryMediaKeys", {}}});
        }
    }
    if (updater.isAvailable()) {
        if (const std::optional<std::string> version = updater.pendingVersion()) {
            callouts.push_back({"arrow.down.circle",
                                "Brightmix " + *version + " is available.",
                                "Check for Updates…",
                                {"checkForUpdates", {}}});
        }
    }
    if (state.launchAtLoginNeedsApproval) {
        callouts.push_back({"person.crop.circle.badge.clock",
                            "Allow Brightmix under General → Login Items to finish enabling "
                            "Launch at Login.",
                            "Open Login Items…",
                            {"openLoginItems", {}}});
    }
    if (state.errorMessage) {
        callouts.push_back({"exclamationmark.circle.fill", *state.errorMessage, "", {}});
    }
    return callouts;
}

ui::Node BrightmixMenuView::body(const AppModel& model, const MenuViewState& viewState,
                                 const Updater& updater, const PlatformProfile& profile) {
    const AppModelState& state = model.state();
    std::vector<ui::Node> children{header(state, profile), devicePickers(model),
                                   volume(state, profile)};
    if (!state.childDevices.empty()) children.push_back(outputs(model));
    const std::vector<Callout> notes = callouts(model, updater, profile);
    if (!notes.empty()) {
        std::vector<ui::Node> rows;
        for (const Callout& note : notes)
            rows.push_back(calloutNode(note));
        children.push_back(ui::stack("callouts", std::move(rows)));
    }
    children.push_back(RecordingControlsView::body(model, profile));
    children.push_back(
        ui::menu("options", "Options", "ellipsis.circle", optionsMenu(model, updater, profile)));
    if (viewState.isConfirmingReset) {
        children.push_back(ui::confirmation(
            "reset", "Reset Brightmix settings?",
            "This deletes saved audio settings, device labels, app-output rules and local "
            "diagnostics. Brightmix will quit. macOS permissions and Login Items remain managed "
            "in System Settings.",
            "Reset and Quit", {"resetSettings", {}}));
    }
    ui::Node root = ui::panel("panel", std::move(children));
    root.accessibilityLabel = menuBarAccessibilityLabel(state);
    return root;
}

std::string menuBarAccessibilityLabel(const AppModelState& state) {
    if (state.isRecording) return "Brightmix recording";
    if (!state.isEnabled) return "Brightmix off";
    if (state.isMuted) return "Brightmix muted";
    return "Brightmix on";
}

} // namespace brightmix
