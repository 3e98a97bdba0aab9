#include "platform/macos/CoreAudioHardware.h"

#include <CoreAudio/AudioHardware.h>
#include <CoreAudio/AudioHardwareTapping.h>
#include <CoreAudio/CATapDescription.h>
#include <Foundation/Foundation.h>
#include <unistd.h>

#include "Brightmix/AudioDeviceError.h"
#include "platform/macos/CFConversion.h"

// The boundary's IOProc handle: the HAL's own, kept with the device it belongs to.
struct brightmix::AudioDeviceIOProcToken {
    ::AudioDeviceIOProcID halID = nullptr;
    AudioObjectID device = kAudioObjectUnknown;
};

namespace brightmix {

namespace {

// The boundary's address and the HAL's have the same three fields.
::AudioObjectPropertyAddress hal(const AudioObjectPropertyAddress& address) {
    return {address.mSelector, address.mScope, address.mElement};
}

// The IOProc the core hands over has the HAL's signature exactly; it is given to the HAL as is,
// so that nothing but the core's own code runs on the real-time thread.
static_assert(sizeof(brightmix::AudioDeviceIOProc) == sizeof(::AudioDeviceIOProc));

NSArray<NSNumber*>* numbers(const std::vector<AudioObjectID>& processes) {
    NSMutableArray<NSNumber*>* result = [NSMutableArray arrayWithCapacity:processes.size()];
    for (AudioObjectID process : processes)
        [result addObject:@(process)];
    return result;
}

NSString* nsString(const std::string& text) {
    return CFBridgingRelease(createCFString(text));
}

} // namespace

std::int32_t CoreAudioHardware::currentProcessID() const {
    return static_cast<std::int32_t>(getpid());
}

bool CoreAudioHardware::hasProperty(AudioObjectID object,
                                    const AudioObjectPropertyAddress& address) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    return AudioObjectHasProperty(object, &halAddress);
}

OSStatus CoreAudioHardware::isPropertySettable(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address,
                                               bool* isSettable) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    Boolean settable = false;
    const OSStatus status = AudioObjectIsPropertySettable(object, &halAddress, &settable);
    if (isSettable) *isSettable = status == noErr && settable;
    return status;
}

OSStatus CoreAudioHardware::getPropertyDataSize(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                UInt32 qualifierDataSize, const void* qualifierData,
                                                UInt32* dataSize) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    return AudioObjectGetPropertyDataSize(object, &halAddress, qualifierDataSize, qualifierData,
                                          dataSize);
}

OSStatus CoreAudioHardware::getPropertyData(AudioObjectID object,
                                            const AudioObjectPropertyAddress& address,
                                            UInt32 qualifierDataSize, const void* qualifierData,
                                            UInt32* ioDataSize, void* data) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    return AudioObjectGetPropertyData(object, &halAddress, qualifierDataSize, qualifierData,
                                      ioDataSize, data);
}

OSStatus CoreAudioHardware::setPropertyData(AudioObjectID object,
                                            const AudioObjectPropertyAddress& address,
                                            UInt32 qualifierDataSize, const void* qualifierData,
                                            UInt32 dataSize, const void* data) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    return AudioObjectSetPropertyData(object, &halAddress, qualifierDataSize, qualifierData,
                                      dataSize, data);
}

OSStatus CoreAudioHardware::getPropertyValue(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             PropertyList* value) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    CFTypeRef result = nullptr;
    UInt32 size = sizeof(result);
    const OSStatus status =
        AudioObjectGetPropertyData(object, &halAddress, 0, nullptr, &size, &result);
    CFOwned owned(result); // CF-typed properties hand over a reference the caller releases
    if (status != noErr) return status;
    if (size != sizeof(result)) return kAudioHardwareBadPropertySizeError;
    std::size_t dropped = 0;
    *value = propertyListFromCFValue(cfValueFromObject(result), &dropped);
    if (dropped > 0)
        report("Core Audio property " +
               AudioDeviceError::statusText(static_cast<OSStatus>(address.mSelector)) + " held " +
               std::to_string(dropped) + " value(s) a property list cannot carry");
    return noErr;
}

