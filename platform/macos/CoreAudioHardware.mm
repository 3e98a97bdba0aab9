#include "platform/macos/CoreAudioHardware.h"

#include <CoreAudio/AudioHardware.h>
#include <CoreAudio/AudioHardwareTapping.h>
#include <CoreAudio/CATapDescription.h>
#include <Foundation/Foundation.h>
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dispatch/dispatch.h>
#include <memory>
#include <unistd.h>
#include <vector>

#include "Brightmix/AudioDeviceError.h"
#include "platform/macos/CFConversion.h"

// The boundary's IOProc handle: the HAL's own, kept with the device it belongs to, and for a
// start handed to the start queue, the flag that cancels it.
struct brightmix::AudioDeviceIOProcToken {
    ::AudioDeviceIOProcID halID = nullptr;
    AudioObjectID device = kAudioObjectUnknown;
    std::shared_ptr<std::atomic<bool>> isStartCancelled;

    void cancelPendingStart() const {
        if (isStartCancelled) isStartCancelled->store(true);
    }
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

// The boundary's stream-usage selector and payload are the system's own.
static_assert(brightmix::kAudioDevicePropertyIOProcStreamUsage ==
              static_cast<UInt32>(::kAudioDevicePropertyIOProcStreamUsage));
static_assert(sizeof(brightmix::AudioHardwareIOProcStreamUsage) ==
              sizeof(::AudioHardwareIOProcStreamUsage));
static_assert(offsetof(brightmix::AudioHardwareIOProcStreamUsage, mIOProc) ==
              offsetof(::AudioHardwareIOProcStreamUsage, mIOProc));
static_assert(offsetof(brightmix::AudioHardwareIOProcStreamUsage, mNumberStreams) ==
              offsetof(::AudioHardwareIOProcStreamUsage, mNumberStreams));
static_assert(offsetof(brightmix::AudioHardwareIOProcStreamUsage, mStreamIsOn) ==
              offsetof(::AudioHardwareIOProcStreamUsage, mStreamIsOn));
static_assert(sizeof(::AudioDeviceIOProcID) == sizeof(void*));

constexpr std::size_t kUsageProcOffset = offsetof(::AudioHardwareIOProcStreamUsage, mIOProc);

bool namesAnIOProc(const AudioObjectPropertyAddress& address, UInt32 size) {
    return address.mSelector == kAudioDevicePropertyIOProcStreamUsage &&
           size >= kUsageProcOffset + sizeof(void*);
}

// A copy of a stream-usage payload (8-byte slots: it starts with a pointer) whose mIOProc is
// the HAL's IOProc ID instead of the boundary's token; the HAL knows nothing of tokens.
std::vector<std::uint64_t> withHALProc(const void* data, UInt32 size) {
    std::vector<std::uint64_t> copy((size + 7) / 8, 0);
    std::memcpy(copy.data(), data, size);
    void* token = nullptr;
    std::memcpy(&token, reinterpret_cast<const char*>(copy.data()) + kUsageProcOffset,
                sizeof token);
    ::AudioDeviceIOProcID halID =
        token ? static_cast<const AudioDeviceIOProcToken*>(token)->halID : nullptr;
    std::memcpy(reinterpret_cast<char*>(copy.data()) + kUsageProcOffset, &halID, sizeof halID);
    return copy;
}

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

namespace {

constexpr ::AudioObjectPropertyAddress kServiceRestartedAddress = {
    kAudioHardwarePropertyServiceRestarted, kAudioObjectPropertyScopeGlobal,
    kAudioObjectPropertyElementMain};
static_assert(brightmix::kAudioHardwarePropertyServiceRestarted ==
              ::kAudioHardwarePropertyServiceRestarted);

// Runs on a HAL thread. Tearing down or rebuilding audio objects from inside a property
// listener can deadlock the HAL, so it only counts; the app model acts on its next tick.
OSStatus onServiceRestarted(AudioObjectID, UInt32, const ::AudioObjectPropertyAddress*,
                            void* clientData) {
    static_cast<std::atomic<std::uint64_t>*>(clientData)->fetch_add(1);
    return noErr;
}

} // namespace

CoreAudioHardware::CoreAudioHardware(Report report) : report_(std::move(report)) {
    const OSStatus status =
        AudioObjectAddPropertyListener(kAudioObjectSystemObject, &kServiceRestartedAddress,
                                       &onServiceRestarted, &serviceGeneration_);
    if (status != noErr)
        this->report("Listening for audio service restarts failed (" +
                     AudioDeviceError::statusText(status) + ")");
}

CoreAudioHardware::~CoreAudioHardware() {
    AudioObjectRemovePropertyListener(kAudioObjectSystemObject, &kServiceRestartedAddress,
                                      &onServiceRestarted, &serviceGeneration_);
}

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
    if (ioDataSize && data && namesAnIOProc(address, *ioDataSize)) {
        const UInt32 capacity = *ioDataSize;
        std::vector<std::uint64_t> payload = withHALProc(data, capacity);
        const OSStatus status = AudioObjectGetPropertyData(
            object, &halAddress, qualifierDataSize, qualifierData, ioDataSize, payload.data());
        if (status != noErr) return status;
        // The caller gets the flags with its own token back in mIOProc.
        void* token = nullptr;
        std::memcpy(&token, static_cast<const char*>(data) + kUsageProcOffset, sizeof token);
        std::memcpy(data, payload.data(), std::min(*ioDataSize, capacity));
        std::memcpy(static_cast<char*>(data) + kUsageProcOffset, &token, sizeof token);
        return noErr;
    }
    return AudioObjectGetPropertyData(object, &halAddress, qualifierDataSize, qualifierData,
                                      ioDataSize, data);
}

