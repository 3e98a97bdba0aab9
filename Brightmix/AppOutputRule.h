// A saved rule of automatic output switching ("when this app plays, use that output") and
// its JSON form, as stored in the settings under "appOutputRules".
//
// Thread: any (plain values and pure functions). Realtime-safe: no.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace brightmix {

struct AppOutputRule {
    std::string bundleID;   // the app the rule is for; also the rule's identity
    std::string appName;    // the app's display name when the rule was made
    std::string outputUID;  // device UID of the output to switch to
    std::string outputName; // that output's name when the rule was made

    const std::string& id() const { return bundleID; }

    friend bool operator==(const AppOutputRule&, const AppOutputRule&) = default;
};

// Stored rules that cannot be read back: malformed JSON, JSON nesting deeper than
// kDeepestStoredJSON levels, a value of the wrong shape, or a rule that lacks one of its four
// string members. what() says which.
class AppOutputRuleDecodingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One object with exactly the members "bundleID", "appName", "outputUID", "outputName".
nlohmann::json encodeAppOutputRule(const AppOutputRule& rule);
// All four members must be present and strings; anything else throws
// AppOutputRuleDecodingError. Members beyond the four are ignored.
AppOutputRule decodeAppOutputRule(const nlohmann::json& value);

// The rule list as JSON text (an array, in list order). Text that is not valid UTF-8 is
// replaced rather than refused, so saving never fails.
std::string encodeAppOutputRules(const std::vector<AppOutputRule>& rules);
// The whole list or nothing: a single bad element fails the decode with
// AppOutputRuleDecodingError. Duplicates and empty bundle IDs are kept as they are; cleaning
// the list is the loader's business.
std::vector<AppOutputRule> decodeAppOutputRules(std::string_view text);

} // namespace brightmix
