// The desktop's mute key on Linux. While Brightmix routes a multi-output sink, the sink is
// muted so that only the routed path is heard (and a watchdog undoes that mute if Brightmix
// dies); the desktop therefore shows that sink as muted, and its mute key unmutes it. Every
// 0.1 s this watches the routed sink: when something other than Brightmix unmuted it, that was
// the mute key, so Brightmix toggles its own mute and mutes the sink again at once (the
// direct path is heard for at most that moment). The crash-safety mute is never left off.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include "Brightmix/AppModel.h"
#include "platform/MainLoop.h"
#include "platform/linux/pipewire/PipeWireAudioHardware.h"

namespace brightmix::linuxapp {

class DesktopMuteKey {
public:
    static constexpr double kInterval = 0.1;

    DesktopMuteKey(AppModel& model, pipewire::PipeWireAudioHardware& hardware, MainLoop& loop);
    ~DesktopMuteKey();
    DesktopMuteKey(const DesktopMuteKey&) = delete;
    DesktopMuteKey& operator=(const DesktopMuteKey&) = delete;

    // One look at the routed sink (the timer calls it).
    void poll();

private:
    AppModel& model_;
    pipewire::PipeWireAudioHardware& hardware_;
    MainLoop& loop_;
    MainLoop::TimerID timer_ = 0;
};

} // namespace brightmix::linuxapp
