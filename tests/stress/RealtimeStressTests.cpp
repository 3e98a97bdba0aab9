// Concurrency stress of the real-time blocks, meant for the ThreadSanitizer build: a control
// thread publishes parameters, presets and resets, takes peaks and attaches files while an
// IO thread renders. TSan must report nothing, and no cycle may see a torn parameter set.
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "Brightmix/EqualizerPreset.h"
#include "realtime/ProcessingState.h"
#include "realtime/RecordingTap.h"
#include "realtime/SignalCounter.h"
#include "tests/realtime/TestBufferList.h"

namespace {

using brightmix::EqualizerPreset;
using brightmix::testing::BufferShape;
using brightmix::testing::TestBufferList;

constexpr uint32_t kFrames = 64;
constexpr int kCycles = 6000;

// Exact binary fractions, so that every product the render can form is exact and a sample
// reveals which master and slot gain the cycle used.
constexpr float kMasters[] = {0.25F, 0.5F, 1.0F};
constexpr float kSlotGains[] = {0.125F, 0.5F, 1.0F};
constexpr float kInput = 0.5F;

bool isValidProduct(float y) {
    for (float m : kMasters)
        for (float g : kSlotGains)
            if (y == g * (m * kInput)) return true;
    return false;
}

// Slots 0..3 stay unfiltered and check the gains; slots 4..9 get presets, roles and resets.
std::vector<BufferShape> outputShapes() {
    std::vector<BufferShape> shapes(4, {1, kFrames});
    shapes.push_back({2, kFrames});
    for (int i = 0; i < 5; ++i)
        shapes.push_back({1, kFrames});
    return shapes;
}

TEST(RealtimeStress, RenderSeesWholeParameterSetsWhileTheControlSidePublishes) {
    ProcessingState* state = ProcessingCreate(1.0F);
    std::atomic<bool> isRendering{true};
    std::atomic<int> tornCycles{0};
    std::atomic<int> nonFiniteCycles{0};

    std::thread io([&] {
        TestBufferList input{{2, kFrames}};
        input.fill(kInput);
        TestBufferList output(outputShapes());
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            ProcessingRender(input.list(), output.list(), state);
            for (size_t slot = 0; slot < 4; ++slot) {
                const auto& samples = output.samples(slot);
                const float first = samples[0];
                bool isWhole = isValidProduct(first);
                for (float y : samples)
                    isWhole = isWhole && y == first;
                if (!isWhole) tornCycles.fetch_add(1);
            }
            for (size_t slot = 4; slot < output.size(); ++slot) {
                for (float y : output.samples(slot)) {
                    if (!std::isfinite(y)) {
                        nonFiniteCycles.fetch_add(1);
                        break;
                    }
                }
            }
        }
        isRendering.store(false);
    });

    uint64_t step = 0;
    float peakSum = 0.0F;
    while (isRendering.load()) {
        ++step;
        ProcessingSetMasterGain(state, kMasters[step % 3]);
        for (uint32_t slot = 0; slot < 4; ++slot)
            ProcessingSetSlotGain(state, slot, kSlotGains[(step + slot) % 3]);
        const EqualizerPreset preset = brightmix::kAllEqualizerPresets[step % 10];
        for (uint32_t slot = 4; slot < 10; ++slot) {
            ProcessingSetEqualizer(state, slot, brightmix::equalizerGains(preset).data(), 10,
                                   brightmix::equalizerPreGainDb(preset));
            ProcessingSetCrossover(state, slot, static_cast<int32_t>((step + slot) % 3),
                                   step % 2 == 0 ? 80.0F : 120.0F);
            ProcessingSetMonoSum(state, slot, static_cast<int32_t>(step % 2));
            ProcessingSetSourceChannel(state, slot, static_cast<uint32_t>(step % 2));
        }
        if (step % 17 == 0) ProcessingResetSlots(state);
        if (step % 23 == 0) ProcessingSetSampleRate(state, step % 2 == 0 ? 44100.0 : 48000.0);
        peakSum += ProcessingTakeOutputPeak(state) + ProcessingTakeInputPeak(state) +
                   ProcessingTakeSlotPeak(state, static_cast<uint32_t>(step % 10));
        (void)ProcessingRenderCycles(state);
        (void)ProcessingSignalCycles(state);
        uint32_t buffers = 0;
        ProcessingLastInputFormat(state, &buffers, nullptr, nullptr);
        std::this_thread::yield();
    }
    io.join();

