// The device service against the simulated hardware: records, lists, look-ups, the default
// device, playing processes, the reconnection map and the composition repair.
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <unordered_set>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/AudioDeviceService.h"
#include "platform/sim/SimulatedAudioHardware.h"

namespace brightmix {
namespace {

using Sim = SimulatedAudioHardware;

constexpr AudioObjectPropertyAddress
address(AudioObjectPropertySelector selector,
        AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal) {
    return {selector, scope, kAudioObjectPropertyElementMain};
}

std::vector<std::string> uidsOf(const std::vector<AudioDevice>& devices) {
    std::vector<std::string> uids;
    for (const auto& device : devices)
        uids.push_back(device.uid);
    return uids;
}

class AudioDeviceServiceTest : public ::testing::Test {
protected:
    Sim sim;
    AudioDeviceService service{sim};
};

// ---- Records ------------------------------------------------------------------------------

TEST_F(AudioDeviceServiceTest, BuildsRecordsFromEveryProperty) {
    sim.addDevice(
        Sim::DeviceSpec("A", "Left", {2, 2}, {1}).transport(kAudioDeviceTransportTypeUSB));
    sim.addDevice({"B", "Sub", {1}});
    const auto multi = sim.addMultiOutputDevice("M", "Desk", {"A", "B"}, "B");

    const auto devices = service.devices();
    ASSERT_EQ(uidsOf(devices), (std::vector<std::string>{"A", "B", "M"}));
    const AudioDevice& a = devices[0];
    EXPECT_EQ(a.name, "Left");
    EXPECT_EQ(a.outputChannels, 4);
    EXPECT_EQ(a.inputChannels, 1);
    EXPECT_TRUE(a.subdeviceUIDs.empty());
    EXPECT_FALSE(a.mainSubdeviceUID.has_value());
    EXPECT_EQ(a.transportType, kAudioDeviceTransportTypeUSB);
    EXPECT_FALSE(a.isMultiOutput());

    const AudioDevice& m = devices[2];
    EXPECT_EQ(m.id, multi);
    EXPECT_EQ(m.subdeviceUIDs, (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(m.mainSubdeviceUID, "B");
    EXPECT_EQ(m.transportType, kAudioDeviceTransportTypeAggregate);
    EXPECT_TRUE(m.isMultiOutput());
}

TEST_F(AudioDeviceServiceTest, LeavesOutDevicesMissingChannelsUIDOrName) {
    sim.addDevice({"silent", "No Streams", {}, {}});
    const auto noUID = sim.addDevice({"x", "No UID"});
    sim.hideProperty(noUID, kAudioDevicePropertyDeviceUID);
    const auto noName = sim.addDevice({"y", "No Name"});
    sim.failProperty(noName, kAudioObjectPropertyName, kAudioHardwareUnspecifiedError);
    const auto nullName = sim.addDevice({"z", "Null Name"});
    sim.overridePropertyValue(nullName, address(kAudioObjectPropertyName), PropertyList());
    const auto dictUID = sim.addDevice({"w", "Dictionary UID"});
    sim.overridePropertyValue(dictUID, address(kAudioDevicePropertyDeviceUID),
                              PropertyList::dictionary({{"uid", "w"}}));
    sim.addDevice({"ok", "Fine"});

    EXPECT_EQ(uidsOf(service.devices()), (std::vector<std::string>{"ok"}));
}

TEST_F(AudioDeviceServiceTest, UnreadableOptionalFieldsTakeTheirDefaults) {
    const auto id = sim.addDevice({"A", "Left"});
    sim.failProperty(id, kAudioDevicePropertyTransportType, kAudioHardwareBadObjectError);
    // An odd-sized answer is no transport type either.
    const auto other = sim.addDevice({"B", "Right"});
    sim.overridePropertyData(other, address(kAudioDevicePropertyTransportType), {1, 2, 3});

    const auto devices = service.devices();
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].transportType, 0u);
    EXPECT_EQ(devices[1].transportType, 0u);
}

TEST_F(AudioDeviceServiceTest, SubDeviceListOfTheWrongShapeIsEmpty) {
    const auto multi = sim.addMultiOutputDevice("M", "Desk", {"A", "B"});
    sim.overridePropertyValue(multi, address(kAudioAggregateDevicePropertyFullSubDeviceList),
                              PropertyList::array({PropertyList("A"), PropertyList::integer(2)}));
    const auto devices = service.devices();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_TRUE(devices[0].subdeviceUIDs.empty());
}

TEST_F(AudioDeviceServiceTest, HidesPrivateDevicesEvenAsTheDefault) {
    sim.addDevice({"A", "Left"});
    const auto hidden = sim.addDevice({std::string(kPrivateDeviceUIDPrefix) + "router", "Router"});
    sim.setDefaultOutput(hidden);

    EXPECT_EQ(uidsOf(service.devices()), (std::vector<std::string>{"A"}));
    EXPECT_EQ(service.defaultDeviceID(kAudioHardwarePropertyDefaultOutputDevice), hidden);
    EXPECT_FALSE(service.defaultOutputDevice().has_value());
}

TEST_F(AudioDeviceServiceTest, FailedDeviceListIsEmpty) {
    sim.addDevice({"A", "Left"});
    for (const auto call : {Sim::Call::getPropertyDataSize, Sim::Call::getPropertyData}) {
        sim.failNext(call, kAudioHardwareNotRunningError);
        EXPECT_TRUE(service.devices().empty());
    }
    EXPECT_EQ(service.devices().size(), 1u);
}

TEST_F(AudioDeviceServiceTest, OddSizedDeviceListKeepsWholeIDs) {
    const auto a = sim.addDevice({"A", "Left"});
    std::vector<std::uint8_t> bytes(sizeof a + 3, 0);
    std::memcpy(bytes.data(), &a, sizeof a);
    sim.overridePropertyData(kAudioObjectSystemObject, address(kAudioHardwarePropertyDevices),
                             bytes);
    EXPECT_EQ(service.propertyIDs(kAudioObjectSystemObject, kAudioHardwarePropertyDevices,
                                  kAudioObjectPropertyScopeGlobal),
              std::vector<AudioObjectID>{a});
    sim.overridePropertyData(kAudioObjectSystemObject, address(kAudioHardwarePropertyDevices),
                             {1, 2, 3});
    EXPECT_TRUE(service.devices().empty());
}

TEST_F(AudioDeviceServiceTest, PropertyIDsNamesTheFailingStep) {
    sim.failNext(Sim::Call::getPropertyDataSize, kAudioHardwareBadObjectError);
    try {
        service.propertyIDs(kAudioObjectSystemObject, kAudioHardwarePropertyDevices,
                            kAudioObjectPropertyScopeGlobal);
        FAIL() << "no error";
    } catch (const AudioDeviceError& error) {
        EXPECT_EQ(error.localizedDescription(), "Reading audio property size failed ('!obj').");
    }
    sim.failNext(Sim::Call::getPropertyData, kAudioHardwareBadObjectError);
    try {
        service.propertyIDs(kAudioObjectSystemObject, kAudioHardwarePropertyDevices,
                            kAudioObjectPropertyScopeGlobal);
        FAIL() << "no error";
    } catch (const AudioDeviceError& error) {
        EXPECT_EQ(error.localizedDescription(), "Reading audio property failed ('!obj').");
    }
}

TEST_F(AudioDeviceServiceTest, ChannelCountsSurviveBadStreamConfigurations) {
    const auto id = sim.addDevice({"A", "Left", {2, 1}, {4}});
    EXPECT_EQ(service.channelCount(id, kAudioObjectPropertyScopeOutput), 3);
    EXPECT_EQ(service.bufferCount(id, kAudioObjectPropertyScopeOutput), 2);
    EXPECT_EQ(service.channelCount(id, kAudioObjectPropertyScopeInput), 4);

    // A list that claims ten buffers but carries one is read as the one it carries.
    std::vector<std::uint8_t> bytes(8 + sizeof(AudioBuffer), 0);
    const UInt32 claimed = 10;
    std::memcpy(bytes.data(), &claimed, 4);
    const UInt32 channels = 6;
    std::memcpy(bytes.data() + 8, &channels, 4);
    sim.overridePropertyData(
        id, address(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeOutput),
        bytes);
    EXPECT_EQ(service.channelCount(id, kAudioObjectPropertyScopeOutput), 6);
    EXPECT_EQ(service.bufferCount(id, kAudioObjectPropertyScopeOutput), 1);

    sim.overridePropertyData(
        id, address(kAudioDevicePropertyStreamConfiguration, kAudioObjectPropertyScopeInput),
        {1, 0, 0});
    EXPECT_EQ(service.channelCount(id, kAudioObjectPropertyScopeInput), 0);
    sim.failProperty(id, kAudioDevicePropertyStreamConfiguration, kAudioHardwareBadObjectError);
    EXPECT_EQ(service.channelCount(id, kAudioObjectPropertyScopeOutput), 0);
}

TEST(AudioDeviceRecord, EqualityAndHashCoverEveryField) {
    AudioDevice base;
    base.id = 7;
    base.uid = "A";
    base.name = "Left";
    base.subdeviceUIDs = {"x", "y"};
    base.mainSubdeviceUID = "x";
    base.inputChannels = 1;
    base.outputChannels = 2;
    base.supportsNativeVolume = true;
    base.transportType = kAudioDeviceTransportTypeUSB;
    const AudioDeviceHash hash;
    AudioDevice same = base;
    EXPECT_EQ(same, base);
    EXPECT_EQ(hash(same), hash(base));

    std::vector<AudioDevice> variants(9, base);
    variants[0].id = 8;
    variants[1].uid = "B";
    variants[2].name = "Right";
    variants[3].subdeviceUIDs = {"xy"};
    variants[4].mainSubdeviceUID.reset();
    variants[5].inputChannels = 0;
    variants[6].outputChannels = 3;
    variants[7].supportsNativeVolume = false;
    variants[8].transportType = 0;
    std::unordered_set<AudioDevice, AudioDeviceHash> set{base};
    for (const auto& variant : variants) {
        EXPECT_NE(variant, base);
        EXPECT_TRUE(set.insert(variant).second);
    }
    // Moving a string between the member list and the main member is a different device.
    AudioDevice moved = base;
    moved.subdeviceUIDs = {"x"};
    moved.mainSubdeviceUID = "y";
    EXPECT_NE(hash(moved), hash(base));
}

// ---- Native volume ------------------------------------------------------------------------

struct VolumeCase {
    const char* what;
    std::vector<UInt32> outputs;
    std::vector<std::pair<UInt32, bool>> controls; // element, settable
    bool expected;
};

class NativeVolumeTest : public ::testing::TestWithParam<VolumeCase> {};

TEST_P(NativeVolumeTest, ProbesMainElementThenEachChannel) {
    const auto& param = GetParam();
    Sim sim;
    Sim::DeviceSpec setup("A", "Device", param.outputs, {1});
    for (const auto& [element, settable] : param.controls)
        setup.volumeControl(element, settable);
    sim.addDevice(setup);
    const auto devices = AudioDeviceService(sim).devices();
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].supportsNativeVolume, param.expected) << param.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, NativeVolumeTest,
    ::testing::Values(VolumeCase{"main element", {2}, {{0, true}}, true},
                      VolumeCase{"only channel 2 of 2", {2}, {{2, true}}, true},
                      VolumeCase{"none settable", {2}, {{0, false}, {1, false}, {2, false}}, false},
                      VolumeCase{"no control", {2}, {}, false},
                      VolumeCase{"channel beyond the count", {2}, {{3, true}}, false},
                      VolumeCase{"no outputs tests element 0 only", {}, {{1, true}}, false},
                      VolumeCase{"no outputs, main element", {}, {{0, true}}, true}));

