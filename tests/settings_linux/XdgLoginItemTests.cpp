// Launch at login as an XDG autostart entry: registering writes a valid entry that starts the
// program, the status is read back from the file (a desktop that disables the entry turns it
// off), unregistering removes it, and an unwritable folder is a clear error.
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "platform/linux/desktop/XdgLoginItem.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

std::string contents(const std::filesystem::path& file) {
    std::ifstream stream(file);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

TEST(XdgLoginItem, RegisterWritesAnEntryAndTheStatusIsReadFromTheFile) {
    testing::TemporaryFolder folder;
    std::string opened;
    XdgLoginItem item("/opt/Brightmix Apps/brightmix-app", "brightmix", folder / "autostart",
                      [&](const std::string& path) { opened = path; });
    EXPECT_EQ(item.status(), LoginItem::Status::notRegistered);
    item.registerItem();
    EXPECT_EQ(item.status(), LoginItem::Status::enabled);
    const std::string entry = contents(item.file());
    EXPECT_NE(entry.find("[Desktop Entry]\nType=Application\n"), std::string::npos);
    EXPECT_NE(entry.find("Exec=\"/opt/Brightmix Apps/brightmix-app\"\n"), std::string::npos);

    // The desktop's own settings switch it off by editing the entry.
    std::ofstream(item.file(), std::ios::app) << "Hidden=true\n";
    EXPECT_EQ(item.status(), LoginItem::Status::notRegistered);
    item.registerItem();
    EXPECT_EQ(item.status(), LoginItem::Status::enabled) << "registering again rewrites it";

    item.unregisterItem();
    EXPECT_EQ(item.status(), LoginItem::Status::notRegistered);
    EXPECT_FALSE(std::filesystem::exists(item.file()));
    item.unregisterItem(); // nothing to remove is not an error

    item.openSystemSettingsLoginItems();
    EXPECT_EQ(opened, (folder / "autostart").string());
}

TEST(XdgLoginItem, AnUnwritableFolderIsAClearError) {
    testing::TemporaryFolder folder;
    std::ofstream(folder / "file") << "";
    XdgLoginItem item("/usr/bin/brightmix-app", "brightmix", folder / "file" / "autostart");
    try {
        item.registerItem();
        FAIL() << "registering into a file as folder succeeded";
    } catch (const LoginItem::Error& error) {
        EXPECT_NE(std::string(error.what()).find("could not be created"), std::string::npos)
            << error.what();
    }
    EXPECT_EQ(item.status(), LoginItem::Status::notRegistered);
}

} // namespace
} // namespace brightmix
