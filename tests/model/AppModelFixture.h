// The app model over the simulated operating system: a desk with built-in speakers "S" (the
// default output at start), a multi-output device "M" over a stereo speaker "A" and a mono
// subwoofer "B", a display "H" on HDMI whose UID carries a UUID, and a microphone "I"; an
// in-memory settings domain, virtual time, scripted services and a real file writer for
// recordings in a temporary folder.
#pragma once

#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>

#include "Brightmix/AppModel.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/sim/InMemoryDefaults.h"
#include "platform/sim/SimulatedAudioHardware.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/support/ScriptedServices.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix::testing {

inline const std::string kDisplayUID = "6F3A2C10-1B2C-4D5E-8F90-A1B2C3D4E5F6";
inline const std::string kDisplayUIDAgain = "6F3A2C10-1B2C-4D5E-8F90-A1B2C3D4E5F6_0000002A";

class AppModelFixture : public ::testing::Test, protected ScriptedServices {
protected:
    AppModelFixture() {
        speakersID = sim.addDevice({"S", "MacBook Speakers", {2}});
        sim.addDevice({"A", "Desk Left", {2}});
        sim.addDevice({"B", "Sub", {1}});
        multiID = sim.addMultiOutputDevice("M", "Desk", {"A", "B"}, "A");
        sim.addDevice(SimulatedAudioHardware::DeviceSpec(kDisplayUID, "LG Display", {2})
                          .transport(kAudioDeviceTransportTypeHDMI));
        sim.addDevice({"I", "Mic", {}, {1}});
        sim.setDefaultOutput(speakersID);
        sim.setDefaultInput(sim.deviceID("I"));
        permissions.canListen = true;
        folders.chooserAnswer = recordings.path().string();
        hud.allScreens = {{{0, 0, 1440, 900}, {0, 0, 1440, 875}}};
        hud.mainScreenIndex = 0;
    }
    ~AppModelFixture() override { model.reset(); }

    void launch() {
        AppServices all = services(sim, loop, defaults, writer);
        all.followsSystemVolume = followsSystemVolume;
        model = std::make_unique<AppModel>(all);
        model->setChangeObserver([this] { ++changes; });
        workspace.setTerminationHandler([this] {
            if (model) model->applicationWillTerminate();
        });
        loop.runPending();
    }
    // Quits and starts again over the same settings and system.
    void relaunch() {
        model.reset();
        launch();
    }

    const AppModelState& state() const { return model->state(); }
    std::string defaultOutputUID() {
        const std::optional<AudioDevice> device = model->devices().defaultOutputDevice();
        return device ? device->uid : "";
    }

    void tick(int count = 1) { loop.advance(count * AppModel::kRefreshInterval); }

    // Selects the multi-output device by hand and switches on.
    void switchOnDesk() {
        model->selectOutput("M", false);
        model->setEnabled(true);
        ASSERT_TRUE(state().isEnabled) << state().errorMessage.value_or("");
    }

    void expectNothingLeft() {
        EXPECT_EQ(sim.liveTaps(), 0u);
        EXPECT_EQ(sim.liveAggregates(), 0u);
        EXPECT_EQ(sim.liveIOProcs(), 0u);
    }
    // The router's own invariant: on means a running engine for the default output.
    void expectConsistent() {
        if (state().isEnabled) {
            EXPECT_TRUE(model->engine().isRunning());
            EXPECT_EQ(state().selectedDeviceUID, state().systemOutputUID);
        } else {
            EXPECT_FALSE(model->engine().isRunning());
        }
    }
    float masterGain() { return ProcessingGetMasterGain(model->engine().gainState()); }

    SimulatedAudioHardware sim;
    VirtualMainLoop loop;
    InMemoryDefaults defaults;
    LinuxAudioFileWriter writer;
    TemporaryFolder recordings;
    AudioObjectID speakersID = 0;
    AudioObjectID multiID = 0;
    std::unique_ptr<AppModel> model;
    int changes = 0;
    bool followsSystemVolume = false;
};

} // namespace brightmix::testing
