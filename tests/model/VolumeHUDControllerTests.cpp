// The volume indicator's placement, its wait restarted by every call, and its fade.
#include <gtest/gtest.h>

#include "Brightmix/VolumeHUDController.h"
#include "platform/sim/ScriptedSystem.h"
#include "platform/sim/VirtualMainLoop.h"

namespace brightmix {
namespace {

class HudTest : public ::testing::Test {
protected:
    HudTest() {
        panel.allScreens = {{{0, 0, 1440, 900}, {0, 0, 1440, 875}},
                            {{1440, 0, 1920, 1080}, {1440, 0, 1920, 1050}}};
        panel.mainScreenIndex = 0;
        panel.mouse = {100, 100};
    }
    RecordedHudPanel panel;
    VirtualMainLoop loop;
    VolumeHUDController controller{panel, panel, loop};
};

TEST_F(HudTest, ShownTopRightOfTheScreenUnderThePointer) {
    EXPECT_EQ(panel.alpha, 0.0) << "created hidden";
    controller.show(false, "Desk", 0.5);
    EXPECT_EQ(panel.origin, (ScreenPoint{1440 - 250 - 16, 875 - 70 - 12}));
    EXPECT_EQ(panel.alpha, 1.0);
    EXPECT_TRUE(panel.isOrderedFront);
    EXPECT_EQ(panel.content, (HudContent{0.5, false, "Desk"}));

    panel.mouse = {2000, 500};
    controller.show(true, "Desk", 0.5);
    EXPECT_EQ(panel.origin, (ScreenPoint{1440 + 1920 - 250 - 16, 1050 - 70 - 12}));

    panel.mouse = {-500, -500};
    controller.show(true, "Desk", 0.5);
    EXPECT_EQ(panel.origin, (ScreenPoint{1440 - 250 - 16, 875 - 70 - 12})) << "the main screen";
}

TEST_F(HudTest, NoScreenAtAllLeavesThePanelWhereItIs) {
    panel.allScreens.clear();
    panel.mainScreenIndex.reset();
    controller.show(false, "Desk", 0.5);
    EXPECT_FALSE(panel.origin);
    EXPECT_TRUE(panel.isOrderedFront);
}

TEST_F(HudTest, EachCallRestartsTheWaitThenItFades) {
    controller.show(false, "Desk", 0.5);
    loop.advance(1.0);
    controller.show(false, "Desk", 0.5625);
    loop.advance(1.0);
    EXPECT_FALSE(panel.animatingTo) << "1.15 s after the second call has not passed";
    loop.advance(0.2);
    ASSERT_TRUE(panel.animatingTo);
    EXPECT_EQ(*panel.animatingTo, 0.0);
    EXPECT_DOUBLE_EQ(panel.animationDuration, 0.18);
    panel.finishAnimation();
    EXPECT_FALSE(panel.isOrderedFront);
}

TEST_F(HudTest, AShowDuringTheFadeKeepsThePanelUp) {
    controller.show(false, "Desk", 0.5);
    loop.advance(1.2);
    ASSERT_TRUE(panel.animatingTo);
    controller.show(false, "Desk", 0.4375);
    panel.finishAnimation(); // the interrupted fade completes
    EXPECT_TRUE(panel.isOrderedFront);
    EXPECT_EQ(panel.alpha, 1.0);
}

TEST_F(HudTest, HideTakesItAwayAtOnce) {
    controller.show(false, "Desk", 0.5);
    controller.hide();
    EXPECT_EQ(panel.alpha, 0.0);
    EXPECT_FALSE(panel.isOrderedFront);
    loop.advance(2);
    EXPECT_FALSE(panel.animatingTo);
}

} // namespace
} // namespace brightmix
