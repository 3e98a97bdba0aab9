// An in-memory model of the Core Audio object world for tests: the system object, devices
// with streams, multi-output devices with their composition, processes, process taps,
// aggregate devices and IOProcs. It keeps state and enforces Core Audio's rules and
// quirks, runs IO cycles that tests pump (or a real IO thread in threaded mode), injects
// faults per call or per property, and counts live objects so that tests can prove that
// nothing was left behind.
//
// Quick start:
//
//     SimulatedAudioHardware sim;
//     const auto left = sim.addDevice({"A", "Desk Left", {2}});
//     const auto sub = sim.addDevice({"B", "Sub", {1}});
//     const auto multi = sim.addMultiOutputDevice("M", "Desk", {"A", "B"}, "A");
//     sim.setDefaultOutput(multi);
//     const auto player = sim.addProcess({501, "com.example.player", true, {multi}});
//     sim.setProcessAudio(501, [](std::uint64_t frame, UInt32 channel) { ... });
//     ... build a tap + aggregate + IOProc through the AudioHardware interface ...
//     sim.pumpCycle(aggregateID, 512);
//     const std::vector<float> out = sim.memberOutput(aggregateID, "A");
//     EXPECT_EQ(sim.liveTaps(), 0u);
//
// Rules and quirks it reproduces:
// - Object IDs are deterministic: the system object is 1, every other object takes the
//   next number from 100 upwards in creation order, and IDs are never reused.
// - A property an object does not have answers 'who?' (hasProperty false); an ID that is
//   no object answers '!obj'; a buffer too small for a fixed-size value answers '!siz'.
// - CF-typed properties (names, UIDs, sub-device lists, compositions, bundle IDs, tap
//   UIDs) are read and written with getPropertyValue / setPropertyValue; their raw data
//   size is that of a reference (8 bytes), and a raw read of them answers 'unop'. Plain
//   properties read through getPropertyValue answer 'unop' likewise.
// - 'id2p' answers 0 with no error for a PID that has no process object.
// - This program's own process (currentProcessID(), 4242 unless chosen) has a process
//   object from the start; removeProcess on it models "not yet known to the hardware".
// - Private aggregates and taps are listed only to their creator, which is this program:
//   they do appear in 'dev#' / 'tps#' here, as they do for the real creating process.
// - A per-device tap whose device UID is unknown is created with no error and tap ID 0.
// - A tap cannot be destroyed while an aggregate uses it ('nope'); destroying an
//   aggregate stops and destroys its IOProcs.
// - An aggregate's output buffer list holds its members' output streams in member order,
//   one buffer per stream. Its input list holds every plain member's own input streams in
//   member order first, whatever the member entry's "channels-in" says (the key describes
//   the sub-device; it does not take its streams away), then one interleaved buffer per tap.
//   A member's input streams carry what its microphone hears (setInputAudio).
// - Every IOProc has a stream usage per direction ('suse', kAudioDevicePropertyIOProcStreamUsage,
//   read and written as raw AudioHardwareIOProcStreamUsage bytes with mIOProc = the
//   AudioDeviceIOProcID, filled in by the caller before a read). All streams start switched
//   on. A usage must name every stream of that direction ('!siz' otherwise, also for a read
//   into a buffer too small for the list); an IOProc that is not the device's answers 'nope'.
//   A switched-off stream reaches that IOProc with mData null and its byte size intact.
//
// Thread: control for every call, except the IO thread of threaded mode, which touches
// only the prepared IO buffers and the IOProcs it calls. Realtime-safe: no (pumpCycle
// makes no allocation while the IOProc runs, see below).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/AudioHardware.h"

namespace brightmix {

class SimulatedAudioHardware final : public AudioHardware {
public:
    // ---- Scene -------------------------------------------------------------------------
    // Scene calls on an object that does not exist throw std::invalid_argument: that is a
    // mistake in the test, not a state of the hardware.

