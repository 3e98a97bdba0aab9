// The volume-key monitor on its own: decoding, the three states and the fall-back from
// filtering to listening, swallowing and passing, tap-disabled notifications, and presses
// dropped after a re-activation.
#include <gtest/gtest.h>
#include <vector>

#include "Brightmix/MediaKeyMonitor.h"
#include "platform/sim/ScriptedSystem.h"
#include "platform/sim/VirtualMainLoop.h"

namespace brightmix {
namespace {

TEST(DecodeVolumeKey, KeyCodesStatesAndWhatIsIgnored) {
    EXPECT_EQ(decodeVolumeKey(0x000A00, 8), (DecodedVolumeKey{MediaVolumeKey::volumeUp, true}));
    EXPECT_EQ(decodeVolumeKey(0x010B00, 8), (DecodedVolumeKey{MediaVolumeKey::volumeDown, false}));
    EXPECT_EQ(decodeVolumeKey(0x070A01, 8), (DecodedVolumeKey{MediaVolumeKey::mute, true}))
        << "the repeat flag is ignored";
    EXPECT_FALSE(decodeVolumeKey(0x020A00, 8)) << "brightness";
    EXPECT_FALSE(decodeVolumeKey(0x000A00, 7)) << "another subtype";
    EXPECT_FALSE(decodeVolumeKey(0x000C00, 8)) << "another key state";
    EXPECT_EQ(decodeVolumeKey(0x7FFFFFFF00000A00LL, 0x10008)->key, MediaVolumeKey::volumeUp)
        << "only the low 32 bits of data1 and 16 bits of subtype count";
}

TEST(SteppedVolume, SixteenthsInThePressedDirection) {
    EXPECT_EQ(steppedVolume(0.5, 1), 0.5625);
    EXPECT_EQ(steppedVolume(0.53, 1), 0.5625);
    EXPECT_EQ(steppedVolume(0.53, -1), 0.5);
    EXPECT_EQ(steppedVolume(1.0, 1), 1.0);
    EXPECT_EQ(steppedVolume(0.0, -1), 0.0);
    EXPECT_EQ(steppedVolume(1.2, 1), 1.0);
    EXPECT_EQ(steppedVolume(-1, 1), 0.0625);
}

class MonitorTest : public ::testing::Test {
protected:
    MonitorTest() {
        monitor.handler = [this](MediaVolumeKey key) { keys.push_back(key); };
        monitor.shouldHandleEvent = [this] { return isOurs; };
        monitor.activity = {true, 1};
    }
    ScriptedEventTap tap;
    ScriptedPermissions permissions;
    VirtualMainLoop loop;
    MediaKeyMonitor monitor{tap, permissions, loop};
    std::vector<MediaVolumeKey> keys;
    bool isOurs = true;
};

TEST_F(MonitorTest, NoPermissionMeansNoTap) {
    monitor.update();
    EXPECT_FALSE(monitor.hasTap());
    EXPECT_EQ(tap.createCount(), 0u);
}

TEST_F(MonitorTest, ListeningPassesKeysAndStillReportsThem) {
    permissions.canListen = true;
    monitor.shouldSuppressSystemHUD = true; // wanted, but posting is not allowed
    monitor.update();
    ASSERT_TRUE(monitor.hasTap());
    EXPECT_FALSE(monitor.isSuppressingSystemHUD());
    EXPECT_FALSE(tap.deliverKey(0, true));
    loop.runPending();
    EXPECT_EQ(keys, std::vector<MediaVolumeKey>{MediaVolumeKey::volumeUp});
}

TEST_F(MonitorTest, FilteringSwallowsDownAndUpButPassesOtherEvents) {
    permissions.canPost = true;
    monitor.shouldSuppressSystemHUD = true;
    monitor.update();
    ASSERT_TRUE(monitor.isSuppressingSystemHUD());
    EXPECT_TRUE(tap.deliverKey(1, true));
    EXPECT_TRUE(tap.deliverKey(1, false));
    EXPECT_FALSE(tap.deliverKey(2, true)) << "brightness passes";
    EXPECT_FALSE(tap.deliver({EventTap::kSystemDefinedEventType, TapEvent::Fields{7, 0x000A00}}));
    EXPECT_FALSE(tap.deliver({EventTap::kSystemDefinedEventType, std::nullopt}));
    EXPECT_FALSE(tap.deliver({10, TapEvent::Fields{8, 0x000A00}})) << "not a system event";
    // Holding the key: each repeat is one more step.
    tap.deliverKey(1, true, true);
    tap.deliverKey(1, true, true);
    loop.runPending();
    EXPECT_EQ(keys.size(), 3u);
}

TEST_F(MonitorTest, NotOursPassesUntouchedInEitherMode) {
    permissions.canPost = true;
    monitor.shouldSuppressSystemHUD = true;
    monitor.update();
    isOurs = false;
    EXPECT_FALSE(tap.deliverKey(0, true));
    loop.runPending();
    EXPECT_TRUE(keys.empty());
}

TEST_F(MonitorTest, ARefusedFilterFallsBackToListening) {
    permissions.canPost = true;
    monitor.shouldSuppressSystemHUD = true;
    tap.setRefused(EventTapMode::filtering, true);
    monitor.update();
    ASSERT_TRUE(monitor.hasTap());
    EXPECT_FALSE(monitor.isSuppressingSystemHUD());
    EXPECT_EQ(tap.liveTap()->mode, EventTapMode::listening);
}

TEST_F(MonitorTest, WithdrawnPostPermissionRebuildsAListeningTap) {
    permissions.canPost = true;
    monitor.shouldSuppressSystemHUD = true;
    monitor.update();
    monitor.update();
    EXPECT_EQ(tap.createCount(), 1u) << "an update in the right state changes nothing";
    permissions.canPost = false;
    permissions.canListen = true;
    monitor.update();
    EXPECT_EQ(tap.liveTapCount(), 1u);
    EXPECT_EQ(tap.liveTap()->mode, EventTapMode::listening);
}

TEST_F(MonitorTest, ADisabledTapIsReEnabledByItsNotification) {
    permissions.canListen = true;
    monitor.update();
    tap.disableByTimeout();
    EXPECT_FALSE(tap.liveTap()->isEnabled);
    tap.deliver({EventTap::kTapDisabledByTimeout, std::nullopt});
    EXPECT_TRUE(tap.liveTap()->isEnabled);
}

TEST_F(MonitorTest, APressQueuedUnderAnEarlierActivationIsDropped) {
    permissions.canListen = true;
    monitor.update();
    tap.deliverKey(0, true);
    monitor.activity = {false, 2};
    monitor.update();
    monitor.activity = {true, 3};
    monitor.update();
    loop.runPending();
    EXPECT_TRUE(keys.empty());
    tap.deliverKey(0, true);
    loop.runPending();
    EXPECT_EQ(keys.size(), 1u);
}

TEST_F(MonitorTest, InactiveStopsAndAGoneMonitorDropsItsQueuedPress) {
    permissions.canListen = true;
    monitor.update();
    monitor.activity.isActive = false;
    monitor.update();
    EXPECT_EQ(tap.liveTapCount(), 0u);

    auto shortLived = std::make_unique<MediaKeyMonitor>(tap, permissions, loop);
    int calls = 0;
    shortLived->handler = [&](MediaVolumeKey) { ++calls; };
    shortLived->shouldHandleEvent = [] { return true; };
    shortLived->activity = {true, 1};
    shortLived->update();
    tap.deliverKey(0, true);
    shortLived.reset();
    EXPECT_EQ(tap.liveTapCount(), 0u);
    loop.runPending();
    EXPECT_EQ(calls, 0);
}

} // namespace
} // namespace brightmix
