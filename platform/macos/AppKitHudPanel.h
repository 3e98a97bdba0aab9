// HudPanel and Screens over AppKit: the volume indicator is a NonactivatingHUDPanel (an NSPanel
// that never becomes key or main) of 250 × 70 points, non-activating style, buffered and
// deferred, clear and not opaque, vibrant dark, with a shadow, at window level 25, ignoring the
// mouse, staying up while the app is inactive, collection behaviour 329 (all Spaces, transient,
// out of the window cycle, beside full-screen apps), not released when closed, alpha 0. Its
// content is an ultra-thin material in a rounded rectangle of radius 16 with a 0.5-point white
// outline at 16 %, holding the indicator's view tree drawn by the AppKit renderer. Fades go
// through NSAnimationContext.
//
// Objective-C++ only. Thread: the main thread. Realtime-safe: no.
#pragma once

#include <functional>
#include <memory>

#include "platform/HudPanel.h"
#include "ui/View.h"

namespace brightmix {

class AppKitHudPanel final : public HudPanel, public Screens {
public:
    // `view` builds the indicator's tree for a content.
    explicit AppKitHudPanel(std::function<ui::Node(const HudContent&)> view);
    ~AppKitHudPanel() override;

    void setContent(const HudContent& content) override;
    void setFrameOrigin(ScreenPoint origin) override;
    void setAlpha(double alpha) override;
    void orderFrontRegardless() override;
    void orderOut() override;
    void animateAlpha(double alpha, double duration, std::function<void()> completion) override;

    std::vector<Screen> screens() const override;
    std::optional<Screen> mainScreen() const override;
    ScreenPoint mouseLocation() const override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace brightmix
