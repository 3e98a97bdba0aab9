// A workspace whose answers tests set up: running applications by PID, bundle identifiers
// and display names by path, the program's own bundle, and icons. It counts the icon
// look-ups so tests can see caching.
//
// Thread: control only (like the real one). Realtime-safe: no.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Workspace.h"

namespace brightmix {

class ScriptedWorkspace final : public Workspace {
public:
    // A running application for `pid`; either part may be none.
    void setRunningApplication(std::int32_t pid, std::optional<std::string> bundlePath,
                               std::optional<std::string> bundleIdentifier);
    void removeRunningApplication(std::int32_t pid);

    // The identifier of the bundle at `bundlePath` (standardised before use).
    void setBundleIdentifier(std::string bundlePath, std::string identifier);

    // A display name for `path`; unset paths show their last component.
    void setDisplayName(std::string path, std::string name);

    void setOwnBundlePath(std::string path) { ownBundlePath_ = std::move(path); }

    // How often icon() was asked.
    std::size_t iconRequests() const { return iconRequests_; }

    std::optional<RunningApplication> runningApplication(std::int32_t pid) const override;
    std::optional<std::string> bundleIdentifier(std::string_view bundlePath) const override;
    std::string displayName(std::string_view path) const override;
    std::string ownBundlePath() const override { return ownBundlePath_; }
    // An icon named "icon:" + the standardised path.
    WorkspaceIcon icon(std::string_view path) const override;

    // Actions are recorded, in order, as "open-url <url>", "open-app <path>", "reveal <path>",
    // "relaunch" and "terminate"; the ones that can fail answer `areActionsRefused` negated.
    bool openURL(std::string_view url) override;
    bool openApplication(std::string_view path) override;
    bool revealFile(std::string_view path) override;
    bool relaunch() override;
    void terminate() override;
    std::optional<std::string> bundleName(std::string_view bundlePath) const override;
    std::optional<std::string> frontmostApplicationBundleID() const override { return frontmost_; }
    // The name a bundle gives itself (none: it gives none).
    void setBundleName(std::string bundlePath, std::string name);
    void setFrontmostApplication(std::optional<std::string> bundleID) {
        frontmost_ = std::move(bundleID);
    }

    const std::vector<std::string>& actions() const { return actions_; }
    void clearActions() { actions_.clear(); }
    void setActionsRefused(bool isRefused) { areActionsRefused_ = isRefused; }
    // Called by terminate(), as the application's will-terminate notification would be.
    void setTerminationHandler(std::function<void()> handler) {
        terminationHandler_ = std::move(handler);
    }

private:
    std::map<std::int32_t, RunningApplication> applications_;
    std::map<std::string, std::string, std::less<>> identifiers_;
    std::map<std::string, std::string, std::less<>> displayNames_;
    std::string ownBundlePath_ = "/Applications/Brightmix.app";
    mutable std::size_t iconRequests_ = 0;
    std::map<std::string, std::string, std::less<>> bundleNames_;
    std::optional<std::string> frontmost_;
    std::vector<std::string> actions_;
    bool areActionsRefused_ = false;
    std::function<void()> terminationHandler_;
};

} // namespace brightmix
