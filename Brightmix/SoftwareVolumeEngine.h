// The router that gives a multi-output device a volume. Started for the selected output, it
// creates a process tap on the system mix (leaving this program's own sound out), a private
// aggregate device whose members are the output's members and whose input is the tap, and
// an IOProc on it that hands each cycle to the recording tap and then to the real-time
// render, which writes every member's outputs with gain, mute, speaker role and equaliser.
// It owns everything it creates and destroys it all on stop.
//
// The two real-time blocks (processing state and recording tap) live exactly as long as the
// engine; the router is built at each start and torn down at each stop.
//
// Thread: control (the main thread) for every member. The IOProc runs on the aggregate's
// real-time thread and touches only the two blocks. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Brightmix/AudioCaptureMode.h"
#include "Brightmix/AudioDevice.h"
#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/AudioRecording.h"
#include "Brightmix/EqualizerPreset.h"
#include "Brightmix/OutputPreset.h"
#include "Brightmix/RecordingFormat.h"
#include "Brightmix/RecordingResult.h"
#include "platform/AudioFileWriter.h"
#include "platform/AudioHardware.h"
#include "platform/PropertyList.h"
#include "realtime/ProcessingState.h"
#include "realtime/RecordingTap.h"

namespace brightmix {

// The output slots [lowerBound, upperBound) of the aggregate's output list that one member
// owns, one per output stream.
struct SlotRange {
    std::int64_t lowerBound = 0;
    std::int64_t upperBound = 0;

    std::int64_t count() const { return upperBound - lowerBound; }
    friend bool operator==(const SlotRange&, const SlotRange&) = default;
};

class SoftwareVolumeEngine {
public:
    using RecordingFinishedHandler = std::function<void(const RecordingResult&)>;

    inline static const std::string kRouterName = "Brightmix Private Router";
    static constexpr float kDefaultCrossoverHz = 80;

    // A stopped engine with its two real-time blocks; the initial volume is the master gain.
    // Running out of memory for either block ends the program: nothing can work without them.
    SoftwareVolumeEngine(AudioDeviceService& devices, float initialVolume,
                         AudioFileWriter& fileWriter);
    ~SoftwareVolumeEngine();
    SoftwareVolumeEngine(const SoftwareVolumeEngine&) = delete;
    SoftwareVolumeEngine& operator=(const SoftwareVolumeEngine&) = delete;

    // Builds and starts the router for `device` (a multi-output device, or a plain device
    // routed as a group of one). Always begins from a full stop. Throws AudioDeviceError; a
    // failed start leaves no tap, aggregate or IOProc behind.
    void start(const AudioDevice& device, AudioCaptureMode mode);

    // Finishes a recording, stops and destroys the IOProc, the aggregate and the tap, in
    // that order. Never fails: an aggregate or tap the system refuses to destroy is kept as a
    // leftover and destroyed at the next stop or destroyLeftovers().
    void stop() noexcept;
    // The audio system restarted: the tap, the aggregate and the IOProc are gone with it, and
    // their IDs may already name other objects. Finishes a recording (the file stays valid)
    // and forgets the router without a single call to the hardware. Never fails.
    void forgetRouter() noexcept;
    // Tries again to destroy what an earlier stop could not. The app model calls it every
    // refresh tick.
    void destroyLeftovers() noexcept;
    // Aggregates and taps still waiting to be destroyed.
    std::size_t leftoverCount() const { return leftoverAggregates_.size() + leftoverTaps_.size(); }

    // Per-member settings. Each is stored (and survives stops) and, while the member owns
    // slots, applied at once; otherwise it takes effect at the next start.
    // The gain is clamped to 0...1 (negative or not a number: 0).
    void setChildGain(const std::string& uid, float gain);
    void setChildPreset(OutputPreset preset, const std::string& uid);
    void setChildEqualizer(EqualizerPreset preset, const std::string& uid);
    // One crossover frequency for every member, stored as given.
    void setCrossoverHz(float hz);

    // Starts recording the clean mix; needs a running router with a known sample rate and
    // no recording in progress ("Turn on Brightmix before recording."), and throws what the
    // recording itself throws.
    void startRecording(const std::filesystem::path& url, RecordingFormat format);
    // Ends a recording in progress and hands its result to the handler; else does nothing.
    void finishRecording();
    void setRecordingFinishedHandler(RecordingFinishedHandler handler) {
        onRecordingFinished_ = std::move(handler);
    }
    bool isRecording() const { return recording_ != nullptr; }
    // The recording in progress, if any.
    const AudioRecording* recording() const { return recording_.get(); }

