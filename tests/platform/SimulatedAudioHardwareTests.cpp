// The simulated hardware: the shared backend contract, and what tests of the engine and of
// playback detection rely on beyond it (tap audio, IO pumping without allocation, threaded
// IO, fault injection, leak accounting, Core Audio's quirks).
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

#include "platform/sim/SimulatedAudioHardware.h"
#include "tests/support/AllocationGuard.h"
#include "tests/support/AudioHardwareContract.h"

namespace brightmix {
namespace {

using Sim = SimulatedAudioHardware;
using testing::AudioHardwareContract;
using testing::AudioHardwareContractScene;

constexpr auto global = globalAddress;

// ---- The contract -------------------------------------------------------------------------

AudioHardwareContractScene simulationScene() {
    AudioHardwareContractScene scene;
    scene.name = "Simulation";
    scene.makeHardware = [] {
        auto sim = std::make_unique<Sim>();
        sim->addDevice({"A", "Desk Speakers", {2}});
        // The subwoofer has a microphone, as a display or a headset does: the aggregate
        // lists it ahead of the tap.
        sim->addDevice({"B", "Subwoofer", {1}, {1}});
        sim->setDefaultOutput(sim->addMultiOutputDevice("M", "Desk", {"A", "B"}, "A"));
        return std::unique_ptr<AudioHardware>(std::move(sim));
    };
    scene.runIO = [](AudioHardware& hardware, AudioObjectID device) {
        static_cast<Sim&>(hardware).pumpCycle(device, 128);
    };
    return scene;
}

AudioHardwareContractScene threadedSimulationScene() {
    AudioHardwareContractScene scene = simulationScene();
    scene.name = "ThreadedSimulation";
    const auto make = scene.makeHardware;
    scene.makeHardware = [make] {
        auto hardware = make();
        static_cast<Sim&>(*hardware).setThreadedMode(true, 64, std::chrono::microseconds(200));
        return hardware;
    };
    scene.runIO = [](AudioHardware&, AudioObjectID) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    };
    return scene;
}

INSTANTIATE_TEST_SUITE_P(Simulation, AudioHardwareContract,
                         ::testing::Values(simulationScene(), threadedSimulationScene()),
                         AudioHardwareContract::name);

// ---- Helpers ------------------------------------------------------------------------------

// Copies the first input buffer into every output buffer's channels (wrapping the input's
// channels) and counts cycles.
struct Passthrough {
    std::atomic<int> cycles{0};
    std::atomic<std::thread::id> thread{};
    float gain = 1.0f;
};

OSStatus passthroughIOProc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList* input,
                           const AudioTimeStamp*, AudioBufferList* output, const AudioTimeStamp*,
                           void* clientData) {
    auto* state = static_cast<Passthrough*>(clientData);
    state->thread.store(std::this_thread::get_id());
    const AudioBuffer* source =
        input->mNumberBuffers > 0 ? &input->mBuffers[input->mNumberBuffers - 1] : nullptr;
    for (UInt32 b = 0; b < output->mNumberBuffers; ++b) {
        AudioBuffer& target = output->mBuffers[b];
        if (source == nullptr || target.mData == nullptr || source->mNumberChannels == 0) continue;
        const UInt32 frames = target.mDataByteSize / (4 * target.mNumberChannels);
        const auto* in = static_cast<const float*>(source->mData);
        auto* out = static_cast<float*>(target.mData);
        for (UInt32 f = 0; f < frames; ++f) {
            for (UInt32 c = 0; c < target.mNumberChannels; ++c)
                out[f * target.mNumberChannels + c] +=
                    state->gain * in[f * source->mNumberChannels + c % source->mNumberChannels];
        }
    }
    state->cycles.fetch_add(1);
    return 0;
}

// A scene with a multi-output device of two members and a router over it.
class SimulatedRouterTest : public ::testing::Test {
protected:
    void SetUp() override {
        sim.addDevice({"A", "Left", {2}});
        sim.addDevice(Sim::DeviceSpec("B", "Sub", {1}, {1}).rate(44100));
        multi = sim.addMultiOutputDevice("M", "Desk", {"A", "B"}, "A");
        sim.setDefaultOutput(multi);
    }

    AudioObjectID makeTap(TapDescription::Kind kind, std::vector<AudioObjectID> processes,
                          int muteBehavior = kCATapUnmuted) {
        TapDescription description;
        description.kind = kind;
        description.processes = std::move(processes);
        description.deviceUID = "M";
        description.isPrivate = true;
        description.muteBehavior = muteBehavior;
        AudioObjectID tap = 0;
        EXPECT_EQ(sim.createProcessTap(description, &tap), 0);
        return tap;
    }

    std::string uidOf(AudioObjectID tap) {
        PropertyList value;
        sim.getPropertyValue(tap, global(kAudioTapPropertyUID), &value);
        return value.asString() != nullptr ? *value.asString() : "";
    }

    PropertyList description(const std::string& uid, std::vector<std::string> members,
                             std::vector<AudioObjectID> tapIDs, double channelsIn = 0) {
        PropertyList::Array memberEntries;
        for (const auto& member : members)
            memberEntries.emplace_back(PropertyList::Dictionary{
                {"uid", PropertyList(member)}, {"channels-in", PropertyList::real(channelsIn)}});
        PropertyList::Array tapEntries;
        for (const AudioObjectID tap : tapIDs)
            tapEntries.emplace_back(PropertyList::Dictionary{{"uid", PropertyList(uidOf(tap))}});
        return PropertyList::dictionary({{"uid", PropertyList(uid)},
                                         {"name", "Router"},
                                         {"subdevices", PropertyList(memberEntries)},
                                         {"taps", PropertyList(tapEntries)},
                                         {"private", PropertyList::boolean(true)}});
    }

    AudioObjectID makeAggregate(const PropertyList& desc) {
        AudioObjectID aggregate = 0;
        EXPECT_EQ(sim.createAggregateDevice(desc, &aggregate), 0);
        return aggregate;
    }

