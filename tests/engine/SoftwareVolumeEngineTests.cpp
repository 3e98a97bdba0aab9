// The engine over the simulated hardware: what it builds, how it lays out and feeds the
// output slots, what one IO cycle does to the sound, how every failing step cleans up, and
// recording from the router.
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

#include "Brightmix/Uuid.h"
#include "platform/linux/audiofile/AudioFileReader.h"
#include "realtime/ProcessingState.h"
#include "tests/engine/EngineFixture.h"
#include "tests/support/AllocationGuard.h"

namespace brightmix {
namespace {

using testing::EngineFixture;
using testing::thrownDescription;

class SoftwareVolumeEngineTest : public EngineFixture {};

TEST_F(SoftwareVolumeEngineTest, AggregateDescriptionHasExactlyTheSevenKeys) {
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    ASSERT_TRUE(engine.isRunning());
    PropertyList description = sim.composition(engine.aggregateID());
    const PropertyList::Dictionary& keys = *description.asDictionary();
    EXPECT_EQ(keys.size(), 7u) << description.description();

    EXPECT_EQ(*description.find("name")->asString(), "Brightmix Private Router");
    const std::string& uid = *description.find("uid")->asString();
    ASSERT_TRUE(uid.starts_with("com.corvale.brightmix.private."));
    EXPECT_TRUE(parseUuid(uid.substr(std::string("com.corvale.brightmix.private.").size()))) << uid;
    EXPECT_EQ(*description.find("master")->asString(), "L");
    EXPECT_EQ(description.find("private")->asInteger(), 1);
    EXPECT_EQ(description.find("stacked")->asInteger(), 0);
    EXPECT_EQ(description.find("clock"), nullptr);
    EXPECT_EQ(description.find("tapautostart"), nullptr);

    // The microphone has no outputs and is not a member.
    PropertyList expectedMembers = PropertyList::Array{
        PropertyList::Dictionary{{"uid", "L"},
                                 {"channels-in", PropertyList::integer(0)},
                                 {"drift", PropertyList::integer(0)},
                                 {"drift quality", PropertyList::unsignedInteger(96)}},
        PropertyList::Dictionary{{"uid", "H"},
                                 {"channels-in", PropertyList::integer(0)},
                                 {"drift", PropertyList::integer(1)},
                                 {"drift quality", PropertyList::unsignedInteger(96)}},
    };
    EXPECT_EQ(*description.find("subdevices"), expectedMembers);

    std::string tapUID = *devices.stringProperty(
        engine.tapID(), {kAudioTapPropertyUID, kAudioObjectPropertyScopeGlobal, 0});
    PropertyList expectedTaps = PropertyList::Array{
        PropertyList::Dictionary{{"uid", tapUID},
                                 {"drift", PropertyList::integer(1)},
                                 {"drift quality", PropertyList::unsignedInteger(96)}}};
    EXPECT_EQ(*description.find("taps"), expectedTaps);
}

TEST_F(SoftwareVolumeEngineTest, TapLeavesOutOurOwnProcessAndMutesWhileTapped) {
    for (AudioCaptureMode mode :
         {AudioCaptureMode::selectedDevice, AudioCaptureMode::compatibilityGlobal}) {
        engine.start(desk(), mode);
        auto tap = sim.tapDescription(engine.tapID());
        ASSERT_TRUE(tap);
        EXPECT_EQ(tap->processes, std::vector<AudioObjectID>{sim.processObject(4242)});
        EXPECT_EQ(tap->name, "Brightmix Desk Mix");
        EXPECT_TRUE(tap->isPrivate);
        EXPECT_TRUE(tap->isProcessRestoreEnabled);
        EXPECT_EQ(tap->muteBehavior, kCATapMutedWhenTapped);
        if (mode == AudioCaptureMode::selectedDevice) {
            EXPECT_EQ(tap->kind, TapDescription::Kind::excludingProcessesOnDeviceStream);
            EXPECT_EQ(tap->deviceUID, "D");
            EXPECT_EQ(tap->stream, 0);
        } else {
            EXPECT_EQ(tap->kind, TapDescription::Kind::stereoGlobalExcludingProcesses);
        }
        EXPECT_EQ(engine.captureMode(), mode);
        EXPECT_EQ(engine.isUsingCompatibilityCapture(),
                  mode == AudioCaptureMode::compatibilityGlobal);
        EXPECT_TRUE(sim.isDirectPathMuted(deskID));
    }
    engine.stop();
    EXPECT_FALSE(sim.isDirectPathMuted(deskID));
}

TEST_F(SoftwareVolumeEngineTest, ClockIsTheMainMemberElseTheFirstKeptOne) {
    sim.addMultiOutputDevice("NoMain", "No Main", {"H", "L"});
    sim.addMultiOutputDevice("GoneMain", "Gone Main", {"Gone", "H", "L"}, "Gone");
    sim.addMultiOutputDevice("MicMain", "Mic Main", {"I", "L", "H"}, "I");
    struct Case {
        const char* uid;
        const char* clock;
        std::vector<std::string> members;
    };
    const Case cases[] = {
        {"D", "L", {"L", "H"}},       {"NoMain", "H", {"H", "L"}}, {"GoneMain", "H", {"H", "L"}},
        {"MicMain", "L", {"L", "H"}}, {"L", "L", {"L"}}, // a plain device is a group of one
    };
    for (const Case& c : cases) {
        engine.start(device(c.uid), AudioCaptureMode::selectedDevice);
        PropertyList description = sim.composition(engine.aggregateID());
        EXPECT_EQ(*description.find("master")->asString(), c.clock) << c.uid;
        std::vector<std::string> members;
        for (const PropertyList& entry : *description.find("subdevices")->asArray()) {
            members.push_back(*entry.find("uid")->asString());
            EXPECT_EQ(entry.find("drift")->asInteger(), members.back() == c.clock ? 0 : 1)
                << c.uid << " " << members.back();
        }
        EXPECT_EQ(members, c.members) << c.uid;
    }
}

TEST_F(SoftwareVolumeEngineTest, SlotsFollowTheMembersStreams) {
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    const std::map<std::string, SlotRange> expected{{"L", {0, 1}}, {"H", {1, 3}}};
    EXPECT_EQ(engine.outputBufferRanges(), expected);

    // Left 0.5, right -0.25: the stereo speaker keeps both; the amplifier's first stream
    // takes the left channel and its second the right.
    pump(64, constant(0.5f), constant(-0.25f));
    std::vector<float> speaker = sim.memberOutput(engine.aggregateID(), "L");
    ASSERT_EQ(speaker.size(), 128u);
    EXPECT_EQ(speaker[0], 0.5f);
    EXPECT_EQ(speaker[1], -0.25f);
    EXPECT_EQ(sim.memberOutput(engine.aggregateID(), "H", 0), std::vector<float>(64, 0.5f));
    EXPECT_EQ(sim.memberOutput(engine.aggregateID(), "H", 1), std::vector<float>(64, -0.25f));
}

// A headset and a display-like speaker bring their microphones into the router's input list,
// ahead of the tap: three member input streams, then the tap's one.
TEST_F(SoftwareVolumeEngineTest, EveryCaptureModePlaysAndRecordsTheTapWithEveryMicrophoneOff) {
    sim.setInputAudio(
        sim.addDevice({"P", "Headset", {2}, {1, 2}}),
        [](std::uint64_t, UInt32 channel) { return -0.5f - 0.125f * float(channel); });
    sim.addMultiOutputDevice("HS", "Call Desk", {"L", "P", "H"}, "L");
    std::vector<RecordingResult> finished;
    engine.setRecordingFinishedHandler(
        [&](const RecordingResult& result) { finished.push_back(result); });

    const AudioCaptureMode modes[] = {AudioCaptureMode::selectedDevice,
                                      AudioCaptureMode::compatibilityGlobal,
                                      AudioCaptureMode::selectedDevice};
    int run = 0;
    for (AudioCaptureMode mode : modes) {
        SCOPED_TRACE(std::string(name(mode)) + " run " + std::to_string(run));
        engine.start(device("HS"), mode);
        ProcessingSetMasterGain(engine.gainState(), 0.5f);
        EXPECT_EQ(sim.openHardwareInputs(engine.aggregateID()), 0u);
        EXPECT_EQ(sim.ioProcStreamUsage(engine.aggregateID(), engine.ioProcID(),
                                        kAudioObjectPropertyScopeInput),
                  (std::vector<UInt32>{0, 0, 0, 1}));

        auto path = folder / ("call" + std::to_string(run++) + ".wav");
        engine.startRecording(path, RecordingFormat::wav);
        for (int i = 0; i < 10; ++i)
            pump(480, constant(0.25f), constant(-0.125f));
        engine.finishRecording();

        // Every speaker plays the mix at the master gain, the amplifier one channel per stream.
        std::vector<float> speaker = sim.memberOutput(engine.aggregateID(), "L");
        std::vector<float> headset = sim.memberOutput(engine.aggregateID(), "P");
        ASSERT_EQ(speaker.size(), 960u);
        EXPECT_EQ(speaker, headset);
        for (std::size_t f = 0; f < 480; ++f) {
            ASSERT_EQ(speaker[2 * f], 0.125f) << f;
            ASSERT_EQ(speaker[2 * f + 1], -0.0625f) << f;
        }
        EXPECT_EQ(sim.memberOutput(engine.aggregateID(), "H", 0), std::vector<float>(480, 0.125f));
        EXPECT_EQ(sim.memberOutput(engine.aggregateID(), "H", 1),
                  std::vector<float>(480, -0.0625f));

        // The recording holds the mix as the tap delivered it, before the volume.
        ASSERT_EQ(finished.size(), std::size_t(run));
        EXPECT_FALSE(finished.back().error);
        auto decoded = readAudioFile(path.string());
        ASSERT_TRUE(decoded);
        ASSERT_EQ(decoded->frames(), 4800u);
        for (std::uint64_t f = 0; f < 4800; ++f) {
            ASSERT_EQ(decoded->samples[2 * f], 0.25f) << f;
            ASSERT_EQ(decoded->samples[2 * f + 1], -0.125f) << f;
        }
    }
    engine.stop();
    expectNothingLeft();
}

// The IO function alone: it finds the tap at the end of whatever list arrives.
TEST_F(SoftwareVolumeEngineTest, IOCycleHandsOnlyTheTrailingTapBuffersOn) {
    std::vector<float> microphone(64, kMicrophone);
    std::vector<float> tap(128, 0.25f);
    std::vector<float> out(128, 0.0f);
    const auto list = [&](std::size_t microphones) {
        std::vector<AudioBuffer> storage(microphones + 2);
        auto* buffers = reinterpret_cast<AudioBufferList*>(storage.data());
        buffers->mNumberBuffers = UInt32(microphones + 1);
        for (std::size_t i = 0; i < microphones; ++i)
            buffers->mBuffers[i] = {1, 256, microphone.data()};
        buffers->mBuffers[microphones] = {2, 512, tap.data()};
        return storage;
    };
    std::vector<AudioBuffer> viewStorage(2);
    SoftwareVolumeEngine::IOProcContext context{
        engine.gainState(), engine.recordingState(), 3, 1,
        reinterpret_cast<AudioBufferList*>(viewStorage.data())};
    AudioBufferList output{1, {{2, 512, out.data()}}};

    // As laid out (three microphones first), shorter (one), longer (five), the tap alone.
    for (std::size_t microphones : {3u, 1u, 5u, 0u}) {
        SCOPED_TRACE(microphones);
        std::vector<AudioBuffer> input = list(microphones);
        SoftwareVolumeEngine::ioProc(0, nullptr, reinterpret_cast<AudioBufferList*>(input.data()),
                                     nullptr, &output, nullptr, &context);
        EXPECT_EQ(ProcessingTakeInputPeak(engine.gainState()), 0.25f);
        std::uint32_t buffers = 0, channels = 0, bytes = 0;
        ProcessingLastInputFormat(engine.gainState(), &buffers, &channels, &bytes);
        EXPECT_EQ(buffers, 1u);
        EXPECT_EQ(channels, 2u);
        EXPECT_EQ(out[0], 0.25f);
    }
    // No input at all is the render's to handle: silence, not a crash.
    SoftwareVolumeEngine::ioProc(0, nullptr, nullptr, nullptr, &output, nullptr, &context);
    EXPECT_EQ(out[0], 0.0f);
}

TEST_F(SoftwareVolumeEngineTest, SettersStoreWhileStoppedAndApplyWhileRunning) {
    const std::pair<float, float> gains[] = {
        {1.5f, 1.0f}, {-0.2f, 0.0f}, {std::numeric_limits<float>::quiet_NaN(), 0.0f}, {0.3f, 0.3f}};
    for (auto [given, stored] : gains) {
        engine.setChildGain("H", given);
        EXPECT_EQ(engine.childGains().at("H"), stored) << given;
    }
    engine.setChildGain("L", 0.5f);
    engine.setChildGain("I", 0.1f); // no slots: stored only
    engine.setChildPreset(OutputPreset::subwoofer, "H");
    engine.setChildEqualizer(EqualizerPreset::pop, "L");
    engine.setCrossoverHz(120);
    EXPECT_EQ(ProcessingGetSlotGain(engine.gainState(), 0), 1.0f) << "stopped: only stored";

    engine.start(desk(), AudioCaptureMode::selectedDevice);
    EXPECT_EQ(ProcessingGetSlotGain(engine.gainState(), 0), 0.5f);
    EXPECT_FLOAT_EQ(ProcessingGetSlotGain(engine.gainState(), 1), 0.3f);
    EXPECT_FLOAT_EQ(ProcessingGetSlotGain(engine.gainState(), 2), 0.3f);
    EXPECT_EQ(engine.childGains().at("I"), 0.1f);
    EXPECT_EQ(engine.outputBufferRanges().count("I"), 0u);

    engine.setChildGain("H", 0.8f);
    EXPECT_FLOAT_EQ(ProcessingGetSlotGain(engine.gainState(), 1), 0.8f);
    EXPECT_FLOAT_EQ(ProcessingGetSlotGain(engine.gainState(), 2), 0.8f);
    EXPECT_EQ(ProcessingGetSlotGain(engine.gainState(), 0), 0.5f);

    // The settings survive a stop and come back at the next layout.
    engine.stop();
    engine.start(desk(), AudioCaptureMode::compatibilityGlobal);
    EXPECT_FLOAT_EQ(ProcessingGetSlotGain(engine.gainState(), 1), 0.8f);
    EXPECT_EQ(engine.childPresets().at("H"), OutputPreset::subwoofer);
    EXPECT_EQ(engine.childEqualizers().at("L"), EqualizerPreset::pop);
    EXPECT_EQ(engine.crossoverHz(), 120.0f);
}

TEST_F(SoftwareVolumeEngineTest, OneCycleAppliesVolumeGainAndMute) {
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    engine.setChildGain("L", 0.5f);
    ProcessingSetMasterGain(engine.gainState(), 0.5f);
    pump(256, constant(0.8f), constant(0.8f));
    // Master and per-output gains may be smoothed; after a few cycles they have settled.
    for (int i = 0; i < 20; ++i)
        pump(256, constant(0.8f), constant(0.8f));
    std::vector<float> speaker = sim.memberOutput(engine.aggregateID(), "L");
    std::vector<float> amp = sim.memberOutput(engine.aggregateID(), "H", 0);
    EXPECT_NEAR(speaker.back(), 0.8f * 0.5f * 0.5f, 1e-4);
    EXPECT_NEAR(amp.back(), 0.8f * 0.5f, 1e-4);

    ProcessingSetMasterGain(engine.gainState(), 0.0f); // mute
    for (int i = 0; i < 20; ++i)
        pump(256, constant(0.8f), constant(0.8f));
    EXPECT_EQ(peak(sim.memberOutput(engine.aggregateID(), "L")), 0.0f);
    EXPECT_EQ(peak(sim.memberOutput(engine.aggregateID(), "H", 1)), 0.0f);
}

TEST_F(SoftwareVolumeEngineTest, SubwooferGetsLowPassedMonoSumAndSatelliteLosesTheBass) {
    engine.setChildPreset(OutputPreset::satellite, "L");
    engine.setChildPreset(OutputPreset::subwoofer, "H");
    engine.start(desk(), AudioCaptureMode::selectedDevice);

    // Bass on the left only, silence on the right.
    for (int i = 0; i < 40; ++i)
        pump(480, sine(30, 0.8), constant(0));
    std::vector<float> satellite = sim.memberOutput(engine.aggregateID(), "L");
    std::vector<float> subLeft = sim.memberOutput(engine.aggregateID(), "H", 0);
    std::vector<float> subRight = sim.memberOutput(engine.aggregateID(), "H", 1);
    // (L + R) / 2 on both of the subwoofer's streams, bass passing nearly whole.
    EXPECT_NEAR(peak(subLeft), 0.4f, 0.06f);
    EXPECT_EQ(subLeft, subRight);
    EXPECT_LT(peak(satellite), 0.8f * 0.2f) << "the satellite must lose the bass";

    // Treble: the satellite keeps it, the subwoofer drops it.
    for (int i = 0; i < 40; ++i)
        pump(480, sine(2000, 0.8), sine(2000, 0.8));
    EXPECT_NEAR(peak(sim.memberOutput(engine.aggregateID(), "L")), 0.8f, 0.05f);
    EXPECT_LT(peak(sim.memberOutput(engine.aggregateID(), "H", 0)), 0.01f);

    // Back to full range while running: the bass returns to the speaker.
    engine.setChildPreset(OutputPreset::fullRange, "L");
    for (int i = 0; i < 40; ++i)
        pump(480, sine(30, 0.8), constant(0));
    EXPECT_NEAR(peak(sim.memberOutput(engine.aggregateID(), "L")), 0.8f, 0.02f);
}

TEST_F(SoftwareVolumeEngineTest, BoostingEqualizerNeverRaisesTheLevelAboveFullScale) {
    engine.setChildEqualizer(EqualizerPreset::bassBooster, "L");
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    // A full-scale tone where the preset boosts most.
    for (int i = 0; i < 60; ++i)
        pump(480, sine(40, 1.0), sine(40, 1.0));
    float boosted = peak(sim.memberOutput(engine.aggregateID(), "L"));
    EXPECT_LE(boosted, 1.0f + 1e-3f);
    EXPECT_GT(boosted, 0.5f);
    // The flat amplifier passes the tone unchanged.
    EXPECT_NEAR(peak(sim.memberOutput(engine.aggregateID(), "H", 0)), 1.0f, 1e-3f);
}

TEST_F(SoftwareVolumeEngineTest, EveryFailingStepSaysWhyAndLeavesNothingBehind) {
    AudioStreamBasicDescription integer{};
    integer.mSampleRate = 48000;
    integer.mFormatID = kAudioFormatLinearPCM;
    integer.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    integer.mBitsPerChannel = 16;
    integer.mChannelsPerFrame = 2;
    integer.mBytesPerFrame = integer.mBytesPerPacket = 4;
    integer.mFramesPerPacket = 1;
    const OSStatus nope = kAudioHardwareIllegalOperationError;
    const AudioObjectPropertyAddress speakerInputs{kAudioDevicePropertyStreamConfiguration,
                                                   kAudioObjectPropertyScopeInput,
                                                   kAudioObjectPropertyElementMain};
    // A stream configuration of `count` mono buffers.
    const auto inputLayout = [](UInt32 count) {
        std::vector<AudioBuffer> list(count + 1, AudioBuffer{1, 0, nullptr});
        reinterpret_cast<AudioBufferList*>(list.data())->mNumberBuffers = count;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(list.data());
        return std::vector<std::uint8_t>(bytes, bytes + 8 + count * sizeof(AudioBuffer));
    };

    struct Case {
        const char* message;
        std::function<void()> arrange;
        std::function<AudioDevice()> target;
    };
    auto deskDevice = [this] { return desk(); };
    const Case cases[] = {
        {"Nowhere reports no outputs to send audio to.", [] {},
         [] {
             AudioDevice nowhere;
             nowhere.uid = "N";
             nowhere.name = "Nowhere";
             nowhere.subdeviceUIDs = {"Gone", "I"};
             return nowhere;
         }},
        {"Brightmix could not exclude its own audio process from the system mix.",
         [this] { sim.removeProcess(sim.processObject(4242)); }, deskDevice},
        {"Creating the system audio tap failed ('nope').",
         [&] { sim.failNext(SimulatedAudioHardware::Call::createProcessTap, nope); }, deskDevice},
        {"The system audio tap did not provide an identifier.", [] {},
         [this] {
             AudioDevice ghost = desk();
             ghost.uid = "Ghost"; // the hardware answers with no tap at all
             return ghost;
         }},
        {"Creating the private audio router failed ('nope').",
         [&] { sim.failNext(SimulatedAudioHardware::Call::createAggregateDevice, nope); },
         deskDevice},
        {"The system audio tap returned an unsupported sample format.",
         [&] { sim.overrideTapFormat(integer); }, deskDevice},
        {"The selected outputs use a sample format Brightmix cannot safely process.",
         [&] {
             sim.setStreamFormat(sim.deviceID("H"), kAudioObjectPropertyScopeOutput, 1, integer);
         },
         deskDevice},
        {"Reading audio property size failed ('!obj').",
         [&] {
             sim.failProperty(kAudioObjectUnknown, kAudioDevicePropertyStreams,
                              kAudioHardwareBadObjectError);
         },
         deskDevice},
        {"Preparing the audio router failed ('nope').",
         [&] { sim.failNext(SimulatedAudioHardware::Call::createIOProcID, nope); }, deskDevice},
        {"Preparing the audio router failed ('nope').",
         [&] {
             sim.failProperty(kAudioObjectUnknown, kAudioDevicePropertyIOProcStreamUsage, nope,
                              SimulatedAudioHardware::Times::once);
         },
         deskDevice},
        {"The system audio tap did not reach the audio router.",
         // The speaker claims more input streams than the router lists before the tap.
         [&] { sim.overridePropertyData(sim.deviceID("L"), speakerInputs, inputLayout(2)); },
         deskDevice},
        {"Starting the audio router failed ('nope').",
         [&] { sim.failNext(SimulatedAudioHardware::Call::startDevice, nope); }, deskDevice},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        AudioDevice target = c.target();
        // A working router first, so a failed start must also have removed the old one.
        engine.start(desk(), AudioCaptureMode::selectedDevice);
        c.arrange();
        EXPECT_EQ(
            thrownDescription([&] { engine.start(target, AudioCaptureMode::selectedDevice); }),
            c.message);
        expectNothingLeft();
        sim.clearFaults();
        sim.overridePropertyData(sim.deviceID("L"), speakerInputs, inputLayout(1));
        sim.overrideTapFormat(std::nullopt);
        if (sim.processObject(4242) == 0) sim.addProcess({4242});
        sim.setStreamFormat(sim.deviceID("H"), kAudioObjectPropertyScopeOutput, 1,
                            AudioStreamBasicDescription{48000, kAudioFormatLinearPCM,
                                                        kAudioFormatFlagsNativeFloatPacked, 4, 1, 4,
                                                        1, 32, 0});
    }
    // And it still works afterwards.
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    EXPECT_TRUE(engine.isRunning());
}

TEST_F(SoftwareVolumeEngineTest, EachStartMakesANewRouterAndRemovesTheOldOne) {
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    std::string first = *sim.composition(engine.aggregateID()).find("uid")->asString();
    AudioObjectID firstID = engine.aggregateID();
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    std::string second = *sim.composition(engine.aggregateID()).find("uid")->asString();
    EXPECT_NE(first, second);
    EXPECT_NE(engine.aggregateID(), firstID);
    EXPECT_EQ(sim.deviceID(first), 0u) << "the first router is gone";
    EXPECT_EQ(sim.liveAggregates(), 1u);
    EXPECT_EQ(sim.liveTaps(), 1u);
    EXPECT_EQ(sim.runningIOProcs(), 1u);
    // Our routers are private: no device list shows them.
    for (const AudioDevice& listed : devices.devices())
        EXPECT_FALSE(listed.uid.starts_with("com.corvale.brightmix.private.")) << listed.uid;

    engine.stop();
    expectNothingLeft();
    engine.stop(); // twice is harmless
    expectNothingLeft();
}

TEST_F(SoftwareVolumeEngineTest, TeardownOfARunningEngineRemovesEverything) {
    {
        SoftwareVolumeEngine local(devices, 0.5f, writer);
        local.start(desk(), AudioCaptureMode::selectedDevice);
        EXPECT_EQ(sim.liveAggregates(), 1u);
    }
    EXPECT_EQ(sim.liveTaps(), 0u);
    EXPECT_EQ(sim.liveAggregates(), 0u);
    EXPECT_EQ(sim.liveIOProcs(), 0u);
}

TEST_F(SoftwareVolumeEngineTest, DiagnosticDetailsDescribeTheRouter) {
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    ProcessingSetMasterGain(engine.gainState(), 0.75f);
    // Left only: the amplifier's first slot carries it, its second (the last) does not.
    pump(128, constant(0.5f), constant(0));
    PropertyList::Dictionary details = engine.diagnosticDetails();

    EXPECT_FLOAT_EQ(float(*details.at("inputPeak").asNumber()), 0.5f);
    EXPECT_EQ(*details.at("inputShape").asString(), "buffers=1 channels=2 bytes=1024");
    EXPECT_EQ(*details.at("tapFormat").asString(), "48000.0 Hz 2 ch");
    EXPECT_FLOAT_EQ(float(*details.at("gain").asNumber()), 0.75f);
    EXPECT_EQ(*details.at("mode").asString(), "selectedDevice");
    EXPECT_GT(*details.at("outputPeak L").asNumber(), 0.0);
    EXPECT_EQ(*details.at("outputPeak H").asNumber(), 0.0)
        << "the last slot's peak, not the largest";
    EXPECT_EQ(details.size(), 7u);

    // Peaks are taken: a second read without a cycle finds none.
    details = engine.diagnosticDetails();
    EXPECT_EQ(*details.at("inputPeak").asNumber(), 0.0);
    EXPECT_EQ(*details.at("outputPeak L").asNumber(), 0.0);

    engine.stop();
    details = engine.diagnosticDetails();
    EXPECT_EQ(*details.at("tapFormat").asString(), "nil");
    EXPECT_EQ(details.size(), 5u);
}

TEST_F(SoftwareVolumeEngineTest, RecordsTheCleanMixAndReportsWhenStopped) {
    std::vector<RecordingResult> finished;
    engine.setRecordingFinishedHandler(
        [&](const RecordingResult& result) { finished.push_back(result); });
    engine.setChildEqualizer(EqualizerPreset::rock, "L");
    engine.setChildPreset(OutputPreset::subwoofer, "H");
    engine.start(desk(), AudioCaptureMode::selectedDevice);
    ProcessingSetMasterGain(engine.gainState(), 0.25f);

    auto path = folder / "router.wav";
    engine.startRecording(path, RecordingFormat::wav);
    EXPECT_TRUE(engine.isRecording());
    for (int i = 0; i < 10; ++i)
        pump(480, sine(440, 0.5), sine(880, 0.5));
    engine.stop(); // finishes the recording first

    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].url, path);
    EXPECT_FALSE(finished[0].error);
    EXPECT_DOUBLE_EQ(finished[0].duration, 0.1);
    EXPECT_FALSE(engine.isRecording());

