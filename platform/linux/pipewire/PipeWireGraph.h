// A plain copy of the part of a PipeWire graph the audio backend reads (nodes, ports,
// links, clients and the "default" and "settings" metadata) and the questions Brightmix
// asks of it, answered in Core Audio's terms: which nodes are devices, how many channels
// each has, which sinks a multi-output sink combines, which clients are processes that play
// and to where, and the object IDs under which all of these appear.
//
// It holds no PipeWire handles, so it can be built by hand in tests; the backend keeps one
// current on its PipeWire thread and reads it under the thread loop's lock.
//
// Thread: any (a plain value; the owner guards sharing). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "realtime/CoreAudioShapes.h"

namespace brightmix::pipewire {

using Properties = std::map<std::string, std::string, std::less<>>;

// The value of a property, or an empty text when it is absent.
std::string_view propertyOf(const Properties& properties, std::string_view key);

struct GraphNode {
    std::uint32_t id = 0;
    Properties properties;
    std::string state;        // "running", "idle", "suspended", "creating", "error" or empty
    std::optional<bool> mute; // from the node's Props, once known
    std::vector<float> channelVolumes; // from the node's Props, once known
};

struct GraphPort {
    std::uint32_t id = 0;
    Properties properties;
};

struct GraphLink {
    std::uint32_t id = 0;
    std::uint32_t outputNode = 0;
    std::uint32_t outputPort = 0;
    std::uint32_t inputNode = 0;
    std::uint32_t inputPort = 0;
};

struct GraphClient {
    std::uint32_t id = 0;
    Properties properties;
};

// Core Audio object IDs of graph objects. PipeWire's own IDs are small and reused, and the
// system object is 1, so each kind of object lives in its own range.
inline constexpr AudioObjectID kDeviceObjectBase = 0x00010000;
inline constexpr AudioObjectID kStreamObjectBase = 0x00100000;
inline constexpr AudioObjectID kProcessObjectBase = 0x40000000; // + the process ID
inline constexpr AudioObjectID kTapObjectBase = 0x20000000;
inline constexpr AudioObjectID kAggregateObjectBase = 0x21000000;
inline constexpr AudioObjectID kAggregateStreamObjectBase = 0x22000000; // + aggregate * 256
inline constexpr std::uint32_t kGraphIDLimit = 0x000F0000;

AudioObjectID deviceObjectID(std::uint32_t nodeID);
AudioObjectID streamObjectID(std::uint32_t portID);
AudioObjectID processObjectID(std::int32_t pid);
std::optional<std::uint32_t> nodeOfDeviceObject(AudioObjectID object);
std::optional<std::uint32_t> portOfStreamObject(AudioObjectID object);
std::optional<std::int32_t> pidOfProcessObject(AudioObjectID object);

// The name a "default" metadata value carries: {"name":"desk_speakers"} -> desk_speakers.
std::optional<std::string> nameFromMetadataValue(std::string_view json);
// The metadata value naming a node: desk_speakers -> {"name":"desk_speakers"}.
std::string metadataValueForName(std::string_view name);

// The PID a client reports: application.process.id (what the application says; the only
// one that names the real app behind pipewire-pulse), else pipewire.sec.pid (what the
// kernel says about the socket's peer).
std::optional<std::int32_t> processIDOfClient(const Properties& client);

// The stable identity that stands in for a bundle ID on Linux: application.id when the
// application sets one, else the Flatpak app ID the portal attached, else the binary name,
// else the application name. Empty when the client reports none of them.
std::string linuxIdentityOfClient(const Properties& client);

// Core Audio transport type of a device node, guessed from the device API, bus and name.
// HDMI and DisplayPort outputs both appear as HDMI PCMs, so both answer 'hdmi'.
UInt32 transportTypeOfNode(const Properties& node, bool isMultiOutput);

// The mixdown inputs (0 = left, 1 = right) a source channel feeds when several channels
// are folded into stereo: left-side positions go left, right-side right, centre, mono and
// LFE both; an unknown position goes by its index.
std::vector<int> stereoMixdownTargets(std::string_view position, std::size_t index);

class PipeWireGraph {
public:
    std::map<std::uint32_t, GraphNode> nodes;
    std::map<std::uint32_t, GraphPort> ports;
    std::map<std::uint32_t, GraphLink> links;
    std::map<std::uint32_t, GraphClient> clients;
    Properties defaults; // "default" metadata, subject 0
    Properties settings; // "settings" metadata, subject 0

    const GraphNode* node(std::uint32_t id) const;
    const GraphNode* nodeNamed(std::string_view name) const;

    // Sinks, sources and duplex nodes, in registry order.
    bool isDevice(const GraphNode& node) const;
    std::vector<std::uint32_t> deviceNodes() const;

    // A multi-output (combine) sink: a sink whose link group holds playback streams.
    bool isMultiOutput(const GraphNode& node) const;
    // Member sinks of a multi-output sink, by node name, in registry order of its streams;
    // empty for anything else.
    std::vector<std::string> membersOf(const GraphNode& node) const;

    // Ports of a node in one direction, in registry order. Monitor ports only when asked.
    std::vector<const GraphPort*> portsOf(std::uint32_t nodeID, bool output, bool monitor) const;
    // A device's channels in Core Audio's sense: the playback ports of a sink (output
    // scope), the capture ports of a source (input scope). A sink's monitor is not input.
    std::vector<const GraphPort*> devicePorts(const GraphNode& node, bool outputScope) const;

    // The graph's sample rate: the "settings" metadata's clock.rate, else 48000.
    double sampleRate() const;

    std::optional<std::string> defaultSinkName() const;
    std::optional<std::string> defaultSourceName() const;

    // Processes: the PIDs of every client but the daemon's own, in client order, without
    // repeats (one process may hold several clients).
    std::vector<std::int32_t> processIDs() const;
    std::vector<const GraphClient*> clientsOf(std::int32_t pid) const;
    // Playback streams of a process's clients.
    std::vector<const GraphNode*> outputStreamsOf(std::int32_t pid) const;
    bool isRunningOutput(std::int32_t pid) const;
    // Device nodes a process's running streams are linked to.
    std::vector<std::uint32_t> devicesOfProcess(std::int32_t pid) const;
    // Nodes directly downstream of a node.
    std::vector<std::uint32_t> downstreamOf(std::uint32_t nodeID) const;
};

} // namespace brightmix::pipewire
