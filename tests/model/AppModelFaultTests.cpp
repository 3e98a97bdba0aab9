// Faults at every kind of platform call during switch-on, the tick and recording start: the
// model shows a message, leaves no tap, aggregate or IOProc behind, and works again once the
// fault clears. Then a long random run of user actions and world events, with the model's
// invariants checked after every step.
#include <random>

#include "tests/model/AppModelFixture.h"

namespace brightmix::testing {
namespace {

using Sim = SimulatedAudioHardware;

const Sim::Call kEveryCall[] = {
    Sim::Call::hasProperty,
    Sim::Call::isPropertySettable,
    Sim::Call::getPropertyDataSize,
    Sim::Call::getPropertyData,
    Sim::Call::setPropertyData,
    Sim::Call::getPropertyValue,
    Sim::Call::setPropertyValue,
    Sim::Call::createProcessTap,
    Sim::Call::destroyProcessTap,
    Sim::Call::createAggregateDevice,
    Sim::Call::destroyAggregateDevice,
    Sim::Call::createIOProcID,
    Sim::Call::destroyIOProcID,
    Sim::Call::startDevice,
    Sim::Call::stopDevice,
};

class FaultTest : public AppModelFixture, public ::testing::WithParamInterface<Sim::Call> {
protected:
    void expectSettled() {
        expectConsistent();
        if (!state().isEnabled) {
            expectNothingLeft();
        } else {
            EXPECT_EQ(sim.liveTaps(), 1u);
            EXPECT_EQ(sim.liveAggregates(), 1u);
            EXPECT_EQ(sim.liveIOProcs(), 1u);
        }
        EXPECT_EQ(*defaults.get("resumeEnabled"), PropertyList::boolean(state().isEnabled));
    }
    void expectRecovers() {
        sim.clearFaults();
        if (!state().isEnabled) {
            model->selectOutput("M", false);
            model->setEnabled(true);
        }
        tick();
        EXPECT_TRUE(state().isEnabled) << state().errorMessage.value_or("");
        expectSettled();
    }
};

TEST_P(FaultTest, DuringSwitchOn) {
    for (const Sim::Times times : {Sim::Times::once, Sim::Times::always}) {
        SCOPED_TRACE(times == Sim::Times::once ? "once" : "always");
        launch();
        model->selectOutput("M", false);
        if (times == Sim::Times::once) {
            sim.failNext(GetParam(), kAudioHardwareIllegalOperationError);
        } else {
            sim.failAlways(GetParam(), kAudioHardwareIllegalOperationError);
        }
        model->setEnabled(true);
        if (!state().isEnabled) {
            EXPECT_TRUE(state().errorMessage) << "a failed switch-on says why";
        }
        defaults.set("resumeEnabled", PropertyList::boolean(state().isEnabled));
        expectSettled();
        expectRecovers();
        model.reset();
        sim.clearFaults();
        sim.setDefaultOutput(speakersID);
    }
}

TEST_P(FaultTest, DuringATick) {
    launch();
    switchOnDesk();
    sim.failAlways(GetParam(), kAudioHardwareIllegalOperationError);
    sim.addDevice({"C", "Rear", {2}}); // a change that makes the tick look closely
    tick();
    sim.clearFaults();
    defaults.set("resumeEnabled", PropertyList::boolean(state().isEnabled));
    expectSettled();
    expectRecovers();
}

TEST_P(FaultTest, DuringRecordingStart) {
    launch();
    switchOnDesk();
    sim.failAlways(GetParam(), kAudioHardwareIllegalOperationError);
    model->toggleRecording();
    sim.clearFaults();
    if (!state().isRecording) {
        EXPECT_TRUE(folders.accessing.empty()) << "the folder is released when nothing records";
    }
    model->toggleRecording();
    if (state().isRecording) model->toggleRecording();
    EXPECT_FALSE(state().isRecording);
    expectRecovers();
    model->toggleRecording();
    EXPECT_TRUE(state().isRecording);
    model->toggleRecording();
}

INSTANTIATE_TEST_SUITE_P(EveryCall, FaultTest, ::testing::ValuesIn(kEveryCall),
                         [](const auto& callInfo) { return std::to_string(int(callInfo.param)); });

TEST_F(AppModelFixture, ARandomRunKeepsEveryInvariant) {
    permissions.canPost = true;
    sim.addProcess({501, "com.example.player", true, {multiID}});
    sim.setProcessAudio(501, [](std::uint64_t, UInt32) { return 0.25f; });
    launch();
    std::mt19937 random(20261122);
    auto pick = [&](int count) {
        return static_cast<int>(random() % static_cast<unsigned>(count));
    };
    const std::vector<std::string> outputs = {"S", "M", "A", "B", kDisplayUID, "C", "gone"};
    bool hasRear = false;
    int lastFault = -1;
    for (int step = 0; step < 600; ++step) {
        const int action = pick(16);
        SCOPED_TRACE("step " + std::to_string(step) + ", action " + std::to_string(action));
        switch (action) {
        case 0:
            model->setEnabled(true);
            break;
        case 1:
            model->setEnabled(false);
            break;
        case 2:
            model->selectOutput(outputs[std::size_t(pick(int(outputs.size())))], false);
            break;
        case 3:
            model->setVolume(pick(130) / 100.0 - 0.1);
            break;
        case 4:
            model->stepVolume(pick(2) == 0 ? 1 : -1);
            break;
        case 5:
            model->toggleMute();
            break;
        case 6:
            if (hasRear) {
                sim.removeDevice(sim.deviceID("C"));
            } else {
                sim.addDevice({"C", "Rear", {2}});
            }
            hasRear = !hasRear;
            break;
        case 7: {
            const std::string uid = outputs[std::size_t(pick(5))];
            if (sim.deviceID(uid) != 0) sim.setDefaultOutput(sim.deviceID(uid));
            break;
        }
        case 8: {
            const Sim::Call call = kEveryCall[std::size_t(pick(15))];
            lastFault = int(call);
            sim.failNext(call, kAudioHardwareIllegalOperationError);
            break;
        }
        case 9:
            sim.clearFaults();
            break;
        case 10:
            model->toggleRecording();
            break;
        case 11:
            model->setPreset(OutputPreset(pick(3)), pick(2) ? "A" : "B");
            break;
        case 12:
            tap.deliverKey(pick(2), true);
            break;
        case 13:
            if (model->engine().aggregateID() != 0) {
                sim.runCycles(model->engine().aggregateID(), 256, 4);
            }
            break;
        case 14:
            model->restartAudioEngine();
            break;
        default:
            tick();
            break;
        }
        loop.runPending();
        SCOPED_TRACE("last fault " + std::to_string(lastFault));
        // Invariants.
        if (state().isEnabled) {
            ASSERT_TRUE(model->engine().isRunning());
            ASSERT_EQ(state().selectedDeviceUID, state().systemOutputUID);
            ASSERT_GE(sim.liveAggregates(), 1u);
            ASSERT_LE(sim.liveAggregates(), 1u + model->engine().leftoverCount());
            ASSERT_EQ(sim.liveIOProcs(), 1u);
        } else {
            ASSERT_FALSE(model->engine().isRunning());
            // Only what the system refused to destroy is left, until the next try.
            ASSERT_EQ(sim.liveTaps() + sim.liveAggregates(), model->engine().leftoverCount());
            ASSERT_EQ(sim.liveIOProcs(), 0u);
            ASSERT_FALSE(state().isRecording);
        }
        ASSERT_EQ(defaults.boolForKey("resumeEnabled"), state().isEnabled);
        ASSERT_GE(state().volume, 0.0);
        ASSERT_LE(state().volume, 1.0);
        ASSERT_LE(tap.liveTapCount(), 1u);
    }
    sim.clearFaults();
    model->setEnabled(false);
    tick();
    expectNothingLeft();
}

} // namespace
} // namespace brightmix::testing
