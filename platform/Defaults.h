// The application's settings domain: named property-list values that survive a restart.
// Missing and ill-typed values are the caller's to default; the domain only stores.
//
// Implementations: platform/sim (in memory), platform/linux (a property-list file under the
// XDG config directory), platform/macos (the app's preferences domain).
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <cctype>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/PropertyList.h"

namespace brightmix {

class Defaults {
public:
    virtual ~Defaults() = default;

    // The stored value, or none when the key is absent.
    virtual std::optional<PropertyList> get(std::string_view key) const = 0;

    // Stores a value under a key, replacing what was there.
    virtual void set(std::string_view key, PropertyList value) = 0;

    // Removes a key; an absent key is ignored.
    virtual void remove(std::string_view key) = 0;

    // Removes every key of the domain at once (the reset).
    virtual void removeDomain() = 0;

    // A key read as a Boolean the way the settings domain has always read one: a Boolean
    // as it is, a number as non-zero, the texts "yes", "true" and "1" in any case as
    // true; anything else, and absence, as false.
    bool boolForKey(std::string_view key) const {
        std::optional<PropertyList> value = get(key);
        if (!value) return false;
        if (std::optional<bool> flag = value->asBoolean()) return *flag;
        if (std::optional<double> number = value->asNumber()) return *number != 0.0;
        if (const std::string* text = value->asString()) {
            std::string lower;
            for (char c : *text)
                lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
            return lower == "yes" || lower == "true" || lower == "1";
        }
        return false;
    }

    // Told when the domain cannot be saved (its folder cannot be created or written, the
    // disk is full): once, and again only after a save has succeeded in between, so that a
    // broken folder is one message and not one per setting. The values stay in memory and
    // the program keeps working; writes stay fire-and-forget for the callers.
    using WriteErrorHandler = std::function<void(const std::string& message)>;
    void setWriteErrorHandler(WriteErrorHandler handler) {
        writeErrorHandler_ = std::move(handler);
    }
    // The unresolved save error, if the last save failed.
    const std::optional<std::string>& writeError() const { return writeError_; }

protected:
    void reportWriteError(std::string message) {
        const bool isNew = !writeError_.has_value();
        writeError_ = std::move(message);
        if (isNew && writeErrorHandler_) writeErrorHandler_(*writeError_);
    }
    void noteWriteSucceeded() { writeError_.reset(); }

private:
    WriteErrorHandler writeErrorHandler_;
    std::optional<std::string> writeError_;
};

} // namespace brightmix
