// Writing audio files the way the recorder needs: create a WAV or M4A file, tell it the
// format the samples arrive in, then queue frames from the real-time thread without
// blocking, and finally flush and close. Shaped like ExtAudioFile, whose status codes it
// uses, so that the Apple backend is a pass-through and every other backend copies its
// behaviour.
//
// The order of calls on one file: create → setClientFormat → writeAsync(0, null) once from
// the control thread (priming) → writeAsync from the real-time thread, through the
// RecordingFile that recordingFile() hands out → dispose. Pending frames reach the disk only
// by dispose, which reports the first error the file met.
//
// Implementations: platform/linux/audiofile (libsndfile for WAV, FFmpeg for M4A, behind a
// lock-free ring and a writer thread), platform/macos (ExtAudioFile).
#pragma once

#include <string>

#include "platform/CoreAudioConstants.h"
#include "realtime/CoreAudioShapes.h"
#include "realtime/RecordingTap.h"

namespace brightmix {

// Creation flag: overwrite an existing file. Without it, creating over an existing file
// fails with kAudioFileExistsError and leaves that file alone.
inline constexpr UInt32 kAudioFileFlags_EraseFile = 1;

// A file of that name exists already (the classic "duplicate file name" status).
inline constexpr OSStatus kAudioFileExistsError = -48;
// The client format is not linear PCM.
inline constexpr OSStatus kExtAudioFileError_NonPCMClientFormat = -66563;

// The AAC encoder takes sample rates from 8 kHz to 48 kHz only; any other rate makes
// completeFormat and create answer kAudioFormatUnsupportedDataFormatError ('fmt?'), while
// WAV files take any rate.
inline constexpr double kAacMinimumSampleRate = 8000.0;
inline constexpr double kAacMaximumSampleRate = 48000.0;

// An open file. Each writer derives its own kind; only the writer that made a file looks
// inside it.
class AudioFileHandle {
public:
    virtual ~AudioFileHandle() = default;
    AudioFileHandle(const AudioFileHandle&) = delete;
    AudioFileHandle& operator=(const AudioFileHandle&) = delete;

protected:
    AudioFileHandle() = default;
};

class AudioFileWriter {
public:
    virtual ~AudioFileWriter() = default;

    // Fills in what a compressed format leaves open (frames per packet, bytes per packet and
    // the like) from its format ID, sample rate and channel count, as the system's format
    // information query does. Linear PCM is returned as given.
    // Thread: control. Realtime-safe: no.
    virtual OSStatus completeFormat(AudioStreamBasicDescription* format) = 0;

    // Creates the file at `path` (kAudioFileWAVEType or kAudioFileM4AType) holding
    // `fileFormat`. On success `*file` is the new file; on failure it is null and nothing is
    // left on disk. Thread: control. Realtime-safe: no.
    virtual OSStatus create(const std::string& path, AudioFileTypeID fileType,
                            const AudioStreamBasicDescription& fileFormat, UInt32 flags,
                            AudioFileHandle** file) = 0;

    // The format of the frames handed to writeAsync. Required before writing to a compressed
    // file; a linear-PCM file takes its own format when none is set.
    // Thread: control. Realtime-safe: no.
    virtual OSStatus setClientFormat(AudioFileHandle* file,
                                     const AudioStreamBasicDescription& clientFormat) = 0;

    // Queues `frames` frames of client-format audio from `data` and returns at once; the disk
    // is written later on another thread. Called once with 0 frames and a null list from the
    // control thread to prime the file; after that it is real-time safe. An error met by the
    // background writer surfaces here on a later call; a queue too full to take the frames
    // answers kExtAudioFileError_AsyncWriteBufferOverflow and drops them.
    // Thread: render (control for priming). Realtime-safe: yes, once primed.
    virtual OSStatus writeAsync(AudioFileHandle* file, UInt32 frames,
                                const AudioBufferList* data) = 0;

    // The recording tap's view of the file: its write function calls writeAsync. Valid until
    // dispose. Thread: control. Realtime-safe: yes.
    virtual RecordingFile* recordingFile(AudioFileHandle* file) = 0;

    // Writes everything still queued, finishes the container, closes and frees the file.
    // Answers the first error the file met (a write, an overflow or the close itself), else
    // 0. The file stays on disk either way. Thread: control. Realtime-safe: no.
    virtual OSStatus dispose(AudioFileHandle* file) = 0;
};

} // namespace brightmix