    // A plain device. Braces build one: {"A", "Desk Left", {2}} has one stereo output
    // stream; the chained setters cover the rest:
    //     DeviceSpec("H", "Display", {8}).transport(kAudioDeviceTransportTypeHDMI)
    struct DeviceSpec {
        DeviceSpec(std::string uid, std::string name, std::vector<UInt32> outputStreams = {2},
                   std::vector<UInt32> inputStreams = {});
        DeviceSpec& transport(UInt32 type);
        DeviceSpec& rate(double sampleRate);
        // An output-scope 'volm' control on `element` (0 = the whole device, 1...N =
        // channels), settable or not.
        DeviceSpec& volumeControl(UInt32 element, bool isSettable = true);

        std::string uid;
        std::string name;
        std::vector<UInt32> outputStreams; // channels per output stream, in stream order
        std::vector<UInt32> inputStreams;  // channels per input stream
        UInt32 transportType = kAudioDeviceTransportTypeBuiltIn;
        double sampleRate = 48000.0;
        std::vector<UInt32> volumeElements;
        std::vector<UInt32> settableVolumeElements;
    };

    // A process: {501, "com.example.player", true, {deviceID}} runs output to one device.
    struct ProcessSpec {
        ProcessSpec(std::int32_t pid, std::string bundleID = {}, bool isRunningOutput = false,
                    std::vector<AudioObjectID> deviceIDs = {});

        std::int32_t pid = 0;
        std::string bundleID; // empty: the process has no bundle ID ('pbid' answers null)
        bool isRunningOutput = false;
        std::vector<AudioObjectID> deviceIDs; // 'pdv#'
    };

    // What a process "plays": the sample of `channel` at absolute frame `frame`. Taps that
    // capture the process see it (stereo taps ask for channels 0 and 1).
    using Generator = std::function<float(std::uint64_t frame, UInt32 channel)>;

    explicit SimulatedAudioHardware(std::int32_t ownPID = 4242);
    ~SimulatedAudioHardware() override;
    SimulatedAudioHardware(const SimulatedAudioHardware&) = delete;
    SimulatedAudioHardware& operator=(const SimulatedAudioHardware&) = delete;

    // Adds a device and answers its object ID. Every output and input stream is its own
    // stream object with a float32 interleaved virtual format at the device's rate.
    AudioObjectID addDevice(const DeviceSpec& setup);
    // A multi-output device (aggregate class, transport 'grup', stacked) over existing or
    // missing member UIDs. Its 'grup', 'amst' and 'acom' come from one composition, so
    // they stay consistent when the composition is rewritten. It has one output stream with
    // the channel count of the main member's first stream (2 when unknown).
    AudioObjectID addMultiOutputDevice(const std::string& uid, const std::string& name,
                                       const std::vector<std::string>& memberUIDs,
                                       const std::optional<std::string>& mainMemberUID = {});
    // Removes a device (it vanished). Processes forget it; if it was a default device, the
    // default falls back to the first remaining device with streams in that direction.
    void removeDevice(AudioObjectID device);
    // The device disappears and comes back as a new object with the same description but
    // a new UID (a display that reconnected); answers the new ID.
    AudioObjectID replaceDeviceUID(AudioObjectID device, const std::string& newUID);
    void setDeviceName(AudioObjectID device, const std::string& name);
    void setTransportType(AudioObjectID device, UInt32 transportType);
    void setNominalSampleRate(AudioObjectID device, double rate);
    void setVolumeSettable(AudioObjectID device, UInt32 element, bool isSettable);
    // The virtual format of one of the device's streams, by scope and stream index.
    void setStreamFormat(AudioObjectID device, AudioObjectPropertyScope scope,
                         std::size_t streamIndex, const AudioStreamBasicDescription& format);
    // The composition of a multi-output or created aggregate device, as stored.
    PropertyList composition(AudioObjectID device) const;
    // Replaces it without validation (any value, for bad-input tests).
    void setComposition(AudioObjectID device, const PropertyList& composition);
    void setCompositionSettable(AudioObjectID device, bool isSettable);

