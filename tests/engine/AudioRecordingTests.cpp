// Recordings end to end: real WAV and M4A files written through the Linux writer from the
// recording tap, read back and compared with what went in, and every way a recording can
// fail.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <memory>
#include <numbers>
#include <vector>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/AudioRecording.h"
#include "platform/linux/audiofile/AudioFileReader.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "realtime/RecordingTap.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

using testing::TemporaryFolder;

// One interleaved input buffer as the router's IOProc receives it from the tap.
class TapInput {
public:
    TapInput(UInt32 channels, UInt32 frames) : samples_(std::size_t(channels) * frames) {
        list_.mNumberBuffers = 1;
        list_.mBuffers[0].mNumberChannels = channels;
        list_.mBuffers[0].mDataByteSize = UInt32(samples_.size() * sizeof(float));
        list_.mBuffers[0].mData = samples_.data();
    }
    float* samples() { return samples_.data(); }
    const AudioBufferList* list() const { return &list_; }

private:
    std::vector<float> samples_;
    AudioBufferList list_{};
};

float sine(double hz, double rate, std::uint64_t frame, double amplitude = 0.5) {
    return float(amplitude * std::sin(2 * std::numbers::pi * hz * double(frame) / rate));
}

// Feeds `cycles` cycles of `frames` stereo frames (440 Hz left, 660 Hz right) into the tap.
std::vector<float> feedStereo(RecordingTap* tap, double rate, UInt32 frames, int cycles) {
    std::vector<float> sent;
    TapInput input(2, frames);
    std::uint64_t frame = 0;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        for (UInt32 f = 0; f < frames; ++f, ++frame) {
            input.samples()[2 * f] = sine(440, rate, frame);
            input.samples()[2 * f + 1] = sine(660, rate, frame, 0.25);
        }
        sent.insert(sent.end(), input.samples(), input.samples() + 2 * frames);
        RecordingTapWrite(tap, input.list());
    }
    return sent;
}

struct TapDeleter {
    void operator()(RecordingTap* tap) const { RecordingTapDestroy(tap); }
};
using TapPointer = std::unique_ptr<RecordingTap, TapDeleter>;

std::string thrownMessage(const std::function<void()>& action) {
    try {
        action();
    } catch (const AudioDeviceError& error) {
        return error.localizedDescription();
    }
    return "(nothing thrown)";
}

// Wraps the real writer and makes the real-time writes fail once a number of frames went
// through, as a full disk or an overflowing queue would.
class FailingWriter final : public AudioFileWriter {
public:
    FailingWriter(AudioFileWriter& inner, std::uint64_t framesBeforeFailure, OSStatus status)
        : inner_(inner), limit_(framesBeforeFailure), status_(status) {}

    OSStatus completeFormat(AudioStreamBasicDescription* format) override {
        return inner_.completeFormat(format);
    }
    OSStatus create(const std::string& path, AudioFileTypeID type,
                    const AudioStreamBasicDescription& format, UInt32 flags,
                    AudioFileHandle** file) override {
        OSStatus status = inner_.create(path, type, format, flags, file);
        if (status == 0) {
            auto wrapper = std::make_unique<Wrapper>();
            wrapper->owner = this;
            wrapper->inner = *file;
            wrapper->file.writeAsync = &FailingWriter::write;
            wrapper->file.context = wrapper.get();
            wrappers_[*file] = std::move(wrapper);
        }
        return status;
    }
    OSStatus setClientFormat(AudioFileHandle* file,
                             const AudioStreamBasicDescription& format) override {
        return inner_.setClientFormat(file, format);
    }
    OSStatus writeAsync(AudioFileHandle* file, UInt32 frames,
                        const AudioBufferList* data) override {
        return inner_.writeAsync(file, frames, data);
    }
    RecordingFile* recordingFile(AudioFileHandle* file) override {
        return &wrappers_.at(file)->file;
    }
    OSStatus dispose(AudioFileHandle* file) override {
        wrappers_.erase(file);
        return inner_.dispose(file);
    }

private:
    struct Wrapper {
        FailingWriter* owner = nullptr;
        AudioFileHandle* inner = nullptr;
        std::uint64_t frames = 0;
        RecordingFile file{};
    };

    static int32_t write(const RecordingFile* file, uint32_t frames, const AudioBufferList* data) {
        auto* wrapper = static_cast<Wrapper*>(file->context);
        if (wrapper->frames + frames > wrapper->owner->limit_) return wrapper->owner->status_;
        wrapper->frames += frames;
        return wrapper->owner->inner_.writeAsync(wrapper->inner, frames, data);
    }

    AudioFileWriter& inner_;
    std::uint64_t limit_;
    OSStatus status_;
    std::map<AudioFileHandle*, std::unique_ptr<Wrapper>> wrappers_;
};

class AudioRecordingTest : public ::testing::Test {
protected:
    TemporaryFolder folder;
    LinuxAudioFileWriter writer;
    TapPointer tap{RecordingTapCreate()};
};

