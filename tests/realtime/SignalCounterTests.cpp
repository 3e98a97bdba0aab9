// The playback-detection counter: which frames count as audible, and the IOProc's output.
#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>
#include <memory>

#include "realtime/SignalCounter.h"
#include "tests/realtime/TestBufferList.h"

namespace {

using brightmix::testing::TestBufferList;

struct CounterDeleter {
    void operator()(SignalCounter* counter) const { std::free(counter); }
};
using CounterPointer = std::unique_ptr<SignalCounter, CounterDeleter>;

OSStatus runCycle(SignalCounter* counter, const AudioBufferList* input, AudioBufferList* output) {
    return SignalCounterIOProc(1, nullptr, input, nullptr, output, nullptr, counter);
}

TEST(SignalCounter, CountsFramesWithAnAudibleFiniteSample) {
    const struct {
        const char* name;
        float sample;
        uint64_t frames;
    } cases[] = {{"just above", 0.0002F, 1},
                 {"exactly the threshold", 0.0001F, 0},
                 {"negative", -0.5F, 1},
                 {"infinite", std::numeric_limits<float>::infinity(), 0},
                 {"NaN", std::nanf(""), 0}};
    for (const auto& c : cases) {
        CounterPointer counter(SignalCounterCreate());
        TestBufferList input{{2, 64}};
        input.at(0, 10, 1) = c.sample;
        EXPECT_EQ(runCycle(counter.get(), input.list(), nullptr), 0);
        EXPECT_EQ(SignalCounterTakeAudibleFrames(counter.get()), c.frames) << c.name;
        EXPECT_EQ(SignalCounterTakeCycles(counter.get()), 1U);
    }
}

TEST(SignalCounter, AFrameCountsOnceAndTheLoudestBufferWins) {
    CounterPointer counter(SignalCounterCreate());
    TestBufferList input{{2, 16}, {1, 16}, {1, 16}};
    input.fill(0.5F);                                                        // 16 frames each
    std::fill(input.samples(1).begin(), input.samples(1).begin() + 8, 0.0F); // 8 audible
    runCycle(counter.get(), input.list(), nullptr);
    EXPECT_EQ(SignalCounterTakeAudibleFrames(counter.get()), 16U);
    EXPECT_EQ(SignalCounterTakeAudibleFrames(counter.get()), 0U);
}

TEST(SignalCounter, UnusableInputCountsNothingButTheCycle) {
    CounterPointer counter(SignalCounterCreate());
    TestBufferList empty{};
    TestBufferList nullData{{2, 8}};
    nullData.fill(0.5F);
    nullData.buffer(0).mData = nullptr;
    TestBufferList zeroChannels{{2, 8}};
    zeroChannels.fill(0.5F);
    zeroChannels.buffer(0).mNumberChannels = 0;
    TestBufferList tooShort{{4, 1}};
    tooShort.fill(0.5F);
    tooShort.buffer(0).mDataByteSize = 12; // three samples for four channels
    runCycle(counter.get(), nullptr, nullptr);
    runCycle(counter.get(), empty.list(), nullptr);
    runCycle(counter.get(), nullData.list(), nullptr);
    runCycle(counter.get(), zeroChannels.list(), nullptr);
    runCycle(counter.get(), tooShort.list(), nullptr);
    EXPECT_EQ(SignalCounterTakeAudibleFrames(counter.get()), 0U);
    EXPECT_EQ(SignalCounterTakeCycles(counter.get()), 5U);
}

TEST(SignalCounter, ZeroFillsEveryOutputBufferThatHasData) {
    CounterPointer counter(SignalCounterCreate());
    TestBufferList output{{2, 32}, {1, 16}, {1, 16}};
    output.fill(3.0F);
    float* skipped = static_cast<float*>(output.buffer(2).mData);
    output.buffer(2).mData = nullptr;
    output.buffer(1).mNumberChannels = 0; // the channel count does not matter here
    EXPECT_EQ(runCycle(counter.get(), nullptr, output.list()), 0);
    for (float x : output.samples(0))
        EXPECT_EQ(x, 0.0F);
    for (float x : output.samples(1))
        EXPECT_EQ(x, 0.0F);
    EXPECT_EQ(skipped[0], 3.0F);
}

TEST(SignalCounter, NullCounterIsTolerated) {
    EXPECT_EQ(SignalCounterTakeAudibleFrames(nullptr), 0U);
    EXPECT_EQ(SignalCounterTakeCycles(nullptr), 0U);
    TestBufferList output{{1, 4}};
    output.fill(1.0F);
    EXPECT_EQ(runCycle(nullptr, nullptr, output.list()), 0);
    EXPECT_EQ(output.samples(0)[0], 0.0F);
}

} // namespace
