// Mute records and the watchdog protocol, without a server: the record file survives bad
// content, and the watchdog tells a clean stop from a dead owner.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/linux/pipewire/PipeWireMuteGuard.h"

namespace brightmix::pipewire {
namespace {

class MuteRecords : public ::testing::Test {
protected:
    void SetUp() override {
        folder = std::filesystem::temp_directory_path() /
                 ("brightmix-mute-records-" + std::to_string(::getpid()));
        std::filesystem::remove_all(folder);
        path = (folder / "state" / "muted-sinks").string();
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::filesystem::path folder;
    std::string path;
};

TEST_F(MuteRecords, AddAndRemoveKeepEveryOtherRecord) {
    EXPECT_TRUE(readMuteRecords(path).empty());
    ASSERT_TRUE(addMuteRecord(path, {10, "multi_output"}));
    ASSERT_TRUE(addMuteRecord(path, {11, "other sink"}));
    ASSERT_TRUE(addMuteRecord(path, {10, "multi_output"})); // no duplicate
    EXPECT_EQ(readMuteRecords(path),
              (std::vector<MuteRecord>{{10, "multi_output"}, {11, "other sink"}}));

    ASSERT_TRUE(removeMuteRecord(path, {99, "multi_output"})); // another owner's: kept
    ASSERT_TRUE(removeMuteRecord(path, {10, "multi_output"}));
    EXPECT_EQ(readMuteRecords(path), (std::vector<MuteRecord>{{11, "other sink"}}));
    ASSERT_TRUE(removeMuteRecord(path, {11, "other sink"}));
    EXPECT_FALSE(std::filesystem::exists(path)) << "an empty record file is left behind";
}

TEST_F(MuteRecords, ACorruptFileLosesOnlyItsBadLines) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << "12 multi_output\n"
                           "garbage\n"
                           "-4 negative\n"
                           "13\n"
                           "99999999999 too big\n"
                           "14   spaced name\n";
    EXPECT_EQ(readMuteRecords(path),
              (std::vector<MuteRecord>{{12, "multi_output"}, {14, "spaced name"}}));
    EXPECT_FALSE(addMuteRecord(path, {15, "two\nlines"}));
    EXPECT_FALSE(addMuteRecord(path, {15, ""}));
}

TEST(MuteWatchdogProtocol, TellsACleanStopFromADeadOwner) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const char clean = 'C';
    ASSERT_EQ(::write(fds[1], &clean, 1), 1);
    ::close(fds[1]);
    EXPECT_TRUE(waitForOwner(fds[0]));
    ::close(fds[0]);

    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[1]); // the owner died without a word
    EXPECT_FALSE(waitForOwner(fds[0]));
    ::close(fds[0]);

    ASSERT_EQ(::pipe(fds), 0);
    const char other = 'x';
    ASSERT_EQ(::write(fds[1], &other, 1), 1);
    ::close(fds[1]);
    EXPECT_FALSE(waitForOwner(fds[0]));
    ::close(fds[0]);
}

TEST(MuteWatchdogProtocol, AWatchdogThatCannotRunIsReportedAndNothingStarts) {
    std::string error;
    EXPECT_FALSE(MuteWatchdog::arm("/nonexistent/brightmix-watchdog", {1, "x"}, "/tmp/x", &error)
                     .has_value());
    EXPECT_NE(error.find("cannot be run"), std::string::npos);
    EXPECT_FALSE(MuteWatchdog::arm("", {1, "x"}, "/tmp/x", &error).has_value());
}

TEST(MuteWatchdogProtocol, KnowsWhichProcessesAreAlive) {
    EXPECT_TRUE(isProcessAlive(::getpid()));
    EXPECT_FALSE(isProcessAlive(0));
    EXPECT_FALSE(isProcessAlive(-1));
    EXPECT_FALSE(isProcessAlive(0x3FFFFFF0));
}

} // namespace
} // namespace brightmix::pipewire