TEST_F(AudioDeviceServiceTest, FailedSettabilityQueryIsNoNativeVolume) {
    sim.addDevice(Sim::DeviceSpec("A", "Left").volumeControl(0));
    sim.failAlways(Sim::Call::isPropertySettable, kAudioHardwareUnspecifiedError);
    ASSERT_EQ(service.devices().size(), 1u);
    EXPECT_FALSE(service.devices()[0].supportsNativeVolume);
}

// ---- Look-ups -----------------------------------------------------------------------------

TEST_F(AudioDeviceServiceTest, LookUpsByUIDKeepTheGivenOrder) {
    sim.addDevice({"A", "Left"});
    sim.addDevice({"B", "Right"});
    sim.addDevice({"C", "Centre"});
    EXPECT_EQ(service.device("B")->name, "Right");
    EXPECT_FALSE(service.device("b").has_value());
    EXPECT_EQ(uidsOf(service.devices(std::vector<std::string>{"C", "missing", "A"})),
              (std::vector<std::string>{"C", "A"}));
}

TEST_F(AudioDeviceServiceTest, RepeatedUIDResolvesToTheFirstDevice) {
    const auto first = sim.addDevice({"A", "First"});
    sim.addDevice({"A", "Second"});
    const auto found = service.devices(std::vector<std::string>{"A"});
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].id, first);
}

