// The speaker role tables and the crossover-frequency snapping.
#include "Brightmix/OutputPreset.h"

#include <cmath>

namespace brightmix {

namespace {

struct RoleEntry {
    std::string_view raw;
    std::string_view label;
    std::string_view descriptionPrefix;
    std::string_view descriptionSuffix; // empty: the description has no frequency
};

constexpr std::array<RoleEntry, 3> kRoles = {{
    {"fullRange", "Full range", "Receives everything.", ""},
    {"subwoofer", "Subwoofer (bass only)", "Only bass below ",
     " Hz reaches this output, left and right combined."},
    {"satellite", "Speakers (no bass)", "Bass below ", " Hz is left to the subwoofer."},
}};

const RoleEntry& entry(OutputPreset preset) {
    return kRoles[static_cast<std::size_t>(preset)];
}

// Whole hertz as text; frequencies outside any sensible range are shown clamped rather than
// overflowing the conversion.
std::string wholeHertz(double hz) {
    if (!std::isfinite(hz)) return hz > 0 ? "1000000" : "0";
    const double rounded = std::round(hz);
    if (rounded > 1e6) return "1000000";
    if (rounded < -1e6) return "-1000000";
    return std::to_string(static_cast<long long>(rounded));
}

} // namespace

std::string_view rawValue(OutputPreset preset) {
    return entry(preset).raw;
}

std::optional<OutputPreset> outputPresetFromRawValue(std::string_view raw) {
    for (OutputPreset preset : kAllOutputPresets)
        if (entry(preset).raw == raw) return preset;
    return std::nullopt;
}

std::string_view label(OutputPreset preset) {
    return entry(preset).label;
}

std::string description(OutputPreset preset, double crossoverHz) {
    const RoleEntry& role = entry(preset);
    if (role.descriptionSuffix.empty()) return std::string(role.descriptionPrefix);
    return std::string(role.descriptionPrefix) + wholeHertz(crossoverHz) +
           std::string(role.descriptionSuffix);
}

std::int32_t crossoverMode(OutputPreset preset) {
    return static_cast<std::int32_t>(preset);
}

bool usesMonoSum(OutputPreset preset) {
    return preset == OutputPreset::subwoofer;
}

double snapCrossoverFrequency(double hz) {
    // Strict comparisons, lowest step first: a tie keeps the lower step.
    double best = std::fabs(80.0 - hz) < std::fabs(60.0 - hz) ? 80.0 : 60.0;
    if (std::fabs(100.0 - hz) < std::fabs(best - hz)) best = 100.0;
    if (std::fabs(120.0 - hz) < std::fabs(best - hz)) best = 120.0;
    return best;
}

} // namespace brightmix
