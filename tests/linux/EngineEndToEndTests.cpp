// The unchanged device service and software volume engine against the private PipeWire
// session: a known tone plays to the multi-output device and each speaker's monitor tells
// what that speaker received.
#include <chrono>
#include <cmath>
#include <complex>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/AudioHealthMonitor.h"
#include "Brightmix/EqualizerPreset.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "platform/linux/audiofile/AudioFileReader.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/sim/InMemoryDefaults.h"
#include "realtime/FilterDesign.h"
#include "tests/linux/PipeWireTestSupport.h"

namespace brightmix {
namespace {

using namespace std::chrono_literals;
using pipewire::PipeWireAudioHardware;

constexpr double kToneDb = -6.0206; // the tone's peak: 0.5

class EngineEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        PipeWireAudioHardware::Options options;
        options.watchdogExecutable = testing::watchdogExecutable();
        hardware = testing::connectToSession(options);
        if (!hardware) {
            GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
        }
        service = std::make_unique<AudioDeviceService>(*hardware);
        engine = std::make_unique<SoftwareVolumeEngine>(*service, 1.0f, writer);
        desk = std::make_unique<testing::MonitorCapture>("desk_speakers", 2);
        sub = std::make_unique<testing::MonitorCapture>("subwoofer", 1);
    }

    void TearDown() override {
        if (engine) {
            engine->stop();
            EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
        }
    }

    AudioDevice multiOutput() {
        auto device = service->device("multi_output");
        EXPECT_TRUE(device.has_value());
        return device.value_or(AudioDevice{});
    }

    void play(const std::vector<testing::Tone>& tones) {
        player.reset();
        std::string file = testing::scratchDirectory() + "/engine-tone.wav";
        testing::writeToneFile(file, tones, 20);
        player = std::make_unique<testing::TonePlayer>(file, "multi_output");
        // Wait until the tone has reached the speakers on its direct path.
        for (int i = 0; i < 40; ++i) {
            if (testing::peakDb(desk->listen(0, 0.05)) > -40) {
                return;
            }
        }
        FAIL() << "the tone never reached the speakers";
    }

    void start() {
        engine->start(multiOutput(), AudioCaptureMode::selectedDevice);
        ASSERT_TRUE(engine->isRunning());
    }

    std::unique_ptr<PipeWireAudioHardware> hardware;
    std::unique_ptr<AudioDeviceService> service;
    LinuxAudioFileWriter writer;
    std::unique_ptr<SoftwareVolumeEngine> engine;
    std::unique_ptr<testing::MonitorCapture> desk;
    std::unique_ptr<testing::MonitorCapture> sub;
    std::unique_ptr<testing::TonePlayer> player;
};

TEST_F(EngineEndToEnd, TheServiceListsTheSpeakersAndTheMultiOutputDevice) {
    auto devices = service->devices();
    auto multi = service->device("multi_output");
    ASSERT_TRUE(multi.has_value());
    EXPECT_TRUE(multi->isMultiOutput());
    EXPECT_EQ(multi->name, "Multi-Output Device");
    EXPECT_EQ(multi->subdeviceUIDs, (std::vector<std::string>{"subwoofer", "desk_speakers"}));
    EXPECT_EQ(multi->outputChannels, 2);
    EXPECT_TRUE(multi->supportsNativeVolume);
    auto members = service->devices(multi->subdeviceUIDs);
    ASSERT_EQ(members.size(), 2u);
    EXPECT_EQ(members[0].outputChannels, 1);
    EXPECT_EQ(members[1].outputChannels, 2);
    EXPECT_EQ(members[1].name, "Desk Speakers");
    // Multi-output devices come first for display.
    auto sorted = AudioDeviceService::sortedForDisplay(AudioDeviceService::outputDevices(devices));
    ASSERT_FALSE(sorted.empty());
    EXPECT_EQ(sorted.front().uid, "multi_output");

    auto defaultOutput = service->defaultOutputDevice();
    ASSERT_TRUE(defaultOutput.has_value());
    EXPECT_EQ(defaultOutput->uid, "multi_output");
    service->setDefaultDevice(members[1], kAudioHardwarePropertyDefaultOutputDevice);
    EXPECT_EQ(service->defaultOutputDevice()->uid, "desk_speakers");
    service->setDefaultDevice(*multi, kAudioHardwarePropertyDefaultOutputDevice);
    EXPECT_EQ(service->defaultOutputDevice()->uid, "multi_output");
}

