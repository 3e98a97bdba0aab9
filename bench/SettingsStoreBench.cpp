// The settings on the Linux store: loading every setting from the file as start-up does, and
// one setter's write-through (a per-output volume change rewrites the whole file, flushed to
// disk), with a realistic large domain: 40 device labels, 20 app rules and the speaker roles
// and equalisers of 10 outputs with 4 members each. Measured in a folder under /tmp.
#include <benchmark/benchmark.h>
#include <filesystem>
#include <string>

#include "Brightmix/AppSettings.h"
#include "platform/linux/settings/PropertyListFileDefaults.h"
#include "tests/support/TemporaryFolder.h"

namespace brightmix {
namespace {

void fillLargeDomain(Defaults& defaults) {
    AppSettings settings;
    for (int i = 0; i < 40; ++i) {
        settings.deviceLabels.setLabel("Label " + std::to_string(i), "Device " + std::to_string(i),
                                       "device-uid-" + std::to_string(i),
                                       i % 4 == 0 ? DeviceDirection::input
                                                  : DeviceDirection::output);
    }
    for (int i = 0; i < 20; ++i) {
        settings.appOutputRules.push_back({"com.example.app" + std::to_string(i),
                                           "App " + std::to_string(i),
                                           "output-" + std::to_string(i % 10), "Output"});
    }
    for (int output = 0; output < 10; ++output) {
        for (int member = 0; member < 4; ++member) {
            const std::string outputUID = "output-" + std::to_string(output);
            const std::string child = "member-" + std::to_string(output * 4 + member);
            settings.presets.set(member == 0 ? "subwoofer" : "satellite", outputUID, child);
            settings.equalizers.set("bassBooster", outputUID, child);
            settings.childVolumes[child] = 0.5;
        }
    }
    settingsWrite::deviceLabels(defaults, settings.deviceLabels);
    settingsWrite::appOutputRules(defaults, settings.appOutputRules);
    settingsWrite::presetsByOutput(defaults, settings.presets);
    settingsWrite::equalizersByOutput(defaults, settings.equalizers);
    settingsWrite::childVolumes(defaults, settings.childVolumes);
    settingsWrite::volume(defaults, 0.6);
    settingsWrite::selectedDeviceUID(defaults, "output-3");
}

void BM_LoadAllSettingsFromFile(benchmark::State& state) {
    testing::TemporaryFolder folder;
    const auto file = folder / "brightmix/com.corvale.brightmix.plist";
    {
        PropertyListFileDefaults defaults(file);
        fillLargeDomain(defaults);
    }
    state.counters["file bytes"] = static_cast<double>(std::filesystem::file_size(file));
    for (auto _ : state) {
        PropertyListFileDefaults defaults(file);
        AppSettings settings = AppSettings::load(defaults);
        benchmark::DoNotOptimize(settings);
    }
}
BENCHMARK(BM_LoadAllSettingsFromFile)->Unit(benchmark::kMicrosecond);

void BM_SetterWriteThroughToFile(benchmark::State& state) {
    testing::TemporaryFolder folder;
    PropertyListFileDefaults defaults(folder / "brightmix/com.corvale.brightmix.plist");
    fillLargeDomain(defaults);
    ChildVolumes volumes = AppSettings::load(defaults).childVolumes;
    double volume = 0;
    for (auto _ : state) {
        volume = volume > 0.9 ? 0 : volume + 0.01;
        volumes["member-5"] = volume;
        settingsWrite::childVolumes(defaults, volumes);
    }
}
BENCHMARK(BM_SetterWriteThroughToFile)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same domain serialised alone, without the file system: the share of a write that is
// encoding rather than flushing to disk.
void BM_SerializeLargeDomain(benchmark::State& state) {
    testing::TemporaryFolder folder;
    PropertyListFileDefaults defaults(folder / "domain.plist");
    fillLargeDomain(defaults);
    for (auto _ : state) {
        benchmark::DoNotOptimize(PropertyListFileDefaults::serialize(defaults.values()));
    }
}
BENCHMARK(BM_SerializeLargeDomain)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace brightmix
