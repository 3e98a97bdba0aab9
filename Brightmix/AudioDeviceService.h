// The system's only view of audio devices outside the real-time path. It turns the
// hardware's device objects into AudioDevice records, answers lookups, sets the default
// output or input, tells which processes play to a device and repairs a multi-output
// device whose display member came back under a new UID. It keeps no cache: every call
// reads the hardware afresh, and callers poll it from timers.
//
// Thread: control (the main thread) only. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Brightmix/AudioDevice.h"
#include "Brightmix/Uuid.h"
#include "platform/AudioHardware.h"

namespace brightmix {

// UIDs of the devices we create ourselves start with this; every list hides them.
inline constexpr std::string_view kPrivateDeviceUIDPrefix = "com.corvale.brightmix.private.";

class AudioDeviceService {
public:
    explicit AudioDeviceService(AudioHardware& hardware) : hardware_(hardware) {}

    AudioHardware& hardware() const { return hardware_; }
    AudioObjectID system() const { return system_; }

    // An array of object IDs; throws coreAudio("Reading audio property size" / "Reading
    // audio property", status).
    std::vector<AudioObjectID> propertyIDs(AudioObjectID object,
                                           AudioObjectPropertySelector selector,
                                           AudioObjectPropertyScope scope) const;

    // Every usable device in the system's order; a failed list read is an empty list.
    std::vector<AudioDevice> devices() const;
    static std::vector<AudioDevice> outputDevices(const std::vector<AudioDevice>& devices);
    static std::vector<AudioDevice> inputDevices(const std::vector<AudioDevice>& devices);

    std::optional<AudioObjectID> defaultDeviceID(AudioObjectPropertySelector selector) const;
    std::optional<AudioDevice> defaultOutputDevice() const;
    std::optional<AudioDevice> device(std::string_view uid) const;
    // The devices of the given UIDs, in the given order; absent UIDs are skipped.
    std::vector<AudioDevice> devices(const std::vector<std::string>& uids) const;

    // Throws coreAudio("Selecting " + name, status).
    void setDefaultDevice(const AudioDevice& device, AudioObjectPropertySelector selector) const;

    std::optional<double> nominalSampleRate(AudioObjectID device) const;
    std::optional<AudioObjectID> processObjectID(std::int32_t pid) const;

    bool isAnotherProcessPlaying(AudioObjectID device, std::int32_t excludedPID) const;
    std::vector<std::int32_t> playingProcessIDs(AudioObjectID device,
                                                std::int32_t excludedPID) const;

    // Missing member UID -> the UID of the one present display output with the same UUID.
    static std::map<std::string, std::string>
    reconnectionMap(const std::set<std::string>& uids, const std::vector<AudioDevice>& devices);
    // Rewrites the composition of a multi-output device through the map; throws.
    void reconnectMissingOutputs(AudioObjectID device,
                                 const std::map<std::string, std::string>& map) const;

    // The composition with its members' UIDs (and "master" / "clock") mapped, every other
    // entry kept; none when the value is not a usable composition, nothing would change, or
    // a UID would appear twice.
    static std::optional<PropertyList>
    rewriteComposition(const PropertyList& composition,
                       const std::map<std::string, std::string>& map);

    // The UUID a device UID carries: the whole UID, or the part before an underscore and
    // an eight-digit hexadecimal suffix.
    static std::optional<Uuid> uuidOfUID(std::string_view uid);

    // Display order: multi-output devices first, then by name with embedded numbers
    // compared by value, case-insensitively.
    static std::vector<AudioDevice> sortedForDisplay(std::vector<AudioDevice> devices);
    // The name comparison behind that order: negative, zero or positive. Letters compare
    // without regard to ASCII case; runs of digits compare by their value.
    static int compareNamesForDisplay(std::string_view a, std::string_view b);

    // Generic readers shared with the engine and playback detection. Each answers none on
    // any non-zero status or a value of the wrong shape.
    std::optional<std::string> stringProperty(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address) const;
    std::optional<std::vector<std::string>>
    stringArrayProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) const;
    std::optional<UInt32> uint32Property(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address) const;
    std::optional<std::int32_t> int32Property(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address) const;
    std::optional<AudioStreamBasicDescription>
    streamFormat(AudioObjectID object, const AudioObjectPropertyAddress& address) const;
    std::optional<double> float64Property(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address) const;

    // Sum of channels / number of buffers of a device's stream configuration in a scope;
    // 0 when it cannot be read.
    std::int64_t channelCount(AudioObjectID device, AudioObjectPropertyScope scope) const;
    std::int64_t bufferCount(AudioObjectID device, AudioObjectPropertyScope scope) const;

private:
    std::optional<AudioDevice> makeDevice(AudioObjectID id) const;
    bool supportsNativeVolume(AudioObjectID id, std::int64_t outputChannels) const;

    AudioHardware& hardware_;
    AudioObjectID system_ = kAudioObjectSystemObject;
};

} // namespace brightmix
