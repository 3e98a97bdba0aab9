#include "Brightmix/AppModel.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <set>
#include <utility>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/Uuid.h"
#include "platform/CoreAudioConstants.h"
#include "realtime/ProcessingState.h"

namespace brightmix {

namespace {

std::string describe(const std::exception& error) {
    return error.what();
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::tm localTime(double wallClock) {
    const auto seconds = static_cast<std::time_t>(std::floor(wallClock));
    std::tm local{};
    // The main thread is the only caller, so the shared result of localtime is safe here.
    if (const std::tm* converted = std::localtime(&seconds)) local = *converted;
    return local;
}

} // namespace

// Publishes once, at the end of the outermost operation, if the state changed.
class AppModel::PublishScope {
public:
    explicit PublishScope(AppModel& model) : model_(model) {
        if (model_.publishDepth_++ == 0) before_ = model_.state_;
    }
    ~PublishScope() {
        if (--model_.publishDepth_ == 0 && before_ && !(*before_ == model_.state_) &&
            model_.observer_) {
            model_.observer_();
        }
    }
    PublishScope(const PublishScope&) = delete;
    PublishScope& operator=(const PublishScope&) = delete;

private:
    AppModel& model_;
    std::optional<AppModelState> before_;
};

AppModel::AppModel(AppServices services)
    : services_(services), defaults_(services.defaults), devices_(services.hardware),
      mediaKeys_(services.eventTap, services.permissions, services.loop),
      volumeHUD_(services.hudPanel, services.screens, services.loop),
      playingApps_(services.loop, services.workspace), self_(std::make_shared<AppModel*>(this)) {
    // 1. Settings.
    AppSettings settings = AppSettings::load(defaults_);
    state_.recordingFormat = settings.recordingFormat;
    state_.volume = settings.volume;
    state_.replaceSystemHUD = settings.replaceSystemHUD;
    state_.selectedDeviceUID = std::move(settings.selectedDeviceUID);
    state_.childVolumes = std::move(settings.childVolumes);
    state_.presets = std::move(settings.presets);
    state_.equalizers = std::move(settings.equalizers);
    state_.crossoverFrequency = settings.crossoverFrequency;
    state_.automaticallySwitchApps = settings.automaticallySwitchApps;
    state_.useDeviceLabels = settings.useDeviceLabels;
    state_.deviceLabels = std::move(settings.deviceLabels);
    state_.appOutputRules = std::move(settings.appOutputRules);
    state_.isEnabled = false;
    state_.appOutputStatus = kStatusOff;
    if (state_.volume > 0) lastAudibleVolume_ = state_.volume;

    serviceGeneration_ = services_.hardware.serviceGeneration();

    // 2. The engine, whose finished recordings come back here.
    engine_ = std::make_unique<SoftwareVolumeEngine>(devices_, static_cast<float>(state_.volume),
                                                     services_.fileWriter);
    engine_->setRecordingFinishedHandler(
        [this](const RecordingResult& result) { onRecordingFinished(result); });
    outputMeter_ = std::make_unique<OutputLevelMeter>(services_.loop, engine_->gainState());

    // 3. Termination is announced by the application through applicationWillTerminate().
    // 4. Devices, idle status, login item, keys.
    refreshDevices(false);
    setIdleStatus();
    refreshLoginItemState();
    applyMediaKeySettings(true);
    refreshPermissions();

    // 5. Key handlers.
    std::weak_ptr<AppModel*> weak = self_;
    mediaKeys_.handler = [weak](MediaVolumeKey key) {
        if (const auto self = weak.lock()) (*self)->handleMediaKey(key);
    };
    mediaKeys_.shouldHandleEvent = [weak] {
        const auto self = weak.lock();
        if (!self) return false;
        AppModel& model = **self;
        return model.areMediaKeysHandled() &&
               model.currentDefaultOutputUID() == model.state_.selectedDeviceUID;
    };

    // 6. The refresh timer.
    refreshTimer_ = services_.loop.scheduleRepeating(kRefreshInterval, [weak] {
        if (const auto self = weak.lock()) (*self)->tick();
    });

    // The panel's list of apps playing to the default output.
    playingApps_.start([weak]() -> std::vector<std::int32_t> {
        const auto self = weak.lock();
        if (!self) return {};
        AppModel& model = **self;
        const std::optional<AudioDevice> output = model.devices_.defaultOutputDevice();
        if (!output) return {};
        return model.devices_.playingProcessIDs(output->id,
                                                model.services_.hardware.currentProcessID());
    });

    // 7. Back on after a restart if it was on.
    if (defaults_.boolForKey(settingsKey::resumeEnabled)) {
        services_.loop.post([weak] {
            if (const auto self = weak.lock()) (*self)->enable();
        });
    }
}

AppModel::~AppModel() {
    services_.loop.cancel(refreshTimer_);
    services_.loop.cancel(systemVolumeTimer_);
    playingApps_.stop();
    outputMeter_->stop();
    if (playbackMonitor_) playbackMonitor_->stop();
    mediaKeys_.stop();
    engine_->setRecordingFinishedHandler({});
    engine_->stop();
}

// ---- Devices -----------------------------------------------------------------------------

UIDKeyedSettings AppModel::keyedSettings() {
    return {state_.deviceLabels, state_.childVolumes,   state_.presets,
            state_.equalizers,   state_.appOutputRules, state_.selectedDeviceUID};
}

std::optional<AudioDevice> AppModel::selectedDevice() const {
    if (!state_.selectedDeviceUID) return std::nullopt;
    for (const AudioDevice& device : state_.outputDevices) {
        if (device.uid == *state_.selectedDeviceUID) return device;
    }
    return std::nullopt;
}

std::optional<std::string> AppModel::currentDefaultOutputUID() const {
    const std::optional<AudioDevice> device = devices_.defaultOutputDevice();
    if (!device) return std::nullopt;
    return device->uid;
}

std::vector<std::string> AppModel::memberUIDs(const AudioDevice& device) const {
    if (device.subdeviceUIDs.empty()) return {device.uid};
    return device.subdeviceUIDs;
}

void AppModel::refreshDevices(bool forSwitchOn) {
    std::vector<AudioDevice> devices = devices_.devices();

    // 1. Settings of devices that came back under a new UID follow them.
    {
        const std::set<std::string> known = keyedSettings().knownUIDs();
        const std::map<std::string, std::string> found =
            AudioDeviceService::reconnectionMap(known, devices);
        keyedSettings().migrate(UIDMapping(found.begin(), found.end()), defaults_);
    }

    // 2. Repair of the default multi-output device while switching on or on.
    if (forSwitchOn || state_.isEnabled) repairSelectedOutput(devices);

    // 3. Publish the lists.
    state_.availableDevices = AudioDeviceService::sortedForDisplay(devices);
    state_.outputDevices =
        AudioDeviceService::sortedForDisplay(AudioDeviceService::outputDevices(devices));
    state_.inputDevices =
        AudioDeviceService::sortedForDisplay(AudioDeviceService::inputDevices(devices));
    auto uidOfDefault = [&](AudioObjectPropertySelector selector) -> std::optional<std::string> {
        const std::optional<AudioObjectID> id = devices_.defaultDeviceID(selector);
        if (!id) return std::nullopt;
        for (const AudioDevice& device : devices) {
            if (device.id == *id) return device.uid;
        }
        return std::nullopt;
    };
    state_.systemOutputUID = uidOfDefault(kAudioHardwarePropertyDefaultOutputDevice);
    state_.systemInputUID = uidOfDefault(kAudioHardwarePropertyDefaultInputDevice);

    // 4. The selection follows the system default output.
    const bool isSelectedPresent = selectedDevice().has_value();
    const bool isSelectedDefault =
        isSelectedPresent && state_.systemOutputUID == state_.selectedDeviceUID;
    const bool neitherExists = !isSelectedPresent && !state_.systemOutputUID;
    if (!isSelectedDefault && !neitherExists) {
        std::optional<std::string> next = state_.systemOutputUID;
        if (!next && !state_.outputDevices.empty()) next = state_.outputDevices.front().uid;
        if (next != state_.selectedDeviceUID) {
            state_.selectedDeviceUID = next;
            if (next) settingsWrite::selectedDeviceUID(defaults_, *next);
        }
    }
    rebuildChildDevices();
}

void AppModel::repairSelectedOutput(std::vector<AudioDevice>& devices) {
    const std::optional<AudioDevice> output = devices_.defaultOutputDevice();
    std::map<std::string, std::string> mapping;
    if (output) {
        const std::set<std::string> members(output->subdeviceUIDs.begin(),
                                            output->subdeviceUIDs.end());
        mapping = AudioDeviceService::reconnectionMap(members, devices);
    }
    if (mapping.empty()) {
        repairAttemptSignature_.reset();
        state_.deviceRecoveryMessage.reset();
        return;
    }
    std::string signature = output->uid;
    for (const std::string& uid : output->subdeviceUIDs)
        signature += "|" + uid;
    std::vector<std::string> present;
    for (const AudioDevice& device : devices) {
        present.push_back(std::to_string(device.id) + ":" + device.uid);
    }
    std::sort(present.begin(), present.end());
    for (const std::string& entry : present)
        signature += "|" + entry;
    if (signature == repairAttemptSignature_) return;
    repairAttemptSignature_ = signature;
    engine_->stop();
    try {
        devices_.reconnectMissingOutputs(output->id, mapping);
        state_.deviceRecoveryMessage.reset();
        devices = devices_.devices();
    } catch (const std::exception& error) {
        state_.deviceRecoveryMessage = describe(error);
    }
}

void AppModel::rebuildChildDevices() {
    state_.childDevices.clear();
    state_.missingOutputUIDs.clear();
    const std::optional<AudioDevice> selected = selectedDevice();
    if (!selected) return;
    for (const std::string& uid : selected->subdeviceUIDs) {
        const auto found =
            std::find_if(state_.availableDevices.begin(), state_.availableDevices.end(),
                         [&](const AudioDevice& device) { return device.uid == uid; });
        if (found != state_.availableDevices.end()) {
            state_.childDevices.push_back(*found);
        } else {
            state_.missingOutputUIDs.push_back(uid);
        }
    }
}

void AppModel::applyChildParameters() {
    engine_->setCrossoverHz(static_cast<float>(state_.crossoverFrequency));
    const std::optional<AudioDevice> selected = selectedDevice();
    if (!selected) return;
    for (const std::string& uid : memberUIDs(*selected)) {
        engine_->setChildGain(uid, static_cast<float>(childVolume(uid)));
        engine_->setChildPreset(preset(uid), uid);
        engine_->setChildEqualizer(equalizer(uid), uid);
    }
}

// ---- Switching on and off ------------------------------------------------------------------

void AppModel::writeResumeEnabled(bool isOn) {
    settingsWrite::flag(defaults_, settingsKey::resumeEnabled, isOn);
}

void AppModel::enable() {
    PublishScope publish(*this);
    if (state_.isEnabled) return;
    if (!services_.hardware.isServiceAvailable()) {
        // The audio system is restarting: switch on once it answers again.
        reconnect_ = PendingReconnect{true, state_.selectedDeviceUID, std::nullopt};
        state_.errorMessage = kReconnectingMessage;
        return;
    }
    repairAttemptSignature_.reset();
    refreshDevices(true);
    const std::optional<AudioDevice> selected = selectedDevice();
    if (!selected) {
        state_.errorMessage = kNoOutputMessage;
        writeResumeEnabled(false);
        return;
    }
    state_.errorMessage.reset();
    if (services_.permissions.systemAudioCaptureAccess() == CaptureAccess::denied) {
        // A tap would be created without error, mute the outputs and deliver silence.
        refreshPermissions();
        restoreDeviceUID_.reset();
        failEnable(kCaptureDeniedMessage);
        return;
    }
    const std::optional<AudioDevice> defaultOutput = devices_.defaultOutputDevice();
    if (defaultOutput && defaultOutput->uid != selected->uid) {
        restoreDeviceUID_ = defaultOutput->uid;
    } else {
        restoreDeviceUID_.reset();
    }
    try {
        if (!defaultOutput || defaultOutput->uid != selected->uid) {
            devices_.setDefaultDevice(*selected, kAudioHardwarePropertyDefaultOutputDevice);
            state_.systemOutputUID = selected->uid;
        }
        applyChildParameters();
        engine_->start(*selected, AudioCaptureMode::selectedDevice);
    } catch (const std::exception& error) {
        failEnable(describe(error));
        return;
    }
    audioHealth_.reset(*engine_);
    state_.isEnabled = true;
    state_.isUsingCompatibilityCapture = engine_->isUsingCompatibilityCapture();
    writeResumeEnabled(true);
    startOutputMeter();
    if (areMediaKeysHandled() && !services_.permissions.preflightListenEventAccess() &&
        !services_.permissions.preflightPostEventAccess()) {
        services_.permissions.requestListenEventAccess();
        applyMediaKeySettings(true);
    }
    applyMediaKeySettings();
    pushVolume();
    refreshPermissions();
}

void AppModel::failEnable(const std::string& description) {
    engine_->stop();
    if (restoreDeviceUID_) {
        const std::optional<AudioDevice> previous = devices_.device(*restoreDeviceUID_);
        if (previous && currentDefaultOutputUID() != previous->uid) {
            try {
                devices_.setDefaultDevice(*previous, kAudioHardwarePropertyDefaultOutputDevice);
            } catch (const std::exception&) {
                // The switch-on error is the one to show.
            }
        }
    }
    restoreDeviceUID_.reset();
    state_.isEnabled = false;
    state_.isUsingCompatibilityCapture = false;
    writeResumeEnabled(false);
    state_.errorMessage = description;
    appendDiagnostic("enable failed: " + description);
    state_.systemOutputUID = currentDefaultOutputUID();
    applyMediaKeySettings();
}

void AppModel::startOutputMeter() {
    if (outputMeter_->isRunning()) return;
    ProcessingState* processing = engine_->gainState();
    outputMeter_->start([processing] { return ProcessingTakeOutputPeak(processing); });
}

void AppModel::disable(bool restoreOutput) {
    PublishScope publish(*this);
    // Switched off while waiting for the audio system: it stays off when that comes back.
    if (reconnect_) reconnect_->wasEnabled = false;
    engine_->stop();
    outputMeter_->stop();
    audioHealth_.reset(*engine_);
    state_.isEnabled = false;
    state_.isUsingCompatibilityCapture = false;
    writeResumeEnabled(false);
    if (restoreOutput && restoreDeviceUID_) {
        const std::optional<std::string> current = currentDefaultOutputUID();
        const std::optional<AudioDevice> previous = devices_.device(*restoreDeviceUID_);
        if ((!current || current == state_.selectedDeviceUID) && previous) {
            try {
                devices_.setDefaultDevice(*previous, kAudioHardwarePropertyDefaultOutputDevice);
            } catch (const std::exception& error) {
                state_.errorMessage = describe(error);
            }
        }
        state_.systemOutputUID = currentDefaultOutputUID();
    }
    restoreDeviceUID_.reset();
    applyChildParameters();
    applyMediaKeySettings();
}

void AppModel::setEnabled(bool isOn) {
    if (isOn) {
        enable();
    } else {
        disable(true);
    }
}

void AppModel::switchOffForChangedOutput() {
    engine_->stop();
    outputMeter_->stop();
    audioHealth_.reset(*engine_);
    state_.isEnabled = false;
    state_.isUsingCompatibilityCapture = false;
    writeResumeEnabled(false);
    restoreDeviceUID_.reset();
    state_.errorMessage = kDisconnectedMessage;
    applyMediaKeySettings();
}

void AppModel::restartEngine() {
    state_.isEnabled = false;
    engine_->stop();
    applyChildParameters();
    const std::optional<AudioDevice> selected = selectedDevice();
    try {
        if (!selected) throw AudioDeviceError::unavailable(kNoOutputMessage);
        engine_->start(*selected, AudioCaptureMode::selectedDevice);
    } catch (const std::exception& error) {
        const std::string description = describe(error);
        disable(true);
        state_.errorMessage = description;
        return;
    }
    audioHealth_.reset(*engine_);
    pushVolume();
    state_.isEnabled = true;
    state_.isUsingCompatibilityCapture = engine_->isUsingCompatibilityCapture();
    startOutputMeter();
}

void AppModel::restartAudioEngine() {
    PublishScope publish(*this);
    if (!state_.isEnabled) return;
    state_.errorMessage.reset();
    restartEngine();
}

void AppModel::selectOutput(const std::string& uid, bool automatic) {
    PublishScope publish(*this);
    if (!automatic) {
        appOutputPolicy_.noteManualSelection();
        if (state_.automaticallySwitchApps) state_.appOutputStatus = kStatusManual;
    }
    if (state_.selectedDeviceUID == uid) return;
    const auto target = std::find_if(state_.outputDevices.begin(), state_.outputDevices.end(),
                                     [&](const AudioDevice& device) { return device.uid == uid; });
    if (target == state_.outputDevices.end()) return;
    const AudioDevice device = *target;
    const bool wasEnabled = state_.isEnabled;
    if (wasEnabled) disable(false);
    try {
        devices_.setDefaultDevice(device, kAudioHardwarePropertyDefaultOutputDevice);
    } catch (const std::exception& error) {
        state_.errorMessage = describe(error);
        return;
    }
    state_.errorMessage.reset();
    state_.systemOutputUID = device.uid;
    state_.selectedDeviceUID = device.uid;
    settingsWrite::selectedDeviceUID(defaults_, device.uid);
    rebuildChildDevices();
    applyChildParameters();
    if (wasEnabled) enable();
}

void AppModel::selectInput(const std::string& uid) {
    PublishScope publish(*this);
    const auto target = std::find_if(state_.inputDevices.begin(), state_.inputDevices.end(),
                                     [&](const AudioDevice& device) { return device.uid == uid; });
    if (target == state_.inputDevices.end() || state_.systemInputUID == uid) return;
    try {
        devices_.setDefaultDevice(*target, kAudioHardwarePropertyDefaultInputDevice);
        state_.systemInputUID = uid;
    } catch (const std::exception& error) {
        state_.errorMessage = describe(error);
    }
}

// ---- Volume ----------------------------------------------------------------------------------

void AppModel::pushVolume() {
    const float gain = state_.isMuted ? 0.0f : static_cast<float>(clampedUnit(state_.volume));
    ProcessingSetMasterGain(engine_->gainState(), gain);
    if (gain == 0.0f) outputMeter_->resetToFloor();
}

void AppModel::storeVolume(double volume) {
    state_.volume = clampedUnit(volume);
    settingsWrite::volume(defaults_, state_.volume);
    if (state_.volume > 0) lastAudibleVolume_ = state_.volume;
    if (systemVolumeTimer_ != 0) writeSystemVolume();
}

void AppModel::setVolume(double volume) {
    PublishScope publish(*this);
    state_.isMuted = false;
    storeVolume(volume);
    pushVolume();
}

void AppModel::stepVolume(int direction) {
    PublishScope publish(*this);
    state_.isMuted = false;
    storeVolume(steppedVolume(state_.volume, direction >= 0 ? 1 : -1));
    pushVolume();
}

void AppModel::toggleMute() {
    PublishScope publish(*this);
    state_.isMuted = !state_.isMuted;
    if (!state_.isMuted && state_.volume <= 0) storeVolume(clampedUnit(lastAudibleVolume_));
    pushVolume();
}

// ---- Per-output settings -------------------------------------------------------------------

double AppModel::childVolume(const std::string& uid) const {
    const auto found = state_.childVolumes.find(uid);
    return found == state_.childVolumes.end() ? 1.0 : found->second;
}

void AppModel::setChildVolume(const std::string& uid, double volume) {
    PublishScope publish(*this);
    state_.childVolumes[uid] = clampedUnit(volume);
    settingsWrite::childVolumes(defaults_, state_.childVolumes);
    engine_->setChildGain(uid, static_cast<float>(state_.childVolumes[uid]));
}

OutputPreset AppModel::preset(const std::string& child) const {
    if (!state_.selectedDeviceUID) return OutputPreset::fullRange;
    const std::optional<std::string> raw = state_.presets.value(*state_.selectedDeviceUID, child);
    if (!raw) return OutputPreset::fullRange;
    return outputPresetFromRawValue(*raw).value_or(OutputPreset::fullRange);
}

void AppModel::setPreset(OutputPreset role, const std::string& child) {
    PublishScope publish(*this);
    if (!state_.selectedDeviceUID) return;
    state_.presets.set(std::string(rawValue(role)), *state_.selectedDeviceUID, child);
    settingsWrite::presetsByOutput(defaults_, state_.presets);
    engine_->setChildPreset(role, child);
}

EqualizerPreset AppModel::equalizer(const std::string& child) const {
    if (!state_.selectedDeviceUID) return EqualizerPreset::flat;
    const std::optional<std::string> raw =
        state_.equalizers.value(*state_.selectedDeviceUID, child);
    if (!raw) return EqualizerPreset::flat;
    return equalizerPresetFromRawValue(*raw).value_or(EqualizerPreset::flat);
}

void AppModel::setEqualizer(EqualizerPreset preset, const std::string& child) {
    PublishScope publish(*this);
    if (!state_.selectedDeviceUID) return;
    state_.equalizers.set(std::string(rawValue(preset)), *state_.selectedDeviceUID, child);
    settingsWrite::equalizersByOutput(defaults_, state_.equalizers);
    engine_->setChildEqualizer(preset, child);
}

void AppModel::setCrossoverFrequency(double hertz) {
    PublishScope publish(*this);
    state_.crossoverFrequency = snapCrossoverFrequency(hertz);
    settingsWrite::crossoverFrequency(defaults_, state_.crossoverFrequency);
    engine_->setCrossoverHz(static_cast<float>(state_.crossoverFrequency));
}

void AppModel::setRecordingFormat(RecordingFormat format) {
    PublishScope publish(*this);
    if (state_.isRecording || state_.isPreparingRecording) return;
    state_.recordingFormat = format;
    settingsWrite::recordingFormat(defaults_, format);
}

// ---- Labels ------------------------------------------------------------------------------------

void AppModel::setDeviceLabel(const std::string& text, const AudioDevice& device,
                              DeviceDirection direction) {
    setDeviceLabel(text, device.uid, device.name, direction);
}

void AppModel::setDeviceLabel(const std::string& text, const std::string& uid,
                              const std::string& originalName, DeviceDirection direction) {
    PublishScope publish(*this);
    if (trimmedWhitespace(text).empty()) {
        state_.deviceLabels.setLabel(std::nullopt, originalName, uid, direction);
    } else {
        state_.deviceLabels.setLabel(text, originalName, uid, direction);
    }
    settingsWrite::deviceLabels(defaults_, state_.deviceLabels);
}

void AppModel::setUseDeviceLabels(bool isOn) {
    PublishScope publish(*this);
    state_.useDeviceLabels = isOn;
    settingsWrite::flag(defaults_, settingsKey::useDeviceLabels, isOn);
}

std::string AppModel::displayName(const AudioDevice& device, DeviceDirection direction) const {
    if (state_.useDeviceLabels) {
        if (const std::optional<std::string> label =
                state_.deviceLabels.label(device.uid, direction);
            label && !trimmedWhitespace(*label).empty()) {
            return *label;
        }
    }
    return device.name;
}

// ---- Keys, indicator, permissions, login item -------------------------------------------------

bool AppModel::areMediaKeysHandled() const {
    return state_.isEnabled && state_.selectedDeviceUID &&
           state_.systemOutputUID == state_.selectedDeviceUID;
}

void AppModel::applyMediaKeySettings(bool restart) {
    const bool wasSuppressing = mediaKeys_.isSuppressingSystemHUD();
    const bool isHandled = areMediaKeysHandled();
    if (mediaKeys_.activity.isActive != isHandled) {
        mediaKeys_.activity.isActive = isHandled;
        ++mediaKeys_.activity.session;
    }
    if (restart) mediaKeys_.stop();
    mediaKeys_.update();
    mediaKeys_.shouldSuppressSystemHUD = state_.replaceSystemHUD;
    mediaKeys_.update();
    state_.isReplacingSystemHUD = mediaKeys_.isSuppressingSystemHUD();
    state_.isSystemHUDReplacementRefused = mediaKeys_.isFilteringRefused();
    if (wasSuppressing && !mediaKeys_.isSuppressingSystemHUD()) volumeHUD_.hide();
    followSystemVolume();
    state_.isMonitoringMediaKeys = mediaKeys_.hasTap() || systemVolumeTimer_ != 0;
}

void AppModel::followSystemVolume() {
    const bool shouldFollow = services_.followsSystemVolume && areMediaKeysHandled();
    if (!shouldFollow) {
        services_.loop.cancel(systemVolumeTimer_);
        systemVolumeTimer_ = 0;
        systemVolume_.reset();
        pendingSystemVolume_.reset();
        return;
    }
    if (systemVolumeTimer_ != 0) return;
    // The desktop's level is the level: adopt it, so switching on (and later off) changes
    // nothing the user hears or sees; an output whose volume cannot be read gets ours. Not
    // after the audio system restarted, though: the output came back at whatever level the
    // system gave it, and the level the user had is ours.
    const std::optional<double> current =
        isRestoringAfterRestart_ ? std::nullopt : readSystemVolume();
    if (current) {
        systemVolume_ = *current;
        if (std::fabs(*current - state_.volume) > 1e-6 || state_.isMuted) {
            state_.isMuted = false;
            state_.volume = *current;
            settingsWrite::volume(defaults_, state_.volume);
            if (state_.volume > 0) lastAudibleVolume_ = state_.volume;
            pushVolume();
        }
    } else {
        writeSystemVolume();
    }
    std::weak_ptr<AppModel*> weak = self_;
    systemVolumeTimer_ = services_.loop.scheduleRepeating(kSystemVolumeInterval, [weak] {
        if (const auto self = weak.lock()) (*self)->pollSystemVolume();
    });
}

std::optional<double> AppModel::readSystemVolume() const {
    const std::optional<AudioDevice> selected = selectedDevice();
    if (!selected) return std::nullopt;
    Float32 scalar = 0;
    UInt32 size = sizeof(scalar);
    const AudioObjectPropertyAddress address{kAudioDevicePropertyVolumeScalar,
                                             kAudioObjectPropertyScopeOutput,
                                             kAudioObjectPropertyElementMain};
    if (services_.hardware.getPropertyData(selected->id, address, 0, nullptr, &size, &scalar) !=
            kAudioHardwareNoError ||
        size != sizeof(scalar) || !std::isfinite(scalar)) {
        return std::nullopt;
    }
    return clampedUnit(scalar);
}

void AppModel::writeSystemVolume() {
    const std::optional<AudioDevice> selected = selectedDevice();
    if (!selected) return;
    const auto scalar = static_cast<Float32>(clampedUnit(state_.volume));
    const AudioObjectPropertyAddress address{kAudioDevicePropertyVolumeScalar,
                                             kAudioObjectPropertyScopeOutput,
                                             kAudioObjectPropertyElementMain};
    if (services_.hardware.setPropertyData(selected->id, address, 0, nullptr, sizeof(scalar),
                                           &scalar) != kAudioHardwareNoError) {
        return; // the channel is best effort: the panel's slider still works
    }
    systemVolume_ = scalar;
    pendingSystemVolume_ = std::make_pair(double(scalar), services_.loop.uptime() + 1.0);
}

void AppModel::pollSystemVolume() {
    const std::optional<double> read = readSystemVolume();
    if (!read) return;
    constexpr double kSame = 0.002; // the cube-root scale of float channel volumes
    if (pendingSystemVolume_) {
        if (std::fabs(*read - pendingSystemVolume_->first) < kSame ||
            services_.loop.uptime() > pendingSystemVolume_->second) {
            pendingSystemVolume_.reset();
        } else {
            return; // our own write has not come back yet
        }
    }
    if (systemVolume_ && std::fabs(*read - *systemVolume_) < kSame) return;
    systemVolume_ = *read;
    // The desktop changed the output's volume: that is the new master volume.
    PublishScope publish(*this);
    state_.isMuted = false;
    state_.volume = *read;
    settingsWrite::volume(defaults_, state_.volume);
    if (state_.volume > 0) lastAudibleVolume_ = state_.volume;
    pushVolume();
}

void AppModel::handleMediaKey(MediaVolumeKey key) {
    PublishScope publish(*this);
    switch (key) {
    case MediaVolumeKey::volumeUp:
        stepVolume(1);
        break;
    case MediaVolumeKey::volumeDown:
        stepVolume(-1);
        break;
    case MediaVolumeKey::mute:
        toggleMute();
        break;
    }
    if (mediaKeys_.isSuppressingSystemHUD()) {
        std::string name = kProductName;
        if (const std::optional<AudioDevice> selected = selectedDevice()) {
            const std::string shown = displayName(*selected, DeviceDirection::output);
            if (!trimmedWhitespace(shown).empty()) name = shown;
        }
        volumeHUD_.show(state_.isMuted, name, state_.volume);
    }
}

void AppModel::refreshPermissions() {
    PublishScope publish(*this);
    const bool canListen = services_.permissions.preflightListenEventAccess();
    const bool canPost = services_.permissions.preflightPostEventAccess();
    state_.hasMediaKeyPermission = canListen || canPost;
    state_.hasMediaKeyControlPermission = canPost;
    const CaptureAccess reported = services_.permissions.systemAudioCaptureAccess();
    state_.systemAudioCapture =
        reported == CaptureAccess::unknown ? observedCaptureAccess_ : reported;
    state_.isMonitoringMediaKeys = mediaKeys_.hasTap() || systemVolumeTimer_ != 0;
    state_.isReplacingSystemHUD = mediaKeys_.isSuppressingSystemHUD();
    state_.isSystemHUDReplacementRefused = mediaKeys_.isFilteringRefused();
}

void AppModel::setReplaceSystemHUD(bool isOn) {
    PublishScope publish(*this);
    state_.replaceSystemHUD = isOn;
    settingsWrite::flag(defaults_, settingsKey::replaceSystemHUD, isOn);
    applyMediaKeySettings();
    if (isOn) {
        if (areMediaKeysHandled() && !services_.permissions.preflightPostEventAccess()) {
            services_.permissions.requestPostEventAccess();
            applyMediaKeySettings(true);
        }
        refreshPermissions();
        if (areMediaKeysHandled() && !services_.permissions.preflightPostEventAccess()) {
            openAccessibilitySettings();
        }
    } else {
        refreshPermissions();
    }
}

void AppModel::openInputMonitoringSettings() {
    services_.workspace.openURL(kInputMonitoringURL);
}

void AppModel::openAccessibilitySettings() {
    services_.workspace.openURL(kAccessibilityURL);
}

void AppModel::openSystemAudioRecordingSettings() {
    services_.workspace.openURL(kSystemAudioRecordingURL);
}

void AppModel::retryMediaKeys() {
    PublishScope publish(*this);
    applyMediaKeySettings(true);
    refreshPermissions();
}

void AppModel::refreshLoginItemState() {
    PublishScope publish(*this);
    const LoginItem::Status status = services_.loginItem.status();
    state_.launchAtLogin = status == LoginItem::Status::enabled;
    state_.launchAtLoginNeedsApproval = status == LoginItem::Status::requiresApproval;
}

void AppModel::setLaunchAtLogin(bool isOn) {
    PublishScope publish(*this);
    LoginItem& item = services_.loginItem;
    try {
        const LoginItem::Status status = item.status();
        if (isOn) {
            if (status == LoginItem::Status::requiresApproval) {
                item.openSystemSettingsLoginItems();
            } else if (status != LoginItem::Status::enabled) {
                item.registerItem();
            }
        } else if (status != LoginItem::Status::notRegistered &&
                   status != LoginItem::Status::notFound) {
            item.unregisterItem();
        }
        if (state_.errorMessage && startsWith(*state_.errorMessage, "Launch at Login")) {
            state_.errorMessage.reset();
        }
    } catch (const std::exception& error) {
        std::string message = "Launch at Login could not be changed: " + describe(error);
        if (!startsWith(services_.workspace.ownBundlePath(), "/Applications/")) {
            message += " Move Brightmix to Applications and try again.";
        }
        state_.errorMessage = message;
    }
    refreshLoginItemState();
    if (isOn && state_.launchAtLoginNeedsApproval) item.openSystemSettingsLoginItems();
}

// ---- Automatic switching ----------------------------------------------------------------------

void AppModel::setAutomaticallySwitchApps(bool isOn) {
    PublishScope publish(*this);
    state_.automaticallySwitchApps = isOn;
    settingsWrite::flag(defaults_, settingsKey::automaticallySwitchApps, isOn);
    if (!isOn) resetAutomaticSwitching();
    setIdleStatus();
}

void AppModel::setAppOutputRules(std::vector<AppOutputRule> rules) {
    PublishScope publish(*this);
    state_.appOutputRules = cleanedAppOutputRules(std::move(rules));
    settingsWrite::appOutputRules(defaults_, state_.appOutputRules);
    if (state_.appOutputRules.empty()) resetAutomaticSwitching();
    if (!startsWith(state_.appOutputStatus, "Manual output.")) setIdleStatus();
}

void AppModel::resetAutomaticSwitching() {
    if (playbackMonitor_) playbackMonitor_->stop();
    appOutputPolicy_.reset();
}

void AppModel::setIdleStatus() {
    if (!state_.automaticallySwitchApps) {
        state_.appOutputStatus = kStatusOff;
    } else if (!state_.isEnabled) {
        state_.appOutputStatus = kStatusSwitchOn;
    } else if (!state_.appOutputRules.empty()) {
        state_.appOutputStatus = kStatusWaiting;
    } else {
        state_.appOutputStatus = kStatusAddApp;
    }
}

void AppModel::automaticSwitchingTick() {
    if (state_.isRecording) {
        state_.appOutputStatus = kStatusRecording;
        return;
    }
    if (!state_.automaticallySwitchApps || !state_.isEnabled || state_.appOutputRules.empty()) {
        resetAutomaticSwitching();
        setIdleStatus();
        return;
    }
    if (!playbackMonitor_) {
        playbackMonitor_ =
            std::make_unique<AppPlaybackMonitor>(devices_, services_.loop, services_.workspace);
    }
    std::optional<AppPlaybackMonitor::BundleIDSet> heard;
    try {
        heard = playbackMonitor_->poll(state_.appOutputRules);
    } catch (const std::exception& error) {
        state_.appOutputStatus =
            "Playback detection unavailable. " + describe(error) + " Retrying shortly.";
        return;
    }
    if (!heard) return;

    std::set<std::string, std::less<>> available;
    for (const AudioDevice& device : state_.outputDevices)
        available.insert(device.uid);
    const std::optional<AppOutputRule> rule = appOutputPolicy_.ruleToApply(
        *heard, state_.appOutputRules, available, state_.selectedDeviceUID);
    if (rule) {
        const auto target =
            std::find_if(state_.outputDevices.begin(), state_.outputDevices.end(),
                         [&](const AudioDevice& d) { return d.uid == rule->outputUID; });
        const std::string outputName = target != state_.outputDevices.end()
                                           ? displayName(*target, DeviceDirection::output)
                                           : rule->outputName;
        std::optional<std::string> failure;
        if (target == state_.outputDevices.end()) {
            failure = "Check that the output is connected.";
        } else {
            state_.errorMessage.reset();
            selectOutput(rule->outputUID, true);
            if (state_.selectedDeviceUID != rule->outputUID || !state_.isEnabled) {
                failure = state_.errorMessage.value_or("Check that the output is connected.");
            }
        }
        if (failure) {
            state_.automaticallySwitchApps = false;
            settingsWrite::flag(defaults_, settingsKey::automaticallySwitchApps, false);
            resetAutomaticSwitching();
            state_.appOutputStatus = "Automatic switching stopped because " + outputName +
                                     " could not be started. " + *failure;
            return;
        }
    }
    if (appOutputPolicy_.activeAppID) {
        const auto holder = std::find_if(
            state_.appOutputRules.begin(), state_.appOutputRules.end(),
            [&](const AppOutputRule& r) { return r.bundleID == *appOutputPolicy_.activeAppID; });
        if (holder != state_.appOutputRules.end()) {
            std::string outputName = holder->outputName;
            for (const AudioDevice& device : state_.outputDevices) {
                if (device.uid == holder->outputUID) {
                    outputName = displayName(device, DeviceDirection::output);
                }
            }
            state_.appOutputStatus = holder->appName + " is playing on " + outputName + ".";
            return;
        }
    }
    if (!startsWith(state_.appOutputStatus, "Manual output.")) {
        state_.appOutputStatus = kStatusKeeping;
    }
}

// ---- Health ------------------------------------------------------------------------------------

bool AppModel::mayLackCapturePermission() const {
    const CaptureAccess access = services_.permissions.systemAudioCaptureAccess();
    return access == CaptureAccess::unknown || access == CaptureAccess::denied;
}

void AppModel::noteCaptureEvidence() {
    if (!audioHealth_.hasDeliveredSound || observedCaptureAccess_ == CaptureAccess::granted) return;
    observedCaptureAccess_ = CaptureAccess::granted;
    refreshPermissions();
}

void AppModel::healthCheck() {
    const std::optional<AudioDevice> selected = selectedDevice();
    const std::string error = state_.errorMessage.value_or("");
    const bool shouldFallBack =
        audioHealth_.poll({*engine_, devices_, selected, defaults_, error, services_.loop.now()});
    noteCaptureEvidence();
    if (!shouldFallBack && audioHealth_.hasCompatibilityCaptureStayedSilent(*engine_) &&
        mayLackCapturePermission()) {
        // The compatibility capture needs the same permission as the tap before it: without
        // it the Mac stays silent for as long as the router runs. Switch off the way a failed
        // fallback does, so the multi-output device plays by itself again.
        disable(false);
        state_.errorMessage = kCaptureSilentMessage;
        appendDiagnostic("switched off: neither capture delivered sound");
        observedCaptureAccess_ = CaptureAccess::denied;
        refreshPermissions();
        return;
    }
    if (!shouldFallBack || !selected) return;
    state_.isEnabled = false;
    if (const std::optional<std::string> message = audioHealth_.fallBack(*engine_, *selected)) {
        disable(false);
        state_.errorMessage = *message;
        return;
    }
    pushVolume();
    state_.isEnabled = true;
    state_.isUsingCompatibilityCapture = engine_->isUsingCompatibilityCapture();
}

// ---- The tick ----------------------------------------------------------------------------------

bool AppModel::followAudioService() {
    const std::uint64_t generation = services_.hardware.serviceGeneration();
    if (generation != serviceGeneration_) {
        serviceGeneration_ = generation;
        loseAudioService();
    }
    if (!reconnect_) return false;
    if (!services_.hardware.isServiceAvailable()) {
        reconnect_->answeredAt.reset();
        return true;
    }
    if (!reconnect_->answeredAt) reconnect_->answeredAt = services_.loop.uptime();
    restoreAfterRestart();
    return reconnect_.has_value();
}

void AppModel::loseAudioService() {
    // Everything built on the old audio system is gone with it; its IDs may already name new
    // objects, so nothing is destroyed, only forgotten.
    const bool wasEnabled = state_.isEnabled || (reconnect_ && reconnect_->wasEnabled);
    appendDiagnostic("the audio system restarted");
    isRecordingCutByRestart_ = engine_->isRecording();
    engine_->forgetRouter();
    isRecordingCutByRestart_ = false;
    outputMeter_->stop();
    if (playbackMonitor_) playbackMonitor_->forgetTaps();
    audioHealth_.reset(*engine_);
    state_.isEnabled = false;
    state_.isUsingCompatibilityCapture = false;
    state_.errorMessage = kReconnectingMessage;
    // "resumeEnabled" stays as it was: should Brightmix itself end now, it comes back on.
    const std::optional<std::string> selected =
        reconnect_ ? reconnect_->selectedUID : state_.selectedDeviceUID;
    reconnect_ = PendingReconnect{wasEnabled, selected, std::nullopt};
    applyMediaKeySettings();
}

void AppModel::restoreAfterRestart() {
    refreshDevices(false);
    if (!reconnect_->wasEnabled) {
        reconnect_.reset();
        if (state_.errorMessage == kReconnectingMessage) state_.errorMessage.reset();
        return;
    }
    // Back on with what the user had: the same output (made the default again, since the
    // restarted system may have picked another), volume, mute and per-output settings (all
    // kept in the state), and the output to restore when switched off again.
    const std::optional<std::string> restore = restoreDeviceUID_;
    const std::optional<std::string> wanted = reconnect_->selectedUID;
    struct RestoringScope {
        bool& flag;
        explicit RestoringScope(bool& f) : flag(f) { flag = true; }
        ~RestoringScope() { flag = false; }
    } restoring(isRestoringAfterRestart_);
    std::optional<std::string> failure;
    const auto output =
        std::find_if(state_.outputDevices.begin(), state_.outputDevices.end(),
                     [&](const AudioDevice& device) { return wanted && device.uid == *wanted; });
    if (wanted && output == state_.outputDevices.end()) {
        failure = kDisconnectedMessage;
    } else {
        if (wanted) {
            try {
                if (state_.systemOutputUID != wanted)
                    devices_.setDefaultDevice(*output, kAudioHardwarePropertyDefaultOutputDevice);
                state_.selectedDeviceUID = wanted;
                settingsWrite::selectedDeviceUID(defaults_, *wanted);
            } catch (const std::exception& error) {
                failure = describe(error);
            }
        }
        if (!failure) {
            enable();
            if (state_.isEnabled) {
                if (restore && !restoreDeviceUID_) restoreDeviceUID_ = restore;
                reconnect_.reset();
                return;
            }
            failure = state_.errorMessage.value_or("");
        }
    }
    restoreDeviceUID_ = restore;
    if (services_.loop.uptime() - *reconnect_->answeredAt < kReconnectPatience) {
        // Its devices may not all be back yet: try again next tick, and meanwhile keep
        // saying what is going on (and come back on should Brightmix itself end now).
        if (wanted) state_.selectedDeviceUID = wanted;
        writeResumeEnabled(true);
        state_.errorMessage = kReconnectingMessage;
        return;
    }
    reconnect_.reset();
    writeResumeEnabled(false);
    state_.errorMessage = kReconnectFailedLeadIn + *failure;
}

void AppModel::tick() {
    PublishScope publish(*this);
    if (followAudioService()) return;
    engine_->destroyLeftovers();
    recordingUpkeep();

    const std::optional<std::string> previousUID = state_.selectedDeviceUID;
    const std::optional<AudioDevice> previousRecord = selectedDevice();
    const std::vector<AudioDevice> previousChildren = state_.childDevices;
    refreshDevices(false);
    applyMediaKeySettings();

    // Step 5 looks at the state before the automatic-switching and health steps: a switch
    // they make or fail keeps its own status line.
    const bool wasEnabled = state_.isEnabled;
    bool switchedOff = false;
    if (state_.isEnabled) {
        if (state_.selectedDeviceUID != previousUID || !state_.selectedDeviceUID ||
            !state_.systemOutputUID || state_.systemOutputUID != state_.selectedDeviceUID) {
            switchOffForChangedOutput();
            switchedOff = true;
        } else {
            const bool isUnchanged = engine_->isRunning() && selectedDevice() == previousRecord &&
                                     state_.childDevices == previousChildren;
            if (!isUnchanged) restartEngine();
            if (state_.isEnabled) {
                automaticSwitchingTick();
                if (state_.isEnabled && engine_->isRunning()) healthCheck();
            }
        }
    }
    if (!wasEnabled || switchedOff) {
        resetAutomaticSwitching();
        setIdleStatus();
    }
}

// ---- Recording ---------------------------------------------------------------------------------

RecordingFolderStore& AppModel::recordingFolder() {
    if (!recordingFolder_) {
        recordingFolder_ =
            std::make_unique<RecordingFolderStore>(defaults_, services_.folderAccess);
    }
    return *recordingFolder_;
}

void AppModel::toggleRecording() {
    PublishScope publish(*this);
    if (state_.isRecording) {
        engine_->finishRecording();
        return;
    }
    if (state_.isPreparingRecording) return;
    startRecording();
}

void AppModel::startRecording() {
    state_.isPreparingRecording = true;
    const std::optional<std::string> rememberedUID = state_.selectedDeviceUID;
    std::weak_ptr<AppModel*> weak = self_;
    recordingFolder().acquire(false, [weak, rememberedUID](std::optional<std::string> folder) {
        const auto self = weak.lock();
        if (!self) return;
        AppModel& model = **self;
        PublishScope publish(model);
        model.continueRecordingStart(folder, rememberedUID);
        model.state_.isPreparingRecording = false;
    });
}

void AppModel::continueRecordingStart(const std::optional<std::string>& folder,
                                      const std::optional<std::string>& rememberedUID) {
    if (!folder) return;
    if (state_.selectedDeviceUID != rememberedUID ||
        currentDefaultOutputUID() != state_.selectedDeviceUID) {
        recordingFolder().release();
        state_.recordingMessage = kOutputChangedMessage;
        return;
    }
    if (!state_.isEnabled) {
        enable();
        if (!state_.isEnabled) {
            recordingFolder().release();
            return;
        }
    }
    const std::string name =
        recordingFileName(services_.loop.now(), makeRandomUuidString(), state_.recordingFormat);
    try {
        engine_->startRecording(std::filesystem::path(*folder) / name, state_.recordingFormat);
    } catch (const std::exception& error) {
        recordingFolder().release();
        state_.recordingMessage = "Recording could not start. " + describe(error);
        return;
    }
    state_.recordingMessage.reset();
    state_.lastRecordingURL.reset();
    state_.recordingDuration = 0;
    state_.isRecording = true;
}

std::string AppModel::recordingFileName(double wallClock, const std::string& uuid,
                                        RecordingFormat format) {
    const std::tm local = localTime(wallClock);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d.%02d.%02d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return kProductName + " " + stamp + " " + uuid.substr(0, 8) + "." +
           std::string(fileExtension(format));
}

void AppModel::recordingUpkeep() {
    const AudioRecording* recording = engine_->recording();
    if (recording == nullptr) return;
    const double rate = recording->sampleRate();
    const std::uint64_t frames = RecordingTapFramesWritten(engine_->recordingState());
    state_.recordingDuration = rate > 0 ? static_cast<double>(frames) / rate : 0;
    const bool hasEnded = RecordingTapStatus(engine_->recordingState()) != 0;
    std::optional<double> deviceRate;
    if (const std::optional<AudioDevice> selected = selectedDevice()) {
        deviceRate = devices_.nominalSampleRate(selected->id);
    }
    if (hasEnded || (deviceRate && *deviceRate != rate)) engine_->finishRecording();
}

void AppModel::onRecordingFinished(const RecordingResult& result) {
    PublishScope publish(*this);
    state_.isRecording = false;
    state_.lastRecordingURL = result.url.string();
    state_.recordingDuration = result.duration;
    if (isRecordingCutByRestart_) {
        state_.recordingMessage = "The audio system restarted, so recording stopped. “" +
                                  result.url.filename().string() +
                                  "” keeps everything recorded until then.";
    } else {
        state_.recordingMessage = result.error ? std::string("Recording incomplete")
                                               : "Saved " + result.url.filename().string();
    }
    if (recordingFolder_) recordingFolder_->release();
}

void AppModel::chooseRecordingFolder() {
    PublishScope publish(*this);
    if (state_.isRecording || state_.isPreparingRecording) return;
    std::weak_ptr<AppModel*> weak = self_;
    recordingFolder().acquire(true, [weak](std::optional<std::string> folder) {
        const auto self = weak.lock();
        if (!self || !folder) return;
        PublishScope scope(**self);
        (*self)->state_.recordingMessage =
            "Recordings will save to " + std::filesystem::path(*folder).filename().string();
    });
}

void AppModel::revealLastRecording() {
    if (state_.lastRecordingURL) services_.workspace.revealFile(*state_.lastRecordingURL);
}

std::string AppModel::recordingTimeText(double seconds) {
    const double duration = std::isfinite(seconds) && seconds > 0 ? seconds : 0;
    const auto whole = static_cast<long long>(duration);
    char text[48];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld", whole / 3600, (whole / 60) % 60,
                  whole % 60);
    return text;
}

// ---- Diagnostics, reset, lifecycle ------------------------------------------------------------

void AppModel::appendDiagnostic(const std::string& message) {
    if (!defaults_.boolForKey(settingsKey::diagnostics)) return;
    PropertyList::Array log;
    if (const std::optional<PropertyList> stored = defaults_.get(settingsKey::diagnosticsLog)) {
        if (const PropertyList::Array* entries = stored->asArray()) {
            for (const PropertyList& entry : *entries) {
                if (entry.asString() != nullptr) log.push_back(entry);
            }
        }
    }
    const std::tm local = localTime(services_.loop.now());
    char time[64];
    if (std::strftime(time, sizeof time, "%X", &local) == 0) time[0] = '\0';
    log.push_back(PropertyList(std::string(time) + " " + message));
    if (log.size() > kDiagnosticsLogLimit) {
        log.erase(log.begin(), log.end() - static_cast<std::ptrdiff_t>(kDiagnosticsLogLimit));
    }
    defaults_.set(settingsKey::diagnosticsLog, PropertyList(std::move(log)));
}

void AppModel::resetSettings() {
    PublishScope publish(*this);
    disable(false);
    resetAutomaticSwitching();
    services_.loop.cancel(refreshTimer_);
    refreshTimer_ = 0;
    defaults_.removeDomain();
    services_.workspace.terminate();
}

void AppModel::applicationWillTerminate() {
    PublishScope publish(*this);
    if (engine_->isRecording()) engine_->finishRecording();
}

} // namespace brightmix
