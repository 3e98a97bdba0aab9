// An AudioBufferList that owns its buffers, for tests, fuzzers and benchmarks: any number of
// buffers, each with its own channel count and length.
//
// Thread: one at a time. Realtime-safe: no (it allocates when built).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <vector>

#include "realtime/CoreAudioShapes.h"

namespace brightmix::testing {

struct BufferShape {
    std::uint32_t channels;
    std::uint32_t frames;
};

class TestBufferList {
public:
    TestBufferList(std::initializer_list<BufferShape> shapes)
        : TestBufferList(std::vector<BufferShape>(shapes)) {}

    explicit TestBufferList(const std::vector<BufferShape>& shapes)
        : header_(headerWords(shapes.size()), 0), samples_(shapes.size()) {
        list()->mNumberBuffers = static_cast<std::uint32_t>(shapes.size());
        for (std::size_t i = 0; i < shapes.size(); ++i) {
            samples_[i].assign(std::size_t{shapes[i].channels} * shapes[i].frames, 0.0F);
            AudioBuffer& b = buffer(i);
            b.mNumberChannels = shapes[i].channels;
            b.mDataByteSize = static_cast<std::uint32_t>(samples_[i].size() * sizeof(float));
            b.mData = samples_[i].empty() ? nullptr : samples_[i].data();
        }
    }

    // A list of `count` buffers of the same shape.
    static TestBufferList uniform(std::size_t count, BufferShape shape) {
        return TestBufferList(std::vector<BufferShape>(count, shape));
    }

    TestBufferList(const TestBufferList&) = delete;
    TestBufferList& operator=(const TestBufferList&) = delete;
    TestBufferList(TestBufferList&&) = default;

    AudioBufferList* list() { return reinterpret_cast<AudioBufferList*>(header_.data()); }
    const AudioBufferList* list() const {
        return reinterpret_cast<const AudioBufferList*>(header_.data());
    }
    AudioBuffer& buffer(std::size_t i) { return list()->mBuffers[i]; }
    std::vector<float>& samples(std::size_t i) { return samples_[i]; }
    const std::vector<float>& samples(std::size_t i) const { return samples_[i]; }
    std::size_t size() const { return samples_.size(); }

    float& at(std::size_t bufferIndex, std::size_t frame, std::uint32_t channel) {
        return samples_[bufferIndex][frame * buffer(bufferIndex).mNumberChannels + channel];
    }

    void fill(float value) {
        for (auto& s : samples_)
            std::fill(s.begin(), s.end(), value);
    }

    // Every sample of every buffer uniformly random in [-amplitude, amplitude].
    void fillRandom(std::mt19937& random, float amplitude) {
        std::uniform_real_distribution<float> distribution(-amplitude, amplitude);
        for (auto& s : samples_)
            for (float& x : s)
                x = distribution(random);
    }

    // A sine of `hz` at `rate` on every channel of every buffer, starting at `firstFrame`.
    void fillSine(double hz, double rate, float amplitude, std::uint64_t firstFrame = 0) {
        for (std::size_t i = 0; i < samples_.size(); ++i) {
            const std::uint32_t channels = buffer(i).mNumberChannels;
            if (channels == 0) continue;
            for (std::size_t f = 0; f < samples_[i].size() / channels; ++f) {
                const double phase =
                    2.0 * 3.14159265358979323846 * hz * static_cast<double>(firstFrame + f) / rate;
                for (std::uint32_t c = 0; c < channels; ++c)
                    samples_[i][f * channels + c] = amplitude * static_cast<float>(std::sin(phase));
            }
        }
    }

private:
    static std::size_t headerWords(std::size_t buffers) {
        const std::size_t bytes = offsetof(AudioBufferList, mBuffers) +
                                  (buffers == 0 ? 1 : buffers) * sizeof(AudioBuffer);
        return (bytes + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t);
    }

    std::vector<std::uint64_t> header_;
    std::vector<std::vector<float>> samples_;
};

} // namespace brightmix::testing
