// Defaults over the application's preferences domain (CFPreferences, the domain named by the
// main bundle identifier; inside the sandbox the system keeps it in the app's container).
// Values go through the property-list translation; a value the domain holds that a property
// list cannot (another program's key of another type) reads as absent.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <string>

#include "platform/Defaults.h"

namespace brightmix {

class PreferencesDefaults final : public Defaults {
public:
    // `domain`: the bundle identifier whose domain is used.
    explicit PreferencesDefaults(std::string domain);

    std::optional<PropertyList> get(std::string_view key) const override;
    void set(std::string_view key, PropertyList value) override;
    void remove(std::string_view key) override;
    void removeDomain() override;

private:
    void synchronize();
    std::string domain_;
};

} // namespace brightmix
