// The simulated Core Audio object world: object model, property access, taps, aggregates,
// IOProcs, pumped and threaded IO cycles, fault injection and leak accounting.
#include "platform/sim/SimulatedAudioHardware.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace brightmix {

namespace {

constexpr UInt32 kPreparedFrames = 4096;
constexpr UInt32 kCFReferenceSize = 8; // a CFTypeRef on a 64-bit system
constexpr UInt32 kTimeStampSampleTimeValid = 1;

// Selectors this model knows beyond those the core names.
constexpr AudioObjectPropertySelector kStreamDirection = fourCharCode("sdir");
constexpr AudioObjectPropertySelector kProcessIsRunning = fourCharCode("pir?");

AudioStreamBasicDescription floatFormat(double rate, UInt32 channels) {
    AudioStreamBasicDescription format{};
    format.mSampleRate = rate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagsNativeFloatPacked;
    format.mBytesPerPacket = 4 * channels;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = 4 * channels;
    format.mChannelsPerFrame = channels;
    format.mBitsPerChannel = 32;
    return format;
}

template <typename T> void appendBytes(std::vector<std::uint8_t>& bytes, const T& value) {
    const auto* begin = reinterpret_cast<const std::uint8_t*>(&value);
    bytes.insert(bytes.end(), begin, begin + sizeof(T));
}

template <typename T> std::vector<std::uint8_t> bytesOf(const T& value) {
    std::vector<std::uint8_t> bytes;
    appendBytes(bytes, value);
    return bytes;
}

std::vector<std::uint8_t> bytesOfIDs(const std::vector<AudioObjectID>& ids) {
    std::vector<std::uint8_t> bytes(ids.size() * sizeof(AudioObjectID));
    if (!ids.empty()) std::memcpy(bytes.data(), ids.data(), bytes.size());
    return bytes;
}

std::string tapUIDFor(std::uint64_t serial) {
    char text[40];
    std::snprintf(text, sizeof text, "7A9B0000-0000-4000-8000-%012llX",
                  static_cast<unsigned long long>(serial));
    return text;
}

bool isDirectionalScope(AudioObjectPropertyScope scope) {
    return scope == kAudioObjectPropertyScopeInput || scope == kAudioObjectPropertyScopeOutput;
}

// A dictionary entry that CF would accept as a number (Booleans included).
bool isNumberOrAbsent(const PropertyList& dictionary, const char* key) {
    const auto* entry = dictionary.find(key);
    return entry == nullptr || entry->asNumber().has_value();
}

double numberOr(const PropertyList& dictionary, const char* key, double fallback) {
    const auto* entry = dictionary.find(key);
    if (entry == nullptr) return fallback;
    return entry->asNumber().value_or(fallback);
}

} // namespace

// ---- The model's objects ----------------------------------------------------------------

struct SimulatedAudioHardware::Stream {
    AudioObjectID id = 0;
    AudioObjectID device = 0;
    bool isInput = false;
    UInt32 channels = 0;
    AudioStreamBasicDescription format{};
    // A hardware input stream (a device's own, or a member's inside an aggregate): the device
    // whose microphone it carries and the first of that device's input channels it holds.
    // 0 for outputs and for a tap's stream.
    AudioObjectID origin = 0;
    UInt32 originChannel = 0;
};

struct SimulatedAudioHardware::PropertyFault {
    AudioObjectID object = 0;
    AudioObjectPropertySelector selector = 0;
    OSStatus status = 0;
    Times times = Times::always;
};

// What a prepared device needs to run cycles without touching the model: the IO thread of
// threaded mode sees nothing else.
struct SimulatedAudioHardware::IOState {
    struct TapSource {
        UInt32 channels = 0;
        std::vector<Generator> generators;
    };
    struct StartedProc {
        std::uintptr_t token = 0;
        AudioDeviceIOProc proc = nullptr;
        void* clientData = nullptr;
        // The proc's stream usage, per buffer (0 = off). While any stream is off the proc gets
        // its own copy of the cycle's list, prepared here, with that buffer's data null.
        std::vector<UInt32> inputIsOn;
        std::vector<UInt32> outputIsOn;
        bool hasInputOff = false;
        bool hasOutputOff = false;
        std::vector<AudioBuffer> inputList;
        std::vector<AudioBuffer> outputList;
    };

    std::mutex mutex; // held for a whole cycle, so stopping waits for one in flight
    std::uint64_t generation = ~std::uint64_t(0);
    UInt32 capacity = 0;
    UInt32 lastFrames = 0;
    AudioObjectID device = 0;

    std::vector<UInt32> inputChannels;     // per input buffer
    std::vector<int> inputSource;          // per input buffer: tap source index, or -1
    std::vector<int> inputMicrophone;      // per input buffer: microphones index, or -1
    std::vector<UInt32> inputFirstChannel; // per input buffer: its origin's first channel
    std::vector<TapSource> tapSources;
    std::vector<Generator> microphones;
    std::vector<UInt32> outputChannels; // per output buffer
    bool isSilent = false;

    std::vector<float> inputSamples;
    std::vector<float> outputSamples;
    std::vector<float> scratchSamples;
    std::vector<std::size_t> inputOffsets;
    std::vector<std::size_t> outputOffsets;
    // Buffer lists live in AudioBuffer-sized slots, which keeps them aligned.
    std::vector<AudioBuffer> inputList;
    std::vector<AudioBuffer> outputList;
    std::vector<AudioBuffer> scratchList;

    std::vector<StartedProc> procs;
    std::uint64_t sampleTime = 0;
    std::atomic<std::uint64_t> cycles{0};
    std::atomic<bool> isSuppressed{false};
    std::atomic<bool> stopRequested{false};
    std::thread thread;
};

struct SimulatedAudioHardware::Device {
    enum class Kind { plain, multiOutput, aggregate };
    struct MemberSlots {
        std::string uid;
        std::size_t firstSlot = 0;
        std::size_t count = 0;
    };

    AudioObjectID id = 0;
    Kind kind = Kind::plain;
    std::string uid;
    std::string name;
    UInt32 transportType = 0;
    double sampleRate = 48000.0;
    std::vector<AudioObjectID> outputStreams;
    std::vector<AudioObjectID> inputStreams;
    std::set<UInt32> volumeElements;
    std::set<UInt32> settableVolumeElements;
    std::map<UInt32, float> volumes;

    // Multi-output and created aggregates.
    PropertyList composition;
    bool isCompositionSettable = true;
    // Created aggregates.
    bool isPrivate = false;
    std::vector<AudioObjectID> taps;
    std::vector<MemberSlots> memberSlots;

    std::unique_ptr<IOState> io;
};

struct SimulatedAudioHardware::Process {
    AudioObjectID id = 0;
    std::int32_t pid = 0;
    std::string bundleID;
    bool isRunningOutput = false;
    std::vector<AudioObjectID> devices;
};

struct SimulatedAudioHardware::Tap {
    AudioObjectID id = 0;
    TapDescription description;
    std::string uid;
    AudioStreamBasicDescription format{};
    AudioObjectID tappedDevice = 0; // per-device taps
};

struct SimulatedAudioHardware::IOProc {
    std::uintptr_t token = 0;
    AudioObjectID device = 0;
    AudioDeviceIOProc proc = nullptr;
    void* clientData = nullptr;
    bool isStarted = false;
    // 'suse' per stream of the device, input and output; every stream starts switched on.
    std::vector<UInt32> inputUsage;
    std::vector<UInt32> outputUsage;
};

namespace {

bool anyOff(const std::vector<UInt32>& usage) {
    return std::find(usage.begin(), usage.end(), 0u) != usage.end();
}

} // namespace

// ---- Construction -----------------------------------------------------------------------

SimulatedAudioHardware::DeviceSpec::DeviceSpec(std::string uid_, std::string name_,
                                               std::vector<UInt32> outputStreams_,
                                               std::vector<UInt32> inputStreams_)
    : uid(std::move(uid_)), name(std::move(name_)), outputStreams(std::move(outputStreams_)),
      inputStreams(std::move(inputStreams_)) {}

SimulatedAudioHardware::DeviceSpec& SimulatedAudioHardware::DeviceSpec::transport(UInt32 type) {
    transportType = type;
    return *this;
}

SimulatedAudioHardware::DeviceSpec& SimulatedAudioHardware::DeviceSpec::rate(double value) {
    sampleRate = value;
    return *this;
}

SimulatedAudioHardware::DeviceSpec&
SimulatedAudioHardware::DeviceSpec::volumeControl(UInt32 element, bool isSettable) {
    volumeElements.push_back(element);
    if (isSettable) settableVolumeElements.push_back(element);
    return *this;
}

SimulatedAudioHardware::ProcessSpec::ProcessSpec(std::int32_t pid_, std::string bundleID_,
                                                 bool isRunningOutput_,
                                                 std::vector<AudioObjectID> deviceIDs_)
    : pid(pid_), bundleID(std::move(bundleID_)), isRunningOutput(isRunningOutput_),
      deviceIDs(std::move(deviceIDs_)) {}

SimulatedAudioHardware::SimulatedAudioHardware(std::int32_t ownPID) : ownPID_(ownPID) {
    addProcess({ownPID, "com.corvale.brightmix"});
}

SimulatedAudioHardware::~SimulatedAudioHardware() {
    for (auto& [id, device] : devices_) {
        if (device->io) stopThread(*device);
    }
}

// ---- Scene ------------------------------------------------------------------------------

AudioObjectID SimulatedAudioHardware::addStream(Device& device, bool isInput, UInt32 channels,
                                                AudioStreamBasicDescription format) {
    Stream stream;
    stream.id = nextID();
    stream.device = device.id;
    stream.isInput = isInput;
    stream.channels = channels;
    stream.format = format;
    streams_[stream.id] = stream;
    (isInput ? device.inputStreams : device.outputStreams).push_back(stream.id);
    return stream.id;
}

