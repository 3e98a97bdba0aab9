// A system of 40 devices (36 plain ones, some with inputs, some on HDMI, and 4 multi-output
// devices over pairs of them, the last one the default output) and 200 processes of 50
// apps, a quarter of them playing, for the benchmarks of everything that reads devices.
#pragma once

#include <string>
#include <vector>

#include "platform/sim/SimulatedAudioHardware.h"

namespace brightmix::bench {

using Sim = SimulatedAudioHardware;

inline constexpr int kPlainDevices = 36;
inline constexpr int kMultiOutputDevices = 4;
inline constexpr int kProcesses = 200;

inline void buildSystem(Sim& sim) {
    std::vector<AudioObjectID> outputs;
    for (int i = 0; i < kPlainDevices; ++i) {
        const std::string number = std::to_string(i);
        Sim::DeviceSpec setup("device-" + number, "Speaker " + number,
                              i % 3 == 0 ? std::vector<UInt32>{2, 2} : std::vector<UInt32>{2},
                              i % 4 == 0 ? std::vector<UInt32>{1} : std::vector<UInt32>{});
        if (i % 5 == 0) setup.transport(kAudioDeviceTransportTypeHDMI).volumeControl(2);
        outputs.push_back(sim.addDevice(setup));
    }
    for (int i = 0; i < kMultiOutputDevices; ++i) {
        const std::string number = std::to_string(i);
        outputs.push_back(sim.addMultiOutputDevice(
            "multi-" + number, "Group " + number,
            {"device-" + std::to_string(2 * i), "device-" + std::to_string(2 * i + 1)}));
    }
    sim.setDefaultOutput(outputs.back());
    for (int i = 0; i < kProcesses; ++i) {
        std::vector<AudioObjectID> devices;
        if (i % 3 != 0) devices.push_back(outputs[std::size_t(i) % outputs.size()]);
        if (i % 7 == 0) devices.push_back(outputs.back());
        sim.addProcess({1000 + i, "com.example.app" + std::to_string(i % 50), i % 4 == 0, devices});
    }
}

} // namespace brightmix::bench