TEST_F(AudioDeviceServiceTest, OutputAndInputListsFilterByChannels) {
    sim.addDevice({"out", "Speaker", {2}});
    sim.addDevice({"in", "Mic", {}, {1}});
    sim.addDevice({"both", "Headset", {2}, {1}});
    const auto all = service.devices();
    EXPECT_EQ(uidsOf(AudioDeviceService::outputDevices(all)),
              (std::vector<std::string>{"out", "both"}));
    EXPECT_EQ(uidsOf(AudioDeviceService::inputDevices(all)),
              (std::vector<std::string>{"in", "both"}));
}

TEST_F(AudioDeviceServiceTest, DefaultDeviceAndSampleRate) {
    const auto a = sim.addDevice(Sim::DeviceSpec("A", "Left").rate(44100));
    EXPECT_FALSE(service.defaultDeviceID(kAudioHardwarePropertyDefaultOutputDevice));
    sim.setDefaultOutput(a);
    EXPECT_EQ(service.defaultOutputDevice()->uid, "A");
    EXPECT_EQ(service.nominalSampleRate(a), 44100.0);

    sim.setNominalSampleRate(a, 0);
    EXPECT_FALSE(service.nominalSampleRate(a).has_value());
    sim.setNominalSampleRate(a, std::nan(""));
    EXPECT_FALSE(service.nominalSampleRate(a).has_value());
    EXPECT_FALSE(service.nominalSampleRate(999).has_value());

    sim.failProperty(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice,
                     kAudioHardwareUnspecifiedError, Sim::Times::once);
    EXPECT_FALSE(service.defaultOutputDevice().has_value());
    EXPECT_TRUE(service.defaultOutputDevice().has_value());
}