    AudioObjectID addProcess(const ProcessSpec& setup);
    void removeProcess(AudioObjectID process);
    void setProcessRunningOutput(AudioObjectID process, bool isRunningOutput);
    void setProcessDevices(AudioObjectID process, const std::vector<AudioObjectID>& devices);
    // Sets what the process with this PID plays (an empty function: silence); the PID need
    // not exist yet. Pumped cycles hear it from the next cycle on; a threaded device from its
    // next start.
    void setProcessAudio(std::int32_t pid, Generator generator);
    // What the device's microphone hears (channel counts across all its input streams; an
    // empty function: silence, the default). Its own input streams and its streams inside an
    // aggregate carry it; pumped cycles from the next cycle on, a threaded device from its
    // next start.
    void setInputAudio(AudioObjectID device, Generator generator);

    // Any ID is taken as it is (0: no default; a vanished device: a stale default).
    void setDefaultOutput(AudioObjectID device);
    void setDefaultInput(AudioObjectID device);
    AudioObjectID defaultOutput() const;
    AudioObjectID defaultInput() const;

    // Look-ups for tests: 0 when absent.
    AudioObjectID deviceID(const std::string& uid) const;
    AudioObjectID processObject(std::int32_t pid) const;
    AudioObjectID tapID(const std::string& tapUID) const;
    std::vector<AudioObjectID> streams(AudioObjectID device, AudioObjectPropertyScope scope) const;
    // The description a tap was created from (a created aggregate's description is its
    // composition()).
    std::optional<TapDescription> tapDescription(AudioObjectID tap) const;
    // Float32 value last written to a device's 'volm' element (1 until written).
    float volumeScalar(AudioObjectID device, UInt32 element) const;
    // An IOProc's 'suse' flags, one per stream of that direction (empty: no such IOProc on
    // that device).
    std::vector<UInt32> ioProcStreamUsage(AudioObjectID device, AudioDeviceIOProcID proc,
                                          AudioObjectPropertyScope scope) const;
    // Hardware input streams of the device (an aggregate's member inputs, or a plain device's
    // own) switched on for at least one of its started IOProcs: microphones in use.
    std::size_t openHardwareInputs(AudioObjectID device) const;

    // ---- Bad data ----------------------------------------------------------------------

