// brightmix: Brightmix's main job on Linux today, from the command line. It lists the
// session's output devices, or routes a multi-output device's mix through the software
// volume engine (volume, mute, per-output role, equaliser preset and volume, recording)
// until interrupted, exactly as the menu-bar app does on its home platform.
//
// Crash safety: before the router mutes the multi-output sink, the backend starts
// brightmix-watchdog (found next to this program) and writes a mute record; every start
// repairs a mute that an earlier run left behind.
//
// If the audio server goes away while routing (it crashed or was restarted), the router is
// gone with it: this program says so in one line, finishes a recording and ends with status
// 1. The multi-output sink's mute is then the watchdog's to restore once the server is back.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "app/linux/CommandLine.h"
#include "platform/linux/audiofile/LinuxAudioFileWriter.h"
#include "platform/linux/pipewire/PipeWireAudioHardware.h"
#include "realtime/ProcessingState.h"

using namespace brightmix;
using namespace brightmix::linuxapp;

namespace {

std::string watchdogPath() {
    std::error_code error;
    auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return {};
    }
    return (self.parent_path() / "brightmix-watchdog").string();
}

std::string memberNames(const AudioDeviceService& service, const AudioDevice& device) {
    std::string names;
    for (const AudioDevice& member : service.devices(device.subdeviceUIDs)) {
        names += (names.empty() ? "" : ", ") + member.name;
    }
    return names;
}

int list(const AudioDeviceService& service) {
    auto outputs =
        AudioDeviceService::sortedForDisplay(AudioDeviceService::outputDevices(service.devices()));
    auto current = service.defaultOutputDevice();
    if (outputs.empty()) {
        std::printf("No output devices.\n");
        return 0;
    }
    for (const AudioDevice& device : outputs) {
        bool isDefault = current && current->uid == device.uid;
        std::printf("%s %s (%s), %lld channel%s", isDefault ? "*" : " ", device.name.c_str(),
                    device.uid.c_str(), static_cast<long long>(device.outputChannels),
                    device.outputChannels == 1 ? "" : "s");
        if (device.isMultiOutput()) {
            std::printf(", multi-output: %s", memberNames(service, device).c_str());
        }
        std::printf("\n");
    }
    std::printf("* marks the default output.\n");
    return 0;
}

std::optional<AudioDevice> chooseDevice(const AudioDeviceService& service,
                                        const RouteSettings& settings, std::string* error) {
    if (settings.deviceUID) {
        auto device = service.device(*settings.deviceUID);
        if (!device) {
            *error = "there is no output device “" + *settings.deviceUID +
                     "” (brightmix list shows them)";
        }
        return device;
    }
    auto current = service.defaultOutputDevice();
    if (current && current->isMultiOutput()) {
        return current;
    }
    for (const AudioDevice& device : AudioDeviceService::outputDevices(service.devices())) {
        if (device.isMultiOutput()) {
            return device;
        }
    }
    *error = "there is no multi-output device in this session";
    return std::nullopt;
}

void reportServerGone() {
    std::fprintf(stderr, "brightmix: the audio server went away; routing stopped.\n");
}

// Waits for SIGINT, SIGTERM or SIGHUP (blocked in every thread), until `seconds` pass, or
// until the audio server's generation moves on from `generation`. True when the server
// went away.
bool waitWhileRouting(const sigset_t& signals, std::optional<double> seconds,
                      const AudioHardware& hardware, std::uint64_t generation) {
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    while (true) {
        if (hardware.serviceGeneration() != generation) {
            return true;
        }
        timespec wait{0, 200'000'000};
        if (seconds) {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            double elapsed =
                double(now.tv_sec - start.tv_sec) + 1e-9 * double(now.tv_nsec - start.tv_nsec);
            if (elapsed >= *seconds) {
                return false;
            }
        }
        if (sigtimedwait(&signals, nullptr, &wait) > 0) {
            return hardware.serviceGeneration() != generation;
        }
    }
}