TEST_F(AudioRecordingTest, WavHoldsExactlyTheFramesThatWentIn) {
    auto path = folder / "mix.wav";
    AudioRecording recording(path, RecordingFormat::wav, tap.get(), 48000, writer);
    // 3000-frame cycles exercise the tap's chunking and the ring's wrap-around.
    std::vector<float> sent = feedStereo(tap.get(), 48000, 3000, 40);
    RecordingResult result = recording.stop();

    EXPECT_EQ(result.url, path);
    EXPECT_FALSE(result.error) << *result.error;
    EXPECT_DOUBLE_EQ(result.duration, 120000.0 / 48000.0);

    std::string error;
    auto decoded = readAudioFile(path.string(), &error);
    ASSERT_TRUE(decoded) << error;
    EXPECT_EQ(decoded->codec, "pcm_f32le");
    EXPECT_EQ(decoded->sampleRate, 48000);
    EXPECT_EQ(decoded->channels, 2u);
    EXPECT_EQ(decoded->samples, sent);
}

TEST_F(AudioRecordingTest, MonoInputBecomesTwoIdenticalChannels) {
    auto path = folder / "mono.wav";
    AudioRecording recording(path, RecordingFormat::wav, tap.get(), 44100, writer);
    TapInput input(1, 512);
    for (UInt32 f = 0; f < 512; ++f)
        input.samples()[f] = sine(1000, 44100, f);
    for (int cycle = 0; cycle < 4; ++cycle)
        RecordingTapWrite(tap.get(), input.list());
    ASSERT_FALSE(recording.stop().error);

    auto decoded = readAudioFile(path.string());
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->channels, 2u);
    ASSERT_EQ(decoded->frames(), 2048u);
    for (std::size_t f = 0; f < decoded->frames(); ++f) {
        ASSERT_EQ(decoded->samples[2 * f], input.samples()[f % 512]) << "frame " << f;
        ASSERT_EQ(decoded->samples[2 * f + 1], decoded->samples[2 * f]) << "frame " << f;
    }
}

TEST_F(AudioRecordingTest, M4aDecodesToTheSameSoundAndLength) {
    auto path = folder / "mix.m4a";
    AudioRecording recording(path, RecordingFormat::m4a, tap.get(), 44100, writer);
    std::vector<float> sent = feedStereo(tap.get(), 44100, 441, 200); // 2 s
    RecordingResult result = recording.stop();
    EXPECT_FALSE(result.error);
    EXPECT_DOUBLE_EQ(result.duration, 2.0);

    std::string error;
    auto decoded = readAudioFile(path.string(), &error);
    ASSERT_TRUE(decoded) << error;
    EXPECT_EQ(decoded->codec, "aac");
    EXPECT_EQ(decoded->sampleRate, 44100);
    EXPECT_EQ(decoded->channels, 2u);
    // The container trims the encoder's priming; at most the last packet's padding remains.
    EXPECT_NEAR(decoded->duration(), 2.0, 1024.0 / 44100);
    EXPECT_NEAR(decoded->containerDuration, 2.0, 0.05);

    // Lossy, but the same sound: compare the level of each channel and the residual error
    // away from the edges.
    auto rms = [](const std::vector<float>& samples, std::size_t channel, std::size_t from,
                  std::size_t to) {
        double sum = 0;
        for (std::size_t f = from; f < to; ++f)
            sum += double(samples[2 * f + channel]) * samples[2 * f + channel];
        return std::sqrt(sum / double(to - from));
    };
    std::size_t from = 4096, to = 80000;
    ASSERT_GT(decoded->frames(), to);
    EXPECT_NEAR(rms(decoded->samples, 0, from, to), 0.5 / std::sqrt(2.0), 0.02);
    EXPECT_NEAR(rms(decoded->samples, 1, from, to), 0.25 / std::sqrt(2.0), 0.02);
    double residual = 0;
    for (std::size_t i = 2 * from; i < 2 * to; ++i)
        residual += std::pow(double(decoded->samples[i]) - sent[i], 2);
    EXPECT_LT(std::sqrt(residual / double(2 * (to - from))), 0.02);
}

TEST_F(AudioRecordingTest, WriteErrorKeepsThePartialFileAndSaysSo) {
    FailingWriter failing(writer, 4096, kExtAudioFileError_AsyncWriteBufferOverflow);
    auto path = folder / "partial.wav";
    AudioRecording recording(path, RecordingFormat::wav, tap.get(), 48000, failing);
    feedStereo(tap.get(), 48000, 1024, 10);
    EXPECT_EQ(RecordingTapStatus(tap.get()), kExtAudioFileError_AsyncWriteBufferOverflow);
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 4096u);

    RecordingResult result = recording.stop();
    EXPECT_EQ(result.error, "Recording stopped because the audio file could not be written "
                            "(error -66570). The file may be incomplete.");
    EXPECT_DOUBLE_EQ(result.duration, 4096.0 / 48000);
    auto decoded = readAudioFile(path.string());
    ASSERT_TRUE(decoded) << "the partial file must stay readable";
    EXPECT_EQ(decoded->frames(), 4096u);
}

