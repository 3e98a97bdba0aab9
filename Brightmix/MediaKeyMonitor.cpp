#include "Brightmix/MediaKeyMonitor.h"

#include <algorithm>
#include <cmath>

namespace brightmix {

std::optional<DecodedVolumeKey> decodeVolumeKey(std::int64_t data1, std::int64_t subtype) {
    const auto low = static_cast<std::uint32_t>(static_cast<std::uint64_t>(data1));
    if ((static_cast<std::uint64_t>(subtype) & 0xFFFF) != MediaKeyMonitor::kAuxiliaryKeySubtype ||
        (low & 0xFE00) != 0x0A00) {
        return std::nullopt;
    }
    const bool isDown = ((low >> 8) & 0xFF) == 0x0A;
    switch (low >> 16) {
    case 0:
        return DecodedVolumeKey{MediaVolumeKey::volumeUp, isDown};
    case 1:
        return DecodedVolumeKey{MediaVolumeKey::volumeDown, isDown};
    case 7:
        return DecodedVolumeKey{MediaVolumeKey::mute, isDown};
    default:
        return std::nullopt;
    }
}

double steppedVolume(double volume, int direction) {
    const double v = std::isnan(volume) ? 0 : std::clamp(volume, 0.0, 1.0);
    if (direction > 0) return std::min(std::floor(v * 16) / 16 + 1.0 / 16, 1.0);
    return std::max(std::ceil(v * 16) / 16 - 1.0 / 16, 0.0);
}

MediaKeyMonitor::MediaKeyMonitor(EventTap& tap, const Permissions& permissions, MainLoop& loop)
    : eventTap_(tap), permissions_(permissions), loop_(loop),
      self_(std::make_shared<MediaKeyMonitor*>(this)) {}

MediaKeyMonitor::~MediaKeyMonitor() {
    stop();
}

void MediaKeyMonitor::update() {
    if (!activity.isActive) {
        stop();
        return;
    }
    EventTapMode wanted = EventTapMode::filtering;
    if (shouldSuppressSystemHUD && permissions_.preflightPostEventAccess()) {
        if (tap_ != 0 && isSuppressingSystemHUD_) return;
    } else {
        if (!permissions_.preflightListenEventAccess() &&
            !permissions_.preflightPostEventAccess()) {
            stop();
            return;
        }
        wanted = EventTapMode::listening;
        isFilteringRefused_ = false;
        if (tap_ != 0 && !isSuppressingSystemHUD_) return;
    }
    start(wanted);
    isFilteringRefused_ = false;
    if (tap_ == 0 && wanted == EventTapMode::filtering) {
        // A menu-bar agent can be refused a filtering tap even with Accessibility granted;
        // listening still moves the volume, but the system's indicator stays.
        start(EventTapMode::listening);
        isFilteringRefused_ = tap_ != 0;
    }
}

void MediaKeyMonitor::stop() {
    if (tap_ != 0) eventTap_.invalidate(tap_);
    tap_ = 0;
    isSuppressingSystemHUD_ = false;
    isFilteringRefused_ = false;
}

void MediaKeyMonitor::start(EventTapMode mode) {
    stop();
    std::weak_ptr<MediaKeyMonitor*> weak = self_;
    const EventTap::TapID tap = eventTap_.create(mode, [weak](const TapEvent& event) {
        const auto self = weak.lock();
        return self ? (*self)->tapCallback(event) : false;
    });
    if (tap == 0) return;
    tap_ = tap;
    isSuppressingSystemHUD_ = mode == EventTapMode::filtering;
}

bool MediaKeyMonitor::tapCallback(const TapEvent& event) {
    if (event.type == EventTap::kTapDisabledByTimeout ||
        event.type == EventTap::kTapDisabledByUserInput) {
        if (tap_ != 0) eventTap_.enable(tap_);
        return false;
    }
    if (event.type == EventTap::kSystemDefinedEventType && handleEvent(event)) {
        return isSuppressingSystemHUD_;
    }
    return false;
}

bool MediaKeyMonitor::handleEvent(const TapEvent& event) {
    if (!activity.isActive || !shouldHandleEvent || !shouldHandleEvent()) return false;
    if (!event.fields || event.type != EventTap::kSystemDefinedEventType) return false;
    const std::optional<DecodedVolumeKey> decoded =
        decodeVolumeKey(event.fields->data1, event.fields->subtype);
    if (!decoded) return false;
    if (decoded->isDown) {
        const std::uint64_t session = activity.session;
        std::weak_ptr<MediaKeyMonitor*> weak = self_;
        const MediaVolumeKey key = decoded->key;
        loop_.post([weak, session, key] {
            const auto self = weak.lock();
            if (!self) return;
            MediaKeyMonitor& monitor = **self;
            if (!monitor.activity.isActive || monitor.activity.session != session) return;
            if (!monitor.shouldHandleEvent || !monitor.shouldHandleEvent()) return;
            if (monitor.handler) monitor.handler(key);
        });
    }
    return true;
}

} // namespace brightmix