int route(pipewire::PipeWireAudioHardware& hardware, AudioDeviceService& service,
          const RouteSettings& settings, const sigset_t& signals) {
    const std::uint64_t generation = hardware.serviceGeneration();
    std::string problem;
    auto device = chooseDevice(service, settings, &problem);
    if (!device) {
        std::fprintf(stderr, "brightmix: %s.\n", problem.c_str());
        return 1;
    }
    if (!device->isMultiOutput()) {
        std::fprintf(stderr,
                     "brightmix: %s is not a multi-output device; Brightmix gives volume to "
                     "multi-output devices.\n",
                     device->name.c_str());
        return 1;
    }
    for (const OutputSettings& output : settings.outputs) {
        const auto& members = device->subdeviceUIDs;
        if (std::find(members.begin(), members.end(), output.uid) == members.end()) {
            std::fprintf(stderr, "brightmix: “%s” is not an output of %s (its outputs: %s).\n",
                         output.uid.c_str(), device->name.c_str(),
                         memberNames(service, *device).c_str());
            return 1;
        }
    }

    LinuxAudioFileWriter writer;
    SoftwareVolumeEngine engine(service, settings.volume, writer);
    ProcessingSetMasterGain(engine.gainState(), settings.isMuted ? 0.0f : settings.volume);
    if (settings.crossoverHz) {
        engine.setCrossoverHz(*settings.crossoverHz);
    }
    for (const OutputSettings& output : settings.outputs) {
        if (output.volume) {
            engine.setChildGain(output.uid, *output.volume);
        }
        if (output.role) {
            engine.setChildPreset(*output.role, output.uid);
        }
        if (output.equalizer) {
            engine.setChildEqualizer(*output.equalizer, output.uid);
        }
    }
    engine.setRecordingFinishedHandler([](const RecordingResult& result) {
        if (result.error) {
            std::fprintf(stderr, "brightmix: the recording failed: %s\n", result.error->c_str());
        } else {
            std::printf("Recorded %.1f s to %s.\n", result.duration, result.url.c_str());
        }
    });

    auto previous = service.defaultOutputDevice();
    if (!previous || previous->uid != device->uid) {
        service.setDefaultDevice(*device, kAudioHardwarePropertyDefaultOutputDevice);
    }
    try {
        engine.start(*device, AudioCaptureMode::selectedDevice);
        if (settings.recordingPath) {
            engine.startRecording(*settings.recordingPath, *settings.recordingFormat);
        }
    } catch (...) {
        if (hardware.serviceGeneration() != generation) {
            // Nothing of the router is left to take down.
            engine.forgetRouter();
            reportServerGone();
            return 1;
        }
        engine.stop();
        if (previous && previous->uid != device->uid) {
            service.setDefaultDevice(*previous, kAudioHardwarePropertyDefaultOutputDevice);
        }
        throw;
    }
    std::printf("Routing %s through Brightmix at volume %.0f %%%s. Press Ctrl-C to stop.\n",
                device->name.c_str(), settings.volume * 100.0, settings.isMuted ? ", muted" : "");
    std::fflush(stdout);

    if (waitWhileRouting(signals, settings.seconds, hardware, generation)) {
        // The tap, the filter and their IDs went with the server: forget them, and keep the
        // recording's file valid. Whether the device plays directly now is for the restarted
        // server (and the watchdog) to decide; nothing here can tell.
        engine.forgetRouter();
        reportServerGone();
        return 1;
    }

    engine.stop();
    if (hardware.serviceGeneration() != generation) {
        reportServerGone();
        return 1;
    }
    if (previous && previous->uid != device->uid) {
        if (auto stillThere = service.device(previous->uid)) {
            service.setDefaultDevice(*stillThere, kAudioHardwarePropertyDefaultOutputDevice);
        }
    }
    std::printf("Stopped; %s plays directly again.\n", device->name.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    auto parsed = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (auto* error = std::get_if<std::string>(&parsed)) {
        std::fprintf(stderr, "brightmix: %s.\n\n%s", error->c_str(), usageText().c_str());
        return 2;
    }
    const Command& command = std::get<Command>(parsed);
    if (command.kind == Command::Kind::help) {
        std::printf("%s", usageText().c_str());
        return 0;
    }

    // Blocked before any thread starts, so that only sigtimedwait sees them and the
    // router always stops cleanly.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    pipewire::PipeWireAudioHardware::Options options;
    options.watchdogExecutable = watchdogPath();
    std::string error;
    auto hardware = pipewire::PipeWireAudioHardware::connect(options, &error);
    if (!hardware) {
        std::fprintf(stderr,
                     "brightmix: no PipeWire session is reachable (%s). Log in to a desktop "
                     "session, or start a private one with scripts/pipewire-session.sh.\n",
                     error.c_str());
        return 1;
    }
    for (const std::string& sink : hardware->repairLeftoverMutes()) {
        std::printf("Restored the sound of %s, which an earlier run left muted.\n", sink.c_str());
    }

    try {
        AudioDeviceService service(*hardware);
        if (command.kind == Command::Kind::list) {
            return list(service);
        }
        return route(*hardware, service, command.route, signals);
    } catch (const AudioDeviceError& failure) {
        if (hardware->serviceGeneration() != 0) {
            reportServerGone();
        } else {
            std::fprintf(stderr, "brightmix: %s\n", failure.localizedDescription().c_str());
        }
        return 1;
    } catch (const std::exception& failure) {
        if (hardware->serviceGeneration() != 0) {
            reportServerGone();
        } else {
            std::fprintf(stderr, "brightmix: %s\n", failure.what());
        }
        return 1;
    }
}