    EXPECT_EQ(tornCycles.load(), 0);
    EXPECT_EQ(nonFiniteCycles.load(), 0);
    EXPECT_EQ(ProcessingRenderCycles(state), static_cast<uint64_t>(kCycles));
    EXPECT_GT(step, 10U) << "the control thread hardly ran; the test proved little";
    EXPECT_TRUE(std::isfinite(peakSum));

    // After the race the records follow the last publication exactly: a reset and a fresh
    // parameter set render as on a state that never raced.
    ProcessingState* fresh = ProcessingCreate(1.0F);
    for (ProcessingState* s : {state, fresh}) {
        ProcessingResetSlots(s);
        ProcessingSetMasterGain(s, 0.9F);
        ProcessingSetSampleRate(s, 48000.0);
        const auto& gains = brightmix::equalizerGains(EqualizerPreset::rock);
        for (uint32_t slot = 0; slot < 10; ++slot) {
            ProcessingSetCrossover(s, slot, static_cast<int32_t>(slot % 3), 100.0F);
            ProcessingSetEqualizer(s, slot, gains.data(), 10, -4.0F);
        }
    }
    TestBufferList input{{2, 256}};
    input.fillSine(90.0, 48000.0, 0.7F);
    TestBufferList raced(outputShapes());
    TestBufferList clean(outputShapes());
    ProcessingRender(input.list(), raced.list(), state);
    ProcessingRender(input.list(), clean.list(), fresh);
    for (size_t b = 0; b < raced.size(); ++b)
        EXPECT_EQ(raced.samples(b), clean.samples(b)) << b;
    ProcessingDestroy(fresh);
    ProcessingDestroy(state);
}

// A file whose every write is checked against the tap's attach state.
struct CountingFile {
    RecordingFile file{&CountingFile::write, this};
    std::atomic<uint64_t> frames{0};
    std::atomic<bool> isDisposed{false};
    std::atomic<int> writesAfterDispose{0};

    static int32_t write(const RecordingFile* f, uint32_t count, const AudioBufferList* data) {
        auto* self = static_cast<CountingFile*>(f->context);
        if (self->isDisposed.load()) self->writesAfterDispose.fetch_add(1);
        const auto* samples = static_cast<const float*>(data->mBuffers[0].mData);
        float sum = 0.0F;
        for (uint32_t i = 0; i < 2 * count; ++i)
            sum += samples[i];
        (void)sum;
        self->frames.fetch_add(count);
        return 0;
    }
};

TEST(RealtimeStress, DetachGuaranteesTheOldFileIsNoLongerWritten) {
    RecordingTap* tap = RecordingTapCreate();
    std::atomic<bool> isRunning{true};
    std::thread io([&] {
        TestBufferList input{{2, 256}};
        input.fill(0.25F);
        while (isRunning.load())
            RecordingTapWrite(tap, input.list());
    });
    std::vector<CountingFile> files(200);
    for (CountingFile& f : files) {
        ASSERT_TRUE(RecordingTapAttach(tap, &f.file));
        std::this_thread::yield();
        RecordingTapDetach(tap);
        f.isDisposed.store(true); // what the control side would now do with the file
        EXPECT_EQ(f.frames.load() % 256, 0U);
    }
    isRunning.store(false);
    io.join();
    for (const CountingFile& f : files)
        EXPECT_EQ(f.writesAfterDispose.load(), 0);
    RecordingTapDestroy(tap);
}

TEST(RealtimeStress, SignalCounterTakesLoseNothing) {
    SignalCounter* counter = SignalCounterCreate();
    constexpr int kCounterCycles = 20000;
    std::atomic<bool> isRunning{true};
    std::thread io([&] {
        TestBufferList input{{2, 32}};
        input.fill(0.5F);
        TestBufferList output{{2, 32}};
        for (int i = 0; i < kCounterCycles; ++i)
            SignalCounterIOProc(1, nullptr, input.list(), nullptr, output.list(), nullptr, counter);
        isRunning.store(false);
    });
    uint64_t frames = 0;
    uint64_t cycles = 0;
    while (isRunning.load()) {
        frames += SignalCounterTakeAudibleFrames(counter);
        cycles += SignalCounterTakeCycles(counter);
    }
    io.join();
    frames += SignalCounterTakeAudibleFrames(counter);
    cycles += SignalCounterTakeCycles(counter);
    EXPECT_EQ(cycles, static_cast<uint64_t>(kCounterCycles));
    EXPECT_EQ(frames, 32U * kCounterCycles);
    std::free(counter);
}

} // namespace
