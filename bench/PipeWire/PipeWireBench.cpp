// What the PipeWire backend costs on a real server: one device refresh, one detection
// poll, starting and stopping the router, the router's CPU share while audio plays, and
// the latency of the routed path against the direct one.
//
// Runs against the private session: start it with scripts/pipewire-session.sh start DIR,
// then BRIGHTMIX_TEST_SESSION=DIR brightmix_pipewire_bench.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <complex>
#include <ctime>
#include <thread>

#include "Brightmix/AppPlaybackMonitor.h"
#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/sim/ScriptedWorkspace.h"
#include "platform/sim/VirtualMainLoop.h"
#include "realtime/ProcessingState.h"
#include "tests/linux/PipeWireTestSupport.h"

namespace brightmix {
namespace {

using namespace std::chrono_literals;

struct Session {
    std::unique_ptr<pipewire::PipeWireAudioHardware> hardware = testing::connectToSession();
    std::unique_ptr<AudioDeviceService> service =
        hardware ? std::make_unique<AudioDeviceService>(*hardware) : nullptr;
    LinuxAudioFileWriter writer;

    AudioDevice multiOutput() const { return service->device("multi_output").value(); }

    std::unique_ptr<testing::TonePlayer> tone(const std::string& applicationID = {}) {
        std::string file = testing::scratchDirectory() + "/bench-tone.wav";
        testing::writeToneFile(file, 1000, 0.5, 60);
        auto player = std::make_unique<testing::TonePlayer>(file, "multi_output", applicationID);
        std::this_thread::sleep_for(500ms);
        return player;
    }
};

double processCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

#define REQUIRE_SESSION(session)                                                                   \
    if (!(session).hardware) {                                                                     \
        state.SkipWithError("no private PipeWire session: set BRIGHTMIX_TEST_SESSION");            \
        return;                                                                                    \
    }

void BM_PipeWireDeviceRefresh(benchmark::State& state) {
    Session session;
    REQUIRE_SESSION(session);
    for (auto _ : state) {
        auto devices = session.service->devices();
        benchmark::DoNotOptimize(devices);
    }
}
BENCHMARK(BM_PipeWireDeviceRefresh)->Unit(benchmark::kMicrosecond);

void BM_PipeWireDetectionPoll(benchmark::State& state) {
    Session session;
    REQUIRE_SESSION(session);
    auto player = session.tone("org.example.Player");
    VirtualMainLoop loop;
    ScriptedWorkspace workspace;
    AppPlaybackMonitor monitor(*session.service, loop, workspace);
    std::vector<AppOutputRule> rules = {
        {"org.example.Player", "Player", "desk_speakers", "Desk Speakers"},
        {"org.example.Absent", "Absent", "desk_speakers", "Desk Speakers"}};
    monitor.poll(rules); // builds the tap; later polls only read it
    for (auto _ : state) {
        auto heard = monitor.poll(rules);
        benchmark::DoNotOptimize(heard);
        // Keep the missing-callback guard quiet: a poll per graph cycle or so.
        state.PauseTiming();
        std::this_thread::sleep_for(50ms);
        loop.advance(0.05);
        state.ResumeTiming();
    }
    monitor.stop();
}
BENCHMARK(BM_PipeWireDetectionPoll)->Unit(benchmark::kMicrosecond)->Iterations(20);

void BM_PipeWireRouterStart(benchmark::State& state) {
    Session session;
    REQUIRE_SESSION(session);
    auto player = session.tone();
    SoftwareVolumeEngine engine(*session.service, 0.5f, session.writer);
    AudioDevice device = session.multiOutput();
    for (auto _ : state) {
        engine.start(device, AudioCaptureMode::selectedDevice);
        state.PauseTiming();
        engine.stop();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_PipeWireRouterStart)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_PipeWireRouterStop(benchmark::State& state) {
    Session session;
    REQUIRE_SESSION(session);
    auto player = session.tone();
    SoftwareVolumeEngine engine(*session.service, 0.5f, session.writer);
    AudioDevice device = session.multiOutput();
    for (auto _ : state) {
        state.PauseTiming();
        engine.start(device, AudioCaptureMode::selectedDevice);
        state.ResumeTiming();
        engine.stop();
    }
}
BENCHMARK(BM_PipeWireRouterStop)->Unit(benchmark::kMillisecond)->Iterations(10);

// CPU of this whole process (PipeWire's threads and the router's callback) over wall time,
// routing against idling on the same connection.
void BM_PipeWireRouterCpuShare(benchmark::State& state) {
    Session session;
    REQUIRE_SESSION(session);
    auto player = session.tone();
    SoftwareVolumeEngine engine(*session.service, 0.5f, session.writer);
    double idleCpu = processCpuSeconds();
    std::this_thread::sleep_for(1s);
    idleCpu = processCpuSeconds() - idleCpu;
    engine.start(session.multiOutput(), AudioCaptureMode::selectedDevice);
    double routedCpu = 0;
    double wall = 0;
    for (auto _ : state) {
        double before = processCpuSeconds();
        auto start = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(2s);
        routedCpu += processCpuSeconds() - before;
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    state.counters["cpu_percent_routing"] = 100.0 * routedCpu / wall;
    state.counters["cpu_percent_idle"] = 100.0 * idleCpu;
    state.counters["render_cycles"] = double(ProcessingRenderCycles(engine.gainState()));
    engine.stop();
}
BENCHMARK(BM_PipeWireRouterCpuShare)->Unit(benchmark::kMillisecond)->Iterations(2);

// The phase of a 1 kHz tone at one speaker before and after the router engages, from one
// continuous capture. A path that were a graph cycle longer would shift the phase by the
// quantum modulo the tone's 48-sample period (1024 -> 16, 2048 -> 32); the same cycle
// keeps it.
double phaseInSamples(const std::vector<float>& samples, std::size_t from, std::size_t count) {
    std::complex<double> sum = 0;
    for (std::size_t n = from; n < from + count && n < samples.size(); ++n) {
        sum += double(samples[n]) * std::polar(1.0, -2.0 * M_PI * 1000.0 * double(n) / 48000.0);
    }
    double phase = std::arg(sum) / (2.0 * M_PI) * 48.0;
    return phase < 0 ? phase + 48.0 : phase;
}

void BM_PipeWireRoutedPathLatency(benchmark::State& state) {
    Session session;
    REQUIRE_SESSION(session);
    auto player = session.tone();
    SoftwareVolumeEngine engine(*session.service, 1.0f, session.writer);
    testing::MonitorCapture desk("desk_speakers", 2);
    double worstShift = 0;
    for (auto _ : state) {
        desk.clear();
        desk.waitFor(0.4);
        engine.start(session.multiOutput(), AudioCaptureMode::selectedDevice);
        auto afterStart = desk.channel(0).size();
        std::this_thread::sleep_for(400ms);
        auto samples = desk.channel(0);
        double before = phaseInSamples(samples, 0, 9600);
        double after = phaseInSamples(samples, afterStart + 4800, 9600);
        double shift = std::fabs(after - before);
        shift = std::min(shift, 48.0 - shift);
        worstShift = std::max(worstShift, shift);
        engine.stop();
        std::this_thread::sleep_for(200ms);
    }
    state.counters["phase_shift_samples"] = worstShift;
}
BENCHMARK(BM_PipeWireRoutedPathLatency)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace
} // namespace brightmix
