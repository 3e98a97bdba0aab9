// The optimised render against the plain reference on random signals, shapes and parameter
// histories; and what the filters do to real signals.
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

#include "Brightmix/EqualizerPreset.h"
#include "Brightmix/OutputPreset.h"
#include "realtime/ProcessingState.h"
#include "tests/realtime/TestBufferList.h"
#include "tests/support/ReferenceRender.h"

namespace {

using brightmix::testing::BufferShape;
using brightmix::testing::ReferenceRender;
using brightmix::testing::ReferenceSlot;
using brightmix::testing::TestBufferList;

struct StateDeleter {
    void operator()(ProcessingState* state) const { ProcessingDestroy(state); }
};
using StatePointer = std::unique_ptr<ProcessingState, StateDeleter>;

// Sets one slot the same way in the state (through the public setters) and the reference.
void publish(ProcessingState* state, ReferenceRender& reference, uint32_t slot,
             const ReferenceSlot& s) {
    ProcessingSetSlotGain(state, slot, s.gain);
    ProcessingSetSourceChannel(state, slot, s.sourceChannel);
    ProcessingSetCrossover(state, slot, s.crossoverMode, s.crossoverHz);
    ProcessingSetMonoSum(state, slot, s.isMonoSum ? 1 : 0);
    ProcessingSetEqualizer(state, slot, s.eqGainDb.data(), 10, s.eqPreGainDb);
    reference.parameters.slots[slot] = s;
}

ReferenceSlot randomSlot(std::mt19937& random) {
    std::uniform_real_distribution<float> unit(0.0F, 1.0F);
    ReferenceSlot s;
    s.gain = unit(random) < 0.2F ? 1.0F : unit(random);
    s.sourceChannel = static_cast<uint32_t>(random() % 3);
    s.crossoverMode = static_cast<int32_t>(random() % 3);
    const float corners[] = {60.0F, 80.0F, 100.0F, 120.0F, 5.0F, 2000.0F, 30000.0F};
    s.crossoverHz = corners[random() % 7];
    s.isMonoSum = random() % 4 == 0;
    for (float& gain : s.eqGainDb)
        gain = unit(random) < 0.4F ? 0.0F : (unit(random) * 48.0F - 24.0F);
    const float pick = unit(random);
    s.eqPreGainDb = pick < 0.3F   ? 0.0F
                    : pick < 0.6F ? brightmix::equalizerPreGainDb(s.eqGainDb)
                                  : -12.0F * unit(random);
    return s;
}

// Equal within a hair: the render flushes filter state below 1e-30, which the reference
// does not, and nothing else may differ.
void expectSameOutput(const TestBufferList& actual, const TestBufferList& expected, int cycle) {
    for (size_t b = 0; b < actual.size(); ++b) {
        const auto& a = actual.samples(b);
        const auto& e = expected.samples(b);
        ASSERT_EQ(a.size(), e.size());
        for (size_t i = 0; i < a.size(); ++i) {
            if (std::isnan(e[i])) {
                ASSERT_TRUE(std::isnan(a[i]))
                    << "cycle " << cycle << " buffer " << b << " sample " << i;
                continue;
            }
            const float tolerance = std::max(1e-25F, std::fabs(e[i]) * 2e-7F);
            ASSERT_NEAR(a[i], e[i], tolerance)
                << "cycle " << cycle << " buffer " << b << " sample " << i;
        }
    }
}

std::vector<BufferShape> randomOutputShapes(std::mt19937& random, uint32_t frames) {
    std::vector<BufferShape> shapes;
    const uint32_t count = 1 + static_cast<uint32_t>(random() % 8);
    const uint32_t channelChoices[] = {1, 1, 1, 2, 2, 3, 10};
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t channels = channelChoices[random() % 7];
        // Mostly the input's length; sometimes longer (zero tail) or shorter.
        const uint32_t lengths[] = {frames, frames, frames + 17, frames / 2 + 1};
        shapes.push_back({channels, lengths[random() % 4]});
    }
    return shapes;
}

TestBufferList randomInput(std::mt19937& random, uint32_t frames) {
    switch (random() % 4) {
    case 0: {
        TestBufferList input{{1, frames}, {1, frames}};
        input.fillRandom(random, 0.9F);
        return input;
    }
    case 1: {
        TestBufferList input{{1, frames}};
        input.fillRandom(random, 0.9F);
        return input;
    }
    case 2: {
        TestBufferList input{{4, frames}};
        input.fillRandom(random, 0.9F);
        return input;
    }
    default: {
        TestBufferList input{{2, frames}};
        input.fillRandom(random, 0.9F);
        return input;
    }
    }
}

