// System-defined key events (the volume keys) as the core sees them: a tap in the login
// session, created in listen-only or filtering mode, whose callback runs on the main thread
// and may swallow an event when filtering. Permissions to listen to or post events are
// asked of `Permissions`.
//
// Thread: control (the main thread) for every call; the callback runs there too.
// Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace brightmix {

// One event as the tap callback receives it.
struct TapEvent {
    // The event type: 14 for a system-defined event, or one of the tap-disabled
    // notifications below.
    std::uint32_t type = 0;
    // The application-level view of the event (subtype and data1), none when the event could
    // not be converted.
    struct Fields {
        std::int16_t subtype = 0;
        std::int64_t data1 = 0;
    };
    std::optional<Fields> fields;
};

enum class EventTapMode { listening, filtering };

class EventTap {
public:
    using TapID = std::uint64_t; // 0 is never a tap
    // Answers true to swallow the event (honoured only by a filtering tap).
    using Callback = std::function<bool(const TapEvent&)>;

    static constexpr std::uint32_t kSystemDefinedEventType = 14;
    static constexpr std::uint32_t kTapDisabledByTimeout = 0xFFFFFFFE;
    static constexpr std::uint32_t kTapDisabledByUserInput = 0xFFFFFFFF;

    virtual ~EventTap() = default;

    // A tap at the head of the session's event stream for system-defined events, its source
    // on the main run loop in the common modes, enabled. 0 when the system refuses it.
    virtual TapID create(EventTapMode mode, Callback callback) = 0;
    // Re-enables a tap the system disabled.
    virtual void enable(TapID tap) = 0;
    // Removes the source, disables and invalidates the tap; unknown IDs are ignored.
    virtual void invalidate(TapID tap) = 0;
};

// What the system says about the permission to capture other programs' sound (System Audio
// Recording on macOS), which the router's tap needs: without it a tap is created without
// error and delivers silence.
enum class CaptureAccess {
    notRequired, // the system has no such permission
    granted,
    denied,
    unknown, // the system cannot be asked (macOS offers no public query)
};

// The privacy permissions the volume keys, the indicator and the router's tap need.
class Permissions {
public:
    virtual ~Permissions() = default;
    // Input Monitoring: receiving key events.
    virtual bool preflightListenEventAccess() const = 0;
    virtual bool requestListenEventAccess() = 0;
    // Accessibility: posting (and so swallowing) key events.
    virtual bool preflightPostEventAccess() const = 0;
    virtual bool requestPostEventAccess() = 0;
    virtual bool isAccessibilityTrusted() const = 0;
    virtual CaptureAccess systemAudioCaptureAccess() const = 0;
};

} // namespace brightmix
