// Loads the settings two ways from one input.
//
// As a settings file: the bytes go to the Linux reader, which must refuse them or read them
// without crashing, leaking or recursing without bound (the seeds nest 50,000 deep, and are
// long enough that libFuzzer's length limit admits such files); whatever it reads must load
// within range, and the file Brightmix would write of it must read back.
//
// As a domain: every key gets a value built from the input (any kind, nested), and
// "deviceLabels" / "appOutputRules" get arbitrary bytes or JSON-like text as Data, now and
// then nested far past the JSON bound. Loading must never throw, every field must land in its
// documented range, what is loaded must survive a write and a second load unchanged, and a UID
// migration over the loaded values must keep them loadable.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Brightmix/AppSettings.h"
#include "Brightmix/OutputPreset.h"
#include "platform/linux/settings/PropertyListFileDefaults.h"
#include "platform/sim/InMemoryDefaults.h"

namespace {

using brightmix::PropertyList;

class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::uint8_t byte() { return position_ < size_ ? data_[position_++] : 0; }
    bool atEnd() const { return position_ >= size_; }
    std::string text(std::size_t longest) {
        const std::size_t length = byte() % (longest + 1);
        std::string result;
        for (std::size_t i = 0; i < length; ++i) {
            const std::uint8_t c = byte();
            // Mostly a small alphabet so that UIDs and bundle IDs collide; sometimes any byte.
            result.push_back(c < 200 ? "AB_. wav"[c % 8] : static_cast<char>(c));
        }
        return result;
    }
    // JSON-ish text: structural characters, keys the decoders look for, and raw bytes.
    std::string json() {
        static const char* const kPieces[] = {"{",
                                              "}",
                                              "[",
                                              "]",
                                              ",",
                                              ":",
                                              "\"outputs\"",
                                              "\"inputs\"",
                                              "\"label\"",
                                              "\"originalName\"",
                                              "\"bundleID\"",
                                              "\"appName\"",
                                              "\"outputUID\"",
                                              "\"outputName\"",
                                              "\"A\"",
                                              "\"\"",
                                              "1",
                                              "null",
                                              "true",
                                              "\"\\u00e9\"",
                                              "\"\\ud800\""};
        const std::size_t count = byte() % 48;
        std::string result;
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint8_t c = byte();
            if (c < 220) {
                result += kPieces[c % (sizeof kPieces / sizeof kPieces[0])];
            } else if (c < 230) {
                // A run of openings, up to far past the nesting bound.
                const std::string_view opening = c % 2 == 0 ? "[" : "{\"outputs\":";
                for (std::size_t run = std::size_t{byte()} * 4; run > 0; --run)
                    result += opening;
            } else {
                result.push_back(static_cast<char>(byte()));
            }
        }
        return result;
    }
    PropertyList value(int depth) {
        switch (byte() % (depth > 0 ? 9 : 7)) {
        case 0:
            return PropertyList();
        case 1:
            return PropertyList::boolean(byte() & 1);
        case 2:
            return PropertyList::integer(static_cast<std::int8_t>(byte()));
        case 3: {
            const double choices[] = {0.0, -0.2,     0.5,       1.7, 90,  95,   500,
                                      NAN, INFINITY, -INFINITY, 70,  110, 1e308};
            return PropertyList::real(choices[byte() % 13]);
        }
        case 4:
            return PropertyList(text(6));
        case 5: {
            const std::string bytes = json();
            return PropertyList::data(PropertyList::Data(bytes.begin(), bytes.end()));
        }
        case 6:
            return PropertyList::unsignedInteger(byte());
        case 7: {
            PropertyList::Array items;
            for (std::size_t i = byte() % 4; i > 0; --i)
                items.push_back(value(depth - 1));
            return PropertyList(std::move(items));
        }
        default: {
            PropertyList::Dictionary entries;
            for (std::size_t i = byte() % 5; i > 0; --i) {
                entries.insert_or_assign(text(3), value(depth - 1));
            }
            return PropertyList(std::move(entries));
        }
        }
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t position_ = 0;
};

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "settings fuzzer: %s\n", what);
    std::abort();
}

