// The Linux file writer on its own: the formats it accepts, the order of calls it insists
// on, a queue that overflows, and a real-time write that never allocates.
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <vector>

#include "Brightmix/AudioRecording.h"
#include "platform/linux/audiofile/AudioFileReader.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "tests/support/AllocationGuard.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

using testing::TemporaryFolder;

AudioStreamBasicDescription floatStereo(double rate) {
    return AudioRecording::clientFormat(rate);
}

AudioStreamBasicDescription aacStereo(double rate) {
    AudioStreamBasicDescription format{};
    format.mSampleRate = rate;
    format.mFormatID = kAudioFormatMPEG4AAC;
    format.mChannelsPerFrame = 2;
    return format;
}

struct StereoBuffer {
    explicit StereoBuffer(UInt32 frames, float value = 0.25f) : samples(2 * frames, value) {
        list.mNumberBuffers = 1;
        list.mBuffers[0] = {2, UInt32(samples.size() * sizeof(float)), samples.data()};
    }
    std::vector<float> samples;
    AudioBufferList list{};
};

TEST(LinuxAudioFileWriterTest, CompletesAacAndRefusesRatesTheEncoderCannotTake) {
    LinuxAudioFileWriter writer;
    AudioStreamBasicDescription aac = aacStereo(48000);
    ASSERT_EQ(writer.completeFormat(&aac), 0);
    EXPECT_EQ(aac.mFramesPerPacket, 1024u);
    EXPECT_EQ(aac.mBytesPerPacket, 0u);
    EXPECT_EQ(aac.mChannelsPerFrame, 2u);
    EXPECT_EQ(aac.mSampleRate, 48000);

    for (double rate : {7999.0, 88200.0, 96000.0, 40000.0}) {
        AudioStreamBasicDescription refused = aacStereo(rate);
        EXPECT_EQ(writer.completeFormat(&refused), kAudioFormatUnsupportedDataFormatError) << rate;
    }
    for (double rate : {8000.0, 22050.0, 44100.0, 0.0}) {
        AudioStreamBasicDescription taken = aacStereo(rate);
        EXPECT_EQ(writer.completeFormat(&taken), 0) << rate;
    }
    AudioStreamBasicDescription pcm = floatStereo(96000);
    AudioStreamBasicDescription before = pcm;
    EXPECT_EQ(writer.completeFormat(&pcm), 0);
    EXPECT_EQ(std::memcmp(&pcm, &before, sizeof pcm), 0) << "linear PCM is returned as given";
}

TEST(LinuxAudioFileWriterTest, RefusesUnknownTypesAndFormatsWithoutLeavingAFile) {
    TemporaryFolder folder;
    LinuxAudioFileWriter writer;
    AudioFileHandle* file = reinterpret_cast<AudioFileHandle*>(1);
    std::string path = (folder / "x").string();

    EXPECT_EQ(writer.create(path, fourCharCode("caff"), floatStereo(48000), 0, &file),
              kAudioFileUnsupportedFileTypeError);
    EXPECT_EQ(file, nullptr);
    AudioStreamBasicDescription integer = floatStereo(48000);
    integer.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    EXPECT_EQ(writer.create(path, kAudioFileWAVEType, integer, 0, &file),
              kAudioFileUnsupportedDataFormatError);
    EXPECT_EQ(writer.create(path, kAudioFileWAVEType, floatStereo(0), 0, &file),
              kAudioFileUnsupportedDataFormatError);
    EXPECT_EQ(writer.create(path, kAudioFileM4AType, aacStereo(96000), 0, &file),
              kAudioFormatUnsupportedDataFormatError);
    EXPECT_EQ(writer.create(path, kAudioFileM4AType, floatStereo(48000), 0, &file),
              kAudioFormatUnsupportedDataFormatError);
    EXPECT_TRUE(folder.entries().empty());
}

TEST(LinuxAudioFileWriterTest, EnforcesTheClientFormatAndTheCallOrder) {
    TemporaryFolder folder;
    LinuxAudioFileWriter writer;
    AudioFileHandle* file = nullptr;
    ASSERT_EQ(
        writer.create((folder / "a.m4a").string(), kAudioFileM4AType, aacStereo(48000), 0, &file),
        0);
    StereoBuffer buffer(256);
    // A compressed file needs to know what it is given first.
    EXPECT_EQ(writer.writeAsync(file, 0, nullptr), kExtAudioFileError_InvalidOperationOrder);
    EXPECT_EQ(writer.writeAsync(file, 256, &buffer.list), kExtAudioFileError_InvalidOperationOrder);

    AudioStreamBasicDescription aac = aacStereo(48000);
    EXPECT_EQ(writer.setClientFormat(file, aac), kExtAudioFileError_NonPCMClientFormat);
    EXPECT_EQ(writer.setClientFormat(file, floatStereo(44100)),
              kAudioFormatUnsupportedDataFormatError)
        << "no rate conversion";
    ASSERT_EQ(writer.setClientFormat(file, floatStereo(48000)), 0);
    EXPECT_EQ(writer.writeAsync(file, 0, nullptr), 0);

    // Bad write requests are refused without poisoning the file.
    StereoBuffer shortBuffer(100);
    EXPECT_EQ(writer.writeAsync(file, 256, &shortBuffer.list), kAudio_ParamError);
    AudioBufferList mono = buffer.list;
    mono.mBuffers[0].mNumberChannels = 1;
    EXPECT_EQ(writer.writeAsync(file, 256, &mono), kAudio_ParamError);
    EXPECT_EQ(writer.writeAsync(file, 256, nullptr), kAudio_ParamError);
    EXPECT_EQ(writer.writeAsync(file, 256, &buffer.list), 0);
    EXPECT_EQ(writer.dispose(file), 0);

    auto decoded = readAudioFile((folder / "a.m4a").string());
    ASSERT_TRUE(decoded);
    EXPECT_NEAR(double(decoded->frames()), 256, 1024);
}