OSStatus CoreAudioHardware::setPropertyValue(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             const PropertyList& value) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    CFOwned owned(createCFObject(cfValueFromPropertyList(value)));
    CFTypeRef reference = owned.get();
    return AudioObjectSetPropertyData(object, &halAddress, 0, nullptr, sizeof(reference),
                                      &reference);
}

OSStatus CoreAudioHardware::createProcessTap(const TapDescription& description,
                                             AudioObjectID* tapID) {
    TapFields fields;
    if (const OSStatus status = tapFieldsFromDescription(description, &fields); status != noErr)
        return status;
    @autoreleasepool {
        CATapDescription* tap = nil;
        switch (fields.initializer) {
        case TapFields::Initializer::stereoGlobalTapButExcludeProcesses:
            tap = [[CATapDescription alloc]
                initStereoGlobalTapButExcludeProcesses:numbers(fields.processes)];
            break;
        case TapFields::Initializer::excludingProcessesAndDeviceWithStream:
            tap = [[CATapDescription alloc] initExcludingProcesses:numbers(fields.processes)
                                                      andDeviceUID:nsString(fields.deviceUID)
                                                        withStream:fields.stream];
            break;
        case TapFields::Initializer::stereoMixdownOfProcesses:
            tap = [[CATapDescription alloc] initStereoMixdownOfProcesses:numbers(fields.processes)];
            break;
        }
        if (!tap) return kAudio_MemFullError;
        tap.name = nsString(fields.name);
        [tap setPrivate:fields.isPrivate];
        tap.processRestoreEnabled = fields.isProcessRestoreEnabled;
        tap.muteBehavior = static_cast<CATapMuteBehavior>(fields.muteBehavior);
        AudioObjectID created = kAudioObjectUnknown;
        const OSStatus status = AudioHardwareCreateProcessTap(tap, &created);
        if (status != noErr) return status;
        // A tap of a device that does not exist comes back unknown without an error.
        if (created == kAudioObjectUnknown) return kAudioHardwareBadDeviceError;
        *tapID = created;
        return noErr;
    }
}

OSStatus CoreAudioHardware::destroyProcessTap(AudioObjectID tapID) {
    return AudioHardwareDestroyProcessTap(tapID);
}

OSStatus CoreAudioHardware::createAggregateDevice(const PropertyList& description,
                                                  AudioObjectID* deviceID) {
    CFValue value;
    std::string problem;
    if (const OSStatus status = aggregateDescriptionValue(description, &value, &problem);
        status != noErr) {
        report("Aggregate description refused: " + problem);
        return status;
    }
    CFOwned dictionary(createCFObject(value));
    return AudioHardwareCreateAggregateDevice(static_cast<CFDictionaryRef>(dictionary.get()),
                                              deviceID);
}

OSStatus CoreAudioHardware::destroyAggregateDevice(AudioObjectID deviceID) {
    return AudioHardwareDestroyAggregateDevice(deviceID);
}

OSStatus CoreAudioHardware::createIOProcID(AudioObjectID device, AudioDeviceIOProc proc,
                                           void* clientData, AudioDeviceIOProcID* procID) {
    ::AudioDeviceIOProcID halID = nullptr;
    const OSStatus status = AudioDeviceCreateIOProcID(device, proc, clientData, &halID);
    if (status != noErr) return status;
    *procID = new AudioDeviceIOProcToken{halID, device};
    return noErr;
}

OSStatus CoreAudioHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (!procID) return kAudioHardwareIllegalOperationError;
    const OSStatus status = AudioDeviceDestroyIOProcID(device, procID->halID);
    if (status == noErr) delete procID;
    return status;
}

OSStatus CoreAudioHardware::startDevice(AudioObjectID device, AudioDeviceIOProcID procID) {
    return AudioDeviceStart(device, procID ? procID->halID : nullptr);
}

OSStatus CoreAudioHardware::stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) {
    return AudioDeviceStop(device, procID ? procID->halID : nullptr);
}

} // namespace brightmix
