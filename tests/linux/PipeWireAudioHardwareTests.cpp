// The PipeWire backend against a real, private session: devices, defaults, processes,
// taps, aggregates and the IOProc, measured at the speakers.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

#include "platform/linux/pipewire/PipeWireAudioHardware.h"
#include "platform/linux/pipewire/PipeWireMuteGuard.h"
#include "tests/linux/PipeWireTestSupport.h"

namespace brightmix {
namespace {

using pipewire::PipeWireAudioHardware;
using namespace std::chrono_literals;

constexpr AudioObjectPropertyAddress
address(AudioObjectPropertySelector selector,
        AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal,
        AudioObjectPropertyElement element = 0) {
    return {selector, scope, element};
}

struct GainRouterStub {
    static OSStatus ioProc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList*,
                           const AudioTimeStamp*, AudioBufferList*, const AudioTimeStamp*, void*) {
        return 0;
    }
};

class PipeWireBackend : public ::testing::Test {
protected:
    void SetUp() override {
        PipeWireAudioHardware::Options options;
        options.watchdogExecutable = testing::watchdogExecutable();
        hardware = testing::connectToSession(options);
        if (!hardware) {
            GTEST_SKIP() << "no private PipeWire session (the tests run through ctest)";
        }
    }

    std::vector<AudioObjectID>
    ids(AudioObjectID object, AudioObjectPropertySelector selector,
        AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal) {
        UInt32 size = 0;
        if (hardware->getPropertyDataSize(object, address(selector, scope), 0, nullptr, &size) !=
            0) {
            return {};
        }
        std::vector<AudioObjectID> result(size / 4);
        if (result.empty()) {
            return result;
        }
        EXPECT_EQ(hardware->getPropertyData(object, address(selector, scope), 0, nullptr, &size,
                                            result.data()),
                  0);
        result.resize(size / 4);
        return result;
    }

    std::optional<UInt32> u32(AudioObjectID object, AudioObjectPropertySelector selector) {
        UInt32 value = 0;
        UInt32 size = sizeof(value);
        if (hardware->getPropertyData(object, address(selector), 0, nullptr, &size, &value) != 0) {
            return std::nullopt;
        }
        return value;
    }

    std::string text(AudioObjectID object, AudioObjectPropertySelector selector) {
        PropertyList value;
        if (hardware->getPropertyValue(object, address(selector), &value) != 0 ||
            value.asString() == nullptr) {
            return {};
        }
        return *value.asString();
    }

    std::vector<UInt32> bufferChannels(AudioObjectID object, AudioObjectPropertyScope scope) {
        UInt32 size = 0;
        auto where = address(kAudioDevicePropertyStreamConfiguration, scope);
        if (hardware->getPropertyDataSize(object, where, 0, nullptr, &size) != 0) {
            return {};
        }
        std::vector<std::uint8_t> bytes(size);
        EXPECT_EQ(hardware->getPropertyData(object, where, 0, nullptr, &size, bytes.data()), 0);
        const auto* list = reinterpret_cast<const AudioBufferList*>(bytes.data());
        std::vector<UInt32> channels;
        for (UInt32 i = 0; i < list->mNumberBuffers; ++i) {
            channels.push_back(list->mBuffers[i].mNumberChannels);
        }
        return channels;
    }

    AudioObjectID device(const std::string& uid) {
        for (AudioObjectID id : ids(kAudioObjectSystemObject, kAudioHardwarePropertyDevices)) {
            if (text(id, kAudioDevicePropertyDeviceUID) == uid) {
                return id;
            }
        }
        return 0;
    }

    AudioObjectID processOf(std::int32_t pid) {
        AudioObjectID process = 0;
        UInt32 size = sizeof(process);
        hardware->getPropertyData(kAudioObjectSystemObject,
                                  address(kAudioHardwarePropertyTranslatePIDToProcessObject),
                                  sizeof(pid), &pid, &size, &process);
        return process;
    }

    AudioObjectID defaultOutput() {
        return u32(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice).value_or(0);
    }

    OSStatus setDefaultOutput(AudioObjectID id) {
        return hardware->setPropertyData(kAudioObjectSystemObject,
                                         address(kAudioHardwarePropertyDefaultOutputDevice), 0,
                                         nullptr, sizeof(id), &id);
    }

