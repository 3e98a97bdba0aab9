// Tells whether the router's tap really delivers sound. Some systems start a per-device tap
// without error and then never deliver a sample: the router runs, the tapped audio is muted
// at its destination, and the user hears nothing. From the render's cycle counters and
// whether another process plays to the output, the monitor decides when to restart once
// with the global stereo tap, and it keeps the diagnostics report while diagnostics are on.
//
// A small value held by the app model; reset after every successful engine start, polled on
// every refresh tick.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Brightmix/AudioDevice.h"
#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/SoftwareVolumeEngine.h"
#include "platform/Defaults.h"

namespace brightmix {

struct AudioHealthMonitor {
    // Render cycles, and cycles that carried signal, at the previous poll.
    std::uint64_t lastCallbackCount = 0;
    std::uint64_t lastNonSilentCallbackCount = 0;
    // A fallback has been asked for since the last reset; a failed fallback is not retried.
    bool hasRequestedFallback = false;
    // Consecutive polls in which the router ran, another process played and nothing came.
    std::int64_t silentActivePollCount = 0;
    // The tap has carried signal at least once since the last reset: it is trusted.
    bool hasDeliveredSound = false;

    static constexpr const char* kDiagnosticsKey = "diagnostics";
    static constexpr const char* kReportKey = "diagnosticsReport";
    static constexpr std::int64_t kSilentPollsBeforeFallback = 2;
    // What the user reads when the fallback could not start; the start error follows.
    inline static const std::string kFallbackFailureLeadIn =
        "Brightmix’s audio tap never delivered sound and the compatibility tap could not "
        "start, so it switched off to restore ordinary Multi-Output playback. ";

    // After every successful start: the counters as they are now, everything else cleared.
    void reset(const SoftwareVolumeEngine& engine);

    struct PollInput {
        SoftwareVolumeEngine& engine;
        const AudioDeviceService& devices;
        // The user's output device (not the private router); none: the poll does nothing.
        const std::optional<AudioDevice>& selectedDevice;
        Defaults& defaults;
        // The app's current error message; empty when there is none.
        const std::string& errorMessage;
        // Wall-clock seconds since 1970, for the report.
        double now;
    };

    // One refresh tick: updates the record, writes the report when diagnostics are on, and
    // answers whether to fall back to the compatibility capture now (then call fallBack).
    bool poll(const PollInput& input);

    // The compatibility capture has run through as many silent polls (router running, another
    // app playing) as the fallback waits for, and has never carried signal since it started.
    bool hasCompatibilityCaptureStayedSilent(const SoftwareVolumeEngine& engine) const {
        return engine.isUsingCompatibilityCapture() && !hasDeliveredSound &&
               silentActivePollCount >= kSilentPollsBeforeFallback;
    }

    // The report as written under "diagnosticsReport" (the engine's details plus the
    // monitor's view); exposed for the app model's diagnostics.
    static PropertyList::Dictionary report(SoftwareVolumeEngine& engine, std::uint64_t callbacks,
                                           std::uint64_t nonSilent, bool isOtherProcessPlaying,
                                           std::int64_t silentPolls, bool hasDeliveredSound,
                                           const std::string& errorMessage, double now);

    // The fallback itself: stops the engine and starts it again on the same device with the
    // global stereo tap. On success the monitor is reset and none is returned; the app model
    // then pushes the master gain again and marks itself enabled. On failure the message to
    // show is returned (lead-in plus the start error) and the app model switches itself off;
    // the request stays recorded, so the poll never retries.
    std::optional<std::string> fallBack(SoftwareVolumeEngine& engine,
                                        const AudioDevice& selectedDevice);
};

} // namespace brightmix
