// The Linux settings file: every type survives a save and a fresh read, unreadable files are
// kept aside and give defaults, an interrupted save leaves the previous file whole, and a
// folder that cannot be written is reported once.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "Brightmix/AppSettings.h"
#include "platform/linux/settings/PropertyListFileDefaults.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

using SaveStep = PropertyListFileDefaults::SaveStep;

std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream contents;
    contents << stream.rdbuf();
    return contents.str();
}

void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

PropertyList::Dictionary everyKind() {
    return {
        {"bool", PropertyList::boolean(true)},
        {"integer", PropertyList::integer(-42)},
        {"large", PropertyList::integer(9'000'000'000'000'000'000)},
        {"real", PropertyList::real(0.1)},
        {"string", PropertyList("Brightmix’s “router” <&>")},
        {"data", PropertyList::data({0, 1, 2, 255, '<'})},
        {"array",
         PropertyList::array({PropertyList("a"), PropertyList::real(1.5), PropertyList::array()})},
        {"dictionary", PropertyList::dictionary({{"inner", PropertyList::dictionary()},
                                                 {"flag", PropertyList::boolean(false)}})},
    };
}

class PropertyListFileDefaultsTest : public ::testing::Test {
protected:
    testing::TemporaryFolder folder;
    std::filesystem::path file = folder / "config/brightmix/com.corvale.brightmix.plist";

    std::vector<std::string> configEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(PropertyListFileDefaultsTest, EveryKindSurvivesASaveAndAFreshRead) {
    {
        PropertyListFileDefaults defaults(file);
        for (auto& [key, value] : everyKind())
            defaults.set(key, value);
    }
    EXPECT_NE(readFile(file).find("<?xml"), std::string::npos);
    PropertyListFileDefaults reread(file);
    EXPECT_EQ(reread.values(), everyKind());
    EXPECT_FALSE(reread.setAsideFile());
}

TEST_F(PropertyListFileDefaultsTest, ControlCharactersAreWrittenInBinaryAndReadBack) {
    {
        PropertyListFileDefaults defaults(file);
        defaults.set("log", PropertyList("bell\x07 and \xff"));
    }
    EXPECT_EQ(readFile(file).rfind("bplist00", 0), 0u);
    // A byte that is no UTF-8 cannot be stored as text in either form; it becomes U+FFFD.
    EXPECT_EQ(PropertyListFileDefaults(file).values(),
              (PropertyList::Dictionary{{"log", PropertyList("bell\x07 and \xEF\xBF\xBD")}}));
}

TEST_F(PropertyListFileDefaultsTest, AllSettingsRoundTripThroughTheFile) {
    AppSettings settings;
    {
        PropertyListFileDefaults defaults(file);
        settings.volume = 0.3;
        settingsWrite::volume(defaults, settings.volume);
        settings.childVolumes = {{"A", 0.25}};
        settingsWrite::childVolumes(defaults, settings.childVolumes);
        settings.presets.set("subwoofer", "M", "A");
        settingsWrite::presetsByOutput(defaults, settings.presets);
        settings.crossoverFrequency = 120;
        settingsWrite::crossoverFrequency(defaults, 118);
        settings.deviceLabels.setLabel("Desk", "USB", "A", DeviceDirection::output);
        settingsWrite::deviceLabels(defaults, settings.deviceLabels);
        settings.appOutputRules = {{"player", "Player", "M", "Desk"}};
        settingsWrite::appOutputRules(defaults, settings.appOutputRules);
        settings.recordingFormat = RecordingFormat::wav;
        settingsWrite::recordingFormat(defaults, RecordingFormat::wav);
        settings.replaceSystemHUD = false;
        settingsWrite::flag(defaults, settingsKey::replaceSystemHUD, false);
        settings.selectedDeviceUID = "M";
        settingsWrite::selectedDeviceUID(defaults, "M");
    }
    EXPECT_EQ(AppSettings::load(PropertyListFileDefaults(file)), settings);
}

TEST_F(PropertyListFileDefaultsTest, UnreadableFilesAreKeptAsideAndGiveDefaults) {
    const std::string good =
        PropertyListFileDefaults::serialize({{"volume", PropertyList::real(0.2)}});
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"corrupt", "this is no property list"},
        {"truncated", good.substr(0, good.size() / 2)},
        {"empty", ""},
        {"wrong root", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><real>0.2"
                       "</real></array></plist>"},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove_all(file.parent_path());
        const std::string& contents = bytes;
        writeFile(file, contents);
        PropertyListFileDefaults defaults(file);
        EXPECT_TRUE(defaults.values().empty());
        EXPECT_EQ(AppSettings::load(defaults).volume, 0.75);
        ASSERT_TRUE(defaults.setAsideFile());
        EXPECT_NE(defaults.setAsideFile()->filename().string().find(".plist.corrupt-"),
                  std::string::npos);
        EXPECT_EQ(readFile(*defaults.setAsideFile()), contents);
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_FALSE(defaults.writeError());
        defaults.set("volume", PropertyList::real(0.4));
        EXPECT_EQ(PropertyListFileDefaults(file).values().at("volume"), PropertyList::real(0.4));
        EXPECT_EQ(readFile(*defaults.setAsideFile()), contents);
    }
}

