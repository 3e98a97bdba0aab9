// Updater over Sparkle 2's standard updater controller: "Check for Updates…" and "Check for
// Updates Automatically" go to its updater, and a valid update found by any check (the
// scheduled background ones too) is the pending version until the update cycle finishes
// without one. Scheduled updates are shown as gentle reminders, as suits an app without a
// Dock icon. The feed and its key come from the bundle's Info.plist (SUFeedURL, SUPublicEDKey);
// a bundle without a usable key never starts Sparkle (UpdaterConfiguration decides).
//
// Objective-C++ only. Thread: the main thread. Realtime-safe: no.
#pragma once

#include <functional>
#include <memory>

#include "platform/Updater.h"

namespace brightmix {

class AppUpdater final : public Updater {
public:
    // `changed` is told when the pending version or the ability to check changes.
    explicit AppUpdater(std::function<void()> changed);
    ~AppUpdater() override;

    bool isAvailable() const override { return true; }
    bool canCheckForUpdates() const override;
    void checkForUpdates() override;
    bool automaticallyChecksForUpdates() const override;
    void setAutomaticallyChecksForUpdates(bool isOn) override;
    std::optional<std::string> pendingVersion() const override;
    std::string unavailableReason() const override;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace brightmix