    template <typename Predicate>
    bool eventually(Predicate predicate, std::chrono::milliseconds limit = 3000ms) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            if (predicate()) {
                return true;
            }
            std::this_thread::sleep_for(20ms);
        }
        return predicate();
    }

    std::unique_ptr<PipeWireAudioHardware> hardware;
};

TEST_F(PipeWireBackend, ListsTheSpeakersAndTheMultiOutputDeviceWithItsMembers) {
    AudioObjectID desk = device("desk_speakers");
    AudioObjectID sub = device("subwoofer");
    AudioObjectID multi = device("multi_output");
    ASSERT_NE(desk, 0u);
    ASSERT_NE(sub, 0u);
    ASSERT_NE(multi, 0u);

    EXPECT_EQ(text(desk, kAudioObjectPropertyName), "Desk Speakers");
    EXPECT_EQ(text(multi, kAudioObjectPropertyName), "Multi-Output Device");
    // One mono buffer per port, as the router's output list carries them.
    EXPECT_EQ(bufferChannels(desk, kAudioObjectPropertyScopeOutput), (std::vector<UInt32>{1, 1}));
    EXPECT_EQ(bufferChannels(sub, kAudioObjectPropertyScopeOutput), (std::vector<UInt32>{1}));
    EXPECT_EQ(bufferChannels(multi, kAudioObjectPropertyScopeOutput), (std::vector<UInt32>{1, 1}));
    // A sink's monitor is not an input device.
    EXPECT_TRUE(bufferChannels(desk, kAudioObjectPropertyScopeInput).empty());

    PropertyList members;
    ASSERT_EQ(hardware->getPropertyValue(
                  multi, address(kAudioAggregateDevicePropertyFullSubDeviceList), &members),
              0);
    EXPECT_EQ(members, PropertyList::array({PropertyList::string("subwoofer"),
                                            PropertyList::string("desk_speakers")}));
    EXPECT_FALSE(
        hardware->hasProperty(desk, address(kAudioAggregateDevicePropertyFullSubDeviceList)));
    // PipeWire has no main member; the engine then takes the first.
    EXPECT_FALSE(hardware->hasProperty(multi, address(kAudioAggregateDevicePropertyMainSubDevice)));

    EXPECT_EQ(u32(multi, kAudioDevicePropertyTransportType), kAudioDeviceTransportTypeAggregate);
    EXPECT_EQ(u32(desk, kAudioDevicePropertyTransportType), kAudioDeviceTransportTypeVirtual);
    Float64 rate = 0;
    UInt32 size = sizeof(rate);
    ASSERT_EQ(hardware->getPropertyData(desk, address(kAudioDevicePropertyNominalSampleRate), 0,
                                        nullptr, &size, &rate),
              0);
    EXPECT_EQ(rate, 48000.0);
}

