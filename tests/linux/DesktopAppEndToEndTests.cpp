// The desktop application, started as a program against the private session: its
// demonstration switches on from the panel's model, routes the multi-output device (the
// speakers get the tone at the panel's half volume), records the clean mix into a valid
// file, saves screenshots of the panel and the windows, writes its settings, and when it
// quits the multi-output device plays directly again.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>

#include "platform/linux/audiofile/AudioFileReader.h"
#include "platform/linux/settings/PropertyListFileDefaults.h"
#include "tests/linux/PipeWireTestSupport.h"

namespace brightmix {
namespace {

#ifdef BRIGHTMIX_APP_EXECUTABLE

constexpr double kToneDb = -6.0206; // the played tone's peak: 0.5
constexpr double kHalfVolumeDb = -6.0206;

bool isPng(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    char signature[8] = {};
    stream.read(signature, 8);
    return stream && std::string(signature + 1, 3) == "PNG" &&
           std::filesystem::file_size(file) > 5000;
}

std::vector<float> leftChannel(const DecodedAudio& audio) {
    std::vector<float> left;
    for (std::size_t i = 0; i < audio.samples.size(); i += audio.channels) {
        left.push_back(audio.samples[i]);
    }
    return left;
}

TEST(DesktopApp, TheDemonstrationRoutesRecordsAndShowsItsWindows) {
    auto hardware = testing::connectToSession();
    if (!hardware) GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
    testing::MonitorCapture desk("desk_speakers", 2);
    const std::string tone = testing::scratchDirectory() + "/desktop-tone.wav";
    testing::writeToneFile(tone, 1000, 0.5, 30);
    testing::TonePlayer player(tone, "multi_output");
    bool isPlaying = false;
    for (int i = 0; i < 40 && !isPlaying; ++i)
        isPlaying = testing::peakDb(desk.listen(0, 0.05)) > -40;
    ASSERT_TRUE(isPlaying) << "the tone never reached the speakers";

    const std::filesystem::path folder = testing::scratchDirectory() + "/desktop-demo";
    std::filesystem::remove_all(folder);
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    const std::string command = std::string(BRIGHTMIX_APP_EXECUTABLE) + " --demo '" +
                                folder.string() + "' --seconds 3 2>&1";
    FILE* app = ::popen(command.c_str(), "r");
    ASSERT_NE(app, nullptr);
    std::string output;
    char line[512];
    double routedDb = -200;
    while (std::fgets(line, sizeof line, app) != nullptr) {
        output += line;
        if (std::string(line).rfind("Recording 3 s", 0) == 0) {
            routedDb = testing::toneDb(desk.listen(0, 0.5), 1000);
        }
    }
    ASSERT_EQ(::pclose(app), 0) << output;
    EXPECT_NEAR(routedDb, kToneDb + kHalfVolumeDb, 0.5)
        << "the panel's volume reached the speakers";

    std::filesystem::path recording;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".m4a") recording = entry.path();
    }
    ASSERT_FALSE(recording.empty()) << output;
    EXPECT_EQ(recording.filename().string().rfind("Brightmix ", 0), 0u);
    std::string error;
    const std::optional<DecodedAudio> audio = readAudioFile(recording.string(), &error);
    ASSERT_TRUE(audio) << error;
    EXPECT_NEAR(audio->duration(), 3.0, 0.4);
    EXPECT_NEAR(testing::toneDb(leftChannel(*audio), 1000, audio->sampleRate), kToneDb, 1.0)
        << "the recording is the clean mix, before the volume";

    for (const char* name : {"panel.png", "app-outputs.png", "device-labels.png"}) {
        EXPECT_TRUE(isPng(folder / name)) << name;
    }
    PropertyListFileDefaults settings(folder / "settings.plist");
    EXPECT_EQ(settings.get("volume"), PropertyList::real(0.5));
    EXPECT_EQ(settings.get("selectedDeviceUID"), PropertyList("multi_output"));
    EXPECT_EQ(settings.get("resumeEnabled"), PropertyList::boolean(false));

    hardware->synchronize();
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    // The panel's half volume went to the sink's own volume too (the desktop's keys and
    // indicator use it), so direct playback keeps that level: 0.5 on the cubic scale.
    EXPECT_NEAR(testing::toneDb(desk.listen(0, 0.3), 1000), kToneDb + 60 * std::log10(0.5), 0.5)
        << "direct playback is back after the app switched off";
}

TEST(DesktopApp, KillingTheAppWhileItRoutesUnmutesTheSinkWithinASecond) {
    using namespace std::chrono_literals;
    auto hardware = testing::connectToSession();
    if (!hardware) GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
    const testing::FullSinkVolumeAfterwards restore;
    const std::filesystem::path folder = testing::scratchDirectory() + "/desktop-kill";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const std::string log = (folder / "output.txt").string();
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    std::string executable = BRIGHTMIX_APP_EXECUTABLE;
    std::string demo = "--demo", where = folder.string(), seconds = "--seconds", thirty = "30",
                noRecording = "--no-recording";
    char* arguments[] = {executable.data(), demo.data(),        where.data(), seconds.data(),
                         thirty.data(),     noRecording.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t app = 0;
    ASSERT_EQ(posix_spawn(&app, executable.c_str(), &actions, nullptr, arguments, environ), 0);
    posix_spawn_file_actions_destroy(&actions);

    bool isRouting = false;
    for (int i = 0; i < 200 && !isRouting; ++i) {
        std::this_thread::sleep_for(25ms);
        hardware->synchronize();
        isRouting = hardware->sinkMute("multi_output") == std::optional<bool>(true);
    }
    if (!isRouting) {
        ::kill(app, SIGKILL);
        ::waitpid(app, nullptr, 0);
        FAIL() << "the app never started routing";
    }
    ASSERT_EQ(::kill(app, SIGKILL), 0);
    const auto killedAt = std::chrono::steady_clock::now();
    ::waitpid(app, nullptr, 0);
    bool isRestored = false;
    while (!isRestored && std::chrono::steady_clock::now() - killedAt < 1s) {
        std::this_thread::sleep_for(10ms);
        hardware->synchronize();
        isRestored = hardware->sinkMute("multi_output") == std::optional<bool>(false);
    }
    EXPECT_TRUE(isRestored) << "the watchdog did not unmute the multi-output sink in time";
}

TEST(DesktopApp, RefusesUnknownArguments) {
    const std::string command = std::string(BRIGHTMIX_APP_EXECUTABLE) + " --bogus 2>&1";
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    FILE* app = ::popen(command.c_str(), "r");
    ASSERT_NE(app, nullptr);
    std::string output;
    char line[256];
    while (std::fgets(line, sizeof line, app) != nullptr)
        output += line;
    const int status = ::pclose(app);
    EXPECT_EQ(WEXITSTATUS(status), 2);
    EXPECT_NE(output.find("usage: brightmix-app"), std::string::npos) << output;
}

#endif

} // namespace
} // namespace brightmix
