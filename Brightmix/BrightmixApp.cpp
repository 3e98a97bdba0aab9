#include "Brightmix/BrightmixApp.h"

#include <cmath>
#include <locale>
#include <sstream>

#include "Brightmix/DeviceLabelsView.h"
#include "Brightmix/VolumeHUDView.h"

namespace brightmix {

namespace {

std::optional<bool> parseFlag(const std::optional<std::string>& value) {
    if (value == "true") return true;
    if (value == "false") return false;
    return std::nullopt;
}

std::optional<double> parseNumber(const std::optional<std::string>& value) {
    if (!value) return std::nullopt;
    // A stream in the classic locale rather than from_chars: the C++ library of the macOS
    // SDK has no floating-point from_chars.
    std::istringstream stream(*value);
    stream.imbue(std::locale::classic());
    double number = 0;
    stream >> std::noskipws >> number;
    if (stream.fail() || stream.peek() != std::char_traits<char>::eof() || !std::isfinite(number))
        return std::nullopt;
    return number;
}

} // namespace

BrightmixApp::BrightmixApp(AppModel& model, Updater& updater, Host host, PlatformProfile profile)
    : model_(model), updater_(updater), host_(std::move(host)), profile_(std::move(profile)),
      editor_(model) {
    model_.setChangeObserver([this] { notify(); });
    model_.outputMeter().setObserver([this](const OutputLevelEnvelope&) { notify(); });
    model_.playingApps().setObserver([this](const std::vector<PlayingApp>&) { notify(); });
}

BrightmixApp::~BrightmixApp() {
    model_.setChangeObserver({});
    model_.outputMeter().setObserver({});
    model_.playingApps().setObserver({});
}

void BrightmixApp::notify() const {
    if (host_.changed) host_.changed();
}

void BrightmixApp::launch() {
    model_.refreshPermissions();
    if (profile_.hasKeyPermissions && SetupLauncher::shouldOpenAtLaunch(model_.state())) {
        openWindow(kSetupWindow);
    }
}

ui::Node BrightmixApp::panel() const {
    return BrightmixMenuView::body(model_, menuState_, updater_, profile_);
}

std::optional<ui::Node> BrightmixApp::window(const std::string& identifier) const {
    if (!isWindowOpen(identifier)) return std::nullopt;
    if (identifier == kSetupWindow && setup_) {
        return profile_.hasKeyPermissions ? setup_->body() : SetupView::nothingToSetUp();
    }
    if (identifier == kAppOutputsWindow) return AppOutputsView::body(model_, editor_, profile_);
    if (identifier == kDeviceLabelsWindow) return DeviceLabelsView::body(model_);
    return std::nullopt;
}

ui::Node BrightmixApp::hud(const HudContent& content) {
    return VolumeHUDView{content.volume, content.isMuted, content.outputName}.body();
}

void BrightmixApp::openWindow(const std::string& identifier) {
    if (identifier != kSetupWindow && identifier != kAppOutputsWindow &&
        identifier != kDeviceLabelsWindow) {
        return;
    }
    if (identifier == kSetupWindow && !setup_) setup_ = std::make_unique<SetupView>(model_);
    openWindows_.insert(identifier);
    if (host_.showWindow) host_.showWindow(identifier);
}

void BrightmixApp::closeWindow(const std::string& identifier) {
    if (openWindows_.erase(identifier) == 0) return;
    if (identifier == kSetupWindow) setup_.reset();
    if (host_.hideWindow) host_.hideWindow(identifier);
}

bool BrightmixApp::isWindowOpen(const std::string& identifier) const {
    return openWindows_.count(identifier) != 0;
}

bool BrightmixApp::perform(const ui::ActionEvent& event) {
    const std::string& name = event.action.name;
    const std::vector<std::string>& arguments = event.action.arguments;
    const auto argument = [&](std::size_t index) -> const std::string* {
        return index < arguments.size() ? &arguments[index] : nullptr;
    };
    const std::optional<bool> flag = parseFlag(event.value);
    const std::optional<double> number = parseNumber(event.value);
    bool isHandled = true;

    if (name == "setEnabled" && flag) {
        model_.setEnabled(*flag);
    } else if (name == "selectOutput" && event.value) {
        model_.selectOutput(*event.value, false);
    } else if (name == "selectInput" && event.value) {
        model_.selectInput(*event.value);
    } else if (name == "setVolume" && number) {
        model_.setVolume(*number);
    } else if (name == "toggleMute") {
        model_.toggleMute();
    } else if (name == "setChildVolume" && argument(0) && number) {
        model_.setChildVolume(*argument(0), *number);
    } else if (name == "setPreset" && argument(0) && event.value &&
               outputPresetFromRawValue(*event.value)) {
        model_.setPreset(*outputPresetFromRawValue(*event.value), *argument(0));
    } else if (name == "setEqualizer" && argument(0) && event.value &&
               equalizerPresetFromRawValue(*event.value)) {
        model_.setEqualizer(*equalizerPresetFromRawValue(*event.value), *argument(0));
    } else if (name == "setCrossoverFrequency" && number) {
        model_.setCrossoverFrequency(*number);
    } else if (name == "toggleRecording") {
        model_.toggleRecording();
    } else if (name == "revealLastRecording") {
        model_.revealLastRecording();
    } else if (name == "setRecordingFormat" && argument(0) &&
               recordingFormatFromRawValue(*argument(0))) {
        model_.setRecordingFormat(*recordingFormatFromRawValue(*argument(0)));
    } else if (name == "chooseRecordingFolder") {
        model_.chooseRecordingFolder();
    } else if (name == "openWindow" && argument(0)) {
        openWindow(*argument(0));
    } else if (name == "closeWindow" && argument(0)) {
        closeWindow(*argument(0));
    } else if (name == "setUseDeviceLabels" && flag) {
        model_.setUseDeviceLabels(*flag);
    } else if (name == "restartAudioEngine") {
        model_.restartAudioEngine();
    } else if (name == "openAudioMIDISetup") {
        if (!profile_.soundSetupPath.empty()) {
            model_.workspace().openApplication(profile_.soundSetupPath);
        }
    } else if (name == "setReplaceSystemHUD" && flag) {
        model_.setReplaceSystemHUD(*flag);
    } else if (name == "confirmReset") {
        menuState_.isConfirmingReset = true;
    } else if (name == "resetSettings") {
        menuState_.isConfirmingReset = false;
        if (event.value != "cancel") model_.resetSettings();
    } else if (name == "checkForUpdates" && isUpdaterUsable()) {
        updater_.checkForUpdates();
    } else if (name == "setAutomaticallyChecksForUpdates" && flag && isUpdaterUsable()) {
        updater_.setAutomaticallyChecksForUpdates(*flag);
    } else if (name == "about") {
        if (host_.showAbout) host_.showAbout();
    } else if (name == "openURL" && argument(0)) {
        model_.workspace().openURL(*argument(0));
    } else if (name == "quit") {
        model_.workspace().terminate();
    } else if (name == "openInputMonitoringSettings") {
        model_.openInputMonitoringSettings();
    } else if (name == "openAccessibilitySettings") {
        model_.openAccessibilitySettings();
    } else if (name == "retryMediaKeys") {
        model_.retryMediaKeys();
    } else if (name == "openLoginItems") {
        model_.openLoginItemsSettings();
    } else if (name == "setLaunchAtLogin" && flag) {
        model_.setLaunchAtLogin(*flag);
    } else if (name == "setAutomaticallySwitchApps" && flag) {
        model_.setAutomaticallySwitchApps(*flag);
    } else if (name == "addRule" && argument(0) && argument(1)) {
        editor_.addApp(*argument(0), *argument(1));
    } else if (name == "chooseApplication") {
        editor_.chooseApplication();
    } else if (name == "setRuleOutput" && argument(0) && event.value) {
        editor_.setOutput(*argument(0), *event.value);
    } else if (name == "removeRule" && argument(0)) {
        editor_.remove(*argument(0));
    } else if ((name == "setDeviceLabel" || name == "clearDeviceLabel") && argument(2) &&
               directionFromName(*argument(0)) && (name == "clearDeviceLabel" || event.value)) {
        model_.setDeviceLabel(name == "clearDeviceLabel" ? std::string() : *event.value,
                              *argument(1), *argument(2), *directionFromName(*argument(0)));
    } else if (name == "setupOpenInputMonitoring" && setup_) {
        setup_->openInputMonitoring();
    } else if (name == "setupOpenAccessibility" && setup_) {
        setup_->openAccessibility();
    } else if (name == "setupOpenSystemAudioRecording" && setup_) {
        setup_->openSystemAudioRecording();
    } else if (name == "setupRestart" && setup_) {
        setup_->restart();
    } else if (name == "dragApplication") {
        // The drag itself is the renderer's; nothing changes in the model.
    } else {
        isHandled = false;
    }
    if (isHandled) notify();
    return isHandled;
}

} // namespace brightmix
