// Applications on Linux are their desktop entries: a running program belongs to the entry
// that starts its binary, which gives it its name and the identity PipeWire reports for its
// streams (the binary's name); a program without an entry stands for itself.
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Brightmix/PlayingApps.h"
#include "platform/linux/qt/QtDesktopServices.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/qt/QtTestApplication.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

TEST(QtWorkspace, ProgramsBelongToTheirDesktopEntries) {
    testing::qtTestApplication();
    testing::TemporaryFolder data;
    std::filesystem::create_directories(data / "applications");
    const std::string entry = (data / "applications/org.example.Player.desktop").string();
    std::ofstream(entry) << "[Desktop Entry]\nType=Application\nName=Example Player\n"
                            "Exec=/opt/player/bin/fooplayer --new-window %U\nIcon=fooplayer\n"
                            "[Desktop Action Private]\nName=Private window\nExec=other\n";
    const char* saved = std::getenv("XDG_DATA_HOME");
    const std::string previous = saved != nullptr ? saved : "";
    setenv("XDG_DATA_HOME", data.path().c_str(), 1);

    QtWorkspace workspace;
    EXPECT_EQ(workspace.applicationBundlePath("/opt/player/bin/fooplayer"), entry);
    EXPECT_EQ(workspace.bundleIdentifier(entry), "fooplayer");
    EXPECT_EQ(workspace.displayName(entry), "Example Player");
    EXPECT_EQ(workspace.bundleName(entry), "Example Player");
    EXPECT_EQ(workspace.icon(entry).name, "fooplayer");
    EXPECT_EQ(workspace.applicationBundlePath("/usr/local/bin/unknown-tool"),
              "/usr/local/bin/unknown-tool");
    EXPECT_EQ(workspace.displayName("/usr/local/bin/unknown-tool"), "unknown-tool");

    // The list of playing apps: this test program stands for itself and is never listed.
    VirtualMainLoop loop;
    PlayingAppsMonitor monitor(loop, workspace);
    monitor.start([] { return std::vector<std::int32_t>{::getpid()}; });
    EXPECT_TRUE(monitor.apps().empty());

    if (saved != nullptr) {
        setenv("XDG_DATA_HOME", previous.c_str(), 1);
    } else {
        unsetenv("XDG_DATA_HOME");
    }
}

} // namespace
} // namespace brightmix