    AudioDeviceIOProcID startPassthrough(AudioObjectID aggregate, Passthrough& state) {
        AudioDeviceIOProcID proc = nullptr;
        EXPECT_EQ(sim.createIOProcID(aggregate, passthroughIOProc, &state, &proc), 0);
        EXPECT_EQ(sim.startDevice(aggregate, proc), 0);
        return proc;
    }

    // 'suse' through the raw property calls, as the engine uses them.
    OSStatus setUsage(AudioObjectID device, AudioDeviceIOProcID proc,
                      AudioObjectPropertyScope scope, const std::vector<UInt32>& flags) {
        std::vector<std::uint64_t> storage(ioProcStreamUsageSize(flags.size()) / 8 + 1);
        auto* usage = reinterpret_cast<AudioHardwareIOProcStreamUsage*>(storage.data());
        usage->mIOProc = proc;
        usage->mNumberStreams = UInt32(flags.size());
        std::memcpy(reinterpret_cast<char*>(storage.data()) +
                        offsetof(AudioHardwareIOProcStreamUsage, mStreamIsOn),
                    flags.data(), flags.size() * sizeof(UInt32));
        return sim.setPropertyData(device, {kAudioDevicePropertyIOProcStreamUsage, scope, 0}, 0,
                                   nullptr, UInt32(ioProcStreamUsageSize(flags.size())), usage);
    }

    Sim sim;
    AudioObjectID multi = 0;
};

// Remembers, per input buffer of the last cycle, its data pointer, byte size and first
// sample.
struct InputProbe {
    static constexpr UInt32 kMax = 8;
    UInt32 buffers = 0;
    const void* data[kMax] = {};
    UInt32 bytes[kMax] = {};
    UInt32 channels[kMax] = {};
    float first[kMax] = {};
};

OSStatus inputProbeIOProc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList* input,
                          const AudioTimeStamp*, AudioBufferList* output, const AudioTimeStamp*,
                          void* clientData) {
    auto* probe = static_cast<InputProbe*>(clientData);
    probe->buffers = input->mNumberBuffers;
    for (UInt32 i = 0; i < input->mNumberBuffers && i < InputProbe::kMax; ++i) {
        const AudioBuffer& buffer = input->mBuffers[i];
        probe->data[i] = buffer.mData;
        probe->bytes[i] = buffer.mDataByteSize;
        probe->channels[i] = buffer.mNumberChannels;
        probe->first[i] = buffer.mData ? *static_cast<const float*>(buffer.mData) : -99.0f;
    }
    // Marks every output buffer it is allowed to write.
    for (UInt32 i = 0; i < output->mNumberBuffers; ++i) {
        if (output->mBuffers[i].mData != nullptr)
            *static_cast<float*>(output->mBuffers[i].mData) = 1.0f;
    }
    return 0;
}

// ---- Taps ---------------------------------------------------------------------------------

TEST_F(SimulatedRouterTest, TapFormatsFollowTheirKind) {
    const auto channels = [&](AudioObjectID tap) {
        AudioStreamBasicDescription format{};
        UInt32 size = sizeof format;
        EXPECT_EQ(
            sim.getPropertyData(tap, global(kAudioTapPropertyFormat), 0, nullptr, &size, &format),
            0);
        return std::make_pair(format.mChannelsPerFrame, format.mSampleRate);
    };
    const auto own = sim.processObject(sim.currentProcessID());
    EXPECT_EQ(channels(makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {own})),
              std::make_pair(2u, 48000.0));
    EXPECT_EQ(channels(makeTap(TapDescription::Kind::stereoMixdownOfProcesses, {own})),
              std::make_pair(2u, 48000.0));

    const auto display = sim.addDevice(
        Sim::DeviceSpec("D", "Display", {8}).rate(96000).transport(kAudioDeviceTransportTypeHDMI));
    TapDescription perDevice;
    perDevice.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
    perDevice.deviceUID = "D";
    AudioObjectID tap = 0;
    ASSERT_EQ(sim.createProcessTap(perDevice, &tap), 0);
    EXPECT_EQ(channels(tap), std::make_pair(8u, 96000.0));

    AudioStreamBasicDescription integer{};
    integer.mFormatID = kAudioFormatLinearPCM;
    integer.mBitsPerChannel = 16;
    integer.mChannelsPerFrame = 2;
    sim.overrideTapFormat(integer);
    EXPECT_EQ(channels(makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {})).first,
              2u);
    sim.overrideTapFormat(std::nullopt);
    (void)display;
}

TEST_F(SimulatedRouterTest, TapCreationQuirksAndRefusals) {
    TapDescription description;
    description.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
    description.deviceUID = "no.such.device";
    AudioObjectID tap = 123;
    // Core Audio answers an unknown device with success and no tap.
    EXPECT_EQ(sim.createProcessTap(description, &tap), 0);
    EXPECT_EQ(tap, kAudioObjectUnknown);

    description.deviceUID = "M";
    description.stream = 1;
    EXPECT_EQ(sim.createProcessTap(description, &tap), kAudioHardwareBadStreamError);
    description.stream = 0;
    description.processes = {kAudioObjectUnknown};
    EXPECT_EQ(sim.createProcessTap(description, &tap), kAudioHardwareBadObjectError);
    EXPECT_EQ(sim.createProcessTap(description, nullptr), kAudio_ParamError);
    EXPECT_EQ(sim.liveTaps(), 0u);
}

// ---- Aggregates ---------------------------------------------------------------------------