AudioObjectID SimulatedAudioHardware::addDevice(const DeviceSpec& setup) {
    auto device = std::make_unique<Device>();
    device->id = nextID();
    device->uid = setup.uid;
    device->name = setup.name;
    device->transportType = setup.transportType;
    device->sampleRate = setup.sampleRate;
    device->volumeElements.insert(setup.volumeElements.begin(), setup.volumeElements.end());
    for (const UInt32 element : setup.settableVolumeElements) {
        device->volumeElements.insert(element);
        device->settableVolumeElements.insert(element);
    }
    for (const UInt32 channels : setup.outputStreams)
        addStream(*device, false, channels, floatFormat(setup.sampleRate, channels));
    UInt32 inputChannel = 0;
    for (const UInt32 channels : setup.inputStreams) {
        Stream& stream = streams_.at(
            addStream(*device, true, channels, floatFormat(setup.sampleRate, channels)));
        stream.origin = device->id;
        stream.originChannel = inputChannel;
        inputChannel += channels;
    }
    const AudioObjectID id = device->id;
    devices_[id] = std::move(device);
    sceneChanged();
    return id;
}

AudioObjectID
SimulatedAudioHardware::addMultiOutputDevice(const std::string& uid, const std::string& name,
                                             const std::vector<std::string>& memberUIDs,
                                             const std::optional<std::string>& mainMemberUID) {
    auto device = std::make_unique<Device>();
    device->id = nextID();
    device->kind = Device::Kind::multiOutput;
    device->uid = uid;
    device->name = name;
    device->transportType = kAudioDeviceTransportTypeAggregate;

    const std::string clockUID = mainMemberUID.value_or(memberUIDs.empty() ? "" : memberUIDs[0]);
    PropertyList::Array members;
    for (const auto& memberUID : memberUIDs) {
        const Device* member = findDeviceByUID(memberUID);
        PropertyList::Dictionary entry;
        entry[kAudioSubDeviceUIDKey] = PropertyList(memberUID);
        entry["name"] = PropertyList(member != nullptr ? member->name : memberUID);
        entry[kAudioSubDeviceDriftCompensationKey] =
            PropertyList::integer(memberUID == clockUID ? 0 : 1);
        entry["latency-out"] = PropertyList::integer(0);
        members.emplace_back(std::move(entry));
    }
    PropertyList::Dictionary composition;
    composition[kAudioAggregateDeviceUIDKey] = PropertyList(uid);
    composition[kAudioAggregateDeviceNameKey] = PropertyList(name);
    composition[kAudioAggregateDeviceSubDeviceListKey] = PropertyList(std::move(members));
    if (mainMemberUID) composition[kAudioAggregateDeviceMainSubDeviceKey] = *mainMemberUID;
    composition[kAudioAggregateDeviceIsStackedKey] = PropertyList::integer(1);
    composition[kAudioAggregateDeviceIsPrivateKey] = PropertyList::integer(0);
    device->composition = PropertyList(std::move(composition));

    UInt32 channels = 2;
    double rate = 48000.0;
    if (const Device* clock = findDeviceByUID(clockUID)) {
        rate = clock->sampleRate;
        if (!clock->outputStreams.empty()) channels = streams_.at(clock->outputStreams[0]).channels;
    }
    device->sampleRate = rate;
    addStream(*device, false, channels, floatFormat(rate, channels));
    const AudioObjectID id = device->id;
    devices_[id] = std::move(device);
    sceneChanged();
    return id;
}

void SimulatedAudioHardware::removeDevice(AudioObjectID id) {
    auto found = devices_.find(id);
    if (found == devices_.end()) throw std::invalid_argument("removeDevice: no such device");
    Device& device = *found->second;
    destroyProcsOf(device);
    for (const AudioObjectID stream : device.outputStreams)
        streams_.erase(stream);
    for (const AudioObjectID stream : device.inputStreams)
        streams_.erase(stream);
    devices_.erase(found);
    inputAudio_.erase(id);
    for (auto& [processID, process] : processes_)
        std::erase(process.devices, id);
    fallBackDefaults();
    sceneChanged();
}

AudioObjectID SimulatedAudioHardware::replaceDeviceUID(AudioObjectID id,
                                                       const std::string& newUID) {
    const Device* device = findDevice(id);
    if (device == nullptr || device->kind != Device::Kind::plain)
        throw std::invalid_argument("replaceDeviceUID: not a plain device");
    DeviceSpec setup(newUID, device->name, {});
    setup.transportType = device->transportType;
    setup.sampleRate = device->sampleRate;
    for (const AudioObjectID stream : device->outputStreams)
        setup.outputStreams.push_back(streams_.at(stream).channels);
    for (const AudioObjectID stream : device->inputStreams)
        setup.inputStreams.push_back(streams_.at(stream).channels);
    setup.volumeElements.assign(device->volumeElements.begin(), device->volumeElements.end());
    setup.settableVolumeElements.assign(device->settableVolumeElements.begin(),
                                        device->settableVolumeElements.end());
    removeDevice(id);
    return addDevice(setup);
}

SimulatedAudioHardware::Device* SimulatedAudioHardware::findDevice(AudioObjectID id) {
    const auto found = devices_.find(id);
    return found == devices_.end() ? nullptr : found->second.get();
}

const SimulatedAudioHardware::Device* SimulatedAudioHardware::findDevice(AudioObjectID id) const {
    const auto found = devices_.find(id);
    return found == devices_.end() ? nullptr : found->second.get();
}

const SimulatedAudioHardware::Device*
SimulatedAudioHardware::findDeviceByUID(const std::string& uid) const {
    for (const auto& [id, device] : devices_) {
        if (device->uid == uid) return device.get();
    }
    return nullptr;
}

namespace {

template <typename T> T& require(T* pointer, const char* what) {
    if (pointer == nullptr) throw std::invalid_argument(what);
    return *pointer;
}

} // namespace

void SimulatedAudioHardware::setDeviceName(AudioObjectID id, const std::string& name) {
    require(findDevice(id), "setDeviceName: no such device").name = name;
}

void SimulatedAudioHardware::setTransportType(AudioObjectID id, UInt32 transportType) {
    require(findDevice(id), "setTransportType: no such device").transportType = transportType;
}

void SimulatedAudioHardware::setNominalSampleRate(AudioObjectID id, double rate) {
    Device& device = require(findDevice(id), "setNominalSampleRate: no such device");
    device.sampleRate = rate;
    for (const auto* list : {&device.outputStreams, &device.inputStreams}) {
        for (const AudioObjectID stream : *list)
            streams_.at(stream).format.mSampleRate = rate;
    }
    sceneChanged();
}

void SimulatedAudioHardware::setVolumeSettable(AudioObjectID id, UInt32 element, bool isSettable) {
    Device& device = require(findDevice(id), "setVolumeSettable: no such device");
    device.volumeElements.insert(element);
    if (isSettable)
        device.settableVolumeElements.insert(element);
    else
        device.settableVolumeElements.erase(element);
}

void SimulatedAudioHardware::setStreamFormat(AudioObjectID id, AudioObjectPropertyScope scope,
                                             std::size_t streamIndex,
                                             const AudioStreamBasicDescription& format) {
    Device& device = require(findDevice(id), "setStreamFormat: no such device");
    const auto& list =
        scope == kAudioObjectPropertyScopeInput ? device.inputStreams : device.outputStreams;
    if (streamIndex >= list.size()) throw std::invalid_argument("setStreamFormat: no such stream");
    streams_.at(list[streamIndex]).format = format;
}

PropertyList SimulatedAudioHardware::composition(AudioObjectID id) const {
    const Device* device = findDevice(id);
    return device == nullptr ? PropertyList() : device->composition;
}

void SimulatedAudioHardware::setComposition(AudioObjectID id, const PropertyList& composition) {
    Device& device = require(findDevice(id), "setComposition: no such device");
    if (device.kind == Device::Kind::plain)
        throw std::invalid_argument("setComposition: not an aggregate device");
    device.composition = composition;
}

void SimulatedAudioHardware::setCompositionSettable(AudioObjectID id, bool isSettable) {
    require(findDevice(id), "setCompositionSettable: no such device").isCompositionSettable =
        isSettable;
}

AudioObjectID SimulatedAudioHardware::addProcess(const ProcessSpec& setup) {
    Process process;
    process.id = nextID();
    process.pid = setup.pid;
    process.bundleID = setup.bundleID;
    process.isRunningOutput = setup.isRunningOutput;
    process.devices = setup.deviceIDs;
    processes_[process.id] = process;
    sceneChanged();
    return process.id;
}

void SimulatedAudioHardware::removeProcess(AudioObjectID id) {
    if (processes_.erase(id) == 0) throw std::invalid_argument("removeProcess: no such process");
    sceneChanged();
}

void SimulatedAudioHardware::setProcessRunningOutput(AudioObjectID id, bool isRunningOutput) {
    const auto found = processes_.find(id);
    if (found == processes_.end())
        throw std::invalid_argument("setProcessRunningOutput: no such process");
    found->second.isRunningOutput = isRunningOutput;
    sceneChanged();
}

void SimulatedAudioHardware::setProcessDevices(AudioObjectID id,
                                               const std::vector<AudioObjectID>& devices) {
    const auto found = processes_.find(id);
    if (found == processes_.end())
        throw std::invalid_argument("setProcessDevices: no such process");
    found->second.devices = devices;
    sceneChanged();
}

void SimulatedAudioHardware::setProcessAudio(std::int32_t pid, Generator generator) {
    if (generator)
        processAudio_[pid] = std::move(generator);
    else
        processAudio_.erase(pid);
    sceneChanged();
}

void SimulatedAudioHardware::setInputAudio(AudioObjectID id, Generator generator) {
    require(findDevice(id), "setInputAudio: no such device");
    if (generator)
        inputAudio_[id] = std::move(generator);
    else
        inputAudio_.erase(id);
    sceneChanged();
}

void SimulatedAudioHardware::setDefaultOutput(AudioObjectID id) {
    defaultOutput_ = id;
}
void SimulatedAudioHardware::setDefaultInput(AudioObjectID id) {
    defaultInput_ = id;
}
AudioObjectID SimulatedAudioHardware::defaultOutput() const {
    return defaultOutput_;
}
AudioObjectID SimulatedAudioHardware::defaultInput() const {
    return defaultInput_;
}

void SimulatedAudioHardware::fallBackDefaults() {
    const auto fallBack = [this](AudioObjectID current, bool isInput) {
        if (findDevice(current) != nullptr) return current;
        for (const auto& [id, device] : devices_) {
            if (!(isInput ? device->inputStreams : device->outputStreams).empty()) return id;
        }
        return kAudioObjectUnknown;
    };
    if (defaultOutput_ != kAudioObjectUnknown) defaultOutput_ = fallBack(defaultOutput_, false);
    if (defaultInput_ != kAudioObjectUnknown) defaultInput_ = fallBack(defaultInput_, true);
}

