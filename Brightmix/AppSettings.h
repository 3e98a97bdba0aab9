// Everything the user sets, as stored in the application's settings domain: the key names,
// the value shapes, the load rule of every key (missing, ill-typed, out of range or corrupt
// values give the documented default, never an error) and the writes. The app model owns the
// values; it loads them once at start-up through `AppSettings::load` and writes each key
// through the functions below the moment the value changes.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Brightmix/AppOutputRule.h"
#include "Brightmix/DeviceLabelStore.h"
#include "Brightmix/PresetStore.h"
#include "Brightmix/RecordingFormat.h"
#include "platform/Defaults.h"
#include "platform/PropertyList.h"

namespace brightmix {

namespace settingsKey {
inline constexpr std::string_view volume = "volume";
inline constexpr std::string_view replaceSystemHUD = "replaceSystemHUD";
inline constexpr std::string_view selectedDeviceUID = "selectedDeviceUID";
inline constexpr std::string_view childVolumes = "childVolumes";
inline constexpr std::string_view presetsByOutput = "presetsByOutput";
inline constexpr std::string_view childPresets = "childPresets";
inline constexpr std::string_view equalizersByOutput = "equalizersByOutput";
inline constexpr std::string_view childEqualizers = "childEqualizers";
inline constexpr std::string_view crossoverFrequency = "crossoverFrequency";
inline constexpr std::string_view automaticallySwitchApps = "automaticallySwitchApps";
inline constexpr std::string_view useDeviceLabels = "useDeviceLabels";
inline constexpr std::string_view deviceLabels = "deviceLabels";
inline constexpr std::string_view appOutputRules = "appOutputRules";
inline constexpr std::string_view resumeEnabled = "resumeEnabled";
inline constexpr std::string_view recordingFormat = "recordingFormat";
inline constexpr std::string_view recordingFolderBookmark = "recordingFolderBookmark";
inline constexpr std::string_view diagnostics = "diagnostics";
inline constexpr std::string_view diagnosticsLog = "diagnosticsLog";
inline constexpr std::string_view diagnosticsReport = "diagnosticsReport";
} // namespace settingsKey

// Child UID -> per-output volume 0...1. Keyed by the child alone, so a speaker keeps its
// volume in every multi-output device it belongs to.
using ChildVolumes = std::map<std::string, double, std::less<>>;

struct AppSettings {
    static constexpr double kDefaultVolume = 0.75;
    static constexpr double kDefaultCrossoverFrequency = 80;

    RecordingFormat recordingFormat = RecordingFormat::m4a;
    double volume = kDefaultVolume;
    bool replaceSystemHUD = true;
    std::optional<std::string> selectedDeviceUID;
    ChildVolumes childVolumes;
    PresetStore presets;    // speaker roles
    PresetStore equalizers; // equaliser presets
    double crossoverFrequency = kDefaultCrossoverFrequency;
    bool automaticallySwitchApps = false;
    bool useDeviceLabels = true;
    DeviceLabelStore deviceLabels;
    std::vector<AppOutputRule> appOutputRules;

    // Reads every key once, in a fixed order ("resumeEnabled" is read separately, last).
    static AppSettings load(const Defaults& defaults);

    friend bool operator==(const AppSettings&, const AppSettings&) = default;
};

// The load rules, one per key, on the stored value (none: absent).
namespace settingsLoad {
// A number: NaN or negative gives 0, above 1 gives 1; anything else 0.75.
double volume(const std::optional<PropertyList>& value);
// A Boolean or a number (non-zero: true); anything else true.
bool replaceSystemHUD(const std::optional<PropertyList>& value);
// A non-empty string; anything else none.
std::optional<std::string> selectedDeviceUID(const std::optional<PropertyList>& value);
// The numeric entries of a dictionary, clamped to 0...1; other entries dropped.
ChildVolumes childVolumes(const std::optional<PropertyList>& value);
// A number snapped to 60, 80, 100 or 120 (ties to the lower); anything else 80.
double crossoverFrequency(const std::optional<PropertyList>& value);
// A Boolean; anything else true.
bool useDeviceLabels(const std::optional<PropertyList>& value);
// Data holding the labels' JSON; anything else, or JSON that does not decode, the empty store.
DeviceLabelStore deviceLabels(const std::optional<PropertyList>& value);
// Data holding the rules' JSON, cleaned; anything else the empty list.
std::vector<AppOutputRule> appOutputRules(const std::optional<PropertyList>& value);
// "wav" gives WAV; everything else M4A.
RecordingFormat recordingFormat(const std::optional<PropertyList>& value);
} // namespace settingsLoad

// Drops rules with an empty bundle ID and every rule after the first for a bundle ID, keeping
// the rest in order.
std::vector<AppOutputRule> cleanedAppOutputRules(std::vector<AppOutputRule> rules);

// Clamps to 0...1; NaN gives 0.
double clampedUnit(double value);

// The writes, one per key, in the stored shapes.
namespace settingsWrite {
void volume(Defaults& defaults, double volume);
void flag(Defaults& defaults, std::string_view key, bool value);
void selectedDeviceUID(Defaults& defaults, const std::string& uid);
void childVolumes(Defaults& defaults, const ChildVolumes& volumes);
void presetsByOutput(Defaults& defaults, const PresetStore& presets);
void equalizersByOutput(Defaults& defaults, const PresetStore& equalizers);
void crossoverFrequency(Defaults& defaults, double hertz);
void deviceLabels(Defaults& defaults, const DeviceLabelStore& labels);
void appOutputRules(Defaults& defaults, const std::vector<AppOutputRule>& rules);
void recordingFormat(Defaults& defaults, RecordingFormat format);
} // namespace settingsWrite

// The settings keyed by device UID, as the model holds them, for the migration after a
// device came back under a new UID.
struct UIDKeyedSettings {
    DeviceLabelStore& deviceLabels;
    ChildVolumes& childVolumes;
    PresetStore& presets;
    PresetStore& equalizers;
    std::vector<AppOutputRule>& appOutputRules;
    std::optional<std::string>& selectedDeviceUID;

    // Every UID these settings mention: output labels, child volumes, both preset stores'
    // children, the rules' outputs and the selection.
    std::set<std::string> knownUIDs() const;

    // Renames the stale UIDs of `mapping` everywhere and writes "deviceLabels",
    // "childVolumes", the four preset keys, "appOutputRules" and, when it changed,
    // "selectedDeviceUID". An empty mapping changes and writes nothing; answers whether it
    // did anything.
    bool migrate(const UIDMapping& mapping, Defaults& defaults);
};

} // namespace brightmix
