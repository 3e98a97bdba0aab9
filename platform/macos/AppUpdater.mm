#include "platform/macos/AppUpdater.h"

#import <AppKit/AppKit.h>
#import <Sparkle/Sparkle.h>

#include "platform/macos/RunLoopMainLoop.h"
#include "platform/macos/UpdaterConfiguration.h"

@class BMUpdaterDelegate;

namespace brightmix {
struct AppUpdater::Impl {
    std::function<void()> changed;
    std::optional<std::string> pendingVersion;
    // Empty when the updater runs; otherwise why it never started.
    std::string unavailableReason;
    // Sparkle holds its delegates weakly: the updater keeps both alive. Nil when the build
    // has no update key, so Sparkle never runs (and never shows its misconfiguration alert).
    SPUStandardUpdaterController* controller = nil;
    BMUpdaterDelegate* delegate = nil;
};
} // namespace brightmix

// Sparkle's delegates, forwarding to the updater.
@interface BMUpdaterDelegate : NSObject <SPUUpdaterDelegate, SPUStandardUserDriverDelegate> {
@public
    brightmix::AppUpdater::Impl* owner;
}
@end

@implementation BMUpdaterDelegate
- (void)notePending:(std::optional<std::string>)version {
    brightmix::runCatching("an update check", [&] {
        if (!owner || owner->pendingVersion == version) return;
        owner->pendingVersion = std::move(version);
        if (owner->changed) owner->changed();
    });
}
- (void)updater:(SPUUpdater*)updater didFindValidUpdate:(SUAppcastItem*)item {
    (void)updater;
    NSString* version =
        item.displayVersionString.length > 0 ? item.displayVersionString : item.versionString;
    [self notePending:std::string(version.UTF8String ? version.UTF8String : "")];
}
- (void)updaterDidNotFindUpdate:(SPUUpdater*)updater error:(NSError*)error {
    (void)updater;
    (void)error;
    [self notePending:std::nullopt];
}
- (BOOL)supportsGentleScheduledUpdateReminders {
    return YES;
}
@end

namespace brightmix {

namespace {

std::optional<std::string> infoString(NSString* key) {
    id value = [NSBundle.mainBundle objectForInfoDictionaryKey:key];
    if (![value isKindOfClass:[NSString class]]) return std::nullopt;
    const char* text = [value UTF8String];
    return text ? std::optional<std::string>(text) : std::nullopt;
}

} // namespace

AppUpdater::AppUpdater(std::function<void()> changed) : impl_(std::make_unique<Impl>()) {
    impl_->changed = std::move(changed);
    const UpdaterConfiguration configuration =
        updaterConfiguration(infoString(@"SUFeedURL"), infoString(@"SUPublicEDKey"));
    if (!configuration.shouldStart) {
        impl_->unavailableReason = configuration.unavailableReason;
        return;
    }
    BMUpdaterDelegate* delegate = [[BMUpdaterDelegate alloc] init];
    delegate->owner = impl_.get();
    impl_->delegate = delegate;
    impl_->controller = [[SPUStandardUpdaterController alloc] initWithStartingUpdater:YES
                                                                      updaterDelegate:delegate
                                                                   userDriverDelegate:delegate];
}

AppUpdater::~AppUpdater() {
    if (impl_->delegate) impl_->delegate->owner = nullptr;
}

bool AppUpdater::canCheckForUpdates() const {
    return impl_->controller && impl_->controller.updater.canCheckForUpdates;
}

void AppUpdater::checkForUpdates() {
    if (impl_->controller) [impl_->controller checkForUpdates:nil];
}

bool AppUpdater::automaticallyChecksForUpdates() const {
    return impl_->controller && impl_->controller.updater.automaticallyChecksForUpdates;
}

void AppUpdater::setAutomaticallyChecksForUpdates(bool isOn) {
    if (!impl_->controller) return;
    impl_->controller.updater.automaticallyChecksForUpdates = isOn;
    if (impl_->changed) impl_->changed();
}

std::string AppUpdater::unavailableReason() const {
    return impl_->unavailableReason;
}

std::optional<std::string> AppUpdater::pendingVersion() const {
    return impl_->pendingVersion;
}

} // namespace brightmix
