// The graph questions the backend answers in Core Audio's terms, on hand-built graphs:
// which nodes are devices, a multi-output sink's members, processes and where they play,
// and the small translations (metadata values, identities, transports, mixdown).
#include <gtest/gtest.h>

#include "platform/CoreAudioConstants.h"
#include "platform/linux/pipewire/PipeWireGraph.h"

namespace brightmix::pipewire {
namespace {

class GraphBuilder {
public:
    GraphBuilder& node(std::uint32_t id, Properties properties, std::string state = "idle") {
        graph.nodes[id] = GraphNode{id, std::move(properties), std::move(state), {}, {}};
        return *this;
    }
    GraphBuilder& port(std::uint32_t id, std::uint32_t node, const char* direction,
                       const char* channel, bool monitor = false) {
        graph.ports[id] = GraphPort{id,
                                    {{"node.id", std::to_string(node)},
                                     {"port.direction", direction},
                                     {"port.name", std::string(direction) + "_" + channel},
                                     {"audio.channel", channel},
                                     {"port.monitor", monitor ? "true" : "false"}}};
        return *this;
    }
    GraphBuilder& link(std::uint32_t id, std::uint32_t from, std::uint32_t to) {
        graph.links[id] = GraphLink{id, from, 0, to, 0};
        return *this;
    }
    GraphBuilder& client(std::uint32_t id, Properties properties) {
        graph.clients[id] = GraphClient{id, std::move(properties)};
        return *this;
    }
    PipeWireGraph graph;
};

// The private session's shape: a combine sink over two speakers, its member streams owned
// by the daemon, and a player that plays to the combine sink.
PipeWireGraph sessionGraph() {
    GraphBuilder b;
    b.client(29, {{"core.daemon", "true"}, {"application.process.id", "100"}})
        .client(60, {{"application.process.binary", "pw-cat"}, {"pipewire.sec.pid", "200"}})
        .client(61, {{"application.process.binary", "pw-cat"}, {"pipewire.sec.pid", "200"}})
        .node(
            26,
            {{"node.name", "subwoofer"}, {"media.class", "Audio/Sink"}, {"device.api", "virtual"}})
        .node(27, {{"node.name", "desk_speakers"},
                   {"media.class", "Audio/Sink"},
                   {"node.description", "Desk Speakers"}})
        .node(30, {{"node.name", "multi_output"},
                   {"media.class", "Audio/Sink"},
                   {"node.link-group", "combine-1"},
                   {"node.virtual", "true"}})
        .node(31,
              {{"node.name", "output.multi_output_subwoofer"},
               {"media.class", "Stream/Output/Audio"},
               {"node.link-group", "combine-1"},
               {"target.object", "subwoofer"},
               {"client.id", "29"}},
              "running")
        .node(32,
              {{"node.name", "output.multi_output_desk_speakers"},
               {"media.class", "Stream/Output/Audio"},
               {"node.link-group", "combine-1"},
               {"target.object", "desk_speakers"},
               {"client.id", "29"}},
              "running")
        .node(
            40,
            {{"node.name", "pw-play"}, {"media.class", "Stream/Output/Audio"}, {"client.id", "61"}},
            "running")
        .node(50, {{"node.name", "mic"}, {"media.class", "Audio/Source"}})
        .node(51, {{"node.name", "Dummy-Driver"}})
        .port(100, 26, "in", "MONO")
        .port(101, 26, "out", "MONO", true)
        .port(102, 27, "in", "FL")
        .port(103, 27, "in", "FR")
        .port(104, 27, "out", "FL", true)
        .port(105, 27, "out", "FR", true)
        .port(106, 30, "in", "FL")
        .port(107, 30, "in", "FR")
        .port(108, 50, "out", "FL")
        .link(200, 31, 26)
        .link(201, 32, 27)
        .link(202, 40, 30)
        .link(203, 40, 30);
    return b.graph;
}

TEST(PipeWireGraph, DevicesAreSinksAndSourcesWithTheirOwnChannels) {
    PipeWireGraph graph = sessionGraph();
    EXPECT_EQ(graph.deviceNodes(), (std::vector<std::uint32_t>{26, 27, 30, 50}));
    const GraphNode& desk = graph.nodes.at(27);
    EXPECT_EQ(graph.devicePorts(desk, true).size(), 2u);
    // A sink's monitor is not input.
    EXPECT_TRUE(graph.devicePorts(desk, false).empty());
    const GraphNode& mic = graph.nodes.at(50);
    EXPECT_TRUE(graph.devicePorts(mic, true).empty());
    EXPECT_EQ(graph.devicePorts(mic, false).size(), 1u);
    EXPECT_EQ(graph.portsOf(27, true, true).size(), 2u);
}

TEST(PipeWireGraph, AMultiOutputSinkListsItsMemberSinksInRegistryOrder) {
    PipeWireGraph graph = sessionGraph();
    EXPECT_TRUE(graph.isMultiOutput(graph.nodes.at(30)));
    EXPECT_EQ(graph.membersOf(graph.nodes.at(30)),
              (std::vector<std::string>{"subwoofer", "desk_speakers"}));
    EXPECT_FALSE(graph.isMultiOutput(graph.nodes.at(27)));

    // A member stream without a target names its sink through its link; one whose sink
    // has gone is left out.
    graph.nodes.at(31).properties.erase("target.object");
    graph.nodes.erase(27);
    EXPECT_EQ(graph.membersOf(graph.nodes.at(30)), std::vector<std::string>{"subwoofer"});
}

TEST(PipeWireGraph, ProcessesAreClientsByPIDWithoutTheDaemon) {
    PipeWireGraph graph = sessionGraph();
    // Two clients of one process are one process; the daemon owns the member streams and
    // would otherwise look like a process that plays.
    EXPECT_EQ(graph.processIDs(), std::vector<std::int32_t>{200});
    EXPECT_TRUE(graph.isRunningOutput(200));
    EXPECT_EQ(graph.devicesOfProcess(200), std::vector<std::uint32_t>{30});
    EXPECT_FALSE(graph.isRunningOutput(100));

    graph.nodes.at(40).state = "idle";
    EXPECT_FALSE(graph.isRunningOutput(200));
}

TEST(PipeWireGraph, TranslatesMetadataValuesBothWays) {
    struct Case {
        const char* json;
        std::optional<std::string> name;
    };
    for (const Case& c : std::initializer_list<Case>{
             {R"({"name":"multi_output"})", "multi_output"},
             {R"({ "name" : "a \"quoted\" sink" })", "a \"quoted\" sink"},
             {R"({"name":""})", std::nullopt},
             {R"({"name":"unterminated)", std::nullopt},
             {R"({"nick":"x"})", std::nullopt},
             {"not json", std::nullopt},
         }) {
        EXPECT_EQ(nameFromMetadataValue(c.json), c.name) << c.json;
    }
    for (std::string name : {"desk_speakers", "odd\"name\\"}) {
        EXPECT_EQ(nameFromMetadataValue(metadataValueForName(name)), name);
    }
    PipeWireGraph graph;
    EXPECT_FALSE(graph.defaultSinkName().has_value());
    EXPECT_EQ(graph.sampleRate(), 48000.0);
    graph.settings["clock.rate"] = "44100";
    EXPECT_EQ(graph.sampleRate(), 44100.0);
    graph.settings["clock.force-rate"] = "96000";
    EXPECT_EQ(graph.sampleRate(), 96000.0);
    graph.settings["clock.force-rate"] = "0";
    graph.settings["clock.rate"] = "garbage";
    EXPECT_EQ(graph.sampleRate(), 48000.0);
}

