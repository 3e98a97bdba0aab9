// Launch at login on a freedesktop session: an autostart entry
// $XDG_CONFIG_HOME/autostart/<name>.desktop (~/.config by default) that starts the program.
// The status is read back from the file every time, so an entry removed or disabled
// ("Hidden=true", "X-GNOME-Autostart-enabled=false") in the desktop's own settings shows at
// once. No desktop asks for approval, so the status is never "requires approval".
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "platform/LoginItem.h"

namespace brightmix {

class XdgLoginItem final : public LoginItem {
public:
    // Shows a folder to the user (the desktop's file manager).
    using FolderOpener = std::function<void(const std::string& folder)>;

    // `executable` is what the entry starts; `name` the file name without ".desktop";
    // `folder` the autostart folder (defaultFolder() in the application).
    XdgLoginItem(std::string executable, std::string name, std::filesystem::path folder,
                 FolderOpener opener = {});

    Status status() const override;
    void registerItem() override;
    void unregisterItem() override;
    // Opens the autostart folder in the file manager (desktops keep no common settings page).
    void openSystemSettingsLoginItems() override;

    const std::filesystem::path& file() const { return file_; }
    static std::filesystem::path defaultFolder();

private:
    std::string executable_;
    std::filesystem::path file_;
    FolderOpener opener_;
};

} // namespace brightmix
