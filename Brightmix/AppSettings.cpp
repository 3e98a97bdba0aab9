#include "Brightmix/AppSettings.h"

#include <cmath>
#include <utility>

#include "Brightmix/OutputPreset.h"

namespace brightmix {

namespace {

std::optional<std::string_view> dataAsText(const std::optional<PropertyList>& value) {
    if (!value) return std::nullopt;
    const PropertyList::Data* bytes = value->asData();
    if (bytes == nullptr) return std::nullopt;
    return std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size());
}

PropertyList textAsData(const std::string& text) {
    return PropertyList::data(PropertyList::Data(text.begin(), text.end()));
}

} // namespace

double clampedUnit(double value) {
    if (std::isnan(value) || value < 0) return 0;
    return value > 1 ? 1 : value;
}

namespace settingsLoad {

double volume(const std::optional<PropertyList>& value) {
    if (!value) return AppSettings::kDefaultVolume;
    const std::optional<double> number = value->asNumber();
    return number ? clampedUnit(*number) : AppSettings::kDefaultVolume;
}

bool replaceSystemHUD(const std::optional<PropertyList>& value) {
    if (!value) return true;
    if (const std::optional<double> number = value->asNumber()) return *number != 0;
    return true;
}

std::optional<std::string> selectedDeviceUID(const std::optional<PropertyList>& value) {
    if (!value) return std::nullopt;
    const std::string* text = value->asString();
    if (text == nullptr || text->empty()) return std::nullopt;
    return *text;
}

ChildVolumes childVolumes(const std::optional<PropertyList>& value) {
    ChildVolumes volumes;
    if (!value) return volumes;
    if (const PropertyList::Dictionary* entries = value->asDictionary()) {
        for (const auto& [uid, entry] : *entries) {
            if (const std::optional<double> number = entry.asNumber()) {
                volumes.emplace(uid, clampedUnit(*number));
            }
        }
    }
    return volumes;
}

double crossoverFrequency(const std::optional<PropertyList>& value) {
    if (!value) return AppSettings::kDefaultCrossoverFrequency;
    const std::optional<double> number = value->asNumber();
    return number ? snapCrossoverFrequency(*number) : AppSettings::kDefaultCrossoverFrequency;
}

bool useDeviceLabels(const std::optional<PropertyList>& value) {
    if (!value) return true;
    return value->asBoolean().value_or(true);
}

DeviceLabelStore deviceLabels(const std::optional<PropertyList>& value) {
    const std::optional<std::string_view> json = dataAsText(value);
    if (!json) return {};
    return decodeDeviceLabels(*json).value_or(DeviceLabelStore{});
}

std::vector<AppOutputRule> appOutputRules(const std::optional<PropertyList>& value) {
    const std::optional<std::string_view> json = dataAsText(value);
    if (!json) return {};
    try {
        return cleanedAppOutputRules(decodeAppOutputRules(*json));
    } catch (const AppOutputRuleDecodingError&) {
        return {};
    }
}

RecordingFormat recordingFormat(const std::optional<PropertyList>& value) {
    if (value) {
        if (const std::string* text = value->asString()) {
            return recordingFormatFromRawValue(*text).value_or(RecordingFormat::m4a);
        }
    }
    return RecordingFormat::m4a;
}

} // namespace settingsLoad

std::vector<AppOutputRule> cleanedAppOutputRules(std::vector<AppOutputRule> rules) {
    std::vector<AppOutputRule> kept;
    std::set<std::string, std::less<>> seen;
    for (AppOutputRule& rule : rules) {
        if (rule.bundleID.empty() || !seen.insert(rule.bundleID).second) continue;
        kept.push_back(std::move(rule));
    }
    return kept;
}

AppSettings AppSettings::load(const Defaults& defaults) {
    AppSettings settings;
    settings.recordingFormat =
        settingsLoad::recordingFormat(defaults.get(settingsKey::recordingFormat));
    settings.volume = settingsLoad::volume(defaults.get(settingsKey::volume));
    settings.replaceSystemHUD =
        settingsLoad::replaceSystemHUD(defaults.get(settingsKey::replaceSystemHUD));
    settings.selectedDeviceUID =
        settingsLoad::selectedDeviceUID(defaults.get(settingsKey::selectedDeviceUID));
    settings.childVolumes = settingsLoad::childVolumes(defaults.get(settingsKey::childVolumes));
    settings.presets = PresetStore::load(defaults.get(settingsKey::presetsByOutput),
                                         defaults.get(settingsKey::childPresets));
    settings.equalizers = PresetStore::load(defaults.get(settingsKey::equalizersByOutput),
                                            defaults.get(settingsKey::childEqualizers));
    settings.crossoverFrequency =
        settingsLoad::crossoverFrequency(defaults.get(settingsKey::crossoverFrequency));
    settings.automaticallySwitchApps = defaults.boolForKey(settingsKey::automaticallySwitchApps);
    settings.useDeviceLabels =
        settingsLoad::useDeviceLabels(defaults.get(settingsKey::useDeviceLabels));
    settings.deviceLabels = settingsLoad::deviceLabels(defaults.get(settingsKey::deviceLabels));
    settings.appOutputRules =
        settingsLoad::appOutputRules(defaults.get(settingsKey::appOutputRules));
    return settings;
}

