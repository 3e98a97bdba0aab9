// The program's own volume indicator, shown while the volume keys are swallowed (the system
// then shows none): a small panel in the top-right corner of the screen under the pointer
// with the output's name and the level, kept up until 1.15 s after the last call and then
// faded out over 0.18 s.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/HudPanel.h"
#include "platform/MainLoop.h"

namespace brightmix {

class VolumeHUDController {
public:
    static constexpr double kPanelWidth = 250;
    static constexpr double kPanelHeight = 70;
    static constexpr double kRightInset = 16;
    static constexpr double kTopInset = 12;
    static constexpr double kVisibleSeconds = 1.15;
    static constexpr double kFadeSeconds = 0.18;
    static constexpr int kWindowLevel = 25;              // the status-window level
    static constexpr unsigned kCollectionBehavior = 329; // all spaces, transient, no cycling,
                                                         // full-screen auxiliary

    VolumeHUDController(HudPanel& panel, const Screens& screens, MainLoop& loop);
    ~VolumeHUDController();
    VolumeHUDController(const VolumeHUDController&) = delete;
    VolumeHUDController& operator=(const VolumeHUDController&) = delete;

    // Shows or refreshes the indicator and restarts the wait before the fade.
    void show(bool isMuted, const std::string& outputName, double volume);
    // Takes the indicator away at once (the own indicator is no longer used).
    void hide();

private:
    void fadeOut();

    HudPanel& panel_;
    const Screens& screens_;
    MainLoop& loop_;
    MainLoop::TimerID dismissal_ = 0;
    // Bumped by every show, so that a fade started before it cannot order the panel out.
    std::uint64_t showCount_ = 0;
    std::shared_ptr<VolumeHUDController*> self_;
};

} // namespace brightmix
