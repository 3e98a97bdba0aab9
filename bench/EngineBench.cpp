// The engine's costs: one IO cycle of the router (recording tap, then the render) for two
// stereo members with equaliser presets and speaker roles, and a whole start and stop of
// the router over the simulated hardware.
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "bench/UnusedFileWriter.h"
#include "platform/sim/SimulatedAudioHardware.h"
#include "realtime/RecordingTap.h"

namespace brightmix {
namespace {

using UnusedWriter = bench::UnusedFileWriter;

// A recording file that copies each chunk into a preallocated buffer, as a ring push does,
// and starts over when full, so the tap never sees an error and keeps doing its work.
struct MemoryRecording {
    MemoryRecording() : samples(2 * 48000) {
        file.writeAsync = &MemoryRecording::write;
        file.context = this;
    }
    static int32_t write(const RecordingFile* file, uint32_t frames, const AudioBufferList* data) {
        auto* self = static_cast<MemoryRecording*>(file->context);
        std::size_t count = std::size_t(frames) * 2;
        if (self->position + count > self->samples.size()) self->position = 0;
        std::memcpy(self->samples.data() + self->position, data->mBuffers[0].mData,
                    count * sizeof(float));
        self->position += count;
        return 0;
    }
    std::vector<float> samples;
    std::size_t position = 0;
    RecordingFile file{};
};

struct Desk {
    Desk() {
        sim.addDevice({"A", "Left Pair", {2}});
        sim.addDevice({"B", "Right Pair", {2}});
        sim.addMultiOutputDevice("D", "Desk", {"A", "B"}, "A");
        engine.setChildEqualizer(EqualizerPreset::pop, "A");
        engine.setChildPreset(OutputPreset::satellite, "A");
        engine.setChildEqualizer(EqualizerPreset::bassBooster, "B");
        engine.setChildPreset(OutputPreset::subwoofer, "B");
        engine.setChildGain("B", 0.8f);
        desk = *devices.device("D");
    }

    SimulatedAudioHardware sim;
    AudioDeviceService devices{sim};
    UnusedWriter writer;
    SoftwareVolumeEngine engine{devices, 0.7f, writer};
    AudioDevice desk;
};

void BM_EngineIOCycle(benchmark::State& state) {
    const auto frames = UInt32(state.range(0));
    Desk scene;
    scene.engine.start(scene.desk, AudioCaptureMode::selectedDevice);
    MemoryRecording recording;
    RecordingTapAttach(scene.engine.recordingState(), &recording.file);

    std::vector<float> input(2 * std::size_t(frames));
    for (UInt32 f = 0; f < frames; ++f) {
        input[2 * f] = float(0.5 * std::sin(0.01 * f));
        input[2 * f + 1] = float(0.5 * std::sin(0.013 * f));
    }
    std::vector<float> left(2 * std::size_t(frames)), right(2 * std::size_t(frames));
    AudioBufferList in{1, {{2, UInt32(input.size() * 4), input.data()}}};
    auto out = std::unique_ptr<AudioBufferList, void (*)(void*)>(
        static_cast<AudioBufferList*>(std::malloc(sizeof(AudioBufferList) + sizeof(AudioBuffer))),
        std::free);
    out->mNumberBuffers = 2;
    out->mBuffers[0] = {2, UInt32(left.size() * 4), left.data()};
    out->mBuffers[1] = {2, UInt32(right.size() * 4), right.data()};

    SoftwareVolumeEngine::IOProcContext context{scene.engine.gainState(),
                                                scene.engine.recordingState()};
    for (auto _ : state) {
        SoftwareVolumeEngine::ioProc(0, nullptr, &in, nullptr, out.get(), nullptr, &context);
        benchmark::ClobberMemory();
    }
    RecordingTapDetach(scene.engine.recordingState());
    if (RecordingTapStatus(scene.engine.recordingState()) != 0)
        state.SkipWithError("the recording tap reported an error");
    state.SetItemsProcessed(state.iterations() * frames);
    scene.engine.stop();
}
BENCHMARK(BM_EngineIOCycle)->Arg(128)->Arg(512)->Arg(4096);

void BM_EngineStartStop(benchmark::State& state) {
    Desk scene;
    for (auto _ : state) {
        scene.engine.start(scene.desk, AudioCaptureMode::selectedDevice);
        scene.engine.stop();
    }
    if (scene.sim.liveAggregates() != 0 || scene.sim.liveTaps() != 0)
        state.SkipWithError("the router was not torn down");
}
BENCHMARK(BM_EngineStartStop);

} // namespace
} // namespace brightmix
