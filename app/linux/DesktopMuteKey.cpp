#include "app/linux/DesktopMuteKey.h"

namespace brightmix::linuxapp {

DesktopMuteKey::DesktopMuteKey(AppModel& model, pipewire::PipeWireAudioHardware& hardware,
                               MainLoop& loop)
    : model_(model), hardware_(hardware), loop_(loop) {
    timer_ = loop_.scheduleRepeating(kInterval, [this] { poll(); });
}

DesktopMuteKey::~DesktopMuteKey() {
    loop_.cancel(timer_);
}

void DesktopMuteKey::poll() {
    const AppModelState& state = model_.state();
    // Only while the router runs on the default output, which is when the sink is ours.
    if (!state.isEnabled || !model_.engine().isRunning() || !state.selectedDeviceUID ||
        state.systemOutputUID != state.selectedDeviceUID) {
        return;
    }
    const std::optional<AudioDevice> device = model_.devices().device(*state.selectedDeviceUID);
    if (!device || !device->isMultiOutput()) return;
    if (hardware_.sinkMute(device->uid) != std::optional<bool>(false)) return;
    hardware_.setSinkMute(device->uid, true);
    model_.toggleMute();
}

} // namespace brightmix::linuxapp
