// The recording file writer on Linux: WAV (32-bit float) through libsndfile and M4A (AAC)
// through FFmpeg. Each file owns a preallocated lock-free ring that the real-time thread
// fills and a writer thread of its own that drains it to the encoder and the disk, so the
// real-time side never waits for either.
//
// Thread: control for every call except writeAsync (see AudioFileWriter). Realtime-safe: see
// AudioFileWriter.
#pragma once

#include <cstdint>
#include <string>

#include "platform/AudioFileWriter.h"

namespace brightmix {

class LinuxAudioFileWriter final : public AudioFileWriter {
public:
    struct Options {
        // Queue length per file. The default holds almost three seconds at 48 kHz, far more
        // than the writer thread ever falls behind.
        std::uint32_t ringFrames = 1u << 17;
        // How long the writer thread sleeps when the queue is empty. The real-time side never
        // wakes it (waking is a system call), so this bounds how far it lags.
        double drainIntervalSeconds = 0.005;
        // AAC bit rate per channel at 48 kHz; lower rates get proportionally less.
        std::int64_t aacBitRatePerChannel = 96000;
    };

    LinuxAudioFileWriter();
    explicit LinuxAudioFileWriter(Options options);

    OSStatus completeFormat(AudioStreamBasicDescription* format) override;
    OSStatus create(const std::string& path, AudioFileTypeID fileType,
                    const AudioStreamBasicDescription& fileFormat, UInt32 flags,
                    AudioFileHandle** file) override;
    OSStatus setClientFormat(AudioFileHandle* file,
                             const AudioStreamBasicDescription& clientFormat) override;
    OSStatus writeAsync(AudioFileHandle* file, UInt32 frames, const AudioBufferList* data) override;
    RecordingFile* recordingFile(AudioFileHandle* file) override;
    OSStatus dispose(AudioFileHandle* file) override;

    // The fullest a file's queue has been, in frames, and its capacity; for measurements.
    static std::uint64_t queueHighWaterFrames(const AudioFileHandle* file);
    static std::uint32_t queueCapacityFrames(const AudioFileHandle* file);

private:
    Options options_;
};

// Turns an errno value into the nearest file status (permission, missing folder, disk full,
// or the unspecified file error).
OSStatus audioFileStatusForErrno(int error);

} // namespace brightmix