TEST_F(PipeWireBackend, AnswersWhatLinuxCannotDoWithAClearStatus) {
    AudioObjectID multi = device("multi_output");
    AudioObjectID desk = device("desk_speakers");
    ASSERT_NE(multi, 0u);

    // Members come from the session's combine rules; a client cannot rewrite them.
    PropertyList composition;
    ASSERT_EQ(hardware->getPropertyValue(multi, address(kAudioAggregateDevicePropertyComposition),
                                         &composition),
              0);
    EXPECT_EQ(hardware->setPropertyValue(multi, address(kAudioAggregateDevicePropertyComposition),
                                         composition),
              kAudioHardwareUnsupportedOperationError);
    Float64 rate = 44100;
    EXPECT_EQ(hardware->setPropertyData(desk, address(kAudioDevicePropertyNominalSampleRate), 0,
                                        nullptr, sizeof(rate), &rate),
              kAudioHardwareUnsupportedOperationError);
    // Only Brightmix's own filter nodes run an IOProc.
    AudioDeviceIOProcID proc = nullptr;
    EXPECT_EQ(
        hardware->createIOProcID(
            desk,
            [](AudioObjectID, const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*,
               AudioBufferList*, const AudioTimeStamp*, void*) -> OSStatus { return 0; },
            nullptr, &proc),
        kAudioHardwareUnsupportedOperationError);
    // Muting a plain sink would silence the router's own output to it.
    TapDescription plain;
    plain.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
    plain.deviceUID = "desk_speakers";
    plain.muteBehavior = kCATapMutedWhenTapped;
    AudioObjectID tap = 0;
    EXPECT_EQ(hardware->createProcessTap(plain, &tap), kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(tap, 0u);

    // Bad input gets the status Core Audio would give.
    EXPECT_FALSE(hardware->hasProperty(0x7777777, address(kAudioObjectPropertyName)));
    EXPECT_EQ(text(0x7777777, kAudioObjectPropertyName), "");
    plain.deviceUID = "no_such_sink";
    EXPECT_EQ(hardware->createProcessTap(plain, &tap), kAudioHardwareBadDeviceError);
    PropertyList unknownMember = PropertyList::dictionary(
        {{"uid", PropertyList::string("com.corvale.brightmix.private.x")},
         {"subdevices", PropertyList::array({PropertyList::dictionary(
                            {{"uid", PropertyList::string("no_such_sink")}})})}});
    AudioObjectID aggregate = 0;
    EXPECT_EQ(hardware->createAggregateDevice(unknownMember, &aggregate),
              kAudioHardwareBadDeviceError);
    EXPECT_EQ(hardware->createAggregateDevice(PropertyList::string("not a dictionary"), &aggregate),
              kAudio_ParamError);
    UInt32 shortSize = 2;
    AudioObjectID value = 0;
    EXPECT_EQ(hardware->getPropertyData(kAudioObjectSystemObject,
                                        address(kAudioHardwarePropertyDefaultOutputDevice), 0,
                                        nullptr, &shortSize, &value),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(setDefaultOutput(0x7777777), kAudioHardwareBadDeviceError);
}

TEST_F(PipeWireBackend, ReadsAndSetsASinksVolumeAsAScalar) {
    AudioObjectID desk = device("desk_speakers");
    auto volume = [&](UInt32 element) {
        Float32 scalar = -1;
        UInt32 size = sizeof(scalar);
        EXPECT_EQ(hardware->getPropertyData(desk,
                                            address(kAudioDevicePropertyVolumeScalar,
                                                    kAudioObjectPropertyScopeOutput, element),
                                            0, nullptr, &size, &scalar),
                  0);
        return scalar;
    };
    auto setVolume = [&](UInt32 element, Float32 scalar) {
        return hardware->setPropertyData(
            desk,
            address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, element), 0,
            nullptr, sizeof(scalar), &scalar);
    };
    bool isSettable = false;
    ASSERT_EQ(hardware->isPropertySettable(
                  desk, address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput),
                  &isSettable),
              0);
    EXPECT_TRUE(isSettable);
    EXPECT_FALSE(hardware->hasProperty(
        desk, address(kAudioDevicePropertyVolumeScalar, kAudioObjectPropertyScopeOutput, 3)));

    testing::MonitorCapture capture("desk_speakers", 2);
    std::string file = testing::scratchDirectory() + "/volume-tone.wav";
    testing::writeToneFile(file, 1000, 0.5, 20);
    testing::TonePlayer player(file, "desk_speakers");
    ASSERT_TRUE(eventually([&] { return testing::peakDb(capture.listen(0, 0.05)) > -7; }));

    ASSERT_EQ(setVolume(2, 0.5f), 0);
    EXPECT_NEAR(volume(2), 0.5f, 1e-4);
    EXPECT_NEAR(volume(1), 1.0f, 1e-4);
    // The scalar is perceptual: half the scalar is an eighth of the amplitude.
    auto left = capture.listen(0);
    auto right = capture.channel(1, 24000);
    EXPECT_NEAR(testing::peakDb(left), -6.02, 0.1);
    EXPECT_NEAR(testing::peakDb(right), -6.02 - 18.06, 0.2);

    EXPECT_EQ(setVolume(0, std::nanf("")), kAudio_ParamError);
    Float32 tooBig = 1.5f;
    ASSERT_EQ(setVolume(0, tooBig), 0);
    EXPECT_NEAR(volume(0), 1.0f, 1e-4);
    EXPECT_NEAR(volume(2), 1.0f, 1e-4);
}

