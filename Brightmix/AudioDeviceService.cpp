// AudioDeviceService: device records, lookups, the default device, playing processes and
// the repair of a multi-output device whose display member came back under a new UID.
#include "Brightmix/AudioDeviceService.h"

#include <algorithm>
#include <cstddef>
#include <unordered_map>

#include "Brightmix/AudioDeviceError.h"

namespace brightmix {

namespace {

constexpr const char* kReconnectFailedMessage =
    "The missing output could not be reconnected automatically. Check Audio MIDI Setup.";

// A fixed-size plain value; none on a failed read or when the hardware answers with a
// different number of bytes than the type holds.
template <typename T>
std::optional<T> readScalar(AudioHardware& hardware, AudioObjectID object,
                            const AudioObjectPropertyAddress& address, UInt32 qualifierSize = 0,
                            const void* qualifier = nullptr) {
    T value{};
    UInt32 size = sizeof(T);
    const OSStatus status =
        hardware.getPropertyData(object, address, qualifierSize, qualifier, &size, &value);
    if (status != 0 || size != sizeof(T)) return std::nullopt;
    return value;
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

char foldCase(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

std::vector<AudioObjectID> AudioDeviceService::propertyIDs(AudioObjectID object,
                                                           AudioObjectPropertySelector selector,
                                                           AudioObjectPropertyScope scope) const {
    const AudioObjectPropertyAddress address{selector, scope, kAudioObjectPropertyElementMain};
    UInt32 size = 0;
    throwIfError(hardware_.getPropertyDataSize(object, address, 0, nullptr, &size),
                 "Reading audio property size");
    const std::size_t count = size / sizeof(AudioObjectID);
    // Zero-filled: the list may shrink between the two calls, and the count of the size
    // query is kept.
    std::vector<AudioObjectID> ids(count, kAudioObjectUnknown);
    UInt32 ioSize = static_cast<UInt32>(count * sizeof(AudioObjectID));
    throwIfError(hardware_.getPropertyData(object, address, 0, nullptr, &ioSize, ids.data()),
                 "Reading audio property");
    return ids;
}

std::optional<std::string>
AudioDeviceService::stringProperty(AudioObjectID object,
                                   const AudioObjectPropertyAddress& address) const {
    if (!hardware_.hasProperty(object, address)) return std::nullopt;
    PropertyList value;
    if (hardware_.getPropertyValue(object, address, &value) != 0) return std::nullopt;
    if (const auto* text = value.asString()) return *text;
    return std::nullopt;
}

std::optional<std::vector<std::string>>
AudioDeviceService::stringArrayProperty(AudioObjectID object,
                                        const AudioObjectPropertyAddress& address) const {
    if (!hardware_.hasProperty(object, address)) return std::nullopt;
    PropertyList value;
    if (hardware_.getPropertyValue(object, address, &value) != 0) return std::nullopt;
    const auto* items = value.asArray();
    if (items == nullptr) return std::nullopt;
    std::vector<std::string> texts;
    texts.reserve(items->size());
    for (const auto& item : *items) {
        const auto* text = item.asString();
        if (text == nullptr) return std::nullopt;
        texts.push_back(*text);
    }
    return texts;
}

std::optional<UInt32>
AudioDeviceService::uint32Property(AudioObjectID object,
                                   const AudioObjectPropertyAddress& address) const {
    return readScalar<UInt32>(hardware_, object, address);
}

std::optional<std::int32_t>
AudioDeviceService::int32Property(AudioObjectID object,
                                  const AudioObjectPropertyAddress& address) const {
    return readScalar<std::int32_t>(hardware_, object, address);
}

std::optional<double>
AudioDeviceService::float64Property(AudioObjectID object,
                                    const AudioObjectPropertyAddress& address) const {
    return readScalar<Float64>(hardware_, object, address);
}

std::optional<AudioStreamBasicDescription>
AudioDeviceService::streamFormat(AudioObjectID object,
                                 const AudioObjectPropertyAddress& address) const {
    return readScalar<AudioStreamBasicDescription>(hardware_, object, address);
}

namespace {

// Reads a stream configuration into storage aligned for AudioBuffer and answers the
// buffers that the returned bytes really hold: a list that claims more buffers than it
// carries is cut to what is there.
std::vector<AudioBuffer> readStreamConfiguration(AudioHardware& hardware, AudioObjectID device,
                                                 AudioObjectPropertyScope scope) {
    const AudioObjectPropertyAddress address{kAudioDevicePropertyStreamConfiguration, scope,
                                             kAudioObjectPropertyElementMain};
    UInt32 size = 0;
    if (hardware.getPropertyDataSize(device, address, 0, nullptr, &size) != 0) return {};
    constexpr std::size_t header = offsetof(AudioBufferList, mBuffers);
    if (size < header) return {};
    // AudioBuffer-sized slots keep the list correctly aligned.
    std::vector<AudioBuffer> storage((size + sizeof(AudioBuffer) - 1) / sizeof(AudioBuffer) + 1);
    UInt32 ioSize = size;
    if (hardware.getPropertyData(device, address, 0, nullptr, &ioSize, storage.data()) != 0)
        return {};
    if (ioSize < header) return {};
    const auto* list = reinterpret_cast<const AudioBufferList*>(storage.data());
    const std::size_t fitting =
        (std::min<std::size_t>(ioSize, size) - header) / sizeof(AudioBuffer);
    const std::size_t count = std::min<std::size_t>(list->mNumberBuffers, fitting);
    return std::vector<AudioBuffer>(list->mBuffers, list->mBuffers + count);
}

} // namespace

std::int64_t AudioDeviceService::channelCount(AudioObjectID device,
                                              AudioObjectPropertyScope scope) const {
    std::int64_t channels = 0;
    for (const auto& buffer : readStreamConfiguration(hardware_, device, scope))
        channels += buffer.mNumberChannels;
    return channels;
}

std::int64_t AudioDeviceService::bufferCount(AudioObjectID device,
                                             AudioObjectPropertyScope scope) const {
    return static_cast<std::int64_t>(readStreamConfiguration(hardware_, device, scope).size());
}

bool AudioDeviceService::supportsNativeVolume(AudioObjectID id, std::int64_t outputChannels) const {
    const auto isSettable = [&](AudioObjectPropertyElement element) {
        const AudioObjectPropertyAddress address{kAudioDevicePropertyVolumeScalar,
                                                 kAudioObjectPropertyScopeOutput, element};
        if (!hardware_.hasProperty(id, address)) return false;
        bool settable = false;
        return hardware_.isPropertySettable(id, address, &settable) == 0 && settable;
    };
    if (isSettable(kAudioObjectPropertyElementMain)) return true;
    if (outputChannels < 1) return false;
    for (std::int64_t element = 1; element <= outputChannels; ++element) {
        if (isSettable(static_cast<AudioObjectPropertyElement>(element))) return true;
    }
    return false;
}

std::optional<AudioDevice> AudioDeviceService::makeDevice(AudioObjectID id) const {
    AudioDevice device;
    device.id = id;
    device.inputChannels = channelCount(id, kAudioObjectPropertyScopeInput);
    device.outputChannels = channelCount(id, kAudioObjectPropertyScopeOutput);
    if (device.inputChannels == 0 && device.outputChannels == 0) return std::nullopt;

    auto uid = stringProperty(id, globalAddress(kAudioDevicePropertyDeviceUID));
    if (!uid) return std::nullopt;
    auto name = stringProperty(id, globalAddress(kAudioObjectPropertyName));
    if (!name) return std::nullopt;
    device.uid = std::move(*uid);
    device.name = std::move(*name);

    if (auto members =
            stringArrayProperty(id, globalAddress(kAudioAggregateDevicePropertyFullSubDeviceList)))
        device.subdeviceUIDs = std::move(*members);
    device.mainSubdeviceUID =
        stringProperty(id, globalAddress(kAudioAggregateDevicePropertyMainSubDevice));
    device.supportsNativeVolume = supportsNativeVolume(id, device.outputChannels);
    device.transportType =
        uint32Property(id, globalAddress(kAudioDevicePropertyTransportType)).value_or(0);

    // Our own router and detection devices are visible to us alone; the test comes after
    // every read so that each device costs the same reads whatever it turns out to be.
    if (device.uid.starts_with(kPrivateDeviceUIDPrefix)) return std::nullopt;
    return device;
}

std::vector<AudioDevice> AudioDeviceService::devices() const {
    std::vector<AudioObjectID> ids;
    try {
        ids = propertyIDs(system_, kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal);
    } catch (const AudioDeviceError&) {
        return {};
    }
    std::vector<AudioDevice> result;
    result.reserve(ids.size());
    for (const AudioObjectID id : ids) {
        if (auto device = makeDevice(id)) result.push_back(std::move(*device));
    }
    return result;
}

std::vector<AudioDevice>
AudioDeviceService::outputDevices(const std::vector<AudioDevice>& devices) {
    std::vector<AudioDevice> result;
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(result),
                 [](const AudioDevice& device) { return device.outputChannels > 0; });
    return result;
}

std::vector<AudioDevice> AudioDeviceService::inputDevices(const std::vector<AudioDevice>& devices) {
    std::vector<AudioDevice> result;
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(result),
                 [](const AudioDevice& device) { return device.inputChannels > 0; });
    return result;
}

std::optional<AudioObjectID>
AudioDeviceService::defaultDeviceID(AudioObjectPropertySelector selector) const {
    const auto id = uint32Property(system_, globalAddress(selector));
    if (!id || *id == kAudioObjectUnknown) return std::nullopt;
    return id;
}

std::optional<AudioDevice> AudioDeviceService::defaultOutputDevice() const {
    const auto id = defaultDeviceID(kAudioHardwarePropertyDefaultOutputDevice);
    if (!id) return std::nullopt;
    for (auto& device : devices()) {
        if (device.id == *id) return std::move(device);
    }
    return std::nullopt;
}

std::optional<AudioDevice> AudioDeviceService::device(std::string_view uid) const {
    for (auto& device : devices()) {
        if (device.uid == uid) return std::move(device);
    }
    return std::nullopt;
}

std::vector<AudioDevice> AudioDeviceService::devices(const std::vector<std::string>& uids) const {
    std::unordered_map<std::string, AudioDevice> byUID;
    for (auto& device : devices()) {
        std::string key = device.uid;
        byUID.try_emplace(std::move(key), std::move(device)); // the first of a repeated UID wins
    }
    std::vector<AudioDevice> result;
    for (const auto& uid : uids) {
        if (const auto found = byUID.find(uid); found != byUID.end())
            result.push_back(found->second);
    }
    return result;
}

void AudioDeviceService::setDefaultDevice(const AudioDevice& device,
                                          AudioObjectPropertySelector selector) const {
    const AudioObjectID id = device.id;
    throwIfError(
        hardware_.setPropertyData(system_, globalAddress(selector), 0, nullptr, sizeof id, &id),
        "Selecting " + device.name);
}

std::optional<double> AudioDeviceService::nominalSampleRate(AudioObjectID device) const {
    const auto rate = float64Property(device, globalAddress(kAudioDevicePropertyNominalSampleRate));
    if (!rate || !(*rate > 0)) return std::nullopt;
    return rate;
}

std::optional<AudioObjectID> AudioDeviceService::processObjectID(std::int32_t pid) const {
    const auto object = readScalar<AudioObjectID>(
        hardware_, system_, globalAddress(kAudioHardwarePropertyTranslatePIDToProcessObject),
        sizeof pid, &pid);
    // An unknown PID answers kAudioObjectUnknown with no error.
    if (!object || *object == kAudioObjectUnknown) return std::nullopt;
    return object;
}

namespace {

// Visits, in process-list order, every process other than `excludedPID` that runs output to
// `device`, with its PID when that can be read. Running output without naming a device counts
// as playing to every device. The visitor returns false to stop; a process list that cannot be
// read visits nothing.
template <typename Visitor>
void visitProcessesPlayingTo(const AudioDeviceService& service, AudioObjectID device,
                             std::int32_t excludedPID, Visitor visit) {
    std::vector<AudioObjectID> processes;
    try {
        processes = service.propertyIDs(service.system(), kAudioHardwarePropertyProcessObjectList,
                                        kAudioObjectPropertyScopeGlobal);
    } catch (const AudioDeviceError&) {
        return;
    }
    for (const AudioObjectID process : processes) {
        // A PID that cannot be read does not exclude the process.
        const auto pid = service.int32Property(process, globalAddress(kAudioProcessPropertyPID));
        if (pid && *pid == excludedPID) continue;
        const auto running =
            service.uint32Property(process, globalAddress(kAudioProcessPropertyIsRunningOutput));
        if (!running || *running == 0) continue;
        std::vector<AudioObjectID> used;
        try {
            used = service.propertyIDs(process, kAudioProcessPropertyDevices,
                                       kAudioObjectPropertyScopeGlobal);
        } catch (const AudioDeviceError&) {
        }
        if (used.empty() || std::find(used.begin(), used.end(), device) != used.end()) {
            if (!visit(pid)) return;
        }
    }
}

} // namespace

bool AudioDeviceService::isAnotherProcessPlaying(AudioObjectID device,
                                                 std::int32_t excludedPID) const {
    bool isPlaying = false;
    visitProcessesPlayingTo(*this, device, excludedPID, [&](std::optional<std::int32_t>) {
        isPlaying = true;
        return false;
    });
    return isPlaying;
}

std::vector<std::int32_t> AudioDeviceService::playingProcessIDs(AudioObjectID device,
                                                                std::int32_t excludedPID) const {
    // Unlike the yes-or-no question above, a process whose PID cannot be read is left out:
    // there is nothing to list for it.
    std::vector<std::int32_t> pids;
    visitProcessesPlayingTo(*this, device, excludedPID, [&](std::optional<std::int32_t> pid) {
        if (pid) pids.push_back(*pid);
        return true;
    });
    return pids;
}

std::optional<Uuid> AudioDeviceService::uuidOfUID(std::string_view uid) {
    const auto underscore = uid.find('_');
    if (underscore == std::string_view::npos) return parseUuid(uid);
    const std::string_view head = uid.substr(0, underscore);
    const std::string_view suffix = uid.substr(underscore + 1);
    // Exactly two pieces: a second underscore makes three.
    if (suffix.find('_') != std::string_view::npos) return std::nullopt;
    if (suffix.size() != 8 || !std::all_of(suffix.begin(), suffix.end(), isHexDigit))
        return std::nullopt;
    return parseUuid(head);
}

std::map<std::string, std::string>
AudioDeviceService::reconnectionMap(const std::set<std::string>& uids,
                                    const std::vector<AudioDevice>& devices) {
    std::set<std::string_view> present;
    std::set<std::string_view> displayCandidates;
    for (const auto& device : devices) {
        present.insert(device.uid);
        if (device.outputChannels >= 1 && device.subdeviceUIDs.empty() &&
            (device.transportType == kAudioDeviceTransportTypeHDMI ||
             device.transportType == kAudioDeviceTransportTypeDisplayPort))
            displayCandidates.insert(device.uid);
    }
    std::map<std::string, std::string> map;
    for (const auto& missing : uids) {
        if (present.contains(missing)) continue;
        const auto uuid = uuidOfUID(missing);
        if (!uuid) continue;
        const AudioDevice* match = nullptr;
        int matches = 0;
        for (const auto& device : devices) {
            if (uuidOfUID(device.uid) == uuid) {
                match = &device;
                ++matches;
            }
        }
        if (matches == 1 && displayCandidates.contains(match->uid)) map[missing] = match->uid;
    }
    return map;
}

std::optional<PropertyList>
AudioDeviceService::rewriteComposition(const PropertyList& composition,
                                       const std::map<std::string, std::string>& map) {
    const auto* entries = composition.asDictionary();
    if (entries == nullptr || entries->empty()) return std::nullopt;
    const auto* members = composition.find(kAudioAggregateDeviceSubDeviceListKey);
    if (members == nullptr || members->asArray() == nullptr) return std::nullopt;

    std::vector<std::string> original;
    for (const auto& member : *members->asArray()) {
        if (member.asDictionary() == nullptr) return std::nullopt;
        const auto* uid = member.find(kAudioSubDeviceUIDKey);
        if (uid == nullptr || uid->asString() == nullptr) return std::nullopt;
        original.push_back(*uid->asString());
    }
    const auto mapped = [&](const std::string& uid) -> const std::string& {
        const auto found = map.find(uid);
        return found == map.end() ? uid : found->second;
    };
    std::vector<std::string> rewritten;
    rewritten.reserve(original.size());
    for (const auto& uid : original)
        rewritten.push_back(mapped(uid));
    if (rewritten == original) return std::nullopt;
    if (std::set<std::string>(rewritten.begin(), rewritten.end()).size() != rewritten.size())
        return std::nullopt;

    PropertyList result = composition;
    auto& resultEntries = *result.asDictionary();
    auto& resultMembers = *resultEntries[kAudioAggregateDeviceSubDeviceListKey].asArray();
    for (std::size_t i = 0; i < resultMembers.size(); ++i)
        (*resultMembers[i].asDictionary())[kAudioSubDeviceUIDKey] = PropertyList(rewritten[i]);
    for (const char* key :
         {kAudioAggregateDeviceMainSubDeviceKey, kAudioAggregateDeviceClockDeviceKey}) {
        const auto entry = resultEntries.find(key);
        if (entry == resultEntries.end() || entry->second.asString() == nullptr) continue;
        const auto found = map.find(*entry->second.asString());
        if (found != map.end()) entry->second = PropertyList(found->second);
    }
    return result;
}

void AudioDeviceService::reconnectMissingOutputs(
    AudioObjectID device, const std::map<std::string, std::string>& map) const {
    const auto address = globalAddress(kAudioAggregateDevicePropertyComposition);
    PropertyList composition;
    throwIfError(hardware_.getPropertyValue(device, address, &composition),
                 "Reading the output configuration");
    const auto rewritten = rewriteComposition(composition, map);
    if (!rewritten) throw AudioDeviceError::unavailable(kReconnectFailedMessage);
    throwIfError(hardware_.setPropertyValue(device, address, *rewritten),
                 "Reconnecting the display output");
}

int AudioDeviceService::compareNamesForDisplay(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            // Compare the runs by value: strip leading zeros, then the longer run is larger,
            // and runs of equal length compare digit by digit.
            std::size_t endA = i;
            while (endA < a.size() && isDigit(a[endA]))
                ++endA;
            std::size_t endB = j;
            while (endB < b.size() && isDigit(b[endB]))
                ++endB;
            std::size_t startA = i;
            while (startA + 1 < endA && a[startA] == '0')
                ++startA;
            std::size_t startB = j;
            while (startB + 1 < endB && b[startB] == '0')
                ++startB;
            const std::size_t lengthA = endA - startA;
            const std::size_t lengthB = endB - startB;
            if (lengthA != lengthB) return lengthA < lengthB ? -1 : 1;
            const int digits = a.substr(startA, lengthA).compare(b.substr(startB, lengthB));
            if (digits != 0) return digits < 0 ? -1 : 1;
            i = endA;
            j = endB;
            continue;
        }
        const auto ca = static_cast<unsigned char>(foldCase(a[i]));
        const auto cb = static_cast<unsigned char>(foldCase(b[j]));
        if (ca != cb) return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    const bool aDone = i >= a.size();
    const bool bDone = j >= b.size();
    if (aDone && bDone) return 0;
    return aDone ? -1 : 1;
}

std::vector<AudioDevice> AudioDeviceService::sortedForDisplay(std::vector<AudioDevice> devices) {
    std::stable_sort(devices.begin(), devices.end(),
                     [](const AudioDevice& a, const AudioDevice& b) {
                         if (a.isMultiOutput() != b.isMultiOutput()) return a.isMultiOutput();
                         return compareNamesForDisplay(a.name, b.name) < 0;
                     });
    return devices;
}

} // namespace brightmix
