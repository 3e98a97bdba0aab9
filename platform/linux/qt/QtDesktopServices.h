// The desktop services of the Linux application, on Qt and the freedesktop conventions:
//
// - QtWorkspace: running applications from /proc, applications by their desktop entries
//   (the XDG data folders), opening URLs with the desktop's handler, showing a file in the
//   file manager (org.freedesktop.FileManager1, else its folder), relaunching and quitting.
// - QtFolderAccess: a folder dialog; a "bookmark" is the folder's path, usable while the
//   folder exists and is writable (no sandbox asks for more).
// - QtHudPanel: the indicator as a frameless, unfocusable tool window, and the screens with
//   the pointer. Positions are reported with the origin at the bottom left of the virtual
//   desktop (as the indicator's placement expects) and converted back for Qt.
// - NoUpdater, NoKeyEvents: what Linux does not have (updates come with the package; the
//   desktop owns the volume keys).
//
// Thread: the GUI thread. Realtime-safe: no.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/EventTap.h"
#include "platform/FolderAccess.h"
#include "platform/HudPanel.h"
#include "platform/Updater.h"
#include "platform/Workspace.h"

class QWidget;

namespace brightmix {

class QtWorkspace final : public Workspace {
public:
    std::optional<RunningApplication> runningApplication(std::int32_t pid) const override;
    std::optional<std::string> bundleIdentifier(std::string_view bundlePath) const override;
    std::string displayName(std::string_view path) const override;
    std::string ownBundlePath() const override;
    WorkspaceIcon icon(std::string_view path) const override;
    std::optional<std::string> bundleName(std::string_view bundlePath) const override;
    // The program's desktop entry (by the name of its binary), else the program itself.
    std::optional<std::string> applicationBundlePath(std::string_view processPath) const override;
    std::optional<std::string> frontmostApplicationBundleID() const override {
        return std::nullopt;
    }
    bool openURL(std::string_view url) override;
    bool openApplication(std::string_view path) override;
    bool revealFile(std::string_view path) override;
    bool relaunch() override;
    void terminate() override;

    // A desktop entry's key ("Name", "Exec", "Icon") from its main group; none when absent.
    static std::optional<std::string> desktopEntryValue(const std::string& file,
                                                        const std::string& key);

private:
    // Binary name -> desktop entry, from the XDG data folders, read once.
    mutable std::optional<std::map<std::string, std::string>> entriesByProgram_;
};

class QtFolderAccess final : public FolderAccess {
public:
    std::string desktopFolder() const override;
    void chooseFolder(const FolderChoice& choice, Completion completion) override;
    std::optional<PropertyList::Data> createBookmark(const std::string& folder) override;
    std::optional<ResolvedBookmark> resolveBookmark(const PropertyList::Data& bookmark) override;
    bool startAccessing(const std::string& folder) override;
    void stopAccessing(const std::string&) override {}
    void chooseApplication(const std::string& message, const std::string& startFolder,
                           Completion completion) override;
};

class QtHudPanel final : public HudPanel, public Screens {
public:
    using ContentView = std::function<void(QWidget* panel, const HudContent& content)>;

    // `draw` fills the panel with the indicator's view for the content.
    explicit QtHudPanel(ContentView draw);
    ~QtHudPanel() override;

    void setContent(const HudContent& content) override;
    void setFrameOrigin(ScreenPoint origin) override;
    void setAlpha(double alpha) override;
    void orderFrontRegardless() override;
    void orderOut() override;
    void animateAlpha(double alpha, double duration, std::function<void()> completion) override;

    std::vector<Screen> screens() const override;
    std::optional<Screen> mainScreen() const override;
    ScreenPoint mouseLocation() const override;

    QWidget* widget() const { return panel_.get(); }

private:
    ContentView draw_;
    std::unique_ptr<QWidget> panel_;
};

class NoUpdater final : public Updater {
public:
    bool isAvailable() const override { return false; }
    bool canCheckForUpdates() const override { return false; }
    void checkForUpdates() override {}
    bool automaticallyChecksForUpdates() const override { return false; }
    void setAutomaticallyChecksForUpdates(bool) override {}
    std::optional<std::string> pendingVersion() const override { return std::nullopt; }
    std::string unavailableReason() const override { return {}; }
};

// No key tap and no permission to ask for: the desktop owns the volume keys.
class NoKeyEvents final : public EventTap, public Permissions {
public:
    TapID create(EventTapMode, Callback) override { return 0; }
    void enable(TapID) override {}
    void invalidate(TapID) override {}
    bool preflightListenEventAccess() const override { return false; }
    bool requestListenEventAccess() override { return false; }
    bool preflightPostEventAccess() const override { return false; }
    bool requestPostEventAccess() override { return false; }
    bool isAccessibilityTrusted() const override { return false; }
    // PipeWire lets any client of the session read a sink's monitor.
    CaptureAccess systemAudioCaptureAccess() const override { return CaptureAccess::notRequired; }
};

} // namespace brightmix
