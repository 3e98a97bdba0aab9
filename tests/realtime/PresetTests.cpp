// Equaliser presets and speaker roles: stored names, texts, tables and the two rules
// (pre-gain, crossover snapping).
#include <cmath>
#include <gtest/gtest.h>
#include <set>
#include <string>

#include "Brightmix/EqualizerPreset.h"
#include "Brightmix/OutputPreset.h"
#include "realtime/ProcessingState.h"

namespace {

using namespace brightmix;

TEST(EqualizerPreset, RawValuesAndNamesInOrder) {
    const char* raw[] = {"flat", "acoustic", "bassBooster", "dance",      "electronic",
                         "jazz", "pop",      "rock",        "spokenWord", "smallSpeakers"};
    const char* names[] = {"Flat", "Acoustic", "Bass Booster", "Dance",       "Electronic",
                           "Jazz", "Pop",      "Rock",         "Spoken Word", "Small Speakers"};
    for (size_t i = 0; i < kAllEqualizerPresets.size(); ++i) {
        const EqualizerPreset preset = kAllEqualizerPresets[i];
        EXPECT_EQ(static_cast<size_t>(preset), i);
        EXPECT_EQ(rawValue(preset), raw[i]);
        EXPECT_EQ(displayName(preset), names[i]);
        EXPECT_EQ(equalizerPresetFromRawValue(raw[i]), preset);
    }
    EXPECT_EQ(kDefaultEqualizerPreset, EqualizerPreset::flat);
}

TEST(EqualizerPreset, UnknownRawValuesParseToNothing) {
    for (const char* text : {"", "Flat", "bass booster", "flat ", "smallspeakers", "none"})
        EXPECT_FALSE(equalizerPresetFromRawValue(text).has_value()) << text;
}

TEST(EqualizerPreset, GainsAreTheSinglePrecisionDecimals) {
    EXPECT_EQ(equalizerGains(EqualizerPreset::flat), EqualizerGains{});
    const EqualizerGains& acoustic = equalizerGains(EqualizerPreset::acoustic);
    EXPECT_EQ(acoustic[1], 4.9F);
    EXPECT_EQ(acoustic[5], 1.7F);
    const EqualizerGains& dance = equalizerGains(EqualizerPreset::dance);
    EXPECT_EQ(dance[0], 5.8F);
    EXPECT_EQ(dance[5], -3.4F);
    EXPECT_EQ(dance[9], 0.0F);
    const EqualizerGains& small = equalizerGains(EqualizerPreset::smallSpeakers);
    EXPECT_EQ(small[9], -4.3F);
    const EqualizerGains& spoken = equalizerGains(EqualizerPreset::spokenWord);
    EXPECT_EQ(spoken[6], 4.8F);
    for (EqualizerPreset preset : kAllEqualizerPresets)
        for (float gain : equalizerGains(preset))
            EXPECT_LE(std::fabs(gain), 24.0F);
}

TEST(EqualizerPreset, PreGainIsMinusTheLargestBoostOverTheThreeRates) {
    EXPECT_EQ(equalizerPreGainDb(EqualizerPreset::flat), 0.0F);
    for (EqualizerPreset preset : kAllEqualizerPresets) {
        const float* gains = equalizerGains(preset).data();
        const float expected =
            -std::max({0.0F, EqualizerPeakBoost(gains, 44100.0), EqualizerPeakBoost(gains, 48000.0),
                       EqualizerPeakBoost(gains, 96000.0)});
        EXPECT_EQ(equalizerPreGainDb(preset), expected) << rawValue(preset);
    }
    // Overlapping +4.1 dB bands sum to more than 4.1 dB of boost.
    EXPECT_LT(equalizerPreGainDb(EqualizerPreset::pop), -4.1F);
    // Small Speakers is led by its 5.5 dB bass boost.
    EXPECT_LE(equalizerPreGainDb(EqualizerPreset::smallSpeakers), -5.5F);
    // A preset that only cuts needs no headroom.
    EXPECT_EQ(equalizerPreGainDb(EqualizerGains{-3, -3, 0, 0, 0, 0, 0, 0, 0, -1}), 0.0F);
}

TEST(OutputPreset, RawValuesLabelsAndModes) {
    const struct {
        OutputPreset preset;
        const char* raw;
        const char* label;
        int32_t mode;
        bool isMonoSum;
    } roles[] = {
        {OutputPreset::fullRange, "fullRange", "Full range", 0, false},
        {OutputPreset::subwoofer, "subwoofer", "Subwoofer (bass only)", 1, true},
        {OutputPreset::satellite, "satellite", "Speakers (no bass)", 2, false},
    };
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(kAllOutputPresets[i], roles[i].preset);
        EXPECT_EQ(rawValue(roles[i].preset), roles[i].raw);
        EXPECT_EQ(label(roles[i].preset), roles[i].label);
        EXPECT_EQ(crossoverMode(roles[i].preset), roles[i].mode);
        EXPECT_EQ(crossoverMode(roles[i].preset), i == 0   ? kCrossoverModeNone
                                                  : i == 1 ? kCrossoverModeLowPass
                                                           : kCrossoverModeHighPass);
        EXPECT_EQ(usesMonoSum(roles[i].preset), roles[i].isMonoSum);
        EXPECT_EQ(outputPresetFromRawValue(roles[i].raw), roles[i].preset);
    }
    for (const char* text : {"", "Subwoofer", "full range", "satellites"})
        EXPECT_FALSE(outputPresetFromRawValue(text).has_value()) << text;
    EXPECT_EQ(kDefaultOutputPreset, OutputPreset::fullRange);
}

TEST(OutputPreset, DescriptionsCarryTheRoundedFrequency) {
    EXPECT_EQ(description(OutputPreset::fullRange, 80.0), "Receives everything.");
    EXPECT_EQ(description(OutputPreset::subwoofer, 80.0),
              "Only bass below 80 Hz reaches this output, left and right combined.");
    EXPECT_EQ(description(OutputPreset::satellite, 120.0),
              "Bass below 120 Hz is left to the subwoofer.");
    EXPECT_EQ(description(OutputPreset::satellite, 99.6),
              "Bass below 100 Hz is left to the subwoofer.");
    EXPECT_EQ(description(OutputPreset::subwoofer, 60.4),
              "Only bass below 60 Hz reaches this output, left and right combined.");
}

TEST(OutputPreset, CrossoverFrequencySnapsToTheNearestStepTiesGoingLower) {
    const struct {
        double given;
        double snapped;
    } cases[] = {{60, 60},   {80, 80},     {100, 100},  {120, 120}, {0, 60},
                 {-50, 60},  {70, 60},     {70.01, 80}, {90, 80},   {95, 100},
                 {110, 100}, {110.5, 120}, {500, 120},  {79, 80},   {std::nan(""), 60}};
    for (const auto& c : cases)
        EXPECT_EQ(snapCrossoverFrequency(c.given), c.snapped) << c.given;
    EXPECT_EQ(kDefaultCrossoverFrequency, 80.0);
    for (double step : kCrossoverFrequencies)
        EXPECT_EQ(snapCrossoverFrequency(step), step);
}

} // namespace
