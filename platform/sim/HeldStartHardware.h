// A system that holds back the start of aggregates made with the tap auto-start key, as Core
// Audio does: a plain start of such an aggregate does not return until a tapped app delivers
// audio. Wrapped around another AudioHardware (the simulated one, in the tests), it passes
// every call through, but a plain `startDevice` of such an aggregate first waits `holdFor`
// and is counted; `startDeviceWithoutWaiting` goes through at once, as the real one hands the
// start to another thread. Tests prove with it that no caller waits on an app, and the
// benchmarks measure what a poll would cost if one did.
//
// Thread: control, like the hardware it wraps. Realtime-safe: no.
#pragma once

#include <chrono>
#include <cstddef>

#include "platform/AudioHardware.h"

namespace brightmix {

class HeldStartHardware final : public AudioHardware {
public:
    explicit HeldStartHardware(AudioHardware& inner) : inner_(inner) {}

    // How long a held start keeps its caller waiting (the app's first audio, in effect).
    std::chrono::microseconds holdFor{0};
    // Plain starts that the system would have held back.
    std::size_t heldStarts() const { return heldStarts_; }

    std::int32_t currentProcessID() const override { return inner_.currentProcessID(); }
    bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) override {
        return inner_.hasProperty(object, address);
    }
    OSStatus isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                bool* isSettable) override {
        return inner_.isPropertySettable(object, address, isSettable);
    }
    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 UInt32 qualifierDataSize, const void* qualifierData,
                                 UInt32* dataSize) override {
        return inner_.getPropertyDataSize(object, address, qualifierDataSize, qualifierData,
                                          dataSize);
    }
    OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 qualifierDataSize, const void* qualifierData,
                             UInt32* ioDataSize, void* data) override {
        return inner_.getPropertyData(object, address, qualifierDataSize, qualifierData, ioDataSize,
                                      data);
    }
    OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 qualifierDataSize, const void* qualifierData, UInt32 dataSize,
                             const void* data) override {
        return inner_.setPropertyData(object, address, qualifierDataSize, qualifierData, dataSize,
                                      data);
    }
    OSStatus getPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              PropertyList* value) override {
        return inner_.getPropertyValue(object, address, value);
    }
    OSStatus setPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              const PropertyList& value) override {
        return inner_.setPropertyValue(object, address, value);
    }
    OSStatus createProcessTap(const TapDescription& description, AudioObjectID* tapID) override {
        return inner_.createProcessTap(description, tapID);
    }
    OSStatus destroyProcessTap(AudioObjectID tapID) override {
        return inner_.destroyProcessTap(tapID);
    }
    OSStatus createAggregateDevice(const PropertyList& description,
                                   AudioObjectID* deviceID) override {
        return inner_.createAggregateDevice(description, deviceID);
    }
    OSStatus destroyAggregateDevice(AudioObjectID deviceID) override {
        return inner_.destroyAggregateDevice(deviceID);
    }
    OSStatus createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID* procID) override {
        return inner_.createIOProcID(device, proc, clientData, procID);
    }
    OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) override {
        return inner_.destroyIOProcID(device, procID);
    }
    OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus startDeviceWithoutWaiting(AudioObjectID device, AudioDeviceIOProcID procID) override {
        return inner_.startDevice(device, procID);
    }
    OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) override {
        return inner_.stopDevice(device, procID);
    }

private:
    bool startsOnFirstTapAudio(AudioObjectID device);

    AudioHardware& inner_;
    std::size_t heldStarts_ = 0;
};

} // namespace brightmix
