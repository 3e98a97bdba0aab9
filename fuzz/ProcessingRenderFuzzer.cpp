// Fuzzes the render with arbitrary input and output buffer lists and arbitrary parameters
// (non-finite gains, invalid modes and rates, slot indices beyond the last), over several
// cycles with resets in between. The render must never touch memory it was not given, and
// must write every usable output buffer completely.
#include <cstdlib>
#include <cstring>

#include "fuzz/RealtimeFuzzInput.h"
#include "realtime/ProcessingState.h"

namespace {

void publishRandomParameters(FuzzedDataProvider& data, ProcessingState* state) {
    const int changes = data.ConsumeIntegralInRange<int>(0, 12);
    for (int i = 0; i < changes; ++i) {
        const uint32_t slot = data.ConsumeIntegralInRange<uint32_t>(0, 70);
        switch (data.ConsumeIntegralInRange<int>(0, 9)) {
        case 0:
            ProcessingSetMasterGain(state, data.ConsumeFloatingPoint<float>());
            break;
        case 1:
            ProcessingSetSlotGain(state, slot, data.ConsumeFloatingPoint<float>());
            break;
        case 2:
            ProcessingSetSourceChannel(state, slot, data.ConsumeIntegral<uint32_t>());
            break;
        case 3:
            ProcessingSetCrossover(state, slot, data.ConsumeIntegral<int32_t>(),
                                   data.ConsumeFloatingPoint<float>());
            break;
        case 4:
            ProcessingSetMonoSum(state, slot, data.ConsumeIntegral<int32_t>());
            break;
        case 5: {
            float gains[10];
            for (float& g : gains)
                g = data.ConsumeFloatingPoint<float>();
            ProcessingSetEqualizer(state, slot, data.ConsumeBool() ? gains : nullptr,
                                   data.ConsumeIntegralInRange<uint32_t>(0, 12),
                                   data.ConsumeFloatingPoint<float>());
            break;
        }
        case 6:
            ProcessingSetSampleRate(state, data.ConsumeFloatingPoint<double>());
            break;
        case 7:
            ProcessingResetSlots(state);
            break;
        case 8: {
            // A sensible, boosting set: the common case, so that the filters really run.
            const float gains[10] = {5, 4, 3, 2, 1, -1, -2, 3, 4, 5};
            ProcessingSetEqualizer(state, slot, gains, 10, -6.0F);
            ProcessingSetCrossover(state, slot, 1 + (slot & 1), 80.0F);
            break;
        }
        default:
            (void)ProcessingTakeOutputPeak(state);
            (void)ProcessingTakeSlotPeak(state, slot);
            break;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const bool hasState = data.ConsumeIntegralInRange<int>(0, 7) != 0;
    ProcessingState* state =
        hasState ? ProcessingCreate(data.ConsumeFloatingPoint<float>()) : nullptr;
    const int cycles = data.ConsumeIntegralInRange<int>(1, 4);
    for (int cycle = 0; cycle < cycles && data.remaining_bytes() > 0; ++cycle) {
        if (state != nullptr) publishRandomParameters(data, state);
        const bool hasInput = data.ConsumeIntegralInRange<int>(0, 9) != 0;
        brightmix::fuzzing::FuzzBufferList input(data, 5, 12, 4096);
        brightmix::fuzzing::FuzzBufferList output(data, 70, 12, 4096);
        ProcessingRender(hasInput ? input.list() : nullptr, output.list(), state);
        // The tail beyond the input's frames is silence: check the last sample of every
        // usable buffer that is longer than the input.
        const AudioBufferList* in = hasInput ? input.list() : nullptr;
        uint64_t inputFrames = 0;
        if (in != nullptr && in->mNumberBuffers > 0) {
            const uint64_t ch =
                in->mBuffers[0].mNumberChannels == 0 ? 1 : in->mBuffers[0].mNumberChannels;
            inputFrames = in->mBuffers[0].mDataByteSize / (ch * 4U);
        }
        for (uint32_t i = 0; i < output.list()->mNumberBuffers; ++i) {
            const AudioBuffer& b = output.list()->mBuffers[i];
            if (b.mData == nullptr || b.mNumberChannels == 0 || b.mDataByteSize == 0) continue;
            const uint64_t written = inputFrames * b.mNumberChannels * 4U;
            if (b.mDataByteSize > written &&
                static_cast<const unsigned char*>(b.mData)[b.mDataByteSize - 1] != 0)
                std::abort();
        }
        if (state != nullptr && ProcessingRenderCycles(state) != static_cast<uint64_t>(cycle + 1))
            std::abort();
    }
    ProcessingDestroy(state);
    return 0;
}