TEST(PipeWireGraph, TheLinuxIdentityPrefersWhatTheAppSaysAboutItself) {
    struct Case {
        Properties client;
        std::string identity;
    };
    for (const Case& c : std::initializer_list<Case>{
             {{{"application.id", "org.example.Player"},
               {"pipewire.access.portal.app_id", "org.flatpak.App"},
               {"application.process.binary", "player"}},
              "org.example.Player"},
             {{{"pipewire.access.portal.app_id", "org.flatpak.App"},
               {"application.process.binary", "player"}},
              "org.flatpak.App"},
             {{{"application.process.binary", "pacat"}, {"application.name", "paplay"}}, "pacat"},
             {{{"application.name", "Some App"}}, "Some App"},
             {{}, ""},
         }) {
        EXPECT_EQ(linuxIdentityOfClient(c.client), c.identity);
    }
    // What the app reports wins over the socket's peer: behind pipewire-pulse the peer is
    // pipewire-pulse itself.
    EXPECT_EQ(processIDOfClient({{"application.process.id", "42"}, {"pipewire.sec.pid", "7"}}), 42);
    EXPECT_EQ(processIDOfClient({{"application.process.id", "x"}, {"pipewire.sec.pid", "7"}}), 7);
    EXPECT_EQ(processIDOfClient({{"application.process.id", "-3"}}), std::nullopt);
    EXPECT_EQ(processIDOfClient({}), std::nullopt);
}

