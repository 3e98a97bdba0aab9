// UUIDs: fresh random ones for the private devices we create, and parsing of the canonical
// 8-4-4-4-12 text form (either case) for matching device UIDs.
//
// Thread: any. Realtime-safe: no.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace brightmix {

using Uuid = std::array<std::uint8_t, 16>;

// A version-4 random UUID in upper-case canonical text form.
std::string makeRandomUuidString();

// The UUID of canonical text, or none for anything else.
std::optional<Uuid> parseUuid(std::string_view text);

// Upper-case canonical text form.
std::string uuidString(const Uuid& uuid);

} // namespace brightmix
