#include "Brightmix/StoredJSON.h"

#include <nlohmann/json.hpp>

namespace brightmix {

namespace {

// Thrown out of the parser at the first container past the bound, so that neither the tree
// nor the parser's own stacks grow any further.
struct TooDeep {};

} // namespace

std::optional<nlohmann::json> parseStoredJSON(std::string_view text, std::string& problem) {
    using Event = nlohmann::json::parse_event_t;
    // `depth` counts the containers around the one starting.
    const nlohmann::json::parser_callback_t bound = [](int depth, Event event, nlohmann::json&) {
        if ((event == Event::array_start || event == Event::object_start) &&
            depth >= kDeepestStoredJSON) {
            throw TooDeep{};
        }
        return true;
    };
    try {
        return nlohmann::json::parse(text.begin(), text.end(), bound);
    } catch (const nlohmann::json::exception& error) {
        problem = std::string("not valid JSON (") + error.what() + ")";
    } catch (const TooDeep&) {
        problem = "nested deeper than " + std::to_string(kDeepestStoredJSON) + " levels";
    }
    return std::nullopt;
}

} // namespace brightmix
