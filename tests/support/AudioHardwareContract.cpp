// The AudioHardware contract: every test leaves the system as it found it, which TearDown
// checks through the device and tap lists.
#include "tests/support/AudioHardwareContract.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>

namespace brightmix::testing {

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(AudioHardwareContract);

namespace {

constexpr auto global = globalAddress;

constexpr const char* kContractPrefix = "com.corvale.brightmix.private.contract.";

// Counts the cycles an IOProc saw and remembers the shape of the last one.
struct CallbackProbe {
    std::atomic<int> cycles{0};
    std::atomic<UInt32> inputBuffers{0};
    std::atomic<UInt32> outputBuffers{0};
    std::atomic<UInt32> firstOutputChannels{0};
};

OSStatus probeIOProc(AudioObjectID, const AudioTimeStamp*, const AudioBufferList* input,
                     const AudioTimeStamp*, AudioBufferList* output, const AudioTimeStamp*,
                     void* clientData) {
    auto* probe = static_cast<CallbackProbe*>(clientData);
    probe->inputBuffers.store(input != nullptr ? input->mNumberBuffers : 0);
    probe->outputBuffers.store(output != nullptr ? output->mNumberBuffers : 0);
    if (output != nullptr && output->mNumberBuffers > 0)
        probe->firstOutputChannels.store(output->mBuffers[0].mNumberChannels);
    probe->cycles.fetch_add(1);
    return 0;
}

bool isFloat32(const AudioStreamBasicDescription& format) {
    return format.mFormatID == kAudioFormatLinearPCM && format.mBitsPerChannel == 32 &&
           (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
}

} // namespace

void AudioHardwareContract::SetUp() {
    hardware_ = scene().makeHardware ? scene().makeHardware() : nullptr;
    if (!hardware_) GTEST_SKIP() << "no " << scene().name << " hardware here";
    devicesAtStart_ = objectList(kAudioObjectSystemObject, kAudioHardwarePropertyDevices).size();
    tapsAtStart_ = objectList(kAudioObjectSystemObject, kAudioHardwarePropertyTapList).size();
}

void AudioHardwareContract::TearDown() {
    if (!hardware_) return;
    EXPECT_EQ(objectList(kAudioObjectSystemObject, kAudioHardwarePropertyDevices).size(),
              devicesAtStart_)
        << "a device was left behind";
    EXPECT_EQ(objectList(kAudioObjectSystemObject, kAudioHardwarePropertyTapList).size(),
              tapsAtStart_)
        << "a tap was left behind";
}

std::vector<AudioObjectID> AudioHardwareContract::objectList(AudioObjectID object,
                                                             AudioObjectPropertySelector selector,
                                                             AudioObjectPropertyScope scope) {
    const AudioObjectPropertyAddress address{selector, scope, kAudioObjectPropertyElementMain};
    UInt32 size = 0;
    EXPECT_EQ(hardware().getPropertyDataSize(object, address, 0, nullptr, &size), 0);
    std::vector<AudioObjectID> ids(size / sizeof(AudioObjectID));
    UInt32 ioSize = static_cast<UInt32>(ids.size() * sizeof(AudioObjectID));
    EXPECT_EQ(hardware().getPropertyData(object, address, 0, nullptr, &ioSize, ids.data()), 0);
    ids.resize(ioSize / sizeof(AudioObjectID));
    return ids;
}

AudioObjectID AudioHardwareContract::deviceWithUID(const std::string& uid) {
    for (const AudioObjectID id :
         objectList(kAudioObjectSystemObject, kAudioHardwarePropertyDevices)) {
        PropertyList value;
        if (hardware().getPropertyValue(id, global(kAudioDevicePropertyDeviceUID), &value) == 0 &&
            value.asString() != nullptr && *value.asString() == uid)
            return id;
    }
    return kAudioObjectUnknown;
}

std::vector<UInt32> AudioHardwareContract::streamChannels(AudioObjectID device,
                                                          AudioObjectPropertyScope scope) {
    const AudioObjectPropertyAddress address{kAudioDevicePropertyStreamConfiguration, scope,
                                             kAudioObjectPropertyElementMain};
    UInt32 size = 0;
    if (hardware().getPropertyDataSize(device, address, 0, nullptr, &size) != 0) return {};
    std::vector<AudioBuffer> storage(size / sizeof(AudioBuffer) + 1);
    UInt32 ioSize = size;
    if (hardware().getPropertyData(device, address, 0, nullptr, &ioSize, storage.data()) != 0)
        return {};
    const auto* list = reinterpret_cast<const AudioBufferList*>(storage.data());
    std::vector<UInt32> channels;
    for (UInt32 i = 0; i < list->mNumberBuffers; ++i)
        channels.push_back(list->mBuffers[i].mNumberChannels);
    return channels;
}

AudioObjectID AudioHardwareContract::ownProcessObject() {
    const std::int32_t pid = hardware().currentProcessID();
    AudioObjectID object = kAudioObjectUnknown;
    UInt32 size = sizeof object;
    const OSStatus status = hardware().getPropertyData(
        kAudioObjectSystemObject, global(kAudioHardwarePropertyTranslatePIDToProcessObject),
        sizeof pid, &pid, &size, &object);
    return status == 0 ? object : kAudioObjectUnknown;
}

AudioObjectID AudioHardwareContract::makeGlobalTap() {
    TapDescription description;
    description.kind = TapDescription::Kind::stereoGlobalExcludingProcesses;
    if (const AudioObjectID own = ownProcessObject()) description.processes = {own};
    description.name = "Contract Tap";
    description.isPrivate = true;
    description.muteBehavior = kCATapUnmuted;
    AudioObjectID tap = kAudioObjectUnknown;
    EXPECT_EQ(hardware().createProcessTap(description, &tap), 0);
    EXPECT_NE(tap, kAudioObjectUnknown);
    return tap;
}

std::string AudioHardwareContract::tapUID(AudioObjectID tap) {
    PropertyList value;
    EXPECT_EQ(hardware().getPropertyValue(tap, global(kAudioTapPropertyUID), &value), 0);
    return value.asString() != nullptr ? *value.asString() : std::string();
}

PropertyList AudioHardwareContract::routerDescription(const std::string& uid,
                                                      const std::string& tap) const {
    using D = PropertyList::Dictionary;
    using A = PropertyList::Array;
    const auto member = [](const std::string& memberUID, int drift) {
        return PropertyList(D{{kAudioSubDeviceUIDKey, PropertyList(memberUID)},
                              {kAudioSubDeviceInputChannelsKey, PropertyList::integer(0)},
                              {kAudioSubDeviceDriftCompensationKey, PropertyList::integer(drift)}});
    };
    return PropertyList(D{
        {kAudioAggregateDeviceNameKey, PropertyList("Contract Router")},
        {kAudioAggregateDeviceUIDKey, PropertyList(uid)},
        {kAudioAggregateDeviceSubDeviceListKey,
         A{member(scene().firstMemberUID, 0), member(scene().secondMemberUID, 1)}},
        {kAudioAggregateDeviceMainSubDeviceKey, PropertyList(scene().firstMemberUID)},
        {kAudioAggregateDeviceTapListKey,
         A{PropertyList(D{{kAudioSubTapUIDKey, PropertyList(tap)},
                          {kAudioSubTapDriftCompensationKey, PropertyList::integer(1)}})}},
        {kAudioAggregateDeviceIsPrivateKey, PropertyList::integer(1)},
        {kAudioAggregateDeviceIsStackedKey, PropertyList::integer(0)},
    });
}

// ---- Properties ---------------------------------------------------------------------------

TEST_P(AudioHardwareContract, ListsTheSceneWithUIDsNamesAndChannels) {
    const AudioObjectID multi = deviceWithUID(scene().multiOutputUID);
    const AudioObjectID first = deviceWithUID(scene().firstMemberUID);
    const AudioObjectID second = deviceWithUID(scene().secondMemberUID);
    ASSERT_NE(multi, kAudioObjectUnknown);
    ASSERT_NE(first, kAudioObjectUnknown);
    ASSERT_NE(second, kAudioObjectUnknown);

    for (const AudioObjectID device : {multi, first, second}) {
        EXPECT_TRUE(hardware().hasProperty(device, global(kAudioObjectPropertyName)));
        PropertyList name;
        EXPECT_EQ(hardware().getPropertyValue(device, global(kAudioObjectPropertyName), &name), 0);
        ASSERT_NE(name.asString(), nullptr);
        EXPECT_FALSE(name.asString()->empty());
        UInt32 transport = 0;
        UInt32 size = sizeof transport;
        EXPECT_EQ(hardware().getPropertyData(device, global(kAudioDevicePropertyTransportType), 0,
                                             nullptr, &size, &transport),
                  0);
        EXPECT_EQ(size, sizeof transport);
    }
    const auto firstChannels = streamChannels(first, kAudioObjectPropertyScopeOutput);
    const auto secondChannels = streamChannels(second, kAudioObjectPropertyScopeOutput);
    UInt32 total = 0;
    for (const UInt32 channels : firstChannels)
        total += channels;
    EXPECT_EQ(total, scene().firstMemberChannels);
    total = 0;
    for (const UInt32 channels : secondChannels)
        total += channels;
    EXPECT_EQ(total, scene().secondMemberChannels);

    PropertyList members;
    EXPECT_EQ(hardware().getPropertyValue(
                  multi, global(kAudioAggregateDevicePropertyFullSubDeviceList), &members),
              0);
    EXPECT_EQ(members, PropertyList(PropertyList::Array{PropertyList(scene().firstMemberUID),
                                                        PropertyList(scene().secondMemberUID)}));
}

TEST_P(AudioHardwareContract, AnswersCoreAudioStatusesForBadRequests) {
    const AudioObjectID first = deviceWithUID(scene().firstMemberUID);
    ASSERT_NE(first, kAudioObjectUnknown);
    const AudioObjectID nobody = 0x7FFFFF00;
    UInt32 value = 0;
    UInt32 size = sizeof value;
    EXPECT_EQ(hardware().getPropertyData(nobody, global(kAudioDevicePropertyTransportType), 0,
                                         nullptr, &size, &value),
              kAudioHardwareBadObjectError);
    EXPECT_FALSE(hardware().hasProperty(nobody, global(kAudioDevicePropertyTransportType)));

    const AudioObjectPropertyAddress unknown = global(fourCharCode("zzzz"));
    EXPECT_FALSE(hardware().hasProperty(first, unknown));
    size = sizeof value;
    EXPECT_EQ(hardware().getPropertyData(first, unknown, 0, nullptr, &size, &value),
              kAudioHardwareUnknownPropertyError);

    std::uint16_t tooSmall = 0;
    size = sizeof tooSmall;
    EXPECT_EQ(hardware().getPropertyData(first, global(kAudioDevicePropertyTransportType), 0,
                                         nullptr, &size, &tooSmall),
              kAudioHardwareBadPropertySizeError);
}

TEST_P(AudioHardwareContract, ReadsAndWritesTheDefaultOutput) {
    AudioObjectID original = kAudioObjectUnknown;
    UInt32 size = sizeof original;
    const auto address = global(kAudioHardwarePropertyDefaultOutputDevice);
    ASSERT_EQ(
        hardware().getPropertyData(kAudioObjectSystemObject, address, 0, nullptr, &size, &original),
        0);
    const AudioObjectID first = deviceWithUID(scene().firstMemberUID);
    const OSStatus status = hardware().setPropertyData(kAudioObjectSystemObject, address, 0,
                                                       nullptr, sizeof first, &first);
    if (!scene().canSetDefaultOutput) {
        EXPECT_NE(status, 0);
        return;
    }
    ASSERT_EQ(status, 0);
    AudioObjectID now = kAudioObjectUnknown;
    size = sizeof now;
    EXPECT_EQ(
        hardware().getPropertyData(kAudioObjectSystemObject, address, 0, nullptr, &size, &now), 0);
    EXPECT_EQ(now, first);
    const std::uint16_t bad = 1;
    EXPECT_EQ(
        hardware().setPropertyData(kAudioObjectSystemObject, address, 0, nullptr, sizeof bad, &bad),
        kAudioHardwareBadPropertySizeError);
    if (original != kAudioObjectUnknown)
        hardware().setPropertyData(kAudioObjectSystemObject, address, 0, nullptr, sizeof original,
                                   &original);
}

TEST_P(AudioHardwareContract, TranslatesProcessIDsWithCoreAudiosQuirk) {
    const AudioObjectID own = ownProcessObject();
    ASSERT_NE(own, kAudioObjectUnknown) << "this program has no process object";
    const auto processes =
        objectList(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
    EXPECT_NE(std::find(processes.begin(), processes.end(), own), processes.end());
    std::int32_t pid = 0;
    UInt32 size = sizeof pid;
    EXPECT_EQ(
        hardware().getPropertyData(own, global(kAudioProcessPropertyPID), 0, nullptr, &size, &pid),
        0);
    EXPECT_EQ(pid, hardware().currentProcessID());

    // An unknown PID is answered with no object and no error.
    const std::int32_t unknownPID = 0x7FFFFFF0;
    AudioObjectID object = 99;
    size = sizeof object;
    EXPECT_EQ(hardware().getPropertyData(kAudioObjectSystemObject,
                                         global(kAudioHardwarePropertyTranslatePIDToProcessObject),
                                         sizeof unknownPID, &unknownPID, &size, &object),
              0);
    EXPECT_EQ(object, kAudioObjectUnknown);
}

// ---- Taps and aggregates --------------------------------------------------------------------

TEST_P(AudioHardwareContract, CreatesReadsAndDestroysTaps) {
    const AudioObjectID tap = makeGlobalTap();
    ASSERT_NE(tap, kAudioObjectUnknown);
    EXPECT_FALSE(tapUID(tap).empty());
    AudioStreamBasicDescription format{};
    UInt32 size = sizeof format;
    EXPECT_EQ(hardware().getPropertyData(tap, global(kAudioTapPropertyFormat), 0, nullptr, &size,
                                         &format),
              0);
    EXPECT_EQ(size, sizeof format);
    EXPECT_TRUE(isFloat32(format));
    EXPECT_EQ(format.mChannelsPerFrame, 2u);
    EXPECT_GT(format.mSampleRate, 0.0);
    EXPECT_EQ(objectList(kAudioObjectSystemObject, kAudioHardwarePropertyTapList).size(),
              tapsAtStart_ + 1);

    EXPECT_EQ(hardware().destroyProcessTap(tap), 0);
    EXPECT_NE(hardware().destroyProcessTap(tap), 0);

    // A per-device tap takes the channel count of the stream it taps.
    TapDescription perDevice;
    perDevice.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
    perDevice.deviceUID = scene().firstMemberUID;
    perDevice.stream = 0;
    perDevice.isPrivate = true;
    AudioObjectID deviceTap = kAudioObjectUnknown;
    ASSERT_EQ(hardware().createProcessTap(perDevice, &deviceTap), 0);
    ASSERT_NE(deviceTap, kAudioObjectUnknown);
    size = sizeof format;
    EXPECT_EQ(hardware().getPropertyData(deviceTap, global(kAudioTapPropertyFormat), 0, nullptr,
                                         &size, &format),
              0);
    // Core Audio takes the tapped stream's layout; a backend whose streams are mono ports may
    // tap the whole device. Either way the tap carries no more channels than the device has.
    EXPECT_TRUE(isFloat32(format));
    EXPECT_GE(format.mChannelsPerFrame, 1u);
    EXPECT_LE(format.mChannelsPerFrame, scene().firstMemberChannels);
    EXPECT_EQ(hardware().destroyProcessTap(deviceTap), 0);
}

TEST_P(AudioHardwareContract, AggregateOutputsAreTheMembersStreamsInOrder) {
    const AudioObjectID tap = makeGlobalTap();
    ASSERT_NE(tap, kAudioObjectUnknown);
    const std::string uid = std::string(kContractPrefix) + "router";
    AudioObjectID aggregate = kAudioObjectUnknown;
    ASSERT_EQ(hardware().createAggregateDevice(routerDescription(uid, tapUID(tap)), &aggregate), 0);
    ASSERT_NE(aggregate, kAudioObjectUnknown);

    std::vector<UInt32> expected =
        streamChannels(deviceWithUID(scene().firstMemberUID), kAudioObjectPropertyScopeOutput);
    const auto second =
        streamChannels(deviceWithUID(scene().secondMemberUID), kAudioObjectPropertyScopeOutput);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(streamChannels(aggregate, kAudioObjectPropertyScopeOutput), expected);

    const auto streams =
        objectList(aggregate, kAudioDevicePropertyStreams, kAudioObjectPropertyScopeOutput);
    EXPECT_EQ(streams.size(), expected.size());
    for (const AudioObjectID stream : streams) {
        AudioStreamBasicDescription format{};
        UInt32 size = sizeof format;
        EXPECT_EQ(hardware().getPropertyData(stream, global(kAudioStreamPropertyVirtualFormat), 0,
                                             nullptr, &size, &format),
                  0);
        EXPECT_TRUE(isFloat32(format));
    }
    Float64 rate = 0;
    UInt32 size = sizeof rate;
    EXPECT_EQ(hardware().getPropertyData(aggregate, global(kAudioDevicePropertyNominalSampleRate),
                                         0, nullptr, &size, &rate),
              0);
    EXPECT_GT(rate, 0.0);
    PropertyList readUID;
    EXPECT_EQ(
        hardware().getPropertyValue(aggregate, global(kAudioDevicePropertyDeviceUID), &readUID), 0);
    EXPECT_EQ(readUID, PropertyList(uid));

    EXPECT_EQ(hardware().destroyAggregateDevice(aggregate), 0);
    EXPECT_EQ(deviceWithUID(uid), kAudioObjectUnknown);
    EXPECT_EQ(hardware().destroyProcessTap(tap), 0);
}

// The engine finds its tap in the aggregate's input list by this rule: the members' own
// input streams first, in member order, then the tap's streams, which together carry the
// tap's channels.
TEST_P(AudioHardwareContract, AggregateInputsEndWithTheTapsStreams) {
    const AudioObjectID tap = makeGlobalTap();
    ASSERT_NE(tap, kAudioObjectUnknown);
    AudioStreamBasicDescription format{};
    UInt32 size = sizeof format;
    ASSERT_EQ(hardware().getPropertyData(tap, global(kAudioTapPropertyFormat), 0, nullptr, &size,
                                         &format),
              0);
    AudioObjectID aggregate = kAudioObjectUnknown;
    ASSERT_EQ(
        hardware().createAggregateDevice(
            routerDescription(std::string(kContractPrefix) + "inputs", tapUID(tap)), &aggregate),
        0);

    std::vector<UInt32> members =
        streamChannels(deviceWithUID(scene().firstMemberUID), kAudioObjectPropertyScopeInput);
    const auto second =
        streamChannels(deviceWithUID(scene().secondMemberUID), kAudioObjectPropertyScopeInput);
    members.insert(members.end(), second.begin(), second.end());
    const std::vector<UInt32> inputs = streamChannels(aggregate, kAudioObjectPropertyScopeInput);
    ASSERT_GT(inputs.size(), members.size()) << "the tap did not reach the aggregate";
    EXPECT_EQ(std::vector<UInt32>(inputs.begin(), inputs.begin() + std::ptrdiff_t(members.size())),
              members);
    UInt32 tapChannels = 0;
    for (std::size_t i = members.size(); i < inputs.size(); ++i)
        tapChannels += inputs[i];
    EXPECT_EQ(tapChannels, format.mChannelsPerFrame);

    EXPECT_EQ(hardware().destroyAggregateDevice(aggregate), 0);
    EXPECT_EQ(hardware().destroyProcessTap(tap), 0);
}

TEST_P(AudioHardwareContract, RefusesAggregatesWithUnknownMembersOrTaps) {
    const AudioObjectID tap = makeGlobalTap();
    ASSERT_NE(tap, kAudioObjectUnknown);
    AudioObjectID aggregate = kAudioObjectUnknown;

    PropertyList unknownMember =
        routerDescription(std::string(kContractPrefix) + "bad1", tapUID(tap));
    (*unknownMember.asDictionary())[kAudioAggregateDeviceSubDeviceListKey] =
        PropertyList(PropertyList::Array{PropertyList(
            PropertyList::Dictionary{{kAudioSubDeviceUIDKey, PropertyList("no.such.device")}})});
    EXPECT_NE(hardware().createAggregateDevice(unknownMember, &aggregate), 0);

    PropertyList unknownTap = routerDescription(std::string(kContractPrefix) + "bad2",
                                                "00000000-0000-0000-0000-000000000000");
    EXPECT_NE(hardware().createAggregateDevice(unknownTap, &aggregate), 0);
    EXPECT_NE(hardware().createAggregateDevice(PropertyList("not a dictionary"), &aggregate), 0);
    EXPECT_EQ(hardware().destroyProcessTap(tap), 0);
}

// ---- IOProcs --------------------------------------------------------------------------------

TEST_P(AudioHardwareContract, RunsAnIOProcBetweenStartAndStop) {
    const AudioObjectID tap = makeGlobalTap();
    ASSERT_NE(tap, kAudioObjectUnknown);
    AudioObjectID aggregate = kAudioObjectUnknown;
    ASSERT_EQ(hardware().createAggregateDevice(
                  routerDescription(std::string(kContractPrefix) + "io", tapUID(tap)), &aggregate),
              0);
    CallbackProbe probe;
    AudioDeviceIOProcID proc = nullptr;
    ASSERT_EQ(hardware().createIOProcID(aggregate, probeIOProc, &probe, &proc), 0);
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(hardware().startDevice(aggregate, proc), 0);

    for (int attempt = 0; attempt < 50 && probe.cycles.load() == 0; ++attempt)
        scene().runIO(hardware(), aggregate);
    EXPECT_GT(probe.cycles.load(), 0);
    EXPECT_EQ(probe.outputBuffers.load(),
              streamChannels(aggregate, kAudioObjectPropertyScopeOutput).size());
    EXPECT_EQ(probe.firstOutputChannels.load(),
              streamChannels(deviceWithUID(scene().firstMemberUID), kAudioObjectPropertyScopeOutput)
                  .at(0));
    EXPECT_GE(probe.inputBuffers.load(), 1u);

    EXPECT_EQ(hardware().stopDevice(aggregate, proc), 0);
    const int afterStop = probe.cycles.load();
    scene().runIO(hardware(), aggregate);
    EXPECT_EQ(probe.cycles.load(), afterStop) << "a callback ran after stop returned";

    EXPECT_EQ(hardware().destroyIOProcID(aggregate, proc), 0);
    EXPECT_NE(hardware().startDevice(aggregate, proc), 0) << "a destroyed IOProc started";
    EXPECT_EQ(hardware().destroyAggregateDevice(aggregate), 0);
    EXPECT_EQ(hardware().destroyProcessTap(tap), 0);
}

// ---- Compositions ---------------------------------------------------------------------------

TEST_P(AudioHardwareContract, RewritesACompositionOrRefusesClearly) {
    const AudioObjectID multi = deviceWithUID(scene().multiOutputUID);
    ASSERT_NE(multi, kAudioObjectUnknown);
    const auto address = global(kAudioAggregateDevicePropertyComposition);
    PropertyList composition;
    ASSERT_EQ(hardware().getPropertyValue(multi, address, &composition), 0);
    ASSERT_NE(composition.asDictionary(), nullptr);
    const auto* members = composition.find(kAudioAggregateDeviceSubDeviceListKey);
    ASSERT_TRUE(members != nullptr && members->asArray() != nullptr);
    ASSERT_EQ(members->asArray()->size(), 2u);

    PropertyList reversed = composition;
    auto& list = *(*reversed.asDictionary())[kAudioAggregateDeviceSubDeviceListKey].asArray();
    std::swap(list[0], list[1]);
    const OSStatus status = hardware().setPropertyValue(multi, address, reversed);
    PropertyList order;
    ASSERT_EQ(hardware().getPropertyValue(
                  multi, global(kAudioAggregateDevicePropertyFullSubDeviceList), &order),
              0);
    if (!scene().canRewriteComposition) {
        EXPECT_NE(status, 0);
        EXPECT_EQ(order, PropertyList(PropertyList::Array{PropertyList(scene().firstMemberUID),
                                                          PropertyList(scene().secondMemberUID)}));
        return;
    }
    ASSERT_EQ(status, 0);
    EXPECT_EQ(order, PropertyList(PropertyList::Array{PropertyList(scene().secondMemberUID),
                                                      PropertyList(scene().firstMemberUID)}));
    EXPECT_EQ(hardware().setPropertyValue(multi, address, composition), 0);
}

} // namespace brightmix::testing
