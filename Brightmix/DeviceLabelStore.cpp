#include "Brightmix/DeviceLabelStore.h"

#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "Brightmix/StoredJSON.h"

namespace brightmix {

namespace {

bool isWhitespaceOrLineBreak(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// The UTF-8 white space and line-break characters outside ASCII that text fields produce:
// no-break space, line and paragraph separators, next line, ideographic space.
std::size_t multibyteSpaceLength(std::string_view text, std::size_t at) {
    static constexpr std::string_view kSpaces[] = {"\xC2\xA0", "\xC2\x85", "\xE2\x80\xA8",
                                                   "\xE2\x80\xA9", "\xE3\x80\x80"};
    for (std::string_view space : kSpaces) {
        if (text.substr(at, space.size()) == space) return space.size();
    }
    return 0;
}

bool endsWithMultibyteSpace(std::string_view text, std::size_t& length) {
    for (std::size_t size : {2u, 3u}) {
        if (text.size() >= size && multibyteSpaceLength(text, text.size() - size) == size) {
            length = size;
            return true;
        }
    }
    return false;
}

nlohmann::ordered_json encodeLabels(const DeviceLabelStore::Labels& labels) {
    auto object = nlohmann::ordered_json::object();
    for (const auto& [uid, label] : labels) {
        object[uid] =
            nlohmann::ordered_json{{"originalName", label.originalName}, {"label", label.label}};
    }
    return object;
}

std::optional<DeviceLabelStore::Labels> decodeLabels(const nlohmann::json& object) {
    if (!object.is_object()) return std::nullopt;
    DeviceLabelStore::Labels labels;
    for (const auto& [uid, value] : object.items()) {
        if (!value.is_object()) return std::nullopt;
        const auto originalName = value.find("originalName");
        const auto label = value.find("label");
        if (originalName == value.end() || label == value.end() || !originalName->is_string() ||
            !label->is_string()) {
            return std::nullopt;
        }
        labels.emplace(uid,
                       DeviceLabel{originalName->get<std::string>(), label->get<std::string>()});
    }
    return labels;
}

} // namespace

std::optional<std::string> DeviceLabelStore::label(std::string_view uid,
                                                   DeviceDirection direction) const {
    const Labels& map = labels(direction);
    const auto found = map.find(uid);
    if (found == map.end()) return std::nullopt;
    return found->second.label;
}

void DeviceLabelStore::setLabel(const std::optional<std::string>& text, std::string originalName,
                                const std::string& uid, DeviceDirection direction) {
    Labels& map = labels(direction);
    if (text) {
        map.insert_or_assign(uid, DeviceLabel{std::move(originalName), *text});
    } else if (const auto found = map.find(uid); found != map.end()) {
        map.erase(found);
    }
}

void DeviceLabelStore::remap(const UIDMapping& mapping) {
    remapKeys(outputs, mapping);
    remapKeys(inputs, mapping);
}

std::vector<DeviceLabelRow> DeviceLabelStore::rows(const std::vector<AudioDevice>& presentDevices,
                                                   DeviceDirection direction) const {
    std::vector<DeviceLabelRow> rows;
    std::set<std::string, std::less<>> present;
    for (const AudioDevice& device : presentDevices) {
        const bool hasDirection = direction == DeviceDirection::input ? device.inputChannels > 0
                                                                      : device.outputChannels > 0;
        if (!hasDirection || !present.insert(device.uid).second) continue;
        rows.push_back({device.uid, device.name, true});
    }
    for (const auto& [uid, label] : labels(direction)) {
        if (present.count(uid) == 0) rows.push_back({uid, label.originalName, false});
    }
    return rows;
}

std::string encodeDeviceLabels(const DeviceLabelStore& store) {
    const nlohmann::ordered_json document{{"outputs", encodeLabels(store.outputs)},
                                          {"inputs", encodeLabels(store.inputs)}};
    return document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::optional<DeviceLabelStore> decodeDeviceLabels(std::string_view json) {
    std::string problem;
    const std::optional<nlohmann::json> parsed = parseStoredJSON(json, problem);
    if (!parsed || !parsed->is_object()) return std::nullopt;
    const nlohmann::json& document = *parsed;
    const auto outputs = document.find("outputs");
    const auto inputs = document.find("inputs");
    if (outputs == document.end() || inputs == document.end()) return std::nullopt;
    auto decodedOutputs = decodeLabels(*outputs);
    auto decodedInputs = decodeLabels(*inputs);
    if (!decodedOutputs || !decodedInputs) return std::nullopt;
    return DeviceLabelStore{std::move(*decodedOutputs), std::move(*decodedInputs)};
}

std::string trimmedWhitespace(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        if (isWhitespaceOrLineBreak(static_cast<unsigned char>(text[begin]))) {
            ++begin;
        } else if (const std::size_t length = multibyteSpaceLength(text, begin)) {
            begin += length;
        } else {
            break;
        }
    }
    std::string_view rest = text.substr(begin);
    for (;;) {
        std::size_t length = 0;
        if (!rest.empty() && isWhitespaceOrLineBreak(static_cast<unsigned char>(rest.back()))) {
            rest.remove_suffix(1);
        } else if (endsWithMultibyteSpace(rest, length)) {
            rest.remove_suffix(length);
        } else {
            break;
        }
    }
    return std::string(rest);
}

} // namespace brightmix