TEST_F(EngineEndToEnd, VolumeAndMuteReachEveryMemberAndStopRestoresTheDirectPath) {
    play({{1000, 0.5}});
    EXPECT_NEAR(testing::peakDb(desk->listen(0)), kToneDb, 0.1);

    start();
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(true));
    ProcessingSetMasterGain(engine->gainState(), 0.5f);
    // 6 dB down on every member, with the direct path silent: any leak would add to it.
    auto left = desk->listen(0);
    auto right = desk->channel(1, 24000);
    EXPECT_NEAR(testing::peakDb(left), kToneDb - 6.02, 0.1);
    EXPECT_NEAR(testing::peakDb(right), kToneDb - 6.02, 0.1);
    EXPECT_NEAR(testing::peakDb(sub->listen(0)), kToneDb - 6.02, 0.1);

    ProcessingSetMasterGain(engine->gainState(), 0.0f);
    EXPECT_LT(testing::peakDb(desk->listen(0)), -100);
    EXPECT_LT(testing::peakDb(sub->listen(0)), -100);

    engine->stop();
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    EXPECT_NEAR(testing::peakDb(desk->listen(0)), kToneDb, 0.1);
    EXPECT_NEAR(testing::peakDb(sub->listen(0)), kToneDb, 0.1);
}

TEST_F(EngineEndToEnd, CompatibilityCaptureTakesStreamsThatStartAfterIt) {
    engine->start(multiOutput(), AudioCaptureMode::compatibilityGlobal);
    ASSERT_TRUE(engine->isUsingCompatibilityCapture());
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(true));
    ProcessingSetMasterGain(engine->gainState(), 0.5f);
    EXPECT_LT(testing::peakDb(desk->listen(0)), -100);

    // The player starts after the router: its stream joins the tap as it appears.
    std::string file = testing::scratchDirectory() + "/late-tone.wav";
    testing::writeToneFile(file, 1000, 0.5, 20);
    testing::TonePlayer late(file, "multi_output");
    double level = -200;
    for (int i = 0; i < 20 && level < -40; ++i) {
        level = testing::peakDb(desk->listen(0, 0.05));
    }
    EXPECT_NEAR(testing::peakDb(desk->listen(0)), kToneDb - 6.02, 0.1);
    EXPECT_NEAR(testing::peakDb(sub->listen(0)), kToneDb - 6.02, 0.1);
}

TEST_F(EngineEndToEnd, TheSubwooferGetsOnlyTheBassAndTheSatelliteLosesIt) {
    engine->setChildPreset(OutputPreset::subwoofer, "subwoofer");
    engine->setChildPreset(OutputPreset::satellite, "desk_speakers");
    start();

    play({{1000, 0.5}});
    EXPECT_LT(testing::toneDb(sub->listen(0), 1000), kToneDb - 60) << "1 kHz reached the sub";
    EXPECT_NEAR(testing::toneDb(desk->listen(0), 1000), kToneDb, 0.2);

    play({{40, 0.5}});
    // A fourth-order crossover at 80 Hz takes about half a decibel off 40 Hz on the sub
    // and more than 20 dB on the satellite.
    EXPECT_NEAR(testing::toneDb(sub->listen(0), 40), kToneDb, 1.0);
    EXPECT_LT(testing::toneDb(desk->listen(0), 40), kToneDb - 20);
}

// The designed response of an equaliser preset at one frequency: the pre-gain plus every
// band's peaking filter, evaluated on the unit circle.
double designedResponseDb(EqualizerPreset preset, double hz, double rate) {
    std::complex<double> z = std::polar(1.0, -2.0 * M_PI * hz / rate);
    double db = equalizerPreGainDb(preset);
    const EqualizerGains& gains = equalizerGains(preset);
    for (std::uint32_t band = 0; band < 10; ++band) {
        BiquadCoefficients c = FilterDesignPeakingBand(band, gains[band], rate);
        std::complex<double> response =
            (c.b0 + c.b1 * z + c.b2 * z * z) / (1.0 + c.a1 * z + c.a2 * z * z);
        db += 20.0 * std::log10(std::abs(response));
    }
    return db;
}