void checkRanges(const brightmix::AppSettings& settings) {
    const auto inUnit = [](double v) { return v >= 0 && v <= 1; };
    if (!inUnit(settings.volume)) fail("volume out of range");
    bool isStep = false;
    for (double step : brightmix::kCrossoverFrequencies)
        isStep |= settings.crossoverFrequency == step;
    if (!isStep) fail("crossover is not one of the four steps");
    for (const auto& [uid, volume] : settings.childVolumes) {
        if (!inUnit(volume)) fail("child volume out of range");
    }
    std::set<std::string> seen;
    for (const auto& rule : settings.appOutputRules) {
        if (rule.bundleID.empty() || !seen.insert(rule.bundleID).second) {
            fail("a rule with an empty or repeated bundle ID was kept");
        }
    }
    if (settings.selectedDeviceUID && settings.selectedDeviceUID->empty()) {
        fail("an empty selection was kept");
    }
}

void checkSettingsFile(std::string_view bytes) {
    using brightmix::PropertyListFileDefaults;
    const std::optional<PropertyList::Dictionary> values = PropertyListFileDefaults::parse(bytes);
    if (!values) return;
    try {
        checkRanges(brightmix::AppSettings::load(brightmix::InMemoryDefaults(*values)));
    } catch (...) {
        fail("loading a settings file threw");
    }
    // Brightmix must never set aside a file it wrote itself (unless expanding shared binary
    // references made it too large to read).
    const std::string written = PropertyListFileDefaults::serialize(*values);
    if (written.size() <= PropertyListFileDefaults::kLargestFile &&
        !PropertyListFileDefaults::parse(written)) {
        fail("a file written from what was read cannot be read back");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace brightmix;
    checkSettingsFile(std::string_view(reinterpret_cast<const char*>(data), size));
    Reader reader(data, size);
    static const std::string_view kKeys[] = {settingsKey::volume,
                                             settingsKey::replaceSystemHUD,
                                             settingsKey::selectedDeviceUID,
                                             settingsKey::childVolumes,
                                             settingsKey::presetsByOutput,
                                             settingsKey::childPresets,
                                             settingsKey::equalizersByOutput,
                                             settingsKey::childEqualizers,
                                             settingsKey::crossoverFrequency,
                                             settingsKey::automaticallySwitchApps,
                                             settingsKey::useDeviceLabels,
                                             settingsKey::deviceLabels,
                                             settingsKey::appOutputRules,
                                             settingsKey::recordingFormat};
    PropertyList::Dictionary stored;
    for (std::string_view key : kKeys) {
        if (reader.byte() % 4 == 0) continue; // absent
        stored.insert_or_assign(std::string(key), reader.value(3));
    }

    AppSettings settings;
    try {
        settings = AppSettings::load(InMemoryDefaults(stored));
    } catch (...) {
        fail("loading threw");
    }
    checkRanges(settings);

    InMemoryDefaults written;
    settingsWrite::volume(written, settings.volume);
    settingsWrite::flag(written, settingsKey::replaceSystemHUD, settings.replaceSystemHUD);
    if (settings.selectedDeviceUID) {
        settingsWrite::selectedDeviceUID(written, *settings.selectedDeviceUID);
    }
    settingsWrite::childVolumes(written, settings.childVolumes);
    settingsWrite::presetsByOutput(written, settings.presets);
    written.set(settingsKey::childPresets, settings.presets.sharedPropertyList());
    settingsWrite::equalizersByOutput(written, settings.equalizers);
    written.set(settingsKey::childEqualizers, settings.equalizers.sharedPropertyList());
    settingsWrite::crossoverFrequency(written, settings.crossoverFrequency);
    settingsWrite::flag(written, settingsKey::automaticallySwitchApps,
                        settings.automaticallySwitchApps);
    settingsWrite::flag(written, settingsKey::useDeviceLabels, settings.useDeviceLabels);
    settingsWrite::deviceLabels(written, settings.deviceLabels);
    settingsWrite::appOutputRules(written, settings.appOutputRules);
    settingsWrite::recordingFormat(written, settings.recordingFormat);
    const AppSettings again = AppSettings::load(written);
    if (again != settings) fail("settings changed on a write and a second load");

    UIDMapping mapping;
    for (std::size_t i = reader.byte() % 4; i > 0; --i) {
        mapping.insert_or_assign(reader.text(3), reader.text(3));
    }
    UIDKeyedSettings keyed{settings.deviceLabels,   settings.childVolumes,
                           settings.presets,        settings.equalizers,
                           settings.appOutputRules, settings.selectedDeviceUID};
    InMemoryDefaults migrated(stored);
    keyed.migrate(mapping, migrated);
    checkRanges(AppSettings::load(migrated));
    return 0;
}
