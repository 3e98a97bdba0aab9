// A fixed ring of interleaved float frames between exactly one producer (the real-time
// thread queuing a recording) and one consumer (the file's writer thread). Memory is taken
// once at construction; push and the consumer's reads never allocate, lock or block.
//
// Thread: push from the producer, peek/consume from the consumer, the rest from either.
// Realtime-safe: push, yes.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace brightmix {

class FrameRing {
public:
    // Room for at least `minimumFrames` frames of `channels` floats (rounded up to a power of
    // two so that positions wrap with a mask).
    FrameRing(std::uint32_t minimumFrames, std::uint32_t channels)
        : channels_(std::max<std::uint32_t>(channels, 1)),
          capacity_(roundUpToPowerOfTwo(std::max<std::uint32_t>(minimumFrames, 1))),
          samples_(std::make_unique<float[]>(std::size_t(capacity_) * channels_)) {}

    std::uint32_t capacityFrames() const { return capacity_; }
    std::uint32_t channels() const { return channels_; }

    // Copies all `frames` frames in, or nothing when they do not fit.
    bool push(const float* interleaved, std::uint32_t frames) {
        std::uint64_t write = writePosition_.load(std::memory_order_relaxed);
        std::uint64_t read = readPosition_.load(std::memory_order_acquire);
        std::uint64_t filled = write - read;
        if (frames > capacity_ - filled) return false;
        std::uint32_t start = std::uint32_t(write & (capacity_ - 1));
        std::uint32_t first = std::min(frames, capacity_ - start);
        std::memcpy(samples_.get() + std::size_t(start) * channels_, interleaved,
                    std::size_t(first) * channels_ * sizeof(float));
        std::memcpy(samples_.get(), interleaved + std::size_t(first) * channels_,
                    std::size_t(frames - first) * channels_ * sizeof(float));
        writePosition_.store(write + frames, std::memory_order_release);
        std::uint64_t fill = filled + frames;
        if (fill > highWater_.load(std::memory_order_relaxed))
            highWater_.store(fill, std::memory_order_relaxed);
        return true;
    }

    // The oldest queued frames that lie in one piece of memory; `*frames` is 0 when empty.
    const float* peek(std::uint32_t* frames) const {
        std::uint64_t read = readPosition_.load(std::memory_order_relaxed);
        std::uint64_t write = writePosition_.load(std::memory_order_acquire);
        std::uint32_t start = std::uint32_t(read & (capacity_ - 1));
        *frames = std::uint32_t(std::min<std::uint64_t>(write - read, capacity_ - start));
        return samples_.get() + std::size_t(start) * channels_;
    }

    // Releases frames returned by peek.
    void consume(std::uint32_t frames) {
        readPosition_.store(readPosition_.load(std::memory_order_relaxed) + frames,
                            std::memory_order_release);
    }

    std::uint64_t filledFrames() const {
        return writePosition_.load(std::memory_order_acquire) -
               readPosition_.load(std::memory_order_acquire);
    }

    // The fullest the ring has been right after a push.
    std::uint64_t highWaterFrames() const { return highWater_.load(std::memory_order_relaxed); }

private:
    static std::uint32_t roundUpToPowerOfTwo(std::uint32_t value) {
        std::uint32_t result = 1;
        while (result < value && result < (1u << 31))
            result <<= 1;
        return result;
    }

    std::uint32_t channels_;
    std::uint32_t capacity_;
    std::unique_ptr<float[]> samples_;
    alignas(64) std::atomic<std::uint64_t> writePosition_{0};
    alignas(64) std::atomic<std::uint64_t> readPosition_{0};
    std::atomic<std::uint64_t> highWater_{0};

    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
};

} // namespace brightmix