TEST_F(SimulatedRouterTest, AggregateDescriptionsAreValidated) {
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    using D = PropertyList::Dictionary;
    using A = PropertyList::Array;
    struct Case {
        const char* what;
        PropertyList description;
        OSStatus status;
    };
    const PropertyList valid = description("agg", {"A"}, {tap});
    auto with = [&](const char* key, PropertyList value) {
        PropertyList copy = valid;
        (*copy.asDictionary())[key] = std::move(value);
        return copy;
    };
    PropertyList noUID = valid;
    noUID.asDictionary()->erase("uid");
    PropertyList publicAutostart = with("private", PropertyList::integer(0));
    (*publicAutostart.asDictionary())["tapautostart"] = PropertyList::boolean(true);
    const std::vector<Case> cases{
        {"not a dictionary", PropertyList(A{}), kAudio_ParamError},
        {"no uid", noUID, kAudio_ParamError},
        {"uid in use", with("uid", "A"), kAudioHardwareIllegalOperationError},
        {"name not a string", with("name", PropertyList::integer(1)), kAudio_ParamError},
        {"unknown member", with("subdevices", A{PropertyList(D{{"uid", "nope"}})}),
         kAudioHardwareBadDeviceError},
        {"member without uid", with("subdevices", A{PropertyList(D{{"drift", "1"}})}),
         kAudio_ParamError},
        {"member twice",
         with("subdevices", A{PropertyList(D{{"uid", "A"}}), PropertyList(D{{"uid", "A"}})}),
         kAudio_ParamError},
        {"drift not a number",
         with("subdevices", A{PropertyList(D{{"uid", "A"}, {"drift", "yes"}})}), kAudio_ParamError},
        {"unknown tap", with("taps", A{PropertyList(D{{"uid", "nope"}})}),
         kAudioHardwareBadObjectError},
        {"tap without uid", with("taps", A{PropertyList(D{})}), kAudio_ParamError},
        {"taps not a list", with("taps", "x"), kAudio_ParamError},
        {"autostart needs private", publicAutostart, kAudioHardwareIllegalOperationError},
    };
    for (const auto& c : cases) {
        AudioObjectID aggregate = 77;
        EXPECT_EQ(sim.createAggregateDevice(c.description, &aggregate), c.status) << c.what;
    }
    EXPECT_EQ(sim.liveAggregates(), 0u);
    EXPECT_EQ(sim.createAggregateDevice(valid, nullptr), kAudio_ParamError);
}

TEST_F(SimulatedRouterTest, AggregateLayoutFollowsMembersAndTaps) {
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto withInputs = makeAggregate(description("in", {"B", "A"}, {tap}, 1));
    // Outputs in member order: B's one mono stream, then A's stereo one; inputs: B's
    // hardware input first, the tap last.
    const auto outputs = sim.streams(withInputs, kAudioObjectPropertyScopeOutput);
    const auto inputs = sim.streams(withInputs, kAudioObjectPropertyScopeInput);
    ASSERT_EQ(outputs.size(), 2u);
    ASSERT_EQ(inputs.size(), 2u);
    Float64 rate = 0;
    UInt32 size = sizeof rate;
    sim.getPropertyData(withInputs, global(kAudioDevicePropertyNominalSampleRate), 0, nullptr,
                        &size, &rate);
    EXPECT_EQ(rate, 44100.0); // the first member is the clock without a main one

    // "channels-in": 0 leaves B's input in the list, as on the real system.
    const auto noInputs = makeAggregate(description("out", {"A", "B"}, {tap}, 0));
    EXPECT_EQ(sim.streams(noInputs, kAudioObjectPropertyScopeInput).size(), 2u);
    PropertyList members;
    sim.getPropertyValue(noInputs, global(kAudioAggregateDevicePropertyFullSubDeviceList),
                         &members);
    EXPECT_EQ(members, PropertyList(PropertyList::Array{PropertyList("A"), PropertyList("B")}));

    // A multi-output device as a member contributes no streams, as nested aggregates do.
    const auto nested = makeAggregate(description("nested", {"M"}, {tap}));
    EXPECT_TRUE(sim.streams(nested, kAudioObjectPropertyScopeOutput).empty());
    for (const auto id : {withInputs, noInputs, nested})
        EXPECT_EQ(sim.destroyAggregateDevice(id), 0);
}

