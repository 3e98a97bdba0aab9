// Questions about a copied PipeWire graph, answered in Core Audio's terms.
//
// Thread: any (pure functions of the graph value). Realtime-safe: no.
#include "platform/linux/pipewire/PipeWireGraph.h"

#include <algorithm>
#include <charconv>

#include "platform/CoreAudioConstants.h"

namespace brightmix::pipewire {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    auto [last, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || last != end) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::uint32_t> parseID(std::string_view text) {
    auto value = parseInteger(text);
    if (!value || *value < 0 || *value > 0xFFFFFFFF) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*value);
}

bool isTrue(std::string_view text) {
    return text == "true" || text == "1";
}

} // namespace

std::string_view propertyOf(const Properties& properties, std::string_view key) {
    auto found = properties.find(key);
    return found == properties.end() ? std::string_view() : std::string_view(found->second);
}

AudioObjectID deviceObjectID(std::uint32_t nodeID) {
    return kDeviceObjectBase + nodeID;
}
AudioObjectID streamObjectID(std::uint32_t portID) {
    return kStreamObjectBase + portID;
}
AudioObjectID processObjectID(std::int32_t pid) {
    return kProcessObjectBase + static_cast<AudioObjectID>(pid);
}

std::optional<std::uint32_t> nodeOfDeviceObject(AudioObjectID object) {
    if (object < kDeviceObjectBase || object >= kDeviceObjectBase + kGraphIDLimit) {
        return std::nullopt;
    }
    return object - kDeviceObjectBase;
}

std::optional<std::uint32_t> portOfStreamObject(AudioObjectID object) {
    if (object < kStreamObjectBase || object >= kStreamObjectBase + kGraphIDLimit) {
        return std::nullopt;
    }
    return object - kStreamObjectBase;
}

std::optional<std::int32_t> pidOfProcessObject(AudioObjectID object) {
    if (object <= kProcessObjectBase || object >= kProcessObjectBase + 0x20000000) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(object - kProcessObjectBase);
}

std::optional<std::string> nameFromMetadataValue(std::string_view json) {
    // The value is a small JSON object written by WirePlumber or us; find "name" and read
    // the string after it, honouring escapes.
    auto key = json.find("\"name\"");
    if (key == std::string_view::npos) {
        return std::nullopt;
    }
    auto colon = json.find(':', key + 6);
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    auto quote = json.find_first_not_of(" \t\r\n", colon + 1);
    if (quote == std::string_view::npos || json[quote] != '"') {
        return std::nullopt;
    }
    std::string name;
    for (std::size_t i = quote + 1; i < json.size(); ++i) {
        char c = json[i];
        if (c == '"') {
            if (name.empty()) {
                return std::nullopt;
            }
            return name;
        }
        if (c == '\\') {
            if (++i >= json.size()) {
                return std::nullopt;
            }
            c = json[i];
        }
        name.push_back(c);
    }
    return std::nullopt;
}

std::string metadataValueForName(std::string_view name) {
    std::string value = "{\"name\":\"";
    for (char c : name) {
        if (c == '"' || c == '\\') {
            value.push_back('\\');
        }
        value.push_back(c);
    }
    value += "\"}";
    return value;
}

std::optional<std::int32_t> processIDOfClient(const Properties& client) {
    for (std::string_view key : {"application.process.id", "pipewire.sec.pid"}) {
        auto pid = parseInteger(propertyOf(client, key));
        if (pid && *pid > 0 && *pid < 0x20000000) {
            return static_cast<std::int32_t>(*pid);
        }
    }
    return std::nullopt;
}

std::string linuxIdentityOfClient(const Properties& client) {
    for (std::string_view key : {"application.id", "pipewire.access.portal.app_id",
                                 "application.process.binary", "application.name"}) {
        auto value = propertyOf(client, key);
        if (!value.empty()) {
            return std::string(value);
        }
    }
    return {};
}

