// A file writer for benchmarks that never record to disk: the engine needs one, and none of
// its calls is used.
#pragma once

#include <string>

#include "platform/AudioFileWriter.h"
#include "platform/CoreAudioConstants.h"

namespace brightmix::bench {

class UnusedFileWriter final : public AudioFileWriter {
public:
    OSStatus completeFormat(AudioStreamBasicDescription*) override {
        return kAudio_UnimplementedError;
    }
    OSStatus create(const std::string&, AudioFileTypeID, const AudioStreamBasicDescription&, UInt32,
                    AudioFileHandle**) override {
        return kAudio_UnimplementedError;
    }
    OSStatus setClientFormat(AudioFileHandle*, const AudioStreamBasicDescription&) override {
        return kAudio_UnimplementedError;
    }
    OSStatus writeAsync(AudioFileHandle*, UInt32, const AudioBufferList*) override {
        return kAudio_UnimplementedError;
    }
    RecordingFile* recordingFile(AudioFileHandle*) override { return nullptr; }
    OSStatus dispose(AudioFileHandle*) override { return kAudio_UnimplementedError; }
};

} // namespace brightmix::bench
