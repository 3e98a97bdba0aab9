#include "platform/linux/audiofile/LinuxAudioFileWriter.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sndfile.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include "platform/linux/audiofile/FrameRing.h"

namespace brightmix {

namespace {

// The classic "disk full" status.
constexpr OSStatus kDiskFullError = -34;
constexpr UInt32 kMaximumChannels = 8;

bool isFloat32PackedPCM(const AudioStreamBasicDescription& format) {
    return format.mFormatID == kAudioFormatLinearPCM &&
           (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0 &&
           (format.mFormatFlags & kAudioFormatFlagIsBigEndian) == 0 &&
           (format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) == 0 &&
           format.mBitsPerChannel == 32 && format.mChannelsPerFrame >= 1 &&
           format.mChannelsPerFrame <= kMaximumChannels &&
           format.mBytesPerFrame == 4 * format.mChannelsPerFrame && format.mFramesPerPacket == 1 &&
           format.mBytesPerPacket == format.mBytesPerFrame;
}

bool isUsableRate(double rate) {
    return std::isfinite(rate) && rate >= 1.0 && rate <= 1.0e6;
}

// Sample rates the AAC encoder has a configuration for, within 8-48 kHz.
bool isAacRate(double rate) {
    static constexpr double kRates[] = {8000,  11025, 12000, 16000, 22050,
                                        24000, 32000, 44100, 48000};
    for (double candidate : kRates)
        if (rate == candidate) return true;
    return false;
}

OSStatus statusForAvError(int error) {
    if (error == AVERROR(ENOMEM)) return kAudio_MemFullError;
    if (error < 0 && error > -4096) // a negated errno
        return audioFileStatusForErrno(-error);
    return kAudioFileUnspecifiedError;
}

// Where the writer thread puts the frames: one encoder and container per file kind.
class Sink {
public:
    virtual ~Sink() = default;
    // Interleaved frames of the file's channel count; runs on the writer thread.
    virtual OSStatus write(const float* interleaved, std::uint32_t frames) = 0;
    // Flushes the encoder, finishes the container and closes; the first error, else 0.
    virtual OSStatus finish() = 0;
};

// libsndfile writes through a descriptor we own, so that closing it is ours to check too
// (a network or full disk may only say so at close).
class WavSink final : public Sink {
public:
    WavSink(SNDFILE* file, int descriptor) : file_(file), descriptor_(descriptor) {}
    ~WavSink() override { finish(); }

    OSStatus write(const float* interleaved, std::uint32_t frames) override {
        errno = 0;
        sf_count_t written = sf_writef_float(file_, interleaved, sf_count_t(frames));
        if (written != sf_count_t(frames))
            return errno != 0 ? audioFileStatusForErrno(errno) : kAudioFileUnspecifiedError;
        return 0;
    }

    OSStatus finish() override {
        OSStatus status = 0;
        if (file_) {
            errno = 0;
            if (sf_close(file_) != 0)
                status = errno != 0 ? audioFileStatusForErrno(errno) : kAudioFileUnspecifiedError;
            file_ = nullptr;
        }
        if (descriptor_ >= 0) {
            if (::close(descriptor_) != 0 && status == 0) status = audioFileStatusForErrno(errno);
            descriptor_ = -1;
        }
        return status;
    }

private:
    SNDFILE* file_;
    int descriptor_;
};

class AacSink final : public Sink {
public:
    ~AacSink() override { release(); }

    // Opens the encoder and the container and writes the header.
    OSStatus open(const std::string& path, double sampleRate, std::uint32_t channels,
                  std::int64_t bitRatePerChannel) {
        channels_ = channels;
        const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
        if (!codec) return kAudioFormatUnsupportedDataFormatError;
        int error = avformat_alloc_output_context2(&format_, nullptr, "ipod", path.c_str());
        if (error < 0 || !format_) return statusForAvError(error);
        encoder_ = avcodec_alloc_context3(codec);
        if (!encoder_) return kAudio_MemFullError;
        int rate = int(sampleRate);
        encoder_->sample_fmt = AV_SAMPLE_FMT_FLTP;
        encoder_->sample_rate = rate;
        av_channel_layout_default(&encoder_->ch_layout, int(channels));
        encoder_->bit_rate =
            std::max<std::int64_t>(16000, bitRatePerChannel * channels * rate / 48000);
        encoder_->time_base = AVRational{1, rate};
        if (format_->oformat->flags & AVFMT_GLOBALHEADER)
            encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        if ((error = avcodec_open2(encoder_, codec, nullptr)) < 0)
            return error == AVERROR(EINVAL) ? kAudioFormatUnsupportedDataFormatError
                                            : statusForAvError(error);
        stream_ = avformat_new_stream(format_, nullptr);
        if (!stream_) return kAudio_MemFullError;
        stream_->time_base = encoder_->time_base;
        if ((error = avcodec_parameters_from_context(stream_->codecpar, encoder_)) < 0)
            return statusForAvError(error);
        if ((error = avio_open(&format_->pb, path.c_str(), AVIO_FLAG_WRITE)) < 0)
            return statusForAvError(error);
        if ((error = avformat_write_header(format_, nullptr)) < 0) return statusForAvError(error);
        headerWritten_ = true;

        frame_ = av_frame_alloc();
        packet_ = av_packet_alloc();
        if (!frame_ || !packet_) return kAudio_MemFullError;
        frameSize_ = encoder_->frame_size > 0 ? encoder_->frame_size : 1024;
        frame_->format = AV_SAMPLE_FMT_FLTP;
        frame_->sample_rate = rate;
        frame_->nb_samples = frameSize_;
        if ((error = av_channel_layout_copy(&frame_->ch_layout, &encoder_->ch_layout)) < 0)
            return statusForAvError(error);
        if ((error = av_frame_get_buffer(frame_, 0)) < 0) return statusForAvError(error);
        return 0;
    }

    OSStatus write(const float* interleaved, std::uint32_t frames) override {
        while (frames > 0) {
            if (pending_ == 0) {
                // The encoder may still hold the previous frame's buffers.
                int error = av_frame_make_writable(frame_);
                if (error < 0) return statusForAvError(error);
            }
            std::uint32_t take =
                std::min<std::uint32_t>(frames, std::uint32_t(frameSize_ - pending_));
            for (std::uint32_t c = 0; c < channels_; ++c) {
                float* plane = reinterpret_cast<float*>(frame_->extended_data[c]) + pending_;
                for (std::uint32_t f = 0; f < take; ++f)
                    plane[f] = interleaved[std::size_t(f) * channels_ + c];
            }
            pending_ += int(take);
            interleaved += std::size_t(take) * channels_;
            frames -= take;
            if (pending_ == frameSize_) {
                if (OSStatus status = sendPending(); status != 0) return status;
            }
        }
        return 0;
    }

    OSStatus finish() override {
        OSStatus status = 0;
        if (pending_ > 0) status = sendPending();
        if (status == 0) status = encode(nullptr);
        if (headerWritten_) {
            int error = av_write_trailer(format_);
            headerWritten_ = false;
            if (status == 0 && error < 0) status = statusForAvError(error);
        }
        if (format_ && format_->pb) {
            int error = avio_closep(&format_->pb);
            if (status == 0 && error < 0) status = statusForAvError(error);
        }
        release();
        return status;
    }

private:
    OSStatus sendPending() {
        frame_->nb_samples = pending_;
        frame_->pts = samplesSent_;
        samplesSent_ += pending_;
        pending_ = 0;
        OSStatus status = encode(frame_);
        frame_->nb_samples = frameSize_;
        return status;
    }

    OSStatus encode(AVFrame* frame) {
        int error = avcodec_send_frame(encoder_, frame);
        if (error < 0) return statusForAvError(error);
        while ((error = avcodec_receive_packet(encoder_, packet_)) >= 0) {
            av_packet_rescale_ts(packet_, encoder_->time_base, stream_->time_base);
            packet_->stream_index = stream_->index;
            error = av_interleaved_write_frame(format_, packet_);
            av_packet_unref(packet_);
            if (error < 0) return statusForAvError(error);
        }
        if (error != AVERROR(EAGAIN) && error != AVERROR_EOF) return statusForAvError(error);
        return 0;
    }

    void release() {
        av_packet_free(&packet_);
        av_frame_free(&frame_);
        avcodec_free_context(&encoder_);
        if (format_) {
            if (format_->pb) avio_closep(&format_->pb);
            avformat_free_context(format_);
            format_ = nullptr;
        }
    }

    AVFormatContext* format_ = nullptr;
    AVCodecContext* encoder_ = nullptr;
    AVStream* stream_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    std::uint32_t channels_ = 2;
    int frameSize_ = 1024;
    int pending_ = 0;
    std::int64_t samplesSent_ = 0;
    bool headerWritten_ = false;
};

class LinuxAudioFile final : public AudioFileHandle {
public:
    LinuxAudioFile(AudioFileTypeID kind, const AudioStreamBasicDescription& format,
                   std::uint32_t ringFrames, double interval)
        : type(kind), fileFormat(format), ring(ringFrames, format.mChannelsPerFrame),
          drainInterval(interval) {
        recording.writeAsync = &LinuxAudioFile::writeThroughRecordingFile;
        recording.context = this;
        if (kind == kAudioFileWAVEType) {
            clientFormat = format;
            hasClientFormat = true;
        }
    }

    ~LinuxAudioFile() override { stopWriter(); }

    OSStatus write(UInt32 frames, const AudioBufferList* data) {
        if (OSStatus status = firstError.load(std::memory_order_acquire); status != 0)
            return status;
        if (!hasClientFormat) return kExtAudioFileError_InvalidOperationOrder;
        if (frames == 0) return 0; // priming, or an empty cycle: nothing to queue
        if (!data || data->mNumberBuffers < 1 || !data->mBuffers[0].mData ||
            data->mBuffers[0].mNumberChannels != ring.channels() ||
            data->mBuffers[0].mDataByteSize < std::uint64_t(frames) * 4 * ring.channels())
            return kAudio_ParamError;
        if (frames > ring.capacityFrames()) return kExtAudioFileError_AsyncWriteTooLarge;
        if (!ring.push(static_cast<const float*>(data->mBuffers[0].mData), frames)) {
            noteError(kExtAudioFileError_AsyncWriteBufferOverflow);
            return kExtAudioFileError_AsyncWriteBufferOverflow;
        }
        return 0;
    }

    void noteError(OSStatus status) {
        OSStatus expected = 0;
        firstError.compare_exchange_strong(expected, status, std::memory_order_acq_rel);
    }

    OSStatus startWriter() {
        try {
            writer = std::thread([this] { drainLoop(); });
        } catch (const std::system_error&) {
            return kAudio_MemFullError;
        }
        return 0;
    }

    void stopWriter() {
        {
            std::lock_guard<std::mutex> lock(wakeMutex);
            stopping.store(true, std::memory_order_release);
        }
        wake.notify_one();
        if (writer.joinable()) writer.join();
    }

    // Drains whatever is queued. Frames queued before an overflow are good audio and are
    // written; once the encoder or the disk has failed, frames are dropped so that the queue
    // keeps moving and that failure stays the one reported.
    void drainOnce() {
        std::uint32_t frames = 0;
        while (const float* samples = ring.peek(&frames)) {
            if (frames == 0) break;
            if (!hasSinkFailed) {
                OSStatus status = sink->write(samples, frames);
                if (status != 0) {
                    hasSinkFailed = true;
                    noteError(status);
                }
            }
            ring.consume(frames);
        }
    }

    // The real-time side never wakes this thread (that would be a system call); it looks
    // for frames every interval, and only the control thread's stop cuts a wait short.
    void drainLoop() {
        auto interval = std::chrono::duration<double>(drainInterval);
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(wakeMutex);
                wake.wait_for(lock, interval,
                              [this] { return stopping.load(std::memory_order_acquire); });
            }
            bool isStopping = stopping.load(std::memory_order_acquire);
            drainOnce();
            if (isStopping) return;
        }
    }

