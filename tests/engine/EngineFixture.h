// A simulated desk for the engine's tests: a multi-output device "Desk" over a stereo
// speaker "L" (one two-channel stream, and a mono microphone that hears kMicrophone), a pair
// of mono amplifier channels "H" (two one-channel streams) and a microphone "I" (inputs
// only), with the engine, a real file writer and a temporary folder for recordings. The
// speaker's microphone sits in the router's input list ahead of the tap, so every test here
// also proves that the router plays and records the tap and never the microphone.
#pragma once

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <numbers>
#include <string>
#include <vector>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/sim/SimulatedAudioHardware.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix::testing {

inline std::string thrownDescription(const std::function<void()>& action) {
    try {
        action();
    } catch (const AudioDeviceError& error) {
        return error.localizedDescription();
    }
    return "(nothing thrown)";
}

class EngineFixture : public ::testing::Test {
protected:
    // A value no tap signal in these tests carries, so it cannot hide in a measured level.
    static constexpr float kMicrophone = 0.9375f;

    EngineFixture() {
        sim.setInputAudio(sim.addDevice({"L", "Desk Speaker", {2}, {1}}),
                          [](std::uint64_t, UInt32) { return kMicrophone; });
        sim.addDevice({"H", "Amp", {1, 1}});
        sim.addDevice({"I", "Mic", {}, {2}});
        deskID = sim.addMultiOutputDevice("D", "Desk", {"L", "H", "I"}, "L");
        sim.setDefaultOutput(deskID);
    }

    AudioDevice device(const std::string& uid) {
        auto found = devices.device(uid);
        EXPECT_TRUE(found) << uid;
        return found.value_or(AudioDevice{});
    }
    AudioDevice desk() { return device("D"); }

    void expectNothingLeft() {
        EXPECT_EQ(sim.liveTaps(), 0u);
        EXPECT_EQ(sim.liveAggregates(), 0u);
        EXPECT_EQ(sim.liveIOProcs(), 0u);
        EXPECT_FALSE(engine.isRunning());
        EXPECT_EQ(engine.tapID(), 0u);
        EXPECT_EQ(engine.aggregateID(), 0u);
        EXPECT_FALSE(engine.hasIOProc());
        EXPECT_TRUE(engine.outputBufferRanges().empty());
    }

    // One cycle of explicit stereo tap input: left(frame), right(frame).
    void pump(UInt32 frames, const std::function<float(std::uint64_t)>& left,
              const std::function<float(std::uint64_t)>& right) {
        std::vector<float> input(2 * std::size_t(frames));
        for (UInt32 f = 0; f < frames; ++f) {
            input[2 * f] = left(nextFrame + f);
            input[2 * f + 1] = right(nextFrame + f);
        }
        nextFrame += frames;
        ASSERT_EQ(sim.pumpCycle(engine.aggregateID(), input), 1u);
    }
    static std::function<float(std::uint64_t)> constant(float value) {
        return [value](std::uint64_t) { return value; };
    }
    static std::function<float(std::uint64_t)> sine(double hz, double amplitude = 0.5) {
        return [hz, amplitude](std::uint64_t frame) {
            return float(amplitude * std::sin(2 * std::numbers::pi * hz * double(frame) / 48000));
        };
    }
    static float peak(const std::vector<float>& samples, std::size_t from = 0) {
        float result = 0;
        for (std::size_t i = from; i < samples.size(); ++i)
            result = std::max(result, std::fabs(samples[i]));
        return result;
    }

    SimulatedAudioHardware sim;
    AudioObjectID deskID = 0;
    AudioDeviceService devices{sim};
    TemporaryFolder folder;
    LinuxAudioFileWriter writer;
    SoftwareVolumeEngine engine{devices, 1.0f, writer};
    std::uint64_t nextFrame = 0;
};

} // namespace brightmix::testing
