// The behaviour every AudioHardware backend owes the core, written once as a parameterised
// suite: property reads of the kinds the device service uses, the default output, process
// objects, taps, aggregates, IOProcs and a teardown that leaves nothing behind.
//
// A backend runs it by describing a scene its hardware is known to show and instantiating
// the suite with that description:
//
//     INSTANTIATE_TEST_SUITE_P(Simulation, AudioHardwareContract,
//                              ::testing::Values(mySceneDescription),
//                              AudioHardwareContract::name);
//
// Thread: the test's thread; IOProcs run wherever the backend runs them.
#pragma once

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <string>

#include "platform/AudioHardware.h"

namespace brightmix::testing {

struct AudioHardwareContractScene {
    // Names the instantiation in test output (letters, digits and underscores).
    std::string name;
    // A fresh hardware showing the scene below, or null to skip (no such system here).
    std::function<std::unique_ptr<AudioHardware>()> makeHardware;
    // Lets IO happen on a device whose IOProc was started: pump a cycle, or wait long
    // enough for the backend's own IO thread to run at least one.
    std::function<void(AudioHardware&, AudioObjectID device)> runIO;

    // The scene: a multi-output device over two plain output devices, in this order.
    std::string multiOutputUID = "M";
    std::string firstMemberUID = "A";
    UInt32 firstMemberChannels = 2;
    std::string secondMemberUID = "B";
    UInt32 secondMemberChannels = 1;

    // Optional abilities. What a backend cannot do must still answer a non-zero status
    // and change nothing.
    bool canRewriteComposition = true;
    bool canSetDefaultOutput = true;
};

// Prints the scene by name, so that gtest does not dump its bytes.
inline void PrintTo(const AudioHardwareContractScene& scene, std::ostream* out) {
    *out << scene.name;
}

class AudioHardwareContract : public ::testing::TestWithParam<AudioHardwareContractScene> {
public:
    static std::string name(const ::testing::TestParamInfo<AudioHardwareContractScene>& info) {
        return info.param.name;
    }

protected:
    void SetUp() override;
    void TearDown() override;

    const AudioHardwareContractScene& scene() const { return GetParam(); }
    AudioHardware& hardware() { return *hardware_; }

    // Device object of a UID from the system's device list, or 0.
    AudioObjectID deviceWithUID(const std::string& uid);
    std::vector<AudioObjectID>
    objectList(AudioObjectID object, AudioObjectPropertySelector selector,
               AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal);
    std::vector<UInt32> streamChannels(AudioObjectID device, AudioObjectPropertyScope scope);
    // The process object of this program, or 0.
    AudioObjectID ownProcessObject();
    // A tap of everything but this program, checked to exist.
    AudioObjectID makeGlobalTap();
    std::string tapUID(AudioObjectID tap);
    // The description of a private aggregate over both members and a tap.
    PropertyList routerDescription(const std::string& uid, const std::string& tapUID) const;

    std::unique_ptr<AudioHardware> hardware_;
    std::size_t devicesAtStart_ = 0;
    std::size_t tapsAtStart_ = 0;
};

} // namespace brightmix::testing
