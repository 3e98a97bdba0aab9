// A deliberately plain renderer of the processing path: frame by frame, channel by channel,
// in the documented order, in double precision, with its own copy of the parameters. The
// tests check the optimised ProcessingRender against it and the benchmark times the two side
// by side. It is not real-time safe and is not meant to be fast.
//
// Thread: one test thread. Realtime-safe: no.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "realtime/CoreAudioShapes.h"
#include "realtime/FilterDesign.h"

namespace brightmix::testing {

// The settings of one slot, already in the form the processing state stores them (valid
// crossover mode, clamped gains).
struct ReferenceSlot {
    float gain = 1.0F;
    std::uint32_t sourceChannel = 0;
    std::int32_t crossoverMode = 0;
    float crossoverHz = 80.0F;
    bool isMonoSum = false;
    std::array<float, 10> eqGainDb{};
    float eqPreGainDb = 0.0F;
};

struct ReferenceParameters {
    ReferenceParameters();
    float masterGain = 1.0F;
    double sampleRate = 48000.0;
    std::array<ReferenceSlot, 64> slots;
};

class ReferenceRender {
public:
    ReferenceRender();

    // Edited freely between cycles; read once per slot per cycle.
    ReferenceParameters parameters;

    // Slots back to their defaults and a reset of every filter state at the next cycle.
    void resetSlots();

    void render(const AudioBufferList* input, AudioBufferList* output);

    float inputPeak = 0.0F;
    float outputPeak = 0.0F;
    std::array<float, 64> slotPeak{};
    std::uint64_t renderCycles = 0;
    std::uint64_t signalCycles = 0;

private:
    struct Crossover {
        std::int32_t mode = 0;
        float hz = 0.0F;
        double sampleRate = 0.0;
        BiquadCoefficients coefficients{};
        double state[8][2][2] = {};
    };
    struct Equalizer {
        bool isActive = false;
        std::array<float, 10> gainDb{};
        float preGainDb = 0.0F;
        double sampleRate = 0.0;
        float preGainLinear = 0.0F;
        BiquadCoefficients bands[10] = {};
        double state[8][10][2] = {};
    };

    void updateCrossover(std::uint32_t slot, bool reset);
    void updateEqualizer(std::uint32_t slot, bool reset);

    bool isResetPending_ = false;
    std::vector<Crossover> crossover_;
    std::vector<Equalizer> equalizer_;
};

} // namespace brightmix::testing
