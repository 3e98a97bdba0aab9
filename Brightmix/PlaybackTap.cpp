#include "Brightmix/PlaybackTap.h"

#include <cstdlib>
#include <limits>
#include <utility>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/Uuid.h"

namespace brightmix {

namespace {

bool isFloat32LinearPCM(const AudioStreamBasicDescription& format) {
    return format.mFormatID == kAudioFormatLinearPCM && format.mBitsPerChannel == 32 &&
           (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0 && format.mSampleRate > 0.0;
}

} // namespace

PlaybackTap::PlaybackTap(std::vector<AudioObjectID> processIDs, const std::string& appName,
                         AudioDeviceService& devices)
    : hardware_(devices.hardware()), devices_(devices), processIDs_(std::move(processIDs)) {
    // The destructor does not run for a constructor that throws, so clean up here.
    try {
        build(appName);
    } catch (...) {
        tearDown();
        std::free(meter_);
        meter_ = nullptr;
        throw;
    }
}

PlaybackTap::~PlaybackTap() {
    tearDown();
    // Only now: the IOProc that writes to the counter is stopped and gone.
    std::free(meter_);
}

void PlaybackTap::build(const std::string& appName) {
    meter_ = SignalCounterCreate();
    if (meter_ == nullptr) {
        throw AudioDeviceError::unavailable("Could not prepare playback detection.");
    }

    const std::string name = std::string(kPlaybackTapNamePrefix) + appName;
    TapDescription description;
    description.kind = TapDescription::Kind::stereoMixdownOfProcesses;
    description.processes = processIDs_;
    description.name = name;
    description.isPrivate = true;
    // Detection must not silence the app it listens to.
    description.muteBehavior = kCATapUnmuted;
    AudioObjectID tap = kAudioObjectUnknown;
    const OSStatus tapStatus = hardware_.createProcessTap(description, &tap);
    if (tapStatus == 0) {
        tapID_ = tap;
    }
    throwIfError(tapStatus, "Detecting playback from " + appName);

    const auto tapUID = devices_.stringProperty(tapID_, globalAddress(kAudioTapPropertyUID));
    const auto format = devices_.streamFormat(tapID_, globalAddress(kAudioTapPropertyFormat));
    if (!tapUID || !format || !isFloat32LinearPCM(*format)) {
        throw AudioDeviceError::unavailable(appName + " returned an unsupported playback format.");
    }
    sampleRate_ = format->mSampleRate;

    PropertyList::Dictionary tapEntry;
    tapEntry[kAudioSubTapUIDKey] = PropertyList(*tapUID);
    PropertyList::Dictionary aggregate;
    aggregate[kAudioAggregateDeviceNameKey] = PropertyList(name);
    aggregate[kAudioAggregateDeviceUIDKey] =
        PropertyList(std::string(kPlaybackMeterUIDPrefix) + makeRandomUuidString());
    aggregate[kAudioAggregateDeviceIsPrivateKey] = PropertyList::boolean(true);
    aggregate[kAudioAggregateDeviceTapAutoStartKey] = PropertyList::boolean(true);
    aggregate[kAudioAggregateDeviceTapListKey] =
        PropertyList::array({PropertyList(std::move(tapEntry))});
    aggregate[kAudioAggregateDeviceSubDeviceListKey] = PropertyList::array();
    AudioObjectID device = kAudioObjectUnknown;
    const OSStatus aggregateStatus =
        hardware_.createAggregateDevice(PropertyList(std::move(aggregate)), &device);
    if (aggregateStatus == 0) {
        aggregateID_ = device;
    }
    throwIfError(aggregateStatus, "Preparing playback detection for " + appName);

    AudioDeviceIOProcID proc = nullptr;
    const OSStatus procStatus =
        hardware_.createIOProcID(aggregateID_, &SignalCounterIOProc, meter_, &proc);
    if (procStatus == 0) {
        ioProcID_ = proc;
    }
    throwIfError(procStatus, "Preparing the playback meter for " + appName);

    // The aggregate starts only when the app delivers audio, which the poll on the main
    // thread must not wait for: a start that never comes shows as an IOProc without cycles.
    throwIfError(hardware_.startDeviceWithoutWaiting(aggregateID_, ioProcID_),
                 "Starting playback detection for " + appName);
}

void PlaybackTap::tearDown() {
    // Teardown cannot fail usefully: every step is attempted whatever the one before said.
    if (aggregateID_ != kAudioObjectUnknown && ioProcID_ != nullptr) {
        hardware_.stopDevice(aggregateID_, ioProcID_);
        hardware_.destroyIOProcID(aggregateID_, ioProcID_);
    }
    ioProcID_ = nullptr;
    if (aggregateID_ != kAudioObjectUnknown) {
        hardware_.destroyAggregateDevice(aggregateID_);
        aggregateID_ = kAudioObjectUnknown;
    }
    if (tapID_ != kAudioObjectUnknown) {
        hardware_.destroyProcessTap(tapID_);
        tapID_ = kAudioObjectUnknown;
    }
}

std::int64_t PlaybackTap::notePollCycles(std::uint64_t cycles) {
    if (cycles != 0) {
        missingCallbackPolls_ = 0;
    } else if (missingCallbackPolls_ < std::numeric_limits<std::int64_t>::max()) {
        ++missingCallbackPolls_;
    }
    return missingCallbackPolls_;
}

} // namespace brightmix
