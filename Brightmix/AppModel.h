// The application's single model: it owns every service and all state the windows show,
// switches the software volume on and off, keeps the chosen output the system default while
// on, follows devices once a second, handles volume and mute from the slider and the volume
// keys, remembers per-output settings, switches outputs by the app that plays, falls back to
// the compatibility capture when the tap stays silent, repairs a multi-output device whose
// display member came back under a new UID, records, and keeps the diagnostics.
//
// Everything published is in one `AppModelState` that the views read as a consistent
// snapshot; after every operation, timer step or callback that changed it, the change
// observer is told once. Failures never escape: each becomes a sentence in one of the
// message fields (`errorMessage`, `recordingMessage`, `appOutputStatus`,
// `deviceRecoveryMessage`), a fixed lead-in followed by the error's description.
//
// Thread: control (the main thread) for every member; timers, key presses and callbacks
// arrive there through MainLoop. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Brightmix/AppOutputPolicy.h"
#include "Brightmix/AppOutputRule.h"
#include "Brightmix/AppPlaybackMonitor.h"
#include "Brightmix/AppSettings.h"
#include "Brightmix/AudioDevice.h"
#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/AudioHealthMonitor.h"
#include "Brightmix/DeviceLabelStore.h"
#include "Brightmix/EqualizerPreset.h"
#include "Brightmix/MediaKeyMonitor.h"
#include "Brightmix/OutputLevelMeter.h"
#include "Brightmix/OutputPreset.h"
#include "Brightmix/PlayingApps.h"
#include "Brightmix/PresetStore.h"
#include "Brightmix/RecordingFolderStore.h"
#include "Brightmix/RecordingFormat.h"
#include "Brightmix/RecordingResult.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "Brightmix/VolumeHUDController.h"
#include "platform/AudioFileWriter.h"
#include "platform/AudioHardware.h"
#include "platform/Defaults.h"
#include "platform/EventTap.h"
#include "platform/FolderAccess.h"
#include "platform/HudPanel.h"
#include "platform/LoginItem.h"
#include "platform/MainLoop.h"
#include "platform/Workspace.h"

namespace brightmix {

// The operating system as the model needs it; every reference must outlive the model.
struct AppServices {
    AudioHardware& hardware;
    MainLoop& loop;
    Defaults& defaults;
    AudioFileWriter& fileWriter;
    Workspace& workspace;
    EventTap& eventTap;
    Permissions& permissions;
    LoginItem& loginItem;
    FolderAccess& folderAccess;
    HudPanel& hudPanel;
    Screens& screens;
    // Where the desktop owns the volume keys and changes the default output's own volume
    // (Linux): while the software volume is on and its output is the default, that volume is
    // the channel of the keys. Changes to it become the master volume, and the master volume
    // is written to it, so the desktop's keys, slider and indicator work on Brightmix's level.
    bool followsSystemVolume = false;
};

// What the views observe, in declaration order.
struct AppModelState {
    std::vector<AudioDevice> availableDevices;
    std::vector<AudioDevice> outputDevices;
    std::vector<AudioDevice> inputDevices;
    std::optional<std::string> systemOutputUID;
    std::optional<std::string> systemInputUID;
    std::vector<std::string> missingOutputUIDs;
    std::optional<std::string> deviceRecoveryMessage;
    std::vector<AudioDevice> childDevices;
    ChildVolumes childVolumes;
    PresetStore presets;
    PresetStore equalizers;
    double crossoverFrequency = AppSettings::kDefaultCrossoverFrequency;
    std::optional<std::string> selectedDeviceUID;
    bool isEnabled = false;
    bool isRecording = false;
    bool isPreparingRecording = false;
    double recordingDuration = 0;
    std::optional<std::string> lastRecordingURL;
    std::optional<std::string> recordingMessage;
    RecordingFormat recordingFormat = RecordingFormat::m4a;
    std::optional<std::string> errorMessage;
    bool launchAtLogin = false;
    bool launchAtLoginNeedsApproval = false;
    bool hasMediaKeyPermission = false;
    bool hasMediaKeyControlPermission = false;
    bool isMonitoringMediaKeys = false;
    bool isReplacingSystemHUD = false;
    // The system refused the filtering key tap though Accessibility is granted: the keys are
    // only listened to, and the system's indicator cannot be replaced for now.
    bool isSystemHUDReplacementRefused = false;
    bool isUsingCompatibilityCapture = false;
    // The permission the router's tap needs: what the system says, or where it cannot say,
    // what this run observed (sound heard: granted; no sound from either capture: denied).
    CaptureAccess systemAudioCapture = CaptureAccess::unknown;
    bool replaceSystemHUD = true;
    double volume = AppSettings::kDefaultVolume;
    bool isMuted = false;
    std::vector<AppOutputRule> appOutputRules;
    bool automaticallySwitchApps = false;
    std::string appOutputStatus;
    DeviceLabelStore deviceLabels;
    bool useDeviceLabels = true;