TEST(ProcessingRender, MatchesTheReferenceOverRandomHistories) {
    std::mt19937 random(20240611);
    for (int run = 0; run < 40; ++run) {
        StatePointer state(ProcessingCreate(0.8F));
        ReferenceRender reference;
        reference.parameters.masterGain = 0.8F;
        const uint32_t frames = 1 + static_cast<uint32_t>(random() % 700);
        const std::vector<BufferShape> shapes = randomOutputShapes(random, frames);
        for (uint32_t slot = 0; slot < shapes.size(); ++slot)
            publish(state.get(), reference, slot, randomSlot(random));
        for (int cycle = 0; cycle < 12; ++cycle) {
            // Between cycles, change what the control side would change.
            switch (random() % 8) {
            case 0: {
                const uint32_t slot = static_cast<uint32_t>(random() % shapes.size());
                publish(state.get(), reference, slot, randomSlot(random));
                break;
            }
            case 1:
                ProcessingResetSlots(state.get());
                reference.resetSlots();
                break;
            case 2: {
                const double rates[] = {44100.0, 48000.0, 96000.0, 32000.0};
                const double rate = rates[random() % 4];
                ProcessingSetSampleRate(state.get(), rate);
                reference.parameters.sampleRate = rate;
                break;
            }
            case 3: {
                const float master = static_cast<float>(random() % 100) / 100.0F;
                ProcessingSetMasterGain(state.get(), master);
                reference.parameters.masterGain = master;
                break;
            }
            default:
                break;
            }
            TestBufferList input = randomInput(random, frames);
            TestBufferList actual(shapes);
            TestBufferList expected(shapes);
            actual.fill(7.0F);
            expected.fill(7.0F);
            ProcessingRender(input.list(), actual.list(), state.get());
            reference.render(input.list(), expected.list());
            expectSameOutput(actual, expected, cycle);
            if (HasFatalFailure()) return;
        }
        EXPECT_EQ(ProcessingRenderCycles(state.get()), reference.renderCycles);
        EXPECT_EQ(ProcessingSignalCycles(state.get()), reference.signalCycles);
        EXPECT_FLOAT_EQ(ProcessingTakeInputPeak(state.get()), reference.inputPeak);
        EXPECT_FLOAT_EQ(ProcessingTakeOutputPeak(state.get()), reference.outputPeak);
        for (uint32_t slot = 0; slot < shapes.size(); ++slot)
            EXPECT_FLOAT_EQ(ProcessingTakeSlotPeak(state.get(), slot), reference.slotPeak[slot]);
    }
}

TEST(ProcessingRender, MatchesTheReferenceForSixtyFourFilteredMonoSlots) {
    std::mt19937 random(99);
    StatePointer state(ProcessingCreate(1.0F));
    ReferenceRender reference;
    for (uint32_t slot = 0; slot < 64; ++slot) {
        ReferenceSlot s = randomSlot(random);
        s.crossoverMode = 1 + static_cast<int32_t>(slot % 2);
        s.crossoverHz = 80.0F;
        for (float& gain : s.eqGainDb)
            gain = std::uniform_real_distribution<float>(-12, 12)(random);
        publish(state.get(), reference, slot, s);
    }
    auto actual = TestBufferList::uniform(64, {1, 512});
    auto expected = TestBufferList::uniform(64, {1, 512});
    for (int cycle = 0; cycle < 20; ++cycle) {
        TestBufferList input{{2, 512}};
        input.fillRandom(random, 0.5F);
        ProcessingRender(input.list(), actual.list(), state.get());
        reference.render(input.list(), expected.list());
        expectSameOutput(actual, expected, cycle);
        if (HasFatalFailure()) return;
    }
}

// Peak of a steady sine through one slot with the given settings, after the filters settle.
float steadyPeak(const ReferenceSlot& settings, double hz, float amplitude) {
    StatePointer state(ProcessingCreate(1.0F));
    ReferenceRender unused;
    publish(state.get(), unused, 0, settings);
    const uint32_t frames = 4800;
    float peak = 0.0F;
    for (uint64_t cycle = 0; cycle < 30; ++cycle) {
        TestBufferList input{{2, frames}};
        input.fillSine(hz, 48000.0, amplitude, cycle * frames);
        TestBufferList output{{2, frames}};
        ProcessingRender(input.list(), output.list(), state.get());
        if (cycle < 20) continue; // two seconds to settle
        for (float x : output.samples(0))
            peak = std::max(peak, std::fabs(x));
    }
    return peak;
}

TEST(ProcessingRender, BoostingPresetsWithTheirPreGainNeverLiftASine) {
    using brightmix::EqualizerPreset;
    for (EqualizerPreset preset : {EqualizerPreset::pop, EqualizerPreset::bassBooster,
                                   EqualizerPreset::smallSpeakers, EqualizerPreset::electronic}) {
        ReferenceSlot settings;
        settings.eqGainDb = brightmix::equalizerGains(preset);
        settings.eqPreGainDb = brightmix::equalizerPreGainDb(preset);
        for (double hz = 25.0; hz < 18000.0; hz *= 1.19) {
            // A hair: the boost is searched on a twentieth-octave grid.
            EXPECT_LE(steadyPeak(settings, hz, 0.5F), 0.5F * 1.003F)
                << brightmix::rawValue(preset) << " at " << hz << " Hz";
        }
    }
}

TEST(ProcessingRender, SubwooferAndSatelliteSplitASignalBetweenThem) {
    ReferenceSlot subwoofer;
    subwoofer.crossoverMode = brightmix::crossoverMode(brightmix::OutputPreset::subwoofer);
    subwoofer.isMonoSum = true;
    ReferenceSlot satellite;
    satellite.crossoverMode = brightmix::crossoverMode(brightmix::OutputPreset::satellite);
    // Two octaves from an 80 Hz corner the other side is 24 dB down per octave: 48 dB.
    EXPECT_NEAR(steadyPeak(subwoofer, 20.0, 0.5F), 0.5F, 0.01F);
    EXPECT_LT(steadyPeak(subwoofer, 320.0, 0.5F), 0.5F * 0.0045F);
    EXPECT_NEAR(steadyPeak(satellite, 320.0, 0.5F), 0.5F, 0.01F);
    EXPECT_LT(steadyPeak(satellite, 20.0, 0.5F), 0.5F * 0.0045F);
    // At the corner each half carries half the amplitude.
    EXPECT_NEAR(steadyPeak(subwoofer, 80.0, 0.5F), 0.25F, 0.005F);
    EXPECT_NEAR(steadyPeak(satellite, 80.0, 0.5F), 0.25F, 0.005F);
}

} // namespace
