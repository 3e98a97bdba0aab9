// Whether the app's updater may start, decided from what the bundle's Info.plist carries.
// Sparkle refuses to run without the EdDSA public key that signs the updates, and says so in
// an alert a few seconds after every launch; a build without a key (the default one) must
// not start it, and the windows then show the update entries disabled with the reason.
// Plain C++, built and tested on every platform; the macOS updater only asks it.
//
// Thread: any. Realtime-safe: no.
#pragma once

#include <optional>
#include <string>

namespace brightmix {

struct UpdaterConfiguration {
    bool shouldStart = false;
    // Help text of the disabled entries; empty when the updater starts.
    std::string unavailableReason;

    inline static const std::string kNotConfigured =
        "Updates are not configured for this build of Brightmix.";
};

// `feedURL` and `publicKey` are the values of SUFeedURL and SUPublicEDKey, none when absent.
// The key must be the base64 form of a 32-byte Ed25519 public key and the feed an https
// address; anything else leaves the updater off.
UpdaterConfiguration updaterConfiguration(const std::optional<std::string>& feedURL,
                                          const std::optional<std::string>& publicKey);

// The number of bytes a strict base64 text decodes to (padding required, no white space);
// none when it is not base64.
std::optional<std::size_t> base64DecodedSize(const std::string& text);

} // namespace brightmix
