// Cost of one render cycle for the shapes the router meets, next to the plain reference
// renderer on the same work. Counters: ns per channel-sample, and the share of one core that
// rendering in real time at 48 kHz would take.
#include <benchmark/benchmark.h>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "Brightmix/EqualizerPreset.h"
#include "Brightmix/OutputPreset.h"
#include "realtime/ProcessingState.h"
#include "tests/realtime/TestBufferList.h"
#include "tests/support/ReferenceRender.h"

namespace {

using brightmix::EqualizerPreset;
using brightmix::OutputPreset;
using brightmix::testing::BufferShape;
using brightmix::testing::ReferenceRender;
using brightmix::testing::ReferenceSlot;
using brightmix::testing::TestBufferList;

constexpr uint32_t kFrames = 512;
constexpr double kRate = 48000.0;

struct StateDeleter {
    void operator()(ProcessingState* state) const { ProcessingDestroy(state); }
};

// One slot's settings in the form both renderers take.
ReferenceSlot slotSettings(OutputPreset role, EqualizerPreset preset) {
    ReferenceSlot s;
    s.crossoverMode = brightmix::crossoverMode(role);
    s.crossoverHz = 80.0F;
    s.isMonoSum = brightmix::usesMonoSum(role);
    s.eqGainDb = brightmix::equalizerGains(preset);
    s.eqPreGainDb = brightmix::equalizerPreGainDb(preset);
    return s;
}

// A configured pair of renderers and the buffers of one cycle.
struct Scene {
    std::unique_ptr<ProcessingState, StateDeleter> state{ProcessingCreate(0.8F)};
    ReferenceRender reference;
    TestBufferList input{{2, kFrames}};
    TestBufferList output;
    uint64_t channelSamples = 0;

