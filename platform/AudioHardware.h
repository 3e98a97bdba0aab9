// The one interface through which the core talks to audio hardware, shaped like the Core
// Audio hardware layer: properties on object IDs addressed by selector, scope and element
// (with an optional qualifier), process taps, aggregate devices and IOProcs. Every call
// answers with Core Audio's OSStatus values (CoreAudioConstants.h).
//
// Implementations: platform/sim (in-memory model for tests), platform/linux (PipeWire),
// platform/macos (a pass-through to the HAL).
//
// Thread: control (the main thread) for every call. The IOProcs it starts run on the
// implementation's real-time threads. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/CoreAudioConstants.h"
#include "platform/PropertyList.h"
#include "realtime/CoreAudioShapes.h"

namespace brightmix {

struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector = 0;
    AudioObjectPropertyScope mScope = kAudioObjectPropertyScopeGlobal;
    AudioObjectPropertyElement mElement = kAudioObjectPropertyElementMain;
};

// The address most reads use: the global scope and the main element.
constexpr AudioObjectPropertyAddress globalAddress(AudioObjectPropertySelector selector) {
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

// An IOProc with Core Audio's signature; it runs on the device's real-time thread.
using AudioDeviceIOProc = OSStatus (*)(AudioObjectID device, const AudioTimeStamp* now,
                                       const AudioBufferList* input,
                                       const AudioTimeStamp* inputTime, AudioBufferList* output,
                                       const AudioTimeStamp* outputTime, void* clientData);

// Opaque handle of an installed IOProc; null means none.
struct AudioDeviceIOProcToken;
using AudioDeviceIOProcID = AudioDeviceIOProcToken*;

// What a process tap captures: the fields of CATapDescription the core uses.
struct TapDescription {
    enum class Kind {
        // Every process but `processes`, mixed down to stereo.
        stereoGlobalExcludingProcesses,
        // Every process but `processes`, of the audio sent to stream `stream` of the
        // device `deviceUID`; the tap takes that stream's format.
        excludingProcessesOnDeviceStream,
        // Only `processes`, mixed down to stereo.
        stereoMixdownOfProcesses,
    };

    Kind kind = Kind::stereoGlobalExcludingProcesses;
    std::vector<AudioObjectID> processes; // process objects, not PIDs
    std::string deviceUID;
    std::int64_t stream = 0;
    std::string name;
    bool isPrivate = false;
    bool isProcessRestoreEnabled = false;
    int muteBehavior = kCATapUnmuted; // kCATapUnmuted, kCATapMuted, kCATapMutedWhenTapped

    friend bool operator==(const TapDescription&, const TapDescription&) = default;
};

class AudioHardware {
public:
    virtual ~AudioHardware() = default;

    // The audio system's life as this program sees it. The generation starts at 0 and goes
    // up each time the audio system restarted or the connection to it was lost. Every object
    // ID, tap, aggregate and IOProc from before a change is gone: callers forget them without
    // destroying them (an ID may already name a new object), and no IOProc registered before
    // runs again. Any thread may read the generation.
    virtual std::uint64_t serviceGeneration() const { return 0; }
    // Whether the audio system answers now. Asking may make a backend that lost its
    // connection try to connect again, no more often than its back-off allows; while it
    // answers false, every other call fails. Thread: control.
    virtual bool isServiceAvailable() { return true; }

    // This program's process ID as the hardware knows it (getpid on a real system; a
    // chosen number in the simulation). The engine excludes it from its tap, and process
    // lists skip it.
    virtual std::int32_t currentProcessID() const = 0;

    // Plain properties: raw bytes, as AudioObjectGetPropertyData and friends.
    virtual bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) = 0;
    virtual OSStatus isPropertySettable(AudioObjectID object,
                                        const AudioObjectPropertyAddress& address,
                                        bool* isSettable) = 0;
    virtual OSStatus getPropertyDataSize(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address,
                                         UInt32 qualifierDataSize, const void* qualifierData,
                                         UInt32* dataSize) = 0;
    // `ioDataSize` holds the buffer's size on entry and the bytes written on return.
    virtual OSStatus getPropertyData(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     UInt32 qualifierDataSize, const void* qualifierData,
                                     UInt32* ioDataSize, void* data) = 0;
    virtual OSStatus setPropertyData(AudioObjectID object,
                                     const AudioObjectPropertyAddress& address,
                                     UInt32 qualifierDataSize, const void* qualifierData,
                                     UInt32 dataSize, const void* data) = 0;

    // CF-typed properties (strings, arrays, dictionaries) as property-list values. A
    // property that answers with a null reference reads as a null value with status 0.
    virtual OSStatus getPropertyValue(AudioObjectID object,
                                      const AudioObjectPropertyAddress& address,
                                      PropertyList* value) = 0;
    virtual OSStatus setPropertyValue(AudioObjectID object,
                                      const AudioObjectPropertyAddress& address,
                                      const PropertyList& value) = 0;

    // Process taps.
    virtual OSStatus createProcessTap(const TapDescription& description, AudioObjectID* tapID) = 0;
    virtual OSStatus destroyProcessTap(AudioObjectID tapID) = 0;

    // Aggregate devices, from a description dictionary with the composition keys.
    virtual OSStatus createAggregateDevice(const PropertyList& description,
                                           AudioObjectID* deviceID) = 0;
    virtual OSStatus destroyAggregateDevice(AudioObjectID deviceID) = 0;

    // IOProcs. Stop returns only after a cycle in flight has finished, so the client data
    // may be freed after stop and destroy.
    virtual OSStatus createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                                    AudioDeviceIOProcID* procID) = 0;
    virtual OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) = 0;
    virtual OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) = 0;
    // Starts an IOProc without making the caller wait for it. Some starts are held back by the
    // system: an aggregate made with the tap auto-start key starts only once a tapped process
    // delivers its first audio, which may be never; the main thread must not wait on an app.
    // The answer says only whether the start could be asked for; a start the system refuses
    // later shows as a device that runs no cycles. Stopping such an IOProc before its start
    // went through cancels the start. Backends whose starts never wait start at once.
    virtual OSStatus startDeviceWithoutWaiting(AudioObjectID device, AudioDeviceIOProcID procID) {
        return startDevice(device, procID);
    }
    virtual OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) = 0;
};

} // namespace brightmix
