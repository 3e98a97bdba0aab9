// Loading every settings key from what may be stored (missing, ill-typed, out of range,
// corrupt, nested past the JSON bound), the per-output preset store, device labels and their
// JSON, and the migration of settings after a device came back under a new UID.
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

#include "Brightmix/AppSettings.h"
#include "Brightmix/StoredJSON.h"
#include "platform/sim/InMemoryDefaults.h"

namespace brightmix {
namespace {

PropertyList jsonData(std::string_view text) {
    return PropertyList::data(PropertyList::Data(text.begin(), text.end()));
}

AppSettings loadWith(std::string_view key, PropertyList value) {
    PropertyList::Dictionary stored;
    stored.emplace(std::string(key), std::move(value));
    return AppSettings::load(InMemoryDefaults(std::move(stored)));
}

TEST(AppSettingsLoad, EmptyDomainGivesEveryDefault) {
    const AppSettings settings = AppSettings::load(InMemoryDefaults());
    EXPECT_EQ(settings, AppSettings{});
    EXPECT_EQ(settings.volume, 0.75);
    EXPECT_TRUE(settings.replaceSystemHUD);
    EXPECT_TRUE(settings.useDeviceLabels);
    EXPECT_FALSE(settings.automaticallySwitchApps);
    EXPECT_EQ(settings.crossoverFrequency, 80);
    EXPECT_EQ(settings.recordingFormat, RecordingFormat::m4a);
    EXPECT_FALSE(settings.selectedDeviceUID);
}

TEST(AppSettingsLoad, VolumeIsClampedAndOnlyNumbersCount) {
    EXPECT_EQ(loadWith("volume", PropertyList::real(1.7)).volume, 1.0);
    EXPECT_EQ(loadWith("volume", PropertyList::real(-0.2)).volume, 0.0);
    EXPECT_EQ(loadWith("volume", PropertyList("0.5")).volume, 0.75);
    EXPECT_EQ(loadWith("volume", PropertyList::real(std::nan(""))).volume, 0.0);
    EXPECT_EQ(loadWith("volume", PropertyList::integer(0)).volume, 0.0);
    EXPECT_EQ(loadWith("volume", PropertyList::real(0.3)).volume, 0.3);
    EXPECT_EQ(loadWith("volume", PropertyList::array()).volume, 0.75);
}

TEST(AppSettingsLoad, CrossoverSnapsWithTiesToTheLowerStep) {
    EXPECT_EQ(loadWith("crossoverFrequency", PropertyList::real(90)).crossoverFrequency, 80);
    EXPECT_EQ(loadWith("crossoverFrequency", PropertyList::real(95)).crossoverFrequency, 100);
    EXPECT_EQ(loadWith("crossoverFrequency", PropertyList::real(500)).crossoverFrequency, 120);
    EXPECT_EQ(loadWith("crossoverFrequency", PropertyList::integer(0)).crossoverFrequency, 60);
    EXPECT_EQ(loadWith("crossoverFrequency", PropertyList::real(70)).crossoverFrequency, 60);
    EXPECT_EQ(loadWith("crossoverFrequency", PropertyList("100")).crossoverFrequency, 80);
}

TEST(AppSettingsLoad, FlagsFollowTheirOwnRules) {
    EXPECT_FALSE(loadWith("replaceSystemHUD", PropertyList::boolean(false)).replaceSystemHUD);
    EXPECT_FALSE(loadWith("replaceSystemHUD", PropertyList::integer(0)).replaceSystemHUD);
    EXPECT_TRUE(loadWith("replaceSystemHUD", PropertyList("no")).replaceSystemHUD);
    EXPECT_FALSE(loadWith("useDeviceLabels", PropertyList::boolean(false)).useDeviceLabels);
    EXPECT_TRUE(loadWith("useDeviceLabels", PropertyList::integer(0)).useDeviceLabels);
    EXPECT_TRUE(loadWith("automaticallySwitchApps", PropertyList("YES")).automaticallySwitchApps);
    EXPECT_FALSE(
        loadWith("automaticallySwitchApps", PropertyList::data({})).automaticallySwitchApps);
}

TEST(AppSettingsLoad, RecordingFormatIsWavOnlyForLowerCaseWav) {
    EXPECT_EQ(loadWith("recordingFormat", PropertyList("wav")).recordingFormat,
              RecordingFormat::wav);
    EXPECT_EQ(loadWith("recordingFormat", PropertyList("WAV")).recordingFormat,
              RecordingFormat::m4a);
    EXPECT_EQ(loadWith("recordingFormat", PropertyList::integer(1)).recordingFormat,
              RecordingFormat::m4a);
}

TEST(AppSettingsLoad, SelectionIsANonEmptyString) {
    EXPECT_EQ(loadWith("selectedDeviceUID", PropertyList("M")).selectedDeviceUID, "M");
    EXPECT_FALSE(loadWith("selectedDeviceUID", PropertyList("")).selectedDeviceUID);
    EXPECT_FALSE(loadWith("selectedDeviceUID", PropertyList::integer(3)).selectedDeviceUID);
}

TEST(AppSettingsLoad, ChildVolumesKeepNumbersOnlyClamped) {
    const AppSettings settings =
        loadWith("childVolumes", PropertyList::dictionary({{"A", PropertyList::real(0.4)},
                                                           {"B", PropertyList::real(3)},
                                                           {"C", PropertyList("0.2")},
                                                           {"D", PropertyList::real(-1)}}));
    EXPECT_EQ(settings.childVolumes, (ChildVolumes{{"A", 0.4}, {"B", 1.0}, {"D", 0.0}}));
    EXPECT_TRUE(loadWith("childVolumes", PropertyList("A")).childVolumes.empty());
}

TEST(AppSettingsLoad, PresetMapsSkipBadEntriesOneByOne) {
    PropertyList::Dictionary stored{
        {"presetsByOutput", PropertyList::dictionary(
                                {{"M", PropertyList::dictionary({{"A", PropertyList("subwoofer")},
                                                                 {"B", PropertyList::integer(2)}})},
                                 {"N", PropertyList("satellite")}})},
        {"childPresets", PropertyList::dictionary({{"A", PropertyList("satellite")},
                                                   {"C", PropertyList::boolean(true)}})},
        {"equalizersByOutput", PropertyList::array()},
        {"childEqualizers", PropertyList::dictionary({{"A", PropertyList("rock")}})},
    };
    const AppSettings settings = AppSettings::load(InMemoryDefaults(stored));
    EXPECT_EQ(settings.presets.scoped, (PresetStore::OutputMap{{"M", {{"A", "subwoofer"}}}}));
    EXPECT_EQ(settings.presets.shared, (PresetStore::ChildMap{{"A", "satellite"}}));
    EXPECT_TRUE(settings.equalizers.scoped.empty());
    EXPECT_EQ(settings.equalizers.shared, (PresetStore::ChildMap{{"A", "rock"}}));
}

TEST(AppSettingsLoad, RulesAreCleanedButNotWrittenBack) {
    const std::string json = R"([{"bundleID":"A","appName":"1","outputUID":"M","outputName":"m"},)"
                             R"({"bundleID":"","appName":"2","outputUID":"M","outputName":"m"},)"
                             R"({"bundleID":"A","appName":"3","outputUID":"N","outputName":"n"},)"
                             R"({"bundleID":"B","appName":"4","outputUID":"N","outputName":"n"}])";
    InMemoryDefaults defaults(PropertyList::Dictionary{{"appOutputRules", jsonData(json)}});
    const AppSettings settings = AppSettings::load(defaults);
    ASSERT_EQ(settings.appOutputRules.size(), 2u);
    EXPECT_EQ(settings.appOutputRules[0].appName, "1");
    EXPECT_EQ(settings.appOutputRules[1].bundleID, "B");
    EXPECT_EQ(defaults.writeCount(), 0u);
}

TEST(AppSettingsLoad, UndecodableJsonGivesEmptyValues) {
    EXPECT_TRUE(
        loadWith("appOutputRules", jsonData("[{\"bundleID\":\"A\"}]")).appOutputRules.empty());
    EXPECT_TRUE(loadWith("appOutputRules", PropertyList("[]")).appOutputRules.empty());
    EXPECT_TRUE(loadWith("deviceLabels", jsonData("{\"outputs\":{}}")).deviceLabels.empty());
    EXPECT_TRUE(loadWith("deviceLabels", jsonData("\xff\xfe")).deviceLabels.empty());
    EXPECT_TRUE(loadWith("deviceLabels", jsonData(R"({"outputs":{"A":{"label":"x"}},"inputs":{}})"))
                    .deviceLabels.empty());
}

// `inner` wrapped in `levels` arrays.
std::string jsonNestedIn(int levels, std::string_view inner = "") {
    return std::string(static_cast<std::size_t>(levels), '[') + std::string(inner) +
           std::string(static_cast<std::size_t>(levels), ']');
}

// Valid rules and labels, but for an extra member nested 50,000 deep: the whole value is
// refused, not just the member.
TEST(AppSettingsLoad, DeeplyNestedJsonGivesThatValuesDefaultAndKeepsTheRest) {
    const PropertyList::Dictionary stored = {
        {"volume", PropertyList::real(0.3)},
        {"appOutputRules",
         jsonData(R"([{"bundleID":"A","appName":"a","outputUID":"M","outputName":"m","x":)" +
                  jsonNestedIn(50'000) + "}]")},
        {"deviceLabels",
         jsonData(R"({"outputs":{"M":{"originalName":"USB","label":"Desk"}},"inputs":{},"x":)" +
                  jsonNestedIn(50'000) + "}")},
        {"selectedDeviceUID", PropertyList("M")},
    };
    const AppSettings settings = AppSettings::load(InMemoryDefaults(stored));
    EXPECT_TRUE(settings.appOutputRules.empty());
    EXPECT_TRUE(settings.deviceLabels.empty());
    EXPECT_EQ(settings.volume, 0.3);
    EXPECT_EQ(settings.selectedDeviceUID, "M");
}

// Members beyond the ones read are ignored, however they nest, up to the bound; one level more
// and the whole value is refused before its tree is built.
TEST(StoredJson, NestingIsBoundedAtTheDocumentedDepth) {
    const auto rules = [](int levels) {
        // The list is level 1, the rule level 2, "extra" holds the rest.
        return R"([{"bundleID":"A","appName":"a","outputUID":"M","outputName":"m","extra":)" +
               jsonNestedIn(levels - 2) + "}]";
    };
    EXPECT_EQ(decodeAppOutputRules(rules(kDeepestStoredJSON)).size(), 1u);
    try {
        decodeAppOutputRules(rules(kDeepestStoredJSON + 1));
        ADD_FAILURE() << "rules one level past the bound were decoded";
    } catch (const AppOutputRuleDecodingError& error) {
        EXPECT_STREQ(error.what(), "App output rules are nested deeper than 64 levels.");
    }

    const auto labels = [](int levels) {
        return R"({"outputs":{"A":{"originalName":"USB","label":"Desk"}},"inputs":{},"notes":)" +
               jsonNestedIn(levels - 1) + "}";
    };
    const std::optional<DeviceLabelStore> atTheBound =
        decodeDeviceLabels(labels(kDeepestStoredJSON));
    ASSERT_TRUE(atTheBound);
    EXPECT_EQ(atTheBound->label("A", DeviceDirection::output), "Desk");
    EXPECT_FALSE(decodeDeviceLabels(labels(kDeepestStoredJSON + 1)));
    // Objects count as arrays do.
    std::string objects;
    for (int level = 0; level < kDeepestStoredJSON + 1; ++level)
        objects += R"({"a":)";
    objects += "1" + std::string(kDeepestStoredJSON + 1, '}');
    std::string problem;
    EXPECT_FALSE(parseStoredJSON(objects, problem));
    EXPECT_EQ(problem, "nested deeper than 64 levels");
    objects = objects.substr(5, objects.size() - 6);
    EXPECT_TRUE(parseStoredJSON(objects, problem));
}

TEST(AppSettingsWrite, JsonIsStoredAsDataAndReadsBack) {
    InMemoryDefaults defaults;
    DeviceLabelStore labels;
    labels.setLabel("Desk", "USB Audio", "A", DeviceDirection::output);
    labels.setLabel("Mic", "USB Audio", "A", DeviceDirection::input);
    settingsWrite::deviceLabels(defaults, labels);
    settingsWrite::appOutputRules(defaults, {{"com.example.player", "Player", "M", "Desk"}});
    ASSERT_NE(defaults.get("deviceLabels")->asData(), nullptr);
    ASSERT_NE(defaults.get("appOutputRules")->asData(), nullptr);
    const PropertyList stored = *defaults.get("deviceLabels");
    const PropertyList::Data& bytes = *stored.asData();
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
              R"({"outputs":{"A":{"originalName":"USB Audio","label":"Desk"}},)"
              R"("inputs":{"A":{"originalName":"USB Audio","label":"Mic"}}})");
    const AppSettings settings = AppSettings::load(defaults);
    EXPECT_EQ(settings.deviceLabels, labels);
    EXPECT_EQ(settings.appOutputRules.at(0).outputName, "Desk");
}

TEST(AppSettingsWrite, SnappedAndClampedValuesAreWhatIsStored) {
    InMemoryDefaults defaults;
    settingsWrite::crossoverFrequency(defaults, 110);
    settingsWrite::volume(defaults, 1.5);
    settingsWrite::selectedDeviceUID(defaults, "");
    EXPECT_EQ(*defaults.get("crossoverFrequency"), PropertyList::real(100));
    EXPECT_EQ(*defaults.get("volume"), PropertyList::real(1));
    EXPECT_FALSE(defaults.get("selectedDeviceUID"));
}

TEST(PresetStore, ScopedValueWinsAndSharedIsOnlyAFallback) {
    PresetStore store;
    store.shared["C"] = "satellite";
    EXPECT_EQ(store.value("O", "C"), "satellite");
    store.set("subwoofer", "O", "C");
    EXPECT_EQ(store.value("O", "C"), "subwoofer");
    EXPECT_EQ(store.value("P", "C"), "satellite");
    EXPECT_EQ(store.shared.at("C"), "satellite");
    EXPECT_FALSE(store.value("O", "D"));
    EXPECT_EQ(store.allChildUIDs(), (std::set<std::string, std::less<>>{"C"}));
}

TEST(PresetStore, RemapRenamesEveryLevelAndExistingEntriesWin) {
    PresetStore store;
    store.scoped["X"] = {{"X", "subwoofer"}, {"A", "satellite"}};
    store.scoped["Y"] = {{"B", "fullRange"}};
    store.scoped["O"] = {{"X", "subwoofer"}, {"Y", "satellite"}};
    store.shared = {{"X", "satellite"}};
    store.remap({{"X", "Y"}});
    EXPECT_EQ(store.scoped.count("X"), 0u);
    EXPECT_EQ(store.scoped.at("Y"), (PresetStore::ChildMap{{"B", "fullRange"}}));
    EXPECT_EQ(store.scoped.at("O"), (PresetStore::ChildMap{{"Y", "satellite"}}));
    EXPECT_EQ(store.shared, (PresetStore::ChildMap{{"Y", "satellite"}}));
}

TEST(DeviceLabels, LookupIsPerDirectionAndRowsListDisconnectedDevices) {
    DeviceLabelStore store;
    store.setLabel("Speakers", "Display", "H", DeviceDirection::output);
    store.setLabel("Webcam", "Display", "H", DeviceDirection::input);
    store.setLabel("Old", "Gone Device", "G", DeviceDirection::output);
    EXPECT_EQ(store.label("H", DeviceDirection::output), "Speakers");
    EXPECT_EQ(store.label("H", DeviceDirection::input), "Webcam");
    store.setLabel(std::nullopt, "", "H", DeviceDirection::input);
    EXPECT_FALSE(store.label("H", DeviceDirection::input));
    EXPECT_EQ(store.label("H", DeviceDirection::output), "Speakers");

    AudioDevice display;
    display.uid = "H";
    display.name = "Display";
    display.outputChannels = 2;
    AudioDevice mic;
    mic.uid = "I";
    mic.name = "Mic";
    mic.inputChannels = 1;
    const auto rows = store.rows({display, mic}, DeviceDirection::output);
    EXPECT_EQ(rows,
              (std::vector<DeviceLabelRow>{{"H", "Display", true}, {"G", "Gone Device", false}}));
    EXPECT_EQ(store.rows({display, mic}, DeviceDirection::input),
              (std::vector<DeviceLabelRow>{{"I", "Mic", true}}));
}

TEST(DeviceLabels, TrimmingRemovesSpacesAndLineBreaksAtBothEnds) {
    EXPECT_EQ(trimmedWhitespace("  \t Desk\n"), "Desk");
    EXPECT_EQ(trimmedWhitespace("   "), "");
    EXPECT_EQ(trimmedWhitespace("\xC2\xA0Left  Right\xE3\x80\x80"), "Left  Right");
    EXPECT_EQ(trimmedWhitespace("Caf\xC3\xA9"), "Caf\xC3\xA9");
}

struct MigrationFixture : ::testing::Test {
    DeviceLabelStore labels;
    ChildVolumes volumes;
    PresetStore presets;
    PresetStore equalizers;
    std::vector<AppOutputRule> rules;
    std::optional<std::string> selected;
    InMemoryDefaults defaults;
    UIDKeyedSettings settings{labels, volumes, presets, equalizers, rules, selected};
};

TEST_F(MigrationFixture, KnownUIDsCoverEverySetting) {
    labels.setLabel("L", "n", "lab", DeviceDirection::output);
    labels.setLabel("L", "n", "inputOnly", DeviceDirection::input);
    volumes["vol"] = 0.5;
    presets.set("subwoofer", "M", "pre");
    equalizers.shared["eq"] = "rock";
    rules.push_back({"app", "App", "rule", "Rule"});
    selected = "sel";
    EXPECT_EQ(settings.knownUIDs(),
              (std::set<std::string>{"lab", "vol", "pre", "eq", "rule", "sel"}));
}

TEST_F(MigrationFixture, MovesEverythingAndTheNewUIDsEntryWins) {
    volumes = {{"X", 0.3}, {"Y", 0.8}, {"Z", 0.5}};
    labels.setLabel("TV", "Display", "Z", DeviceDirection::output);
    presets.set("satellite", "M", "Z");
    equalizers.set("rock", "Z", "A");
    rules.push_back({"app", "App", "Z", "TV"});
    selected = "Z";
    EXPECT_TRUE(settings.migrate({{"X", "Y"}, {"Z", "W"}}, defaults));
    EXPECT_EQ(volumes, (ChildVolumes{{"W", 0.5}, {"Y", 0.8}}));
    EXPECT_EQ(labels.label("W", DeviceDirection::output), "TV");
    EXPECT_EQ(presets.value("M", "W"), "satellite");
    EXPECT_EQ(equalizers.value("W", "A"), "rock");
    EXPECT_EQ(rules[0].outputUID, "W");
    EXPECT_EQ(rules[0].outputName, "TV");
    EXPECT_EQ(selected, "W");
    for (const char* key :
         {"deviceLabels", "childVolumes", "presetsByOutput", "childPresets", "equalizersByOutput",
          "childEqualizers", "appOutputRules", "selectedDeviceUID"}) {
        EXPECT_TRUE(defaults.get(key)) << key;
    }
    const AppSettings reloaded = AppSettings::load(defaults);
    EXPECT_EQ(reloaded.childVolumes, volumes);
    EXPECT_EQ(reloaded.presets, presets);
    EXPECT_EQ(reloaded.selectedDeviceUID, "W");
}

TEST_F(MigrationFixture, EmptyMappingWritesNothing) {
    volumes["X"] = 0.3;
    EXPECT_FALSE(settings.migrate({}, defaults));
    EXPECT_EQ(defaults.writeCount(), 0u);
}

TEST_F(MigrationFixture, UnchangedSelectionIsNotRewritten) {
    selected = "M";
    volumes["X"] = 0.3;
    settings.migrate({{"X", "Y"}}, defaults);
    EXPECT_FALSE(defaults.get("selectedDeviceUID"));
    EXPECT_EQ(selected, "M");
}

} // namespace
} // namespace brightmix
