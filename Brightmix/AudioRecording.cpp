#include "Brightmix/AudioRecording.h"

#include <cmath>
#include <string>
#include <system_error>
#include <utility>

#include "Brightmix/AudioDeviceError.h"

namespace brightmix {

namespace {

AudioDeviceError preparationError(OSStatus status) {
    return AudioDeviceError::unavailable("The recording file could not be prepared (error " +
                                         std::to_string(status) +
                                         "). Check the folder’s access and available disk "
                                         "space.");
}

} // namespace

AudioStreamBasicDescription AudioRecording::clientFormat(double sampleRate) {
    AudioStreamBasicDescription format{};
    format.mSampleRate = sampleRate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagsNativeFloatPacked;
    format.mBytesPerPacket = 8;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = 8;
    format.mChannelsPerFrame = 2;
    format.mBitsPerChannel = 32;
    return format;
}

AudioStreamBasicDescription AudioRecording::fileFormat(RecordingFormat format, double sampleRate) {
    if (format == RecordingFormat::wav) return clientFormat(sampleRate);
    AudioStreamBasicDescription aac{};
    aac.mSampleRate = sampleRate;
    aac.mFormatID = kAudioFormatMPEG4AAC;
    aac.mChannelsPerFrame = 2;
    return aac;
}

AudioRecording::AudioRecording(std::filesystem::path url, RecordingFormat format,
                               RecordingTap* state, double sampleRate, AudioFileWriter& writer)
    : url_(std::move(url)), format_(format), sampleRate_(sampleRate), state_(state),
      writer_(writer) {
    if (!(std::isfinite(sampleRate) && sampleRate > 0))
        throw AudioDeviceError::unavailable("The output has no usable sample rate for recording.");

    AudioStreamBasicDescription fileDescription = fileFormat(format, sampleRate);
    if (format == RecordingFormat::m4a) {
        if (OSStatus status = writer_.completeFormat(&fileDescription); status != 0)
            throw preparationError(status);
    }
    AudioFileTypeID type = format == RecordingFormat::wav ? kAudioFileWAVEType : kAudioFileM4AType;
    AudioFileHandle* file = nullptr;
    if (OSStatus status = writer_.create(url_.string(), type, fileDescription, 0, &file);
        status != 0)
        throw preparationError(status);
    if (!file) throw AudioDeviceError::unavailable("The recording file could not be created.");

    // From here on the file is ours: any failure closes it and removes it again.
    auto discard = [&](const AudioDeviceError& error) {
        writer_.dispose(file);
        std::error_code ignored;
        std::filesystem::remove(url_, ignored);
        throw error;
    };
    AudioStreamBasicDescription client = clientFormat(sampleRate);
    if (OSStatus status = writer_.setClientFormat(file, client); status != 0)
        discard(preparationError(status));
    // The first asynchronous write may set things up; it must not be the IO thread's.
    if (OSStatus status = writer_.writeAsync(file, 0, nullptr); status != 0)
        discard(preparationError(status));
    if (!RecordingTapAttach(state_, writer_.recordingFile(file)))
        discard(AudioDeviceError::unavailable("A recording is already in progress."));
    file_ = file;
}

AudioRecording::~AudioRecording() {
    if (file_) stop();
}

RecordingResult AudioRecording::stop() {
    if (result_) return *result_;
    if (!file_) {
        result_ = RecordingResult{url_, 0, std::string("The recording did not start.")};
        return *result_;
    }
    RecordingTapDetach(state_);
    std::uint64_t frames = RecordingTapFramesWritten(state_);
    double duration = double(frames) / sampleRate_;
    OSStatus status = RecordingTapStatus(state_);
    OSStatus closed = writer_.dispose(file_);
    file_ = nullptr;
    OSStatus code = status != 0 ? status : closed;

    RecordingResult result{url_, duration, std::nullopt};
    if (code != 0)
        result.error = "Recording stopped because the audio file could not be written (error " +
                       std::to_string(code) + "). The file may be incomplete.";
    else if (duration == 0)
        result.error =
            "No audio frames were received. Check System Audio Recording permission and try "
            "again.";
    result_ = result;
    return result;
}

} // namespace brightmix
