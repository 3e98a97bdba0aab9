#include "platform/macos/ExtAudioFileWriter.h"

#include <AudioToolbox/AudioToolbox.h>
#include <atomic>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/macos/CFConversion.h"
#include "platform/macos/CoreAudioTranslation.h"

namespace brightmix {

namespace {

class ExtAudioFileHandle final : public AudioFileHandle {
public:
    explicit ExtAudioFileHandle(ExtAudioFileRef file) : file_(file) {
        recording_.writeAsync = &ExtAudioFileHandle::write;
        recording_.context = this;
    }

    ExtAudioFileRef file() const { return file_; }
    RecordingFile* recording() { return &recording_; }
    void noteStatus(OSStatus status) {
        OSStatus none = noErr;
        if (status != noErr) firstError_.compare_exchange_strong(none, status);
    }
    OSStatus firstError() const { return firstError_.load(); }

private:
    // The recording tap's write function: straight into ExtAudioFile's ring, which takes no
    // lock once primed.
    static int32_t write(const RecordingFile* recording, uint32_t frames,
                         const AudioBufferList* data) {
        auto* self = static_cast<ExtAudioFileHandle*>(recording->context);
        const OSStatus status = ExtAudioFileWriteAsync(self->file_, frames, data);
        self->noteStatus(status);
        return status;
    }

    ExtAudioFileRef file_;
    RecordingFile recording_{};
    std::atomic<OSStatus> firstError_{noErr};
};

ExtAudioFileHandle* handle(AudioFileHandle* file) {
    return static_cast<ExtAudioFileHandle*>(file);
}

} // namespace

OSStatus ExtAudioFileWriter::completeFormat(AudioStreamBasicDescription* format) {
    if (format->mFormatID == kAudioFormatLinearPCM) return noErr;
    if (format->mFormatID == kAudioFormatMPEG4AAC &&
        recordingFormatStatus(kAudioFileM4AType, *format) != noErr)
        return kAudioFormatUnsupportedDataFormatError;
    UInt32 size = sizeof(*format);
    return AudioFormatGetProperty(kAudioFormatProperty_FormatInfo, 0, nullptr, &size, format);
}

OSStatus ExtAudioFileWriter::create(const std::string& path, AudioFileTypeID fileType,
                                    const AudioStreamBasicDescription& fileFormat, UInt32 flags,
                                    AudioFileHandle** file) {
    *file = nullptr;
    if (const OSStatus status = recordingFormatStatus(fileType, fileFormat); status != noErr)
        return status;
    struct stat existing {};
    const bool existedBefore = stat(path.c_str(), &existing) == 0;
    if (existedBefore && (flags & kAudioFileFlags_EraseFile) == 0) return kAudioFileExistsError;

    CFOwned text(createCFString(path));
    CFOwned url(CFURLCreateWithFileSystemPath(
        kCFAllocatorDefault, static_cast<CFStringRef>(text.get()), kCFURLPOSIXPathStyle, false));
    if (!url.get()) return kAudio_BadFilePathError;
    ExtAudioFileRef created = nullptr;
    const OSStatus status = ExtAudioFileCreateWithURL(static_cast<CFURLRef>(url.get()), fileType,
                                                      &fileFormat, nullptr, flags, &created);
    if (status != noErr) {
        // Nothing is left behind by a failed create.
        if (created) ExtAudioFileDispose(created);
        if (!existedBefore) unlink(path.c_str());
        return status;
    }
    *file = new ExtAudioFileHandle(created);
    return noErr;
}

OSStatus ExtAudioFileWriter::setClientFormat(AudioFileHandle* file,
                                             const AudioStreamBasicDescription& clientFormat) {
    if (!file) return kAudio_ParamError;
    if (clientFormat.mFormatID != kAudioFormatLinearPCM)
        return kExtAudioFileError_NonPCMClientFormat;
    return ExtAudioFileSetProperty(handle(file)->file(), kExtAudioFileProperty_ClientDataFormat,
                                   sizeof(clientFormat), &clientFormat);
}

OSStatus ExtAudioFileWriter::writeAsync(AudioFileHandle* file, UInt32 frames,
                                        const AudioBufferList* data) {
    if (!file) return kAudio_ParamError;
    const RecordingFile* recording = handle(file)->recording();
    return recording->writeAsync(recording, frames, data);
}

RecordingFile* ExtAudioFileWriter::recordingFile(AudioFileHandle* file) {
    return file ? handle(file)->recording() : nullptr;
}

OSStatus ExtAudioFileWriter::dispose(AudioFileHandle* file) {
    if (!file) return kAudio_ParamError;
    ExtAudioFileHandle* owned = handle(file);
    const OSStatus closed = ExtAudioFileDispose(owned->file());
    const OSStatus first = owned->firstError();
    delete owned;
    return first != noErr ? first : closed;
}

} // namespace brightmix
