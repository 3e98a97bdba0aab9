#include "Brightmix/AppOutputRule.h"

#include <array>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "Brightmix/StoredJSON.h"

namespace brightmix {

namespace {

constexpr std::array<const char*, 4> kMemberNames = {"bundleID", "appName", "outputUID",
                                                     "outputName"};

// `label` names the rule in messages: "App output rule" alone, or with its list position.
std::string member(const nlohmann::json& object, const char* name, const std::string& label) {
    const auto found = object.find(name);
    if (found == object.end()) {
        throw AppOutputRuleDecodingError(label + " has no \"" + name + "\".");
    }
    if (!found->is_string()) {
        throw AppOutputRuleDecodingError(label + ": \"" + name + "\" is not a string.");
    }
    return found->get<std::string>();
}

AppOutputRule decodeLabelled(const nlohmann::json& value, const std::string& label) {
    if (!value.is_object()) {
        throw AppOutputRuleDecodingError(label + " is not an object.");
    }
    AppOutputRule rule;
    rule.bundleID = member(value, kMemberNames[0], label);
    rule.appName = member(value, kMemberNames[1], label);
    rule.outputUID = member(value, kMemberNames[2], label);
    rule.outputName = member(value, kMemberNames[3], label);
    return rule;
}

} // namespace

nlohmann::json encodeAppOutputRule(const AppOutputRule& rule) {
    return nlohmann::json{{kMemberNames[0], rule.bundleID},
                          {kMemberNames[1], rule.appName},
                          {kMemberNames[2], rule.outputUID},
                          {kMemberNames[3], rule.outputName}};
}

AppOutputRule decodeAppOutputRule(const nlohmann::json& value) {
    return decodeLabelled(value, "App output rule");
}

std::string encodeAppOutputRules(const std::vector<AppOutputRule>& rules) {
    auto array = nlohmann::json::array();
    for (const auto& rule : rules) {
        array.push_back(encodeAppOutputRule(rule));
    }
    return array.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::vector<AppOutputRule> decodeAppOutputRules(std::string_view text) {
    std::string problem;
    const std::optional<nlohmann::json> parsed = parseStoredJSON(text, problem);
    if (!parsed) {
        throw AppOutputRuleDecodingError("App output rules are " + problem + ".");
    }
    const nlohmann::json& document = *parsed;
    if (!document.is_array()) {
        throw AppOutputRuleDecodingError("App output rules are not a list.");
    }
    std::vector<AppOutputRule> rules;
    rules.reserve(document.size());
    for (std::size_t index = 0; index < document.size(); ++index) {
        rules.push_back(
            decodeLabelled(document[index], "App output rule " + std::to_string(index + 1)));
    }
    return rules;
}

} // namespace brightmix