    Scene(const std::vector<BufferShape>& shapes, const std::vector<ReferenceSlot>& slots)
        : output(shapes) {
        reference.parameters.masterGain = 0.8F;
        for (uint32_t slot = 0; slot < slots.size(); ++slot) {
            const ReferenceSlot& s = slots[slot];
            ProcessingSetSlotGain(state.get(), slot, s.gain);
            ProcessingSetSourceChannel(state.get(), slot, s.sourceChannel);
            ProcessingSetCrossover(state.get(), slot, s.crossoverMode, s.crossoverHz);
            ProcessingSetMonoSum(state.get(), slot, s.isMonoSum ? 1 : 0);
            ProcessingSetEqualizer(state.get(), slot, s.eqGainDb.data(), 10, s.eqPreGainDb);
            reference.parameters.slots[slot] = s;
        }
        for (const BufferShape& shape : shapes)
            channelSamples += uint64_t{shape.channels} * shape.frames;
        std::mt19937 random(5);
        input.fillRandom(random, 0.5F);
    }
};

void report(benchmark::State& run, const Scene& scene) {
    using benchmark::Counter;
    // Inverted rates: seconds per item, scaled so that the figure reads in ns, and in percent
    // of the audio time a cycle stands for.
    run.counters["ns/ch-sample"] = Counter(static_cast<double>(scene.channelSamples) * 1e-9,
                                           Counter::kIsIterationInvariantRate | Counter::kInvert);
    run.counters["core%@48k"] =
        Counter(kFrames / kRate / 100.0, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

Scene twoStereoFlat() {
    return Scene({{2, kFrames}, {2, kFrames}}, {ReferenceSlot{}, ReferenceSlot{}});
}

Scene twoStereoRoles() {
    return Scene({{2, kFrames}, {2, kFrames}},
                 {slotSettings(OutputPreset::subwoofer, EqualizerPreset::bassBooster),
                  slotSettings(OutputPreset::satellite, EqualizerPreset::pop)});
}

// Acoustic boosts every band, so all ten run, and the roles alternate low- and high-pass.
Scene sixtyFourMonoAllBands() {
    std::vector<ReferenceSlot> slots;
    for (uint32_t slot = 0; slot < 64; ++slot) {
        ReferenceSlot s =
            slotSettings(slot % 2 == 0 ? OutputPreset::subwoofer : OutputPreset::satellite,
                         EqualizerPreset::acoustic);
        s.isMonoSum = false;
        s.sourceChannel = slot & 1U;
        slots.push_back(s);
    }
    return Scene(std::vector<BufferShape>(64, {1, kFrames}), slots);
}

template <Scene (*Make)()> void BM_Render(benchmark::State& run) {
    Scene scene = Make();
    for (auto _ : run) {
        ProcessingRender(scene.input.list(), scene.output.list(), scene.state.get());
        benchmark::DoNotOptimize(scene.output.samples(0).data());
    }
    report(run, scene);
}

template <Scene (*Make)()> void BM_Reference(benchmark::State& run) {
    Scene scene = Make();
    for (auto _ : run) {
        scene.reference.render(scene.input.list(), scene.output.list());
        benchmark::DoNotOptimize(scene.output.samples(0).data());
    }
    report(run, scene);
}

// Every cycle follows a publication of new equaliser gains and a new crossover frequency on
// all 64 slots, so every cycle redesigns 64 x 11 biquads before it filters.
void BM_RenderAfterParameterChange(benchmark::State& run) {
    Scene scene = sixtyFourMonoAllBands();
    const auto& a = brightmix::equalizerGains(EqualizerPreset::acoustic);
    const auto& b = brightmix::equalizerGains(EqualizerPreset::rock);
    bool flip = false;
    for (auto _ : run) {
        flip = !flip;
        for (uint32_t slot = 0; slot < 64; ++slot) {
            ProcessingSetEqualizer(scene.state.get(), slot, (flip ? b : a).data(), 10, -6.0F);
            ProcessingSetCrossover(scene.state.get(), slot, 1 + static_cast<int32_t>(slot % 2),
                                   flip ? 100.0F : 80.0F);
        }
        ProcessingRender(scene.input.list(), scene.output.list(), scene.state.get());
        benchmark::DoNotOptimize(scene.output.samples(0).data());
    }
    report(run, scene);
}

// A long stretch of silence after loud signal: the decaying filter states must not make
// silence more expensive than music.
template <bool IsReference> void silenceAfterLoud(benchmark::State& run) {
    Scene scene = sixtyFourMonoAllBands();
    TestBufferList silence{{2, kFrames}};
    scene.input.fillSine(40.0, kRate, 1.0F);
    for (int cycle = 0; cycle < 20; ++cycle) {
        if (IsReference) {
            scene.reference.render(scene.input.list(), scene.output.list());
        } else {
            ProcessingRender(scene.input.list(), scene.output.list(), scene.state.get());
        }
    }
    // A minute of audio for the render, twenty seconds for the slow reference: the slowest
    // filter here (the 32 Hz band) decays by e in about 14 ms, so its state is subnormal after
    // some ten seconds.
    const double seconds = IsReference ? 20.0 : 60.0;
    const int settle = static_cast<int>(seconds * kRate / kFrames);
    for (int cycle = 0; cycle < settle; ++cycle) {
        if (IsReference) {
            scene.reference.render(silence.list(), scene.output.list());
        } else {
            ProcessingRender(silence.list(), scene.output.list(), scene.state.get());
        }
    }
    for (auto _ : run) {
        if (IsReference) {
            scene.reference.render(silence.list(), scene.output.list());
        } else {
            ProcessingRender(silence.list(), scene.output.list(), scene.state.get());
        }
        benchmark::DoNotOptimize(scene.output.samples(0).data());
    }
    report(run, scene);
}

void BM_RenderSilenceAfterLoud(benchmark::State& run) {
    silenceAfterLoud<false>(run);
}
void BM_ReferenceSilenceAfterLoud(benchmark::State& run) {
    silenceAfterLoud<true>(run);
}

} // namespace

BENCHMARK(BM_Render<twoStereoFlat>)->Name("Render/TwoStereoFlat");
BENCHMARK(BM_Reference<twoStereoFlat>)->Name("Reference/TwoStereoFlat");
BENCHMARK(BM_Render<twoStereoRoles>)->Name("Render/TwoStereoPresetSubSatellite");
BENCHMARK(BM_Reference<twoStereoRoles>)->Name("Reference/TwoStereoPresetSubSatellite");
BENCHMARK(BM_Render<sixtyFourMonoAllBands>)->Name("Render/SixtyFourMonoAllBandsCrossover");
BENCHMARK(BM_Reference<sixtyFourMonoAllBands>)->Name("Reference/SixtyFourMonoAllBandsCrossover");
BENCHMARK(BM_RenderAfterParameterChange)->Name("Render/AfterParameterChange");
BENCHMARK(BM_RenderSilenceAfterLoud)->Name("Render/SilenceAfterLoud");
BENCHMARK(BM_ReferenceSilenceAfterLoud)->Name("Reference/SilenceAfterLoud");
