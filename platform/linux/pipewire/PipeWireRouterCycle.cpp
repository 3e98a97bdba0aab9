// One graph cycle of a Brightmix filter node in Core Audio's shape.
//
// Thread: see the header. Realtime-safe: process() only.
#include "platform/linux/pipewire/PipeWireRouterCycle.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <thread>

namespace brightmix::pipewire {

namespace {

std::size_t bufferListBytes(std::uint32_t buffers) {
    return offsetof(AudioBufferList, mBuffers) +
           std::max<std::uint32_t>(buffers, 1) * sizeof(AudioBuffer);
}

AudioBufferList* makeList(std::unique_ptr<std::uint8_t[]>& storage, std::uint32_t buffers) {
    std::size_t bytes = bufferListBytes(buffers);
    storage = std::make_unique<std::uint8_t[]>(bytes);
    std::memset(storage.get(), 0, bytes);
    auto* list = reinterpret_cast<AudioBufferList*>(storage.get());
    list->mNumberBuffers = buffers;
    for (std::uint32_t i = 0; i < buffers; ++i) {
        list->mBuffers[i].mNumberChannels = 1;
    }
    return list;
}

} // namespace

PipeWireRouterCycle::PipeWireRouterCycle(std::uint32_t inputCount, std::uint32_t outputCount)
    : inputCount_(inputCount), outputCount_(outputCount), inputPorts_(inputCount, nullptr),
      outputPorts_(outputCount, nullptr), inputList_(makeList(inputListStorage_, inputCount)),
      outputList_(makeList(outputListStorage_, outputCount)),
      silence_(std::make_unique<float[]>(kMaxCycleFrames)),
      scratch_(std::make_unique<float[]>(std::size_t(kMaxCycleFrames) *
                                         std::max<std::uint32_t>(outputCount, 1))) {}

PipeWireRouterCycle::~PipeWireRouterCycle() {
    stop();
}

void PipeWireRouterCycle::setInputPort(std::uint32_t index, void* port) {
    if (index < inputCount_) {
        inputPorts_[index] = port;
    }
}

void PipeWireRouterCycle::setOutputPort(std::uint32_t index, void* port) {
    if (index < outputCount_) {
        outputPorts_[index] = port;
    }
}

void PipeWireRouterCycle::setIOProc(AudioObjectID device, AudioDeviceIOProc proc,
                                    void* clientData) {
    device_ = device;
    proc_ = proc;
    clientData_ = clientData;
}

void PipeWireRouterCycle::start() {
    isRunning_.store(true, std::memory_order_seq_cst);
}

void PipeWireRouterCycle::stop() {
    isRunning_.store(false, std::memory_order_seq_cst);
    // A cycle that read the flag before the store may still be inside the IOProc.
    while (inCycle_.load(std::memory_order_seq_cst) != 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

void PipeWireRouterCycle::process(std::uint32_t frames, std::uint64_t nanoseconds,
                                  BufferFunction buffer) {
    frames = std::min(frames, kMaxCycleFrames);
    const auto bytes = static_cast<UInt32>(frames * sizeof(float));
    for (std::uint32_t i = 0; i < inputCount_; ++i) {
        void* data = inputPorts_[i] && buffer ? buffer(inputPorts_[i], frames) : nullptr;
        inputList_->mBuffers[i].mData = data ? data : silence_.get();
        inputList_->mBuffers[i].mDataByteSize = bytes;
    }
    for (std::uint32_t i = 0; i < outputCount_; ++i) {
        void* data = outputPorts_[i] && buffer ? buffer(outputPorts_[i], frames) : nullptr;
        outputList_->mBuffers[i].mData =
            data ? data : scratch_.get() + std::size_t(i) * kMaxCycleFrames;
        outputList_->mBuffers[i].mDataByteSize = bytes;
    }

    inCycle_.fetch_add(1, std::memory_order_seq_cst);
    if (isRunning_.load(std::memory_order_seq_cst) && proc_ != nullptr) {
        AudioTimeStamp now{};
        now.mSampleTime = sampleTime_;
        now.mHostTime = nanoseconds;
        now.mRateScalar = 1.0;
        now.mFlags = 3; // sample time and host time are valid
        proc_(device_, &now, inputList_, &now, outputList_, &now, clientData_);
        cycles_.fetch_add(1, std::memory_order_relaxed);
    } else {
        for (std::uint32_t i = 0; i < outputCount_; ++i) {
            std::memset(outputList_->mBuffers[i].mData, 0, bytes);
        }
    }
    inCycle_.fetch_sub(1, std::memory_order_seq_cst);
    sampleTime_ += frames;
    lastFrames_.store(frames, std::memory_order_relaxed);
}

} // namespace brightmix::pipewire