    // Makes a property answer this CF value (e.g. a dictionary where a string belongs, or a
    // null reference) through getPropertyValue, whatever the object really holds.
    void overridePropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               PropertyList value);
    // Makes a plain property answer these bytes (e.g. an odd byte count for 'dev#').
    void overridePropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              std::vector<std::uint8_t> bytes);
    // Takes a property away: hasProperty false, every access 'who?' (any scope).
    void hideProperty(AudioObjectID object, AudioObjectPropertySelector selector);
    // The format every tap created from now on reports in 'tfmt' (none: the natural one).
    void overrideTapFormat(std::optional<AudioStreamBasicDescription> format);
    // Changes an existing tap's 'tfmt'.
    void setTapFormat(AudioObjectID tap, const AudioStreamBasicDescription& format);

    // ---- Fault injection ---------------------------------------------------------------

    enum class Call {
        hasProperty, // a fault here makes hasProperty answer false
        isPropertySettable,
        getPropertyDataSize,
        getPropertyData,
        setPropertyData,
        getPropertyValue,
        setPropertyValue,
        createProcessTap,
        destroyProcessTap,
        createAggregateDevice,
        destroyAggregateDevice,
        createIOProcID,
        destroyIOProcID,
        startDevice,
        stopDevice,
    };
    enum class Times { once, always };

    // The next call of this kind (or every one) answers `status` and does nothing.
    void failNext(Call call, OSStatus status);
    void failAlways(Call call, OSStatus status);
    // Every access (size, get, set, value get/set, settable) to this selector of this object
    // in any scope answers `status`; once or always. kAudioObjectUnknown as object: any.
    void failProperty(AudioObjectID object, AudioObjectPropertySelector selector, OSStatus status,
                      Times times = Times::always);
    void clearFaults();
    // How often a call was made (faulted ones included).
    std::size_t callCount(Call call) const;

    // ---- The audio service's life ------------------------------------------------------

    // The audio service restarts (the daemon crashed or was restarted): every tap, aggregate
    // and IOProc the program made is gone without a callback and their IDs name nothing, the
    // devices and processes stay, and the service generation goes up. `staysDown`: it does
    // not answer yet; every call fails with 'stop' until setServiceUp(true).
    void restartService(bool staysDown = false);
    void setServiceUp(bool isUp) { isServiceUp_ = isUp; }

    // ---- Leak accounting ---------------------------------------------------------------

    std::size_t liveTaps() const;
    std::size_t liveAggregates() const; // created through createAggregateDevice
    std::size_t liveIOProcs() const;
    std::size_t runningIOProcs() const;

    // ---- IO ----------------------------------------------------------------------------

    // Runs one IO cycle of `frames` frames on a device with started IOProcs: builds the
    // input (each tap's audio from the processes it captures), zeroes the outputs, calls
    // every started IOProc, and keeps the outputs readable. Answers the number of IOProcs
    // called (0 when none is started or callbacks are suppressed). Allocation happens only
    // when the scene changed since the last cycle or `frames` exceeds every earlier cycle
    // (4096 are prepared at start), never while an IOProc runs.
    std::size_t pumpCycle(AudioObjectID device, UInt32 frames);
    // The same with the first tap's input given explicitly (interleaved, the tap's channel
    // count; frames = size / channels).
    std::size_t pumpCycle(AudioObjectID device, const std::vector<float>& tapInput);
    std::size_t runCycles(AudioObjectID device, UInt32 frames, std::size_t count);
    // Every tap delivers exact zeros (a missing recording permission).
    void setTapsDeliverSilence(bool isSilent);
    // A started IOProc on this device gets no callbacks (neither pumped nor threaded).
    void setCallbacksSuppressed(AudioObjectID device, bool isSuppressed);

    // A member's output from the last cycle: interleaved samples of its `stream`-th output
    // stream. Empty when the device or member is unknown or nothing ran.
    std::vector<float> memberOutput(AudioObjectID aggregate, const std::string& memberUID,
                                    std::size_t stream = 0) const;
    // One output buffer (slot) of the last cycle.
    std::vector<float> outputBuffer(AudioObjectID device, std::size_t slot) const;
    std::size_t cyclesRun(AudioObjectID device) const;

    // Threaded mode: from now on, starting an IOProc starts a real IO thread for its device
    // that runs cycles of `framesPerCycle` frames with `period` between them until the last
    // IOProc stops; stopDevice waits for a cycle in flight. The thread uses the scene as it
    // was at start. Pumping a device that has a thread does nothing.
    void setThreadedMode(bool isThreaded, UInt32 framesPerCycle = 256,
                         std::chrono::microseconds period = std::chrono::microseconds(500));

    // Whether the direct path of audio to this device is muted by a tap: a kCATapMuted tap
    // that captures it, or a kCATapMutedWhenTapped one whose aggregate is running.
    bool isDirectPathMuted(AudioObjectID device) const;

    // ---- AudioHardware -----------------------------------------------------------------

    std::uint64_t serviceGeneration() const override { return serviceGeneration_.load(); }
    bool isServiceAvailable() override { return isServiceUp_; }
    std::int32_t currentProcessID() const override { return ownPID_; }
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
    OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;

