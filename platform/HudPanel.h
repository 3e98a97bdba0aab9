// The volume indicator's window and the screens it is placed on: a small borderless panel
// that never takes focus or clicks, positioned by its origin, shown without activating the
// application, and faded by animating its alpha. Coordinates are the system's screen
// coordinates (origin bottom left on macOS).
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace brightmix {

struct ScreenPoint {
    double x = 0;
    double y = 0;
    friend bool operator==(const ScreenPoint&, const ScreenPoint&) = default;
};

struct ScreenRect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;

    double maxX() const { return x + width; }
    double maxY() const { return y + height; }
    // Left and bottom edges inside, right and top edges outside (not flipped).
    bool contains(ScreenPoint point) const {
        return point.x >= x && point.x < maxX() && point.y >= y && point.y < maxY();
    }
    friend bool operator==(const ScreenRect&, const ScreenRect&) = default;
};

struct Screen {
    ScreenRect frame;
    ScreenRect visibleFrame; // without menu bar and dock
    friend bool operator==(const Screen&, const Screen&) = default;
};

class Screens {
public:
    virtual ~Screens() = default;
    // Every screen, in the system's order.
    virtual std::vector<Screen> screens() const = 0;
    // The screen with the keyboard focus, if any.
    virtual std::optional<Screen> mainScreen() const = 0;
    virtual ScreenPoint mouseLocation() const = 0;
};

// What the indicator shows.
struct HudContent {
    double volume = 0;
    bool isMuted = false;
    std::string outputName;
    friend bool operator==(const HudContent&, const HudContent&) = default;
};

class HudPanel {
public:
    virtual ~HudPanel() = default;
    virtual void setContent(const HudContent& content) = 0;
    virtual void setFrameOrigin(ScreenPoint origin) = 0;
    virtual void setAlpha(double alpha) = 0;
    virtual void orderFrontRegardless() = 0;
    virtual void orderOut() = 0;
    // Animates the alpha to `alpha` over `duration` seconds, then calls `completion` on the
    // main thread (also when a later call interrupts the animation).
    virtual void animateAlpha(double alpha, double duration, std::function<void()> completion) = 0;
};

} // namespace brightmix
