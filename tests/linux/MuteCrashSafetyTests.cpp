// Crash safety of the multi-output sink's mute against the real session: Brightmix killed
// while routing, and a mute left behind by a run that never got to restore it.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/linux/pipewire/PipeWireMuteGuard.h"
#include "tests/linux/PipeWireTestSupport.h"

extern char** environ;

namespace brightmix {
namespace {

using namespace std::chrono_literals;
using pipewire::MuteRecord;
using pipewire::PipeWireAudioHardware;
using Clock = std::chrono::steady_clock;

class MuteCrashSafety : public ::testing::Test {
protected:
    void SetUp() override {
        hardware = testing::connectToSession();
        if (!hardware) {
            GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
        }
    }

    void TearDown() override {
        if (hardware) {
            hardware->setSinkMute("multi_output", false);
        }
    }

    template <typename Predicate>
    bool waitUntil(Predicate predicate, std::chrono::milliseconds limit) {
        auto deadline = Clock::now() + limit;
        while (Clock::now() < deadline) {
            if (predicate()) {
                return true;
            }
            std::this_thread::sleep_for(5ms);
        }
        return predicate();
    }

    // The PID of a process that has already ended.
    static std::int32_t finishedProcessID() {
        char word[] = "true";
        char* arguments[] = {word, nullptr};
        pid_t pid = 0;
        posix_spawnp(&pid, "true", nullptr, nullptr, arguments, environ);
        int status = 0;
        waitpid(pid, &status, 0);
        return pid;
    }

    std::unique_ptr<PipeWireAudioHardware> hardware;
};

TEST_F(MuteCrashSafety, KillingBrightmixWhileRoutingUnmutesTheSinkWithinASecond) {
    std::string cli = BRIGHTMIX_CLI_EXECUTABLE;
    char route[] = "route";
    char seconds[] = "--seconds";
    char thirty[] = "30";
    char* arguments[] = {cli.data(), route, seconds, thirty, nullptr};
    pid_t brightmix = 0;
    ASSERT_EQ(posix_spawn(&brightmix, cli.c_str(), nullptr, nullptr, arguments, environ), 0);

    bool isMuted = waitUntil(
        [&] {
            hardware->synchronize();
            return hardware->sinkMute("multi_output") == std::optional<bool>(true);
        },
        5000ms);
    if (!isMuted) {
        ::kill(brightmix, SIGKILL);
        waitpid(brightmix, nullptr, 0);
        FAIL() << "brightmix never started routing";
    }
    EXPECT_EQ(pipewire::readMuteRecords(hardware->muteRecordPath()),
              (std::vector<MuteRecord>{{brightmix, "multi_output"}}));
    // The session manager must not save the mute to restore it after a restart. It writes
    // its state shortly after a change; give it that time.
    std::this_thread::sleep_for(1500ms);
    std::ifstream saved(std::string(std::getenv("XDG_STATE_HOME")) + "/wireplumber/restore-stream");
    for (std::string line; std::getline(saved, line);) {
        bool isCombine = line.find("multi_output") != std::string::npos ||
                         line.find("Combine") != std::string::npos;
        EXPECT_FALSE(isCombine && line.find("mute=true") != std::string::npos) << line;
    }

    ASSERT_EQ(::kill(brightmix, SIGKILL), 0);
    auto killedAt = Clock::now();
    int status = 0;
    waitpid(brightmix, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));

    bool isRestored = waitUntil(
        [&] {
            hardware->synchronize();
            return hardware->sinkMute("multi_output") == std::optional<bool>(false);
        },
        1000ms);
    auto restoredAfter = std::chrono::duration<double>(Clock::now() - killedAt).count();
    EXPECT_TRUE(isRestored) << "still muted " << restoredAfter << " s after the kill";
    EXPECT_TRUE(waitUntil(
        [&] { return pipewire::readMuteRecords(hardware->muteRecordPath()).empty(); }, 1000ms))
        << "the watchdog left the mute record behind";
}

TEST_F(MuteCrashSafety, AStartRepairsOnlyTheMutesWhoseOwnerIsGone) {
    const std::string path = hardware->muteRecordPath();
    const MuteRecord lost{finishedProcessID(), "multi_output"};
    const MuteRecord alive{::getppid(), "desk_speakers"};
    const MuteRecord vanished{finishedProcessID(), "no_such_sink"};
    ASSERT_TRUE(pipewire::addMuteRecord(path, lost));
    ASSERT_TRUE(pipewire::addMuteRecord(path, alive));
    ASSERT_TRUE(pipewire::addMuteRecord(path, vanished));
    ASSERT_EQ(hardware->setSinkMute("multi_output", true), 0);

    EXPECT_EQ(hardware->repairLeftoverMutes(), std::vector<std::string>{"multi_output"});
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    // The live owner's record stays for it to clear; the others are done with.
    EXPECT_EQ(pipewire::readMuteRecords(path), std::vector<MuteRecord>{alive});
    EXPECT_EQ(hardware->sinkMute("desk_speakers"), std::optional<bool>(false));
    pipewire::removeMuteRecord(path, alive);
}

TEST_F(MuteCrashSafety, BrightmixRepairsALeftoverMuteWhenItStarts) {
    const MuteRecord lost{finishedProcessID(), "multi_output"};
    ASSERT_TRUE(pipewire::addMuteRecord(hardware->muteRecordPath(), lost));
    ASSERT_EQ(hardware->setSinkMute("multi_output", true), 0);

    std::string command = std::string(BRIGHTMIX_CLI_EXECUTABLE) + " list";
    FILE* output = ::popen(command.c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::string text;
    char buffer[256];
    while (std::fgets(buffer, sizeof(buffer), output) != nullptr) {
        text += buffer;
    }
    EXPECT_EQ(::pclose(output), 0) << text;
    EXPECT_NE(text.find("Restored the sound of multi_output"), std::string::npos) << text;
    EXPECT_NE(text.find("* Multi-Output Device (multi_output)"), std::string::npos) << text;
    hardware->synchronize();
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    EXPECT_TRUE(pipewire::readMuteRecords(hardware->muteRecordPath()).empty());
}

} // namespace
} // namespace brightmix