UInt32 transportTypeOfNode(const Properties& node, bool isMultiOutput) {
    if (isMultiOutput) {
        return kAudioDeviceTransportTypeAggregate;
    }
    auto api = propertyOf(node, "device.api");
    auto bus = propertyOf(node, "device.bus");
    auto name = propertyOf(node, "node.name");
    auto profile = propertyOf(node, "device.profile.name");
    if (api == "bluez5" || bus == "bluetooth") {
        return kAudioDeviceTransportTypeBluetooth;
    }
    if (contains(name, "hdmi") || contains(profile, "hdmi")) {
        return kAudioDeviceTransportTypeHDMI;
    }
    if (bus == "usb" || contains(name, "usb-")) {
        return kAudioDeviceTransportTypeUSB;
    }
    if (api == "alsa") {
        return bus == "pci" ? kAudioDeviceTransportTypeBuiltIn : kAudioDeviceTransportTypePCI;
    }
    if (api == "virtual" || isTrue(propertyOf(node, "node.virtual")) ||
        propertyOf(node, "factory.name") == "support.null-audio-sink") {
        return kAudioDeviceTransportTypeVirtual;
    }
    if (contains(propertyOf(node, "media.class"), "Virtual")) {
        return kAudioDeviceTransportTypeVirtual;
    }
    return kAudioDeviceTransportTypeUnknown;
}

std::vector<int> stereoMixdownTargets(std::string_view position, std::size_t index) {
    if (position == "FL" || position == "SL" || position == "RL" || position == "FLC" ||
        position == "AUX0") {
        return {0};
    }
    if (position == "FR" || position == "SR" || position == "RR" || position == "FRC" ||
        position == "AUX1") {
        return {1};
    }
    if (position == "MONO" || position == "FC" || position == "LFE" || position == "RC") {
        return {0, 1};
    }
    return {static_cast<int>(index % 2)};
}

const GraphNode* PipeWireGraph::node(std::uint32_t id) const {
    auto found = nodes.find(id);
    return found == nodes.end() ? nullptr : &found->second;
}

const GraphNode* PipeWireGraph::nodeNamed(std::string_view name) const {
    if (name.empty()) {
        return nullptr;
    }
    for (const auto& [id, candidate] : nodes) {
        if (propertyOf(candidate.properties, "node.name") == name) {
            return &candidate;
        }
    }
    return nullptr;
}

bool PipeWireGraph::isDevice(const GraphNode& candidate) const {
    auto mediaClass = propertyOf(candidate.properties, "media.class");
    return mediaClass == "Audio/Sink" || mediaClass == "Audio/Source" ||
           mediaClass == "Audio/Duplex" || mediaClass == "Audio/Source/Virtual" ||
           mediaClass == "Audio/Sink/Virtual";
}

std::vector<std::uint32_t> PipeWireGraph::deviceNodes() const {
    std::vector<std::uint32_t> result;
    for (const auto& [id, candidate] : nodes) {
        if (isDevice(candidate) && !propertyOf(candidate.properties, "node.name").empty()) {
            result.push_back(id);
        }
    }
    return result;
}

bool PipeWireGraph::isMultiOutput(const GraphNode& candidate) const {
    return !membersOf(candidate).empty();
}

std::vector<std::string> PipeWireGraph::membersOf(const GraphNode& candidate) const {
    std::vector<std::string> members;
    if (!startsWith(propertyOf(candidate.properties, "media.class"), "Audio/Sink")) {
        return members;
    }
    auto group = propertyOf(candidate.properties, "node.link-group");
    if (group.empty()) {
        return members;
    }
    for (const auto& [id, stream] : nodes) {
        if (id == candidate.id || propertyOf(stream.properties, "node.link-group") != group ||
            propertyOf(stream.properties, "media.class") != "Stream/Output/Audio") {
            continue;
        }
        std::string target(propertyOf(stream.properties, "target.object"));
        if (target.empty()) {
            // Older combine streams name their sink only through their links.
            for (std::uint32_t downstream : downstreamOf(id)) {
                if (const GraphNode* sink = node(downstream)) {
                    target = propertyOf(sink->properties, "node.name");
                    break;
                }
            }
        }
        if (!target.empty() && nodeNamed(target) &&
            std::find(members.begin(), members.end(), target) == members.end()) {
            members.push_back(target);
        }
    }
    return members;
}

