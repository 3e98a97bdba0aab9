// The system services of the app on macOS:
//   MainAppLoginItem   LoginItem over SMAppService.mainAppService;
//   OpenPanelFolders   FolderAccess over NSOpenPanel and security-scoped bookmarks (created
//                      with the security scope, resolved without UI and with staleness);
//                      access is started, and bookmarks made, on the URL object the panel
//                      handed out or the bookmark resolved to, never on one rebuilt from a path;
//   AppKitWorkspace    Workspace over NSWorkspace, NSRunningApplication and NSBundle.
//
// Thread: the main thread; completions run there. Realtime-safe: no.
#pragma once

#include <map>
#include <memory>

#include "platform/FolderAccess.h"
#include "platform/LoginItem.h"
#include "platform/Workspace.h"

namespace brightmix {

class MainAppLoginItem final : public LoginItem {
public:
    Status status() const override;
    void registerItem() override;
    void unregisterItem() override;
    void openSystemSettingsLoginItems() override;
};

class OpenPanelFolders final : public FolderAccess {
public:
    OpenPanelFolders();
    ~OpenPanelFolders() override;

    std::string desktopFolder() const override;
    void chooseFolder(const FolderChoice& choice, Completion completion) override;
    std::optional<PropertyList::Data> createBookmark(const std::string& folder) override;
    std::optional<ResolvedBookmark> resolveBookmark(const PropertyList::Data& bookmark) override;
    bool startAccessing(const std::string& folder) override;
    void stopAccessing(const std::string& folder) override;
    void chooseApplication(const std::string& message, const std::string& startFolder,
                           Completion completion) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

class AppKitWorkspace final : public Workspace {
public:
    std::optional<RunningApplication> runningApplication(std::int32_t pid) const override;
    std::optional<std::string> bundleIdentifier(std::string_view bundlePath) const override;
    std::string displayName(std::string_view path) const override;
    std::string ownBundlePath() const override;
    WorkspaceIcon icon(std::string_view path) const override;
    std::optional<std::string> bundleName(std::string_view bundlePath) const override;
    std::optional<std::string> frontmostApplicationBundleID() const override;
    bool openURL(std::string_view url) override;
    bool openApplication(std::string_view path) override;
    bool revealFile(std::string_view path) override;
    bool relaunch() override;
    void terminate() override;
};

} // namespace brightmix