// A headset's microphone inside a router: its streams come before the tap's, carry what it
// hears, and reach an IOProc only while that IOProc's stream usage has them on.
TEST_F(SimulatedRouterTest, MemberInputsComeFirstAndReachOnlyTheIOProcsThatUseThem) {
    const auto headset = sim.addDevice({"P", "Headset", {2}, {1, 2}});
    sim.setInputAudio(headset, [](std::uint64_t, UInt32 channel) { return 0.5f + float(channel); });
    sim.setInputAudio(sim.deviceID("B"), [](std::uint64_t, UInt32) { return -0.75f; });
    sim.addProcess({501, "com.example.player", true, {}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32 channel) { return 0.25f - float(channel); });
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"P", "A", "B"}, {tap}, 0));

    // Member order, then the tap: P's mono and stereo inputs, B's mono one, the stereo tap.
    const std::vector<UInt32> layout{1, 2, 1, 2};
    std::vector<UInt32> channels;
    for (const auto stream : sim.streams(aggregate, kAudioObjectPropertyScopeInput)) {
        AudioStreamBasicDescription format{};
        UInt32 size = sizeof format;
        sim.getPropertyData(stream, global(kAudioStreamPropertyVirtualFormat), 0, nullptr, &size,
                            &format);
        channels.push_back(format.mChannelsPerFrame);
    }
    EXPECT_EQ(channels, layout);

    InputProbe router;
    InputProbe other;
    AudioDeviceIOProcID routerProc = nullptr;
    AudioDeviceIOProcID otherProc = nullptr;
    ASSERT_EQ(sim.createIOProcID(aggregate, inputProbeIOProc, &router, &routerProc), 0);
    ASSERT_EQ(sim.createIOProcID(aggregate, inputProbeIOProc, &other, &otherProc), 0);
    EXPECT_EQ(sim.ioProcStreamUsage(aggregate, routerProc, kAudioObjectPropertyScopeInput),
              (std::vector<UInt32>{1, 1, 1, 1}));
    ASSERT_EQ(sim.startDevice(aggregate, routerProc), 0);
    EXPECT_EQ(sim.openHardwareInputs(aggregate), 3u); // every stream starts switched on
    sim.pumpCycle(aggregate, 16);
    ASSERT_EQ(router.buffers, 4u);
    EXPECT_EQ(
        (std::vector<float>{router.first[0], router.first[1], router.first[2], router.first[3]}),
        (std::vector<float>{0.5f, 1.5f, -0.75f, 0.25f}));

    // Off while running: the next cycle brings nulls with their byte sizes intact.
    ASSERT_EQ(setUsage(aggregate, routerProc, kAudioObjectPropertyScopeInput, {0, 0, 0, 1}), 0);
    EXPECT_EQ(sim.openHardwareInputs(aggregate), 0u);
    sim.pumpCycle(aggregate, 16);
    for (UInt32 i = 0; i < 3; ++i) {
        EXPECT_EQ(router.data[i], nullptr) << i;
        EXPECT_EQ(router.bytes[i], 16 * 4 * layout[i]) << i;
        EXPECT_EQ(router.channels[i], layout[i]) << i;
    }
    EXPECT_EQ(router.first[3], 0.25f);

    // The usage belongs to one IOProc: another one on the same device hears the microphones.
    ASSERT_EQ(sim.startDevice(aggregate, otherProc), 0);
    EXPECT_EQ(sim.openHardwareInputs(aggregate), 3u);
    sim.pumpCycle(aggregate, 16);
    EXPECT_EQ(other.first[0], 0.5f);
    EXPECT_EQ(router.data[0], nullptr);
    ASSERT_EQ(sim.stopDevice(aggregate, otherProc), 0);
    EXPECT_EQ(sim.openHardwareInputs(aggregate), 0u);

    // An output stream switched off is one the IOProc cannot write: the member stays silent.
    ASSERT_EQ(setUsage(aggregate, routerProc, kAudioObjectPropertyScopeOutput, {1, 0, 1}), 0);
    sim.pumpCycle(aggregate, 16);
    EXPECT_EQ(sim.memberOutput(aggregate, "P")[0], 1.0f);
    EXPECT_EQ(sim.memberOutput(aggregate, "A")[0], 0.0f);
    EXPECT_EQ(sim.memberOutput(aggregate, "B")[0], 1.0f);
    // A plain device's own IOProc opens its microphone too.
    Passthrough own;
    startPassthrough(headset, own);
    EXPECT_EQ(sim.openHardwareInputs(headset), 2u);
}

