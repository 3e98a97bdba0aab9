// JSON read back from the settings (the app rules, the device labels), parsed with a bound on
// how deeply it nests. The text comes from a file anyone can edit; nlohmann/json parses and
// destroys deep documents without recursing, but copying, comparing and printing one recurse
// once per level, so a document deeper than any Brightmix writes is refused before its tree
// exists.
//
// Thread: any (pure). Realtime-safe: no.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace brightmix {

// Arrays and objects nested in one document, the outermost being level 1. The rule list nests
// two levels and the label store three; the bound is that of property lists.
inline constexpr int kDeepestStoredJSON = 64;

// The document, or none with `problem` saying what is wrong, to follow "… is" or "… are":
// "not valid JSON (<nlohmann's message>)" or "nested deeper than 64 levels".
std::optional<nlohmann::json> parseStoredJSON(std::string_view text, std::string& problem);

} // namespace brightmix