    friend bool operator==(const AppModelState&, const AppModelState&) = default;
};

class AppModel {
public:
    // Texts the model shows.
    inline static const std::string kNoOutputMessage = "No audio output is available.";
    inline static const std::string kDisconnectedMessage =
        "Brightmix was disabled because the selected output changed or disconnected.";
    inline static const std::string kStatusOff = "Automatic switching is off.";
    inline static const std::string kStatusSwitchOn = "Switch Brightmix on to use app outputs.";
    inline static const std::string kStatusWaiting = "Waiting for app playback.";
    inline static const std::string kStatusAddApp = "Add an app to get started.";
    inline static const std::string kStatusRecording = "Recording — keeping the current output.";
    inline static const std::string kStatusManual = "Manual output. Waiting for new app playback.";
    inline static const std::string kStatusKeeping =
        "Waiting for app playback. Keeping the current output.";
    inline static const std::string kOutputChangedMessage =
        "Output changed. Press Record to record the new output.";
    inline static const std::string kInputMonitoringURL =
        "x-apple.systempreferences:com.apple.preference.security?Privacy_ListenEvent";
    inline static const std::string kAccessibilityURL =
        "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility";
    inline static const std::string kSystemAudioRecordingURL =
        "x-apple.systempreferences:com.apple.preference.security?Privacy_ScreenCapture";
    // The capture permission is known to be denied: the router is not even started.
    inline static const std::string kCaptureDeniedMessage =
        "Brightmix isn’t allowed to hear the sound your Mac plays, so it stayed off. Allow "
        "Brightmix under System Settings → Privacy & Security → Screen & System Audio "
        "Recording, then switch it on again.";
    // Neither capture ever carried sound while another app played: most likely the permission
    // is missing (pending or denied), and the muting tap would otherwise leave the Mac silent.
    inline static const std::string kCaptureSilentMessage =
        "Brightmix heard no sound from your Mac, so it switched off to restore ordinary "
        "Multi-Output playback. Allow Brightmix under System Settings → Privacy & Security → "
        "Screen & System Audio Recording, then switch it on again.";
    // The audio system restarted (or the connection to it was lost): shown while Brightmix
    // waits for it and rebuilds what the user had.
    inline static const std::string kReconnectingMessage =
        "The audio system restarted. Brightmix is reconnecting…";
    inline static const std::string kReconnectFailedLeadIn =
        "Brightmix could not reconnect after the audio system restarted: ";
    // How long switching back on is retried after the audio system answers again: its
    // devices come back one after another, a multi-output device last.
    static constexpr double kReconnectPatience = 15.0;
    inline static const std::string kProductName = "Brightmix";

    static constexpr double kRefreshInterval = 1.0;
    // How often the output's own volume is read while it is the keys' channel.
    static constexpr double kSystemVolumeInterval = 0.1;
    static constexpr std::size_t kDiagnosticsLogLimit = 20;

    // Start-up: reads the settings, builds the engine and the services, refreshes devices,
    // starts the key monitor and the 1-second refresh timer, and switches the software volume
    // back on (through the main loop) when it was on when the app last ran.
    explicit AppModel(AppServices services);
    ~AppModel();
    AppModel(const AppModel&) = delete;
    AppModel& operator=(const AppModel&) = delete;

    const AppModelState& state() const { return state_; }
    // Told after every operation, timer step or callback that changed `state()`.
    void setChangeObserver(std::function<void()> observer) { observer_ = std::move(observer); }

    // ---- Switching on and off, outputs ---------------------------------------------------
    void enable();
    void disable(bool restoreOutput);
    // The panel's switch: off restores the output that was the default before switching on.
    void setEnabled(bool isOn);
    // The user's choice (`automatic` false) or automatic switching's.
    void selectOutput(const std::string& uid, bool automatic);
    // The system's default input.
    void selectInput(const std::string& uid);
    // Stops and starts the engine on the selected output (while on).
    void restartAudioEngine();