TEST_F(AudioRecordingTest, NoFramesPointsAtThePermission) {
    for (RecordingFormat format : kRecordingFormats) {
        auto path = folder / ("empty." + std::string(fileExtension(format)));
        AudioRecording recording(path, format, tap.get(), 48000, writer);
        RecordingResult result = recording.stop();
        EXPECT_EQ(result.error, "No audio frames were received. Check System Audio Recording "
                                "permission and try again.");
        EXPECT_EQ(result.duration, 0);
        EXPECT_TRUE(std::filesystem::exists(path)) << "the file is kept";
    }
}

TEST_F(AudioRecordingTest, StopTwiceReturnsTheSameResultAndTouchesNothing) {
    auto path = folder / "twice.wav";
    AudioRecording recording(path, RecordingFormat::wav, tap.get(), 48000, writer);
    feedStereo(tap.get(), 48000, 480, 3);
    RecordingResult first = recording.stop();
    EXPECT_FALSE(recording.isRecording());

    // A second recording on the same tap must not be disturbed by the old object.
    AudioRecording next(folder / "next.wav", RecordingFormat::wav, tap.get(), 48000, writer);
    feedStereo(tap.get(), 48000, 480, 1);
    EXPECT_EQ(recording.stop(), first);
    EXPECT_TRUE(next.isRecording());
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 480u);
    EXPECT_DOUBLE_EQ(next.stop().duration, 0.01);
}

TEST_F(AudioRecordingTest, UnusableRateFailsBeforeAnyFileExists) {
    for (double rate : {0.0, -48000.0, std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::infinity()}) {
        for (RecordingFormat format : kRecordingFormats) {
            EXPECT_EQ(thrownMessage([&] {
                          AudioRecording(folder / "never", format, tap.get(), rate, writer);
                      }),
                      "The output has no usable sample rate for recording.")
                << rate;
        }
    }
    EXPECT_TRUE(folder.entries().empty());
}

TEST_F(AudioRecordingTest, SecondRecordingOnABusyTapRemovesOnlyItsOwnFile) {
    auto firstPath = folder / "first.wav";
    AudioRecording first(firstPath, RecordingFormat::wav, tap.get(), 48000, writer);
    feedStereo(tap.get(), 48000, 480, 2);

    EXPECT_EQ(thrownMessage([&] {
                  AudioRecording(folder / "second.m4a", RecordingFormat::m4a, tap.get(), 48000,
                                 writer);
              }),
              "A recording is already in progress.");
    EXPECT_FALSE(std::filesystem::exists(folder / "second.m4a"));

    feedStereo(tap.get(), 48000, 480, 2);
    RecordingResult result = first.stop();
    EXPECT_FALSE(result.error);
    EXPECT_DOUBLE_EQ(result.duration, 0.04);
    EXPECT_EQ(readAudioFile(firstPath.string())->frames(), 1920u);
}

TEST_F(AudioRecordingTest, PreparationFailuresNameTheStatusAndLeaveNothingBehind) {
    std::filesystem::path existing = folder / "existing.wav";
    std::ofstream(existing) << "keep me";

    struct Case {
        const char* name;
        std::filesystem::path path;
        RecordingFormat format;
        double rate;
        OSStatus status;
    };
    const Case cases[] = {
        {"AAC cannot encode 96 kHz", folder / "hi.m4a", RecordingFormat::m4a, 96000,
         kAudioFormatUnsupportedDataFormatError},
        {"AAC cannot encode 44.1 kHz and a bit", folder / "odd.m4a", RecordingFormat::m4a, 44100.5,
         kAudioFormatUnsupportedDataFormatError},
        {"a missing folder", folder / "missing" / "x.wav", RecordingFormat::wav, 48000,
         kAudio_FileNotFoundError},
        {"an existing file is never overwritten", existing, RecordingFormat::wav, 48000,
         kAudioFileExistsError},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(
            thrownMessage([&] { AudioRecording(c.path, c.format, tap.get(), c.rate, writer); }),
            "The recording file could not be prepared (error " + std::to_string(c.status) +
                "). Check the folder’s access and available disk space.")
            << c.name;
    }
    EXPECT_EQ(folder.entries(), std::vector<std::string>{"existing.wav"});
    std::ifstream kept(existing);
    std::string text;
    std::getline(kept, text);
    EXPECT_EQ(text, "keep me");
    // The tap is still free for a recording that can work.
    AudioRecording works(folder / "works.wav", RecordingFormat::wav, tap.get(), 96000, writer);
    EXPECT_TRUE(works.isRecording());
}

TEST_F(AudioRecordingTest, TeardownFinishesAnOpenFile) {
    auto path = folder / "teardown.wav";
    {
        AudioRecording recording(path, RecordingFormat::wav, tap.get(), 48000, writer);
        feedStereo(tap.get(), 48000, 480, 5);
    }
    auto decoded = readAudioFile(path.string());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->frames(), 2400u);
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 2400u);
    // Detached: further cycles go nowhere.
    feedStereo(tap.get(), 48000, 480, 1);
    EXPECT_EQ(RecordingTapFramesWritten(tap.get()), 2400u);
}

} // namespace
} // namespace brightmix
