#include "platform/macos/AppUpdater.h"

#import <AppKit/AppKit.h>
#import <Sparkle/Sparkle.h>

#include "platform/macos/RunLoopMainLoop.h"

@class BMUpdaterDelegate;

namespace brightmix {
struct AppUpdater::Impl {
    std::function<void()> changed;
    std::optional<std::string> pendingVersion;
    // Sparkle holds its delegates weakly: the updater keeps both alive.
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

AppUpdater::AppUpdater(std::function<void()> changed) : impl_(std::make_unique<Impl>()) {
    impl_->changed = std::move(changed);
    BMUpdaterDelegate* delegate = [[BMUpdaterDelegate alloc] init];
    delegate->owner = impl_.get();
    impl_->delegate = delegate;
    impl_->controller = [[SPUStandardUpdaterController alloc] initWithStartingUpdater:YES
                                                                      updaterDelegate:delegate
                                                                   userDriverDelegate:delegate];
}

AppUpdater::~AppUpdater() {
    impl_->delegate->owner = nullptr;
}

bool AppUpdater::canCheckForUpdates() const {
    return impl_->controller.updater.canCheckForUpdates;
}

void AppUpdater::checkForUpdates() {
    [impl_->controller checkForUpdates:nil];
}

bool AppUpdater::automaticallyChecksForUpdates() const {
    return impl_->controller.updater.automaticallyChecksForUpdates;
}

void AppUpdater::setAutomaticallyChecksForUpdates(bool isOn) {
    impl_->controller.updater.automaticallyChecksForUpdates = isOn;
    if (impl_->changed) impl_->changed();
}

std::optional<std::string> AppUpdater::pendingVersion() const {
    return impl_->pendingVersion;
}

} // namespace brightmix
