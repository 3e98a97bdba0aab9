#include "platform/sim/HeldStartHardware.h"

#include <thread>

namespace brightmix {

bool HeldStartHardware::startsOnFirstTapAudio(AudioObjectID device) {
    PropertyList composition;
    if (inner().getPropertyValue(device, globalAddress(kAudioAggregateDevicePropertyComposition),
                                 &composition) != kAudioHardwareNoError) {
        return false;
    }
    const PropertyList* key = composition.find(kAudioAggregateDeviceTapAutoStartKey);
    if (key == nullptr) return false;
    if (const std::optional<bool> flag = key->asBoolean()) return *flag;
    if (const std::optional<std::int64_t> number = key->asInteger()) return *number != 0;
    return false;
}

OSStatus HeldStartHardware::startDevice(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (procID != nullptr && startsOnFirstTapAudio(device)) {
        ++heldStarts_;
        std::this_thread::sleep_for(holdFor);
    }
    return inner().startDevice(device, procID);
}

} // namespace brightmix
