// The speaker role of one output (full range, subwoofer, satellite), its user-facing texts,
// what it asks of the processing state, and the app-wide crossover frequency it splits at.
//
// Thread: any (constant tables and pure functions). Realtime-safe: no.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace brightmix {

// Raw value = case name; the underlying value is the CrossoverMode the role asks for.
enum class OutputPreset : std::int32_t {
    fullRange = 0,
    subwoofer = 1,
    satellite = 2,
};

inline constexpr OutputPreset kDefaultOutputPreset = OutputPreset::fullRange;

inline constexpr std::array<OutputPreset, 3> kAllOutputPresets = {
    OutputPreset::fullRange, OutputPreset::subwoofer, OutputPreset::satellite};

// The crossover frequencies the user can choose from, in Hz, and the default.
inline constexpr std::array<double, 4> kCrossoverFrequencies = {60.0, 80.0, 100.0, 120.0};
inline constexpr double kDefaultCrossoverFrequency = 80.0;

// The stored form: the case name ("subwoofer").
std::string_view rawValue(OutputPreset preset);

// The role stored as `raw`, or none for any other text (case-sensitive).
std::optional<OutputPreset> outputPresetFromRawValue(std::string_view raw);

// "Subwoofer (bass only)".
std::string_view label(OutputPreset preset);

// The role explained, with the crossover frequency rounded to whole hertz:
// "Only bass below 80 Hz reaches this output, left and right combined."
std::string description(OutputPreset preset, double crossoverHz);

// The CrossoverMode handed to ProcessingSetCrossover (0 none, 1 low-pass, 2 high-pass).
std::int32_t crossoverMode(OutputPreset preset);

// Whether the role's slots receive (left + right) / 2: only the subwoofer's.
bool usesMonoSum(OutputPreset preset);

// The nearest of the four crossover frequencies; a value exactly between two goes to the
// lower one (70 -> 60, 90 -> 80, 110 -> 100). Anything else, NaN included, lands on one of
// the four.
double snapCrossoverFrequency(double hz);

} // namespace brightmix
