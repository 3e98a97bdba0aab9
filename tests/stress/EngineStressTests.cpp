// The engine under a real IO thread: while the simulated router runs cycles on its own
// thread, the main thread changes every parameter, reads peaks and counters, starts and
// finishes recordings and restarts the router. Meant for the ThreadSanitizer build, where
// any unsynchronised access between the two sides fails the run.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <thread>

#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/AudioHealthMonitor.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "platform/linux/audiofile/FrameRing.h"
#include "platform/sim/InMemoryDefaults.h"
#include "platform/sim/SimulatedAudioHardware.h"

namespace brightmix {
namespace {

// A file writer whose files are only the lock-free queue and a thread that drains it,
// counting frames: the same real-time half as the Linux writer, without a disk.
class QueueOnlyWriter final : public AudioFileWriter {
public:
    std::atomic<std::uint64_t> framesDrained{0};

    OSStatus completeFormat(AudioStreamBasicDescription*) override { return 0; }
    OSStatus create(const std::string&, AudioFileTypeID, const AudioStreamBasicDescription&, UInt32,
                    AudioFileHandle** file) override {
        auto created = std::make_unique<File>(this);
        created->drainer = std::thread([raw = created.get()] { raw->drain(); });
        *file = created.release();
        return 0;
    }
    OSStatus setClientFormat(AudioFileHandle*, const AudioStreamBasicDescription&) override {
        return 0;
    }
    OSStatus writeAsync(AudioFileHandle* file, UInt32 frames,
                        const AudioBufferList* data) override {
        return static_cast<File*>(file)->write(frames, data);
    }
    RecordingFile* recordingFile(AudioFileHandle* file) override {
        return &static_cast<File*>(file)->recording;
    }
    OSStatus dispose(AudioFileHandle* file) override {
        std::unique_ptr<File> owned(static_cast<File*>(file));
        owned->isStopping.store(true);
        owned->drainer.join();
        return owned->status.load();
    }

private:
    struct File final : AudioFileHandle {
        explicit File(QueueOnlyWriter* writer) : owner(writer) {
            recording.writeAsync = [](const RecordingFile* file, uint32_t frames,
                                      const AudioBufferList* data) {
                return static_cast<File*>(file->context)->write(frames, data);
            };
            recording.context = this;
        }
        int32_t write(uint32_t frames, const AudioBufferList* data) {
            if (frames == 0) return 0;
            if (!ring.push(static_cast<const float*>(data->mBuffers[0].mData), frames)) {
                status.store(kExtAudioFileError_AsyncWriteBufferOverflow);
                return kExtAudioFileError_AsyncWriteBufferOverflow;
            }
            return 0;
        }
        void drain() {
            for (;;) {
                bool stopping = isStopping.load();
                std::uint32_t frames = 0;
                while (ring.peek(&frames) && frames > 0) {
                    owner->framesDrained.fetch_add(frames);
                    ring.consume(frames);
                }
                if (stopping) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        QueueOnlyWriter* owner;
        FrameRing ring{1u << 16, 2};
        RecordingFile recording{};
        std::atomic<bool> isStopping{false};
        std::atomic<OSStatus> status{0};
        std::thread drainer;
    };
};

TEST(EngineStressTest, ParametersRecordingsAndRestartsAgainstARunningIOThread) {
    SimulatedAudioHardware sim;
    // The speaker's microphone sits ahead of the tap in the router's input list and is loud:
    // a cycle that took it for the mix would show in the input peak.
    sim.setInputAudio(sim.addDevice({"L", "Speaker", {2}, {1}}),
                      [](std::uint64_t, UInt32) { return 0.95f; });
    sim.addDevice({"H", "Amp", {1, 1}});
    AudioObjectID desk = sim.addMultiOutputDevice("D", "Desk", {"L", "H"}, "L");
    sim.setDefaultOutput(desk);
    sim.addProcess({501, "com.example.player", true, {desk}});
    sim.setProcessAudio(501, [](std::uint64_t frame, UInt32 channel) {
        return float(0.3 * std::sin(0.02 * double(frame) + channel));
    });
    sim.setThreadedMode(true, 256, std::chrono::microseconds(300));

    AudioDeviceService devices(sim);
    QueueOnlyWriter writer;
    SoftwareVolumeEngine engine(devices, 0.5f, writer);
    int recordingsFinished = 0;
    int recordingErrors = 0;
    engine.setRecordingFinishedHandler([&](const RecordingResult& result) {
        ++recordingsFinished;
        if (result.error && result.duration > 0) ++recordingErrors;
    });
    AudioDevice device = *devices.device("D");
    engine.start(device, AudioCaptureMode::selectedDevice);
    AudioHealthMonitor monitor;
    monitor.reset(engine);
    InMemoryDefaults defaults({{"diagnostics", PropertyList::boolean(true)}});
    std::optional<AudioDevice> selected = device;
    std::string noError;

    const OutputPreset roles[] = {OutputPreset::fullRange, OutputPreset::subwoofer,
                                  OutputPreset::satellite};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    int round = 0;
    float loudestInput = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        ++round;
        engine.setChildGain("L", float(round % 10) / 10);
        engine.setChildGain("H", round % 3 ? 1.0f : std::nanf(""));
        engine.setChildPreset(roles[round % 3], "H");
        engine.setChildEqualizer(kAllEqualizerPresets[std::size_t(round) % 10], "L");
        engine.setCrossoverHz(float(60 + 20 * (round % 4)));
        ProcessingSetMasterGain(engine.gainState(), round % 7 ? 0.8f : 0.0f);
        loudestInput =
            std::max(loudestInput, float(*engine.diagnosticDetails().at("inputPeak").asNumber()));
        (void)ProcessingTakeOutputPeak(engine.gainState());
        monitor.poll({engine, devices, selected, defaults, noError, 0});

        if (round % 50 == 1) engine.startRecording("stress.wav", RecordingFormat::wav);
        if (round % 50 == 40) engine.finishRecording();
        if (round % 400 == 0) engine.start(device, AudioCaptureMode::compatibilityGlobal);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    engine.stop();

    EXPECT_GT(ProcessingRenderCycles(engine.gainState()), 100u);
    EXPECT_GT(loudestInput, 0.0f);
    EXPECT_LE(loudestInput, 0.3f) << "the router heard the speaker's microphone";
    EXPECT_GT(recordingsFinished, 0);
    EXPECT_EQ(recordingErrors, 0);
    EXPECT_GT(writer.framesDrained.load(), 0u);
    EXPECT_EQ(sim.liveAggregates() + sim.liveTaps() + sim.liveIOProcs(), 0u);
}

} // namespace
} // namespace brightmix
