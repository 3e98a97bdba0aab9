// The real-time entry points allocate nothing, whatever they are asked to do.
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

#include "Brightmix/EqualizerPreset.h"
#include "realtime/ProcessingState.h"
#include "realtime/RecordingTap.h"
#include "realtime/SignalCounter.h"
#include "tests/realtime/TestBufferList.h"
#include "tests/support/AllocationGuard.h"

namespace {

using brightmix::testing::AllocationGuard;
using brightmix::testing::TestBufferList;

TEST(RealtimeAllocation, RenderAllocatesNothing) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    ProcessingState* state = ProcessingCreate(0.7F);
    const auto& gains = brightmix::equalizerGains(brightmix::EqualizerPreset::rock);
    for (uint32_t slot = 0; slot < 64; ++slot) {
        ProcessingSetCrossover(state, slot, static_cast<int32_t>(slot % 3), 80.0F);
        ProcessingSetEqualizer(state, slot, gains.data(), 10, -6.0F);
        ProcessingSetMonoSum(state, slot, slot % 3 == 1 ? 1 : 0);
    }
    TestBufferList input{{2, 512}};
    std::mt19937 random(1);
    input.fillRandom(random, 0.5F);
    TestBufferList wide{{2, 512}, {1, 512}, {1, 512}, {12, 512}};
    auto many = TestBufferList::uniform(70, {1, 512});
    {
        const AllocationGuard guard;
        for (int cycle = 0; cycle < 10; ++cycle) {
            ProcessingRender(input.list(), wide.list(), state);
            ProcessingRender(input.list(), many.list(), state);
            ProcessingRender(nullptr, wide.list(), state);
            ProcessingRender(input.list(), wide.list(), nullptr);
            // The control side's real-time-safe calls, between cycles.
            ProcessingSetEqualizer(state, 3, gains.data(), 10, -3.0F);
            ProcessingSetSampleRate(state, cycle % 2 == 0 ? 44100.0 : 48000.0);
            ProcessingResetSlots(state);
            (void)ProcessingTakeOutputPeak(state);
        }
        EXPECT_EQ(guard.allocations(), 0U);
    }
    ProcessingDestroy(state);
}

TEST(RealtimeAllocation, RecordingTapWriteAllocatesNothing) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    RecordingTap* tap = RecordingTapCreate();
    RecordingFile file{
        [](const RecordingFile*, uint32_t, const AudioBufferList*) -> int32_t { return 0; },
        nullptr};
    RecordingTapAttach(tap, &file);
    TestBufferList input{{2, 3000}};
    TestBufferList split{{1, 700}, {1, 700}};
    {
        const AllocationGuard guard;
        for (int cycle = 0; cycle < 10; ++cycle) {
            RecordingTapWrite(tap, input.list());
            RecordingTapWrite(tap, split.list());
        }
        EXPECT_EQ(guard.allocations(), 0U);
    }
    EXPECT_EQ(RecordingTapFramesWritten(tap), 10U * 3700U);
    RecordingTapDestroy(tap);
}

TEST(RealtimeAllocation, SignalCounterIOProcAllocatesNothing) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    SignalCounter* counter = SignalCounterCreate();
    TestBufferList input{{2, 512}, {1, 512}};
    input.fill(0.5F);
    TestBufferList output{{2, 512}};
    {
        const AllocationGuard guard;
        for (int cycle = 0; cycle < 10; ++cycle)
            SignalCounterIOProc(1, nullptr, input.list(), nullptr, output.list(), nullptr, counter);
        EXPECT_EQ(guard.allocations(), 0U);
    }
    EXPECT_EQ(SignalCounterTakeAudibleFrames(counter), 5120U);
    std::free(counter);
}

} // namespace
