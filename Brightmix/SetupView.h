// The "Set Up Brightmix" window: it walks the user through Input Monitoring (the volume keys
// reach the program) and Accessibility (the keys can be swallowed and the own indicator
// shown), shows where System Audio Recording (the router hears the Mac at all) is granted,
// polls the permissions once a second while open, and ends by restarting the
// program, since the system hands a new permission over only at the next start.
// `SetupLauncher` decides whether the window opens at launch.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Brightmix/AppModel.h"
#include "ui/View.h"

namespace brightmix {

// System Settings being opened: set when the window asks for it, cleared once System
// Settings is the frontmost application.
struct SettingsLaunchProgress {
    inline static const std::string kSystemSettingsBundleID = "com.apple.systempreferences";

    std::optional<double> startedAt;

    void start(double now) { startedAt = now; }
    bool isRunning() const { return startedAt.has_value(); }
    void update(const std::optional<std::string>& frontmostBundleID) {
        if (frontmostBundleID == kSystemSettingsBundleID) startedAt.reset();
    }
};

struct PermissionRow {
    std::string title;
    std::string detail;
    bool isGranted = false;
    std::string action; // the button's title
    ui::Action perform;
    // Neither granted nor known to be missing: the system cannot be asked, and nothing this
    // run has heard tells yet.
    bool isUnconfirmed = false;
};

class SetupView {
public:
    static constexpr double kPollInterval = 1.0;

    // The window opened: the first poll runs at once, then every second.
    explicit SetupView(AppModel& model);
    ~SetupView();
    SetupView(const SetupView&) = delete;
    SetupView& operator=(const SetupView&) = delete;

    void poll();
    void openInputMonitoring();
    void openAccessibility();
    void openSystemAudioRecording();
    // "I’ve Done It": starts a new instance and quits this one.
    void restart();

    bool isInputMonitoringGranted() const;
    bool isAccessibilityGranted() const;
    std::vector<PermissionRow> rows() const;
    ui::Node body() const;
    // The window on a system whose volume keys need no permission.
    static ui::Node nothingToSetUp();

    bool showAccessibilitySteps = false;
    SettingsLaunchProgress settingsLaunch;
    bool hasRequestedAccessibility = false;
    bool hasRequestedInputMonitoring = false;
    bool isWaitingForInputMonitoring = false;

private:
    AppModel& model_;
    MainLoop::TimerID pollTimer_ = 0;
    bool isTrusted_ = false;
    bool canPostEvents_ = false;
};

struct SetupLauncher {
    // Opens at launch unless the keys can be heard and, while the own indicator is wanted,
    // swallowed.
    static bool shouldOpenAtLaunch(const AppModelState& state) {
        return !(state.hasMediaKeyPermission &&
                 (state.hasMediaKeyControlPermission || !state.replaceSystemHUD));
    }
};

} // namespace brightmix
