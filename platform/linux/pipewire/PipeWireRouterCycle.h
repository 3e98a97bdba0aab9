// One graph cycle of a Brightmix filter node (the router or a playback meter), in Core
// Audio's shape: the DSP buffers of the filter's ports are gathered into an input and an
// output AudioBufferList (one mono 32-bit float buffer per port, in port order) and the
// installed IOProc is called once with both.
//
// Everything a cycle needs is allocated when the cycle object is made, for the largest
// quantum PipeWire allows; a cycle itself only reads atomics and writes into that memory.
//
// Thread: construction, setIOProc and the flags on the control side; process() on the
// filter's real-time data thread. Realtime-safe: process() yes, everything else no.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/AudioHardware.h"

namespace brightmix::pipewire {

// Largest number of frames one cycle may carry (PipeWire's default quantum limit).
inline constexpr std::uint32_t kMaxCycleFrames = 8192;

class PipeWireRouterCycle {
public:
    // Fetches a port's DSP buffer for this cycle; null when it has none.
    using BufferFunction = void* (*)(void* port, std::uint32_t frames);

    PipeWireRouterCycle(std::uint32_t inputCount, std::uint32_t outputCount);
    ~PipeWireRouterCycle();
    PipeWireRouterCycle(const PipeWireRouterCycle&) = delete;
    PipeWireRouterCycle& operator=(const PipeWireRouterCycle&) = delete;

    std::uint32_t inputCount() const { return inputCount_; }
    std::uint32_t outputCount() const { return outputCount_; }

    // The port handles, in port order, before the filter connects.
    // Thread: control. Realtime-safe: no.
    void setInputPort(std::uint32_t index, void* port);
    void setOutputPort(std::uint32_t index, void* port);

    // Installs the IOProc; only while not running.
    // Thread: control. Realtime-safe: no.
    void setIOProc(AudioObjectID device, AudioDeviceIOProc proc, void* clientData);

    // Lets cycles call the IOProc, or stops them doing so. Stopping returns once no cycle
    // is inside the IOProc any more, so its client data may be freed afterwards.
    // Thread: control. Realtime-safe: no.
    void start();
    void stop();
    bool isRunning() const { return isRunning_.load(std::memory_order_acquire); }

    // One cycle: gathers the buffers and calls the IOProc. Ports without a buffer read as
    // silence and write into scratch memory; more frames than kMaxCycleFrames are
    // clamped. Outputs are silenced when no IOProc runs.
    // Thread: render. Realtime-safe: yes.
    void process(std::uint32_t frames, std::uint64_t nanoseconds, BufferFunction buffer);

    // Cycles that reached the IOProc, and the frames of the last cycle.
    // Thread: any. Realtime-safe: yes.
    std::uint64_t cycles() const { return cycles_.load(std::memory_order_relaxed); }
    std::uint32_t lastFrames() const { return lastFrames_.load(std::memory_order_relaxed); }

private:
    std::uint32_t inputCount_;
    std::uint32_t outputCount_;
    std::vector<void*> inputPorts_;
    std::vector<void*> outputPorts_;
    std::unique_ptr<std::uint8_t[]> inputListStorage_;
    std::unique_ptr<std::uint8_t[]> outputListStorage_;
    AudioBufferList* inputList_;
    AudioBufferList* outputList_;
    std::unique_ptr<float[]> silence_;
    std::unique_ptr<float[]> scratch_; // kMaxCycleFrames per output

    AudioObjectID device_ = 0;
    AudioDeviceIOProc proc_ = nullptr;
    void* clientData_ = nullptr;
    double sampleTime_ = 0;

    std::atomic<bool> isRunning_{false};
    std::atomic<int> inCycle_{0};
    std::atomic<std::uint64_t> cycles_{0};
    std::atomic<std::uint32_t> lastFrames_{0};
};

} // namespace brightmix::pipewire
