// The AudioHardware contract, run against the private PipeWire session: a multi-output
// sink over a mono subwoofer and a stereo pair, in that member order.
#include <chrono>
#include <thread>

#include "tests/linux/PipeWireTestSupport.h"

#if __has_include("tests/support/AudioHardwareContract.h")
#include "tests/support/AudioHardwareContract.h"

namespace brightmix::testing {
namespace {

AudioHardwareContractScene pipeWireScene() {
    AudioHardwareContractScene scene;
    scene.name = "PipeWire";
    scene.makeHardware = []() -> std::unique_ptr<AudioHardware> { return connectToSession(); };
    // The graph runs on its own clock; a few quanta are enough for a cycle.
    scene.runIO = [](AudioHardware&, AudioObjectID) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    };
    scene.multiOutputUID = "multi_output";
    scene.firstMemberUID = "subwoofer";
    scene.firstMemberChannels = 1;
    scene.secondMemberUID = "desk_speakers";
    scene.secondMemberChannels = 2;
    // A combine sink's members come from the session's rules, not from a client.
    scene.canRewriteComposition = false;
    scene.canSetDefaultOutput = true;
    return scene;
}

INSTANTIATE_TEST_SUITE_P(PipeWire, AudioHardwareContract, ::testing::Values(pipeWireScene()),
                         AudioHardwareContract::name);

} // namespace
} // namespace brightmix::testing

#endif
