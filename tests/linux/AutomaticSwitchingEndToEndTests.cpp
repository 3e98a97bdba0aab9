// Automatic switching end to end on PipeWire: with Brightmix on the multi-output device and a
// rule "this player uses the desk speakers", a player that starts and keeps playing takes the
// output after about two seconds: the desk speakers become the system's default output. On
// PipeWire the router can only take over a multi-output sink (a plain sink cannot be muted
// for the tap without silencing the router itself), so Brightmix cannot follow onto the desk
// speakers: automatic switching stops with its message, and the speakers play directly.
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include "tests/linux/ModelOnSession.h"

namespace brightmix {
namespace {

using namespace std::chrono_literals;

TEST(AutomaticSwitching, APlayerWithARuleTakesTheOutput) {
    using namespace std::string_literals;
    testing::ModelOnSession session;
    if (!session.start())
        GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
    AppModel& model = *session.model;
    auto& loop = session.loop;
    auto& hardware = session.hardware;
    model.selectOutput("multi_output", false);
    model.setEnabled(true);
    ASSERT_TRUE(model.state().isEnabled) << model.state().errorMessage.value_or("");
    model.setAppOutputRules({{"org.example.Switcher", "Switcher", "desk_speakers", "Desk"}});
    model.setAutomaticallySwitchApps(true);

    const std::string tone = testing::scratchDirectory() + "/switching-tone.wav";
    testing::writeToneFile(tone, 1000, 0.5, 30);
    testing::TonePlayer player(tone, "multi_output", "org.example.Switcher");

    bool hasActed = false;
    for (int second = 0; second < 8 && !hasActed; ++second) {
        std::this_thread::sleep_for(1s);
        loop.advance(AppModel::kRefreshInterval);
        hasActed = model.devices().defaultOutputDevice()->uid == "desk_speakers";
    }
    ASSERT_TRUE(hasActed) << model.state().appOutputStatus;
    EXPECT_FALSE(model.state().isEnabled);
    EXPECT_FALSE(model.state().automaticallySwitchApps);
    EXPECT_EQ(model.state().appOutputStatus,
              "Automatic switching stopped because Desk Speakers could not be started. "s +
                  model.state().errorMessage.value_or("?"));
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    model.selectOutput("multi_output", false); // the session's default for the tests after
    EXPECT_EQ(model.devices().defaultOutputDevice()->uid, "multi_output");
}

} // namespace
} // namespace brightmix
