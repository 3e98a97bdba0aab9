// The recording writer against the clock: how full its queue gets when a real-time thread
// feeds 48 kHz stereo in 10-ms cycles, and how much faster than real time its writer thread
// encodes and writes, for WAV and for M4A.
#include <benchmark/benchmark.h>

#if defined(BRIGHTMIX_HAS_AUDIOFILE)

#include <chrono>
#include <cmath>
#include <filesystem>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/audiofile/LinuxAudioFileWriter.h"

namespace brightmix {
namespace {

constexpr double kRate = 48000;

AudioStreamBasicDescription clientFormat() {
    AudioStreamBasicDescription format{};
    format.mSampleRate = kRate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagsNativeFloatPacked;
    format.mBytesPerPacket = format.mBytesPerFrame = 8;
    format.mFramesPerPacket = 1;
    format.mChannelsPerFrame = 2;
    format.mBitsPerChannel = 32;
    return format;
}

AudioFileHandle* open(LinuxAudioFileWriter& writer, AudioFileTypeID type,
                      const std::filesystem::path& path) {
    AudioStreamBasicDescription format = clientFormat();
    if (type == kAudioFileM4AType) {
        format = AudioStreamBasicDescription{};
        format.mSampleRate = kRate;
        format.mFormatID = kAudioFormatMPEG4AAC;
        format.mChannelsPerFrame = 2;
        writer.completeFormat(&format);
    }
    AudioFileHandle* file = nullptr;
    if (writer.create(path.string(), type, format, kAudioFileFlags_EraseFile, &file) != 0)
        return nullptr;
    writer.setClientFormat(file, clientFormat());
    writer.writeAsync(file, 0, nullptr);
    return file;
}

std::vector<float> music(std::size_t frames) {
    std::vector<float> samples(2 * frames);
    for (std::size_t f = 0; f < frames; ++f) {
        samples[2 * f] = float(0.4 * std::sin(2 * std::numbers::pi * 440 * double(f) / kRate) +
                               0.1 * std::sin(2 * std::numbers::pi * 3100 * double(f) / kRate));
        samples[2 * f + 1] = float(0.4 * std::sin(2 * std::numbers::pi * 660 * double(f) / kRate));
    }
    return samples;
}

std::filesystem::path benchFile(const char* name) {
    return std::filesystem::temp_directory_path() / name;
}

// Two seconds of 10-ms cycles fed at the real pace; the figure is the queue's worst fill.
void BM_WriterQueueAtRealTimePace(benchmark::State& state, AudioFileTypeID type, const char* name) {
    constexpr UInt32 kCycle = 480;
    constexpr int kCycles = 200;
    std::vector<float> samples = music(kCycle);
    AudioBufferList list{1, {{2, UInt32(samples.size() * 4), samples.data()}}};
    std::uint64_t worst = 0;
    std::uint32_t capacity = 0;
    for (auto _ : state) {
        LinuxAudioFileWriter writer;
        AudioFileHandle* file = open(writer, type, benchFile(name));
        if (!file) {
            state.SkipWithError("the file could not be created");
            return;
        }
        RecordingFile* recording = writer.recordingFile(file);
        auto next = std::chrono::steady_clock::now();
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            if (recording->writeAsync(recording, kCycle, &list) != 0) {
                state.SkipWithError("the queue overflowed");
                break;
            }
            next += std::chrono::milliseconds(10);
            std::this_thread::sleep_until(next);
        }
        worst = std::max(worst, LinuxAudioFileWriter::queueHighWaterFrames(file));
        capacity = LinuxAudioFileWriter::queueCapacityFrames(file);
        if (writer.dispose(file) != 0) state.SkipWithError("the file reported an error");
    }
    state.counters["worstFillFrames"] = double(worst);
    state.counters["worstFillMs"] = double(worst) * 1000.0 / kRate;
    state.counters["capacityMs"] = double(capacity) * 1000.0 / kRate;
    std::filesystem::remove(benchFile(name));
}
BENCHMARK_CAPTURE(BM_WriterQueueAtRealTimePace, wav, kAudioFileWAVEType, "brightmix-bench.wav")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_WriterQueueAtRealTimePace, m4a, kAudioFileM4AType, "brightmix-bench.m4a")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Ten seconds queued at once, then the time until the file is complete: how much faster
// than real time the writer thread gets through it.
void BM_WriterThroughput(benchmark::State& state, AudioFileTypeID type, const char* name) {
    constexpr std::size_t kFrames = 480000;
    std::vector<float> samples = music(kFrames);
    AudioBufferList list{1, {{2, UInt32(samples.size() * 4), samples.data()}}};
    for (auto _ : state) {
        state.PauseTiming();
        LinuxAudioFileWriter writer({.ringFrames = 1u << 20});
        AudioFileHandle* file = open(writer, type, benchFile(name));
        if (!file) {
            state.SkipWithError("the file could not be created");
            return;
        }
        state.ResumeTiming();
        writer.writeAsync(file, UInt32(kFrames), &list);
        if (writer.dispose(file) != 0) state.SkipWithError("the file reported an error");
    }
    state.counters["xRealTime"] = benchmark::Counter(
        double(state.iterations()) * double(kFrames) / kRate, benchmark::Counter::kIsRate);
    std::filesystem::remove(benchFile(name));
}
BENCHMARK_CAPTURE(BM_WriterThroughput, wav, kAudioFileWAVEType, "brightmix-throughput.wav")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_WriterThroughput, m4a, kAudioFileM4AType, "brightmix-throughput.m4a")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace
} // namespace brightmix

#endif