TEST_F(EngineEndToEnd, AnEqualiserPresetShapesTheSpectrumAsDesigned) {
    engine->setChildEqualizer(EqualizerPreset::bassBooster, "desk_speakers");
    start();
    play({{64, 0.25}, {2000, 0.25}});
    auto left = desk->listen(0);
    double low = testing::toneDb(left, 64) - 20.0 * std::log10(0.25);
    double high = testing::toneDb(left, 2000) - 20.0 * std::log10(0.25);
    EXPECT_NEAR(low, designedResponseDb(EqualizerPreset::bassBooster, 64, 48000), 0.3);
    EXPECT_NEAR(high, designedResponseDb(EqualizerPreset::bassBooster, 2000, 48000), 0.3);
    EXPECT_GT(low - high, 3.0) << "the bass was not lifted against the treble";
    // The subwoofer member keeps the flat default.
    EXPECT_NEAR(testing::toneDb(sub->listen(0), 2000) - 20.0 * std::log10(0.25), 0.0, 0.2);
}

TEST_F(EngineEndToEnd, RecordsTheCleanMixToWavAndM4aWhileRouting) {
    play({{1000, 0.5}});
    start();
    // Recording takes the mix before volume: half volume must not halve the file.
    ProcessingSetMasterGain(engine->gainState(), 0.5f);
    std::vector<RecordingResult> results;
    engine->setRecordingFinishedHandler(
        [&](const RecordingResult& result) { results.push_back(result); });
    std::string folder = testing::scratchDirectory();
    for (auto [name, format] :
         {std::pair{"mix.wav", RecordingFormat::wav}, std::pair{"mix.m4a", RecordingFormat::m4a}}) {
        std::filesystem::path path = folder + "/" + name;
        std::filesystem::remove(path);
        engine->startRecording(path, format);
        std::this_thread::sleep_for(1200ms);
        engine->finishRecording();
        ASSERT_FALSE(results.empty());
        EXPECT_FALSE(results.back().error.has_value()) << *results.back().error;
        EXPECT_NEAR(results.back().duration, 1.2, 0.25);

        std::string error;
        auto audio = readAudioFile(path.string(), &error);
        ASSERT_TRUE(audio.has_value()) << error;
        EXPECT_EQ(audio->channels, 2u);
        EXPECT_EQ(audio->sampleRate, 48000.0);
        EXPECT_EQ(audio->codec, format == RecordingFormat::wav ? "pcm_f32le" : "aac");
        std::vector<float> left;
        for (std::size_t i = 0; i < audio->samples.size(); i += 2) {
            left.push_back(audio->samples[i]);
        }
        // Skip the encoder's priming; the rest is the tone at its own level.
        std::vector<float> steady(left.begin() + std::min<std::size_t>(left.size(), 4800),
                                  left.end());
        EXPECT_NEAR(testing::toneDb(steady, 1000), kToneDb, 0.5) << name;
    }
    EXPECT_TRUE(engine->isRunning());
}

TEST_F(EngineEndToEnd, TheHealthMonitorSeesSignalArriveWithoutFallingBack) {
    play({{1000, 0.5}});
    start();
    InMemoryDefaults defaults;
    AudioHealthMonitor health;
    health.reset(*engine);
    std::optional<AudioDevice> selected = multiOutput();
    std::string errorMessage;
    // The tone's player is another process playing to the device, so silence here would
    // count against the tap.
    EXPECT_TRUE(service->isAnotherProcessPlaying(selected->id, ::getpid()));
    for (int tick = 0; tick < 3; ++tick) {
        std::this_thread::sleep_for(1s);
        EXPECT_FALSE(health.poll(
            {*engine, *service, selected, defaults, errorMessage, static_cast<double>(tick)}))
            << "fell back at tick " << tick;
    }
    EXPECT_TRUE(health.hasDeliveredSound);
    EXPECT_FALSE(health.hasRequestedFallback);
    EXPECT_FALSE(engine->isUsingCompatibilityCapture());
    EXPECT_GT(ProcessingSignalCycles(engine->gainState()), 0u);
}

} // namespace
} // namespace brightmix
