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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view uid(reinterpret_cast<const char*>(data), size);
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