TEST_F(PipeWireBackend, AFailedStartLeavesNothingBehind) {
    // A member that disappears between creating the router and starting it.
    ASSERT_EQ(std::system("pactl load-module module-null-sink sink_name=brief_sink "
                          ">/dev/null 2>&1"),
              0);
    ASSERT_TRUE(eventually([&] {
        return bufferChannels(device("brief_sink"), kAudioObjectPropertyScopeOutput).size() == 2;
    }));
    TapDescription description;
    description.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
    description.deviceUID = "multi_output";
    description.muteBehavior = kCATapMutedWhenTapped;
    AudioObjectID tap = 0;
    ASSERT_EQ(hardware->createProcessTap(description, &tap), 0);
    PropertyList::Array taps{
        PropertyList::dictionary({{"uid", PropertyList::string(text(tap, kAudioTapPropertyUID))}})};
    PropertyList routerDescription = PropertyList::dictionary(
        {{"uid", PropertyList::string("com.corvale.brightmix.private.brief")},
         {"subdevices", PropertyList::array({PropertyList::dictionary(
                            {{"uid", PropertyList::string("brief_sink")}})})},
         {"taps", PropertyList::array(taps)}});
    AudioObjectID aggregate = 0;
    ASSERT_EQ(hardware->createAggregateDevice(routerDescription, &aggregate), 0);
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(hardware->createIOProcID(aggregate, &GainRouterStub::ioProc, nullptr, &proc), 0);
    ASSERT_EQ(std::system("pactl unload-module module-null-sink >/dev/null 2>&1"), 0);
    ASSERT_TRUE(eventually([&] { return device("brief_sink") == 0; }));

    EXPECT_EQ(hardware->startDevice(aggregate, proc), kAudioHardwareBadDeviceError);
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    EXPECT_TRUE(pipewire::readMuteRecords(hardware->muteRecordPath()).empty());
    auto graph = hardware->snapshot();
    for (const auto& [id, link] : graph.links) {
        const auto* output = graph.node(link.outputNode);
        ASSERT_NE(output, nullptr);
        EXPECT_NE(pipewire::propertyOf(output->properties, "node.name"),
                  "com.corvale.brightmix.private.brief");
    }
    EXPECT_EQ(hardware->destroyIOProcID(aggregate, proc), 0);
    EXPECT_EQ(hardware->destroyAggregateDevice(aggregate), 0);
    EXPECT_EQ(hardware->destroyProcessTap(tap), 0);
}

TEST_F(PipeWireBackend, SetsTheDefaultOutputThroughTheSessionManager) {
    AudioObjectID desk = device("desk_speakers");
    AudioObjectID multi = device("multi_output");
    ASSERT_EQ(defaultOutput(), multi);

    ASSERT_EQ(setDefaultOutput(desk), 0);
    EXPECT_EQ(defaultOutput(), desk);
    ASSERT_EQ(setDefaultOutput(multi), 0);
    EXPECT_EQ(defaultOutput(), multi);
}