    auto decoded = readAudioFile(path.string());
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->frames(), 4800u);
    EXPECT_EQ(decoded->sampleRate, 48000);
    // Before volume, equaliser and crossover: exactly what the tap delivered.
    for (std::uint64_t f = 0; f < 4800; f += 97) {
        EXPECT_EQ(decoded->samples[2 * f], sine(440, 0.5)(f)) << f;
        EXPECT_EQ(decoded->samples[2 * f + 1], sine(880, 0.5)(f)) << f;
    }
}

TEST_F(SoftwareVolumeEngineTest, RecordingNeedsARunningRouterWithAKnownRate) {
    const std::string message = "Turn on Brightmix before recording.";
    EXPECT_EQ(
        thrownDescription([&] { engine.startRecording(folder / "a.wav", RecordingFormat::wav); }),
        message);

    engine.start(desk(), AudioCaptureMode::selectedDevice);
    engine.startRecording(folder / "b.wav", RecordingFormat::wav);
    EXPECT_EQ(
        thrownDescription([&] { engine.startRecording(folder / "c.wav", RecordingFormat::wav); }),
        message);
    engine.finishRecording();

    sim.failProperty(kAudioObjectUnknown, kAudioDevicePropertyNominalSampleRate,
                     kAudioHardwareUnknownPropertyError);
    EXPECT_EQ(
        thrownDescription([&] { engine.startRecording(folder / "d.wav", RecordingFormat::wav); }),
        message);
    EXPECT_EQ(folder.entries(), std::vector<std::string>{"b.wav"});
    engine.finishRecording(); // nothing to finish: harmless
}

