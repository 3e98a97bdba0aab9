// One device refresh as the 1-second tick does it (the device list with records, the
// default output, the processes playing to it) over a system of 40 devices and 200
// processes. Measured twice: against the simulated hardware, and against a memoised copy of
// its answers whose own cost is a table look-up, so that the second figure is essentially
// the service's own time.
#include <benchmark/benchmark.h>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "Brightmix/AudioDeviceService.h"
#include "bench/SimulatedSystem.h"
#include "platform/sim/ForwardingAudioHardware.h"
#include "platform/sim/SimulatedAudioHardware.h"

namespace brightmix {
namespace {

using Sim = SimulatedAudioHardware;
using bench::buildSystem;
using bench::kMultiOutputDevices;
using bench::kPlainDevices;

// Answers every read from a table filled by the first call of each kind, so that its own
// cost is one look-up and a copy; everything else goes to the source.
class MemoisedHardware final : public ForwardingAudioHardware {
public:
    explicit MemoisedHardware(AudioHardware& source)
        : ForwardingAudioHardware(source), source_(source) {}

    bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) override {
        const auto k = key(object, address);
        const auto found = has_.find(k);
        if (found != has_.end()) return found->second;
        return has_[k] = source_.hasProperty(object, address);
    }
    OSStatus isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                bool* isSettable) override {
        const auto k = key(object, address);
        auto found = settable_.find(k);
        if (found == settable_.end()) {
            bool value = false;
            const OSStatus status = source_.isPropertySettable(object, address, &value);
            found = settable_.emplace(k, std::make_pair(status, value)).first;
        }
        *isSettable = found->second.second;
        return found->second.first;
    }
    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 UInt32 qualifierSize, const void* qualifier,
                                 UInt32* dataSize) override {
        const Answer& answer = data(object, address, qualifierSize, qualifier);
        *dataSize = static_cast<UInt32>(answer.bytes.size());
        return answer.status;
    }
    OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 qualifierSize, const void* qualifier, UInt32* ioDataSize,
                             void* out) override {
        const Answer& answer = data(object, address, qualifierSize, qualifier);
        if (answer.status != 0) return answer.status;
        const auto count = std::min<std::size_t>(*ioDataSize, answer.bytes.size());
        if (count > 0) std::memcpy(out, answer.bytes.data(), count);
        *ioDataSize = static_cast<UInt32>(count);
        return 0;
    }
    OSStatus getPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              PropertyList* value) override {
        const auto k = key(object, address);
        auto found = values_.find(k);
        if (found == values_.end()) {
            PropertyList read;
            const OSStatus status = source_.getPropertyValue(object, address, &read);
            found = values_.emplace(k, std::make_pair(status, std::move(read))).first;
        }
        *value = found->second.second;
        return found->second.first;
    }

private:
    using Key = std::tuple<AudioObjectID, UInt32, UInt32, UInt32>;
    struct Answer {
        OSStatus status = 0;
        std::vector<std::uint8_t> bytes;
    };
    static Key key(AudioObjectID object, const AudioObjectPropertyAddress& address) {
        return {object, address.mSelector, address.mScope, address.mElement};
    }
    const Answer& data(AudioObjectID object, const AudioObjectPropertyAddress& address,
                       UInt32 qualifierSize, const void* qualifier) {
        const auto k = key(object, address);
        auto found = data_.find(k);
        if (found != data_.end()) return found->second;
        Answer answer;
        UInt32 size = 0;
        answer.status =
            source_.getPropertyDataSize(object, address, qualifierSize, qualifier, &size);
        if (answer.status == 0) {
            answer.bytes.resize(size);
            answer.status = source_.getPropertyData(object, address, qualifierSize, qualifier,
                                                    &size, answer.bytes.data());
            answer.bytes.resize(size);
        }
        return data_.emplace(k, std::move(answer)).first->second;
    }

    AudioHardware& source_;
    std::map<Key, bool> has_;
    std::map<Key, std::pair<OSStatus, bool>> settable_;
    std::map<Key, Answer> data_;
    std::map<Key, std::pair<OSStatus, PropertyList>> values_;
};

void refresh(benchmark::State& state, AudioHardware& hardware) {
    const AudioDeviceService service(hardware);
    for (auto _ : state) {
        auto devices = service.devices();
        auto output = service.defaultOutputDevice();
        auto playing = output ? service.playingProcessIDs(output->id, hardware.currentProcessID())
                              : std::vector<std::int32_t>{};
        benchmark::DoNotOptimize(devices);
        benchmark::DoNotOptimize(playing);
        if (devices.size() != kPlainDevices + kMultiOutputDevices || !output) {
            state.SkipWithError("the simulated system is not what the benchmark built");
            break;
        }
    }
}

void BM_DeviceRefreshOnSimulation(benchmark::State& state) {
    Sim sim;
    buildSystem(sim);
    refresh(state, sim);
}
BENCHMARK(BM_DeviceRefreshOnSimulation)->Unit(benchmark::kMicrosecond);

void BM_DeviceRefreshServiceOnly(benchmark::State& state) {
    Sim sim;
    buildSystem(sim);
    MemoisedHardware memoised(sim);
    refresh(state, memoised);
}
BENCHMARK(BM_DeviceRefreshServiceOnly)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace brightmix
