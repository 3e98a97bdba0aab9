// Builds arbitrary AudioBufferLists from fuzzer bytes: any number of buffers with any
// channel count and byte size, null data pointers, and samples that include NaN, infinities
// and subnormals. Each buffer owns exactly the bytes its mDataByteSize claims, so that
// AddressSanitizer catches a read or write past any of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>
#include <vector>

#include "realtime/CoreAudioShapes.h"

namespace brightmix::fuzzing {

class FuzzBufferList {
public:
    FuzzBufferList(FuzzedDataProvider& data, uint32_t maxBuffers, uint32_t maxChannels,
                   uint32_t maxBytes) {
        const uint32_t count = data.ConsumeIntegralInRange<uint32_t>(0, maxBuffers);
        header_.assign((offsetof(AudioBufferList, mBuffers) +
                        (count == 0 ? 1 : count) * sizeof(AudioBuffer) + 7) /
                           8,
                       0);
        list()->mNumberBuffers = count;
        storage_.resize(count);
        for (uint32_t i = 0; i < count; ++i) {
            AudioBuffer& buffer = list()->mBuffers[i];
            buffer.mNumberChannels = data.ConsumeIntegralInRange<uint32_t>(0, maxChannels);
            // Mostly whole frames; sometimes any byte count, including odd ones.
            const uint32_t bytes =
                data.ConsumeBool()
                    ? data.ConsumeIntegralInRange<uint32_t>(0, maxBytes)
                    : 4U * (buffer.mNumberChannels == 0 ? 1U : buffer.mNumberChannels) *
                          data.ConsumeIntegralInRange<uint32_t>(0, maxBytes / 64);
            buffer.mDataByteSize = bytes;
            buffer.mData = nullptr;
            if (data.ConsumeIntegralInRange<int>(0, 9) == 0) continue; // a null data pointer
            storage_[i] = std::make_unique<unsigned char[]>(bytes == 0 ? 1 : bytes);
            const std::vector<uint8_t> fill = data.ConsumeBytes<uint8_t>(bytes);
            for (uint32_t b = 0; b < bytes; ++b)
                storage_[i][b] = b < fill.size() ? fill[b] : static_cast<unsigned char>(b * 37U);
            buffer.mData = storage_[i].get();
        }
    }

    AudioBufferList* list() { return reinterpret_cast<AudioBufferList*>(header_.data()); }

private:
    std::vector<uint64_t> header_;
    std::vector<std::unique_ptr<unsigned char[]>> storage_;
};

} // namespace brightmix::fuzzing
