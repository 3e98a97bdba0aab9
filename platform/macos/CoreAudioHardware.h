// AudioHardware over the Core Audio HAL: every call is the HAL call of the same name, with
// CF-typed values carried as property lists and tap descriptions built as CATapDescription.
// Nothing here decides; the checks live in CoreAudioTranslation.
//
// Thread: control (the main thread); the IOProcs run on the HAL's real-time threads and are
// handed to it unwrapped. Realtime-safe: no.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/AudioHardware.h"

namespace brightmix {

class CoreAudioHardware final : public AudioHardware {
public:
    // `report` is told what the HAL gave that the core cannot use (a CF value a property list
    // cannot hold, an aggregate description refused before the HAL saw it).
    using Report = std::function<void(const std::string& message)>;
    // Listens for the audio service's restarts (the one property listener of the program).
    explicit CoreAudioHardware(Report report = {});
    ~CoreAudioHardware() override;
    CoreAudioHardware(const CoreAudioHardware&) = delete;
    CoreAudioHardware& operator=(const CoreAudioHardware&) = delete;

    // Counted by the HAL's listener on its own thread; the app model reads it each tick.
    std::uint64_t serviceGeneration() const override { return serviceGeneration_.load(); }

    std::int32_t currentProcessID() const override;
    bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) override;
    OSStatus isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                bool* isSettable) override;
    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 UInt32 qualifierDataSize, const void* qualifierData,
                                 UInt32* dataSize) override;
    OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 qualifierDataSize, const void* qualifierData,
                             UInt32* ioDataSize, void* data) override;
    OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 qualifierDataSize, const void* qualifierData, UInt32 dataSize,
                             const void* data) override;
    OSStatus getPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              PropertyList* value) override;
    OSStatus setPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              const PropertyList& value) override;
    OSStatus createProcessTap(const TapDescription& description, AudioObjectID* tapID) override;
    OSStatus destroyProcessTap(AudioObjectID tapID) override;
    OSStatus createAggregateDevice(const PropertyList& description,
                                   AudioObjectID* deviceID) override;
    OSStatus destroyAggregateDevice(AudioObjectID deviceID) override;
    OSStatus createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID* procID) override;
    OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;
    // Hands the start to a serial queue of its own and answers at once.
    OSStatus startDeviceWithoutWaiting(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;

private:
    void report(const std::string& message) const {
        if (report_) report_(message);
    }
    Report report_;
    std::atomic<std::uint64_t> serviceGeneration_{0};
};

} // namespace brightmix