TEST_F(SimulatedRouterTest, StreamUsageRequestsAnswerAsCoreAudioDoes) {
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"A", "B"}, {tap}));
    Passthrough state;
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(sim.createIOProcID(aggregate, passthroughIOProc, &state, &proc), 0);
    AudioDeviceIOProcID elsewhere = nullptr;
    ASSERT_EQ(sim.createIOProcID(multi, passthroughIOProc, &state, &elsewhere), 0);
    const AudioObjectPropertyAddress input{kAudioDevicePropertyIOProcStreamUsage,
                                           kAudioObjectPropertyScopeInput, 0};

    // Inputs: B's microphone and the tap, 12 + 2 * 4 bytes. Outputs: A's and B's streams.
    UInt32 size = 0;
    EXPECT_EQ(sim.getPropertyDataSize(aggregate, input, 0, nullptr, &size), 0);
    EXPECT_EQ(size, 20u);
    EXPECT_EQ(sim.getPropertyDataSize(
                  aggregate,
                  {kAudioDevicePropertyIOProcStreamUsage, kAudioObjectPropertyScopeOutput, 0}, 0,
                  nullptr, &size),
              0);
    EXPECT_EQ(size, 20u);
    EXPECT_EQ(sim.getPropertyDataSize(aggregate, global(kAudioDevicePropertyIOProcStreamUsage), 0,
                                      nullptr, &size),
              kAudioHardwareUnknownPropertyError);
    bool isSettable = false;
    EXPECT_EQ(sim.isPropertySettable(aggregate, input, &isSettable), 0);
    EXPECT_TRUE(isSettable);

    // A read needs the IOProc filled in and room for every stream.
    std::uint64_t storage[4] = {};
    auto* usage = reinterpret_cast<AudioHardwareIOProcStreamUsage*>(storage);
    usage->mIOProc = proc;
    size = 20;
    ASSERT_EQ(sim.getPropertyData(aggregate, input, 0, nullptr, &size, usage), 0);
    EXPECT_EQ(size, 20u);
    EXPECT_EQ(usage->mNumberStreams, 2u);
    const auto* flags =
        reinterpret_cast<const UInt32*>(reinterpret_cast<const char*>(storage) +
                                        offsetof(AudioHardwareIOProcStreamUsage, mStreamIsOn));
    EXPECT_EQ(flags[0], 1u);
    EXPECT_EQ(flags[1], 1u);
    size = 16;
    EXPECT_EQ(sim.getPropertyData(aggregate, input, 0, nullptr, &size, usage),
              kAudioHardwareBadPropertySizeError);
    for (const AudioDeviceIOProcID stranger :
         {AudioDeviceIOProcID(nullptr), elsewhere,
          reinterpret_cast<AudioDeviceIOProcID>(std::uintptr_t(9999))}) {
        usage->mIOProc = stranger;
        size = 20;
        EXPECT_EQ(sim.getPropertyData(aggregate, input, 0, nullptr, &size, usage),
                  kAudioHardwareIllegalOperationError);
        EXPECT_EQ(setUsage(aggregate, stranger, kAudioObjectPropertyScopeInput, {0, 1}),
                  kAudioHardwareIllegalOperationError);
    }

    // A write names every stream of the direction, no more, no fewer; a refused one changes
    // nothing.
    EXPECT_EQ(setUsage(aggregate, proc, kAudioObjectPropertyScopeInput, {0}),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(setUsage(aggregate, proc, kAudioObjectPropertyScopeInput, {0, 0, 1}),
              kAudioHardwareBadPropertySizeError);
    usage->mIOProc = proc;
    usage->mNumberStreams = 2;
    EXPECT_EQ(sim.setPropertyData(aggregate, input, 0, nullptr, 24, usage),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(sim.setPropertyData(aggregate, input, 0, nullptr, 8, usage),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(sim.ioProcStreamUsage(aggregate, proc, kAudioObjectPropertyScopeInput),
              (std::vector<UInt32>{1, 1}));
    EXPECT_EQ(setUsage(aggregate, proc, kAudioObjectPropertyScopeInput, {0, 7}), 0);
    EXPECT_EQ(sim.ioProcStreamUsage(aggregate, proc, kAudioObjectPropertyScopeInput),
              (std::vector<UInt32>{0, 1}));
    EXPECT_EQ(sim.ioProcStreamUsage(aggregate, proc, kAudioObjectPropertyScopeOutput),
              (std::vector<UInt32>{1, 1}));
}

TEST_F(SimulatedRouterTest, PrivateTapNeedsAPrivateAggregateToStart) {
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    PropertyList desc = description("public", {"A"}, {tap});
    (*desc.asDictionary())["private"] = PropertyList::integer(0);
    const auto aggregate = makeAggregate(desc);
    Passthrough state;
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(sim.createIOProcID(aggregate, passthroughIOProc, &state, &proc), 0);
    EXPECT_EQ(sim.startDevice(aggregate, proc), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(sim.runningIOProcs(), 0u);
}

// ---- IO -----------------------------------------------------------------------------------

TEST_F(SimulatedRouterTest, TapsHearTheProcessesTheyCapture) {
    const auto own = sim.processObject(sim.currentProcessID());
    const auto player = sim.addProcess({501, "com.example.player", true, {multi}});
    sim.addProcess({502, "com.example.chime", true, {}});
    sim.addProcess({503, "com.example.quiet", false, {multi}});
    sim.setProcessAudio(501,
                        [](std::uint64_t, UInt32 channel) { return channel == 0 ? 0.5f : 0.25f; });
    sim.setProcessAudio(502, [](std::uint64_t, UInt32) { return 0.125f; });
    sim.setProcessAudio(503, [](std::uint64_t, UInt32) { return 1.0f; }); // not running
    sim.setProcessAudio(sim.currentProcessID(), [](std::uint64_t, UInt32) { return 2.0f; });

    struct Case {
        const char* what;
        TapDescription::Kind kind;
        std::vector<AudioObjectID> processes;
        float left;
        float right;
    };
    for (const auto& c : {
             Case{"global without us",
                  TapDescription::Kind::stereoGlobalExcludingProcesses,
                  {own},
                  0.625f,
                  0.375f},
             Case{"mixdown of the player",
                  TapDescription::Kind::stereoMixdownOfProcesses,
                  {player},
                  0.5f,
                  0.25f},
             Case{"what goes to M without us",
                  TapDescription::Kind::excludingProcessesOnDeviceStream,
                  {own},
                  0.625f,
                  0.375f},
         }) {
        const auto tap = makeTap(c.kind, c.processes);
        const auto aggregate =
            makeAggregate(description(std::string("agg ") + c.what, {"A"}, {tap}));
        Passthrough state;
        const auto proc = startPassthrough(aggregate, state);
        EXPECT_EQ(sim.pumpCycle(aggregate, 16), 1u) << c.what;
        const auto out = sim.memberOutput(aggregate, "A");
        ASSERT_EQ(out.size(), 32u) << c.what;
        EXPECT_FLOAT_EQ(out[0], c.left) << c.what;
        EXPECT_FLOAT_EQ(out[1], c.right) << c.what;
        EXPECT_EQ(sim.stopDevice(aggregate, proc), 0);
        EXPECT_EQ(sim.destroyIOProcID(aggregate, proc), 0);
        EXPECT_EQ(sim.destroyAggregateDevice(aggregate), 0);
        EXPECT_EQ(sim.destroyProcessTap(tap), 0);
    }
}

TEST_F(SimulatedRouterTest, PumpedCyclesFeedEveryMemberAndKeepTheirOutputs) {
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"A", "B"}, {tap}));
    Passthrough state;
    startPassthrough(aggregate, state);

    std::vector<float> input;
    for (int frame = 0; frame < 4; ++frame) {
        input.push_back(float(frame));
        input.push_back(-float(frame));
    }
    EXPECT_EQ(sim.pumpCycle(aggregate, input), 1u);
    EXPECT_EQ(sim.memberOutput(aggregate, "A"), (std::vector<float>{0, -0, 1, -1, 2, -2, 3, -3}));
    EXPECT_EQ(sim.memberOutput(aggregate, "B"), (std::vector<float>{0, 1, 2, 3}));
    EXPECT_EQ(sim.outputBuffer(aggregate, 1), sim.memberOutput(aggregate, "B"));
    EXPECT_TRUE(sim.memberOutput(aggregate, "B", 1).empty());
    EXPECT_TRUE(sim.memberOutput(aggregate, "C").empty());
    EXPECT_EQ(sim.runCycles(aggregate, 32, 3), 3u);
    EXPECT_EQ(sim.cyclesRun(aggregate), 4u);
    EXPECT_EQ(sim.memberOutput(aggregate, "B").size(), 32u);
}

TEST_F(SimulatedRouterTest, PumpingAllocatesNothingOncePrepared) {
    BRIGHTMIX_REQUIRE_ALLOCATION_GUARD();
    sim.addProcess({501, "com.example.player", true, {}});
    sim.setProcessAudio(501, [](std::uint64_t frame, UInt32) { return float(frame % 7) / 7.0f; });
    sim.setInputAudio(sim.deviceID("B"), [](std::uint64_t, UInt32) { return 0.5f; });
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"A", "B"}, {tap}));
    Passthrough first;
    Passthrough second;
    const auto firstProc = startPassthrough(aggregate, first);
    startPassthrough(aggregate, second);
    // One IOProc without B's microphone: its cycles take the prepared copy of the list.
    ASSERT_EQ(setUsage(aggregate, firstProc, kAudioObjectPropertyScopeInput, {0, 1}), 0);
    sim.pumpCycle(aggregate, 512);

    testing::AllocationGuard guard;
    for (int i = 0; i < 10; ++i)
        sim.pumpCycle(aggregate, 512);
    EXPECT_EQ(guard.allocations(), 0u);
    EXPECT_EQ(first.cycles.load(), 11);
    EXPECT_EQ(second.cycles.load(), 11);
}