private:
    struct Stream;
    struct Device;
    struct Process;
    struct Tap;
    struct IOProc;
    struct IOState;
    struct PropertyFault;

    // Property plumbing.
    OSStatus propertyFault(AudioObjectID object, const AudioObjectPropertyAddress& address);
    OSStatus callFault(Call call);
    bool exists(AudioObjectID object) const;
    bool isCFProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) const;
    bool objectHasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) const;
    OSStatus readPlain(AudioObjectID object, const AudioObjectPropertyAddress& address,
                       UInt32 qualifierSize, const void* qualifier,
                       std::vector<std::uint8_t>& bytes, bool& isVariable) const;
    OSStatus readValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                       PropertyList& value) const;
    bool settable(AudioObjectID object, const AudioObjectPropertyAddress& address) const;
    IOProc* procOf(const Device& device, const void* procID) const;
    OSStatus readStreamUsage(const Device& device, AudioObjectPropertyScope scope,
                             UInt32* ioDataSize, void* data) const;
    OSStatus writeStreamUsage(Device& device, AudioObjectPropertyScope scope, UInt32 dataSize,
                              const void* data);

    // Model helpers.
    AudioObjectID nextID() { return nextID_++; }
    Device* findDevice(AudioObjectID id);
    const Device* findDevice(AudioObjectID id) const;
    const Device* findDeviceByUID(const std::string& uid) const;
    AudioObjectID addStream(Device& device, bool isInput, UInt32 channels,
                            AudioStreamBasicDescription format);
    AudioStreamBasicDescription naturalTapFormat(const TapDescription& description) const;
    void fallBackDefaults();
    void sceneChanged() { ++sceneGeneration_; }

    // IO helpers.
    IOState& ioState(Device& device);
    void prepareIO(Device& device, UInt32 frames);
    static void prepareProcLists(const IOState& state, std::vector<AudioBuffer>& inputList,
                                 std::vector<AudioBuffer>& outputList);
    static AudioBufferList* procView(AudioBufferList* list, const std::vector<UInt32>& isOn,
                                     bool hasOff, std::vector<AudioBuffer>& storage);
    static std::size_t runCycle(IOState& state, UInt32 frames, const float* explicitInput,
                                std::size_t explicitSamples);
    void startThread(Device& device);
    void stopThread(Device& device);
    bool anyStarted(const Device& device) const;
    void stopProc(Device& device, IOProc& record);
    void destroyProcsOf(Device& device);

    std::int32_t ownPID_;
    AudioObjectID nextID_ = 100;
    AudioObjectID defaultOutput_ = kAudioObjectUnknown;
    AudioObjectID defaultInput_ = kAudioObjectUnknown;
    std::map<AudioObjectID, std::unique_ptr<Device>> devices_; // in creation order by ID
    std::map<AudioObjectID, Stream> streams_;
    std::map<AudioObjectID, Process> processes_;
    std::map<AudioObjectID, Tap> taps_;
    std::map<std::uintptr_t, std::unique_ptr<IOProc>> ioProcs_;
    std::uintptr_t nextProcToken_ = 1;
    std::map<std::int32_t, Generator> processAudio_;
    std::map<AudioObjectID, Generator> inputAudio_; // by device
    std::optional<AudioStreamBasicDescription> tapFormatOverride_;
    std::map<std::tuple<AudioObjectID, AudioObjectPropertySelector, AudioObjectPropertyScope,
                        AudioObjectPropertyElement>,
             PropertyList>
        valueOverrides_;
    std::map<std::tuple<AudioObjectID, AudioObjectPropertySelector, AudioObjectPropertyScope,
                        AudioObjectPropertyElement>,
             std::vector<std::uint8_t>>
        dataOverrides_;
    std::set<std::pair<AudioObjectID, AudioObjectPropertySelector>> hidden_;
    std::vector<PropertyFault> propertyFaults_;
    std::map<Call, std::pair<OSStatus, Times>> callFaults_;
    std::map<Call, std::size_t> callCounts_;
    bool tapsDeliverSilence_ = false;
    bool isServiceUp_ = true;
    std::atomic<std::uint64_t> serviceGeneration_{0};
    bool isThreaded_ = false;
    UInt32 threadFrames_ = 256;
    std::chrono::microseconds threadPeriod_{500};
    std::uint64_t sceneGeneration_ = 0;
    std::uint64_t tapCounter_ = 0;
};

} // namespace brightmix