TEST_F(AudioDeviceServiceTest, SettingTheDefaultWritesTheSystemObject) {
    const auto a = sim.addDevice({"A", "Left"});
    const auto mic = sim.addDevice({"mic", "Mic", {}, {1}});
    service.setDefaultDevice(*service.device("A"), kAudioHardwarePropertyDefaultOutputDevice);
    EXPECT_EQ(sim.defaultOutput(), a);
    service.setDefaultDevice(*service.device("mic"), kAudioHardwarePropertyDefaultInputDevice);
    EXPECT_EQ(sim.defaultInput(), mic);

    sim.failNext(Sim::Call::setPropertyData, kAudioDevicePermissionsError);
    try {
        service.setDefaultDevice(*service.device("A"), kAudioHardwarePropertyDefaultOutputDevice);
        FAIL() << "no error";
    } catch (const AudioDeviceError& error) {
        EXPECT_EQ(error.localizedDescription(), "Selecting Left failed ('!hog').");
    }
    // A stale record whose device vanished is refused by the hardware.
    const AudioDevice stale = *service.device("A");
    sim.removeDevice(a);
    EXPECT_THROW(service.setDefaultDevice(stale, kAudioHardwarePropertyDefaultOutputDevice),
                 AudioDeviceError);
}

TEST_F(AudioDeviceServiceTest, ProcessObjectOfUnknownPIDIsNone) {
    const auto process = sim.addProcess({501, "com.example.player"});
    EXPECT_EQ(service.processObjectID(501), process);
    EXPECT_EQ(service.processObjectID(sim.currentProcessID()),
              sim.processObject(sim.currentProcessID()));
    EXPECT_FALSE(service.processObjectID(777).has_value());
    sim.failNext(Sim::Call::getPropertyData, kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(service.processObjectID(501).has_value());
}

// ---- Playing processes --------------------------------------------------------------------

class PlayingProcessesTest : public AudioDeviceServiceTest {
protected:
    void SetUp() override {
        speakers = sim.addDevice({"A", "Speakers"});
        headphones = sim.addDevice({"B", "Headphones"});
    }
    AudioObjectID speakers = 0;
    AudioObjectID headphones = 0;
};

TEST_F(PlayingProcessesTest, CountsRunningOutputToTheDevice) {
    sim.addProcess({501, "com.example.idle", false, {speakers}});
    sim.addProcess({502, "com.example.elsewhere", true, {headphones}});
    EXPECT_FALSE(service.isAnotherProcessPlaying(speakers, sim.currentProcessID()));
    EXPECT_TRUE(service.playingProcessIDs(speakers, sim.currentProcessID()).empty());

    sim.addProcess({503, "com.example.player", true, {headphones, speakers}});
    EXPECT_TRUE(service.isAnotherProcessPlaying(speakers, sim.currentProcessID()));
    EXPECT_EQ(service.playingProcessIDs(speakers, sim.currentProcessID()),
              (std::vector<std::int32_t>{503}));
    EXPECT_EQ(service.playingProcessIDs(headphones, sim.currentProcessID()),
              (std::vector<std::int32_t>{502, 503}));
    EXPECT_FALSE(service.isAnotherProcessPlaying(speakers, 503));
}

TEST_F(PlayingProcessesTest, OutputWithoutDevicesPlaysEverywhere) {
    sim.addProcess({501, "com.example.player", true, {}});
    EXPECT_TRUE(service.isAnotherProcessPlaying(speakers, 0));
    EXPECT_TRUE(service.isAnotherProcessPlaying(12345, 0));
    EXPECT_EQ(service.playingProcessIDs(headphones, 0), (std::vector<std::int32_t>{501}));
}

TEST_F(PlayingProcessesTest, UnreadableDeviceListCountsAsEmpty) {
    const auto process = sim.addProcess({501, "com.example.player", true, {headphones}});
    sim.failProperty(process, kAudioProcessPropertyDevices, kAudioHardwareBadObjectError);
    EXPECT_TRUE(service.isAnotherProcessPlaying(speakers, 0));
}

TEST_F(PlayingProcessesTest, UnreadablePIDExcludesOnlyFromTheList) {
    const auto process = sim.addProcess({501, "com.example.player", true, {speakers}});
    sim.failProperty(process, kAudioProcessPropertyPID, kAudioHardwareBadObjectError);
    // The exclusion cannot apply to a process whose PID is unknown...
    EXPECT_TRUE(service.isAnotherProcessPlaying(speakers, 501));
    // ...and the list has no PID to report for it.
    EXPECT_TRUE(service.playingProcessIDs(speakers, 0).empty());
}

TEST_F(PlayingProcessesTest, UnreadableRunningFlagOrProcessListIsNotPlaying) {
    const auto process = sim.addProcess({501, "com.example.player", true, {speakers}});
    sim.failProperty(process, kAudioProcessPropertyIsRunningOutput, kAudioHardwareBadObjectError,
                     Sim::Times::once);
    EXPECT_FALSE(service.isAnotherProcessPlaying(speakers, 0));
    sim.failNext(Sim::Call::getPropertyDataSize, kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(service.isAnotherProcessPlaying(speakers, 0));
    sim.failNext(Sim::Call::getPropertyDataSize, kAudioHardwareUnspecifiedError);
    EXPECT_TRUE(service.playingProcessIDs(speakers, 0).empty());
    EXPECT_TRUE(service.isAnotherProcessPlaying(speakers, 0));
}

// ---- Display order ------------------------------------------------------------------------

TEST(AudioDeviceDisplayOrder, MultiOutputFirstThenNaturalNames) {
    const auto make = [](std::string name, std::size_t members) {
        AudioDevice device;
        device.name = std::move(name);
        device.uid = device.name;
        device.subdeviceUIDs.assign(members, "x");
        return device;
    };
    const auto sorted = AudioDeviceService::sortedForDisplay(
        {make("speaker 10", 0), make("Speaker 9", 0), make("Zeta Group", 2), make("alpha", 0),
         make("One Member", 1), make("Alpha Group", 3)});
    std::vector<std::string> names;
    for (const auto& device : sorted)
        names.push_back(device.name);
    EXPECT_EQ(names, (std::vector<std::string>{"Alpha Group", "Zeta Group", "alpha", "One Member",
                                               "Speaker 9", "speaker 10"}));
}

TEST(AudioDeviceDisplayOrder, NameComparison) {
    struct Case {
        const char* a;
        const char* b;
        int expected;
    };
    for (const auto& c :
         {Case{"Display 2", "Display 10", -1}, Case{"a", "B", -1}, Case{"HDMI", "hdmi", 0},
          Case{"Out 007", "Out 7", 0}, Case{"Out 7", "Out 08", -1}, Case{"x", "x1", -1},
          Case{"", "a", -1}, Case{"2 Speakers", "Speakers", -1},
          Case{"99999999999999999999999", "100000000000000000000000", -1}}) {
        EXPECT_EQ(AudioDeviceService::compareNamesForDisplay(c.a, c.b), c.expected)
            << c.a << " vs " << c.b;
        EXPECT_EQ(AudioDeviceService::compareNamesForDisplay(c.b, c.a), -c.expected)
            << c.b << " vs " << c.a;
    }
}

// ---- Reconnection map ---------------------------------------------------------------------

constexpr const char* kUuid = "0B4C7D8E-1F2A-4B3C-9D4E-5F6A7B8C9D0E";

TEST(AudioDeviceUIDs, UUIDOfAUID) {
    const auto expected = parseUuid(kUuid);
    ASSERT_TRUE(expected.has_value());
    struct Case {
        std::string uid;
        bool hasUUID;
    };
    const std::string lower = "0b4c7d8e-1f2a-4b3c-9d4e-5f6a7b8c9d0e";
    for (const auto& c :
         {Case{kUuid, true}, Case{lower, true}, Case{std::string(kUuid) + "_0000abcd", true},
          Case{std::string(kUuid) + "_ABCDEF01", true},
          Case{std::string(kUuid) + "_0000abc", false},
          Case{std::string(kUuid) + "_0000abcde", false},
          Case{std::string(kUuid) + "_0000abcg", false}, Case{std::string(kUuid) + "_", false},
          Case{std::string(kUuid) + "_0000abcd_0000abcd", false}, Case{"_0000abcd", false},
          Case{"BuiltInSpeakerDevice", false}, Case{"", false},
          Case{std::string(kUuid).substr(1), false}}) {
        const auto uuid = AudioDeviceService::uuidOfUID(c.uid);
        EXPECT_EQ(uuid.has_value(), c.hasUUID) << c.uid;
        if (c.hasUUID) {
            EXPECT_EQ(uuid, expected) << c.uid;
        }
    }
}

AudioDevice displayDevice(std::string uid, UInt32 transport = kAudioDeviceTransportTypeHDMI,
                          std::int64_t outputs = 2) {
    AudioDevice device;
    device.uid = std::move(uid);
    device.name = "Display";
    device.outputChannels = outputs;
    device.transportType = transport;
    return device;
}

TEST(AudioDeviceReconnectionMap, MatchesOneDisplayOutputWithTheSameUUID) {
    const std::string missing = std::string(kUuid) + "_0000abcd";
    const std::string present = std::string(kUuid) + "_1234ABCD";
    const std::set<std::string> members{missing, "speaker"};
    AudioDevice speaker = displayDevice("speaker", kAudioDeviceTransportTypeUSB);

    EXPECT_EQ(AudioDeviceService::reconnectionMap(members, {speaker, displayDevice(present)}),
              (std::map<std::string, std::string>{{missing, present}}));
    EXPECT_EQ(AudioDeviceService::reconnectionMap(members, {displayDevice(kUuid)}),
              (std::map<std::string, std::string>{{missing, kUuid}}));
    EXPECT_EQ(AudioDeviceService::reconnectionMap(
                  members, {displayDevice(present, kAudioDeviceTransportTypeDisplayPort)}),
              (std::map<std::string, std::string>{{missing, present}}));
}

TEST(AudioDeviceReconnectionMap, RefusesAmbiguousOrNonDisplayMatches) {
    const std::string missing = std::string(kUuid) + "_0000abcd";
    const std::set<std::string> members{missing};
    const std::string present = std::string(kUuid) + "_1234abcd";
    AudioDevice group = displayDevice(present);
    group.subdeviceUIDs = {"a", "b"};

    struct Case {
        const char* what;
        std::vector<AudioDevice> devices;
    };
    for (const auto& c :
         {Case{"two devices carry the UUID", {displayDevice(present), displayDevice(kUuid)}},
          Case{"the only match is USB", {displayDevice(present, kAudioDeviceTransportTypeUSB)}},
          Case{"the match has no outputs",
               {displayDevice(present, kAudioDeviceTransportTypeHDMI, 0)}},
          Case{"the match is an aggregate", {group}},
          Case{"nothing matches", {displayDevice("0B4C7D8E-0000-4B3C-9D4E-5F6A7B8C9D0E")}}}) {
        EXPECT_TRUE(AudioDeviceService::reconnectionMap(members, c.devices).empty()) << c.what;
    }
    // A member that is present needs no entry, and one without a UUID gets none.
    EXPECT_TRUE(AudioDeviceService::reconnectionMap({present, "speaker"}, {displayDevice(present)})
                    .empty());
}

// ---- Composition repair -------------------------------------------------------------------

class ReconnectTest : public AudioDeviceServiceTest {
protected:
    const std::string oldDisplay = std::string(kUuid) + "_0000abcd";
    const std::string newDisplay = std::string(kUuid) + "_0000beef";
    void SetUp() override {
        sim.addDevice({"speaker", "Speaker"});
        display = sim.addDevice(
            Sim::DeviceSpec(oldDisplay, "Display", {2}).transport(kAudioDeviceTransportTypeHDMI));
        multi = sim.addMultiOutputDevice("M", "Desk", {oldDisplay, "speaker"}, oldDisplay);
        display = sim.replaceDeviceUID(display, newDisplay);
    }
    AudioObjectID display = 0;
    AudioObjectID multi = 0;

    std::string thrownDescription(const std::map<std::string, std::string>& map) {
        try {
            service.reconnectMissingOutputs(multi, map);
        } catch (const AudioDeviceError& error) {
            return error.localizedDescription();
        }
        return "no error";
    }
};

TEST_F(ReconnectTest, RewritesMembersAndMainAndKeepsEverythingElse) {
    const auto before = sim.composition(multi);
    const auto device = service.device("M");
    ASSERT_TRUE(device.has_value());
    std::set<std::string> members(device->subdeviceUIDs.begin(), device->subdeviceUIDs.end());
    const auto map = AudioDeviceService::reconnectionMap(members, service.devices());
    ASSERT_EQ(map, (std::map<std::string, std::string>{{oldDisplay, newDisplay}}));

    service.reconnectMissingOutputs(multi, map);
    const auto repaired = service.device("M");
    EXPECT_EQ(repaired->subdeviceUIDs, (std::vector<std::string>{newDisplay, "speaker"}));
    EXPECT_EQ(repaired->mainSubdeviceUID, newDisplay);

    // Every other entry is carried through unchanged.
    auto after = sim.composition(multi);
    auto& afterMembers = *(*after.asDictionary())["subdevices"].asArray();
    (*afterMembers[0].asDictionary())["uid"] = PropertyList(oldDisplay);
    (*after.asDictionary())["master"] = PropertyList(oldDisplay);
    EXPECT_EQ(after, before);
}

TEST_F(ReconnectTest, NothingToChangeIsRefusedWithoutWriting) {
    const std::string message =
        "The missing output could not be reconnected automatically. Check Audio MIDI Setup.";
    EXPECT_EQ(thrownDescription({}), message);
    EXPECT_EQ(thrownDescription({{"speaker", "speaker"}}), message);
    EXPECT_EQ(thrownDescription({{oldDisplay, "speaker"}}), message); // would list one twice
    EXPECT_EQ(sim.callCount(Sim::Call::setPropertyValue), 0u);
}

TEST_F(ReconnectTest, MalformedCompositionsAreRefused) {
    const std::string message =
        "The missing output could not be reconnected automatically. Check Audio MIDI Setup.";
    const std::map<std::string, std::string> map{{oldDisplay, newDisplay}};
    using D = PropertyList::Dictionary;
    using A = PropertyList::Array;
    for (const auto& composition :
         {PropertyList(), PropertyList("not a dictionary"), PropertyList::dictionary(),
          PropertyList::dictionary({{"name", "Desk"}}),
          PropertyList::dictionary({{"subdevices", "A"}}),
          PropertyList::dictionary({{"subdevices", A{PropertyList("A")}}}),
          PropertyList::dictionary({{"subdevices", A{PropertyList(D{{"name", "no uid"}})}}}),
          PropertyList::dictionary(
              {{"subdevices", A{PropertyList(D{{"uid", PropertyList::integer(3)}})}}})}) {
        sim.setComposition(multi, composition);
        EXPECT_EQ(thrownDescription(map), message) << composition.description();
    }
}

TEST_F(ReconnectTest, HardwareFailuresNameTheStep) {
    sim.failNext(Sim::Call::getPropertyValue, kAudioHardwareBadObjectError);
    EXPECT_EQ(thrownDescription({{oldDisplay, newDisplay}}),
              "Reading the output configuration failed ('!obj').");
    sim.setCompositionSettable(multi, false);
    EXPECT_EQ(thrownDescription({{oldDisplay, newDisplay}}),
              "Reconnecting the display output failed ('nope').");
    EXPECT_EQ(service.device("M")->subdeviceUIDs,
              (std::vector<std::string>{oldDisplay, "speaker"}));
}

TEST(AudioDeviceComposition, RewriteMapsClockAndLeavesUnmappedKeys) {
    using D = PropertyList::Dictionary;
    using A = PropertyList::Array;
    const PropertyList composition = PropertyList::dictionary(
        {{"subdevices", A{PropertyList(D{{"uid", "old"}, {"drift", PropertyList::integer(1)}}),
                          PropertyList(D{{"uid", "keep"}})}},
         {"master", "keep"},
         {"clock", "old"},
         {"stacked", PropertyList::integer(1)}});
    const auto rewritten =
        AudioDeviceService::rewriteComposition(composition, {{"old", "new"}, {"other", "x"}});
    ASSERT_TRUE(rewritten.has_value());
    const PropertyList expected = PropertyList::dictionary(
        {{"subdevices", A{PropertyList(D{{"uid", "new"}, {"drift", PropertyList::integer(1)}}),
                          PropertyList(D{{"uid", "keep"}})}},
         {"master", "keep"},
         {"clock", "new"},
         {"stacked", PropertyList::integer(1)}});
    EXPECT_EQ(*rewritten, expected);

    // A composition that already lists a UID twice stays refused even when another maps.
    const PropertyList twice = PropertyList::dictionary(
        {{"subdevices", A{PropertyList(D{{"uid", "a"}}), PropertyList(D{{"uid", "a"}}),
                          PropertyList(D{{"uid", "old"}})}}});
    EXPECT_FALSE(AudioDeviceService::rewriteComposition(twice, {{"old", "new"}}).has_value());
}

} // namespace
} // namespace brightmix
