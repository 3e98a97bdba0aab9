#include "platform/macos/QuartzEventTap.h"

#include <AppKit/AppKit.h>
#include <ApplicationServices/ApplicationServices.h>

#include "platform/macos/RunLoopMainLoop.h"

namespace brightmix {

struct QuartzEventTap::Tap {
    Callback callback;
    EventTapMode mode = EventTapMode::listening;
    CFMachPortRef port = nullptr;
    CFRunLoopSourceRef source = nullptr;
};

namespace {

// The tap's callback, on the main run loop. An event the core swallows is deleted (NULL);
// every other event passes unchanged. Nothing thrown leaves it.
CGEventRef tapCallback(CGEventTapProxy, CGEventType type, CGEventRef event, void* info) {
    auto* tap = static_cast<QuartzEventTap::Tap*>(info);
    bool swallow = false;
    runCatching("the key event tap", [&] {
        TapEvent tapEvent;
        tapEvent.type = static_cast<std::uint32_t>(type);
        if (type == static_cast<CGEventType>(EventTap::kSystemDefinedEventType)) {
            @autoreleasepool {
                NSEvent* decoded = nil;
                @try {
                    decoded = [NSEvent eventWithCGEvent:event];
                    if (decoded && decoded.type == NSEventTypeSystemDefined) {
                        tapEvent.fields =
                            TapEvent::Fields{static_cast<std::int16_t>(decoded.subtype),
                                             static_cast<std::int64_t>(decoded.data1)};
                    }
                } @catch (NSException*) {
                    tapEvent.fields.reset();
                }
            }
        }
        swallow = tap->callback && tap->callback(tapEvent);
    });
    if (swallow && tap->mode == EventTapMode::filtering) return nullptr;
    return event;
}

} // namespace

QuartzEventTap::QuartzEventTap() = default;

QuartzEventTap::~QuartzEventTap() {
    while (!taps_.empty())
        invalidate(taps_.begin()->first);
}

EventTap::TapID QuartzEventTap::create(EventTapMode mode, Callback callback) {
    auto tap = std::make_unique<Tap>();
    tap->callback = std::move(callback);
    tap->mode = mode;
    const CGEventMask mask = CGEventMaskBit(kSystemDefinedEventType);
    tap->port = CGEventTapCreate(kCGSessionEventTap, kCGHeadInsertEventTap,
                                 mode == EventTapMode::filtering ? kCGEventTapOptionDefault
                                                                 : kCGEventTapOptionListenOnly,
                                 mask, &tapCallback, tap.get());
    if (!tap->port) return 0; // refused: no permission
    tap->source = CFMachPortCreateRunLoopSource(kCFAllocatorDefault, tap->port, 0);
    if (!tap->source) {
        CFMachPortInvalidate(tap->port);
        CFRelease(tap->port);
        return 0;
    }
    CFRunLoopAddSource(CFRunLoopGetMain(), tap->source, kCFRunLoopCommonModes);
    CGEventTapEnable(tap->port, true);
    const TapID id = next_++;
    taps_.emplace(id, std::move(tap));
    return id;
}

void QuartzEventTap::enable(TapID id) {
    const auto found = taps_.find(id);
    if (found != taps_.end()) CGEventTapEnable(found->second->port, true);
}

void QuartzEventTap::invalidate(TapID id) {
    const auto found = taps_.find(id);
    if (found == taps_.end()) return;
    Tap& tap = *found->second;
    CFRunLoopRemoveSource(CFRunLoopGetMain(), tap.source, kCFRunLoopCommonModes);
    CGEventTapEnable(tap.port, false);
    CFMachPortInvalidate(tap.port);
    CFRelease(tap.source);
    CFRelease(tap.port);
    taps_.erase(found);
}

bool QuartzPermissions::preflightListenEventAccess() const {
    return CGPreflightListenEventAccess();
}

bool QuartzPermissions::requestListenEventAccess() {
    return CGRequestListenEventAccess();
}

bool QuartzPermissions::preflightPostEventAccess() const {
    return CGPreflightPostEventAccess();
}

bool QuartzPermissions::requestPostEventAccess() {
    return CGRequestPostEventAccess();
}

bool QuartzPermissions::isAccessibilityTrusted() const {
    return AXIsProcessTrusted();
}

} // namespace brightmix
