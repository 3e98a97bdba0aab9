#include "Brightmix/VolumeHUDController.h"

#include <optional>

namespace brightmix {

VolumeHUDController::VolumeHUDController(HudPanel& panel, const Screens& screens, MainLoop& loop)
    : panel_(panel), screens_(screens), loop_(loop),
      self_(std::make_shared<VolumeHUDController*>(this)) {
    panel_.setAlpha(0);
}

VolumeHUDController::~VolumeHUDController() {
    loop_.cancel(dismissal_);
}

void VolumeHUDController::show(bool isMuted, const std::string& outputName, double volume) {
    loop_.cancel(dismissal_);
    dismissal_ = 0;
    ++showCount_;
    panel_.setContent({volume, isMuted, outputName});

    const ScreenPoint mouse = screens_.mouseLocation();
    std::optional<Screen> screen;
    for (const Screen& candidate : screens_.screens()) {
        if (candidate.frame.contains(mouse)) {
            screen = candidate;
            break;
        }
    }
    if (!screen) screen = screens_.mainScreen();
    if (screen) {
        panel_.setFrameOrigin({screen->visibleFrame.maxX() - kPanelWidth - kRightInset,
                               screen->visibleFrame.maxY() - kPanelHeight - kTopInset});
    }
    panel_.setAlpha(1);
    panel_.orderFrontRegardless();

    std::weak_ptr<VolumeHUDController*> weak = self_;
    dismissal_ = loop_.scheduleOnce(kVisibleSeconds, [weak] {
        if (const auto self = weak.lock()) (*self)->fadeOut();
    });
}

void VolumeHUDController::hide() {
    loop_.cancel(dismissal_);
    dismissal_ = 0;
    ++showCount_;
    panel_.setAlpha(0);
    panel_.orderOut();
}

void VolumeHUDController::fadeOut() {
    dismissal_ = 0;
    const std::uint64_t shownAt = showCount_;
    std::weak_ptr<VolumeHUDController*> weak = self_;
    panel_.animateAlpha(0, kFadeSeconds, [weak, shownAt] {
        const auto self = weak.lock();
        if (self && (*self)->showCount_ == shownAt) (*self)->panel_.orderOut();
    });
}

} // namespace brightmix
