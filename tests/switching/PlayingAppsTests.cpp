#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "Brightmix/PlayingApps.h"
#include "platform/sim/ScriptedWorkspace.h"
#include "platform/sim/VirtualMainLoop.h"

namespace brightmix {
namespace {

class PlayingAppsTests : public ::testing::Test {
protected:
    void SetUp() override {
        workspace.setOwnBundlePath("/Applications/Brightmix.app");
        workspace.setRunningApplication(1, "/Applications/Player.app", "com.example.player");
        workspace.setRunningApplication(
            2, "/Applications/Player.app/Contents/Frameworks/Renderer.app/Contents/MacOS/R",
            "com.example.player.renderer");
        workspace.setRunningApplication(3, "/Applications/Radio.app/", "com.example.radio");
        workspace.setRunningApplication(4, "/Applications/Brightmix.app", "com.corvale.brightmix");
        workspace.setRunningApplication(5, "/usr/bin/say", "com.example.say");
        workspace.setRunningApplication(6, std::nullopt, "com.example.nobundle");
        workspace.setRunningApplication(7, "/Users/me/Tools/./Mixer.app/Contents/MacOS/mixer",
                                        std::nullopt);
        workspace.setDisplayName("/Applications/Radio.app", "Radio.app");
        workspace.setDisplayName("/Users/me/Tools/Mixer.app", "Mixer.app Pro.app");
        monitor.setObserver([this](const std::vector<PlayingApp>&) { ++publications; });
    }

    // Starts with a provider that answers whatever `pids` holds at each poll.
    void start() {
        monitor.start([this] { return pids; });
    }

    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& app : monitor.apps()) {
            result.push_back(app.name);
        }
        return result;
    }

    VirtualMainLoop loop;
    ScriptedWorkspace workspace;
    PlayingAppsMonitor monitor{loop, workspace};
    std::vector<std::int32_t> pids;
    int publications = 0;
};

TEST_F(PlayingAppsTests, ListsOneEntryPerOutermostBundleAndNeverItself) {
    pids = {2, 1, 4, 5, 6, 99, 3, 7};
    start();
    ASSERT_EQ(monitor.apps().size(), 3u);
    EXPECT_EQ(monitor.apps()[0], (PlayingApp{"/Applications/Player.app", "Player"}));
    EXPECT_EQ(monitor.apps()[1], (PlayingApp{"/Applications/Radio.app", "Radio"}));
    // Every ".app" goes from the display name, and the path is standardised.
    EXPECT_EQ(monitor.apps()[2], (PlayingApp{"/Users/me/Tools/Mixer.app", "Mixer Pro"}));
    EXPECT_EQ(publications, 1);
}

TEST_F(PlayingAppsTests, KeepsPlacesStableAndAppendsNewcomers) {
    const struct {
        std::vector<std::int32_t> pids;
        std::vector<std::string> expected;
        int publications; // in total so far
    } steps[] = {
        {{3}, {"Radio"}, 1},
        {{1, 3}, {"Radio", "Player"}, 2},
        {{7, 2, 3}, {"Radio", "Player", "Mixer Pro"}, 3},
        {{2, 7, 3, 1}, {"Radio", "Player", "Mixer Pro"}, 3}, // reordered input: no change
        {{7, 1}, {"Player", "Mixer Pro"}, 4},
        {{3, 7, 1}, {"Player", "Mixer Pro", "Radio"}, 5},
        {{}, {}, 6},
        {{}, {}, 6},
    };
    start();
    for (std::size_t index = 0; index < std::size(steps); ++index) {
        SCOPED_TRACE(index);
        pids = steps[index].pids;
        loop.advance(1.0);
        EXPECT_EQ(names(), steps[index].expected);
        EXPECT_EQ(publications, steps[index].publications);
    }
}

TEST_F(PlayingAppsTests, StopEmptiesAtOnceAndEndsPolling) {
    pids = {1};
    start();
    ASSERT_EQ(monitor.apps().size(), 1u);
    EXPECT_TRUE(monitor.isRunning());
    monitor.stop();
    EXPECT_FALSE(monitor.isRunning());
    EXPECT_TRUE(monitor.apps().empty());
    EXPECT_EQ(publications, 2);
    loop.advance(5.0);
    EXPECT_TRUE(monitor.apps().empty());

    // A restart polls at once and then every second with the new provider.
    int asked = 0;
    monitor.start([&] {
        ++asked;
        return std::vector<std::int32_t>{3};
    });
    EXPECT_EQ(asked, 1);
    loop.advance(3.0);
    EXPECT_EQ(asked, 4);
    EXPECT_EQ(names(), std::vector<std::string>{"Radio"});
}

TEST_F(PlayingAppsTests, IconsAreAskedOncePerBundle) {
    pids = {1, 3};
    start();
    const PlayingApp player = monitor.apps()[0];
    EXPECT_EQ(monitor.icon(player).name, "icon:/Applications/Player.app");
    EXPECT_EQ(monitor.icon(player).name, "icon:/Applications/Player.app");
    EXPECT_EQ(monitor.icon(monitor.apps()[1]).name, "icon:/Applications/Radio.app");
    EXPECT_EQ(workspace.iconRequests(), 2u);
    // Kept after the app stops playing.
    monitor.stop();
    monitor.icon(player);
    EXPECT_EQ(workspace.iconRequests(), 2u);
}

TEST(BundlePathTests, OutermostBundleAndStandardisation) {
    const struct {
        const char* path;
        std::optional<std::string> expected;
    } cases[] = {
        {"/Applications/A.app/Contents/B.app/Contents/MacOS/b", "/Applications/A.app"},
        {"/Applications/A.app", "/Applications/A.app"},
        {"/Applications//A.app/", "/Applications/A.app"},
        {"/x/./y/../A.app/Contents", "/x/A.app"},
        {"/Applications/A.application/x", std::nullopt},
        {"/usr/bin/tool", std::nullopt},
        {"", std::nullopt},
        {"/.app", "/.app"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(outermostAppBundlePath(c.path), c.expected) << c.path;
    }
    EXPECT_EQ(standardizedPath("/../a/./b//"), "/a/b");
    EXPECT_EQ(standardizedPath("a/../../b"), "../b");
    EXPECT_EQ(standardizedPath("/"), "/");
}

} // namespace
} // namespace brightmix
