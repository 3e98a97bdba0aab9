// Feeds arbitrary text to the device-UID parser: it must never crash, and any UUID it finds
// must be the one written in the UID (the whole UID, or the part before an underscore and
// an eight-digit hexadecimal suffix).
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Brightmix/AudioDeviceService.h"

namespace {

void fail(const char* why, std::string_view uid) {
    std::fprintf(stderr, "%s: %.*s\n", why, static_cast<int>(uid.size()), uid.data());
    std::abort();
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::toupper(static_cast<unsigned char>(a[i])) !=
            std::toupper(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

// Half the inputs are taken as they are; the other half describe a UID near the accepted
// form (a UUID in either case, maybe a suffix, maybe one character changed), which random
// text almost never is.
std::string makeUID(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || data[0] % 2 == 0)
        return std::string(reinterpret_cast<const char*>(data), size);
    std::size_t position = 1;
    const auto next = [&]() -> std::uint8_t { return position < size ? data[position++] : 0; };
    brightmix::Uuid uuid{};
    for (auto& byte : uuid)
        byte = next();
    std::string uid = brightmix::uuidString(uuid);
    const std::uint8_t flags = next();
    if (flags & 1) {
        for (char& c : uid)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (flags & 2) {
        static constexpr char kSuffixCharacters[] = "0123456789abcdefABCDEF_gZ-";
        uid += '_';
        const std::size_t length = 6 + next() % 5;
        for (std::size_t i = 0; i < length; ++i)
            uid += kSuffixCharacters[next() % (sizeof kSuffixCharacters - 1)];
    }
    if (flags & 4 && !uid.empty()) uid[next() % uid.size()] = static_cast<char>(next());
    return uid;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = makeUID(data, size);
    const std::string_view uid = text;
    const auto uuid = brightmix::AudioDeviceService::uuidOfUID(uid);
    const auto plain = brightmix::parseUuid(uid);
    if (plain && uuid != plain) fail("a bare UUID was not recognised", uid);
    if (!uuid) return 0;

    const std::string canonical = brightmix::uuidString(*uuid);
    if (brightmix::parseUuid(canonical) != uuid)
        fail("the canonical form does not parse back", uid);
    if (uid.size() == 36) {
        if (!equalIgnoringCase(uid, canonical)) fail("a UUID other than the one written", uid);
    } else {
        // UUID, underscore, eight hexadecimal digits.
        if (uid.size() != 45 || uid[36] != '_') fail("a UUID from a malformed UID", uid);
        if (!equalIgnoringCase(uid.substr(0, 36), canonical))
            fail("a UUID other than the one written", uid);
        for (const char c : uid.substr(37)) {
            if (!std::isxdigit(static_cast<unsigned char>(c))) fail("a non-hex suffix", uid);
        }
    }
    return 0;
}