TEST_F(SimulatedRouterTest, SeveralIOProcsAreMixed) {
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"B"}, {tap}));
    Passthrough half;
    half.gain = 0.5f;
    Passthrough quarter;
    quarter.gain = 0.25f;
    startPassthrough(aggregate, half);
    startPassthrough(aggregate, quarter);
    sim.pumpCycle(aggregate, std::vector<float>{1, 1, 1, 1});
    EXPECT_EQ(sim.memberOutput(aggregate, "B"), (std::vector<float>{0.75f, 0.75f}));
}

TEST_F(SimulatedRouterTest, SilenceAndMissingCallbacks) {
    sim.addProcess({501, "com.example.player", true, {}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 1.0f; });
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"A"}, {tap}));
    Passthrough state;
    const auto proc = startPassthrough(aggregate, state);

    sim.setTapsDeliverSilence(true);
    sim.pumpCycle(aggregate, 4);
    EXPECT_EQ(sim.memberOutput(aggregate, "A"), std::vector<float>(8, 0.0f));
    sim.setTapsDeliverSilence(false);
    sim.pumpCycle(aggregate, 4);
    EXPECT_EQ(sim.memberOutput(aggregate, "A"), std::vector<float>(8, 1.0f));

    sim.setCallbacksSuppressed(aggregate, true);
    EXPECT_EQ(sim.pumpCycle(aggregate, 4), 0u);
    EXPECT_EQ(state.cycles.load(), 2);
    sim.setCallbacksSuppressed(aggregate, false);
    sim.stopDevice(aggregate, proc);
    EXPECT_EQ(sim.pumpCycle(aggregate, 4), 0u);
    EXPECT_EQ(state.cycles.load(), 2);
}

TEST_F(SimulatedRouterTest, ThreadedModeRunsCyclesOnAnotherThreadUntilStop) {
    sim.setThreadedMode(true, 64, std::chrono::microseconds(100));
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"A", "B"}, {tap}));
    Passthrough state;
    const auto proc = startPassthrough(aggregate, state);
    for (int i = 0; i < 2000 && state.cycles.load() < 5; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GE(state.cycles.load(), 5);
    EXPECT_NE(state.thread.load(), std::this_thread::get_id());
    EXPECT_EQ(sim.pumpCycle(aggregate, 64), 0u); // the thread owns the device's IO

    EXPECT_EQ(sim.stopDevice(aggregate, proc), 0);
    const int stopped = state.cycles.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(state.cycles.load(), stopped);
    EXPECT_EQ(sim.destroyIOProcID(aggregate, proc), 0);
    EXPECT_EQ(sim.destroyAggregateDevice(aggregate), 0);
}

TEST_F(SimulatedRouterTest, ThreadedIOSurvivesRestartsAndReadsFromTheMainThread) {
    sim.setThreadedMode(true, 32, std::chrono::microseconds(50));
    sim.addProcess({501, "com.example.player", true, {}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.5f; });
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"A", "B"}, {tap}));
    Passthrough state;
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(sim.createIOProcID(aggregate, passthroughIOProc, &state, &proc), 0);
    for (int round = 0; round < 20; ++round) {
        const int before = state.cycles.load();
        ASSERT_EQ(sim.startDevice(aggregate, proc), 0);
        while (state.cycles.load() == before) {
            // The main thread keeps using the hardware while the IO thread runs.
            UInt32 running = 0;
            UInt32 size = sizeof running;
            sim.getPropertyData(aggregate, global(kAudioDevicePropertyDeviceIsRunning), 0, nullptr,
                                &size, &running);
            EXPECT_EQ(running, 1u);
            const auto out = sim.memberOutput(aggregate, "B");
            if (!out.empty()) {
                EXPECT_FLOAT_EQ(out[0], 0.5f);
            }
            std::this_thread::yield();
        }
        ASSERT_EQ(sim.stopDevice(aggregate, proc), 0);
    }
    EXPECT_GE(sim.cyclesRun(aggregate), 20u);
    EXPECT_EQ(sim.destroyIOProcID(aggregate, proc), 0);
    EXPECT_EQ(sim.destroyAggregateDevice(aggregate), 0);
}

TEST_F(SimulatedRouterTest, MutedWhenTappedSilencesTheDirectPathWhileRunning) {
    const auto a = sim.deviceID("A");
    const auto other = sim.addDevice({"X", "Elsewhere"});
    const auto tap =
        makeTap(TapDescription::Kind::excludingProcessesOnDeviceStream, {}, kCATapMutedWhenTapped);
    const auto aggregate = makeAggregate(description("router", {"A", "B"}, {tap}));
    EXPECT_FALSE(sim.isDirectPathMuted(a));
    Passthrough state;
    const auto proc = startPassthrough(aggregate, state);
    EXPECT_TRUE(sim.isDirectPathMuted(a));
    EXPECT_TRUE(sim.isDirectPathMuted(multi));
    EXPECT_FALSE(sim.isDirectPathMuted(other));
    sim.stopDevice(aggregate, proc);
    EXPECT_FALSE(sim.isDirectPathMuted(a));
}

// ---- Faults and leaks ---------------------------------------------------------------------

