// The volume keys: a tap on system-defined key events that reports volume up, volume down
// and mute to the app model's handler. While the model wants its own indicator and the
// system lets the program post events, the tap filters and swallows those keys, so that the
// system neither acts on them nor shows its own indicator; otherwise it only listens.
//
// States: stopped (no tap), listening, filtering. Key presses reach the handler through the
// main loop after the tap callback has returned; a press queued under an earlier activation
// (a different `activity.session`) is dropped.
//
// Thread: control (the main thread); the tap callback runs there too. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "platform/EventTap.h"
#include "platform/MainLoop.h"

namespace brightmix {

enum class MediaVolumeKey { volumeUp, volumeDown, mute };

struct MediaKeyActivity {
    bool isActive = false;     // the app model wants volume keys handled now
    std::uint64_t session = 0; // bumped (wrapping) by the model at every change of isActive

    friend bool operator==(const MediaKeyActivity&, const MediaKeyActivity&) = default;
};

struct DecodedVolumeKey {
    MediaVolumeKey key;
    bool isDown;
    friend bool operator==(const DecodedVolumeKey&, const DecodedVolumeKey&) = default;
};

// Subtype 8 with key state 0x0A (down) or 0x0B (up) in bits 8-15 of the low 32 bits of
// data1, key code in bits 16-31: 0 volume up, 1 volume down, 7 mute. Anything else: none.
// The repeat flag and other flag bits are ignored.
std::optional<DecodedVolumeKey> decodeVolumeKey(std::int64_t data1, std::int64_t subtype);

// One volume step of 1/16 from `volume` (clamped to 0...1 first) in a direction (+1 up, -1
// down); a volume between two steps moves to the next step in that direction.
double steppedVolume(double volume, int direction);

class MediaKeyMonitor {
public:
    using Handler = std::function<void(MediaVolumeKey)>;
    using ShouldHandle = std::function<bool()>;

    static constexpr std::int16_t kAuxiliaryKeySubtype = 8;

    MediaKeyMonitor(EventTap& tap, const Permissions& permissions, MainLoop& loop);
    ~MediaKeyMonitor();
    MediaKeyMonitor(const MediaKeyMonitor&) = delete;
    MediaKeyMonitor& operator=(const MediaKeyMonitor&) = delete;

    // Brings the tap in line with `activity`, `shouldSuppressSystemHUD` and the permissions.
    void update();
    // Invalidates the tap; back to stopped.
    void stop();

    MediaKeyActivity activity;
    bool shouldSuppressSystemHUD = false;
    Handler handler;
    ShouldHandle shouldHandleEvent;

    bool hasTap() const { return tap_ != 0; }
    bool isSuppressingSystemHUD() const { return isSuppressingSystemHUD_; }
    // The tap listens only because the system refused the filtering one it was meant to be.
    bool isFilteringRefused() const { return isFilteringRefused_; }

    // The tap callback: answers true to swallow the event.
    bool tapCallback(const TapEvent& event);
    // Whether the event is a volume key this program handles now; a key-down is queued for
    // the handler.
    bool handleEvent(const TapEvent& event);

private:
    void start(EventTapMode mode);

    EventTap& eventTap_;
    const Permissions& permissions_;
    MainLoop& loop_;
    EventTap::TapID tap_ = 0;
    bool isSuppressingSystemHUD_ = false;
    bool isFilteringRefused_ = false;
    // Queued key presses hold this weakly, so that they do nothing once the monitor is gone.
    std::shared_ptr<MediaKeyMonitor*> self_;
};

} // namespace brightmix