    // ---- Volume ---------------------------------------------------------------------------
    void setVolume(double volume);
    // +1 up, -1 down, by one sixteenth; un-mutes.
    void stepVolume(int direction);
    void toggleMute();

    // ---- Per-output settings ---------------------------------------------------------------
    double childVolume(const std::string& uid) const;
    void setChildVolume(const std::string& uid, double volume);
    OutputPreset preset(const std::string& child) const;
    // Both do nothing without a selected output.
    void setPreset(OutputPreset role, const std::string& child);
    EqualizerPreset equalizer(const std::string& child) const;
    void setEqualizer(EqualizerPreset preset, const std::string& child);
    void setCrossoverFrequency(double hertz);
    // Refused while recording or preparing a recording.
    void setRecordingFormat(RecordingFormat format);

    // ---- Labels -----------------------------------------------------------------------------
    // The editor's entry point: text empty after trimming removes the label.
    void setDeviceLabel(const std::string& text, const AudioDevice& device,
                        DeviceDirection direction);
    // The same for a labelled device that is not connected (known by UID only).
    void setDeviceLabel(const std::string& text, const std::string& uid,
                        const std::string& originalName, DeviceDirection direction);
    void setUseDeviceLabels(bool isOn);
    // The device's label when labels are on and it has a non-blank one, else its name.
    std::string displayName(const AudioDevice& device, DeviceDirection direction) const;

    // ---- Automatic switching ---------------------------------------------------------------
    void setAutomaticallySwitchApps(bool isOn);
    // Replaces the rule list (cleaned: no empty or repeated bundle IDs) and saves it.
    void setAppOutputRules(std::vector<AppOutputRule> rules);

    // ---- Keys, indicator, permissions, login item ------------------------------------------
    void setReplaceSystemHUD(bool isOn);
    void refreshPermissions();
    void openInputMonitoringSettings();
    void openAccessibilitySettings();
    void openSystemAudioRecordingSettings();
    // Stops and restarts the key monitor ("Retry volume keys").
    void retryMediaKeys();
    void setLaunchAtLogin(bool isOn);
    void openLoginItemsSettings() { services_.loginItem.openSystemSettingsLoginItems(); }
    // Reads the login item's state (a call into another process: at start-up, when the panel
    // opens and after a change, never on every tick).
    void refreshLoginItemState();

    // ---- Recording ----------------------------------------------------------------------------
    void toggleRecording();
    void chooseRecordingFolder();
    void revealLastRecording();
    // "hh:mm:ss" of the duration so far (hours may take more digits).
    std::string recordingTimeText() const { return recordingTimeText(state_.recordingDuration); }
    static std::string recordingTimeText(double seconds);
    // The name of a recording started at `wallClock` with a UUID string.
    static std::string recordingFileName(double wallClock, const std::string& uuid,
                                         RecordingFormat format);

    // ---- Diagnostics, reset, lifecycle -------------------------------------------------------
    void appendDiagnostic(const std::string& message);
    // Switches off, deletes every stored setting and quits.
    void resetSettings();
    // The application is about to quit: a running recording is finished.
    void applicationWillTerminate();
    // One refresh (the 1-second timer runs it).
    void tick();

    // ---- Owned services, for the views and tests -----------------------------------------------
    AudioDeviceService& devices() { return devices_; }
    SoftwareVolumeEngine& engine() { return *engine_; }
    MediaKeyMonitor& mediaKeys() { return mediaKeys_; }
    OutputLevelMeter& outputMeter() { return *outputMeter_; }
    const OutputLevelMeter& outputMeter() const { return *outputMeter_; }
    PlayingAppsMonitor& playingApps() { return playingApps_; }
    const PlayingAppsMonitor& playingApps() const { return playingApps_; }
    Workspace& workspace() const { return services_.workspace; }
    FolderAccess& folderAccess() const { return services_.folderAccess; }
    MainLoop& loop() const { return services_.loop; }
    Permissions& permissions() const { return services_.permissions; }
    const AppOutputPolicy& appOutputPolicy() const { return appOutputPolicy_; }
    const AudioHealthMonitor& audioHealth() const { return audioHealth_; }
    const std::optional<std::string>& restoreDeviceUID() const { return restoreDeviceUID_; }
    const std::optional<std::string>& repairAttemptSignature() const {
        return repairAttemptSignature_;
    }
    double lastAudibleVolume() const { return lastAudibleVolume_; }
    const AppPlaybackMonitor* playbackMonitor() const { return playbackMonitor_.get(); }
    bool isRefreshTimerRunning() const { return refreshTimer_ != 0; }
    bool isFollowingSystemVolume() const { return systemVolumeTimer_ != 0; }

private:
    class PublishScope;

