// One playback-detection poll over the simulated hardware, at the scale of a busy machine:
// 20 rules and 200 audio processes, of which 10 apps with rules play through 5 processes
// each and 150 processes belong to apps without a rule. The simulation's property reads
// are counted in, so the monitor's own share is below the figure.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Brightmix/AppPlaybackMonitor.h"
#include "platform/sim/HeldStartHardware.h"
#include "platform/sim/ScriptedWorkspace.h"
#include "platform/sim/SimulatedAudioHardware.h"
#include "platform/sim/VirtualMainLoop.h"

namespace brightmix {
namespace {

constexpr int kRules = 20;
constexpr int kPlayingApps = 10;
constexpr int kProcessesPerApp = 5;
constexpr int kOtherProcesses = 150;

struct Scene {
    // `held`: a system that holds back plain starts of detection aggregates (see below).
    explicit Scene(bool isHeld = false)
        : devices(isHeld ? static_cast<AudioHardware&>(held) : sim) {
        std::int32_t pid = 1000;
        for (int app = 0; app < kRules; ++app) {
            const std::string bundleID = "com.example.app" + std::to_string(app);
            rules.push_back({bundleID, "App " + std::to_string(app), "out", "Output"});
            if (app >= kPlayingApps) {
                continue;
            }
            const std::string bundle = "/Applications/App" + std::to_string(app) + ".app";
            workspace.setBundleIdentifier(bundle, bundleID);
            for (int process = 0; process < kProcessesPerApp; ++process, ++pid) {
                // The first process is the app itself, the others helpers inside its bundle.
                const bool isMain = process == 0;
                sim.addProcess({pid, isMain ? bundleID : bundleID + ".helper", true});
                workspace.setRunningApplication(
                    pid,
                    isMain ? bundle
                           : bundle + "/Contents/Frameworks/Helper.app/Contents/MacOS/Helper",
                    isMain ? bundleID : bundleID + ".helper");
            }
        }
        for (int other = 0; other < kOtherProcesses; ++other, ++pid) {
            const std::string bundleID = "org.unrelated.tool" + std::to_string(other);
            sim.addProcess({pid, bundleID, other % 3 != 0});
            workspace.setRunningApplication(
                pid, "/Applications/Tool" + std::to_string(other) + ".app", bundleID);
        }
    }

    // Gives every detection tap one IO cycle, as the real IO threads would between polls.
    void runCycles() {
        for (const auto& rule : rules) {
            if (const PlaybackTap* tap = monitor.tap(rule.bundleID)) {
                sim.pumpCycle(tap->aggregateID(), 512);
            }
        }
    }

    SimulatedAudioHardware sim;
    HeldStartHardware held{sim};
    AudioDeviceService devices;
    VirtualMainLoop loop;
    ScriptedWorkspace workspace;
    AppPlaybackMonitor monitor{devices, loop, workspace};
    std::vector<AppOutputRule> rules;
};

// The steady state: every tap already stands, so a poll reads the process list, matches
// 200 processes and takes 10 counters.
void BM_PlaybackMonitorPoll(benchmark::State& state) {
    Scene scene;
    scene.monitor.poll(scene.rules);
    if (scene.monitor.tapCount() != kPlayingApps) {
        state.SkipWithError("the scene did not build the expected taps");
        return;
    }
    for (auto _ : state) {
        state.PauseTiming();
        scene.runCycles();
        state.ResumeTiming();
        auto heard = scene.monitor.poll(scene.rules);
        benchmark::DoNotOptimize(heard);
    }
}
BENCHMARK(BM_PlaybackMonitorPoll)->Unit(benchmark::kMicrosecond);

// First polls, each after the taps were taken down.
void runFirstPolls(benchmark::State& state, Scene& scene) {
    for (auto _ : state) {
        state.PauseTiming();
        scene.monitor.stop();
        state.ResumeTiming();
        auto heard = scene.monitor.poll(scene.rules);
        benchmark::DoNotOptimize(heard);
    }
}

// The first poll after a start or a back-off: it also builds the 10 taps and aggregates.
void BM_PlaybackMonitorFirstPoll(benchmark::State& state) {
    Scene scene;
    runFirstPolls(state, scene);
}
BENCHMARK(BM_PlaybackMonitorFirstPoll)->Unit(benchmark::kMicrosecond);

// The same first poll on a system that holds every plain start of a detection aggregate back
// for 20 ms, as Core Audio does until the tapped app delivers audio (which may be never): the
// poll hands the starts on and must cost what the one above costs, not 10 × 20 ms.
void BM_PlaybackMonitorFirstPollWithHeldStarts(benchmark::State& state) {
    Scene scene(true);
    scene.held.holdFor = std::chrono::milliseconds(20);
    runFirstPolls(state, scene);
    if (scene.held.heldStarts() != 0) state.SkipWithError("a poll waited for a held start");
}
BENCHMARK(BM_PlaybackMonitorFirstPollWithHeldStarts)->Unit(benchmark::kMicrosecond);

// The matching alone, for 200 processes: the part of a poll that is the monitor's own.
void BM_PlaybackMonitorMatch(benchmark::State& state) {
    AppPlaybackMonitor::BundleIDSet wanted;
    for (int app = 0; app < kRules; ++app) {
        wanted.insert("com.example.app" + std::to_string(app));
    }
    std::vector<std::string> longestFirst(wanted.begin(), wanted.end());
    std::stable_sort(longestFirst.begin(), longestFirst.end(),
                     [](const auto& a, const auto& b) { return a.size() > b.size(); });
    std::vector<std::optional<std::string>> processIDs;
    for (int process = 0; process < 200; ++process) {
        processIDs.push_back(process < 50 ? "com.example.app" + std::to_string(process % 10) +
                                                (process % 5 == 0 ? "" : ".helper")
                                          : "org.unrelated.tool" + std::to_string(process));
    }
    const std::optional<std::string> noApp;
    for (auto _ : state) {
        for (const auto& id : processIDs) {
            auto match = AppPlaybackMonitor::matchBundleID(id, noApp, wanted, longestFirst);
            benchmark::DoNotOptimize(match);
        }
    }
}
BENCHMARK(BM_PlaybackMonitorMatch)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace brightmix