    // The engine's side of the health report: peaks (taken), the input's shape, the tap's
    // format, master gain, mode and each member's output peak.
    PropertyList::Dictionary diagnosticDetails();

    ProcessingState* gainState() const { return gainState_; }
    RecordingTap* recordingState() const { return recordingState_; }
    bool isRunning() const { return isRunning_; }
    AudioCaptureMode captureMode() const { return captureMode_; }
    // Running on the global stereo tap, the fallback capture.
    bool isUsingCompatibilityCapture() const {
        return isRunning_ && captureMode_ == AudioCaptureMode::compatibilityGlobal;
    }
    AudioObjectID tapID() const { return tapID_; }
    AudioObjectID aggregateID() const { return aggregateID_; }
    bool hasIOProc() const { return ioProcID_ != nullptr; }
    AudioDeviceIOProcID ioProcID() const { return ioProcID_; }
    float crossoverHz() const { return crossoverHz_; }
    const std::map<std::string, float>& childGains() const { return childGains_; }
    const std::map<std::string, OutputPreset>& childPresets() const { return childPresets_; }
    const std::map<std::string, EqualizerPreset>& childEqualizers() const {
        return childEqualizers_;
    }
    const std::map<std::string, SlotRange>& outputBufferRanges() const {
        return outputBufferRanges_;
    }

    // The IOProc's client data: the two blocks and where the tap sits in the input list,
    // nothing else, so a cycle can never reach the engine object. The router's input list
    // holds its members' own input streams first and the tap's last; `tapView` (room for
    // `tapBufferCount` buffers, made on the control thread) is where a cycle lists the tap's
    // buffers alone. Without a view the whole input is the tap.
    struct IOProcContext {
        ProcessingState* processing;
        RecordingTap* recording;
        UInt32 tapFirstBuffer = 0;
        UInt32 tapBufferCount = 0;
        AudioBufferList* tapView = nullptr;
    };
    // One IO cycle: the tap's buffers to the recording tap first (the clean mix), then to the
    // render. Thread: render. Realtime-safe: yes.
    static OSStatus ioProc(AudioObjectID device, const AudioTimeStamp* now,
                           const AudioBufferList* input, const AudioTimeStamp* inputTime,
                           AudioBufferList* output, const AudioTimeStamp* outputTime,
                           void* clientData);

private:
    std::vector<std::string> memberUIDs(const AudioDevice& device) const;
    void checkSampleFormats();
    void layOutSlotsAndPushParameters(const AudioDevice& device);
    std::int64_t locateTapBuffers(const std::vector<AudioDevice>& members);
    void switchOffMemberInputs(std::int64_t memberInputs);
    void applyGain(const std::string& uid);
    void applyRole(const std::string& uid);
    void applyEqualizer(EqualizerPreset preset, const SlotRange& range);
    float gainOf(const std::string& uid) const;
    OutputPreset roleOf(const std::string& uid) const;
    EqualizerPreset equalizerOf(const std::string& uid) const;

    AudioDeviceService& devices_;
    AudioHardware& hardware_;
    AudioFileWriter& fileWriter_;
    ProcessingState* gainState_ = nullptr;
    RecordingTap* recordingState_ = nullptr;
    IOProcContext ioContext_{};
    // Backing store of ioContext_.tapView: AudioBuffer-sized slots keep the list aligned.
    std::vector<AudioBuffer> tapViewStorage_;
    std::unique_ptr<AudioRecording> recording_;
    RecordingFinishedHandler onRecordingFinished_;
    AudioObjectID tapID_ = 0;
    AudioObjectID aggregateID_ = 0;
    AudioDeviceIOProcID ioProcID_ = nullptr;
    std::map<std::string, float> childGains_;
    std::map<std::string, OutputPreset> childPresets_;
    std::map<std::string, EqualizerPreset> childEqualizers_;
    float crossoverHz_ = kDefaultCrossoverHz;
    std::map<std::string, SlotRange> outputBufferRanges_;
    std::vector<AudioObjectID> leftoverAggregates_;
    std::vector<AudioObjectID> leftoverTaps_;
    bool isRunning_ = false;
    AudioCaptureMode captureMode_ = AudioCaptureMode::selectedDevice;
};

} // namespace brightmix