TEST_F(PipeWireBackend, SeesAProcessThatPlaysAndTheDevicesItPlaysTo) {
    std::string file = testing::scratchDirectory() + "/process-tone.wav";
    testing::writeToneFile(file, 440, 0.25, 10);
    testing::TonePlayer player(file, "desk_speakers");
    ASSERT_GT(player.processID(), 0);
    AudioObjectID desk = device("desk_speakers");

    AudioObjectID process = 0;
    ASSERT_TRUE(eventually([&] {
        process = processOf(player.processID());
        return process != 0 && u32(process, kAudioProcessPropertyIsRunningOutput) == 1u &&
               ids(process, kAudioProcessPropertyDevices) == std::vector<AudioObjectID>{desk};
    }));
    auto processes = ids(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
    EXPECT_NE(std::find(processes.begin(), processes.end(), process), processes.end());
    EXPECT_EQ(text(process, kAudioProcessPropertyBundleID), "pw-cat");
    std::int32_t pid = 0;
    UInt32 size = sizeof(pid);
    ASSERT_EQ(hardware->getPropertyData(process, address(kAudioProcessPropertyPID), 0, nullptr,
                                        &size, &pid),
              0);
    EXPECT_EQ(pid, player.processID());

    // Brightmix itself is listed, as on Core Audio, for the engine to exclude it; the
    // daemon, which owns the multi-output sink's member streams, is not.
    AudioObjectID self = processOf(::getpid());
    EXPECT_NE(self, 0u);
    EXPECT_NE(std::find(processes.begin(), processes.end(), self), processes.end());
    auto graph = hardware->snapshot();
    for (const auto& [id, client] : graph.clients) {
        if (pipewire::propertyOf(client.properties, "core.daemon") == "true") {
            auto daemon = pipewire::processIDOfClient(client.properties);
            ASSERT_TRUE(daemon.has_value());
            EXPECT_EQ(
                std::find(processes.begin(), processes.end(), pipewire::processObjectID(*daemon)),
                processes.end());
        }
    }
    EXPECT_EQ(processOf(0x3FFFFFF0), 0u);
}

// An IOProc that copies the tap's left and right channels to alternate output buffers at a
// fixed gain: enough to see where the router's audio goes without the engine.
struct GainRouter {
    std::atomic<float> gain{0.5f};
    std::atomic<std::uint64_t> cycles{0};

    static OSStatus ioProc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList* input,
                           const AudioTimeStamp*, AudioBufferList* output, const AudioTimeStamp*,
                           void* clientData) {
        auto* self = static_cast<GainRouter*>(clientData);
        float gain = self->gain.load(std::memory_order_relaxed);
        for (UInt32 i = 0; i < output->mNumberBuffers; ++i) {
            auto* out = static_cast<float*>(output->mBuffers[i].mData);
            UInt32 frames = output->mBuffers[i].mDataByteSize / sizeof(float);
            const float* in =
                input->mNumberBuffers > 0
                    ? static_cast<const float*>(input->mBuffers[i % input->mNumberBuffers].mData)
                    : nullptr;
            for (UInt32 f = 0; f < frames; ++f) {
                out[f] = in != nullptr ? in[f] * gain : 0.0f;
            }
        }
        self->cycles.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
};

class PipeWireRouting : public PipeWireBackend {
protected:
    // The engine's router, built by hand: a tap of the multi-output sink that excludes this
    // process and mutes the sink while tapped, and an aggregate of its members.
    void buildRouter() {
        TapDescription description;
        description.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
        description.deviceUID = "multi_output";
        description.processes = {processOf(::getpid())};
        description.name = "Brightmix Multi-Output Device Mix";
        description.isPrivate = true;
        description.isProcessRestoreEnabled = true;
        description.muteBehavior = kCATapMutedWhenTapped;
        ASSERT_EQ(hardware->createProcessTap(description, &tap), 0);
        std::string tapUID = text(tap, kAudioTapPropertyUID);
        ASSERT_FALSE(tapUID.empty());

        PropertyList::Array members;
        for (const char* uid : {"subwoofer", "desk_speakers"}) {
            members.push_back(PropertyList::dictionary({{"uid", PropertyList::string(uid)}}));
        }
        PropertyList description2 = PropertyList::dictionary(
            {{"name", PropertyList::string("Brightmix Private Router")},
             {"uid", PropertyList::string("com.corvale.brightmix.private.test-router")},
             {"subdevices", PropertyList::array(members)},
             {"master", PropertyList::string("subwoofer")},
             {"taps", PropertyList::array(
                          {PropertyList::dictionary({{"uid", PropertyList::string(tapUID)}})})},
             {"private", PropertyList::integer(1)},
             {"stacked", PropertyList::integer(0)}});
        ASSERT_EQ(hardware->createAggregateDevice(description2, &aggregate), 0);
        ASSERT_EQ(hardware->createIOProcID(aggregate, &GainRouter::ioProc, &router, &proc), 0);
    }

    void TearDown() override {
        if (!hardware) {
            return;
        }
        if (proc != nullptr) {
            EXPECT_EQ(hardware->stopDevice(aggregate, proc), 0);
            EXPECT_EQ(hardware->destroyIOProcID(aggregate, proc), 0);
        }
        if (aggregate != 0) {
            EXPECT_EQ(hardware->destroyAggregateDevice(aggregate), 0);
        }
        if (tap != 0) {
            EXPECT_EQ(hardware->destroyProcessTap(tap), 0);
        }
        EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    }

    GainRouter router;
    AudioObjectID tap = 0;
    AudioObjectID aggregate = 0;
    AudioDeviceIOProcID proc = nullptr;
};

TEST_F(PipeWireRouting, DescribesTheRouterAsTheEngineExpects) {
    buildRouter();
    // The tap: float32 at the graph's rate with the monitor's channels.
    AudioStreamBasicDescription format{};
    UInt32 size = sizeof(format);
    ASSERT_EQ(hardware->getPropertyData(tap, address(kAudioTapPropertyFormat), 0, nullptr, &size,
                                        &format),
              0);
    EXPECT_EQ(format.mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(format.mBitsPerChannel, 32u);
    EXPECT_TRUE(format.mFormatFlags & kAudioFormatFlagIsFloat);
    EXPECT_EQ(format.mChannelsPerFrame, 2u);
    EXPECT_EQ(format.mSampleRate, 48000.0);

    // The aggregate: one mono float stream per member port, in member order, the same
    // layout the members' own stream configurations give slot by slot.
    auto streams = ids(aggregate, kAudioDevicePropertyStreams, kAudioObjectPropertyScopeOutput);
    ASSERT_EQ(streams.size(), 3u);
    for (AudioObjectID stream : streams) {
        size = sizeof(format);
        ASSERT_EQ(hardware->getPropertyData(stream, address(kAudioStreamPropertyVirtualFormat), 0,
                                            nullptr, &size, &format),
                  0);
        EXPECT_EQ(format.mChannelsPerFrame, 1u);
        EXPECT_EQ(format.mBitsPerChannel, 32u);
    }
    EXPECT_EQ(bufferChannels(aggregate, kAudioObjectPropertyScopeOutput),
              (std::vector<UInt32>{1, 1, 1}));
    // Private: in no device list.
    auto devices = ids(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
    EXPECT_EQ(std::find(devices.begin(), devices.end(), aggregate), devices.end());
    EXPECT_EQ(device("com.corvale.brightmix.private.test-router"), 0u);
    // A tap that an aggregate still reads cannot go first.
    EXPECT_EQ(hardware->destroyProcessTap(tap), kAudioHardwareIllegalOperationError);
    // A second IOProc on the same filter is not offered.
    AudioDeviceIOProcID second = nullptr;
    EXPECT_EQ(hardware->createIOProcID(aggregate, &GainRouter::ioProc, &router, &second),
              kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(hardware->startDevice(aggregate, reinterpret_cast<AudioDeviceIOProcID>(0x999)),
              kAudioHardwareIllegalOperationError);
}

TEST_F(PipeWireRouting, TheRoutedPathReplacesTheDirectOneAndStopRestoresIt) {
    std::string file = testing::scratchDirectory() + "/routing-tone.wav";
    testing::writeToneFile(file, 1000, 0.5, 20);
    testing::MonitorCapture desk("desk_speakers", 2);
    testing::MonitorCapture sub("subwoofer", 1);
    testing::TonePlayer player(file, "multi_output");
    buildRouter();

    auto measure = [&](double* deskLeft, double* deskRight, double* subwoofer) {
        std::this_thread::sleep_for(250ms);
        desk.clear();
        sub.clear();
        ASSERT_TRUE(desk.waitFor(0.5));
        ASSERT_TRUE(sub.waitFor(0.5));
        *deskLeft = testing::peakDb(desk.channel(0));
        *deskRight = testing::peakDb(desk.channel(1));
        *subwoofer = testing::peakDb(sub.channel(0));
    };
    double left = 0, right = 0, low = 0;
    ASSERT_TRUE(eventually([&] {
        measure(&left, &right, &low);
        return left > -7;
    }));
    EXPECT_NEAR(left, -6.02, 0.1);
    EXPECT_NEAR(low, -6.02, 0.1);

    ASSERT_EQ(hardware->startDevice(aggregate, proc), 0);
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(true));
    measure(&left, &right, &low);
    // Half the amplitude, and nothing of the direct path on top of it.
    EXPECT_NEAR(left, -12.04, 0.1);
    EXPECT_NEAR(right, -12.04, 0.1);
    EXPECT_NEAR(low, -12.04, 0.1);
    EXPECT_GT(router.cycles.load(), 0u);
    auto records = pipewire::readMuteRecords(hardware->muteRecordPath());
    EXPECT_EQ(records, (std::vector<pipewire::MuteRecord>{{::getpid(), "multi_output"}}));

    ASSERT_EQ(hardware->stopDevice(aggregate, proc), 0);
    EXPECT_EQ(hardware->sinkMute("multi_output"), std::optional<bool>(false));
    EXPECT_TRUE(pipewire::readMuteRecords(hardware->muteRecordPath()).empty());
    std::uint64_t cyclesAtStop = router.cycles.load();
    measure(&left, &right, &low);
    EXPECT_NEAR(left, -6.02, 0.1);
    EXPECT_NEAR(low, -6.02, 0.1);
    EXPECT_EQ(router.cycles.load(), cyclesAtStop) << "the IOProc ran after stop returned";
}

} // namespace
} // namespace brightmix