TEST(LinuxAudioFileWriterTest, FullQueueIsAnOverflowThatStaysTheFirstError) {
    TemporaryFolder folder;
    // A writer thread that looks only once a minute: the queue cannot drain during the test.
    LinuxAudioFileWriter writer({.ringFrames = 1024, .drainIntervalSeconds = 60});
    AudioFileHandle* file = nullptr;
    std::string path = (folder / "full.wav").string();
    ASSERT_EQ(writer.create(path, kAudioFileWAVEType, floatStereo(48000), 0, &file), 0);
    EXPECT_EQ(LinuxAudioFileWriter::queueCapacityFrames(file), 1024u);

    StereoBuffer buffer(512);
    RecordingFile* recording = writer.recordingFile(file);
    EXPECT_EQ(recording->writeAsync(recording, 512, &buffer.list), 0);
    EXPECT_EQ(recording->writeAsync(recording, 512, &buffer.list), 0);
    EXPECT_EQ(recording->writeAsync(recording, 1, &buffer.list),
              kExtAudioFileError_AsyncWriteBufferOverflow);
    EXPECT_EQ(recording->writeAsync(recording, 1, &buffer.list),
              kExtAudioFileError_AsyncWriteBufferOverflow);
    StereoBuffer huge(2048);
    EXPECT_EQ(LinuxAudioFileWriter::queueHighWaterFrames(file), 1024u);

    // Dispose still writes what was queued before the overflow and reports the overflow.
    EXPECT_EQ(writer.dispose(file), kExtAudioFileError_AsyncWriteBufferOverflow);
    auto decoded = readAudioFile(path);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->frames(), 1024u);

    LinuxAudioFileWriter small({.ringFrames = 1024});
    ASSERT_EQ(small.create((folder / "large.wav").string(), kAudioFileWAVEType, floatStereo(48000),
                           0, &file),
              0);
    EXPECT_EQ(small.writeAsync(file, 2048, &huge.list), kExtAudioFileError_AsyncWriteTooLarge);
    EXPECT_EQ(small.dispose(file), 0) << "a refused request is not a file error";
}

TEST(LinuxAudioFileWriterTest, EraseFlagReplacesAnExistingFile) {
    TemporaryFolder folder;
    LinuxAudioFileWriter writer;
    std::string path = (folder / "again.wav").string();
    for (int round = 0; round < 2; ++round) {
        AudioFileHandle* file = nullptr;
        ASSERT_EQ(writer.create(path, kAudioFileWAVEType, floatStereo(48000),
                                kAudioFileFlags_EraseFile, &file),
                  0);
        StereoBuffer buffer(100 * (round + 1));
        ASSERT_EQ(writer.writeAsync(file, 100 * UInt32(round + 1), &buffer.list), 0);
        ASSERT_EQ(writer.dispose(file), 0);
    }
    EXPECT_EQ(readAudioFile(path)->frames(), 200u);
}

TEST(LinuxAudioFileWriterTest, RealTimeWritesAllocateNothing) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    TemporaryFolder folder;
    // The guard counts every thread; a writer thread that sleeps through the burst keeps the
    // encoder's own allocations out of the count.
    LinuxAudioFileWriter writer({.drainIntervalSeconds = 60});
    for (AudioFileTypeID type : {kAudioFileWAVEType, kAudioFileM4AType}) {
        AudioFileHandle* file = nullptr;
        AudioStreamBasicDescription format =
            type == kAudioFileWAVEType ? floatStereo(48000) : aacStereo(48000);
        ASSERT_EQ(writer.completeFormat(&format), 0);
        ASSERT_EQ(writer.create((folder / std::to_string(type)).string(), type, format, 0, &file),
                  0);
        ASSERT_EQ(writer.setClientFormat(file, floatStereo(48000)), 0);
        ASSERT_EQ(writer.writeAsync(file, 0, nullptr), 0);
        StereoBuffer buffer(512);
        RecordingFile* recording = writer.recordingFile(file);
        std::size_t allocations = 0;
        {
            testing::AllocationGuard guard;
            for (int cycle = 0; cycle < 8; ++cycle)
                ASSERT_EQ(recording->writeAsync(recording, 512, &buffer.list), 0);
            allocations = guard.allocations();
        }
        EXPECT_EQ(allocations, 0u) << type;
        EXPECT_EQ(writer.dispose(file), 0);
    }
}

} // namespace
} // namespace brightmix
