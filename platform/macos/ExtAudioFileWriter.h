// AudioFileWriter over ExtAudioFile: the file is created with ExtAudioFileCreateWithURL, told
// its client format, primed with an empty ExtAudioFileWriteAsync on the control thread, written
// with ExtAudioFileWriteAsync from the IO thread, and closed by ExtAudioFileDispose. Compressed
// formats are completed by AudioFormatGetProperty.
//
// Thread: control, except the write function the recording tap calls (render).
// Realtime-safe: writeAsync once primed (ExtAudioFile's own promise); nothing else.
#pragma once

#include "platform/AudioFileWriter.h"

namespace brightmix {

class ExtAudioFileWriter final : public AudioFileWriter {
public:
    OSStatus completeFormat(AudioStreamBasicDescription* format) override;
    OSStatus create(const std::string& path, AudioFileTypeID fileType,
                    const AudioStreamBasicDescription& fileFormat, UInt32 flags,
                    AudioFileHandle** file) override;
    OSStatus setClientFormat(AudioFileHandle* file,
                             const AudioStreamBasicDescription& clientFormat) override;
    OSStatus writeAsync(AudioFileHandle* file, UInt32 frames, const AudioBufferList* data) override;
    RecordingFile* recordingFile(AudioFileHandle* file) override;
    OSStatus dispose(AudioFileHandle* file) override;
};

} // namespace brightmix