TEST_F(SimulatedRouterTest, FaultsApplyOnceOrAlways) {
    AudioObjectID tap = 0;
    sim.failNext(Sim::Call::createProcessTap, kAudioHardwareIllegalOperationError);
    EXPECT_EQ(sim.createProcessTap({}, &tap), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(sim.createProcessTap({}, &tap), 0);
    sim.failAlways(Sim::Call::startDevice, kAudioHardwareNotRunningError);
    EXPECT_EQ(sim.startDevice(multi, nullptr), kAudioHardwareNotRunningError);
    EXPECT_EQ(sim.startDevice(multi, nullptr), kAudioHardwareNotRunningError);
    sim.clearFaults();
    EXPECT_EQ(sim.startDevice(multi, nullptr), 0);
    EXPECT_EQ(sim.callCount(Sim::Call::createProcessTap), 2u);

    UInt32 transport = 0;
    UInt32 size = sizeof transport;
    sim.failProperty(multi, kAudioDevicePropertyTransportType, OSStatus(fourCharCode("boom")),
                     Sim::Times::once);
    EXPECT_EQ(sim.getPropertyData(multi, global(kAudioDevicePropertyTransportType), 0, nullptr,
                                  &size, &transport),
              OSStatus(fourCharCode("boom")));
    EXPECT_EQ(sim.getPropertyData(multi, global(kAudioDevicePropertyTransportType), 0, nullptr,
                                  &size, &transport),
              0);
    EXPECT_EQ(transport, kAudioDeviceTransportTypeAggregate);
    // Any object: the fault follows the selector everywhere.
    sim.failProperty(kAudioObjectUnknown, kAudioObjectPropertyName, kAudioHardwareBadObjectError);
    PropertyList name;
    EXPECT_EQ(sim.getPropertyValue(sim.deviceID("A"), global(kAudioObjectPropertyName), &name),
              kAudioHardwareBadObjectError);
    sim.failNext(Sim::Call::hasProperty, 1);
    EXPECT_FALSE(sim.hasProperty(multi, global(kAudioDevicePropertyDeviceUID)));
    EXPECT_TRUE(sim.hasProperty(multi, global(kAudioDevicePropertyDeviceUID)));
}

TEST_F(SimulatedRouterTest, LeakAccountingSeesWhatIsLeftBehind) {
    const auto tap = makeTap(TapDescription::Kind::stereoGlobalExcludingProcesses, {});
    const auto aggregate = makeAggregate(description("router", {"A"}, {tap}));
    Passthrough state;
    startPassthrough(aggregate, state);
    EXPECT_EQ(sim.liveTaps(), 1u);
    EXPECT_EQ(sim.liveAggregates(), 1u);
    EXPECT_EQ(sim.liveIOProcs(), 1u);
    EXPECT_EQ(sim.runningIOProcs(), 1u);

    // The tap is in use; destroying the aggregate takes its IOProcs with it.
    EXPECT_EQ(sim.destroyProcessTap(tap), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(sim.destroyAggregateDevice(multi), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(sim.destroyAggregateDevice(aggregate), 0);
    EXPECT_EQ(sim.liveIOProcs(), 0u);
    EXPECT_EQ(sim.destroyProcessTap(tap), 0);
    EXPECT_EQ(sim.liveTaps(), 0u);
    EXPECT_EQ(sim.liveAggregates(), 0u);
    EXPECT_EQ(sim.destroyProcessTap(tap), kAudioHardwareBadObjectError);
    EXPECT_EQ(sim.destroyAggregateDevice(aggregate), kAudioHardwareBadObjectError);
}

TEST_F(SimulatedRouterTest, IOProcCallsAnswerCoreAudioStatuses) {
    Passthrough state;
    AudioDeviceIOProcID proc = nullptr;
    EXPECT_EQ(sim.createIOProcID(999, passthroughIOProc, &state, &proc),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(sim.createIOProcID(multi, nullptr, &state, &proc), kAudio_ParamError);
    ASSERT_EQ(sim.createIOProcID(multi, passthroughIOProc, &state, &proc), 0);
    const auto stranger = reinterpret_cast<AudioDeviceIOProcID>(std::uintptr_t(9999));
    EXPECT_EQ(sim.startDevice(multi, stranger), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(sim.startDevice(sim.deviceID("A"), proc), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(sim.stopDevice(multi, proc), 0); // not started: nothing to do
    EXPECT_EQ(sim.startDevice(multi, proc), 0);
    EXPECT_EQ(sim.startDevice(multi, proc), 0);
    EXPECT_EQ(sim.runningIOProcs(), 1u);
    UInt32 running = 0;
    UInt32 size = sizeof running;
    sim.getPropertyData(multi, global(kAudioDevicePropertyDeviceIsRunning), 0, nullptr, &size,
                        &running);
    EXPECT_EQ(running, 1u);
    EXPECT_EQ(sim.destroyIOProcID(multi, proc), 0); // stops it first
    EXPECT_EQ(sim.runningIOProcs(), 0u);
    EXPECT_EQ(sim.destroyIOProcID(multi, proc), kAudioHardwareIllegalOperationError);
}

// ---- Scene changes ------------------------------------------------------------------------

TEST(SimulatedAudioHardware, ObjectIDsAreDeterministic) {
    const auto build = [] {
        Sim sim;
        std::vector<AudioObjectID> ids{sim.addDevice({"A", "Left", {2, 2}}),
                                       sim.addMultiOutputDevice("M", "Group", {"A"}),
                                       sim.addProcess({501})};
        TapDescription description;
        AudioObjectID tap = 0;
        sim.createProcessTap(description, &tap);
        ids.push_back(tap);
        return ids;
    };
    EXPECT_EQ(build(), build());
}

TEST(SimulatedAudioHardware, VanishingAndReturningDevices) {
    Sim sim;
    const auto a = sim.addDevice({"A", "Left"});
    const auto display = sim.addDevice(
        Sim::DeviceSpec("D1", "Display", {2, 2}).transport(kAudioDeviceTransportTypeHDMI));
    const auto mic = sim.addDevice({"mic", "Mic", {}, {1}});
    const auto player = sim.addProcess({501, "com.example.player", true, {display, a}});
    sim.setDefaultOutput(display);
    sim.setDefaultInput(mic);

    const auto returned = sim.replaceDeviceUID(display, "D2");
    EXPECT_NE(returned, display);
    EXPECT_EQ(sim.deviceID("D1"), kAudioObjectUnknown);
    EXPECT_EQ(sim.deviceID("D2"), returned);
    EXPECT_EQ(sim.streams(returned, kAudioObjectPropertyScopeOutput).size(), 2u);
    EXPECT_EQ(sim.defaultOutput(), a); // fell back to the first output device

    UInt32 size = 0;
    sim.getPropertyDataSize(player, global(kAudioProcessPropertyDevices), 0, nullptr, &size);
    EXPECT_EQ(size, sizeof(AudioObjectID)); // the process forgot the vanished device

    sim.removeDevice(mic);
    EXPECT_EQ(sim.defaultInput(), kAudioObjectUnknown);
    EXPECT_THROW(sim.removeDevice(mic), std::invalid_argument);
    EXPECT_EQ(sim.hasProperty(mic, global(kAudioDevicePropertyDeviceUID)), false);
}

TEST(SimulatedAudioHardware, PropertyAccessFollowsCoreAudiosRules) {
    Sim sim;
    const auto a = sim.addDevice(Sim::DeviceSpec("A", "Left", {2}).volumeControl(1, true));
    UInt32 size = 0;
    EXPECT_EQ(sim.getPropertyDataSize(a, global(kAudioDevicePropertyDeviceUID), 0, nullptr, &size),
              0);
    EXPECT_EQ(size, 8u); // a CF reference
    char raw[8];
    size = sizeof raw;
    EXPECT_EQ(sim.getPropertyData(a, global(kAudioDevicePropertyDeviceUID), 0, nullptr, &size, raw),
              kAudioHardwareUnsupportedOperationError);
    PropertyList value;
    EXPECT_EQ(sim.getPropertyValue(a, global(kAudioDevicePropertyTransportType), &value),
              kAudioHardwareUnsupportedOperationError);
    EXPECT_EQ(sim.getPropertyValue(a, global(kAudioAggregateDevicePropertyComposition), &value),
              kAudioHardwareUnknownPropertyError);

    const AudioObjectPropertyAddress volume{kAudioDevicePropertyVolumeScalar,
                                            kAudioObjectPropertyScopeOutput, 1};
    const Float32 half = 0.5f;
    EXPECT_EQ(sim.setPropertyData(a, volume, 0, nullptr, sizeof half, &half), 0);
    EXPECT_FLOAT_EQ(sim.volumeScalar(a, 1), 0.5f);
    EXPECT_EQ(sim.setPropertyData(a, volume, 0, nullptr, 2, &half),
              kAudioHardwareBadPropertySizeError);
    EXPECT_EQ(sim.setPropertyData(a, global(kAudioDevicePropertyTransportType), 0, nullptr,
                                  sizeof half, &half),
              kAudioHardwareIllegalOperationError);

    // The PID translation needs its 4-byte qualifier.
    AudioObjectID object = 0;
    size = sizeof object;
    EXPECT_EQ(sim.getPropertyData(kAudioObjectSystemObject,
                                  global(kAudioHardwarePropertyTranslatePIDToProcessObject), 0,
                                  nullptr, &size, &object),
              kAudioHardwareBadPropertySizeError);
    // The default output accepts only output devices.
    const auto mic = sim.addDevice({"mic", "Mic", {}, {1}});
    EXPECT_EQ(sim.setPropertyData(kAudioObjectSystemObject,
                                  global(kAudioHardwarePropertyDefaultOutputDevice), 0, nullptr,
                                  sizeof mic, &mic),
              kAudioHardwareIllegalOperationError);
    const AudioObjectID nothing = 5;
    EXPECT_EQ(sim.setPropertyData(kAudioObjectSystemObject,
                                  global(kAudioHardwarePropertyDefaultOutputDevice), 0, nullptr,
                                  sizeof nothing, &nothing),
              kAudioHardwareBadDeviceError);
}

TEST(SimulatedAudioHardware, CompositionWritesAreValidatedAndKeepListsConsistent) {
    Sim sim;
    sim.addDevice({"A", "Left"});
    sim.addDevice({"B", "Right"});
    const auto multi = sim.addMultiOutputDevice("M", "Desk", {"A", "B"}, "B");
    const auto acom = global(kAudioAggregateDevicePropertyComposition);
    EXPECT_EQ(sim.setPropertyValue(multi, acom, PropertyList("x")), kAudio_ParamError);
    EXPECT_EQ(sim.setPropertyValue(multi, acom,
                                   PropertyList::dictionary({{"subdevices", PropertyList("A")}})),
              kAudio_ParamError);
    PropertyList composition = sim.composition(multi);
    (*composition.asDictionary())["master"] = PropertyList("A");
    (*composition.asDictionary())["subdevices"] =
        PropertyList(PropertyList::Array{PropertyList(PropertyList::Dictionary{{"uid", "C"}})});
    ASSERT_EQ(sim.setPropertyValue(multi, acom, composition), 0);
    PropertyList members;
    PropertyList main;
    sim.getPropertyValue(multi, global(kAudioAggregateDevicePropertyFullSubDeviceList), &members);
    sim.getPropertyValue(multi, global(kAudioAggregateDevicePropertyMainSubDevice), &main);
    EXPECT_EQ(members, PropertyList(PropertyList::Array{PropertyList("C")}));
    EXPECT_EQ(main, PropertyList("A"));
    (*composition.asDictionary()).erase("master");
    ASSERT_EQ(sim.setPropertyValue(multi, acom, composition), 0);
    sim.getPropertyValue(multi, global(kAudioAggregateDevicePropertyMainSubDevice), &main);
    EXPECT_TRUE(main.isNull());
}

} // namespace
} // namespace brightmix
