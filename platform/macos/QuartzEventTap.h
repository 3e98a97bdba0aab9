// EventTap over a Quartz event tap at the session level, inserted at the head, for
// system-defined events (mask 1 << 14), listen-only or filtering, its run-loop source on the
// main run loop in the common modes. Each event is read through NSEvent (subtype and data1).
// Permissions over CGPreflight/RequestListenEventAccess, CGPreflight/RequestPostEventAccess
// and AXIsProcessTrusted.
//
// Thread: control (the main thread); the tap's callback runs there. Realtime-safe: no.
#pragma once

#include <map>
#include <memory>

#include "platform/EventTap.h"

namespace brightmix {

class QuartzEventTap final : public EventTap {
public:
    QuartzEventTap();
    ~QuartzEventTap() override;
    QuartzEventTap(const QuartzEventTap&) = delete;
    QuartzEventTap& operator=(const QuartzEventTap&) = delete;

    TapID create(EventTapMode mode, Callback callback) override;
    void enable(TapID tap) override;
    void invalidate(TapID tap) override;

    struct Tap;

private:
    std::map<TapID, std::unique_ptr<Tap>> taps_;
    TapID next_ = 1;
};

class QuartzPermissions final : public Permissions {
public:
    bool preflightListenEventAccess() const override;
    bool requestListenEventAccess() override;
    bool preflightPostEventAccess() const override;
    bool requestPostEventAccess() override;
    bool isAccessibilityTrusted() const override;
    // macOS offers no public way to ask about System Audio Recording: unknown, always. A
    // denied or pending permission shows only as a tap that delivers silence.
    CaptureAccess systemAudioCaptureAccess() const override { return CaptureAccess::unknown; }
};

} // namespace brightmix
