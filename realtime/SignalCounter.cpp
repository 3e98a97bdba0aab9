// The counters and IOProc of a playback-detection tap. The IOProc runs on the detection
// aggregate's IO thread; the takes run on the control thread.
#include "realtime/SignalCounter.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

struct SignalCounter {
    std::atomic<uint64_t> audibleFrames;
    std::atomic<uint64_t> cycles;
};

static_assert(std::atomic<uint64_t>::is_always_lock_free);

namespace {

// Quieter than this a detection tap's sample is taken as silence (about -80 dBFS).
constexpr float kAudibleThreshold = 0.0001F;

bool isAudible(float sample) {
    return std::isfinite(sample) && std::fabs(sample) > kAudibleThreshold;
}

uint64_t audibleFrames(const AudioBuffer& buffer) {
    const auto* data = static_cast<const float*>(buffer.mData);
    const uint32_t channels = buffer.mNumberChannels;
    if (data == nullptr || channels == 0) return 0;
    const uint64_t samples = buffer.mDataByteSize / 4U;
    if (samples < channels) return 0;
    const uint64_t frames = samples / channels;
    uint64_t count = 0;
    for (uint64_t frame = 0; frame < frames; ++frame) {
        const float* sample = data + frame * channels;
        for (uint32_t channel = 0; channel < channels; ++channel) {
            if (isAudible(sample[channel])) {
                ++count;
                break;
            }
        }
    }
    return count;
}

} // namespace

extern "C" SignalCounter* SignalCounterCreate(void) {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,hicpp-no-malloc): the one allocation
    void* memory = std::calloc(1, sizeof(SignalCounter));
    if (memory == nullptr) return nullptr;
    return new (memory) SignalCounter{};
}

extern "C" uint64_t SignalCounterTakeAudibleFrames(SignalCounter* counter) {
    return counter != nullptr ? counter->audibleFrames.exchange(0, std::memory_order_relaxed) : 0;
}

extern "C" uint64_t SignalCounterTakeCycles(SignalCounter* counter) {
    return counter != nullptr ? counter->cycles.exchange(0, std::memory_order_relaxed) : 0;
}

extern "C" OSStatus SignalCounterIOProc(AudioObjectID /*device*/, const AudioTimeStamp* /*now*/,
                                        const AudioBufferList* input,
                                        const AudioTimeStamp* /*inputTime*/,
                                        AudioBufferList* output,
                                        const AudioTimeStamp* /*outputTime*/, void* clientData) {
    auto* counter = static_cast<SignalCounter*>(clientData);
    if (counter != nullptr) {
        // Buffers of one cycle cover the same frames, so the loudest buffer's count is the
        // cycle's count; adding them up would count a stereo pair twice.
        uint64_t largest = 0;
        if (input != nullptr) {
            for (uint32_t i = 0; i < input->mNumberBuffers; ++i) {
                const uint64_t count = audibleFrames(input->mBuffers[i]);
                if (count > largest) largest = count;
            }
        }
        counter->audibleFrames.fetch_add(largest, std::memory_order_relaxed);
        counter->cycles.fetch_add(1, std::memory_order_relaxed);
    }
    if (output != nullptr) {
        for (uint32_t i = 0; i < output->mNumberBuffers; ++i) {
            AudioBuffer& buffer = output->mBuffers[i];
            if (buffer.mData != nullptr) std::memset(buffer.mData, 0, buffer.mDataByteSize);
        }
    }
    return 0;
}
