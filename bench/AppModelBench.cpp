// The app model's 1-second tick with the router running and automatic switching on, over the
// system of bench/SimulatedSystem.h (40 devices, 200 processes) with 10 rules whose apps have
// processes playing (so 10 detection taps are polled); and switching on. Both run against the
// simulated hardware, whose own cost is included: the figures are an upper bound of the
// model's own time.
#include <benchmark/benchmark.h>
#include <memory>
#include <string>

#include "Brightmix/AppModel.h"
#include "bench/SimulatedSystem.h"
#include "bench/UnusedFileWriter.h"
#include "platform/sim/InMemoryDefaults.h"
#include "platform/sim/VirtualMainLoop.h"
#include "tests/support/ScriptedServices.h"

namespace brightmix {
namespace {

struct Desk {
    Desk() {
        bench::buildSystem(sim);
        for (int i = 0; i < 10; ++i) {
            // Even apps have processes with running output.
            rules.push_back({"com.example.app" + std::to_string(2 * i), "App " + std::to_string(i),
                             "multi-" + std::to_string(i % 4), "Group"});
        }
        defaults.set("automaticallySwitchApps", PropertyList::boolean(true));
        system.permissions.canListen = true;
        model = std::make_unique<AppModel>(system.services(sim, loop, defaults, writer));
        model->setAppOutputRules(rules);
    }
    bench::Sim sim;
    VirtualMainLoop loop;
    InMemoryDefaults defaults;
    bench::UnusedFileWriter writer;
    testing::ScriptedServices system;
    std::vector<AppOutputRule> rules;
    std::unique_ptr<AppModel> model;
};

void BM_AppModelTick(benchmark::State& state) {
    Desk desk;
    desk.model->setEnabled(true);
    desk.model->tick(); // builds the detection taps
    if (!desk.model->state().isEnabled || desk.model->playbackMonitor() == nullptr ||
        desk.model->playbackMonitor()->tapCount() != 10) {
        const std::string reason =
            "the desk did not come up as intended: enabled " +
            std::to_string(desk.model->state().isEnabled) + ", taps " +
            std::to_string(desk.model->playbackMonitor() ? desk.model->playbackMonitor()->tapCount()
                                                         : 0) +
            ", status " + desk.model->state().appOutputStatus + ", error " +
            desk.model->state().errorMessage.value_or("");
        state.SkipWithError(reason.c_str());
        return;
    }
    for (auto _ : state)
        desk.model->tick();
}
BENCHMARK(BM_AppModelTick)->Unit(benchmark::kMicrosecond);

void BM_AppModelEnable(benchmark::State& state) {
    Desk desk;
    for (auto _ : state) {
        desk.model->enable();
        state.PauseTiming();
        if (!desk.model->state().isEnabled) state.SkipWithError("switch-on failed");
        desk.model->disable(false);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_AppModelEnable)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace brightmix
