// Software updates as the windows offer them: checking now, checking automatically, and the
// version waiting to be installed. A platform whose updates come with its package manager
// has no updater (`isAvailable` false), and the windows hide the entries. A build that cannot
// check (no signing key for updates was configured) keeps the entries but disabled, with
// `unavailableReason` as their help.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <optional>
#include <string>

namespace brightmix {

class Updater {
public:
    virtual ~Updater() = default;
    virtual bool isAvailable() const = 0;
    virtual bool canCheckForUpdates() const = 0;
    virtual void checkForUpdates() = 0;
    virtual bool automaticallyChecksForUpdates() const = 0;
    virtual void setAutomaticallyChecksForUpdates(bool isOn) = 0;
    // A newer version found and waiting, if any.
    virtual std::optional<std::string> pendingVersion() const = 0;
    // Why this build cannot check for updates at all; empty when it can.
    virtual std::string unavailableReason() const = 0;
};

} // namespace brightmix
