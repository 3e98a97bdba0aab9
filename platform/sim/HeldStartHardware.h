// A system that holds back the start of aggregates made with the tap auto-start key, as Core
// Audio does: a plain start of such an aggregate does not return until a tapped app delivers
// audio. Wrapped around another AudioHardware (the simulated one, in the tests), it passes
// every call through, but a plain `startDevice` of such an aggregate first waits `holdFor`
// and is counted; `startDeviceWithoutWaiting` goes through at once, as the real one hands the
// start to another thread. Tests prove with it that no caller waits on an app, and the
// benchmarks measure what a poll would cost if one did.
//
// Thread: control, like the hardware it wraps. Realtime-safe: no.
#pragma once

#include <chrono>
#include <cstddef>

#include "platform/sim/ForwardingAudioHardware.h"

namespace brightmix {

class HeldStartHardware final : public ForwardingAudioHardware {
public:
    explicit HeldStartHardware(AudioHardware& inner) : ForwardingAudioHardware(inner) {}

    // How long a held start keeps its caller waiting (the app's first audio, in effect).
    std::chrono::microseconds holdFor{0};
    // Plain starts that the system would have held back.
    std::size_t heldStarts() const { return heldStarts_; }

    OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;
    // Goes through at once: the real one hands the start to another thread.
    OSStatus startDeviceWithoutWaiting(AudioObjectID device, AudioDeviceIOProcID procID) override {
        return inner().startDevice(device, procID);
    }

private:
    bool startsOnFirstTapAudio(AudioObjectID device);

    std::size_t heldStarts_ = 0;
};

} // namespace brightmix
