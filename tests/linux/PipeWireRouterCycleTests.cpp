// One graph cycle of a filter node in Core Audio's shape, with stand-in port buffers: the
// lists the IOProc sees, silence for missing buffers, no call outside start/stop, a stop
// that waits for a cycle in flight, and no allocation in a cycle that runs the engine's
// real IOProc.
#include <array>
#include <atomic>
#include <gtest/gtest.h>
#include <map>
#include <thread>

#include "Brightmix/SoftwareVolumeEngine.h"
#include "platform/linux/pipewire/PipeWireRouterCycle.h"
#include "realtime/ProcessingState.h"
#include "realtime/RecordingTap.h"
#include "tests/support/AllocationGuard.h"

namespace brightmix::pipewire {
namespace {

// Port handles are the addresses of these buffers; a null entry has no buffer this cycle.
struct FakePorts {
    static constexpr std::uint32_t kFrames = 256;
    std::array<std::array<float, kFrames>, 5> data{};
    std::array<bool, 5> hasBuffer{true, true, true, true, true};

    void* port(std::size_t i) { return &data[i]; }
    static FakePorts* current;
    static void* buffer(void* port, std::uint32_t) {
        for (std::size_t i = 0; i < current->data.size(); ++i) {
            if (port == &current->data[i]) {
                return current->hasBuffer[i] ? current->data[i].data() : nullptr;
            }
        }
        return nullptr;
    }
};
FakePorts* FakePorts::current = nullptr;

struct Seen {
    std::atomic<int> calls{0};
    UInt32 inputs = 0;
    UInt32 outputs = 0;
    std::vector<const void*> inputData;
    std::vector<void*> outputData;
    UInt32 bytes = 0;
    float firstInputSample = -1;
};

OSStatus recordingProc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList* input,
                       const AudioTimeStamp*, AudioBufferList* output, const AudioTimeStamp*,
                       void* clientData) {
    auto* seen = static_cast<Seen*>(clientData);
    seen->inputs = input->mNumberBuffers;
    seen->outputs = output->mNumberBuffers;
    seen->inputData.clear();
    seen->outputData.clear();
    for (UInt32 i = 0; i < input->mNumberBuffers; ++i) {
        seen->inputData.push_back(input->mBuffers[i].mData);
        EXPECT_EQ(input->mBuffers[i].mNumberChannels, 1u);
    }
    for (UInt32 i = 0; i < output->mNumberBuffers; ++i) {
        seen->outputData.push_back(output->mBuffers[i].mData);
        static_cast<float*>(output->mBuffers[i].mData)[0] = float(i + 1);
    }
    seen->bytes = output->mNumberBuffers > 0 ? output->mBuffers[0].mDataByteSize : 0;
    seen->firstInputSample = static_cast<const float*>(input->mBuffers[0].mData)[0];
    seen->calls.fetch_add(1);
    return 0;
}

class RouterCycle : public ::testing::Test {
protected:
    void SetUp() override {
        FakePorts::current = &ports;
        cycle.setInputPort(0, ports.port(0));
        cycle.setInputPort(1, ports.port(1));
        for (std::uint32_t i = 0; i < 3; ++i) {
            cycle.setOutputPort(i, ports.port(2 + i));
        }
        ports.data[0][0] = 0.25f;
    }

    FakePorts ports;
    PipeWireRouterCycle cycle{2, 3};
    Seen seen;
};

TEST_F(RouterCycle, HandsTheIOProcOneMonoBufferPerPortInPortOrder) {
    cycle.setIOProc(7, &recordingProc, &seen);
    cycle.start();
    cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer);
    ASSERT_EQ(seen.calls.load(), 1);
    EXPECT_EQ(seen.inputs, 2u);
    EXPECT_EQ(seen.outputs, 3u);
    EXPECT_EQ(seen.inputData,
              (std::vector<const void*>{ports.data[0].data(), ports.data[1].data()}));
    EXPECT_EQ(seen.outputData, (std::vector<void*>{ports.data[2].data(), ports.data[3].data(),
                                                   ports.data[4].data()}));
    EXPECT_EQ(seen.bytes, FakePorts::kFrames * sizeof(float));
    EXPECT_EQ(seen.firstInputSample, 0.25f);
    EXPECT_EQ(ports.data[4][0], 3.0f);
    EXPECT_EQ(cycle.cycles(), 1u);
    EXPECT_EQ(cycle.lastFrames(), FakePorts::kFrames);
}