    static int32_t writeThroughRecordingFile(const RecordingFile* file, uint32_t frames,
                                             const AudioBufferList* data) {
        return static_cast<LinuxAudioFile*>(file->context)->write(frames, data);
    }

    const AudioFileTypeID type;
    const AudioStreamBasicDescription fileFormat;
    AudioStreamBasicDescription clientFormat{};
    bool hasClientFormat = false;
    FrameRing ring;
    const double drainInterval;
    std::unique_ptr<Sink> sink;
    bool hasSinkFailed = false; // the writer thread's, then the control thread's after join
    RecordingFile recording{};
    std::atomic<OSStatus> firstError{0};
    std::atomic<bool> stopping{false};
    std::mutex wakeMutex; // between the control thread and the writer thread only
    std::condition_variable wake;
    std::thread writer;

    static_assert(std::atomic<OSStatus>::is_always_lock_free);
};

LinuxAudioFile* linuxFile(AudioFileHandle* file) {
    return static_cast<LinuxAudioFile*>(file);
}

void quietenFfmpeg() {
    static std::once_flag once;
    // Errors come back as statuses; the library's own chatter would only clutter stderr.
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

} // namespace

OSStatus audioFileStatusForErrno(int error) {
    switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
        return kAudio_FilePermissionError;
    case ENOENT:
    case ENOTDIR:
        return kAudio_FileNotFoundError;
    case ENOSPC:
    case EDQUOT:
        return kDiskFullError;
    case EEXIST:
        return kAudioFileExistsError;
    case ENOMEM:
        return kAudio_MemFullError;
    default:
        return kAudioFileUnspecifiedError;
    }
}