OSStatus CoreAudioHardware::setPropertyData(AudioObjectID object,
                                            const AudioObjectPropertyAddress& address,
                                            UInt32 qualifierDataSize, const void* qualifierData,
                                            UInt32 dataSize, const void* data) {
    const ::AudioObjectPropertyAddress halAddress = hal(address);
    if (data && namesAnIOProc(address, dataSize)) {
        const std::vector<std::uint64_t> payload = withHALProc(data, dataSize);
        return AudioObjectSetPropertyData(object, &halAddress, qualifierDataSize, qualifierData,
                                          dataSize, payload.data());
    }
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
    *procID = new AudioDeviceIOProcToken{halID, device, nullptr};
    return noErr;
}

OSStatus CoreAudioHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (!procID) return kAudioHardwareIllegalOperationError;
    procID->cancelPendingStart();
    const OSStatus status = AudioDeviceDestroyIOProcID(device, procID->halID);
    if (status == noErr) delete procID;
    return status;
}

OSStatus CoreAudioHardware::startDevice(AudioObjectID device, AudioDeviceIOProcID procID) {
    return AudioDeviceStart(device, procID ? procID->halID : nullptr);
}

OSStatus CoreAudioHardware::startDeviceWithoutWaiting(AudioObjectID device,
                                                      AudioDeviceIOProcID procID) {
    if (!procID) return kAudioHardwareIllegalOperationError;
    // AudioDeviceStart of an aggregate made with the tap auto-start key returns only once a
    // tapped process delivers audio. One serial queue of its own takes those starts, so the
    // main thread never waits on an app; stopping or destroying the IOProc first cancels a
    // start that has not begun. A start that reaches the HAL after the IOProc is gone fails
    // there and changes nothing.
    static dispatch_queue_t queue = dispatch_queue_create(
        "com.corvale.brightmix.device-start",
        dispatch_queue_attr_make_with_qos_class(DISPATCH_QUEUE_SERIAL, QOS_CLASS_UTILITY, 0));
    procID->cancelPendingStart();
    auto isCancelled = std::make_shared<std::atomic<bool>>(false);
    procID->isStartCancelled = isCancelled;
    const ::AudioDeviceIOProcID halID = procID->halID;
    dispatch_async(queue, ^{
      if (!isCancelled->load()) AudioDeviceStart(device, halID);
    });
    return noErr;
}

OSStatus CoreAudioHardware::stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (procID) procID->cancelPendingStart();
    return AudioDeviceStop(device, procID ? procID->halID : nullptr);
}

} // namespace brightmix
