// What the desktop application does at start before anything can go wrong later: without a
// display it prints its usage when asked and otherwise says in one line that it needs a
// desktop session (Qt would abort with a message of its own); and a settings file nested
// 50,000 deep, which once crashed every start, is kept aside with one message while the app
// runs on defaults.
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "platform/linux/settings/PropertyListFileDefaults.h"
#include "tests/linux/PipeWireTestSupport.h"
#include "tests/support/TemporaryFolder.h"

extern char** environ;

namespace brightmix {
namespace {

#ifdef BRIGHTMIX_APP_EXECUTABLE

struct Finished {
    int status = -1; // the exit status, or minus the signal that ended the app (-1 also when
                     // it could not be started)
    std::string output;
    std::string errors;
};

std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream contents;
    contents << stream.rdbuf();
    return contents.str();
}

// Runs the app with this environment minus the variables named in `unset`, plus `set`.
Finished runApp(std::vector<std::string> arguments, const std::vector<std::string>& unset,
                const std::vector<std::string>& set = {}) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry;
        const std::string name = variable.substr(0, variable.find('='));
        bool isUnset = false;
        for (const std::string& removed : unset)
            isUnset |= name == removed;
        if (!isUnset) environment.push_back(variable);
    }
    environment.insert(environment.end(), set.begin(), set.end());
    std::vector<char*> envp;
    for (std::string& variable : environment)
        envp.push_back(variable.data());
    envp.push_back(nullptr);
    arguments.insert(arguments.begin(), BRIGHTMIX_APP_EXECUTABLE);
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    testing::TemporaryFolder logs;
    const std::string output = (logs / "stdout").string();
    const std::string errors = (logs / "stderr").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT, 0644);
    pid_t app = 0;
    Finished finished;
    if (posix_spawn(&app, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0) {
        int status = 0;
        ::waitpid(app, &status, 0);
        finished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    posix_spawn_file_actions_destroy(&actions);
    finished.output = readFile(output);
    finished.errors = readFile(errors);
    return finished;
}

const std::vector<std::string> kNoDisplay = {"DISPLAY", "WAYLAND_DISPLAY", "WAYLAND_SOCKET",
                                             "QT_QPA_PLATFORM"};

TEST(DesktopAppStart, WithoutADisplayTheUsageIsPrintedAndAMissingSessionSaidInOneLine) {
    const Finished help = runApp({"--help"}, kNoDisplay);
    EXPECT_EQ(help.status, 0) << help.errors;
    EXPECT_EQ(help.output.rfind("usage: brightmix-app [--demo FOLDER", 0), 0u) << help.output;
    EXPECT_NE(help.output.find("--no-recording"), std::string::npos);
    EXPECT_EQ(help.errors, "");

    const Finished plain = runApp({}, kNoDisplay);
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(plain.errors,
              "brightmix-app: no desktop session (no DISPLAY or WAYLAND_DISPLAY); run it inside "
              "a desktop, or use --demo under a virtual X server\n");
    EXPECT_EQ(plain.output, "");

    testing::TemporaryFolder folder;
    const Finished demo = runApp({"--demo", folder.path().string()}, kNoDisplay);
    EXPECT_EQ(demo.status, 1);
    EXPECT_EQ(demo.errors.rfind("brightmix-app: --demo needs a display", 0), 0u) << demo.errors;
    EXPECT_EQ(demo.errors.find('\n'), demo.errors.size() - 1) << "one line: " << demo.errors;

    // An empty variable names no display either.
    const Finished empty = runApp({}, kNoDisplay, {"DISPLAY="});
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.errors.rfind("brightmix-app: no desktop session", 0), 0u) << empty.errors;
}

TEST(DesktopAppStart, ASettingsFileNested50000DeepIsKeptAsideAndTheAppRuns) {
    auto hardware = testing::connectToSession();
    if (!hardware) GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
    // The demonstration routes at its default level, which it gives the multi-output sink.
    const testing::FullSinkVolumeAfterwards restore;
    const std::filesystem::path folder = testing::scratchDirectory() + "/desktop-deep-settings";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    std::string deep = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n"
                       "<dict><key>volume</key><real>0.2</real><key>deep</key>";
    for (int level = 0; level < 50'000; ++level)
        deep += "<array>";
    for (int level = 0; level < 50'000; ++level)
        deep += "</array>";
    deep += "</dict></plist>\n";
    std::ofstream(folder / "settings.plist", std::ios::binary) << deep;

    const Finished demo = runApp({"--demo", folder.string(), "--seconds", "1", "--no-recording"},
                                 {}, {"QT_QPA_PLATFORM=offscreen"});
    ASSERT_EQ(demo.status, 0) << demo.errors;
    const std::string message = "the settings file could not be read and was kept as ";
    const std::size_t said = demo.errors.find(message);
    ASSERT_NE(said, std::string::npos) << demo.errors;
    EXPECT_EQ(demo.errors.find(message, said + 1), std::string::npos) << "said once";
    std::filesystem::path keptAside;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().filename().string().rfind("settings.plist.corrupt-", 0) == 0)
            keptAside = entry.path();
    }
    ASSERT_FALSE(keptAside.empty());
    EXPECT_EQ(readFile(keptAside), deep);
    // Nothing of the old file was taken over; what the app saved reads back.
    PropertyListFileDefaults settings(folder / "settings.plist");
    EXPECT_FALSE(settings.setAsideFile());
    EXPECT_EQ(settings.get("volume"), PropertyList::real(0.5));
    EXPECT_FALSE(settings.get("deep"));
}

#endif

} // namespace
} // namespace brightmix