TEST_F(SoftwareVolumeEngineTest, OneCycleWithRecordingAttachedAllocatesNothing) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    // A writer thread that sleeps through the test keeps its encoder out of the count.
    LinuxAudioFileWriter sleepyWriter({.drainIntervalSeconds = 60});
    SoftwareVolumeEngine local(devices, 0.8f, sleepyWriter);
    local.setChildEqualizer(EqualizerPreset::pop, "L");
    local.setChildPreset(OutputPreset::subwoofer, "H");
    local.start(desk(), AudioCaptureMode::selectedDevice);
    local.startRecording(folder / "guarded.wav", RecordingFormat::wav);

    std::vector<float> input(2 * 512, 0.25f);
    ASSERT_EQ(sim.pumpCycle(local.aggregateID(), input), 1u); // the simulation prepares itself
    (void)ProcessingTakeInputPeak(local.gainState());
    std::size_t allocations = 0;
    {
        testing::AllocationGuard guard;
        for (int i = 0; i < 16; ++i)
            sim.pumpCycle(local.aggregateID(), input);
        allocations = guard.allocations();
    }
    EXPECT_EQ(allocations, 0u);
    // Those cycles went through the tap's view: the speaker's microphone came first in the list.
    EXPECT_EQ(ProcessingTakeInputPeak(local.gainState()), 0.25f);
    local.finishRecording();
    EXPECT_EQ(RecordingTapStatus(local.recordingState()), 0);
}

} // namespace
} // namespace brightmix
