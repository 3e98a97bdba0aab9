// Scripted stand-ins for the small system services of the app model: the key-event tap and
// its permissions, the login item, the folder chooser with bookmarks, and the indicator's
// panel and screens. Each keeps state a test can set and records what was asked of it, so
// that whole scenarios (a refused permission, a stale bookmark, a cancelled chooser, a tap
// the system disabled) run deterministically.
//
// Thread: control (the test's thread). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/EventTap.h"
#include "platform/FolderAccess.h"
#include "platform/HudPanel.h"
#include "platform/LoginItem.h"
#include "platform/Updater.h"

namespace brightmix {

class ScriptedEventTap final : public EventTap {
public:
    struct Tap {
        EventTapMode mode = EventTapMode::listening;
        Callback callback;
        bool isEnabled = true;
    };

    TapID create(EventTapMode mode, Callback callback) override;
    void enable(TapID tap) override;
    void invalidate(TapID tap) override;

    // Refuses every creation in that mode from now on.
    void setRefused(EventTapMode mode, bool isRefused) { refused_[mode] = isRefused; }
    // The system disables the live tap (it keeps receiving nothing until re-enabled).
    void disableByTimeout();

    // Delivers an event to the live, enabled tap. Answers true when it was swallowed (only a
    // filtering tap can swallow); false when passed on or when there is no enabled tap.
    bool deliver(const TapEvent& event);
    // A volume key as the keyboard sends it: subtype 8, key code in bits 16-31, state 0x0A
    // (down) or 0x0B (up) in bits 8-15.
    bool deliverKey(int keyCode, bool isDown, bool isRepeat = false);

    // The one live tap (the monitor keeps at most one), if any.
    const Tap* liveTap() const;
    std::size_t liveTapCount() const { return taps_.size(); }
    std::size_t createCount() const { return createCount_; }

private:
    std::map<TapID, Tap> taps_;
    std::map<EventTapMode, bool> refused_;
    TapID nextTap_ = 1;
    std::size_t createCount_ = 0;
};

class ScriptedPermissions final : public Permissions {
public:
    bool canListen = false;
    bool canPost = false;
    bool isTrusted = false;
    // What a request grants (as if the user agreed at once); false: nothing changes.
    bool grantsOnRequest = false;
    int listenRequests = 0;
    int postRequests = 0;

    bool preflightListenEventAccess() const override { return canListen; }
    bool requestListenEventAccess() override;
    bool preflightPostEventAccess() const override { return canPost; }
    bool requestPostEventAccess() override;
    bool isAccessibilityTrusted() const override { return isTrusted || canPost; }

    CaptureAccess captureAccess = CaptureAccess::granted;
    CaptureAccess systemAudioCaptureAccess() const override { return captureAccess; }
};

class ScriptedLoginItem final : public LoginItem {
public:
    Status currentStatus = Status::notRegistered;
    // Registering leads here (enabled, or requires approval).
    Status statusAfterRegistering = Status::enabled;
    // A non-empty text makes the next register/unregister throw it.
    std::string failure;
    int settingsOpened = 0;

    // Reading the status is a call into another process on a real system: counted.
    mutable int statusReads = 0;

    Status status() const override {
        ++statusReads;
        return currentStatus;
    }
    void registerItem() override;
    void unregisterItem() override;
    void openSystemSettingsLoginItems() override { ++settingsOpened; }
};

class ScriptedFolderAccess final : public FolderAccess {
public:
    std::string desktop = "/home/user/Desktop";
    // The chooser's answer: a folder, or none for cancel. With `isAnswerDeferred`, the
    // completion waits until answer() is called.
    std::optional<std::string> chooserAnswer;
    bool isAnswerDeferred = false;
    std::vector<FolderChoice> choicesShown;
    // Folders whose access is refused, and bookmarks that are stale or unresolvable.
    std::vector<std::string> refusedFolders;
    bool bookmarksAreStale = false;
    bool bookmarksUnresolvable = false;
    std::vector<std::string> accessing; // started and not yet stopped
    int bookmarksCreated = 0;

    std::string desktopFolder() const override { return desktop; }
    void chooseFolder(const FolderChoice& choice, Completion completion) override;
    std::optional<PropertyList::Data> createBookmark(const std::string& folder) override;
    std::optional<ResolvedBookmark> resolveBookmark(const PropertyList::Data& bookmark) override;
    bool startAccessing(const std::string& folder) override;
    void stopAccessing(const std::string& folder) override;

    // Completes a deferred chooser with `folder` (none: cancel).
    void answer(std::optional<std::string> folder);

    // The application chooser: its answer (none: cancel) and what it was shown.
    std::optional<std::string> applicationAnswer;
    std::vector<std::pair<std::string, std::string>> applicationChoicesShown; // message, start
    void chooseApplication(const std::string& message, const std::string& startFolder,
                           Completion completion) override;

private:
    Completion pending_;
};

class ScriptedUpdater final : public Updater {
public:
    bool available = true;
    bool canCheck = true;
    bool checksAutomatically = true;
    std::optional<std::string> pending;
    std::string reason; // non-empty: this build cannot check
    int checks = 0;

    bool isAvailable() const override { return available; }
    bool canCheckForUpdates() const override { return canCheck; }
    void checkForUpdates() override { ++checks; }
    bool automaticallyChecksForUpdates() const override { return checksAutomatically; }
    void setAutomaticallyChecksForUpdates(bool isOn) override { checksAutomatically = isOn; }
    std::optional<std::string> pendingVersion() const override { return pending; }
    std::string unavailableReason() const override { return reason; }
};

class RecordedHudPanel final : public HudPanel, public Screens {
public:
    // Panel state.
    HudContent content;
    std::optional<ScreenPoint> origin;
    double alpha = 0;
    bool isOrderedFront = false;
    int contentUpdates = 0;
    // The running fade, finished by finishAnimation().
    std::optional<double> animatingTo;
    double animationDuration = 0;

    // Screens.
    std::vector<Screen> allScreens;
    std::optional<std::size_t> mainScreenIndex;
    ScreenPoint mouse;

    void setContent(const HudContent& newContent) override;
    void setFrameOrigin(ScreenPoint point) override { origin = point; }
    void setAlpha(double value) override;
    void orderFrontRegardless() override { isOrderedFront = true; }
    void orderOut() override { isOrderedFront = false; }
    void animateAlpha(double target, double duration, std::function<void()> completion) override;
    // Ends the running fade: the alpha reaches its target and the completion runs.
    void finishAnimation();

    std::vector<Screen> screens() const override { return allScreens; }
    std::optional<Screen> mainScreen() const override;
    ScreenPoint mouseLocation() const override { return mouse; }

private:
    std::function<void()> completion_;
};

} // namespace brightmix
