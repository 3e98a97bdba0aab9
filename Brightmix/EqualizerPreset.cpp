// The equaliser preset tables.
#include "Brightmix/EqualizerPreset.h"

#include <algorithm>

#include "realtime/ProcessingState.h"

namespace brightmix {

namespace {

struct PresetEntry {
    std::string_view raw;
    std::string_view name;
    EqualizerGains gains;
};

// Single-precision values of exactly these decimals.
constexpr std::array<PresetEntry, 10> kPresets = {{
    {"flat", "Flat", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"acoustic", "Acoustic", {5.0F, 4.9F, 4.0F, 1.5F, 2.0F, 1.7F, 3.5F, 4.1F, 3.6F, 2.0F}},
    {"bassBooster", "Bass Booster", {5.5F, 4.3F, 3.6F, 2.5F, 1.2F, 0, 0, 0, 0, 0}},
    {"dance", "Dance", {5.8F, 4.3F, 2.3F, 0, 0, -3.4F, -4.4F, -4.4F, 0, 0}},
    {"electronic", "Electronic", {4.8F, 4.4F, 1.6F, 0, -2.1F, 2.4F, 0.9F, 1.4F, 4.4F, 5.0F}},
    {"jazz", "Jazz", {4.0F, 3.0F, 1.5F, 2.2F, -1.6F, -1.6F, 0, 1.4F, 3.1F, 3.9F}},
    {"pop", "Pop", {-1.6F, -1.0F, 0, 2.1F, 4.1F, 4.1F, 2.1F, 0, -1.6F, -1.6F}},
    {"rock", "Rock", {5.0F, 4.0F, 3.0F, 1.5F, -0.5F, -1.0F, 0.5F, 2.5F, 3.5F, 4.5F}},
    {"spokenWord", "Spoken Word", {-3.4F, -0.5F, 0, 0.7F, 3.5F, 4.6F, 4.8F, 4.3F, 2.5F, 0}},
    {"smallSpeakers",
     "Small Speakers",
     {5.5F, 4.3F, 3.6F, 2.5F, 1.2F, 0, -1.2F, -2.5F, -3.6F, -4.3F}},
}};

const PresetEntry& entry(EqualizerPreset preset) {
    return kPresets[static_cast<std::size_t>(preset)];
}

} // namespace

std::string_view rawValue(EqualizerPreset preset) {
    return entry(preset).raw;
}

std::optional<EqualizerPreset> equalizerPresetFromRawValue(std::string_view raw) {
    for (EqualizerPreset preset : kAllEqualizerPresets)
        if (entry(preset).raw == raw) return preset;
    return std::nullopt;
}

std::string_view displayName(EqualizerPreset preset) {
    return entry(preset).name;
}

const EqualizerGains& equalizerGains(EqualizerPreset preset) {
    return entry(preset).gains;
}

float equalizerPreGainDb(const EqualizerGains& gains) {
    float boost = 0.0F;
    for (double rate : {44100.0, 48000.0, 96000.0})
        boost = std::max(boost, EqualizerPeakBoost(gains.data(), rate));
    return -boost;
}

float equalizerPreGainDb(EqualizerPreset preset) {
    return equalizerPreGainDb(equalizerGains(preset));
}

} // namespace brightmix