TEST_F(RouterCycle, MissingBuffersReadAsSilenceAndWriteIntoScratch) {
    cycle.setIOProc(7, &recordingProc, &seen);
    cycle.start();
    ports.hasBuffer[0] = false;
    ports.hasBuffer[3] = false;
    cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer);
    ASSERT_EQ(seen.calls.load(), 1);
    EXPECT_EQ(seen.firstInputSample, 0.0f);
    EXPECT_NE(seen.outputData[1], nullptr);
    EXPECT_NE(seen.outputData[1], static_cast<void*>(ports.data[3].data()));

    // More frames than any quantum PipeWire allows are clamped rather than overrun.
    cycle.process(kMaxCycleFrames * 4, 0, nullptr);
    EXPECT_EQ(cycle.lastFrames(), kMaxCycleFrames);
    EXPECT_EQ(seen.bytes, kMaxCycleFrames * sizeof(float));
}

TEST_F(RouterCycle, OutsideStartAndStopTheOutputsAreSilentAndTheIOProcIsNotCalled) {
    cycle.setIOProc(7, &recordingProc, &seen);
    ports.data[2].fill(0.9f);
    cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer);
    EXPECT_EQ(seen.calls.load(), 0);
    EXPECT_EQ(ports.data[2][FakePorts::kFrames - 1], 0.0f);
    cycle.start();
    cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer);
    cycle.stop();
    cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer);
    EXPECT_EQ(seen.calls.load(), 1);
}

std::atomic<bool> entered{false};
std::atomic<bool> released{false};

OSStatus blockingProc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList*,
                      const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*, void*) {
    entered.store(true);
    while (!released.load()) {
        std::this_thread::yield();
    }
    return 0;
}

TEST_F(RouterCycle, StopWaitsForTheCycleInFlight) {
    cycle.setIOProc(7, &blockingProc, nullptr);
    cycle.start();
    std::thread io([&] { cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer); });
    while (!entered.load()) {
        std::this_thread::yield();
    }
    std::atomic<bool> stopped{false};
    std::thread control([&] {
        cycle.stop();
        stopped.store(true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(stopped.load()) << "stop returned while the IOProc still ran";
    released.store(true);
    io.join();
    control.join();
    EXPECT_TRUE(stopped.load());
}

TEST_F(RouterCycle, ACycleOfTheEnginesIOProcAllocatesNothing) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    ProcessingState* processing = ProcessingCreate(0.5f);
    RecordingTap* recording = RecordingTapCreate();
    ASSERT_NE(processing, nullptr);
    ASSERT_NE(recording, nullptr);
    ProcessingSetCrossover(processing, 0, 1, 80.0f);
    ProcessingSetMonoSum(processing, 0, 1);
    const float gains[10] = {6, 6, 3, 0, 0, 0, 0, 0, 0, 0};
    ProcessingSetEqualizer(processing, 1, gains, 10, -6.0f);
    SoftwareVolumeEngine::IOProcContext context{processing, recording};
    cycle.setIOProc(7, &SoftwareVolumeEngine::ioProc, &context);
    cycle.start();
    cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer); // filter state settles

    testing::AllocationGuard guard;
    for (int i = 0; i < 200; ++i) {
        ports.data[0][i % FakePorts::kFrames] = 0.5f;
        cycle.process(FakePorts::kFrames, std::uint64_t(i) * 5'333'333, &FakePorts::buffer);
    }
    ports.hasBuffer[1] = false;
    cycle.process(FakePorts::kFrames, 0, &FakePorts::buffer);
    EXPECT_EQ(guard.allocations(), 0u);

    cycle.stop();
    EXPECT_EQ(ProcessingRenderCycles(processing), 202u);
    RecordingTapDestroy(recording);
    ProcessingDestroy(processing);
}

} // namespace
} // namespace brightmix::pipewire