AudioObjectID SimulatedAudioHardware::deviceID(const std::string& uid) const {
    const Device* device = findDeviceByUID(uid);
    return device == nullptr ? kAudioObjectUnknown : device->id;
}

AudioObjectID SimulatedAudioHardware::processObject(std::int32_t pid) const {
    for (const auto& [id, process] : processes_) {
        if (process.pid == pid) return id;
    }
    return kAudioObjectUnknown;
}

AudioObjectID SimulatedAudioHardware::tapID(const std::string& tapUID) const {
    for (const auto& [id, tap] : taps_) {
        if (tap.uid == tapUID) return id;
    }
    return kAudioObjectUnknown;
}

std::vector<AudioObjectID> SimulatedAudioHardware::streams(AudioObjectID id,
                                                           AudioObjectPropertyScope scope) const {
    const Device* device = findDevice(id);
    if (device == nullptr) return {};
    return scope == kAudioObjectPropertyScopeInput ? device->inputStreams : device->outputStreams;
}

std::optional<TapDescription> SimulatedAudioHardware::tapDescription(AudioObjectID tap) const {
    const auto found = taps_.find(tap);
    if (found == taps_.end()) return std::nullopt;
    return found->second.description;
}

float SimulatedAudioHardware::volumeScalar(AudioObjectID id, UInt32 element) const {
    const Device* device = findDevice(id);
    if (device == nullptr) return 0.0f;
    const auto found = device->volumes.find(element);
    return found == device->volumes.end() ? 1.0f : found->second;
}

// ---- Bad data and faults ----------------------------------------------------------------

void SimulatedAudioHardware::overridePropertyValue(AudioObjectID object,
                                                   const AudioObjectPropertyAddress& address,
                                                   PropertyList value) {
    valueOverrides_[{object, address.mSelector, address.mScope, address.mElement}] =
        std::move(value);
}

void SimulatedAudioHardware::overridePropertyData(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  std::vector<std::uint8_t> bytes) {
    dataOverrides_[{object, address.mSelector, address.mScope, address.mElement}] =
        std::move(bytes);
}

void SimulatedAudioHardware::hideProperty(AudioObjectID object,
                                          AudioObjectPropertySelector selector) {
    hidden_.insert({object, selector});
}

void SimulatedAudioHardware::overrideTapFormat(std::optional<AudioStreamBasicDescription> format) {
    tapFormatOverride_ = format;
}

void SimulatedAudioHardware::setTapFormat(AudioObjectID tap,
                                          const AudioStreamBasicDescription& format) {
    const auto found = taps_.find(tap);
    if (found == taps_.end()) throw std::invalid_argument("setTapFormat: no such tap");
    found->second.format = format;
    sceneChanged();
}

void SimulatedAudioHardware::failNext(Call call, OSStatus status) {
    callFaults_[call] = {status, Times::once};
}

void SimulatedAudioHardware::failAlways(Call call, OSStatus status) {
    callFaults_[call] = {status, Times::always};
}

void SimulatedAudioHardware::failProperty(AudioObjectID object,
                                          AudioObjectPropertySelector selector, OSStatus status,
                                          Times times) {
    propertyFaults_.push_back({object, selector, status, times});
}

void SimulatedAudioHardware::clearFaults() {
    callFaults_.clear();
    propertyFaults_.clear();
}

std::size_t SimulatedAudioHardware::callCount(Call call) const {
    const auto found = callCounts_.find(call);
    return found == callCounts_.end() ? 0 : found->second;
}

OSStatus SimulatedAudioHardware::callFault(Call call) {
    ++callCounts_[call];
    if (!isServiceUp_) return kAudioHardwareNotRunningError;
    const auto found = callFaults_.find(call);
    if (found == callFaults_.end()) return kAudioHardwareNoError;
    const OSStatus status = found->second.first;
    if (found->second.second == Times::once) callFaults_.erase(found);
    return status;
}

OSStatus SimulatedAudioHardware::propertyFault(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address) {
    for (auto fault = propertyFaults_.begin(); fault != propertyFaults_.end(); ++fault) {
        if ((fault->object == object || fault->object == kAudioObjectUnknown) &&
            fault->selector == address.mSelector) {
            const OSStatus status = fault->status;
            if (fault->times == Times::once) propertyFaults_.erase(fault);
            return status;
        }
    }
    return kAudioHardwareNoError;
}

// ---- The audio service's life ----------------------------------------------------------

void SimulatedAudioHardware::restartService(bool staysDown) {
    // Everything the program made goes with the old service, silently: its IO stops, and
    // destroying an old ID from now on finds nothing.
    std::vector<AudioObjectID> aggregates;
    for (const auto& [id, device] : devices_)
        if (device->kind == Device::Kind::aggregate) aggregates.push_back(id);
    for (const AudioObjectID id : aggregates)
        removeDevice(id);
    ioProcs_.clear();
    taps_.clear();
    isServiceUp_ = !staysDown;
    serviceGeneration_.fetch_add(1);
    sceneChanged();
}

// ---- Leak accounting --------------------------------------------------------------------

std::size_t SimulatedAudioHardware::liveTaps() const {
    return taps_.size();
}

std::size_t SimulatedAudioHardware::liveAggregates() const {
    return static_cast<std::size_t>(
        std::count_if(devices_.begin(), devices_.end(), [](const auto& entry) {
            return entry.second->kind == Device::Kind::aggregate;
        }));
}

std::size_t SimulatedAudioHardware::liveIOProcs() const {
    return ioProcs_.size();
}

std::size_t SimulatedAudioHardware::runningIOProcs() const {
    return static_cast<std::size_t>(
        std::count_if(ioProcs_.begin(), ioProcs_.end(),
                      [](const auto& entry) { return entry.second->isStarted; }));
}

// ---- Properties -------------------------------------------------------------------------

bool SimulatedAudioHardware::exists(AudioObjectID object) const {
    return object == kAudioObjectSystemObject || devices_.contains(object) ||
           streams_.contains(object) || processes_.contains(object) || taps_.contains(object);
}

bool SimulatedAudioHardware::isCFProperty(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address) const {
    const auto selector = address.mSelector;
    if (selector == kAudioObjectPropertyName) return true;
    if (devices_.contains(object))
        return selector == kAudioDevicePropertyDeviceUID ||
               selector == kAudioAggregateDevicePropertyFullSubDeviceList ||
               selector == kAudioAggregateDevicePropertyMainSubDevice ||
               selector == kAudioAggregateDevicePropertyComposition;
    if (processes_.contains(object)) return selector == kAudioProcessPropertyBundleID;
    if (taps_.contains(object)) return selector == kAudioTapPropertyUID;
    return false;
}

bool SimulatedAudioHardware::objectHasProperty(AudioObjectID object,
                                               const AudioObjectPropertyAddress& address) const {
    const auto selector = address.mSelector;
    if (hidden_.contains({object, selector})) return false;
    const auto key = std::make_tuple(object, selector, address.mScope, address.mElement);
    if (valueOverrides_.contains(key) || dataOverrides_.contains(key)) return true;

    // Per-channel elements exist only for the volume control.
    if (selector == kAudioDevicePropertyVolumeScalar) {
        const Device* device = findDevice(object);
        return device != nullptr && address.mScope == kAudioObjectPropertyScopeOutput &&
               device->volumeElements.contains(address.mElement);
    }
    if (address.mElement != kAudioObjectPropertyElementMain) return false;
    if (selector == kAudioObjectPropertyClass || selector == kAudioObjectPropertyName)
        return exists(object) && !streams_.contains(object);

    if (object == kAudioObjectSystemObject) {
        return selector == kAudioHardwarePropertyDevices ||
               selector == kAudioHardwarePropertyDefaultOutputDevice ||
               selector == kAudioHardwarePropertyDefaultInputDevice ||
               selector == kAudioHardwarePropertyProcessObjectList ||
               selector == kAudioHardwarePropertyTranslatePIDToProcessObject ||
               selector == kAudioHardwarePropertyTapList;
    }
    if (const Device* device = findDevice(object)) {
        if (selector == kAudioDevicePropertyStreamConfiguration ||
            selector == kAudioDevicePropertyIOProcStreamUsage)
            return isDirectionalScope(address.mScope);
        if (selector == kAudioDevicePropertyDeviceUID ||
            selector == kAudioDevicePropertyTransportType ||
            selector == kAudioDevicePropertyStreams ||
            selector == kAudioDevicePropertyNominalSampleRate ||
            selector == kAudioDevicePropertyDeviceIsRunning)
            return true;
        if (selector == kAudioAggregateDevicePropertyFullSubDeviceList ||
            selector == kAudioAggregateDevicePropertyMainSubDevice ||
            selector == kAudioAggregateDevicePropertyComposition)
            return device->kind != Device::Kind::plain;
        return false;
    }
    if (streams_.contains(object))
        return selector == kAudioObjectPropertyClass ||
               selector == kAudioStreamPropertyVirtualFormat || selector == kStreamDirection;
    if (processes_.contains(object))
        return selector == kAudioProcessPropertyPID || selector == kAudioProcessPropertyBundleID ||
               selector == kAudioProcessPropertyIsRunningOutput ||
               selector == kAudioProcessPropertyDevices || selector == kProcessIsRunning;
    if (taps_.contains(object))
        return selector == kAudioTapPropertyUID || selector == kAudioTapPropertyFormat;
    return false;
}