namespace settingsWrite {

void volume(Defaults& defaults, double volume) {
    defaults.set(settingsKey::volume, PropertyList::real(clampedUnit(volume)));
}

void flag(Defaults& defaults, std::string_view key, bool value) {
    defaults.set(key, PropertyList::boolean(value));
}

void selectedDeviceUID(Defaults& defaults, const std::string& uid) {
    if (!uid.empty()) defaults.set(settingsKey::selectedDeviceUID, PropertyList(uid));
}

void childVolumes(Defaults& defaults, const ChildVolumes& volumes) {
    PropertyList::Dictionary entries;
    for (const auto& [uid, volume] : volumes)
        entries.emplace(uid, PropertyList::real(volume));
    defaults.set(settingsKey::childVolumes, PropertyList(std::move(entries)));
}

void presetsByOutput(Defaults& defaults, const PresetStore& presets) {
    defaults.set(settingsKey::presetsByOutput, presets.scopedPropertyList());
}

void equalizersByOutput(Defaults& defaults, const PresetStore& equalizers) {
    defaults.set(settingsKey::equalizersByOutput, equalizers.scopedPropertyList());
}

void crossoverFrequency(Defaults& defaults, double hertz) {
    defaults.set(settingsKey::crossoverFrequency,
                 PropertyList::real(snapCrossoverFrequency(hertz)));
}

void deviceLabels(Defaults& defaults, const DeviceLabelStore& labels) {
    defaults.set(settingsKey::deviceLabels, textAsData(encodeDeviceLabels(labels)));
}

void appOutputRules(Defaults& defaults, const std::vector<AppOutputRule>& rules) {
    defaults.set(settingsKey::appOutputRules, textAsData(encodeAppOutputRules(rules)));
}

void recordingFormat(Defaults& defaults, RecordingFormat format) {
    defaults.set(settingsKey::recordingFormat, PropertyList(std::string(rawValue(format))));
}

} // namespace settingsWrite

std::set<std::string> UIDKeyedSettings::knownUIDs() const {
    std::set<std::string> uids;
    for (const auto& [uid, label] : deviceLabels.outputs)
        uids.insert(uid);
    for (const auto& [uid, volume] : childVolumes)
        uids.insert(uid);
    for (const std::string& uid : presets.allChildUIDs())
        uids.insert(uid);
    for (const std::string& uid : equalizers.allChildUIDs())
        uids.insert(uid);
    for (const AppOutputRule& rule : appOutputRules)
        uids.insert(rule.outputUID);
    if (selectedDeviceUID) uids.insert(*selectedDeviceUID);
    return uids;
}

bool UIDKeyedSettings::migrate(const UIDMapping& mapping, Defaults& defaults) {
    if (mapping.empty()) return false;
    deviceLabels.remap(mapping);
    remapKeys(childVolumes, mapping);
    presets.remap(mapping);
    equalizers.remap(mapping);
    for (AppOutputRule& rule : appOutputRules) {
        if (const auto found = mapping.find(rule.outputUID); found != mapping.end()) {
            rule.outputUID = found->second;
        }
    }
    if (selectedDeviceUID) {
        if (const auto found = mapping.find(*selectedDeviceUID); found != mapping.end()) {
            selectedDeviceUID = found->second;
            settingsWrite::selectedDeviceUID(defaults, *selectedDeviceUID);
        }
    }
    settingsWrite::deviceLabels(defaults, deviceLabels);
    settingsWrite::childVolumes(defaults, childVolumes);
    settingsWrite::presetsByOutput(defaults, presets);
    defaults.set(settingsKey::childPresets, presets.sharedPropertyList());
    settingsWrite::equalizersByOutput(defaults, equalizers);
    defaults.set(settingsKey::childEqualizers, equalizers.sharedPropertyList());
    settingsWrite::appOutputRules(defaults, appOutputRules);
    return true;
}

} // namespace brightmix
