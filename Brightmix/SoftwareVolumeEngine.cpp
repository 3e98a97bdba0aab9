#include "Brightmix/SoftwareVolumeEngine.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/Uuid.h"

namespace brightmix {

namespace {

[[noreturn]] void fatal(const char* message) {
    std::fputs(message, stderr);
    std::fputc('\n', stderr);
    std::abort();
}

bool isFloat32PCM(const std::optional<AudioStreamBasicDescription>& format) {
    return format && format->mFormatID == kAudioFormatLinearPCM && format->mBitsPerChannel == 32 &&
           (format->mFormatFlags & kAudioFormatFlagIsFloat) != 0;
}

PropertyList integer(std::int64_t value) {
    return PropertyList::integer(value);
}

// 48000.0, 44100.0, 44100.5: the rate as a real number always shows its fraction.
std::string rateText(double rate) {
    std::ostringstream text;
    if (std::isfinite(rate) && rate == std::floor(rate) && std::fabs(rate) < 1e15) {
        text << static_cast<long long>(rate) << ".0";
    } else {
        text.precision(17);
        text << rate;
    }
    return text.str();
}

// The private router: the kept members in order (the clock without drift correction), the
// tap as its input, and a fresh UID so that no two routers ever share one. Built entry by
// entry into place rather than from nested temporaries.
PropertyList routerDescription(const std::vector<AudioDevice>& members, const std::string& clockUID,
                               const std::string& tapUID) {
    const PropertyList driftQuality =
        PropertyList::unsignedInteger(kAudioAggregateDriftCompensationHighQuality);
    PropertyList memberEntries = PropertyList::array();
    for (const AudioDevice& member : members) {
        PropertyList& entry = memberEntries.asArray()->emplace_back(PropertyList::dictionary());
        PropertyList::Dictionary& fields = *entry.asDictionary();
        fields[kAudioSubDeviceUIDKey] = PropertyList::string(member.uid);
        fields[kAudioSubDeviceInputChannelsKey] = integer(0);
        fields[kAudioSubDeviceDriftCompensationKey] = integer(member.uid == clockUID ? 0 : 1);
        fields[kAudioSubDeviceDriftCompensationQualityKey] = driftQuality;
    }
    PropertyList taps = PropertyList::array();
    PropertyList& tapEntry = taps.asArray()->emplace_back(PropertyList::dictionary());
    (*tapEntry.asDictionary())[kAudioSubTapUIDKey] = PropertyList::string(tapUID);
    (*tapEntry.asDictionary())[kAudioSubTapDriftCompensationKey] = integer(1);
    (*tapEntry.asDictionary())[kAudioSubTapDriftCompensationQualityKey] = driftQuality;

    PropertyList description = PropertyList::dictionary();
    PropertyList::Dictionary& keys = *description.asDictionary();
    keys[kAudioAggregateDeviceNameKey] = PropertyList::string(SoftwareVolumeEngine::kRouterName);
    keys[kAudioAggregateDeviceUIDKey] =
        PropertyList::string(std::string(kPrivateDeviceUIDPrefix) + makeRandomUuidString());
    keys[kAudioAggregateDeviceSubDeviceListKey] = memberEntries;
    keys[kAudioAggregateDeviceMainSubDeviceKey] = PropertyList::string(clockUID);
    keys[kAudioAggregateDeviceTapListKey] = taps;
    keys[kAudioAggregateDeviceIsPrivateKey] = integer(1);
    keys[kAudioAggregateDeviceIsStackedKey] = integer(0);
    return description;
}

} // namespace

SoftwareVolumeEngine::SoftwareVolumeEngine(AudioDeviceService& devices, float initialVolume,
                                           AudioFileWriter& fileWriter)
    : devices_(devices), hardware_(devices.hardware()), fileWriter_(fileWriter) {
    gainState_ = ProcessingCreate(initialVolume);
    if (!gainState_) fatal("Unable to allocate the real-time volume state");
    recordingState_ = RecordingTapCreate();
    if (!recordingState_) fatal("Unable to allocate the recording buffer");
    ioContext_ = IOProcContext{gainState_, recordingState_};
}

SoftwareVolumeEngine::~SoftwareVolumeEngine() {
    stop();
    ProcessingDestroy(gainState_);
    RecordingTapDestroy(recordingState_);
}

std::vector<std::string> SoftwareVolumeEngine::memberUIDs(const AudioDevice& device) const {
    if (device.subdeviceUIDs.empty()) return {device.uid};
    return device.subdeviceUIDs;
}

void SoftwareVolumeEngine::start(const AudioDevice& device, AudioCaptureMode mode) {
    stop();

    std::vector<AudioDevice> members;
    for (AudioDevice& member : devices_.devices(memberUIDs(device)))
        if (member.outputChannels > 0) members.push_back(std::move(member));
    if (members.empty())
        throw AudioDeviceError::unavailable(device.name + " reports no outputs to send audio to.");

    std::optional<AudioObjectID> ownProcess =
        devices_.processObjectID(hardware_.currentProcessID());
    if (!ownProcess)
        throw AudioDeviceError::unavailable(
            "Brightmix could not exclude its own audio process from the system mix.");

    TapDescription tap;
    tap.processes = {*ownProcess};
    if (mode == AudioCaptureMode::selectedDevice) {
        tap.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
        tap.deviceUID = device.uid;
        tap.stream = 0;
    } else {
        tap.kind = TapDescription::Kind::stereoGlobalExcludingProcesses;
    }
    tap.name = "Brightmix " + device.name + " Mix";
    tap.isPrivate = true;
    tap.isProcessRestoreEnabled = true;
    tap.muteBehavior = kCATapMutedWhenTapped;

    // From the tap on, every failure tears down whatever exists before it is reported.
    try {
        AudioObjectID createdTap = 0;
        OSStatus status = hardware_.createProcessTap(tap, &createdTap);
        if (status == 0) tapID_ = createdTap;
        throwIfError(status, "Creating the system audio tap");

        std::optional<std::string> tapUID =
            devices_.stringProperty(tapID_, globalAddress(kAudioTapPropertyUID));
        if (!tapUID)
            throw AudioDeviceError::unavailable(
                "The system audio tap did not provide an identifier.");

        std::string clockUID = device.mainSubdeviceUID.value_or(
            device.subdeviceUIDs.empty() ? device.uid : device.subdeviceUIDs.front());
        if (std::none_of(members.begin(), members.end(),
                         [&](const AudioDevice& member) { return member.uid == clockUID; }))
            clockUID = members.front().uid;

        PropertyList description = routerDescription(members, clockUID, *tapUID);
        AudioObjectID createdAggregate = 0;
        status = hardware_.createAggregateDevice(description, &createdAggregate);
        if (status == 0) aggregateID_ = createdAggregate;
        throwIfError(status, "Creating the private audio router");

        checkSampleFormats();
        layOutSlotsAndPushParameters(device);
        const std::int64_t memberInputs = locateTapBuffers(members);

        AudioDeviceIOProcID createdProc = nullptr;
        status = hardware_.createIOProcID(aggregateID_, &SoftwareVolumeEngine::ioProc, &ioContext_,
                                          &createdProc);
        if (status == 0) ioProcID_ = createdProc;
        throwIfError(status, "Preparing the audio router");
        if (memberInputs > 0) switchOffMemberInputs(memberInputs);

        throwIfError(hardware_.startDevice(aggregateID_, ioProcID_), "Starting the audio router");
    } catch (...) {
        stop();
        throw;
    }
    captureMode_ = mode;
    isRunning_ = true;
}

void SoftwareVolumeEngine::checkSampleFormats() {
    if (!isFloat32PCM(devices_.streamFormat(tapID_, globalAddress(kAudioTapPropertyFormat))))
        throw AudioDeviceError::unavailable(
            "The system audio tap returned an unsupported sample format.");

    std::vector<AudioObjectID> streams = devices_.propertyIDs(
        aggregateID_, kAudioDevicePropertyStreams, kAudioObjectPropertyScopeOutput);
    bool isUsable = !streams.empty();
    for (AudioObjectID stream : streams)
        isUsable = isUsable && isFloat32PCM(devices_.streamFormat(
                                   stream, globalAddress(kAudioStreamPropertyVirtualFormat)));
    if (!isUsable)
        throw AudioDeviceError::unavailable(
            "The selected outputs use a sample format Brightmix cannot safely process.");
}

void SoftwareVolumeEngine::layOutSlotsAndPushParameters(const AudioDevice& device) {
    ProcessingResetSlots(gainState_);
    outputBufferRanges_.clear();
    if (std::optional<double> rate = devices_.nominalSampleRate(aggregateID_))
        ProcessingSetSampleRate(gainState_, *rate);

    std::int64_t cursor = 0;
    for (const AudioDevice& member : devices_.devices(memberUIDs(device))) {
        std::int64_t count = devices_.bufferCount(member.id, kAudioObjectPropertyScopeOutput);
        if (count <= 0) continue;
        SlotRange range{cursor, cursor + count};
        outputBufferRanges_[member.uid] = range;
        for (std::int64_t slot = range.lowerBound; slot < range.upperBound; ++slot)
            ProcessingSetSourceChannel(gainState_, std::uint32_t(slot),
                                       std::uint32_t((slot - range.lowerBound) % 2));
        applyGain(member.uid);
        applyRole(member.uid);
        applyEqualizer(equalizerOf(member.uid), range);
        cursor = range.upperBound;
    }
}

std::int64_t SoftwareVolumeEngine::locateTapBuffers(const std::vector<AudioDevice>& members) {
    // The aggregate lists every member's own input streams (a headset's or a display's
    // microphone) before the tap's, even though each member entry asks for no input channels.
    std::int64_t memberInputs = 0;
    for (const AudioDevice& member : members)
        memberInputs += std::max<std::int64_t>(
            0, devices_.bufferCount(member.id, kAudioObjectPropertyScopeInput));
    const std::int64_t inputs = devices_.bufferCount(aggregateID_, kAudioObjectPropertyScopeInput);
    if (inputs <= memberInputs)
        throw AudioDeviceError::unavailable("The system audio tap did not reach the audio router.");

    const std::int64_t tapBuffers = inputs - memberInputs;
    tapViewStorage_.assign(std::size_t(tapBuffers) + 1, AudioBuffer{});
    ioContext_.tapFirstBuffer = UInt32(memberInputs);
    ioContext_.tapBufferCount = UInt32(tapBuffers);
    ioContext_.tapView = reinterpret_cast<AudioBufferList*>(tapViewStorage_.data());
    return memberInputs;
}

void SoftwareVolumeEngine::switchOffMemberInputs(std::int64_t memberInputs) {
    // Left on, a member's input stream is a microphone this program opens: the system asks
    // for (or refuses) microphone access, and a Bluetooth headset drops to its call profile.
    // The tap's own streams stay on.
    const char* const operation = "Preparing the audio router";
    const AudioObjectPropertyAddress address{kAudioDevicePropertyIOProcStreamUsage,
                                             kAudioObjectPropertyScopeInput,
                                             kAudioObjectPropertyElementMain};
    const std::size_t streams = std::size_t(memberInputs) + ioContext_.tapBufferCount;
    UInt32 reported = 0;
    throwIfError(hardware_.getPropertyDataSize(aggregateID_, address, 0, nullptr, &reported),
                 operation);
    const std::size_t size = std::max<std::size_t>(reported, ioProcStreamUsageSize(streams));
    // 8-byte slots: the payload starts with a pointer.
    std::vector<std::uint64_t> storage((size + 7) / 8, 0);
    auto* usage = reinterpret_cast<AudioHardwareIOProcStreamUsage*>(storage.data());
    usage->mIOProc = ioProcID_;
    UInt32 ioSize = UInt32(size);
    throwIfError(hardware_.getPropertyData(aggregateID_, address, 0, nullptr, &ioSize, usage),
                 operation);
    // A usage that does not list exactly the streams laid out cannot be trusted to leave the
    // tap on and every microphone off.
    if (usage->mNumberStreams != streams)
        throwIfError(kAudioHardwareBadPropertySizeError, operation);

    auto* flags = reinterpret_cast<unsigned char*>(storage.data()) +
                  offsetof(AudioHardwareIOProcStreamUsage, mStreamIsOn);
    for (std::size_t stream = 0; stream < streams; ++stream) {
        const UInt32 isOn = stream < std::size_t(memberInputs) ? 0 : 1;
        std::memcpy(flags + stream * sizeof(UInt32), &isOn, sizeof isOn);
    }
    throwIfError(hardware_.setPropertyData(aggregateID_, address, 0, nullptr,
                                           UInt32(ioProcStreamUsageSize(streams)), usage),
                 operation);
}

float SoftwareVolumeEngine::gainOf(const std::string& uid) const {
    auto found = childGains_.find(uid);
    return found == childGains_.end() ? 1.0f : found->second;
}

OutputPreset SoftwareVolumeEngine::roleOf(const std::string& uid) const {
    auto found = childPresets_.find(uid);
    return found == childPresets_.end() ? OutputPreset::fullRange : found->second;
}

EqualizerPreset SoftwareVolumeEngine::equalizerOf(const std::string& uid) const {
    auto found = childEqualizers_.find(uid);
    return found == childEqualizers_.end() ? EqualizerPreset::flat : found->second;
}

void SoftwareVolumeEngine::applyGain(const std::string& uid) {
    auto range = outputBufferRanges_.find(uid);
    if (range == outputBufferRanges_.end()) return;
    for (std::int64_t slot = range->second.lowerBound; slot < range->second.upperBound; ++slot)
        ProcessingSetSlotGain(gainState_, std::uint32_t(slot), gainOf(uid));
}

void SoftwareVolumeEngine::applyRole(const std::string& uid) {
    auto range = outputBufferRanges_.find(uid);
    if (range == outputBufferRanges_.end()) return;
    OutputPreset role = roleOf(uid);
    for (std::int64_t slot = range->second.lowerBound; slot < range->second.upperBound; ++slot) {
        ProcessingSetCrossover(gainState_, std::uint32_t(slot), crossoverMode(role), crossoverHz_);
        ProcessingSetMonoSum(gainState_, std::uint32_t(slot), usesMonoSum(role) ? 1 : 0);
    }
}

void SoftwareVolumeEngine::applyEqualizer(EqualizerPreset preset, const SlotRange& range) {
    if (range.count() <= 0) return;
    const EqualizerGains& gains = equalizerGains(preset);
    // The headroom is the same whatever the device's rate, so a boosting curve never lifts
    // the level above full scale.
    float preGain = equalizerPreGainDb(gains);
    for (std::int64_t slot = range.lowerBound; slot < range.upperBound; ++slot)
        ProcessingSetEqualizer(gainState_, std::uint32_t(slot), gains.data(),
                               std::uint32_t(gains.size()), preGain);
}

void SoftwareVolumeEngine::setChildGain(const std::string& uid, float gain) {
    float clamped = std::isnan(gain) ? 0.0f : std::clamp(gain, 0.0f, 1.0f);
    childGains_[uid] = clamped;
    applyGain(uid);
}

void SoftwareVolumeEngine::setChildPreset(OutputPreset preset, const std::string& uid) {
    childPresets_[uid] = preset;
    applyRole(uid);
}

void SoftwareVolumeEngine::setChildEqualizer(EqualizerPreset preset, const std::string& uid) {
    childEqualizers_[uid] = preset;
    auto range = outputBufferRanges_.find(uid);
    if (range != outputBufferRanges_.end()) applyEqualizer(preset, range->second);
}

void SoftwareVolumeEngine::setCrossoverHz(float hz) {
    crossoverHz_ = hz;
    for (const auto& [uid, range] : outputBufferRanges_)
        applyRole(uid);
}

void SoftwareVolumeEngine::startRecording(const std::filesystem::path& url,
                                          RecordingFormat format) {
    std::optional<double> rate;
    if (isRunning_ && !recording_) rate = devices_.nominalSampleRate(aggregateID_);
    if (!rate) throw AudioDeviceError::unavailable("Turn on Brightmix before recording.");
    recording_ = std::make_unique<AudioRecording>(url, format, recordingState_, *rate, fileWriter_);
}

void SoftwareVolumeEngine::finishRecording() {
    if (!recording_) return;
    RecordingResult result = recording_->stop();
    recording_.reset();
    if (onRecordingFinished_) onRecordingFinished_(result);
}

void SoftwareVolumeEngine::stop() noexcept {
    try {
        finishRecording();
    } catch (...) {
        // The handler is the app's; whatever it does, the router still has to come down.
    }
    if (aggregateID_ != 0 && ioProcID_ != nullptr) {
        hardware_.stopDevice(aggregateID_, ioProcID_);
        hardware_.destroyIOProcID(aggregateID_, ioProcID_);
    }
    ioProcID_ = nullptr;
    outputBufferRanges_.clear();
    // The aggregate uses the tap, so it goes first. What the system refuses to destroy is
    // kept and tried again at the next stop (and at destroyLeftovers), so a transient refusal
    // leaves nothing behind for good.
    if (aggregateID_ != 0) {
        leftoverAggregates_.push_back(aggregateID_);
        aggregateID_ = 0;
    }
    if (tapID_ != 0) {
        leftoverTaps_.push_back(tapID_);
        tapID_ = 0;
    }
    destroyLeftovers();
    isRunning_ = false;
    // The meter starts from silence next time.
    ProcessingTakeOutputPeak(gainState_);
}

void SoftwareVolumeEngine::forgetRouter() noexcept {
    try {
        finishRecording();
    } catch (...) {
        // As in stop: the router is forgotten whatever the handler does.
    }
    ioProcID_ = nullptr;
    aggregateID_ = 0;
    tapID_ = 0;
    outputBufferRanges_.clear();
    leftoverAggregates_.clear();
    leftoverTaps_.clear();
    isRunning_ = false;
    ProcessingTakeOutputPeak(gainState_);
}

void SoftwareVolumeEngine::destroyLeftovers() noexcept {
    std::erase_if(leftoverAggregates_, [this](AudioObjectID aggregate) {
        return hardware_.destroyAggregateDevice(aggregate) == kAudioHardwareNoError;
    });
    // A tap still used by a leftover aggregate cannot go yet; it is retried with it.
    std::erase_if(leftoverTaps_, [this](AudioObjectID tap) {
        return hardware_.destroyProcessTap(tap) == kAudioHardwareNoError;
    });
}

PropertyList::Dictionary SoftwareVolumeEngine::diagnosticDetails() {
    PropertyList::Dictionary details;
    details["inputPeak"] = PropertyList::real(ProcessingTakeInputPeak(gainState_));

    std::uint32_t buffers = 0, channels = 0, bytes = 0;
    ProcessingLastInputFormat(gainState_, &buffers, &channels, &bytes);
    details["inputShape"] = "buffers=" + std::to_string(buffers) +
                            " channels=" + std::to_string(channels) +
                            " bytes=" + std::to_string(bytes);

    std::optional<AudioStreamBasicDescription> tapFormat;
    if (tapID_ != 0)
        tapFormat = devices_.streamFormat(tapID_, globalAddress(kAudioTapPropertyFormat));
    details["tapFormat"] = tapFormat ? rateText(tapFormat->mSampleRate) + " Hz " +
                                           std::to_string(tapFormat->mChannelsPerFrame) + " ch"
                                     : std::string("nil");
    details["gain"] = PropertyList::real(ProcessingGetMasterGain(gainState_));
    details["mode"] = std::string(name(captureMode_));
    // Every slot's peak is taken so none piles up; the member's entry keeps the last one.
    for (const auto& [uid, range] : outputBufferRanges_)
        for (std::int64_t slot = range.lowerBound; slot < range.upperBound; ++slot)
            details["outputPeak " + uid] =
                PropertyList::real(ProcessingTakeSlotPeak(gainState_, std::uint32_t(slot)));
    return details;
}

OSStatus SoftwareVolumeEngine::ioProc(AudioObjectID, const AudioTimeStamp*,
                                      const AudioBufferList* input, const AudioTimeStamp*,
                                      AudioBufferList* output, const AudioTimeStamp*,
                                      void* clientData) {
    const auto* context = static_cast<const IOProcContext*>(clientData);
    if (!context) return 0;
    const AudioBufferList* tap = input;
    if (input && context->tapView && context->tapBufferCount > 0) {
        const UInt32 listed = input->mNumberBuffers;
        UInt32 first = context->tapFirstBuffer;
        UInt32 count = context->tapBufferCount;
        // The tap's streams always come last: a list that is not as laid out still ends
        // with them.
        if (listed != first + count) {
            count = std::min(count, listed);
            first = listed - count;
        }
        if (first != 0 || count != listed) {
            context->tapView->mNumberBuffers = count;
            for (UInt32 buffer = 0; buffer < count; ++buffer)
                context->tapView->mBuffers[buffer] = input->mBuffers[first + buffer];
            tap = context->tapView;
        }
    }
    RecordingTapWrite(context->recording, tap);
    ProcessingRender(tap, output, context->processing);
    return 0;
}

} // namespace brightmix
