// An AppModel over the private PipeWire session, for the end-to-end tests of the model's
// Linux behaviour: the real backend (with its mute watchdog), virtual time, in-memory
// settings, the real file writer and the scripted system services.
#pragma once

#include <memory>

#include "Brightmix/AppModel.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/sim/InMemoryDefaults.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/linux/PipeWireTestSupport.h"
#include "tests/support/ScriptedServices.h"

namespace brightmix::testing {

struct ModelOnSession {
    // Connects and builds the model; false when no session runs (the test then skips).
    bool start(bool followsSystemVolume = false) {
        pipewire::PipeWireAudioHardware::Options options;
        options.watchdogExecutable = watchdogExecutable();
        hardware = connectToSession(options);
        if (!hardware) return false;
        AppServices services = system.services(*hardware, loop, defaults, writer);
        services.followsSystemVolume = followsSystemVolume;
        model = std::make_unique<AppModel>(services);
        return true;
    }

    std::unique_ptr<pipewire::PipeWireAudioHardware> hardware;
    VirtualMainLoop loop;
    InMemoryDefaults defaults;
    LinuxAudioFileWriter writer;
    ScriptedServices system;
    std::unique_ptr<AppModel> model; // destroyed first: declared last
};

} // namespace brightmix::testing