std::vector<const GraphPort*> PipeWireGraph::portsOf(std::uint32_t nodeID, bool output,
                                                     bool monitor) const {
    std::vector<const GraphPort*> result;
    for (const auto& [id, port] : ports) {
        if (parseID(propertyOf(port.properties, "node.id")) != nodeID) {
            continue;
        }
        bool isOutput = propertyOf(port.properties, "port.direction") == "out";
        bool isMonitor = isTrue(propertyOf(port.properties, "port.monitor"));
        if (isOutput == output && isMonitor == monitor) {
            result.push_back(&port);
        }
    }
    return result;
}

std::vector<const GraphPort*> PipeWireGraph::devicePorts(const GraphNode& device,
                                                         bool outputScope) const {
    auto mediaClass = propertyOf(device.properties, "media.class");
    bool isSink = startsWith(mediaClass, "Audio/Sink");
    bool isSource = startsWith(mediaClass, "Audio/Source");
    if (outputScope) {
        return isSource ? std::vector<const GraphPort*>{} : portsOf(device.id, false, false);
    }
    return isSink ? std::vector<const GraphPort*>{} : portsOf(device.id, true, false);
}

double PipeWireGraph::sampleRate() const {
    auto rate = parseInteger(propertyOf(settings, "clock.force-rate"));
    if (!rate || *rate <= 0) {
        rate = parseInteger(propertyOf(settings, "clock.rate"));
    }
    return rate && *rate > 0 ? static_cast<double>(*rate) : 48000.0;
}

std::optional<std::string> PipeWireGraph::defaultSinkName() const {
    return nameFromMetadataValue(propertyOf(defaults, "default.audio.sink"));
}

std::optional<std::string> PipeWireGraph::defaultSourceName() const {
    return nameFromMetadataValue(propertyOf(defaults, "default.audio.source"));
}

std::vector<std::int32_t> PipeWireGraph::processIDs() const {
    std::vector<std::int32_t> result;
    for (const auto& [id, client] : clients) {
        if (isTrue(propertyOf(client.properties, "core.daemon"))) {
            continue;
        }
        auto pid = processIDOfClient(client.properties);
        if (pid && std::find(result.begin(), result.end(), *pid) == result.end()) {
            result.push_back(*pid);
        }
    }
    return result;
}

std::vector<const GraphClient*> PipeWireGraph::clientsOf(std::int32_t pid) const {
    std::vector<const GraphClient*> result;
    for (const auto& [id, client] : clients) {
        if (!isTrue(propertyOf(client.properties, "core.daemon")) &&
            processIDOfClient(client.properties) == pid) {
            result.push_back(&client);
        }
    }
    return result;
}

std::vector<const GraphNode*> PipeWireGraph::outputStreamsOf(std::int32_t pid) const {
    std::vector<const GraphNode*> result;
    auto owners = clientsOf(pid);
    for (const auto& [id, stream] : nodes) {
        if (propertyOf(stream.properties, "media.class") != "Stream/Output/Audio") {
            continue;
        }
        auto client = parseID(propertyOf(stream.properties, "client.id"));
        for (const GraphClient* owner : owners) {
            if (client == owner->id) {
                result.push_back(&stream);
                break;
            }
        }
    }
    return result;
}

bool PipeWireGraph::isRunningOutput(std::int32_t pid) const {
    auto streams = outputStreamsOf(pid);
    return std::any_of(streams.begin(), streams.end(),
                       [](const GraphNode* stream) { return stream->state == "running"; });
}

std::vector<std::uint32_t> PipeWireGraph::devicesOfProcess(std::int32_t pid) const {
    std::vector<std::uint32_t> result;
    for (const GraphNode* stream : outputStreamsOf(pid)) {
        for (std::uint32_t downstream : downstreamOf(stream->id)) {
            const GraphNode* target = node(downstream);
            if (target && isDevice(*target) &&
                std::find(result.begin(), result.end(), downstream) == result.end()) {
                result.push_back(downstream);
            }
        }
    }
    return result;
}

std::vector<std::uint32_t> PipeWireGraph::downstreamOf(std::uint32_t nodeID) const {
    std::vector<std::uint32_t> result;
    for (const auto& [id, link] : links) {
        if (link.outputNode == nodeID &&
            std::find(result.begin(), result.end(), link.inputNode) == result.end()) {
            result.push_back(link.inputNode);
        }
    }
    return result;
}

} // namespace brightmix::pipewire