OSStatus SimulatedAudioHardware::readValue(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           PropertyList& value) const {
    const auto selector = address.mSelector;
    const auto override =
        valueOverrides_.find(std::make_tuple(object, selector, address.mScope, address.mElement));
    if (override != valueOverrides_.end()) {
        value = override->second;
        return kAudioHardwareNoError;
    }
    if (object == kAudioObjectSystemObject) {
        value = PropertyList("Simulated Audio System");
        return kAudioHardwareNoError;
    }
    if (const Device* device = findDevice(object)) {
        if (selector == kAudioObjectPropertyName) {
            value = PropertyList(device->name);
        } else if (selector == kAudioDevicePropertyDeviceUID) {
            value = PropertyList(device->uid);
        } else if (selector == kAudioAggregateDevicePropertyComposition) {
            value = device->composition;
        } else if (selector == kAudioAggregateDevicePropertyFullSubDeviceList) {
            PropertyList::Array uids;
            if (const auto* members =
                    device->composition.find(kAudioAggregateDeviceSubDeviceListKey)) {
                if (const auto* items = members->asArray()) {
                    for (const auto& member : *items) {
                        const auto* uid = member.find(kAudioSubDeviceUIDKey);
                        if (uid != nullptr && uid->asString() != nullptr)
                            uids.emplace_back(*uid->asString());
                    }
                }
            }
            value = PropertyList(std::move(uids));
        } else if (selector == kAudioAggregateDevicePropertyMainSubDevice) {
            const auto* main = device->composition.find(kAudioAggregateDeviceMainSubDeviceKey);
            value = main != nullptr && main->asString() != nullptr ? *main : PropertyList();
        }
        return kAudioHardwareNoError;
    }
    if (const auto process = processes_.find(object); process != processes_.end()) {
        if (selector == kAudioProcessPropertyBundleID)
            value = process->second.bundleID.empty() ? PropertyList()
                                                     : PropertyList(process->second.bundleID);
        else
            value = PropertyList(std::to_string(process->second.pid));
        return kAudioHardwareNoError;
    }
    if (const auto tap = taps_.find(object); tap != taps_.end()) {
        value = PropertyList(selector == kAudioTapPropertyUID ? tap->second.uid
                                                              : tap->second.description.name);
        return kAudioHardwareNoError;
    }
    return kAudioHardwareUnknownPropertyError;
}

OSStatus SimulatedAudioHardware::readPlain(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           UInt32 qualifierSize, const void* qualifier,
                                           std::vector<std::uint8_t>& bytes,
                                           bool& isVariable) const {
    const auto selector = address.mSelector;
    isVariable = false;
    const auto override =
        dataOverrides_.find(std::make_tuple(object, selector, address.mScope, address.mElement));
    if (override != dataOverrides_.end()) {
        bytes = override->second;
        isVariable = true;
        return kAudioHardwareNoError;
    }

    if (object == kAudioObjectSystemObject) {
        switch (selector) {
        case kAudioObjectPropertyClass:
            bytes = bytesOf(kAudioSystemObjectClassID);
            return kAudioHardwareNoError;
        case kAudioHardwarePropertyDevices: {
            std::vector<AudioObjectID> ids;
            for (const auto& [id, device] : devices_)
                ids.push_back(id);
            bytes = bytesOfIDs(ids);
            isVariable = true;
            return kAudioHardwareNoError;
        }
        case kAudioHardwarePropertyDefaultOutputDevice:
            bytes = bytesOf(defaultOutput_);
            return kAudioHardwareNoError;
        case kAudioHardwarePropertyDefaultInputDevice:
            bytes = bytesOf(defaultInput_);
            return kAudioHardwareNoError;
        case kAudioHardwarePropertyProcessObjectList: {
            std::vector<AudioObjectID> ids;
            for (const auto& [id, process] : processes_)
                ids.push_back(id);
            bytes = bytesOfIDs(ids);
            isVariable = true;
            return kAudioHardwareNoError;
        }
        case kAudioHardwarePropertyTapList: {
            std::vector<AudioObjectID> ids;
            for (const auto& [id, tap] : taps_)
                ids.push_back(id);
            bytes = bytesOfIDs(ids);
            isVariable = true;
            return kAudioHardwareNoError;
        }
        case kAudioHardwarePropertyTranslatePIDToProcessObject: {
            if (qualifier == nullptr || qualifierSize != sizeof(std::int32_t))
                return kAudioHardwareBadPropertySizeError;
            std::int32_t pid = 0;
            std::memcpy(&pid, qualifier, sizeof pid);
            // An unknown PID is not an error: the answer is simply no object.
            bytes = bytesOf(processObject(pid));
            return kAudioHardwareNoError;
        }
        default:
            return kAudioHardwareUnknownPropertyError;
        }
    }

    if (const Device* device = findDevice(object)) {
        const bool isInput = address.mScope == kAudioObjectPropertyScopeInput;
        switch (selector) {
        case kAudioObjectPropertyClass:
            bytes = bytesOf(device->kind == Device::Kind::plain ? kAudioDeviceClassID
                                                                : kAudioAggregateDeviceClassID);
            return kAudioHardwareNoError;
        case kAudioDevicePropertyTransportType:
            bytes = bytesOf(device->transportType);
            return kAudioHardwareNoError;
        case kAudioDevicePropertyNominalSampleRate:
            bytes = bytesOf(Float64(device->sampleRate));
            return kAudioHardwareNoError;
        case kAudioDevicePropertyDeviceIsRunning:
            bytes = bytesOf(UInt32(anyStarted(*device) ? 1 : 0));
            return kAudioHardwareNoError;
        case kAudioDevicePropertyStreams: {
            std::vector<AudioObjectID> ids;
            if (address.mScope != kAudioObjectPropertyScopeInput)
                ids.insert(ids.end(), device->outputStreams.begin(), device->outputStreams.end());
            if (address.mScope != kAudioObjectPropertyScopeOutput)
                ids.insert(ids.end(), device->inputStreams.begin(), device->inputStreams.end());
            bytes = bytesOfIDs(ids);
            isVariable = true;
            return kAudioHardwareNoError;
        }
        case kAudioDevicePropertyStreamConfiguration: {
            const auto& list = isInput ? device->inputStreams : device->outputStreams;
            bytes.clear();
            appendBytes(bytes, UInt32(list.size()));
            appendBytes(bytes, UInt32(0)); // padding before the 8-byte-aligned buffers
            for (const AudioObjectID stream : list) {
                AudioBuffer buffer{};
                buffer.mNumberChannels = streams_.at(stream).channels;
                appendBytes(bytes, buffer);
            }
            // An empty list is still a whole AudioBufferList.
            if (list.empty()) appendBytes(bytes, AudioBuffer{});
            return kAudioHardwareNoError;
        }
        case kAudioDevicePropertyVolumeScalar: {
            const auto found = device->volumes.find(address.mElement);
            bytes = bytesOf(Float32(found == device->volumes.end() ? 1.0f : found->second));
            return kAudioHardwareNoError;
        }
        default:
            return kAudioHardwareUnknownPropertyError;
        }
    }

    if (const auto stream = streams_.find(object); stream != streams_.end()) {
        switch (selector) {
        case kAudioObjectPropertyClass:
            bytes = bytesOf(kAudioStreamClassID);
            return kAudioHardwareNoError;
        case kAudioStreamPropertyVirtualFormat:
            bytes = bytesOf(stream->second.format);
            return kAudioHardwareNoError;
        case kStreamDirection:
            bytes = bytesOf(UInt32(stream->second.isInput ? 1 : 0));
            return kAudioHardwareNoError;
        default:
            return kAudioHardwareUnknownPropertyError;
        }
    }

    if (const auto process = processes_.find(object); process != processes_.end()) {
        switch (selector) {
        case kAudioObjectPropertyClass:
            bytes = bytesOf(kAudioProcessClassID);
            return kAudioHardwareNoError;
        case kAudioProcessPropertyPID:
            bytes = bytesOf(process->second.pid);
            return kAudioHardwareNoError;
        case kAudioProcessPropertyIsRunningOutput:
        case kProcessIsRunning:
            bytes = bytesOf(UInt32(process->second.isRunningOutput ? 1 : 0));
            return kAudioHardwareNoError;
        case kAudioProcessPropertyDevices:
            bytes = bytesOfIDs(process->second.devices);
            isVariable = true;
            return kAudioHardwareNoError;
        default:
            return kAudioHardwareUnknownPropertyError;
        }
    }

    if (const auto tap = taps_.find(object); tap != taps_.end()) {
        switch (selector) {
        case kAudioObjectPropertyClass:
            bytes = bytesOf(kAudioTapClassID);
            return kAudioHardwareNoError;
        case kAudioTapPropertyFormat:
            bytes = bytesOf(tap->second.format);
            return kAudioHardwareNoError;
        default:
            return kAudioHardwareUnknownPropertyError;
        }
    }
    return kAudioHardwareBadObjectError;
}

bool SimulatedAudioHardware::settable(AudioObjectID object,
                                      const AudioObjectPropertyAddress& address) const {
    const auto selector = address.mSelector;
    if (object == kAudioObjectSystemObject)
        return selector == kAudioHardwarePropertyDefaultOutputDevice ||
               selector == kAudioHardwarePropertyDefaultInputDevice;
    if (const Device* device = findDevice(object)) {
        if (selector == kAudioDevicePropertyNominalSampleRate ||
            selector == kAudioDevicePropertyIOProcStreamUsage)
            return true;
        if (selector == kAudioDevicePropertyVolumeScalar)
            return device->settableVolumeElements.contains(address.mElement);
        if (selector == kAudioAggregateDevicePropertyComposition)
            return device->kind == Device::Kind::multiOutput && device->isCompositionSettable;
    }
    return false;
}

bool SimulatedAudioHardware::hasProperty(AudioObjectID object,
                                         const AudioObjectPropertyAddress& address) {
    if (callFault(Call::hasProperty) != kAudioHardwareNoError) return false;
    return exists(object) && objectHasProperty(object, address);
}