TEST(PipeWireGraph, GuessesTransportTypesAndFoldsChannelsToStereo) {
    EXPECT_EQ(transportTypeOfNode({{"device.api", "bluez5"}}, false),
              kAudioDeviceTransportTypeBluetooth);
    EXPECT_EQ(transportTypeOfNode({{"device.api", "alsa"},
                                   {"node.name", "alsa_output.pci-0000_00_1f.3.hdmi-stereo"}},
                                  false),
              kAudioDeviceTransportTypeHDMI);
    EXPECT_EQ(transportTypeOfNode({{"device.api", "alsa"}, {"device.bus", "usb"}}, false),
              kAudioDeviceTransportTypeUSB);
    EXPECT_EQ(transportTypeOfNode({{"device.api", "alsa"}, {"device.bus", "pci"}}, false),
              kAudioDeviceTransportTypeBuiltIn);
    EXPECT_EQ(transportTypeOfNode({{"device.api", "virtual"}}, false),
              kAudioDeviceTransportTypeVirtual);
    EXPECT_EQ(transportTypeOfNode({}, true), kAudioDeviceTransportTypeAggregate);
    EXPECT_EQ(transportTypeOfNode({}, false), kAudioDeviceTransportTypeUnknown);

    EXPECT_EQ(stereoMixdownTargets("FL", 5), std::vector<int>{0});
    EXPECT_EQ(stereoMixdownTargets("SR", 0), std::vector<int>{1});
    EXPECT_EQ(stereoMixdownTargets("MONO", 0), (std::vector<int>{0, 1}));
    EXPECT_EQ(stereoMixdownTargets("AUX7", 3), std::vector<int>{1});
}

TEST(PipeWireGraph, ObjectIDRangesDoNotOverlap) {
    EXPECT_EQ(nodeOfDeviceObject(deviceObjectID(27)), 27u);
    EXPECT_EQ(portOfStreamObject(streamObjectID(105)), 105u);
    EXPECT_EQ(pidOfProcessObject(processObjectID(4242)), 4242);
    EXPECT_FALSE(nodeOfDeviceObject(kAudioObjectSystemObject).has_value());
    EXPECT_FALSE(nodeOfDeviceObject(streamObjectID(1)).has_value());
    EXPECT_FALSE(portOfStreamObject(deviceObjectID(1)).has_value());
    EXPECT_FALSE(pidOfProcessObject(kTapObjectBase + 1).has_value());
    EXPECT_FALSE(pidOfProcessObject(kProcessObjectBase).has_value());
}

} // namespace
} // namespace brightmix::pipewire
