#include "platform/macos/UpdaterConfiguration.h"

#include <cstddef>

namespace brightmix {

namespace {

constexpr std::size_t kEd25519PublicKeyBytes = 32;

bool isBase64Character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

} // namespace

std::optional<std::size_t> base64DecodedSize(const std::string& text) {
    if (text.empty() || text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '=') {
            // Padding only at the end, at most two characters.
            if (i + 2 < text.size()) return std::nullopt;
            ++padding;
        } else if (padding > 0 || !isBase64Character(c)) {
            return std::nullopt;
        }
    }
    return text.size() / 4 * 3 - padding;
}

UpdaterConfiguration updaterConfiguration(const std::optional<std::string>& feedURL,
                                          const std::optional<std::string>& publicKey) {
    const bool hasKey = publicKey && base64DecodedSize(*publicKey) ==
                                         std::optional<std::size_t>(kEd25519PublicKeyBytes);
    const bool hasFeed = feedURL && feedURL->size() > 8 && feedURL->starts_with("https://");
    if (hasKey && hasFeed) return {true, {}};
    return {false, UpdaterConfiguration::kNotConfigured};
}

} // namespace brightmix