OSStatus SimulatedAudioHardware::isPropertySettable(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    bool* isSettable) {
    if (const OSStatus status = callFault(Call::isPropertySettable)) return status;
    if (const OSStatus status = propertyFault(object, address)) return status;
    if (isSettable == nullptr) return kAudio_ParamError;
    if (!exists(object)) return kAudioHardwareBadObjectError;
    if (!objectHasProperty(object, address)) return kAudioHardwareUnknownPropertyError;
    *isSettable = settable(object, address);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::getPropertyDataSize(AudioObjectID object,
                                                     const AudioObjectPropertyAddress& address,
                                                     UInt32 qualifierDataSize,
                                                     const void* qualifierData, UInt32* dataSize) {
    if (const OSStatus status = callFault(Call::getPropertyDataSize)) return status;
    if (const OSStatus status = propertyFault(object, address)) return status;
    if (dataSize == nullptr) return kAudio_ParamError;
    if (!exists(object)) return kAudioHardwareBadObjectError;
    if (!objectHasProperty(object, address)) return kAudioHardwareUnknownPropertyError;
    if (isCFProperty(object, address) &&
        !dataOverrides_.contains({object, address.mSelector, address.mScope, address.mElement})) {
        *dataSize = kCFReferenceSize;
        return kAudioHardwareNoError;
    }
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        const Device& device = *findDevice(object);
        *dataSize = static_cast<UInt32>(ioProcStreamUsageSize(
            (address.mScope == kAudioObjectPropertyScopeInput ? device.inputStreams
                                                              : device.outputStreams)
                .size()));
        return kAudioHardwareNoError;
    }
    std::vector<std::uint8_t> bytes;
    bool isVariable = false;
    if (const OSStatus status =
            readPlain(object, address, qualifierDataSize, qualifierData, bytes, isVariable))
        return status;
    *dataSize = static_cast<UInt32>(bytes.size());
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::getPropertyData(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 UInt32 qualifierDataSize,
                                                 const void* qualifierData, UInt32* ioDataSize,
                                                 void* data) {
    if (const OSStatus status = callFault(Call::getPropertyData)) return status;
    if (const OSStatus status = propertyFault(object, address)) return status;
    if (ioDataSize == nullptr || (data == nullptr && *ioDataSize > 0)) return kAudio_ParamError;
    if (!exists(object)) return kAudioHardwareBadObjectError;
    if (!objectHasProperty(object, address)) return kAudioHardwareUnknownPropertyError;
    const bool isOverridden =
        dataOverrides_.contains({object, address.mSelector, address.mScope, address.mElement});
    if (isCFProperty(object, address) && !isOverridden)
        return kAudioHardwareUnsupportedOperationError;
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage)
        return readStreamUsage(*findDevice(object), address.mScope, ioDataSize, data);
    std::vector<std::uint8_t> bytes;
    bool isVariable = false;
    if (const OSStatus status =
            readPlain(object, address, qualifierDataSize, qualifierData, bytes, isVariable))
        return status;
    std::size_t count = bytes.size();
    if (*ioDataSize < count) {
        // Lists give what fits, in whole items; fixed-size values need room for all of it.
        if (!isVariable) return kAudioHardwareBadPropertySizeError;
        count = isOverridden ? *ioDataSize
                             : (*ioDataSize / sizeof(AudioObjectID)) * sizeof(AudioObjectID);
    }
    if (count > 0) std::memcpy(data, bytes.data(), count);
    *ioDataSize = static_cast<UInt32>(count);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::setPropertyData(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 UInt32 /*qualifierDataSize*/,
                                                 const void* /*qualifierData*/, UInt32 dataSize,
                                                 const void* data) {
    if (const OSStatus status = callFault(Call::setPropertyData)) return status;
    if (const OSStatus status = propertyFault(object, address)) return status;
    if (!exists(object)) return kAudioHardwareBadObjectError;
    if (!objectHasProperty(object, address)) return kAudioHardwareUnknownPropertyError;
    if (isCFProperty(object, address)) return kAudioHardwareUnsupportedOperationError;
    if (!settable(object, address)) return kAudioHardwareIllegalOperationError;
    if (data == nullptr) return kAudio_ParamError;
    const auto selector = address.mSelector;

    if (selector == kAudioHardwarePropertyDefaultOutputDevice ||
        selector == kAudioHardwarePropertyDefaultInputDevice) {
        if (dataSize != sizeof(AudioObjectID)) return kAudioHardwareBadPropertySizeError;
        AudioObjectID id = 0;
        std::memcpy(&id, data, sizeof id);
        const Device* device = findDevice(id);
        if (device == nullptr) return kAudioHardwareBadDeviceError;
        const bool isOutput = selector == kAudioHardwarePropertyDefaultOutputDevice;
        if ((isOutput ? device->outputStreams : device->inputStreams).empty())
            return kAudioHardwareIllegalOperationError;
        (isOutput ? defaultOutput_ : defaultInput_) = id;
        return kAudioHardwareNoError;
    }
    Device& device = *findDevice(object);
    if (selector == kAudioDevicePropertyIOProcStreamUsage)
        return writeStreamUsage(device, address.mScope, dataSize, data);
    if (selector == kAudioDevicePropertyNominalSampleRate) {
        if (dataSize != sizeof(Float64)) return kAudioHardwareBadPropertySizeError;
        Float64 rate = 0;
        std::memcpy(&rate, data, sizeof rate);
        if (!(rate > 0) || rate > 1.0e6) return kAudioDeviceUnsupportedFormatError;
        setNominalSampleRate(object, rate);
        return kAudioHardwareNoError;
    }
    if (selector == kAudioDevicePropertyVolumeScalar) {
        if (dataSize != sizeof(Float32)) return kAudioHardwareBadPropertySizeError;
        Float32 volume = 0;
        std::memcpy(&volume, data, sizeof volume);
        if (!(volume >= 0.0f)) volume = 0.0f;
        device.volumes[address.mElement] = std::min(volume, 1.0f);
        return kAudioHardwareNoError;
    }
    return kAudioHardwareIllegalOperationError;
}

// ---- IOProc stream usage ('suse') --------------------------------------------------------

namespace {

constexpr std::size_t kStreamFlagsOffset = offsetof(AudioHardwareIOProcStreamUsage, mStreamIsOn);

} // namespace

SimulatedAudioHardware::IOProc* SimulatedAudioHardware::procOf(const Device& device,
                                                               const void* procID) const {
    const auto found = ioProcs_.find(reinterpret_cast<std::uintptr_t>(procID));
    if (found == ioProcs_.end() || found->second->device != device.id) return nullptr;
    return found->second.get();
}

// The header documents no status for an IOProc the device does not have; this model answers
// kAudioHardwareIllegalOperationError ('nope'), as it does for every request naming another
// device's IOProc (start, stop, destroy).
OSStatus SimulatedAudioHardware::readStreamUsage(const Device& device,
                                                 AudioObjectPropertyScope scope, UInt32* ioDataSize,
                                                 void* data) const {
    const bool isInput = scope == kAudioObjectPropertyScopeInput;
    const std::size_t streams = (isInput ? device.inputStreams : device.outputStreams).size();
    const std::size_t size = ioProcStreamUsageSize(streams);
    // The whole list must fit: a usage that names fewer streams than the device has is no
    // answer at all.
    if (*ioDataSize < size) return kAudioHardwareBadPropertySizeError;
    auto* bytes = static_cast<std::uint8_t*>(data);
    void* procID = nullptr;
    std::memcpy(&procID, bytes + offsetof(AudioHardwareIOProcStreamUsage, mIOProc), sizeof procID);
    const IOProc* record = procOf(device, procID);
    if (record == nullptr) return kAudioHardwareIllegalOperationError;
    const std::vector<UInt32>& usage = isInput ? record->inputUsage : record->outputUsage;
    const auto count = static_cast<UInt32>(streams);
    std::memcpy(bytes + offsetof(AudioHardwareIOProcStreamUsage, mNumberStreams), &count,
                sizeof count);
    if (!usage.empty())
        std::memcpy(bytes + kStreamFlagsOffset, usage.data(), usage.size() * sizeof(UInt32));
    *ioDataSize = static_cast<UInt32>(size);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::writeStreamUsage(Device& device, AudioObjectPropertyScope scope,
                                                  UInt32 dataSize, const void* data) {
    if (dataSize < kStreamFlagsOffset) return kAudioHardwareBadPropertySizeError;
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    void* procID = nullptr;
    std::memcpy(&procID, bytes + offsetof(AudioHardwareIOProcStreamUsage, mIOProc), sizeof procID);
    IOProc* record = procOf(device, procID);
    if (record == nullptr) return kAudioHardwareIllegalOperationError;
    const bool isInput = scope == kAudioObjectPropertyScopeInput;
    const std::size_t streams = (isInput ? device.inputStreams : device.outputStreams).size();
    UInt32 count = 0;
    std::memcpy(&count, bytes + offsetof(AudioHardwareIOProcStreamUsage, mNumberStreams),
                sizeof count);
    // Every stream of that direction must be named, no more and no fewer.
    if (count != streams || dataSize != ioProcStreamUsageSize(streams))
        return kAudioHardwareBadPropertySizeError;
    std::vector<UInt32>& usage = isInput ? record->inputUsage : record->outputUsage;
    for (std::size_t i = 0; i < streams; ++i) {
        UInt32 flag = 0;
        std::memcpy(&flag, bytes + kStreamFlagsOffset + i * sizeof(UInt32), sizeof flag);
        usage[i] = flag != 0 ? 1 : 0;
    }
    if (record->isStarted && device.io) {
        // The next cycle sees the new usage; one in flight finishes with the old.
        IOState& state = *device.io;
        std::lock_guard lock(state.mutex);
        for (auto& started : state.procs) {
            if (started.token != record->token) continue;
            (isInput ? started.inputIsOn : started.outputIsOn) = usage;
            started.hasInputOff = anyOff(started.inputIsOn);
            started.hasOutputOff = anyOff(started.outputIsOn);
        }
    }
    return kAudioHardwareNoError;
}

std::vector<UInt32>
SimulatedAudioHardware::ioProcStreamUsage(AudioObjectID deviceID, AudioDeviceIOProcID proc,
                                          AudioObjectPropertyScope scope) const {
    const Device* device = findDevice(deviceID);
    const IOProc* record = device != nullptr ? procOf(*device, proc) : nullptr;
    if (record == nullptr) return {};
    return scope == kAudioObjectPropertyScopeInput ? record->inputUsage : record->outputUsage;
}

std::size_t SimulatedAudioHardware::openHardwareInputs(AudioObjectID deviceID) const {
    const Device* device = findDevice(deviceID);
    if (device == nullptr) return 0;
    std::size_t open = 0;
    for (std::size_t i = 0; i < device->inputStreams.size(); ++i) {
        if (streams_.at(device->inputStreams[i]).origin == kAudioObjectUnknown) continue;
        open += std::any_of(ioProcs_.begin(), ioProcs_.end(), [&](const auto& entry) {
            const IOProc& record = *entry.second;
            return record.device == deviceID && record.isStarted && i < record.inputUsage.size() &&
                   record.inputUsage[i] != 0;
        });
    }
    return open;
}

OSStatus SimulatedAudioHardware::getPropertyValue(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  PropertyList* value) {
    if (const OSStatus status = callFault(Call::getPropertyValue)) return status;
    if (const OSStatus status = propertyFault(object, address)) return status;
    if (value == nullptr) return kAudio_ParamError;
    if (!exists(object)) return kAudioHardwareBadObjectError;
    if (!objectHasProperty(object, address)) return kAudioHardwareUnknownPropertyError;
    const bool isOverridden =
        valueOverrides_.contains({object, address.mSelector, address.mScope, address.mElement});
    if (!isCFProperty(object, address) && !isOverridden)
        return kAudioHardwareUnsupportedOperationError;
    return readValue(object, address, *value);
}

OSStatus SimulatedAudioHardware::setPropertyValue(AudioObjectID object,
                                                  const AudioObjectPropertyAddress& address,
                                                  const PropertyList& value) {
    if (const OSStatus status = callFault(Call::setPropertyValue)) return status;
    if (const OSStatus status = propertyFault(object, address)) return status;
    if (!exists(object)) return kAudioHardwareBadObjectError;
    if (!objectHasProperty(object, address)) return kAudioHardwareUnknownPropertyError;
    if (!isCFProperty(object, address)) return kAudioHardwareUnsupportedOperationError;
    if (!settable(object, address)) return kAudioHardwareIllegalOperationError;
    // Only a multi-output device's composition is settable.
    if (value.asDictionary() == nullptr) return kAudio_ParamError;
    if (const auto* members = value.find(kAudioAggregateDeviceSubDeviceListKey)) {
        if (members->asArray() == nullptr) return kAudio_ParamError;
        for (const auto& member : *members->asArray()) {
            const auto* uid = member.find(kAudioSubDeviceUIDKey);
            if (uid == nullptr || uid->asString() == nullptr) return kAudio_ParamError;
        }
    }
    findDevice(object)->composition = value;
    sceneChanged();
    return kAudioHardwareNoError;
}

// ---- Taps -------------------------------------------------------------------------------

AudioStreamBasicDescription
SimulatedAudioHardware::naturalTapFormat(const TapDescription& description) const {
    if (description.kind == TapDescription::Kind::excludingProcessesOnDeviceStream) {
        if (const Device* device = findDeviceByUID(description.deviceUID)) {
            const auto index = static_cast<std::size_t>(description.stream);
            const UInt32 channels = streams_.at(device->outputStreams.at(index)).channels;
            return floatFormat(device->sampleRate, channels);
        }
    }
    const Device* output = findDevice(defaultOutput_);
    return floatFormat(output != nullptr ? output->sampleRate : 48000.0, 2);
}

OSStatus SimulatedAudioHardware::createProcessTap(const TapDescription& description,
                                                  AudioObjectID* tapID) {
    if (const OSStatus status = callFault(Call::createProcessTap)) return status;
    if (tapID == nullptr) return kAudio_ParamError;
    for (const AudioObjectID process : description.processes) {
        if (!processes_.contains(process)) return kAudioHardwareBadObjectError;
    }
    AudioObjectID tappedDevice = kAudioObjectUnknown;
    if (description.kind == TapDescription::Kind::excludingProcessesOnDeviceStream) {
        const Device* device = findDeviceByUID(description.deviceUID);
        if (device == nullptr) {
            // Core Audio's answer for a device it does not know: success, and no tap.
            *tapID = kAudioObjectUnknown;
            return kAudioHardwareNoError;
        }
        if (description.stream < 0 ||
            static_cast<std::size_t>(description.stream) >= device->outputStreams.size())
            return kAudioHardwareBadStreamError;
        tappedDevice = device->id;
    }
    Tap tap;
    tap.id = nextID();
    tap.description = description;
    tap.uid = tapUIDFor(++tapCounter_);
    tap.format = tapFormatOverride_.value_or(naturalTapFormat(description));
    tap.tappedDevice = tappedDevice;
    *tapID = tap.id;
    taps_[tap.id] = std::move(tap);
    sceneChanged();
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::destroyProcessTap(AudioObjectID tapID) {
    if (const OSStatus status = callFault(Call::destroyProcessTap)) return status;
    if (!taps_.contains(tapID)) return kAudioHardwareBadObjectError;
    for (const auto& [id, device] : devices_) {
        if (std::find(device->taps.begin(), device->taps.end(), tapID) != device->taps.end())
            return kAudioHardwareIllegalOperationError;
    }
    taps_.erase(tapID);
    sceneChanged();
    return kAudioHardwareNoError;
}

// ---- Aggregates -------------------------------------------------------------------------

OSStatus SimulatedAudioHardware::createAggregateDevice(const PropertyList& description,
                                                       AudioObjectID* deviceID) {
    if (const OSStatus status = callFault(Call::createAggregateDevice)) return status;
    if (deviceID == nullptr || description.asDictionary() == nullptr) return kAudio_ParamError;

    const auto* uid = description.find(kAudioAggregateDeviceUIDKey);
    if (uid == nullptr || uid->asString() == nullptr || uid->asString()->empty())
        return kAudio_ParamError;
    if (findDeviceByUID(*uid->asString()) != nullptr) return kAudioHardwareIllegalOperationError;
    const auto* name = description.find(kAudioAggregateDeviceNameKey);
    if (name != nullptr && name->asString() == nullptr) return kAudio_ParamError;
    const auto* main = description.find(kAudioAggregateDeviceMainSubDeviceKey);
    if (main != nullptr && main->asString() == nullptr) return kAudio_ParamError;
    for (const char* key : {kAudioAggregateDeviceIsPrivateKey, kAudioAggregateDeviceIsStackedKey,
                            kAudioAggregateDeviceTapAutoStartKey}) {
        if (!isNumberOrAbsent(description, key)) return kAudio_ParamError;
    }
    const bool isPrivate = numberOr(description, kAudioAggregateDeviceIsPrivateKey, 0) != 0;
    if (numberOr(description, kAudioAggregateDeviceTapAutoStartKey, 0) != 0 && !isPrivate)
        return kAudioHardwareIllegalOperationError;

    std::vector<const Device*> members;
    if (const auto* list = description.find(kAudioAggregateDeviceSubDeviceListKey)) {
        if (list->asArray() == nullptr) return kAudio_ParamError;
        for (const auto& entry : *list->asArray()) {
            const auto* memberUID = entry.find(kAudioSubDeviceUIDKey);
            if (memberUID == nullptr || memberUID->asString() == nullptr) return kAudio_ParamError;
            if (!isNumberOrAbsent(entry, kAudioSubDeviceInputChannelsKey) ||
                !isNumberOrAbsent(entry, kAudioSubDeviceDriftCompensationKey) ||
                !isNumberOrAbsent(entry, kAudioSubDeviceDriftCompensationQualityKey))
                return kAudio_ParamError;
            const Device* member = findDeviceByUID(*memberUID->asString());
            if (member == nullptr) return kAudioHardwareBadDeviceError;
            if (std::find(members.begin(), members.end(), member) != members.end())
                return kAudio_ParamError;
            members.push_back(member);
        }
    }
    std::vector<AudioObjectID> tapIDs;
    if (const auto* list = description.find(kAudioAggregateDeviceTapListKey)) {
        if (list->asArray() == nullptr) return kAudio_ParamError;
        for (const auto& entry : *list->asArray()) {
            const auto* tapUID = entry.find(kAudioSubTapUIDKey);
            if (tapUID == nullptr || tapUID->asString() == nullptr) return kAudio_ParamError;
            const AudioObjectID tap = tapID(*tapUID->asString());
            if (tap == kAudioObjectUnknown) return kAudioHardwareBadObjectError;
            tapIDs.push_back(tap);
        }
    }

    auto device = std::make_unique<Device>();
    device->id = nextID();
    device->kind = Device::Kind::aggregate;
    device->uid = *uid->asString();
    device->name = name != nullptr ? *name->asString() : std::string();
    device->transportType = kAudioDeviceTransportTypeAggregate;
    device->composition = description;
    device->isCompositionSettable = false;
    device->isPrivate = isPrivate;
    device->taps = tapIDs;

    // The clock: the main member if it is one, else the first member, else the first tap.
    const Device* clock = members.empty() ? nullptr : members.front();
    if (main != nullptr) {
        for (const Device* member : members) {
            if (member->uid == *main->asString()) clock = member;
        }
    }
    device->sampleRate = clock != nullptr  ? clock->sampleRate
                         : !tapIDs.empty() ? taps_.at(tapIDs.front()).format.mSampleRate
                                           : 48000.0;

    // Nested aggregates contribute no streams, as on the real system.
    for (const Device* member : members) {
        Device::MemberSlots slots;
        slots.uid = member->uid;
        slots.firstSlot = device->outputStreams.size();
        if (member->kind == Device::Kind::plain) {
            for (const AudioObjectID stream : member->outputStreams) {
                const Stream& source = streams_.at(stream);
                addStream(*device, false, source.channels, source.format);
            }
        }
        slots.count = device->outputStreams.size() - slots.firstSlot;
        device->memberSlots.push_back(slots);
    }
    // Every member's own inputs come first, whatever "channels-in" says: on the real system
    // that key describes the sub-device, it does not take its streams out of the list.
    for (const Device* member : members) {
        if (member->kind != Device::Kind::plain) continue;
        for (const AudioObjectID stream : member->inputStreams) {
            const Stream source = streams_.at(stream);
            Stream& copy = streams_.at(addStream(*device, true, source.channels, source.format));
            copy.origin = source.origin;
            copy.originChannel = source.originChannel;
        }
    }
    for (const AudioObjectID tap : tapIDs) {
        const auto& format = taps_.at(tap).format;
        addStream(*device, true, format.mChannelsPerFrame, format);
    }

    *deviceID = device->id;
    devices_[device->id] = std::move(device);
    sceneChanged();
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::destroyAggregateDevice(AudioObjectID deviceID) {
    if (const OSStatus status = callFault(Call::destroyAggregateDevice)) return status;
    Device* device = findDevice(deviceID);
    if (device == nullptr)
        return exists(deviceID) ? kAudioHardwareBadDeviceError : kAudioHardwareBadObjectError;
    if (device->kind != Device::Kind::aggregate) return kAudioHardwareIllegalOperationError;
    removeDevice(deviceID);
    return kAudioHardwareNoError;
}

// ---- IOProcs ----------------------------------------------------------------------------

bool SimulatedAudioHardware::anyStarted(const Device& device) const {
    return std::any_of(ioProcs_.begin(), ioProcs_.end(), [&](const auto& entry) {
        return entry.second->device == device.id && entry.second->isStarted;
    });
}

void SimulatedAudioHardware::destroyProcsOf(Device& device) {
    if (device.io) stopThread(device);
    std::erase_if(ioProcs_, [&](const auto& entry) { return entry.second->device == device.id; });
}

OSStatus SimulatedAudioHardware::createIOProcID(AudioObjectID deviceID, AudioDeviceIOProc proc,
                                                void* clientData, AudioDeviceIOProcID* procID) {
    if (const OSStatus status = callFault(Call::createIOProcID)) return status;
    if (proc == nullptr || procID == nullptr) return kAudio_ParamError;
    if (findDevice(deviceID) == nullptr)
        return exists(deviceID) ? kAudioHardwareBadDeviceError : kAudioHardwareBadObjectError;
    const Device& device = *findDevice(deviceID);
    auto record = std::make_unique<IOProc>();
    record->token = nextProcToken_++;
    record->device = deviceID;
    record->proc = proc;
    record->clientData = clientData;
    record->inputUsage.assign(device.inputStreams.size(), 1);
    record->outputUsage.assign(device.outputStreams.size(), 1);
    *procID = reinterpret_cast<AudioDeviceIOProcID>(record->token);
    ioProcs_[record->token] = std::move(record);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::destroyIOProcID(AudioObjectID deviceID,
                                                 AudioDeviceIOProcID procID) {
    if (const OSStatus status = callFault(Call::destroyIOProcID)) return status;
    const auto found = ioProcs_.find(reinterpret_cast<std::uintptr_t>(procID));
    if (found == ioProcs_.end() || found->second->device != deviceID)
        return kAudioHardwareIllegalOperationError;
    // Destroying a running IOProc stops it first, as the real system does.
    if (Device* device = findDevice(deviceID)) stopProc(*device, *found->second);
    ioProcs_.erase(found);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::startDevice(AudioObjectID deviceID, AudioDeviceIOProcID procID) {
    if (const OSStatus status = callFault(Call::startDevice)) return status;
    Device* device = findDevice(deviceID);
    if (device == nullptr)
        return exists(deviceID) ? kAudioHardwareBadDeviceError : kAudioHardwareBadObjectError;
    if (procID == nullptr) return kAudioHardwareNoError; // the hardware alone
    const auto found = ioProcs_.find(reinterpret_cast<std::uintptr_t>(procID));
    if (found == ioProcs_.end() || found->second->device != deviceID)
        return kAudioHardwareIllegalOperationError;
    // A private tap can only run inside a private aggregate.
    for (const AudioObjectID tap : device->taps) {
        if (taps_.at(tap).description.isPrivate && !device->isPrivate)
            return kAudioHardwareIllegalOperationError;
    }
    IOProc& record = *found->second;
    if (record.isStarted) return kAudioHardwareNoError;
    record.isStarted = true;
    IOState& state = ioState(*device);
    {
        IOState::StartedProc started;
        started.token = record.token;
        started.proc = record.proc;
        started.clientData = record.clientData;
        started.inputIsOn = record.inputUsage;
        started.outputIsOn = record.outputUsage;
        started.hasInputOff = anyOff(started.inputIsOn);
        started.hasOutputOff = anyOff(started.outputIsOn);
        std::lock_guard lock(state.mutex);
        // A running thread keeps its prepared buffers, so the newcomer's lists are sized now.
        if (state.thread.joinable()) prepareProcLists(state, started.inputList, started.outputList);
        state.procs.push_back(std::move(started));
    }
    prepareIO(*device, std::max(kPreparedFrames, threadFrames_));
    if (isThreaded_ && !state.thread.joinable()) startThread(*device);
    return kAudioHardwareNoError;
}

OSStatus SimulatedAudioHardware::stopDevice(AudioObjectID deviceID, AudioDeviceIOProcID procID) {
    if (const OSStatus status = callFault(Call::stopDevice)) return status;
    Device* device = findDevice(deviceID);
    if (device == nullptr)
        return exists(deviceID) ? kAudioHardwareBadDeviceError : kAudioHardwareBadObjectError;
    if (procID == nullptr) return kAudioHardwareNoError;
    const auto found = ioProcs_.find(reinterpret_cast<std::uintptr_t>(procID));
    if (found == ioProcs_.end() || found->second->device != deviceID)
        return kAudioHardwareIllegalOperationError;
    stopProc(*device, *found->second);
    return kAudioHardwareNoError;
}

void SimulatedAudioHardware::stopProc(Device& device, IOProc& record) {
    if (!record.isStarted) return;
    record.isStarted = false;
    IOState& state = ioState(device);
    {
        // Taking the cycle lock waits for a cycle in flight to finish.
        std::lock_guard lock(state.mutex);
        std::erase_if(state.procs,
                      [&](const IOState::StartedProc& proc) { return proc.token == record.token; });
    }
    if (!anyStarted(device)) stopThread(device);
}

// ---- IO cycles --------------------------------------------------------------------------

SimulatedAudioHardware::IOState& SimulatedAudioHardware::ioState(Device& device) {
    if (!device.io) {
        device.io = std::make_unique<IOState>();
        device.io->device = device.id;
    }
    return *device.io;
}

void SimulatedAudioHardware::prepareIO(Device& device, UInt32 frames) {
    IOState& state = ioState(device);
    if (state.thread.joinable()) return; // a running thread keeps the scene it started with
    std::lock_guard lock(state.mutex);
    state.generation = sceneGeneration_;
    state.capacity = std::max({state.capacity, frames, UInt32(1)});
    state.lastFrames = 0; // the buffers are fresh: no cycle has filled them yet
    state.isSilent = tapsDeliverSilence_;

    state.tapSources.clear();
    for (const AudioObjectID tapID : device.taps) {
        const Tap& tap = taps_.at(tapID);
        IOState::TapSource source;
        source.channels = tap.format.mChannelsPerFrame;
        const auto& listed = tap.description.processes;
        for (const auto& [id, process] : processes_) {
            if (!process.isRunningOutput) continue;
            const auto generator = processAudio_.find(process.pid);
            if (generator == processAudio_.end()) continue;
            const bool isListed = std::find(listed.begin(), listed.end(), id) != listed.end();
            bool isCaptured = false;
            switch (tap.description.kind) {
            case TapDescription::Kind::stereoGlobalExcludingProcesses:
                isCaptured = !isListed;
                break;
            case TapDescription::Kind::stereoMixdownOfProcesses:
                isCaptured = isListed;
                break;
            case TapDescription::Kind::excludingProcessesOnDeviceStream:
                // A process that names no device plays to every device.
                isCaptured = !isListed && (process.devices.empty() ||
                                           std::find(process.devices.begin(), process.devices.end(),
                                                     tap.tappedDevice) != process.devices.end());
                break;
            }
            if (isCaptured) source.generators.push_back(generator->second);
        }
        state.tapSources.push_back(std::move(source));
    }

    state.inputChannels.clear();
    state.inputSource.clear();
    state.inputMicrophone.clear();
    state.inputFirstChannel.clear();
    state.microphones.clear();
    const std::size_t hardwareInputs = device.inputStreams.size() - device.taps.size();
    for (std::size_t i = 0; i < device.inputStreams.size(); ++i) {
        const Stream& stream = streams_.at(device.inputStreams[i]);
        state.inputChannels.push_back(stream.channels);
        state.inputSource.push_back(i < hardwareInputs ? -1 : static_cast<int>(i - hardwareInputs));
        state.inputFirstChannel.push_back(stream.originChannel);
        const auto heard = inputAudio_.find(stream.origin);
        if (i < hardwareInputs && heard != inputAudio_.end()) {
            state.inputMicrophone.push_back(static_cast<int>(state.microphones.size()));
            state.microphones.push_back(heard->second);
        } else {
            state.inputMicrophone.push_back(-1);
        }
    }
    state.outputChannels.clear();
    for (const AudioObjectID stream : device.outputStreams)
        state.outputChannels.push_back(streams_.at(stream).channels);

    const auto layout = [&](const std::vector<UInt32>& channels, std::vector<float>& samples,
                            std::vector<std::size_t>& offsets, std::vector<AudioBuffer>& list) {
        offsets.clear();
        std::size_t total = 0;
        for (const UInt32 count : channels) {
            offsets.push_back(total);
            total += std::size_t(count) * state.capacity;
        }
        samples.assign(total, 0.0f);
        // Header (8 bytes) plus one AudioBuffer per buffer, in AudioBuffer-sized slots.
        list.assign(channels.size() + 1, AudioBuffer{});
        auto* bufferList = reinterpret_cast<AudioBufferList*>(list.data());
        bufferList->mNumberBuffers = static_cast<UInt32>(channels.size());
    };
    layout(state.inputChannels, state.inputSamples, state.inputOffsets, state.inputList);
    layout(state.outputChannels, state.outputSamples, state.outputOffsets, state.outputList);
    std::vector<std::size_t> scratchOffsets;
    layout(state.outputChannels, state.scratchSamples, scratchOffsets, state.scratchList);
    for (auto& proc : state.procs)
        prepareProcLists(state, proc.inputList, proc.outputList);
}

void SimulatedAudioHardware::prepareProcLists(const IOState& state,
                                              std::vector<AudioBuffer>& inputList,
                                              std::vector<AudioBuffer>& outputList) {
    inputList.assign(state.inputList.size(), AudioBuffer{});
    outputList.assign(state.outputList.size(), AudioBuffer{});
}

// The list one IOProc sees: the cycle's own, or while some of its streams are switched off a
// copy with those buffers' data null (their byte size stays, as on the real system).
AudioBufferList* SimulatedAudioHardware::procView(AudioBufferList* list,
                                                  const std::vector<UInt32>& isOn, bool hasOff,
                                                  std::vector<AudioBuffer>& storage) {
    if (!hasOff || storage.size() < std::size_t(list->mNumberBuffers) + 1) return list;
    auto* view = reinterpret_cast<AudioBufferList*>(storage.data());
    view->mNumberBuffers = list->mNumberBuffers;
    for (UInt32 i = 0; i < list->mNumberBuffers; ++i) {
        view->mBuffers[i] = list->mBuffers[i];
        if (i < isOn.size() && isOn[i] == 0) view->mBuffers[i].mData = nullptr;
    }
    return view;
}

std::size_t SimulatedAudioHardware::runCycle(IOState& state, UInt32 frames,
                                             const float* explicitInput,
                                             std::size_t explicitSamples) {
    // Runs with state.mutex held; touches nothing but the state.
    state.lastFrames = frames;
    auto* input = reinterpret_cast<AudioBufferList*>(state.inputList.data());
    auto* output = reinterpret_cast<AudioBufferList*>(state.outputList.data());
    auto* scratch = reinterpret_cast<AudioBufferList*>(state.scratchList.data());

    bool isFirstTap = true;
    for (std::size_t i = 0; i < state.inputChannels.size(); ++i) {
        const UInt32 channels = state.inputChannels[i];
        float* samples = state.inputSamples.data() + state.inputOffsets[i];
        const std::size_t count = std::size_t(channels) * frames;
        std::fill(samples, samples + count, 0.0f);
        const int source = state.inputSource[i];
        if (const int microphone = state.inputMicrophone[i]; microphone >= 0) {
            const Generator& heard = state.microphones[std::size_t(microphone)];
            const UInt32 first = state.inputFirstChannel[i];
            for (UInt32 frame = 0; frame < frames; ++frame) {
                for (UInt32 channel = 0; channel < channels; ++channel)
                    samples[std::size_t(frame) * channels + channel] =
                        heard(state.sampleTime + frame, first + channel);
            }
        }
        if (source >= 0 && !state.isSilent) {
            if (isFirstTap && explicitInput != nullptr) {
                std::copy(explicitInput, explicitInput + std::min(count, explicitSamples), samples);
            } else {
                for (const auto& generator : state.tapSources[std::size_t(source)].generators) {
                    for (UInt32 frame = 0; frame < frames; ++frame) {
                        for (UInt32 channel = 0; channel < channels; ++channel)
                            samples[std::size_t(frame) * channels + channel] +=
                                generator(state.sampleTime + frame, channel);
                    }
                }
            }
        }
        if (source >= 0) isFirstTap = false;
        input->mBuffers[i] = {channels, static_cast<UInt32>(count * sizeof(float)), samples};
    }
    std::fill(state.outputSamples.begin(), state.outputSamples.end(), 0.0f);
    for (std::size_t i = 0; i < state.outputChannels.size(); ++i) {
        const UInt32 channels = state.outputChannels[i];
        const auto bytes = static_cast<UInt32>(std::size_t(channels) * frames * sizeof(float));
        output->mBuffers[i] = {channels, bytes,
                               state.outputSamples.data() + state.outputOffsets[i]};
        scratch->mBuffers[i] = {channels, bytes,
                                state.scratchSamples.data() + state.outputOffsets[i]};
    }

    AudioTimeStamp now{};
    now.mSampleTime = static_cast<Float64>(state.sampleTime);
    now.mHostTime = state.sampleTime;
    now.mRateScalar = 1.0;
    now.mFlags = kTimeStampSampleTimeValid;
    std::size_t called = 0;
    const bool isSingle = state.procs.size() == 1;
    for (auto& proc : state.procs) {
        // With several IOProcs each gets zeroed outputs of its own and the device mixes them.
        AudioBufferList* target = isSingle ? output : scratch;
        if (!isSingle) std::fill(state.scratchSamples.begin(), state.scratchSamples.end(), 0.0f);
        const AudioBufferList* procInput =
            procView(input, proc.inputIsOn, proc.hasInputOff, proc.inputList);
        // A switched-off output stream is one the proc cannot write; the device keeps zeros.
        AudioBufferList* procOutput =
            procView(target, proc.outputIsOn, proc.hasOutputOff, proc.outputList);
        proc.proc(state.device, &now, procInput, &now, procOutput, &now, proc.clientData);
        if (!isSingle) {
            for (std::size_t s = 0; s < state.outputSamples.size(); ++s)
                state.outputSamples[s] += state.scratchSamples[s];
        }
        ++called;
    }
    state.sampleTime += frames;
    state.cycles.fetch_add(1, std::memory_order_relaxed);
    return called;
}

std::size_t SimulatedAudioHardware::pumpCycle(AudioObjectID deviceID, UInt32 frames) {
    Device* device = findDevice(deviceID);
    if (device == nullptr || !device->io || frames == 0) return 0;
    IOState& state = *device->io;
    if (state.thread.joinable() || state.isSuppressed.load() || state.procs.empty()) return 0;
    if (state.generation != sceneGeneration_ || frames > state.capacity) prepareIO(*device, frames);
    std::lock_guard lock(state.mutex);
    return runCycle(state, frames, nullptr, 0);
}

std::size_t SimulatedAudioHardware::pumpCycle(AudioObjectID deviceID,
                                              const std::vector<float>& tapInput) {
    Device* device = findDevice(deviceID);
    if (device == nullptr || !device->io || device->taps.empty()) return 0;
    const UInt32 channels = taps_.at(device->taps.front()).format.mChannelsPerFrame;
    if (channels == 0) return 0;
    const auto frames = static_cast<UInt32>(tapInput.size() / channels);
    IOState& state = *device->io;
    if (frames == 0 || state.thread.joinable() || state.isSuppressed.load() || state.procs.empty())
        return 0;
    if (state.generation != sceneGeneration_ || frames > state.capacity) prepareIO(*device, frames);
    std::lock_guard lock(state.mutex);
    return runCycle(state, frames, tapInput.data(), tapInput.size());
}

std::size_t SimulatedAudioHardware::runCycles(AudioObjectID device, UInt32 frames,
                                              std::size_t count) {
    std::size_t called = 0;
    for (std::size_t i = 0; i < count; ++i)
        called += pumpCycle(device, frames);
    return called;
}

void SimulatedAudioHardware::setTapsDeliverSilence(bool isSilent) {
    tapsDeliverSilence_ = isSilent;
    sceneChanged();
}

void SimulatedAudioHardware::setCallbacksSuppressed(AudioObjectID deviceID, bool isSuppressed) {
    ioState(require(findDevice(deviceID), "setCallbacksSuppressed: no such device"))
        .isSuppressed.store(isSuppressed);
}

std::vector<float> SimulatedAudioHardware::outputBuffer(AudioObjectID deviceID,
                                                        std::size_t slot) const {
    const Device* device = findDevice(deviceID);
    if (device == nullptr || !device->io) return {};
    IOState& state = *device->io;
    std::lock_guard lock(state.mutex);
    if (slot >= state.outputChannels.size() || state.lastFrames == 0) return {};
    const float* begin = state.outputSamples.data() + state.outputOffsets[slot];
    return std::vector<float>(begin,
                              begin + std::size_t(state.outputChannels[slot]) * state.lastFrames);
}

std::vector<float> SimulatedAudioHardware::memberOutput(AudioObjectID aggregate,
                                                        const std::string& memberUID,
                                                        std::size_t stream) const {
    const Device* device = findDevice(aggregate);
    if (device == nullptr) return {};
    for (const auto& slots : device->memberSlots) {
        if (slots.uid == memberUID && stream < slots.count)
            return outputBuffer(aggregate, slots.firstSlot + stream);
    }
    return {};
}

std::size_t SimulatedAudioHardware::cyclesRun(AudioObjectID deviceID) const {
    const Device* device = findDevice(deviceID);
    if (device == nullptr || !device->io) return 0;
    return static_cast<std::size_t>(device->io->cycles.load());
}

void SimulatedAudioHardware::setThreadedMode(bool isThreaded, UInt32 framesPerCycle,
                                             std::chrono::microseconds period) {
    isThreaded_ = isThreaded;
    threadFrames_ = std::max<UInt32>(framesPerCycle, 1);
    threadPeriod_ = period;
}

void SimulatedAudioHardware::startThread(Device& device) {
    IOState& state = ioState(device);
    prepareIO(device, std::max(kPreparedFrames, threadFrames_));
    state.stopRequested.store(false);
    const UInt32 frames = threadFrames_;
    const auto period = threadPeriod_;
    state.thread = std::thread([&state, frames, period] {
        while (!state.stopRequested.load(std::memory_order_acquire)) {
            {
                std::lock_guard lock(state.mutex);
                if (!state.isSuppressed.load() && !state.procs.empty())
                    runCycle(state, frames, nullptr, 0);
            }
            std::this_thread::sleep_for(period);
        }
    });
}

void SimulatedAudioHardware::stopThread(Device& device) {
    if (!device.io || !device.io->thread.joinable()) return;
    device.io->stopRequested.store(true, std::memory_order_release);
    device.io->thread.join();
}

bool SimulatedAudioHardware::isDirectPathMuted(AudioObjectID deviceID) const {
    const Device* target = findDevice(deviceID);
    if (target == nullptr) return false;
    for (const auto& [id, tap] : taps_) {
        const int behavior = tap.description.muteBehavior;
        if (behavior == kCATapUnmuted) continue;
        if (behavior == kCATapMutedWhenTapped) {
            // A named copy: lambdas may not capture structured bindings before C++20's fix
            // reached every compiler we build with.
            const AudioObjectID tapID = id;
            const bool isRead = std::any_of(devices_.begin(), devices_.end(), [&](const auto& e) {
                const auto& taps = e.second->taps;
                return std::find(taps.begin(), taps.end(), tapID) != taps.end() &&
                       anyStarted(*e.second);
            });
            if (!isRead) continue;
        }
        switch (tap.description.kind) {
        case TapDescription::Kind::stereoGlobalExcludingProcesses:
            return true;
        case TapDescription::Kind::excludingProcessesOnDeviceStream: {
            if (tap.tappedDevice == deviceID) return true;
            // Tapping a multi-output device mutes what it sends to its members.
            const Device* tapped = findDevice(tap.tappedDevice);
            if (tapped == nullptr) break;
            if (const auto* members =
                    tapped->composition.find(kAudioAggregateDeviceSubDeviceListKey);
                members != nullptr && members->asArray() != nullptr) {
                for (const auto& member : *members->asArray()) {
                    const auto* uid = member.find(kAudioSubDeviceUIDKey);
                    if (uid != nullptr && uid->asString() != nullptr &&
                        *uid->asString() == target->uid)
                        return true;
                }
            }
            break;
        }
        case TapDescription::Kind::stereoMixdownOfProcesses:
            for (const AudioObjectID process : tap.description.processes) {
                const auto found = processes_.find(process);
                if (found == processes_.end()) continue;
                const auto& used = found->second.devices;
                if (used.empty() || std::find(used.begin(), used.end(), deviceID) != used.end())
                    return true;
            }
            break;
        }
    }
    return false;
}

} // namespace brightmix
