#include "Brightmix/AudioHealthMonitor.h"

#include "Brightmix/AudioDeviceError.h"
#include "realtime/ProcessingState.h"

namespace brightmix {

void AudioHealthMonitor::reset(const SoftwareVolumeEngine& engine) {
    lastCallbackCount = ProcessingRenderCycles(engine.gainState());
    lastNonSilentCallbackCount = ProcessingSignalCycles(engine.gainState());
    hasRequestedFallback = false;
    silentActivePollCount = 0;
    hasDeliveredSound = false;
}

bool AudioHealthMonitor::poll(const PollInput& input) {
    if (!input.selectedDevice || !input.engine.isRunning()) return false;

    std::uint64_t callbacks = ProcessingRenderCycles(input.engine.gainState());
    std::uint64_t nonSilent = ProcessingSignalCycles(input.engine.gainState());
    bool isOtherProcessPlaying = input.devices.isAnotherProcessPlaying(
        input.selectedDevice->id, input.devices.hardware().currentProcessID());

    std::uint64_t previousCallbacks = lastCallbackCount;
    std::uint64_t previousNonSilent = lastNonSilentCallbackCount;
    lastCallbackCount = callbacks;
    lastNonSilentCallbackCount = nonSilent;

    bool shouldFallBack = false;
    if (previousNonSilent < nonSilent) {
        hasDeliveredSound = true;
        silentActivePollCount = 0;
    } else if (!(previousCallbacks < callbacks && isOtherProcessPlaying)) {
        silentActivePollCount = 0;
    } else if (hasDeliveredSound) {
        // A tap that once worked is trusted: this is real silence.
        silentActivePollCount = 0;
    } else {
        silentActivePollCount += 1;
        if (silentActivePollCount >= kSilentPollsBeforeFallback &&
            input.engine.captureMode() == AudioCaptureMode::selectedDevice &&
            !hasRequestedFallback) {
            hasRequestedFallback = true;
            shouldFallBack = true;
        }
    }

    if (input.defaults.boolForKey(kDiagnosticsKey))
        input.defaults.set(kReportKey, report(input.engine, callbacks, nonSilent,
                                              isOtherProcessPlaying, silentActivePollCount,
                                              hasDeliveredSound, input.errorMessage, input.now));
    return shouldFallBack;
}

PropertyList::Dictionary
AudioHealthMonitor::report(SoftwareVolumeEngine& engine, std::uint64_t callbacks,
                           std::uint64_t nonSilent, bool isOtherProcessPlaying,
                           std::int64_t silentPolls, bool hasDeliveredSound,
                           const std::string& errorMessage, double now) {
    PropertyList::Dictionary report = engine.diagnosticDetails();
    report["callbacks"] = PropertyList::unsignedInteger(callbacks);
    report["nonSilent"] = PropertyList::unsignedInteger(nonSilent);
    report["otherProcessPlaying"] = PropertyList::boolean(isOtherProcessPlaying);
    report["silentPolls"] = PropertyList::integer(silentPolls);
    report["tapDeliveredSound"] = PropertyList::boolean(hasDeliveredSound);
    report["error"] = errorMessage;
    report["at"] = PropertyList::real(now);
    return report;
}

std::optional<std::string> AudioHealthMonitor::fallBack(SoftwareVolumeEngine& engine,
                                                        const AudioDevice& selectedDevice) {
    engine.stop();
    try {
        engine.start(selectedDevice, AudioCaptureMode::compatibilityGlobal);
    } catch (const AudioDeviceError& error) {
        return kFallbackFailureLeadIn + error.localizedDescription();
    }
    reset(engine);
    return std::nullopt;
}

} // namespace brightmix
