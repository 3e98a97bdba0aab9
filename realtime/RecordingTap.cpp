// The real-time half of recording: the IO thread converts each cycle's input to interleaved
// stereo and queues it on the attached file; the control thread attaches and detaches.
#include "realtime/RecordingTap.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <new>

// The sequentially consistent atomics make Detach's "store null, then wait for no writer"
// airtight: a writer that raised activeWriters before Detach looked either saw the old file
// and is counted, or saw null.
struct RecordingTap {
    std::atomic<RecordingFile*> file;
    std::atomic<uint32_t> activeWriters;
    std::atomic<uint64_t> framesWritten;
    std::atomic<int32_t> status;
    float scratch[kRecordingTapChunkFrames * 2]; // IO thread only
};

static_assert(std::atomic<RecordingFile*>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<int32_t>::is_always_lock_free);

namespace {

constexpr uint64_t kChunkFrames = kRecordingTapChunkFrames;

// Channel `channel` of frame `frame`, counting the channels of all buffers as one run. A
// request past the last channel wraps once, so channel 1 of a mono input reads channel 0.
float recordedSample(const AudioBufferList& input, uint32_t channel, uint64_t frame) {
    uint64_t total = 0;
    for (uint32_t i = 0; i < input.mNumberBuffers; ++i)
        total += input.mBuffers[i].mNumberChannels;
    if (total == 0) return 0.0F;
    uint64_t wanted = channel;
    if (wanted >= total) wanted -= total;
    for (uint32_t i = 0; i < input.mNumberBuffers; ++i) {
        const AudioBuffer& buffer = input.mBuffers[i];
        if (wanted >= buffer.mNumberChannels) {
            wanted -= buffer.mNumberChannels;
            continue;
        }
        const auto* data = static_cast<const float*>(buffer.mData);
        const uint64_t index = wanted + uint64_t{buffer.mNumberChannels} * frame;
        if (data == nullptr || index >= buffer.mDataByteSize / 4U) return 0.0F;
        const float sample = data[index];
        return std::isfinite(sample) ? sample : 0.0F;
    }
    return 0.0F;
}

// Keeps activeWriters raised for exactly the time the IO thread may touch the file.
class WriterScope {
public:
    explicit WriterScope(RecordingTap& tap) : tap_(tap) { tap_.activeWriters.fetch_add(1); }
    ~WriterScope() { tap_.activeWriters.fetch_sub(1); }
    WriterScope(const WriterScope&) = delete;
    WriterScope& operator=(const WriterScope&) = delete;

private:
    RecordingTap& tap_;
};

} // namespace

extern "C" RecordingTap* RecordingTapCreate(void) {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,hicpp-no-malloc): the one allocation
    void* memory = std::calloc(1, sizeof(RecordingTap));
    if (memory == nullptr) return nullptr;
    return new (memory) RecordingTap{};
}

extern "C" void RecordingTapDestroy(RecordingTap* tap) {
    if (tap == nullptr) return;
    RecordingTapDetach(tap);
    tap->~RecordingTap();
    std::free(tap); // NOLINT(cppcoreguidelines-no-malloc,hicpp-no-malloc)
}

extern "C" bool RecordingTapAttach(RecordingTap* tap, RecordingFile* file) {
    // Only the control thread attaches, so checking first and storing after is not a race;
    // the counters are cleared before the IO thread can see the new file.
    if (tap == nullptr || file == nullptr || tap->file.load() != nullptr) return false;
    tap->framesWritten.store(0);
    tap->status.store(0);
    tap->file.store(file);
    return true;
}

extern "C" void RecordingTapDetach(RecordingTap* tap) {
    if (tap == nullptr) return;
    tap->file.store(nullptr);
    const timespec pause{0, 100000}; // 100 µs
    while (tap->activeWriters.load() != 0)
        nanosleep(&pause, nullptr);
}

extern "C" uint64_t RecordingTapFramesWritten(const RecordingTap* tap) {
    return tap != nullptr ? tap->framesWritten.load() : 0;
}

extern "C" int32_t RecordingTapStatus(const RecordingTap* tap) {
    return tap != nullptr ? tap->status.load() : 0;
}

extern "C" void RecordingTapWrite(RecordingTap* tap, const AudioBufferList* input) {
    if (tap == nullptr || input == nullptr || input->mNumberBuffers == 0) return;
    const WriterScope writer(*tap);
    const RecordingFile* file = tap->file.load();
    const AudioBuffer& first = input->mBuffers[0];
    const uint64_t frameBytes = uint64_t{first.mNumberChannels} * 4U;
    if (file == nullptr || file->writeAsync == nullptr || tap->status.load() != 0 ||
        frameBytes == 0 || first.mDataByteSize < frameBytes) {
        return;
    }
    const uint64_t frames = first.mDataByteSize / frameBytes;
    for (uint64_t done = 0; done < frames;) {
        const uint64_t left = frames - done;
        const auto count = static_cast<uint32_t>(left < kChunkFrames ? left : kChunkFrames);
        for (uint32_t i = 0; i < count; ++i) {
            tap->scratch[2 * i] = recordedSample(*input, 0, done + i);
            tap->scratch[2 * i + 1] = recordedSample(*input, 1, done + i);
        }
        AudioBufferList chunk{};
        chunk.mNumberBuffers = 1;
        chunk.mBuffers[0] = {2, count * 8U, tap->scratch};
        const int32_t result = file->writeAsync(file, count, &chunk);
        if (result != 0) {
            tap->status.store(result);
            return;
        }
        tap->framesWritten.fetch_add(count);
        done += count;
    }
}
