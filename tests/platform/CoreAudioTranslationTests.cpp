// The decisions of the macOS layer, on plain data: property lists to CF values and back, tap
// descriptions to CATapDescription fields, aggregate descriptions and recording formats.
#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

#include "platform/macos/CoreAudioTranslation.h"

namespace brightmix {
namespace {

PropertyList sampleList() {
    return PropertyList::dictionary({
        {"flag", PropertyList::boolean(true)},
        {"count", PropertyList::integer(-42)},
        {"ratio", PropertyList::real(0.25)},
        {"name", PropertyList::string("Studio – Left")},
        {"bytes", PropertyList::data({0, 1, 255})},
        {"list", PropertyList::array({PropertyList::integer(1), PropertyList::string("two")})},
        {"nested", PropertyList::dictionary({{"inner", PropertyList::boolean(false)}})},
    });
}

TEST(CoreAudioTranslation, PropertyListsRoundTripThroughCFValues) {
    const PropertyList original = sampleList();
    const CFValue value = cfValueFromPropertyList(original);
    ASSERT_EQ(value.type, CFValue::Type::dictionary);
    // Keys are CF strings, in the dictionary's order.
    ASSERT_EQ(value.entries.size(), 7u);
    EXPECT_EQ(value.entries.front().first, CFValue::makeString("bytes"));
    std::size_t dropped = 99;
    EXPECT_EQ(propertyListFromCFValue(value, &dropped), original);
    EXPECT_EQ(dropped, 0u);
    EXPECT_TRUE(propertyListFromCFValue(cfValueFromPropertyList(PropertyList())).isNull());
}

TEST(CoreAudioTranslation, NumbersTakeTheCFNumberTypeThatHoldsThem) {
    const CFValue small = cfValueFromPropertyList(PropertyList::unsignedInteger(7));
    EXPECT_EQ(small, CFValue::makeInteger(7));
    const CFValue largest = cfValueFromPropertyList(
        PropertyList::unsignedInteger(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(largest.numberType, CFValue::NumberType::sInt64);
    // Beyond SInt64 CF has no integer type: the nearest real.
    const CFValue huge = cfValueFromPropertyList(PropertyList::unsignedInteger(UINT64_MAX));
    EXPECT_EQ(huge.numberType, CFValue::NumberType::float64);
    EXPECT_DOUBLE_EQ(huge.real, 18446744073709551615.0);
    // A whole Float64 stays a real; a Boolean is not a number.
    EXPECT_EQ(propertyListFromCFValue(CFValue::makeReal(2.0)), PropertyList::real(2.0));
    EXPECT_EQ(cfValueFromPropertyList(PropertyList::boolean(false)), CFValue::makeBoolean(false));
}

TEST(CoreAudioTranslation, WhatAPropertyListCannotHoldIsLeftOutAndCounted) {
    CFValue dictionary;
    dictionary.type = CFValue::Type::dictionary;
    dictionary.entries.emplace_back(CFValue::makeInteger(1), CFValue::makeString("numeric key"));
    dictionary.entries.emplace_back(CFValue::makeString("url"), CFValue::makeOther("CFURL"));
    dictionary.entries.emplace_back(CFValue::makeString("when"), CFValue::makeDate(1'700'000'000));
    CFValue list;
    list.type = CFValue::Type::array;
    list.items = {CFValue::makeOther("CFSet"), CFValue::makeString("kept")};
    dictionary.entries.emplace_back(CFValue::makeString("list"), list);

    std::size_t dropped = 0;
    const PropertyList result = propertyListFromCFValue(dictionary, &dropped);
    EXPECT_EQ(dropped, 3u);
    EXPECT_EQ(result, PropertyList::dictionary({
                          {"when", PropertyList::real(1'700'000'000)},
                          {"list", PropertyList::array({PropertyList::string("kept")})},
                      }));
    EXPECT_TRUE(propertyListFromCFValue(CFValue::makeOther("CFBag"), &dropped).isNull());
    EXPECT_EQ(dropped, 1u);
}

constexpr int kDeepest = PropertyList::kDeepestNesting;

// CF values from the system or the preferences may nest without limit; past the bound a
// container is left out like an unsupported value, counted once with all it holds.
TEST(CoreAudioTranslation, ContainersPastTheNestingBoundAreLeftOutAndCounted) {
    // `levels` containers, alternately arrays and dictionaries, each also holding a string.
    const auto nested = [](int levels) {
        CFValue value;
        value.type = CFValue::Type::array;
        value.items = {CFValue::makeString("innermost")};
        for (int level = levels - 1; level >= 1; --level) {
            CFValue outer;
            if (level % 2 == 0) {
                outer.type = CFValue::Type::array;
                outer.items = {CFValue::makeString("kept"), std::move(value)};
            } else {
                outer.type = CFValue::Type::dictionary;
                outer.entries.emplace_back(CFValue::makeString("kept"),
                                           CFValue::makeString("kept"));
                outer.entries.emplace_back(CFValue::makeString("inner"), std::move(value));
            }
            value = std::move(outer);
        }
        return value;
    };
    const auto expected = [](int levels) {
        // Past the bound, the (array) container at the bound keeps only its string.
        PropertyList value = levels > kDeepest ? PropertyList::array({PropertyList("kept")})
                                               : PropertyList::array({PropertyList("innermost")});
        for (int level = std::min(levels, kDeepest) - 1; level >= 1; --level) {
            if (level % 2 == 0) {
                value = PropertyList::array({PropertyList("kept"), value});
            } else {
                value =
                    PropertyList::dictionary({{"kept", PropertyList("kept")}, {"inner", value}});
            }
        }
        return value;
    };

    std::size_t dropped = 99;
    EXPECT_EQ(propertyListFromCFValue(nested(kDeepest), &dropped), expected(kDeepest));
    EXPECT_EQ(dropped, 0u);
    EXPECT_EQ(propertyListFromCFValue(nested(kDeepest + 1), &dropped), expected(kDeepest + 1));
    EXPECT_EQ(dropped, 1u);
}

TEST(CoreAudioTranslation, TapDescriptionsChooseTheirInitialiser) {
    TapDescription global;
    global.processes = {41, 0, 41, 7};
    global.name = "Brightmix";
    global.isPrivate = true;
    global.isProcessRestoreEnabled = true;
    global.muteBehavior = kCATapMutedWhenTapped;
    TapFields fields;
    ASSERT_EQ(tapFieldsFromDescription(global, &fields), kAudioHardwareNoError);
    EXPECT_EQ(fields.initializer, TapFields::Initializer::stereoGlobalTapButExcludeProcesses);
    // The unknown object is dropped (it fails the whole tap), the repeat listed once.
    EXPECT_EQ(fields.processes, (std::vector<AudioObjectID>{41, 7}));
    EXPECT_EQ(fields.name, "Brightmix");
    EXPECT_TRUE(fields.isPrivate);
    EXPECT_TRUE(fields.isProcessRestoreEnabled);
    EXPECT_EQ(fields.muteBehavior, 2);

    TapDescription device = global;
    device.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
    device.deviceUID = "multi-output";
    device.stream = 0;
    ASSERT_EQ(tapFieldsFromDescription(device, &fields), kAudioHardwareNoError);
    EXPECT_EQ(fields.initializer, TapFields::Initializer::excludingProcessesAndDeviceWithStream);
    EXPECT_EQ(fields.deviceUID, "multi-output");

    TapDescription app;
    app.kind = TapDescription::Kind::stereoMixdownOfProcesses;
    app.processes = {12};
    ASSERT_EQ(tapFieldsFromDescription(app, &fields), kAudioHardwareNoError);
    EXPECT_EQ(fields.initializer, TapFields::Initializer::stereoMixdownOfProcesses);
    EXPECT_EQ(fields.processes, (std::vector<AudioObjectID>{12}));
    EXPECT_FALSE(fields.isPrivate);
}

TEST(CoreAudioTranslation, ImpossibleTapDescriptionsAreRefusedBeforeTheHAL) {
    TapFields untouched;
    untouched.name = "untouched";
    TapFields fields = untouched;

    TapDescription noDevice;
    noDevice.kind = TapDescription::Kind::excludingProcessesOnDeviceStream;
    EXPECT_EQ(tapFieldsFromDescription(noDevice, &fields), kAudio_ParamError);

    TapDescription negativeStream = noDevice;
    negativeStream.deviceUID = "device";
    negativeStream.stream = -1;
    EXPECT_EQ(tapFieldsFromDescription(negativeStream, &fields), kAudio_ParamError);

    TapDescription badMute;
    badMute.muteBehavior = 3;
    EXPECT_EQ(tapFieldsFromDescription(badMute, &fields), kAudio_ParamError);

    TapDescription nothingToMix;
    nothingToMix.kind = TapDescription::Kind::stereoMixdownOfProcesses;
    nothingToMix.processes = {0};
    EXPECT_EQ(tapFieldsFromDescription(nothingToMix, &fields), kAudio_ParamError);
    EXPECT_EQ(fields, untouched);
}

TEST(CoreAudioTranslation, AggregateDescriptionsGetNumbersForTheirFlags) {
    const PropertyList description = PropertyList::dictionary({
        {"uid", PropertyList::string("com.corvale.brightmix.private.1")},
        {"name", PropertyList::string("Brightmix Private Router")},
        {"private", PropertyList::boolean(true)},
        {"stacked", PropertyList::boolean(false)},
        {"master", PropertyList::string("speakers")},
        {"subdevices", PropertyList::array({PropertyList::dictionary({
                           {"uid", PropertyList::string("speakers")},
                           {"channels-in", PropertyList::integer(0)},
                           {"drift", PropertyList::boolean(true)},
                           {"drift quality", PropertyList::integer(0x60)},
                       })})},
        {"taps", PropertyList::array({PropertyList::dictionary({
                     {"uid", PropertyList::string("tap-uuid")},
                     {"drift", PropertyList::boolean(true)},
                 })})},
    });
    CFValue value;
    std::string problem;
    ASSERT_EQ(aggregateDescriptionValue(description, &value, &problem), kAudioHardwareNoError);
    const PropertyList sent = propertyListFromCFValue(value);
    EXPECT_EQ(*sent.find("private"), PropertyList::integer(1));
    EXPECT_EQ(*sent.find("stacked"), PropertyList::integer(0));
    const PropertyList& member = sent.find("subdevices")->asArray()->front();
    EXPECT_EQ(*member.find("drift"), PropertyList::integer(1));
    EXPECT_EQ(*member.find("drift quality"), PropertyList::integer(0x60));
    EXPECT_EQ(*sent.find("taps")->asArray()->front().find("drift"), PropertyList::integer(1));
    // Everything else passes unchanged.
    EXPECT_EQ(*sent.find("name"), PropertyList::string("Brightmix Private Router"));
    EXPECT_EQ(*sent.find("master"), PropertyList::string("speakers"));
}

TEST(CoreAudioTranslation, MalformedAggregateDescriptionsSayWhatIsWrong) {
    CFValue value;
    std::string problem;
    EXPECT_EQ(aggregateDescriptionValue(PropertyList::string("x"), &value, &problem),
              kAudio_ParamError);
    EXPECT_EQ(problem, "the description is not a dictionary");
    EXPECT_EQ(aggregateDescriptionValue(
                  PropertyList::dictionary({{"uid", PropertyList::string("")}}), &value, &problem),
              kAudio_ParamError);
    EXPECT_EQ(problem, "the description has no \"uid\"");
    const PropertyList badTaps = PropertyList::dictionary({
        {"uid", PropertyList::string("agg")},
        {"taps", PropertyList::array({PropertyList::dictionary({}), PropertyList::dictionary({})})},
    });
    EXPECT_EQ(aggregateDescriptionValue(badTaps, &value, &problem), kAudio_ParamError);
    EXPECT_EQ(problem, "entry 0 of \"taps\" is not a dictionary with a \"uid\"");
    const PropertyList notAList = PropertyList::dictionary({
        {"uid", PropertyList::string("agg")},
        {"subdevices", PropertyList::string("speakers")},
    });
    EXPECT_EQ(aggregateDescriptionValue(notAList, &value, &problem), kAudio_ParamError);
    EXPECT_EQ(problem, "\"subdevices\" is not an array");
}

TEST(CoreAudioTranslation, RecordingFormatsTheFileWriterAccepts) {
    AudioStreamBasicDescription pcm{};
    pcm.mSampleRate = 96000;
    pcm.mFormatID = kAudioFormatLinearPCM;
    pcm.mChannelsPerFrame = 2;
    EXPECT_EQ(recordingFormatStatus(kAudioFileWAVEType, pcm), kAudioHardwareNoError);
    EXPECT_EQ(recordingFormatStatus(kAudioFileM4AType, pcm),
              kAudioFormatUnsupportedDataFormatError);
    EXPECT_EQ(recordingFormatStatus(fourCharCode("caff"), pcm), kAudioFileUnsupportedFileTypeError);

    AudioStreamBasicDescription aac{};
    aac.mFormatID = kAudioFormatMPEG4AAC;
    aac.mChannelsPerFrame = 2;
    for (double rate : {8000.0, 44100.0, 48000.0}) {
        aac.mSampleRate = rate;
        EXPECT_EQ(recordingFormatStatus(kAudioFileM4AType, aac), kAudioHardwareNoError) << rate;
    }
    for (double rate : {7999.0, 88200.0, 96000.0, 0.0, std::numeric_limits<double>::quiet_NaN()}) {
        aac.mSampleRate = rate;
        EXPECT_EQ(recordingFormatStatus(kAudioFileM4AType, aac),
                  kAudioFormatUnsupportedDataFormatError)
            << rate;
    }
    aac.mSampleRate = 48000;
    aac.mChannelsPerFrame = 0;
    EXPECT_EQ(recordingFormatStatus(kAudioFileM4AType, aac),
              kAudioFormatUnsupportedDataFormatError);
}

} // namespace
} // namespace brightmix
