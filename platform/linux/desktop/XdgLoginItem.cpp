#include "platform/linux/desktop/XdgLoginItem.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

namespace brightmix {

namespace {

std::string lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Quotes an Exec argument the way desktop entries require (quotes, backquotes, dollars and
// backslashes escaped).
std::string execArgument(const std::string& argument) {
    std::string quoted = "\"";
    for (char c : argument) {
        if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

} // namespace

std::filesystem::path XdgLoginItem::defaultFolder() {
    if (const char* configured = std::getenv("XDG_CONFIG_HOME");
        configured != nullptr && configured[0] == '/') {
        return std::filesystem::path(configured) / "autostart";
    }
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home != nullptr ? home : "/tmp") / ".config/autostart";
}

XdgLoginItem::XdgLoginItem(std::string executable, std::string name, std::filesystem::path folder,
                           FolderOpener opener)
    : executable_(std::move(executable)), file_(folder / (name + ".desktop")),
      opener_(std::move(opener)) {}

LoginItem::Status XdgLoginItem::status() const {
    std::ifstream stream(file_);
    if (!stream) return Status::notRegistered;
    std::string line;
    while (std::getline(stream, line)) {
        const std::string text = lower(line);
        if (text == "hidden=true" || text == "x-gnome-autostart-enabled=false") {
            return Status::notRegistered;
        }
    }
    return Status::enabled;
}

void XdgLoginItem::registerItem() {
    std::error_code error;
    std::filesystem::create_directories(file_.parent_path(), error);
    if (error) {
        throw Error("The autostart folder " + file_.parent_path().string() +
                    " could not be created (" + error.message() + ").");
    }
    const std::filesystem::path temporary = file_.string() + ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << "[Desktop Entry]\n"
               "Type=Application\n"
               "Name=Brightmix\n"
               "Comment=Volume control for multi-output devices\n"
               "Exec="
            << execArgument(executable_)
            << "\n"
               "Icon=brightmix\n"
               "Terminal=false\n"
               "X-GNOME-Autostart-enabled=true\n";
        out.flush();
        if (!out) {
            std::filesystem::remove(temporary, error);
            throw Error("The autostart entry " + file_.string() + " could not be written.");
        }
    }
    std::filesystem::rename(temporary, file_, error);
    if (error) {
        std::filesystem::remove(temporary, error);
        throw Error("The autostart entry " + file_.string() + " could not be written.");
    }
}

void XdgLoginItem::unregisterItem() {
    std::error_code error;
    std::filesystem::remove(file_, error);
    if (error) {
        throw Error("The autostart entry " + file_.string() + " could not be removed (" +
                    error.message() + ").");
    }
}

void XdgLoginItem::openSystemSettingsLoginItems() {
    if (opener_) opener_(file_.parent_path().string());
}

} // namespace brightmix
