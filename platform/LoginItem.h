// Launch at login, as the system keeps it for the application: its status, registering and
// unregistering, and opening the system's own login-items settings.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <stdexcept>

namespace brightmix {

class LoginItem {
public:
    enum class Status { notRegistered, enabled, requiresApproval, notFound };

    // A change the system refused; what() is the system's description.
    class Error : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    virtual ~LoginItem() = default;
    virtual Status status() const = 0;
    // Both throw Error.
    virtual void registerItem() = 0;
    virtual void unregisterItem() = 0;
    virtual void openSystemSettingsLoginItems() = 0;
};

} // namespace brightmix
