// Software updates as the windows offer them: checking now, checking automatically, and the
// version waiting to be installed. A platform whose updates come with its package manager
// has no updater (`isAvailable` false), and the windows hide the entries.
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
};

} // namespace brightmix
