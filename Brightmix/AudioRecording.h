// One recording of the clean stereo mix into a WAV or M4A file: opens the file with the
// right formats, attaches it to the engine's recording tap (which the IO thread feeds), and
// on stop detaches it, closes the file and reports the result. A new recording needs a new
// object.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <filesystem>
#include <optional>

#include "Brightmix/RecordingFormat.h"
#include "Brightmix/RecordingResult.h"
#include "platform/AudioFileWriter.h"
#include "realtime/RecordingTap.h"

namespace brightmix {

class AudioRecording {
public:
    // Creates the file at `url` and starts recording into it. Throws AudioDeviceError
    // (unavailable, with the message to show) when the rate is unusable, the file cannot be
    // made or prepared, or another recording holds the tap; a file it made is then removed
    // again, and nothing is created at all for an unusable rate.
    AudioRecording(std::filesystem::path url, RecordingFormat format, RecordingTap* state,
                   double sampleRate, AudioFileWriter& writer);
    ~AudioRecording();
    AudioRecording(const AudioRecording&) = delete;
    AudioRecording& operator=(const AudioRecording&) = delete;

    // Ends the recording, closes the file (kept on disk in every case) and reports. Calling
    // it again returns the same result and touches nothing.
    RecordingResult stop();

    const std::filesystem::path& url() const { return url_; }
    double sampleRate() const { return sampleRate_; }
    RecordingFormat format() const { return format_; }
    bool isRecording() const { return file_ != nullptr; }

    // The file and client formats of a recording at a rate (the M4A file format before the
    // writer completes it).
    static AudioStreamBasicDescription fileFormat(RecordingFormat format, double sampleRate);
    static AudioStreamBasicDescription clientFormat(double sampleRate);

private:
    std::filesystem::path url_;
    RecordingFormat format_;
    double sampleRate_;
    RecordingTap* state_;
    AudioFileWriter& writer_;
    AudioFileHandle* file_ = nullptr;
    std::optional<RecordingResult> result_;
};

} // namespace brightmix