    void refreshDevices(bool forSwitchOn);
    void repairSelectedOutput(std::vector<AudioDevice>& devices);
    void rebuildChildDevices();
    std::optional<AudioDevice> selectedDevice() const;
    std::optional<std::string> currentDefaultOutputUID() const;
    std::vector<std::string> memberUIDs(const AudioDevice& device) const;
    void applyChildParameters();
    void pushVolume();
    // The panel's level meter runs while the software volume is on.
    void startOutputMeter();
    void storeVolume(double volume);
    void switchOffForChangedOutput();
    void restartEngine();
    void failEnable(const std::string& description);
    void writeResumeEnabled(bool isOn);

    bool areMediaKeysHandled() const;
    void applyMediaKeySettings(bool restart = false);
    void followSystemVolume();
    void pollSystemVolume();
    void writeSystemVolume();
    std::optional<double> readSystemVolume() const;
    void handleMediaKey(MediaVolumeKey key);

    void automaticSwitchingTick();
    void resetAutomaticSwitching();
    void setIdleStatus();
    void healthCheck();
    // Follows the audio system's restarts; true while the tick must wait for it.
    bool followAudioService();
    void loseAudioService();
    void restoreAfterRestart();
    // Whether silence from both captures may be the capture permission's doing.
    bool mayLackCapturePermission() const;
    void noteCaptureEvidence();

    void startRecording();
    void continueRecordingStart(const std::optional<std::string>& folder,
                                const std::optional<std::string>& rememberedUID);
    void recordingUpkeep();
    void onRecordingFinished(const RecordingResult& result);
    RecordingFolderStore& recordingFolder();

    UIDKeyedSettings keyedSettings();

    AppServices services_;
    Defaults& defaults_;
    AudioDeviceService devices_;
    AppModelState state_;
    std::function<void()> observer_;
    std::unique_ptr<SoftwareVolumeEngine> engine_;
    MediaKeyMonitor mediaKeys_;
    VolumeHUDController volumeHUD_;
    std::unique_ptr<OutputLevelMeter> outputMeter_;
    PlayingAppsMonitor playingApps_;
    std::unique_ptr<AppPlaybackMonitor> playbackMonitor_;
    AppOutputPolicy appOutputPolicy_;
    AudioHealthMonitor audioHealth_;
    std::unique_ptr<RecordingFolderStore> recordingFolder_;
    std::optional<std::string> repairAttemptSignature_;
    std::optional<std::string> restoreDeviceUID_;
    MainLoop::TimerID refreshTimer_ = 0;
    MainLoop::TimerID systemVolumeTimer_ = 0;
    // The output's own volume as last seen or written, and a write not yet seen back (its
    // value and the uptime until which an older reading is not taken for a change).
    std::optional<double> systemVolume_;
    std::optional<std::pair<double, double>> pendingSystemVolume_;
    double lastAudibleVolume_ = AppSettings::kDefaultVolume;
    // The audio system's generation last seen, and what to restore once it answers again.
    std::uint64_t serviceGeneration_ = 0;
    struct PendingReconnect {
        bool wasEnabled = false;
        std::optional<std::string> selectedUID; // the output it was on
        std::optional<double> answeredAt;       // uptime when the audio system answered again
    };
    std::optional<PendingReconnect> reconnect_;
    bool isRecordingCutByRestart_ = false;
    bool isRestoringAfterRestart_ = false;
    // What this run has seen of the capture permission where the system cannot be asked.
    CaptureAccess observedCaptureAccess_ = CaptureAccess::unknown;
    int publishDepth_ = 0;
    // Work queued on the main loop holds this weakly and does nothing once the model is gone.
    std::shared_ptr<AppModel*> self_;
};

} // namespace brightmix