TEST_F(PropertyListFileDefaultsTest, ASaveInterruptedAtAnyStepLeavesThePreviousFileWhole) {
    { PropertyListFileDefaults(file).set("volume", PropertyList::real(0.2)); }
    const std::string before = readFile(file);
    for (SaveStep failing : {SaveStep::createFolder, SaveStep::createTemporary, SaveStep::write,
                             SaveStep::flush, SaveStep::close, SaveStep::rename}) {
        SCOPED_TRACE(static_cast<int>(failing));
        PropertyListFileDefaults defaults(
            file, [&](SaveStep step) { return step == failing ? ENOSPC : 0; });
        std::vector<std::string> errors;
        defaults.setWriteErrorHandler(
            [&](const std::string& message) { errors.push_back(message); });
        defaults.set("volume", PropertyList::real(0.9));
        defaults.set("replaceSystemHUD", PropertyList::boolean(false));
        EXPECT_EQ(readFile(file), before);
        EXPECT_EQ(configEntries(), (std::vector<std::string>{file.filename().string()}));
        ASSERT_EQ(errors.size(), 1u) << "reported once, not once per setting";
        EXPECT_NE(errors[0].find("No space left on device"), std::string::npos) << errors[0];
        EXPECT_EQ(defaults.get("volume"), PropertyList::real(0.9)) << "kept in memory";
    }
    // The rename happened: the new file is whole even though the folder flush failed.
    PropertyListFileDefaults defaults(
        file, [](SaveStep step) { return step == SaveStep::flushFolder ? EIO : 0; });
    defaults.set("volume", PropertyList::real(0.6));
    EXPECT_EQ(PropertyListFileDefaults(file).values().at("volume"), PropertyList::real(0.6));
}

TEST_F(PropertyListFileDefaultsTest, AnUnwritableFolderIsReportedOnceAndRecovers) {
    // A plain file where the folder belongs stops even root.
    writeFile(folder / "config/blocker", "");
    const auto blocked = folder / "config/blocker/brightmix/domain.plist";
    PropertyListFileDefaults defaults(blocked);
    int reports = 0;
    std::string message;
    defaults.setWriteErrorHandler([&](const std::string& text) {
        ++reports;
        message = text;
    });
    for (int i = 0; i < 5; ++i)
        defaults.set("volume", PropertyList::real(i / 10.0));
    EXPECT_EQ(reports, 1);
    EXPECT_NE(message.find("could not save its settings"), std::string::npos) << message;
    EXPECT_TRUE(defaults.writeError());
    EXPECT_EQ(defaults.get("volume"), PropertyList::real(0.4));
}

TEST_F(PropertyListFileDefaultsTest, RemovingTheDomainDeletesTheFile) {
    PropertyListFileDefaults defaults(file);
    defaults.set("volume", PropertyList::real(0.5));
    ASSERT_TRUE(std::filesystem::exists(file));
    defaults.removeDomain();
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(defaults.values().empty());
    EXPECT_EQ(AppSettings::load(PropertyListFileDefaults(file)), AppSettings{});
}

TEST_F(PropertyListFileDefaultsTest, NullRemovesAndRemovingAnAbsentKeyWritesNothing) {
    PropertyListFileDefaults defaults(file);
    defaults.remove("nothing");
    EXPECT_FALSE(std::filesystem::exists(file));
    defaults.set("a", PropertyList::boolean(true));
    defaults.set("a", PropertyList());
    EXPECT_FALSE(PropertyListFileDefaults(file).get("a"));
}

TEST(PropertyListFileDefaultsLocation, FollowsXDGConfigHome) {
    const char* saved = std::getenv("XDG_CONFIG_HOME");
    const std::string previous = saved != nullptr ? saved : "";
    setenv("XDG_CONFIG_HOME", "/somewhere/config", 1);
    EXPECT_EQ(PropertyListFileDefaults::fileForDomain("com.corvale.brightmix"),
              "/somewhere/config/brightmix/com.corvale.brightmix.plist");
    setenv("XDG_CONFIG_HOME", "relative", 1);
    setenv("HOME", std::getenv("HOME") != nullptr ? std::getenv("HOME") : "/root", 1);
    EXPECT_EQ(PropertyListFileDefaults::fileForDomain("d"),
              std::filesystem::path(std::getenv("HOME")) / ".config/brightmix/d.plist");
    if (saved != nullptr) {
        setenv("XDG_CONFIG_HOME", previous.c_str(), 1);
    } else {
        unsetenv("XDG_CONFIG_HOME");
    }
}

} // namespace
} // namespace brightmix