LinuxAudioFileWriter::LinuxAudioFileWriter() : LinuxAudioFileWriter(Options{}) {}

LinuxAudioFileWriter::LinuxAudioFileWriter(Options options) : options_(options) {
    quietenFfmpeg();
}

OSStatus LinuxAudioFileWriter::completeFormat(AudioStreamBasicDescription* format) {
    if (!format) return kAudio_ParamError;
    if (format->mFormatID == kAudioFormatLinearPCM) return 0;
    if (format->mFormatID != kAudioFormatMPEG4AAC) return kAudioFormatUnsupportedDataFormatError;
    if (format->mChannelsPerFrame < 1 || format->mChannelsPerFrame > 2)
        return kAudioFormatUnsupportedDataFormatError;
    // A rate of 0 means "decide later"; any other rate must be one the encoder takes.
    if (format->mSampleRate != 0.0 && !isAacRate(format->mSampleRate))
        return kAudioFormatUnsupportedDataFormatError;
    format->mFormatFlags = 0;
    format->mBytesPerPacket = 0; // variable bit rate
    format->mFramesPerPacket = 1024;
    format->mBytesPerFrame = 0;
    format->mBitsPerChannel = 0;
    format->mReserved = 0;
    return 0;
}

OSStatus LinuxAudioFileWriter::create(const std::string& path, AudioFileTypeID fileType,
                                      const AudioStreamBasicDescription& fileFormat, UInt32 flags,
                                      AudioFileHandle** file) {
    if (!file) return kAudio_ParamError;
    *file = nullptr;
    if (fileType != kAudioFileWAVEType && fileType != kAudioFileM4AType)
        return kAudioFileUnsupportedFileTypeError;
    if (fileType == kAudioFileWAVEType &&
        (!isFloat32PackedPCM(fileFormat) || !isUsableRate(fileFormat.mSampleRate)))
        return kAudioFileUnsupportedDataFormatError;
    if (fileType == kAudioFileM4AType &&
        (fileFormat.mFormatID != kAudioFormatMPEG4AAC || fileFormat.mChannelsPerFrame < 1 ||
         fileFormat.mChannelsPerFrame > 2 || !isAacRate(fileFormat.mSampleRate)))
        return kAudioFormatUnsupportedDataFormatError;
    if (path.empty()) return kAudio_FileNotFoundError;

    // Claim the name first, so that an existing file is never overwritten by accident and the
    // reason for a refusal (permissions, a missing folder, a full disk) is known exactly.
    int openFlags =
        O_WRONLY | O_CREAT | O_CLOEXEC | ((flags & kAudioFileFlags_EraseFile) ? O_TRUNC : O_EXCL);
    int descriptor = ::open(path.c_str(), openFlags, 0644);
    if (descriptor < 0) return audioFileStatusForErrno(errno);

    auto created = std::make_unique<LinuxAudioFile>(fileType, fileFormat, options_.ringFrames,
                                                    options_.drainIntervalSeconds);
    auto removeAndFail = [&](OSStatus status) {
        created.reset();
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        return status;
    };

    if (fileType == kAudioFileWAVEType) {
        SF_INFO info{};
        info.samplerate = int(std::lround(fileFormat.mSampleRate));
        info.channels = int(fileFormat.mChannelsPerFrame);
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        SNDFILE* sound = sf_open_fd(descriptor, SFM_WRITE, &info, SF_FALSE);
        if (!sound) {
            ::close(descriptor);
            return removeAndFail(kAudioFileUnspecifiedError);
        }
        created->sink = std::make_unique<WavSink>(sound, descriptor);
    } else {
        ::close(descriptor);
        auto sink = std::make_unique<AacSink>();
        if (OSStatus status = sink->open(path, fileFormat.mSampleRate, fileFormat.mChannelsPerFrame,
                                         options_.aacBitRatePerChannel);
            status != 0)
            return removeAndFail(status);
        created->sink = std::move(sink);
    }
    if (OSStatus status = created->startWriter(); status != 0) return removeAndFail(status);
    *file = created.release();
    return 0;
}

