// UUID generation and parsing of the canonical text form.
#include "Brightmix/Uuid.h"

#include <random>

namespace brightmix {

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isDashPosition(std::size_t index) {
    return index == 8 || index == 13 || index == 18 || index == 23;
}

} // namespace

std::string makeRandomUuidString() {
    // One engine per thread, seeded once from the system's entropy source: fresh UIDs need
    // to be unique, not cryptographically strong.
    thread_local std::mt19937_64 engine = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }();
    Uuid uuid{};
    for (std::size_t i = 0; i < uuid.size(); i += 8) {
        std::uint64_t bits = engine();
        for (std::size_t j = 0; j < 8; ++j) {
            uuid[i + j] = static_cast<std::uint8_t>(bits >> (8 * j));
        }
    }
    uuid[6] = static_cast<std::uint8_t>((uuid[6] & 0x0F) | 0x40); // version 4
    uuid[8] = static_cast<std::uint8_t>((uuid[8] & 0x3F) | 0x80); // RFC 4122 variant
    return uuidString(uuid);
}

std::optional<Uuid> parseUuid(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    Uuid uuid{};
    std::size_t byte = 0;
    int high = -1;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isDashPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            continue;
        }
        const int value = hexValue(text[i]);
        if (value < 0) return std::nullopt;
        if (high < 0) {
            high = value;
        } else {
            uuid[byte++] = static_cast<std::uint8_t>((high << 4) | value);
            high = -1;
        }
    }
    return uuid;
}

std::string uuidString(const Uuid& uuid) {
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < uuid.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kHexDigits[uuid[i] >> 4];
        text += kHexDigits[uuid[i] & 0x0F];
    }
    return text;
}

} // namespace brightmix
