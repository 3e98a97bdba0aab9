// One app's playback detector: a private process tap that mixes the app's processes down to
// stereo (leaving them audible), a private aggregate device that carries only that tap, and
// an IOProc on it that counts audible frames into a SignalCounter. The app playback monitor
// owns one per app it listens to and reads the counter once a poll.
//
// Thread: control (the main thread) for every member. The IOProc runs on the aggregate's
// real-time thread and touches only the counter. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Brightmix/AudioDeviceService.h"
#include "realtime/SignalCounter.h"

namespace brightmix {

// The prefix of every detection aggregate's UID (a fresh UUID follows).
inline constexpr std::string_view kPlaybackMeterUIDPrefix = "com.corvale.brightmix.private.meter.";
// The detection aggregate's and the tap's name, before the app name.
inline constexpr std::string_view kPlaybackTapNamePrefix = "Brightmix Playback: ";

class PlaybackTap {
public:
    // Builds and starts the tap for `processIDs` (process objects, sorted ascending). Throws
    // AudioDeviceError after tearing down whatever it had already created.
    PlaybackTap(std::vector<AudioObjectID> processIDs, const std::string& appName,
                AudioDeviceService& devices);
    // Stops and destroys the IOProc, the aggregate and the tap, then frees the counter.
    ~PlaybackTap();
    PlaybackTap(const PlaybackTap&) = delete;
    PlaybackTap& operator=(const PlaybackTap&) = delete;

    const std::vector<AudioObjectID>& processIDs() const { return processIDs_; }
    AudioObjectID tapID() const { return tapID_; }
    AudioObjectID aggregateID() const { return aggregateID_; }
    AudioDeviceIOProcID ioProcID() const { return ioProcID_; }
    // The tap's own sample rate, read from its format.
    double sampleRate() const { return sampleRate_; }

    // Counts since the last take; each take leaves 0 behind.
    std::uint64_t takeCycles() { return SignalCounterTakeCycles(meter_); }
    std::uint64_t takeAudibleFrames() { return SignalCounterTakeAudibleFrames(meter_); }

    // The audio system restarted and took the tap, the aggregate and the IOProc with it:
    // forget their IDs, so that nothing is destroyed that may now be someone else's.
    void forget() {
        tapID_ = kAudioObjectUnknown;
        aggregateID_ = kAudioObjectUnknown;
        ioProcID_ = nullptr;
    }

    // Records one poll's IO cycle count and answers how many polls in a row had none.
    std::int64_t notePollCycles(std::uint64_t cycles);
    std::int64_t missingCallbackPolls() const { return missingCallbackPolls_; }

private:
    void build(const std::string& appName);
    void tearDown();

    AudioHardware& hardware_;
    const AudioDeviceService& devices_;
    std::vector<AudioObjectID> processIDs_;
    SignalCounter* meter_ = nullptr;
    AudioObjectID tapID_ = kAudioObjectUnknown;
    AudioObjectID aggregateID_ = kAudioObjectUnknown;
    AudioDeviceIOProcID ioProcID_ = nullptr;
    double sampleRate_ = 48000.0;
    std::int64_t missingCallbackPolls_ = 0;
};

} // namespace brightmix