OSStatus LinuxAudioFileWriter::setClientFormat(AudioFileHandle* file,
                                               const AudioStreamBasicDescription& clientFormat) {
    if (!file) return kAudio_ParamError;
    LinuxAudioFile* target = linuxFile(file);
    if (clientFormat.mFormatID != kAudioFormatLinearPCM)
        return kExtAudioFileError_NonPCMClientFormat;
    // No conversion is done: the client hands over exactly the file's rate and channels.
    if (!isFloat32PackedPCM(clientFormat) ||
        clientFormat.mChannelsPerFrame != target->fileFormat.mChannelsPerFrame ||
        clientFormat.mSampleRate != target->fileFormat.mSampleRate)
        return kAudioFormatUnsupportedDataFormatError;
    target->clientFormat = clientFormat;
    target->hasClientFormat = true;
    return 0;
}

OSStatus LinuxAudioFileWriter::writeAsync(AudioFileHandle* file, UInt32 frames,
                                          const AudioBufferList* data) {
    if (!file) return kAudio_ParamError;
    return linuxFile(file)->write(frames, data);
}

RecordingFile* LinuxAudioFileWriter::recordingFile(AudioFileHandle* file) {
    return file ? &linuxFile(file)->recording : nullptr;
}

OSStatus LinuxAudioFileWriter::dispose(AudioFileHandle* file) {
    if (!file) return kAudio_ParamError;
    std::unique_ptr<LinuxAudioFile> owned(linuxFile(file));
    owned->stopWriter();
    owned->drainOnce();
    OSStatus status = owned->firstError.load(std::memory_order_acquire);
    OSStatus closed = owned->sink->finish();
    return status != 0 ? status : closed;
}

std::uint64_t LinuxAudioFileWriter::queueHighWaterFrames(const AudioFileHandle* file) {
    return file ? static_cast<const LinuxAudioFile*>(file)->ring.highWaterFrames() : 0;
}

std::uint32_t LinuxAudioFileWriter::queueCapacityFrames(const AudioFileHandle* file) {
    return file ? static_cast<const LinuxAudioFile*>(file)->ring.capacityFrames() : 0;
}

} // namespace brightmix
