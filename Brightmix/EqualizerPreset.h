// The ten named equaliser presets: their stored raw values, display names, band gains, and
// the pre-gain that keeps a boosting preset from lifting any frequency above its input.
//
// Thread: any (constant tables and pure functions). Realtime-safe: no.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace brightmix {

// Raw value = case name; the order is the order of the gains table and of the menus.
enum class EqualizerPreset : std::uint8_t {
    flat,
    acoustic,
    bassBooster,
    dance,
    electronic,
    jazz,
    pop,
    rock,
    spokenWord,
    smallSpeakers,
};

inline constexpr EqualizerPreset kDefaultEqualizerPreset = EqualizerPreset::flat;

// Every preset, in order.
inline constexpr std::array<EqualizerPreset, 10> kAllEqualizerPresets = {
    EqualizerPreset::flat,         EqualizerPreset::acoustic,   EqualizerPreset::bassBooster,
    EqualizerPreset::dance,        EqualizerPreset::electronic, EqualizerPreset::jazz,
    EqualizerPreset::pop,          EqualizerPreset::rock,       EqualizerPreset::spokenWord,
    EqualizerPreset::smallSpeakers};

// Band gains in dB, 32 Hz first.
using EqualizerGains = std::array<float, 10>;

// The stored form: the case name ("bassBooster").
std::string_view rawValue(EqualizerPreset preset);

// The preset stored as `raw`, or none for any other text (case-sensitive).
std::optional<EqualizerPreset> equalizerPresetFromRawValue(std::string_view raw);

// What the user reads ("Bass Booster").
std::string_view displayName(EqualizerPreset preset);

const EqualizerGains& equalizerGains(EqualizerPreset preset);

// The pre-gain in dB that a slot playing `gains` gets: minus the largest boost of the summed
// curve at 44.1, 48 and 96 kHz, or 0 when nothing is boosted. The three rates are fixed so
// that the pre-gain does not depend on the device's actual rate.
float equalizerPreGainDb(const EqualizerGains& gains);
float equalizerPreGainDb(EqualizerPreset preset);

} // namespace brightmix
