// An AudioHardware that passes every call to another one, for the wrappers of the tests and
// benchmarks that change one or two calls of the simulated system (a system that holds
// starts back, a memoised copy of the answers) and leave the rest as they are.
//
// Thread: that of the hardware it wraps. Realtime-safe: no.
#pragma once

#include "platform/AudioHardware.h"

namespace brightmix {

class ForwardingAudioHardware : public AudioHardware {
public:
    explicit ForwardingAudioHardware(AudioHardware& inner) : inner_(inner) {}

    std::uint64_t serviceGeneration() const override { return inner_.serviceGeneration(); }
    bool isServiceAvailable() override { return inner_.isServiceAvailable(); }
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
    OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) override {
        return inner_.startDevice(device, procID);
    }
    OSStatus startDeviceWithoutWaiting(AudioObjectID device, AudioDeviceIOProcID procID) override {
        return inner_.startDeviceWithoutWaiting(device, procID);
    }
    OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) override {
        return inner_.stopDevice(device, procID);
    }

protected:
    AudioHardware& inner() { return inner_; }

private:
    AudioHardware& inner_;
};

} // namespace brightmix
