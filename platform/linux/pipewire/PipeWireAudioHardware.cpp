// The audio hardware over PipeWire: one connection on a thread loop keeps a copy of the
// graph current; the main thread answers Core Audio's questions from that copy and builds
// taps (monitor ports or fan-out links) and aggregates (pw_filter nodes) on request.
//
// Thread: control for every public call; listener callbacks run on the loop's thread with
// its lock held; filter process callbacks run on the data thread. Realtime-safe: no
// (except the process callback, which only runs a PipeWireRouterCycle).
#include "platform/linux/pipewire/PipeWireAudioHardware.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <pipewire/extensions/metadata.h>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>
#include <random>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/utils/result.h>
#include <thread>
#include <unistd.h>

#include "platform/linux/pipewire/PipeWireMuteGuard.h"
#include "platform/linux/pipewire/PipeWireRouterCycle.h"

namespace brightmix::pipewire {

namespace {

constexpr std::string_view kPrivatePrefix = "com.corvale.brightmix.private.";

// Between attempts to reach a server that went away: quick at first, since a restart takes
// a fraction of a second, then once a second.
constexpr std::chrono::milliseconds kFirstRetryDelay{250};
constexpr std::chrono::milliseconds kLongestRetryDelay{1000};
// How long a new connection waits for a session manager to configure the graph before it is
// used as it is (a session may have none).
constexpr std::chrono::milliseconds kSessionPatience{2000};

// How the native protocol reports a connection that broke (the server died, was restarted or
// hung up): an error on the core object, -EPIPE for a hang-up and the socket's own error
// otherwise, always with the text "connection error".
bool isConnectionLoss(int res, const char* message) {
    switch (-res) {
    case EPIPE:
    case ECONNRESET:
    case ECONNABORTED:
    case ENOTCONN:
    case ESHUTDOWN:
        return true;
    default:
        return message != nullptr && std::strcmp(message, "connection error") == 0;
    }
}

// pw_init is process-wide and counted; pair every connection with one init and deinit.
std::mutex& initMutex() {
    static std::mutex mutex;
    return mutex;
}

Properties propertiesOf(const spa_dict* dict) {
    Properties result;
    if (dict == nullptr) {
        return result;
    }
    const spa_dict_item* item;
    spa_dict_for_each(item, dict) {
        if (item->key != nullptr) {
            result[item->key] = item->value != nullptr ? item->value : "";
        }
    }
    return result;
}

std::optional<std::uint32_t> parseUnsigned(std::string_view text) {
    if (text.empty() || text.size() > 10) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + std::uint64_t(c - '0');
    }
    if (value > 0xFFFFFFFFu) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(value);
}

std::string randomUID() {
    static std::mt19937_64 generator{std::random_device{}()};
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    const char* digits = "0123456789ABCDEF";
    std::string text;
    for (int i = 0; i < 32; ++i) {
        if (i == 8 || i == 12 || i == 16 || i == 20) {
            text.push_back('-');
        }
        text.push_back(digits[generator() & 15]);
    }
    return text;
}

// A property's answer, before it is copied out in the caller's form.
struct Answer {
    OSStatus status = kAudioHardwareUnknownPropertyError;
    std::vector<std::uint8_t> bytes;
    bool isVariableSize = false;
    std::optional<PropertyList> value;
    bool isSettable = false;
};

template <typename T> Answer plain(const T& value, bool settable = false) {
    Answer answer;
    answer.status = kAudioHardwareNoError;
    answer.bytes.resize(sizeof(T));
    std::memcpy(answer.bytes.data(), &value, sizeof(T));
    answer.isSettable = settable;
    return answer;
}

Answer objectList(const std::vector<AudioObjectID>& ids) {
    Answer answer;
    answer.status = kAudioHardwareNoError;
    answer.isVariableSize = true;
    answer.bytes.resize(ids.size() * sizeof(AudioObjectID));
    if (!ids.empty()) {
        std::memcpy(answer.bytes.data(), ids.data(), answer.bytes.size());
    }
    return answer;
}

Answer cfValue(PropertyList value, bool settable = false) {
    Answer answer;
    answer.status = kAudioHardwareNoError;
    answer.value = std::move(value);
    answer.isSettable = settable;
    return answer;
}

Answer failure(OSStatus status) {
    Answer answer;
    answer.status = status;
    return answer;
}

// One mono buffer per channel, as the IOProc sees the ports.
Answer bufferLayout(std::size_t buffers) {
    Answer answer;
    answer.status = kAudioHardwareNoError;
    answer.isVariableSize = true;
    answer.bytes.assign(offsetof(AudioBufferList, mBuffers) + buffers * sizeof(AudioBuffer), 0);
    auto count = static_cast<UInt32>(buffers);
    std::memcpy(answer.bytes.data(), &count, sizeof(count));
    for (std::size_t i = 0; i < buffers; ++i) {
        AudioBuffer buffer{1, 0, nullptr};
        std::memcpy(answer.bytes.data() + offsetof(AudioBufferList, mBuffers) +
                        i * sizeof(AudioBuffer),
                    &buffer, sizeof(buffer));
    }
    return answer;
}

AudioStreamBasicDescription floatFormat(double rate, UInt32 channels) {
    AudioStreamBasicDescription format{};
    format.mSampleRate = rate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags =
        kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked | kAudioFormatFlagIsNonInterleaved;
    format.mBytesPerPacket = 4;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = 4;
    format.mChannelsPerFrame = channels;
    format.mBitsPerChannel = 32;
    return format;
}

std::string nodeDisplayName(const Properties& properties) {
    for (std::string_view key : {"node.description", "node.nick", "node.name"}) {
        auto value = propertyOf(properties, key);
        if (!value.empty()) {
            return std::string(value);
        }
    }
    return {};
}

bool isSink(const GraphNode& node) {
    return propertyOf(node.properties, "media.class").substr(0, 10) == "Audio/Sink";
}

bool isSourceLike(const GraphNode& node) {
    auto mediaClass = propertyOf(node.properties, "media.class");
    return mediaClass.substr(0, 12) == "Audio/Source" || mediaClass == "Audio/Duplex";
}

} // namespace

// --- the implementation ----------------------------------------------------------------

class PipeWireAudioHardware::Impl {
public:
    struct Bound {
        Impl* impl = nullptr;
        std::uint32_t id = 0;
        enum class Kind { node, client, metadata } kind = Kind::node;
        pw_proxy* proxy = nullptr;
        spa_hook hook{};
        std::string metadataName;
    };

    struct OwnedLink {
        Impl* impl = nullptr;
        pw_proxy* proxy = nullptr;
        spa_hook hook{};
        spa_hook proxyHook{};
        int state = PW_LINK_STATE_INIT;
        bool isFailed = false;
        std::string error;
    };

    struct Tap {
        AudioObjectID id = 0;
        TapDescription description;
        std::string uid;
        std::vector<std::string> channels; // positions of the tap's channels
        std::uint32_t aggregates = 0;      // aggregates that read it
    };

    struct OutputPort {
        std::string member; // sink node name
        std::string port;   // the sink's playback port name
        std::string channel;
    };

    // A sink a router muted, and the watchdog that unmutes it should this process die.
    struct RouterMute {
        std::string sink;
        std::optional<MuteWatchdog> watchdog;
    };

    struct Aggregate {
        Impl* impl = nullptr;
        AudioObjectID id = 0;
        std::string uid;
        std::string name;
        PropertyList description;
        std::vector<std::string> members;
        std::vector<OutputPort> outputs;
        AudioObjectID tapID = 0;
        std::optional<TapDescription> tapDescription;
        std::vector<std::string> inputs;              // the tap's channel positions
        std::vector<std::uint32_t> linkedStreamPorts; // stream ports fanned out to us
        pw_filter* filter = nullptr;
        spa_hook filterHook{};
        pw_filter_state filterState = PW_FILTER_STATE_UNCONNECTED;
        std::string filterError;
        std::unique_ptr<PipeWireRouterCycle> cycle;
        std::vector<std::unique_ptr<OwnedLink>> links;
        std::uintptr_t procToken = 0;
        bool isStarted = false;
        std::vector<RouterMute> mutes;
    };

    enum class Service {
        up,       // connected and configured: calls are answered
        lost,     // the server went away; the old connection is still to be closed
        down,     // closed; isServiceAvailable() may connect again
        settling, // connected again, waiting for the session manager to configure the graph
    };

    Options options;
    std::string recordPath;
    bool isInitialized = false;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    spa_hook coreHook{};
    pw_registry* registry = nullptr;
    spa_hook registryHook{};

    // Guarded by the loop's lock.
    PipeWireGraph graph;
    std::map<std::uint32_t, std::unique_ptr<Bound>> bound;
    // Running aggregates whose tap follows playback streams: new streams join them.
    std::vector<Aggregate*> streamTapped;
    pw_metadata* defaultMetadata = nullptr;
    std::map<int, OwnedLink*> linksByProxyID;
    int doneSeq = -1;
    // The current connection reported that the server is gone.
    bool isDisconnected = false;
    std::string connectionError;
    // Mutes our routers held when the server went away, repaired once connected again.
    std::vector<RouterMute> orphanedMutes;
    // The map changes only under the lock, because the loss handler stops every aggregate's
    // cycle; everything else in an aggregate belongs to the main thread.
    std::map<AudioObjectID, std::unique_ptr<Aggregate>> aggregates;

    // Written under the loop's lock (or while its thread is stopped), read anywhere.
    std::atomic<Service> service{Service::down};
    std::atomic<std::uint64_t> generation{0};

    // Main thread only.
    std::map<AudioObjectID, Tap> taps;
    AudioObjectID nextTap = kTapObjectBase + 1;
    AudioObjectID nextAggregate = kAggregateObjectBase + 1;
    std::uintptr_t nextProcToken = 1;
    using Clock = std::chrono::steady_clock;
    Clock::time_point nextAttempt{};
    Clock::duration retryDelay = kFirstRetryDelay;
    Clock::time_point settlingSince{};

    ~Impl() { shutdown(); }

    // --- connection ------------------------------------------------------------------

    class Lock {
    public:
        explicit Lock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
        ~Lock() { pw_thread_loop_unlock(loop_); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        pw_thread_loop* loop_;
    };

    bool start(std::string* error) {
        {
            std::lock_guard guard(initMutex());
            pw_init(nullptr, nullptr);
        }
        isInitialized = true;
        recordPath =
            options.muteRecordPath.empty() ? defaultMuteRecordPath() : options.muteRecordPath;
        loop = pw_thread_loop_new("brightmix-pipewire", nullptr);
        if (loop == nullptr) {
            *error = "could not create the PipeWire thread";
            return false;
        }
        if (!openConnection(error)) {
            closeConnection();
            return false;
        }
        Lock lock(loop);
        service = Service::up;
        return true;
    }

    // A fresh context and connection on the loop (whose thread is stopped), and the whole
    // graph read once: the same for the first connection and every reconnection.
    bool openConnection(std::string* error) {
        isDisconnected = false;
        connectionError.clear();
        doneSeq = -1;
        // client-rt.conf loads the real-time module, so the data thread that runs the
        // router gets a real-time priority where the system allows one.
        context =
            pw_context_new(pw_thread_loop_get_loop(loop),
                           pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", nullptr), 0);
        if (context == nullptr) {
            *error = "could not create a PipeWire context";
            return false;
        }
        if (pw_thread_loop_start(loop) != 0) {
            *error = "could not start the PipeWire thread";
            return false;
        }
        Lock lock(loop);
        core = pw_context_connect(
            context, pw_properties_new(PW_KEY_APP_NAME, options.clientName.c_str(), nullptr), 0);
        if (core == nullptr) {
            *error = std::string("no PipeWire server answered (") + std::strerror(errno) + ")";
            return false;
        }
        static const pw_core_events coreEvents = [] {
            pw_core_events events{};
            events.version = PW_VERSION_CORE_EVENTS;
            events.done = &Impl::onCoreDone;
            events.error = &Impl::onCoreError;
            return events;
        }();
        pw_core_add_listener(core, &coreHook, &coreEvents, this);
        registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
        static const pw_registry_events registryEvents = [] {
            pw_registry_events events{};
            events.version = PW_VERSION_REGISTRY_EVENTS;
            events.global = &Impl::onGlobal;
            events.global_remove = &Impl::onGlobalRemove;
            return events;
        }();
        pw_registry_add_listener(registry, &registryHook, &registryEvents, this);
        // The first answer lists the globals; the second brings the info and metadata of
        // the objects bound while handling the first.
        if (!syncLocked() || !syncLocked()) {
            *error = connectionError.empty() ? "the PipeWire server did not answer in time"
                                             : connectionError;
            return false;
        }
        return true;
    }

    // Closes the connection and stops the loop's thread. Links, filters and bound objects
    // are destroyed on this side only when the server is gone, which is all they need then;
    // the filters go before the core, which would otherwise destroy them under our feet.
    // Aggregates and taps stay for the caller to forget.
    void closeConnection() {
        {
            Lock lock(loop);
            for (auto& [id, aggregate] : aggregates) {
                releaseLinksLocked(*aggregate);
                destroyFilterLocked(*aggregate);
            }
            streamTapped.clear();
            linksByProxyID.clear();
            for (auto& [id, object] : bound) {
                spa_hook_remove(&object->hook);
                pw_proxy_destroy(object->proxy);
            }
            bound.clear();
            defaultMetadata = nullptr;
            if (registry != nullptr) {
                spa_hook_remove(&registryHook);
                pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
                registry = nullptr;
            }
            if (core != nullptr) {
                spa_hook_remove(&coreHook);
                pw_core_disconnect(core);
                core = nullptr;
            }
            graph = PipeWireGraph{};
        }
        // Without the lock: the thread takes it once more on its way out.
        pw_thread_loop_stop(loop);
        if (context != nullptr) {
            pw_context_destroy(context);
            context = nullptr;
        }
    }

    void shutdown() {
        if (loop != nullptr) {
            if (service.load() == Service::up) {
                for (auto& [id, aggregate] : aggregates) {
                    stopAggregate(*aggregate);
                }
            }
            closeConnection();
            {
                Lock lock(loop);
                aggregates.clear();
            }
            taps.clear();
            // Mutes from before a loss that no reconnection repaired: their watchdogs restore
            // the sinks once the server answers again (without one, the record stays for the
            // next start's repair).
            for (RouterMute& mute : orphanedMutes) {
                if (mute.watchdog) {
                    mute.watchdog->release();
                }
            }
            orphanedMutes.clear();
            pw_thread_loop_destroy(loop);
            loop = nullptr;
        }
        if (isInitialized) {
            std::lock_guard guard(initMutex());
            pw_deinit();
            isInitialized = false;
        }
    }

    // --- losing the server and finding it again --------------------------------------

    // The server is gone (loop thread, lock held). No IOProc may run once the generation has
    // changed, so every cycle stops first. The mutes our routers hold are set aside for the
    // repair after reconnecting, their watchdogs still armed in case this process dies
    // meanwhile.
    void loseConnectionLocked() {
        if (isDisconnected) {
            return;
        }
        isDisconnected = true;
        connectionError = "the PipeWire server went away";
        const Service current = service.load();
        if (current == Service::up) {
            for (auto& [id, aggregate] : aggregates) {
                aggregate->cycle->stop();
                for (RouterMute& mute : aggregate->mutes) {
                    orphanedMutes.push_back(std::move(mute));
                }
                aggregate->mutes.clear();
            }
            graph = PipeWireGraph{};
            service = Service::lost;
            generation.fetch_add(1);
        } else if (current == Service::settling) {
            service = Service::lost;
        }
    }

    // Drops the connection that went away: its filters and proxies are destroyed locally and
    // its aggregates and taps forgotten, so their IDs answer '!obj' from now on. (The counters
    // go on: an old tap, aggregate or IOProc ID never names a new one.)
    void forgetLostConnection() {
        closeConnection();
        {
            Lock lock(loop);
            aggregates.clear();
            service = Service::down;
        }
        taps.clear();
    }

    // Whether the session manager has configured the graph: the default output is chosen and
    // every device node has its ports and its Props. Before that a multi-output sink's members
    // may have no ports yet (a router built then would leave them out), and a mute the session
    // manager restores may still be on its way.
    bool isSessionConfiguredLocked() const {
        auto name = graph.defaultSinkName();
        if (defaultMetadata == nullptr || !name || graph.nodeNamed(*name) == nullptr) {
            return false;
        }
        for (std::uint32_t id : graph.deviceNodes()) {
            const GraphNode* node = graph.node(id);
            bool hasPorts =
                !graph.portsOf(id, true, false).empty() || !graph.portsOf(id, false, false).empty();
            if (node == nullptr || !hasPorts || !node->mute) {
                return false;
            }
        }
        return true;
    }

    bool isServiceAvailable() {
        if (service.load() == Service::up) {
            return true;
        }
        const auto now = Clock::now();
        if (service.load() == Service::lost) {
            forgetLostConnection();
            nextAttempt = now;
            retryDelay = kFirstRetryDelay;
        }
        if (service.load() == Service::down) {
            if (now < nextAttempt) {
                return false;
            }
            std::string ignored;
            if (!openConnection(&ignored)) {
                closeConnection();
                nextAttempt = now + retryDelay;
                retryDelay = std::min<Clock::duration>(retryDelay * 2, kLongestRetryDelay);
                return false;
            }
            Lock lock(loop);
            service = isDisconnected ? Service::lost : Service::settling;
            settlingSince = now;
        }
        {
            Lock lock(loop);
            if (service.load() != Service::settling || !syncLocked() ||
                service.load() != Service::settling) {
                return false;
            }
            if (!isSessionConfiguredLocked() && Clock::now() - settlingSince < kSessionPatience) {
                return false;
            }
            service = Service::up;
        }
        retryDelay = kFirstRetryDelay;
        repairAfterReconnecting();
        return service.load() == Service::up;
    }

    // No mute of ours may outlast a restart: a sink our router had muted comes back muted
    // when the session manager restores that state, or stays muted when only the connection
    // broke. Each is unmuted unless another live Brightmix routes it now, its record cleared
    // and its watchdog dismissed; then records whose owner died meanwhile are repaired as at
    // start-up. A repair the server does not confirm waits for the next reconnection with its
    // watchdog still armed: retrying it while connected could unmute a router built since.
    void repairAfterReconnecting() {
        std::vector<RouterMute> pending;
        {
            Lock lock(loop);
            pending.swap(orphanedMutes);
        }
        const std::int32_t self = ::getpid();
        std::vector<RouterMute> unconfirmed;
        for (RouterMute& mute : pending) {
            OSStatus status = kAudioHardwareNoError;
            if (!isMutedByAnotherOwner(recordPath, mute.sink, self)) {
                Lock lock(loop);
                const GraphNode* node = graph.nodeNamed(mute.sink);
                if (node != nullptr && node->mute.value_or(false)) {
                    status = setProps(node->id, false, {});
                }
            }
            if (status != kAudioHardwareNoError) {
                unconfirmed.push_back(std::move(mute));
                continue;
            }
            removeMuteRecord(recordPath, MuteRecord{self, mute.sink});
            if (mute.watchdog) {
                mute.watchdog->disarm();
            }
        }
        if (!unconfirmed.empty()) {
            Lock lock(loop);
            for (RouterMute& mute : unconfirmed) {
                orphanedMutes.push_back(std::move(mute));
            }
        }
        repairRecords(false);
    }

    // Unmutes the sinks of records whose owner is gone and clears those records. This
    // process's own records count as gone only when asked: at start-up it routes nothing yet,
    // after a reconnection its own mutes were repaired precisely above.
    std::vector<std::string> repairRecords(bool includeOwnRecords) {
        std::vector<std::string> repaired;
        for (const MuteRecord& record : readMuteRecords(recordPath)) {
            bool isOwn = record.ownerPID == ::getpid();
            if (isOwn ? !includeOwnRecords : isProcessAlive(record.ownerPID)) {
                continue; // its owner still routes and will restore the sink itself
            }
            std::optional<bool> mute;
            {
                Lock lock(loop);
                if (service.load() != Service::up) {
                    return repaired;
                }
                const GraphNode* node = graph.nodeNamed(record.nodeName);
                mute = node != nullptr ? node->mute : std::nullopt;
            }
            // A sink that is gone or already audible needs nothing more.
            bool isSettled = !mute || !*mute;
            if (!isSettled && setMute(record.nodeName, false) == kAudioHardwareNoError) {
                repaired.push_back(record.nodeName);
                isSettled = true;
            }
            if (isSettled) {
                removeMuteRecord(recordPath, record);
            }
        }
        return repaired;
    }

    // Waits, with the lock held, until `done` holds or the timeout passes.
    bool waitLocked(const std::function<bool()>& done) {
        timespec deadline{};
        pw_thread_loop_get_time(loop, &deadline,
                                static_cast<int64_t>(options.timeoutSeconds * 1e9));
        while (!done()) {
            if (isDisconnected) {
                return false;
            }
            if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0) {
                return done();
            }
        }
        return true;
    }

    bool syncLocked() {
        if (core == nullptr || isDisconnected) {
            return false;
        }
        int seq = pw_core_sync(core, PW_ID_CORE, 0);
        return waitLocked([&] { return doneSeq == seq; });
    }

    // --- listeners (loop thread, lock held) --------------------------------------------

    static void onCoreDone(void* data, std::uint32_t id, int seq) {
        auto* impl = static_cast<Impl*>(data);
        if (id == PW_ID_CORE) {
            impl->doneSeq = seq;
            pw_thread_loop_signal(impl->loop, false);
        }
    }

    static void onCoreError(void* data, std::uint32_t id, int /*seq*/, int res,
                            const char* message) {
        auto* impl = static_cast<Impl*>(data);
        if (id == PW_ID_CORE && isConnectionLoss(res, message)) {
            impl->loseConnectionLocked();
        }
        auto link = impl->linksByProxyID.find(static_cast<int>(id));
        if (link != impl->linksByProxyID.end()) {
            link->second->isFailed = true;
            link->second->error = message != nullptr ? message : spa_strerror(res);
        }
        pw_thread_loop_signal(impl->loop, false);
    }

    static void onGlobal(void* data, std::uint32_t id, std::uint32_t /*permissions*/,
                         const char* type, std::uint32_t /*version*/, const spa_dict* props) {
        auto* impl = static_cast<Impl*>(data);
        impl->addGlobal(id, type, props);
        pw_thread_loop_signal(impl->loop, false);
    }

    static void onGlobalRemove(void* data, std::uint32_t id) {
        auto* impl = static_cast<Impl*>(data);
        impl->removeGlobal(id);
        pw_thread_loop_signal(impl->loop, false);
    }

    void addGlobal(std::uint32_t id, const char* type, const spa_dict* props) {
        if (id >= kGraphIDLimit) {
            return;
        }
        std::string_view kind = type != nullptr ? type : "";
        if (kind == PW_TYPE_INTERFACE_Node) {
            GraphNode& node = graph.nodes[id];
            node.id = id;
            node.properties = propertiesOf(props);
            bind(id, type, PW_VERSION_NODE, Bound::Kind::node);
        } else if (kind == PW_TYPE_INTERFACE_Port) {
            GraphPort& port = graph.ports[id];
            port.id = id;
            port.properties = propertiesOf(props);
            for (Aggregate* aggregate : streamTapped) {
                linkNewStreamPortLocked(*aggregate, port);
            }
        } else if (kind == PW_TYPE_INTERFACE_Link) {
            Properties properties = propertiesOf(props);
            GraphLink link;
            link.id = id;
            link.outputNode = parseUnsigned(propertyOf(properties, "link.output.node")).value_or(0);
            link.outputPort = parseUnsigned(propertyOf(properties, "link.output.port")).value_or(0);
            link.inputNode = parseUnsigned(propertyOf(properties, "link.input.node")).value_or(0);
            link.inputPort = parseUnsigned(propertyOf(properties, "link.input.port")).value_or(0);
            graph.links[id] = link;
        } else if (kind == PW_TYPE_INTERFACE_Client) {
            GraphClient& client = graph.clients[id];
            client.id = id;
            client.properties = propertiesOf(props);
            bind(id, type, PW_VERSION_CLIENT, Bound::Kind::client);
        } else if (kind == PW_TYPE_INTERFACE_Metadata) {
            Properties properties = propertiesOf(props);
            auto name = propertyOf(properties, "metadata.name");
            if (name == "default" || name == "settings") {
                Bound* object = bind(id, type, PW_VERSION_METADATA, Bound::Kind::metadata);
                if (object != nullptr) {
                    object->metadataName = std::string(name);
                    if (name == "default") {
                        defaultMetadata = reinterpret_cast<pw_metadata*>(object->proxy);
                    }
                }
            }
        }
    }

    void removeGlobal(std::uint32_t id) {
        graph.nodes.erase(id);
        graph.ports.erase(id);
        graph.links.erase(id);
        graph.clients.erase(id);
        auto found = bound.find(id);
        if (found != bound.end()) {
            if (found->second->kind == Bound::Kind::metadata) {
                if (found->second->metadataName == "default") {
                    graph.defaults.clear();
                    defaultMetadata = nullptr;
                } else {
                    graph.settings.clear();
                }
            }
            spa_hook_remove(&found->second->hook);
            pw_proxy_destroy(found->second->proxy);
            bound.erase(found);
        }
    }

    Bound* bind(std::uint32_t id, const char* type, std::uint32_t version, Bound::Kind kind) {
        auto* proxy = static_cast<pw_proxy*>(pw_registry_bind(registry, id, type, version, 0));
        if (proxy == nullptr) {
            return nullptr;
        }
        auto object = std::make_unique<Bound>();
        object->impl = this;
        object->id = id;
        object->kind = kind;
        object->proxy = proxy;
        switch (kind) {
        case Bound::Kind::node: {
            static const pw_node_events events = [] {
                pw_node_events e{};
                e.version = PW_VERSION_NODE_EVENTS;
                e.info = &Impl::onNodeInfo;
                e.param = &Impl::onNodeParam;
                return e;
            }();
            pw_proxy_add_object_listener(proxy, &object->hook, &events, object.get());
            std::uint32_t ids[] = {SPA_PARAM_Props};
            pw_node_subscribe_params(reinterpret_cast<pw_node*>(proxy), ids, 1);
            break;
        }
        case Bound::Kind::client: {
            static const pw_client_events events = [] {
                pw_client_events e{};
                e.version = PW_VERSION_CLIENT_EVENTS;
                e.info = &Impl::onClientInfo;
                return e;
            }();
            pw_proxy_add_object_listener(proxy, &object->hook, &events, object.get());
            break;
        }
        case Bound::Kind::metadata: {
            static const pw_metadata_events events = [] {
                pw_metadata_events e{};
                e.version = PW_VERSION_METADATA_EVENTS;
                e.property = &Impl::onMetadataProperty;
                return e;
            }();
            pw_proxy_add_object_listener(proxy, &object->hook, &events, object.get());
            break;
        }
        }
        auto* raw = object.get();
        auto previous = bound.find(id);
        if (previous != bound.end()) {
            spa_hook_remove(&previous->second->hook);
            pw_proxy_destroy(previous->second->proxy);
        }
        bound[id] = std::move(object);
        return raw;
    }

    static void onNodeInfo(void* data, const pw_node_info* info) {
        auto* object = static_cast<Bound*>(data);
        Impl* impl = object->impl;
        auto found = impl->graph.nodes.find(object->id);
        if (found != impl->graph.nodes.end() && info != nullptr) {
            if ((info->change_mask & PW_NODE_CHANGE_MASK_PROPS) && info->props != nullptr) {
                found->second.properties = propertiesOf(info->props);
            }
            if (info->change_mask & PW_NODE_CHANGE_MASK_STATE) {
                found->second.state = pw_node_state_as_string(info->state);
            }
        }
        pw_thread_loop_signal(impl->loop, false);
    }

    static void onNodeParam(void* data, int /*seq*/, std::uint32_t id, std::uint32_t /*index*/,
                            std::uint32_t /*next*/, const spa_pod* param) {
        auto* object = static_cast<Bound*>(data);
        Impl* impl = object->impl;
        auto found = impl->graph.nodes.find(object->id);
        if (found == impl->graph.nodes.end() || id != SPA_PARAM_Props || param == nullptr ||
            !spa_pod_is_object(param)) {
            return;
        }
        const auto* props = reinterpret_cast<const spa_pod_object*>(param);
        const spa_pod_prop* prop;
        SPA_POD_OBJECT_FOREACH(props, prop) {
            if (prop->key == SPA_PROP_mute) {
                bool mute = false;
                if (spa_pod_get_bool(&prop->value, &mute) == 0) {
                    found->second.mute = mute;
                }
            } else if (prop->key == SPA_PROP_channelVolumes) {
                float volumes[64];
                std::uint32_t count = spa_pod_copy_array(&prop->value, SPA_TYPE_Float, volumes, 64);
                found->second.channelVolumes.assign(volumes, volumes + count);
            }
        }
        pw_thread_loop_signal(impl->loop, false);
    }

    static void onClientInfo(void* data, const pw_client_info* info) {
        auto* object = static_cast<Bound*>(data);
        Impl* impl = object->impl;
        auto found = impl->graph.clients.find(object->id);
        if (found != impl->graph.clients.end() && info != nullptr && info->props != nullptr) {
            found->second.properties = propertiesOf(info->props);
        }
        pw_thread_loop_signal(impl->loop, false);
    }

    static int onMetadataProperty(void* data, std::uint32_t subject, const char* key,
                                  const char* /*type*/, const char* value) {
        auto* object = static_cast<Bound*>(data);
        Impl* impl = object->impl;
        Properties& target =
            object->metadataName == "default" ? impl->graph.defaults : impl->graph.settings;
        if (subject == PW_ID_CORE) {
            if (key == nullptr) {
                target.clear();
            } else if (value == nullptr) {
                target.erase(std::string(key));
            } else {
                target[key] = value;
            }
        }
        pw_thread_loop_signal(impl->loop, false);
        return 0;
    }

    // --- property answers (lock held) --------------------------------------------------

    Answer answer(AudioObjectID object, const AudioObjectPropertyAddress& address,
                  UInt32 qualifierSize, const void* qualifier) {
        if (service.load() != Service::up) {
            return failure(kAudioHardwareNotRunningError);
        }
        if (object == kAudioObjectSystemObject) {
            return systemAnswer(address, qualifierSize, qualifier);
        }
        if (auto node = nodeOfDeviceObject(object)) {
            const GraphNode* device = graph.node(*node);
            if (device != nullptr && graph.isDevice(*device)) {
                return deviceAnswer(*device, address);
            }
            return failure(kAudioHardwareBadObjectError);
        }
        if (auto port = portOfStreamObject(object)) {
            if (graph.ports.count(*port) == 0) {
                return failure(kAudioHardwareBadObjectError);
            }
            return streamAnswer(address);
        }
        if (auto pid = pidOfProcessObject(object)) {
            if (graph.clientsOf(*pid).empty()) {
                return failure(kAudioHardwareBadObjectError);
            }
            return processAnswer(*pid, address);
        }
        if (auto tap = taps.find(object); tap != taps.end()) {
            return tapAnswer(tap->second, address);
        }
        if (auto aggregate = aggregates.find(object); aggregate != aggregates.end()) {
            return aggregateAnswer(*aggregate->second, address);
        }
        if (object >= kAggregateStreamObjectBase) {
            AudioObjectID owner =
                kAggregateObjectBase + (object - kAggregateStreamObjectBase) / 256;
            if (aggregates.count(owner) != 0) {
                return streamAnswer(address);
            }
        }
        return failure(kAudioHardwareBadObjectError);
    }

    Answer systemAnswer(const AudioObjectPropertyAddress& address, UInt32 qualifierSize,
                        const void* qualifier) {
        switch (address.mSelector) {
        case kAudioObjectPropertyClass:
            return plain<UInt32>(kAudioSystemObjectClassID);
        case kAudioHardwarePropertyDevices: {
            std::vector<AudioObjectID> ids;
            for (std::uint32_t node : graph.deviceNodes()) {
                auto name = propertyOf(graph.nodes[node].properties, "node.name");
                if (name.substr(0, kPrivatePrefix.size()) != kPrivatePrefix) {
                    ids.push_back(deviceObjectID(node));
                }
            }
            return objectList(ids);
        }
        case kAudioHardwarePropertyDefaultOutputDevice:
        case kAudioHardwarePropertyDefaultInputDevice: {
            bool output = address.mSelector == kAudioHardwarePropertyDefaultOutputDevice;
            auto name = output ? graph.defaultSinkName() : graph.defaultSourceName();
            const GraphNode* node = name ? graph.nodeNamed(*name) : nullptr;
            AudioObjectID id = node != nullptr && graph.isDevice(*node) ? deviceObjectID(node->id)
                                                                        : kAudioObjectUnknown;
            return plain<AudioObjectID>(id, defaultMetadata != nullptr);
        }
        case kAudioHardwarePropertyProcessObjectList: {
            // Like Core Audio's list this includes Brightmix itself; its users skip their
            // own process by PID.
            std::vector<AudioObjectID> ids;
            for (std::int32_t pid : graph.processIDs()) {
                ids.push_back(processObjectID(pid));
            }
            return objectList(ids);
        }
        case kAudioHardwarePropertyTranslatePIDToProcessObject: {
            std::int32_t pid = 0;
            if (qualifier == nullptr || qualifierSize != sizeof(pid)) {
                return failure(kAudioHardwareBadPropertySizeError);
            }
            std::memcpy(&pid, qualifier, sizeof(pid));
            bool isKnown = pid > 0 && !graph.clientsOf(pid).empty();
            return plain<AudioObjectID>(isKnown ? processObjectID(pid) : kAudioObjectUnknown);
        }
        case kAudioHardwarePropertyTapList: {
            std::vector<AudioObjectID> ids;
            for (const auto& [id, tap] : taps) {
                ids.push_back(id);
            }
            return objectList(ids);
        }
        default:
            return failure(kAudioHardwareUnknownPropertyError);
        }
    }

    static bool isDirectional(AudioObjectPropertyScope scope) {
        return scope == kAudioObjectPropertyScopeInput || scope == kAudioObjectPropertyScopeOutput;
    }

    Answer deviceAnswer(const GraphNode& node, const AudioObjectPropertyAddress& address) {
        bool multi = graph.isMultiOutput(node);
        bool output = address.mScope == kAudioObjectPropertyScopeOutput;
        switch (address.mSelector) {
        case kAudioObjectPropertyClass:
            return plain<UInt32>(multi ? kAudioAggregateDeviceClassID : kAudioDeviceClassID);
        case kAudioDevicePropertyDeviceUID:
            return cfValue(
                PropertyList::string(std::string(propertyOf(node.properties, "node.name"))));
        case kAudioObjectPropertyName:
            return cfValue(PropertyList::string(nodeDisplayName(node.properties)));
        case kAudioDevicePropertyStreamConfiguration:
            if (!isDirectional(address.mScope)) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            return bufferLayout(graph.devicePorts(node, output).size());
        case kAudioDevicePropertyStreams: {
            if (!isDirectional(address.mScope)) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            std::vector<AudioObjectID> ids;
            for (const GraphPort* port : graph.devicePorts(node, output)) {
                ids.push_back(streamObjectID(port->id));
            }
            return objectList(ids);
        }
        case kAudioAggregateDevicePropertyFullSubDeviceList: {
            if (!multi) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            PropertyList::Array members;
            for (const std::string& member : graph.membersOf(node)) {
                members.push_back(PropertyList::string(member));
            }
            return cfValue(PropertyList::array(std::move(members)));
        }
        case kAudioAggregateDevicePropertyComposition: {
            if (!multi) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            return cfValue(compositionOf(node));
        }
        case kAudioDevicePropertyTransportType:
            return plain<UInt32>(transportTypeOfNode(node.properties, multi));
        case kAudioDevicePropertyNominalSampleRate:
            return plain<Float64>(graph.sampleRate());
        case kAudioDevicePropertyDeviceIsRunning:
            return plain<UInt32>(node.state == "running" ? 1 : 0);
        case kAudioDevicePropertyVolumeScalar: {
            // Every sink takes a volume (in software when the hardware has none): the
            // main element is the whole device, elements 1... its channels.
            if (address.mScope != kAudioObjectPropertyScopeOutput || !isSink(node)) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            std::size_t channels = graph.devicePorts(node, true).size();
            if (address.mElement > channels) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            if (node.channelVolumes.empty()) {
                Answer pending = failure(kAudioHardwareNotReadyError);
                pending.isSettable = true;
                return pending;
            }
            float linear = 0;
            if (address.mElement == 0) {
                for (float volume : node.channelVolumes) {
                    linear = std::max(linear, volume);
                }
            } else {
                linear = node.channelVolumes[std::min<std::size_t>(address.mElement - 1,
                                                                   node.channelVolumes.size() - 1)];
            }
            return plain<Float32>(std::cbrt(std::max(linear, 0.0f)), true);
        }
        default:
            return failure(kAudioHardwareUnknownPropertyError);
        }
    }

    PropertyList compositionOf(const GraphNode& node) {
        PropertyList::Array subdevices;
        for (const std::string& member : graph.membersOf(node)) {
            PropertyList::Dictionary entry;
            entry[kAudioSubDeviceUIDKey] = PropertyList::string(member);
            subdevices.push_back(PropertyList::dictionary(std::move(entry)));
        }
        PropertyList::Dictionary composition;
        composition[kAudioAggregateDeviceUIDKey] =
            PropertyList::string(std::string(propertyOf(node.properties, "node.name")));
        composition[kAudioAggregateDeviceNameKey] =
            PropertyList::string(nodeDisplayName(node.properties));
        composition[kAudioAggregateDeviceSubDeviceListKey] =
            PropertyList::array(std::move(subdevices));
        return PropertyList::dictionary(std::move(composition));
    }

    Answer streamAnswer(const AudioObjectPropertyAddress& address) {
        switch (address.mSelector) {
        case kAudioObjectPropertyClass:
            return plain<UInt32>(kAudioStreamClassID);
        case kAudioStreamPropertyVirtualFormat:
            return plain(floatFormat(graph.sampleRate(), 1));
        default:
            return failure(kAudioHardwareUnknownPropertyError);
        }
    }

    Answer processAnswer(std::int32_t pid, const AudioObjectPropertyAddress& address) {
        switch (address.mSelector) {
        case kAudioObjectPropertyClass:
            return plain<UInt32>(kAudioProcessClassID);
        case kAudioProcessPropertyPID:
            return plain<std::int32_t>(pid);
        case kAudioProcessPropertyBundleID: {
            std::string identity;
            for (const GraphClient* client : graph.clientsOf(pid)) {
                identity = linuxIdentityOfClient(client->properties);
                if (!identity.empty()) {
                    break;
                }
            }
            return cfValue(PropertyList::string(identity));
        }
        case kAudioObjectPropertyName: {
            auto clients = graph.clientsOf(pid);
            return cfValue(PropertyList::string(
                std::string(propertyOf(clients.front()->properties, "application.name"))));
        }
        case kAudioProcessPropertyIsRunningOutput:
            return plain<UInt32>(graph.isRunningOutput(pid) ? 1 : 0);
        case kAudioProcessPropertyDevices: {
            std::vector<AudioObjectID> ids;
            for (std::uint32_t node : graph.devicesOfProcess(pid)) {
                ids.push_back(deviceObjectID(node));
            }
            return objectList(ids);
        }
        default:
            return failure(kAudioHardwareUnknownPropertyError);
        }
    }

    Answer tapAnswer(const Tap& tap, const AudioObjectPropertyAddress& address) {
        switch (address.mSelector) {
        case kAudioObjectPropertyClass:
            return plain<UInt32>(kAudioTapClassID);
        case kAudioTapPropertyUID:
            return cfValue(PropertyList::string(tap.uid));
        case kAudioObjectPropertyName:
            return cfValue(PropertyList::string(tap.description.name));
        case kAudioTapPropertyFormat:
            return plain(floatFormat(graph.sampleRate(), static_cast<UInt32>(tap.channels.size())));
        default:
            return failure(kAudioHardwareUnknownPropertyError);
        }
    }

    Answer aggregateAnswer(const Aggregate& aggregate, const AudioObjectPropertyAddress& address) {
        bool output = address.mScope == kAudioObjectPropertyScopeOutput;
        std::size_t streams = output ? aggregate.outputs.size() : aggregate.inputs.size();
        switch (address.mSelector) {
        case kAudioObjectPropertyClass:
            return plain<UInt32>(kAudioAggregateDeviceClassID);
        case kAudioDevicePropertyDeviceUID:
            return cfValue(PropertyList::string(aggregate.uid));
        case kAudioObjectPropertyName:
            return cfValue(PropertyList::string(aggregate.name));
        case kAudioDevicePropertyStreamConfiguration:
            if (!isDirectional(address.mScope)) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            return bufferLayout(streams);
        case kAudioDevicePropertyStreams: {
            if (!isDirectional(address.mScope)) {
                return failure(kAudioHardwareUnknownPropertyError);
            }
            std::vector<AudioObjectID> ids;
            AudioObjectID base = kAggregateStreamObjectBase +
                                 (aggregate.id - kAggregateObjectBase) * 256 + (output ? 128 : 0);
            for (std::size_t i = 0; i < streams && i < 128; ++i) {
                ids.push_back(base + static_cast<AudioObjectID>(i));
            }
            return objectList(ids);
        }
        case kAudioAggregateDevicePropertyFullSubDeviceList: {
            PropertyList::Array members;
            for (const std::string& member : aggregate.members) {
                members.push_back(PropertyList::string(member));
            }
            return cfValue(PropertyList::array(std::move(members)));
        }
        case kAudioAggregateDevicePropertyComposition:
            return cfValue(aggregate.description);
        case kAudioDevicePropertyTransportType:
            return plain<UInt32>(kAudioDeviceTransportTypeAggregate);
        case kAudioDevicePropertyNominalSampleRate:
            return plain<Float64>(graph.sampleRate());
        case kAudioDevicePropertyDeviceIsRunning:
            return plain<UInt32>(aggregate.isStarted ? 1 : 0);
        default:
            return failure(kAudioHardwareUnknownPropertyError);
        }
    }

    // --- writing -----------------------------------------------------------------------

    OSStatus setDefault(bool output, AudioObjectID device) {
        Lock lock(loop);
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        auto node = nodeOfDeviceObject(device);
        const GraphNode* target = node ? graph.node(*node) : nullptr;
        if (target == nullptr || !graph.isDevice(*target)) {
            return kAudioHardwareBadDeviceError;
        }
        if (output ? graph.devicePorts(*target, true).empty() && !isSink(*target)
                   : !isSourceLike(*target)) {
            return kAudioHardwareIllegalOperationError;
        }
        if (defaultMetadata == nullptr) {
            // Without a session manager nobody follows the configured default.
            return kAudioHardwareNotReadyError;
        }
        std::string name(propertyOf(target->properties, "node.name"));
        std::string value = metadataValueForName(name);
        pw_metadata_set_property(defaultMetadata, PW_ID_CORE,
                                 output ? "default.configured.audio.sink"
                                        : "default.configured.audio.source",
                                 "Spa:String:JSON", value.c_str());
        bool isApplied = waitLocked([&] {
            auto current = output ? graph.defaultSinkName() : graph.defaultSourceName();
            return current == name;
        });
        return isApplied ? kAudioHardwareNoError : kAudioHardwareNotReadyError;
    }

    OSStatus setVolume(AudioObjectID device, const AudioObjectPropertyAddress& address,
                       Float32 scalar) {
        Lock lock(loop);
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        auto node = nodeOfDeviceObject(device);
        const GraphNode* target = node ? graph.node(*node) : nullptr;
        if (target == nullptr || !graph.isDevice(*target)) {
            return kAudioHardwareBadObjectError;
        }
        if (address.mScope != kAudioObjectPropertyScopeOutput || !isSink(*target)) {
            return kAudioHardwareUnknownPropertyError;
        }
        std::size_t channels = std::max<std::size_t>(graph.devicePorts(*target, true).size(),
                                                     target->channelVolumes.size());
        if (address.mElement > channels || channels == 0 || channels > 64) {
            return kAudioHardwareUnknownPropertyError;
        }
        if (!std::isfinite(scalar)) {
            return kAudio_ParamError;
        }
        float linear = std::pow(std::clamp(scalar, 0.0f, 1.0f), 3.0f);
        std::vector<float> volumes = target->channelVolumes;
        volumes.resize(channels, 1.0f);
        if (address.mElement == 0) {
            std::fill(volumes.begin(), volumes.end(), linear);
        } else {
            volumes[address.mElement - 1] = linear;
        }
        return setProps(target->id, std::nullopt, volumes);
    }

    // Lock held.
    OSStatus setProps(std::uint32_t nodeID, std::optional<bool> mute,
                      const std::vector<float>& volumes) {
        auto object = bound.find(nodeID);
        if (object == bound.end()) {
            return kAudioHardwareBadDeviceError;
        }
        std::uint8_t buffer[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        spa_pod_frame frame;
        spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Props);
        if (mute) {
            spa_pod_builder_prop(&builder, SPA_PROP_mute, 0);
            spa_pod_builder_bool(&builder, *mute);
        }
        if (!volumes.empty()) {
            spa_pod_builder_prop(&builder, SPA_PROP_channelVolumes, 0);
            spa_pod_builder_array(&builder, sizeof(float), SPA_TYPE_Float,
                                  static_cast<std::uint32_t>(volumes.size()), volumes.data());
        }
        auto* pod = static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame));
        pw_node_set_param(reinterpret_cast<pw_node*>(object->second->proxy), SPA_PARAM_Props, 0,
                          pod);
        bool isApplied = waitLocked([&] {
            const GraphNode* node = graph.node(nodeID);
            if (node == nullptr) {
                return true;
            }
            if (mute && node->mute != mute) {
                return false;
            }
            if (!volumes.empty()) {
                if (node->channelVolumes.size() != volumes.size()) {
                    return false;
                }
                for (std::size_t i = 0; i < volumes.size(); ++i) {
                    if (std::fabs(node->channelVolumes[i] - volumes[i]) > 1e-4f) {
                        return false;
                    }
                }
            }
            return true;
        });
        return isApplied ? kAudioHardwareNoError : kAudioHardwareNotReadyError;
    }

    OSStatus setMute(std::string_view name, bool mute) {
        Lock lock(loop);
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        const GraphNode* node = graph.nodeNamed(name);
        if (node == nullptr) {
            return kAudioHardwareBadDeviceError;
        }
        return setProps(node->id, mute, {});
    }

    // --- taps --------------------------------------------------------------------------

    OSStatus createTap(const TapDescription& description, AudioObjectID* tapID) {
        if (tapID == nullptr) {
            return kAudio_ParamError;
        }
        *tapID = kAudioObjectUnknown;
        Lock lock(loop);
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        for (AudioObjectID process : description.processes) {
            auto pid = pidOfProcessObject(process);
            if (!pid || (graph.clientsOf(*pid).empty() && *pid != ::getpid())) {
                return kAudioHardwareBadObjectError;
            }
        }
        if (description.muteBehavior == kCATapMuted) {
            // A permanent mute that nothing would lift after a crash: not offered.
            return kAudioHardwareUnsupportedOperationError;
        }
        Tap tap;
        tap.description = description;
        switch (description.kind) {
        case TapDescription::Kind::excludingProcessesOnDeviceStream: {
            const GraphNode* device = graph.nodeNamed(description.deviceUID);
            if (device == nullptr || !isSink(*device)) {
                return kAudioHardwareBadDeviceError;
            }
            if (description.stream != 0) {
                return kAudioHardwareBadStreamError;
            }
            if (description.muteBehavior == kCATapMutedWhenTapped &&
                !graph.isMultiOutput(*device)) {
                // Muting a plain sink would silence the router's own output to it too.
                return kAudioHardwareUnsupportedOperationError;
            }
            for (const GraphPort* port : graph.portsOf(device->id, true, true)) {
                tap.channels.emplace_back(propertyOf(port->properties, "audio.channel"));
            }
            if (tap.channels.empty()) {
                return kAudioHardwareNotReadyError;
            }
            break;
        }
        case TapDescription::Kind::stereoGlobalExcludingProcesses:
            tap.channels = {"FL", "FR"};
            break;
        case TapDescription::Kind::stereoMixdownOfProcesses:
            if (description.muteBehavior != kCATapUnmuted) {
                return kAudioHardwareUnsupportedOperationError;
            }
            tap.channels = {"FL", "FR"};
            break;
        }
        tap.id = nextTap++;
        tap.uid = std::string(kPrivatePrefix) + "tap." + randomUID();
        *tapID = tap.id;
        taps[tap.id] = std::move(tap);
        return kAudioHardwareNoError;
    }

    OSStatus destroyTap(AudioObjectID tapID) {
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        auto found = taps.find(tapID);
        if (found == taps.end()) {
            return kAudioHardwareBadObjectError;
        }
        if (found->second.aggregates != 0) {
            // Core Audio lets the aggregate outlive its tap's owner; here the aggregate
            // still reads it, so destroying it now would leave a router without input.
            return kAudioHardwareIllegalOperationError;
        }
        taps.erase(found);
        return kAudioHardwareNoError;
    }

    // --- aggregates --------------------------------------------------------------------

    OSStatus createAggregate(const PropertyList& description, AudioObjectID* deviceID) {
        if (deviceID == nullptr) {
            return kAudio_ParamError;
        }
        *deviceID = kAudioObjectUnknown;
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        if (description.asDictionary() == nullptr) {
            return kAudio_ParamError;
        }
        const PropertyList* uid = description.find(kAudioAggregateDeviceUIDKey);
        if (uid == nullptr || uid->asString() == nullptr || uid->asString()->empty()) {
            return kAudio_ParamError;
        }
        auto aggregate = std::make_unique<Aggregate>();
        aggregate->impl = this;
        aggregate->uid = *uid->asString();
        aggregate->description = description;
        const PropertyList* name = description.find(kAudioAggregateDeviceNameKey);
        aggregate->name =
            name != nullptr && name->asString() != nullptr ? *name->asString() : aggregate->uid;
        for (const auto& [id, existing] : aggregates) {
            if (existing->uid == aggregate->uid) {
                return kAudioHardwareIllegalOperationError;
            }
        }

        Lock lock(loop);
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        if (const PropertyList* subdevices =
                description.find(kAudioAggregateDeviceSubDeviceListKey)) {
            if (subdevices->asArray() == nullptr) {
                return kAudio_ParamError;
            }
            for (const PropertyList& entry : *subdevices->asArray()) {
                const PropertyList* member = entry.find(kAudioSubDeviceUIDKey);
                if (member == nullptr || member->asString() == nullptr) {
                    return kAudio_ParamError;
                }
                const GraphNode* sink = graph.nodeNamed(*member->asString());
                if (sink == nullptr || !isSink(*sink)) {
                    return kAudioHardwareBadDeviceError;
                }
                aggregate->members.push_back(*member->asString());
                for (const GraphPort* port : graph.devicePorts(*sink, true)) {
                    aggregate->outputs.push_back(
                        {*member->asString(),
                         std::string(propertyOf(port->properties, "port.name")),
                         std::string(propertyOf(port->properties, "audio.channel"))});
                }
            }
        }
        if (const PropertyList* tapList = description.find(kAudioAggregateDeviceTapListKey)) {
            if (tapList->asArray() == nullptr) {
                return kAudio_ParamError;
            }
            if (tapList->asArray()->size() > 1) {
                // One filter reads one tap; mixing several taps is not offered.
                return kAudioHardwareUnsupportedOperationError;
            }
            for (const PropertyList& entry : *tapList->asArray()) {
                const PropertyList* tapUID = entry.find(kAudioSubTapUIDKey);
                if (tapUID == nullptr || tapUID->asString() == nullptr) {
                    return kAudio_ParamError;
                }
                auto tap = std::find_if(taps.begin(), taps.end(), [&](const auto& candidate) {
                    return candidate.second.uid == *tapUID->asString();
                });
                if (tap == taps.end()) {
                    return kAudioHardwareBadObjectError;
                }
                aggregate->tapID = tap->first;
                aggregate->tapDescription = tap->second.description;
                aggregate->inputs = tap->second.channels;
            }
        }
        if (aggregate->outputs.size() > 128 || aggregate->inputs.size() > 128) {
            return kAudioHardwareUnsupportedOperationError;
        }
        aggregate->id = nextAggregate++;
        OSStatus status = createFilterLocked(*aggregate);
        if (status != kAudioHardwareNoError) {
            return status;
        }
        if (aggregate->tapID != 0) {
            taps[aggregate->tapID].aggregates += 1;
        }
        *deviceID = aggregate->id;
        aggregates[aggregate->id] = std::move(aggregate);
        return kAudioHardwareNoError;
    }

    static void* dspBuffer(void* port, std::uint32_t frames) {
        return pw_filter_get_dsp_buffer(port, frames);
    }

    static void onFilterProcess(void* data, spa_io_position* position) {
        auto* aggregate = static_cast<Aggregate*>(data);
        if (position == nullptr) {
            return;
        }
        aggregate->cycle->process(position->clock.duration, position->clock.nsec, &dspBuffer);
    }

    static void onFilterState(void* data, pw_filter_state /*old*/, pw_filter_state state,
                              const char* error) {
        auto* aggregate = static_cast<Aggregate*>(data);
        aggregate->filterState = state;
        if (error != nullptr) {
            aggregate->filterError = error;
        }
        pw_thread_loop_signal(aggregate->impl->loop, false);
    }

    OSStatus createFilterLocked(Aggregate& aggregate) {
        bool isMeter = aggregate.outputs.empty();
        // No node.latency: the filter follows whatever quantum the graph runs at, so
        // starting or stopping it never makes other streams re-buffer.
        pw_properties* props =
            pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY,
                              isMeter ? "Capture" : "Filter", PW_KEY_MEDIA_ROLE, "DSP",
                              PW_KEY_NODE_NAME, aggregate.uid.c_str(), PW_KEY_NODE_DESCRIPTION,
                              aggregate.name.c_str(), PW_KEY_NODE_ALWAYS_PROCESS, "true", nullptr);
        if (isMeter) {
            pw_properties_set(props, PW_KEY_NODE_PASSIVE, "true");
        }
        aggregate.filter = pw_filter_new(core, aggregate.uid.c_str(), props);
        if (aggregate.filter == nullptr) {
            return kAudio_MemFullError;
        }
        static const pw_filter_events events = [] {
            pw_filter_events e{};
            e.version = PW_VERSION_FILTER_EVENTS;
            e.state_changed = &Impl::onFilterState;
            e.process = &Impl::onFilterProcess;
            return e;
        }();
        aggregate.cycle = std::make_unique<PipeWireRouterCycle>(
            static_cast<std::uint32_t>(aggregate.inputs.size()),
            static_cast<std::uint32_t>(aggregate.outputs.size()));
        pw_filter_add_listener(aggregate.filter, &aggregate.filterHook, &events, &aggregate);
        for (std::size_t i = 0; i < aggregate.inputs.size(); ++i) {
            std::string portName = inputPortName(aggregate, i);
            void* port = pw_filter_add_port(
                aggregate.filter, PW_DIRECTION_INPUT, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
                pw_properties_new(PW_KEY_FORMAT_DSP, "32 bit float mono audio", PW_KEY_PORT_NAME,
                                  portName.c_str(), PW_KEY_AUDIO_CHANNEL,
                                  aggregate.inputs[i].c_str(), nullptr),
                nullptr, 0);
            aggregate.cycle->setInputPort(static_cast<std::uint32_t>(i), port);
        }
        for (std::size_t i = 0; i < aggregate.outputs.size(); ++i) {
            std::string portName = outputPortName(aggregate, i);
            void* port = pw_filter_add_port(
                aggregate.filter, PW_DIRECTION_OUTPUT, PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0,
                pw_properties_new(PW_KEY_FORMAT_DSP, "32 bit float mono audio", PW_KEY_PORT_NAME,
                                  portName.c_str(), PW_KEY_AUDIO_CHANNEL,
                                  aggregate.outputs[i].channel.c_str(), nullptr),
                nullptr, 0);
            aggregate.cycle->setOutputPort(static_cast<std::uint32_t>(i), port);
        }
        return kAudioHardwareNoError;
    }

    static std::string inputPortName(const Aggregate& aggregate, std::size_t index) {
        return "in_" + std::to_string(index) + "_" + aggregate.inputs[index];
    }

    static std::string outputPortName(const Aggregate& aggregate, std::size_t index) {
        return "out_" + std::to_string(index) + "_" + aggregate.outputs[index].member + "_" +
               aggregate.outputs[index].channel;
    }

    void destroyFilterLocked(Aggregate& aggregate) {
        if (aggregate.filter != nullptr) {
            spa_hook_remove(&aggregate.filterHook);
            pw_filter_destroy(aggregate.filter);
            aggregate.filter = nullptr;
        }
    }

    OSStatus destroyAggregate(AudioObjectID deviceID) {
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        auto found = aggregates.find(deviceID);
        if (found == aggregates.end()) {
            return kAudioHardwareBadDeviceError;
        }
        stopAggregate(*found->second);
        if (auto tap = taps.find(found->second->tapID); tap != taps.end()) {
            tap->second.aggregates -= 1;
        }
        Lock lock(loop);
        destroyFilterLocked(*found->second);
        aggregates.erase(found);
        return kAudioHardwareNoError;
    }

    Aggregate* aggregateWithProc(AudioObjectID device, AudioDeviceIOProcID procID,
                                 OSStatus* status) {
        if (service.load() != Service::up) {
            *status = kAudioHardwareNotRunningError;
            return nullptr;
        }
        auto found = aggregates.find(device);
        if (found == aggregates.end()) {
            *status = nodeOfDeviceObject(device) ? kAudioHardwareUnsupportedOperationError
                                                 : kAudioHardwareBadDeviceError;
            return nullptr;
        }
        if (procID == nullptr ||
            reinterpret_cast<std::uintptr_t>(procID) != found->second->procToken) {
            *status = kAudioHardwareIllegalOperationError;
            return nullptr;
        }
        *status = kAudioHardwareNoError;
        return found->second.get();
    }

    OSStatus createIOProc(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                          AudioDeviceIOProcID* procID) {
        if (procID == nullptr || proc == nullptr) {
            return kAudio_ParamError;
        }
        *procID = nullptr;
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        auto found = aggregates.find(device);
        if (found == aggregates.end()) {
            // Only Brightmix's own filter nodes run code in the graph.
            return nodeOfDeviceObject(device) ? kAudioHardwareUnsupportedOperationError
                                              : kAudioHardwareBadDeviceError;
        }
        Aggregate& aggregate = *found->second;
        if (aggregate.procToken != 0) {
            // One IOProc per filter node.
            return kAudioHardwareUnsupportedOperationError;
        }
        aggregate.cycle->setIOProc(device, proc, clientData);
        aggregate.procToken = nextProcToken++;
        *procID = reinterpret_cast<AudioDeviceIOProcID>(aggregate.procToken);
        return kAudioHardwareNoError;
    }

    OSStatus destroyIOProc(AudioObjectID device, AudioDeviceIOProcID procID) {
        OSStatus status;
        Aggregate* aggregate = aggregateWithProc(device, procID, &status);
        if (aggregate == nullptr) {
            return status;
        }
        stopAggregate(*aggregate);
        aggregate->cycle->setIOProc(device, nullptr, nullptr);
        aggregate->procToken = 0;
        return kAudioHardwareNoError;
    }

    OSStatus startAggregate(AudioObjectID device, AudioDeviceIOProcID procID) {
        OSStatus status;
        Aggregate* aggregate = aggregateWithProc(device, procID, &status);
        if (aggregate == nullptr) {
            return status;
        }
        if (aggregate->isStarted) {
            return kAudioHardwareNoError;
        }
        status = startLinks(*aggregate);
        if (status != kAudioHardwareNoError) {
            stopAggregate(*aggregate);
        }
        return status;
    }

    OSStatus startLinks(Aggregate& aggregate) {
        Lock lock(loop);
        // Under the lock, so that a loss cannot slip in between the check and the start and
        // leave a cycle running after the generation changed.
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        aggregate.isStarted = true;
        aggregate.cycle->start();
        aggregate.filterError.clear();
        if (pw_filter_connect(aggregate.filter, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0) < 0) {
            return kAudioHardwareUnspecifiedError;
        }
        std::uint32_t nodeID = SPA_ID_INVALID;
        bool isReady = waitLocked([&] {
            if (aggregate.filterState == PW_FILTER_STATE_ERROR) {
                return true;
            }
            nodeID = pw_filter_get_node_id(aggregate.filter);
            return nodeID != SPA_ID_INVALID &&
                   (aggregate.filterState == PW_FILTER_STATE_PAUSED ||
                    aggregate.filterState == PW_FILTER_STATE_STREAMING) &&
                   graph.portsOf(nodeID, true, false).size() +
                           graph.portsOf(nodeID, false, false).size() >=
                       aggregate.inputs.size() + aggregate.outputs.size();
        });
        if (!isReady || aggregate.filterState == PW_FILTER_STATE_ERROR) {
            return kAudioHardwareNotReadyError;
        }
        std::string self = std::to_string(nodeID);

        // A member that went away since the aggregate was made cannot be played to.
        for (const std::string& member : aggregate.members) {
            if (graph.nodeNamed(member) == nullptr) {
                return kAudioHardwareBadDeviceError;
            }
        }
        // Inputs: the tap's source.
        std::vector<std::string> mutes;
        if (auto tap = taps.find(aggregate.tapID); tap != taps.end()) {
            const TapDescription& description = tap->second.description;
            if (description.kind == TapDescription::Kind::excludingProcessesOnDeviceStream) {
                const GraphNode* sink = graph.nodeNamed(description.deviceUID);
                if (sink == nullptr) {
                    return kAudioHardwareBadDeviceError;
                }
                auto monitors = graph.portsOf(sink->id, true, true);
                for (std::size_t i = 0; i < aggregate.inputs.size() && i < monitors.size(); ++i) {
                    makeLinkLocked(aggregate, std::to_string(sink->id),
                                   std::string(propertyOf(monitors[i]->properties, "port.name")),
                                   self, inputPortName(aggregate, i), false);
                }
                if (description.muteBehavior == kCATapMutedWhenTapped) {
                    mutes.push_back(description.deviceUID);
                }
            } else {
                linkStreamsLocked(aggregate, self, &mutes);
                streamTapped.push_back(&aggregate);
            }
        }
        // Outputs: each member's playback ports, in member order.
        for (std::size_t i = 0; i < aggregate.outputs.size(); ++i) {
            const OutputPort& port = aggregate.outputs[i];
            const GraphNode* member = graph.nodeNamed(port.member);
            if (member == nullptr) {
                return kAudioHardwareBadDeviceError;
            }
            makeLinkLocked(aggregate, self, outputPortName(aggregate, i),
                           std::to_string(member->id), port.port, false);
        }
        bool isLinked = waitLocked([&] {
            for (const auto& link : aggregate.links) {
                if (link->isFailed || link->state == PW_LINK_STATE_ERROR) {
                    return true;
                }
                if (link->state != PW_LINK_STATE_ACTIVE) {
                    return false;
                }
            }
            return true;
        });
        for (const auto& link : aggregate.links) {
            if (link->isFailed || link->state == PW_LINK_STATE_ERROR) {
                return kAudioHardwareIllegalOperationError;
            }
        }
        if (!isLinked) {
            return kAudioHardwareNotReadyError;
        }
        for (const std::string& sink : mutes) {
            OSStatus status = muteForRouterLocked(aggregate, sink);
            if (status != kAudioHardwareNoError) {
                return status;
            }
        }
        return kAudioHardwareNoError;
    }

    // Whether a playback stream belongs to what a global or per-app tap covers.
    bool isTappedStream(const TapDescription& description, const GraphNode& stream) const {
        if (propertyOf(stream.properties, "media.class") != "Stream/Output/Audio") {
            return false;
        }
        auto clientID = parseUnsigned(propertyOf(stream.properties, "client.id"));
        auto client = clientID ? graph.clients.find(*clientID) : graph.clients.end();
        if (client == graph.clients.end() ||
            propertyOf(client->second.properties, "core.daemon") == "true") {
            return false;
        }
        auto pid = processIDOfClient(client->second.properties);
        if (!pid) {
            return false;
        }
        bool isListed = false;
        for (AudioObjectID process : description.processes) {
            isListed = isListed || pidOfProcessObject(process) == pid;
        }
        if (description.kind == TapDescription::Kind::stereoMixdownOfProcesses) {
            return isListed;
        }
        return !isListed && *pid != ::getpid();
    }

    // Fan-out links from one stream port into the filter's two inputs. They are passive,
    // so they never keep a stream running on their own.
    void linkStreamPortLocked(Aggregate& aggregate, const GraphNode& stream, const GraphPort& port,
                              std::size_t index, const std::string& self) {
        if (std::find(aggregate.linkedStreamPorts.begin(), aggregate.linkedStreamPorts.end(),
                      port.id) != aggregate.linkedStreamPorts.end()) {
            return;
        }
        aggregate.linkedStreamPorts.push_back(port.id);
        auto position = propertyOf(port.properties, "audio.channel");
        for (int target : stereoMixdownTargets(position, index)) {
            makeLinkLocked(aggregate, std::to_string(stream.id),
                           std::string(propertyOf(port.properties, "port.name")), self,
                           inputPortName(aggregate, std::size_t(target)), true);
        }
    }

    void linkStreamsLocked(Aggregate& aggregate, const std::string& self,
                           std::vector<std::string>* mutes) {
        const TapDescription& description = *aggregate.tapDescription;
        // A global tap silences the multi-output sinks its streams play to: the default
        // one, which streams that start later will play to, and any that already plays.
        if (description.muteBehavior == kCATapMutedWhenTapped) {
            auto name = graph.defaultSinkName();
            const GraphNode* sink = name ? graph.nodeNamed(*name) : nullptr;
            if (sink != nullptr && graph.isMultiOutput(*sink)) {
                mutes->push_back(*name);
            }
        }
        for (const auto& [id, stream] : graph.nodes) {
            if (!isTappedStream(description, stream)) {
                continue;
            }
            auto ports = graph.portsOf(id, true, false);
            for (std::size_t k = 0; k < ports.size(); ++k) {
                linkStreamPortLocked(aggregate, stream, *ports[k], k, self);
            }
            if (description.muteBehavior == kCATapMutedWhenTapped) {
                for (std::uint32_t downstream : graph.downstreamOf(id)) {
                    const GraphNode* sink = graph.node(downstream);
                    if (sink != nullptr && graph.isMultiOutput(*sink)) {
                        std::string name(propertyOf(sink->properties, "node.name"));
                        if (std::find(mutes->begin(), mutes->end(), name) == mutes->end()) {
                            mutes->push_back(name);
                        }
                    }
                }
            }
        }
    }

    // A stream that starts while the tap runs joins it (loop thread, lock held).
    void linkNewStreamPortLocked(Aggregate& aggregate, const GraphPort& port) {
        if (propertyOf(port.properties, "port.direction") != "out" ||
            propertyOf(port.properties, "port.monitor") == "true" || aggregate.filter == nullptr) {
            return;
        }
        auto nodeID = parseUnsigned(propertyOf(port.properties, "node.id"));
        const GraphNode* stream = nodeID ? graph.node(*nodeID) : nullptr;
        std::uint32_t self = pw_filter_get_node_id(aggregate.filter);
        if (stream == nullptr || self == SPA_ID_INVALID ||
            !isTappedStream(*aggregate.tapDescription, *stream)) {
            return;
        }
        auto ports = graph.portsOf(stream->id, true, false);
        auto index =
            static_cast<std::size_t>(std::find(ports.begin(), ports.end(), &port) - ports.begin());
        linkStreamPortLocked(aggregate, *stream, port, index, std::to_string(self));
    }

    static void onLinkInfo(void* data, const pw_link_info* info) {
        auto* link = static_cast<OwnedLink*>(data);
        if (info != nullptr && (info->change_mask & PW_LINK_CHANGE_MASK_STATE)) {
            link->state = info->state;
            if (info->state == PW_LINK_STATE_ERROR && info->error != nullptr) {
                link->error = info->error;
            }
        }
        pw_thread_loop_signal(link->impl->loop, false);
    }

    static void onLinkProxyError(void* data, int /*seq*/, int res, const char* message) {
        auto* link = static_cast<OwnedLink*>(data);
        link->isFailed = true;
        link->error = message != nullptr ? message : spa_strerror(res);
        pw_thread_loop_signal(link->impl->loop, false);
    }

    void makeLinkLocked(Aggregate& aggregate, const std::string& outputNode,
                        const std::string& outputPort, const std::string& inputNode,
                        const std::string& inputPort, bool passive) {
        pw_properties* props = pw_properties_new(
            PW_KEY_LINK_OUTPUT_NODE, outputNode.c_str(), PW_KEY_LINK_OUTPUT_PORT,
            outputPort.c_str(), PW_KEY_LINK_INPUT_NODE, inputNode.c_str(), PW_KEY_LINK_INPUT_PORT,
            inputPort.c_str(), PW_KEY_OBJECT_LINGER, "false", nullptr);
        if (passive) {
            pw_properties_set(props, PW_KEY_LINK_PASSIVE, "true");
        }
        auto* proxy = static_cast<pw_proxy*>(pw_core_create_object(
            core, "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &props->dict, 0));
        pw_properties_free(props);
        auto link = std::make_unique<OwnedLink>();
        link->impl = this;
        link->proxy = proxy;
        if (proxy == nullptr) {
            link->isFailed = true;
            link->error = "the link could not be requested";
        } else {
            static const pw_link_events events = [] {
                pw_link_events e{};
                e.version = PW_VERSION_LINK_EVENTS;
                e.info = &Impl::onLinkInfo;
                return e;
            }();
            static const pw_proxy_events proxyEvents = [] {
                pw_proxy_events e{};
                e.version = PW_VERSION_PROXY_EVENTS;
                e.error = &Impl::onLinkProxyError;
                return e;
            }();
            pw_proxy_add_object_listener(proxy, &link->hook, &events, link.get());
            pw_proxy_add_listener(proxy, &link->proxyHook, &proxyEvents, link.get());
            linksByProxyID[static_cast<int>(pw_proxy_get_id(proxy))] = link.get();
        }
        aggregate.links.push_back(std::move(link));
    }

    OSStatus muteForRouterLocked(Aggregate& aggregate, const std::string& sink) {
        if (service.load() != Service::up) {
            return kAudioHardwareNotRunningError;
        }
        const GraphNode* node = graph.nodeNamed(sink);
        if (node == nullptr) {
            return kAudioHardwareBadDeviceError;
        }
        if (node->mute.value_or(false)) {
            // Already silent: nothing of ours to restore later.
            return kAudioHardwareNoError;
        }
        MuteRecord record{::getpid(), sink};
        // The record goes first: whatever happens after this, the next start can repair.
        addMuteRecord(recordPath, record);
        RouterMute mute{sink, std::nullopt};
        if (!options.watchdogExecutable.empty()) {
            std::string error;
            mute.watchdog =
                MuteWatchdog::arm(options.watchdogExecutable, record, recordPath, &error);
            if (!mute.watchdog) {
                removeMuteRecord(recordPath, record);
                return kAudioHardwareIllegalOperationError;
            }
        }
        const std::uint32_t nodeID = node->id;
        aggregate.mutes.push_back(std::move(mute));
        return setProps(nodeID, true, {});
    }

    // Lock held.
    void releaseLinksLocked(Aggregate& aggregate) {
        streamTapped.erase(std::remove(streamTapped.begin(), streamTapped.end(), &aggregate),
                           streamTapped.end());
        aggregate.linkedStreamPorts.clear();
        for (auto& link : aggregate.links) {
            if (link->proxy != nullptr) {
                linksByProxyID.erase(static_cast<int>(pw_proxy_get_id(link->proxy)));
                spa_hook_remove(&link->hook);
                spa_hook_remove(&link->proxyHook);
                pw_proxy_destroy(link->proxy);
            }
        }
        aggregate.links.clear();
    }

    void stopAggregate(Aggregate& aggregate) {
        if (!aggregate.isStarted) {
            return;
        }
        // No IOProc call after this returns, so its client data may go.
        aggregate.cycle->stop();
        Lock lock(loop);
        releaseLinksLocked(aggregate);
        syncLocked();
        // The router's path is gone before the direct one comes back: a short gap rather
        // than a moment of doubled sound. Taken out first: the loss handler empties the
        // list while a wait below lets it run.
        std::vector<RouterMute> mutes = std::move(aggregate.mutes);
        aggregate.mutes.clear();
        for (RouterMute& mute : mutes) {
            if (const GraphNode* node = graph.nodeNamed(mute.sink)) {
                setProps(node->id, false, {});
            }
            if (isDisconnected) {
                // The server went away before it confirmed: repaired after reconnecting.
                orphanedMutes.push_back(std::move(mute));
                continue;
            }
            removeMuteRecord(recordPath, MuteRecord{::getpid(), mute.sink});
            if (mute.watchdog) {
                mute.watchdog->disarm();
            }
        }
        if (aggregate.filter != nullptr) {
            pw_filter_disconnect(aggregate.filter);
        }
        aggregate.filterState = PW_FILTER_STATE_UNCONNECTED;
        aggregate.isStarted = false;
    }

    OSStatus stopAggregateWithProc(AudioObjectID device, AudioDeviceIOProcID procID) {
        OSStatus status;
        Aggregate* aggregate = aggregateWithProc(device, procID, &status);
        if (aggregate == nullptr) {
            return status;
        }
        stopAggregate(*aggregate);
        return kAudioHardwareNoError;
    }
};

// --- the public face -------------------------------------------------------------------

std::unique_ptr<PipeWireAudioHardware> PipeWireAudioHardware::connect(const Options& options,
                                                                      std::string* error) {
    auto impl = std::make_unique<Impl>();
    impl->options = options;
    std::string reason;
    if (!impl->start(&reason)) {
        if (error != nullptr) {
            *error = reason;
        }
        return nullptr;
    }
    return std::unique_ptr<PipeWireAudioHardware>(new PipeWireAudioHardware(std::move(impl)));
}

PipeWireAudioHardware::PipeWireAudioHardware(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

PipeWireAudioHardware::~PipeWireAudioHardware() = default;

std::uint64_t PipeWireAudioHardware::serviceGeneration() const {
    return impl_->generation.load();
}

bool PipeWireAudioHardware::isServiceAvailable() {
    return impl_->isServiceAvailable();
}

std::int32_t PipeWireAudioHardware::currentProcessID() const {
    return ::getpid();
}

bool PipeWireAudioHardware::hasProperty(AudioObjectID object,
                                        const AudioObjectPropertyAddress& address) {
    Impl::Lock lock(impl_->loop);
    std::int32_t pid = ::getpid();
    Answer answer = impl_->answer(object, address, sizeof(pid), &pid);
    return answer.status != kAudioHardwareUnknownPropertyError &&
           answer.status != kAudioHardwareBadObjectError &&
           answer.status != kAudioHardwareNotRunningError;
}

OSStatus PipeWireAudioHardware::isPropertySettable(AudioObjectID object,
                                                   const AudioObjectPropertyAddress& address,
                                                   bool* isSettable) {
    if (isSettable == nullptr) {
        return kAudio_ParamError;
    }
    Impl::Lock lock(impl_->loop);
    std::int32_t pid = ::getpid();
    Answer answer = impl_->answer(object, address, sizeof(pid), &pid);
    if (answer.status == kAudioHardwareUnknownPropertyError ||
        answer.status == kAudioHardwareBadObjectError ||
        answer.status == kAudioHardwareNotRunningError) {
        return answer.status;
    }
    *isSettable = answer.isSettable;
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::getPropertyDataSize(AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    UInt32 qualifierDataSize,
                                                    const void* qualifierData, UInt32* dataSize) {
    if (dataSize == nullptr) {
        return kAudio_ParamError;
    }
    Impl::Lock lock(impl_->loop);
    Answer answer = impl_->answer(object, address, qualifierDataSize, qualifierData);
    if (answer.status != kAudioHardwareNoError) {
        return answer.status;
    }
    // CF-typed values travel as one reference in Core Audio.
    *dataSize = answer.value ? UInt32(sizeof(void*)) : UInt32(answer.bytes.size());
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::getPropertyData(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                UInt32 qualifierDataSize, const void* qualifierData,
                                                UInt32* ioDataSize, void* data) {
    // An empty buffer may come without an address: an empty list fits into it.
    if (ioDataSize == nullptr || (data == nullptr && *ioDataSize != 0)) {
        return kAudio_ParamError;
    }
    Impl::Lock lock(impl_->loop);
    Answer answer = impl_->answer(object, address, qualifierDataSize, qualifierData);
    if (answer.status != kAudioHardwareNoError) {
        return answer.status;
    }
    if (answer.value) {
        // There are no CF references here: such values are read with getPropertyValue.
        return kAudioHardwareUnsupportedOperationError;
    }
    if (*ioDataSize < answer.bytes.size()) {
        if (!answer.isVariableSize) {
            return kAudioHardwareBadPropertySizeError;
        }
        // Lists hand out as many whole entries as fit.
        std::size_t entry = address.mSelector == kAudioDevicePropertyStreamConfiguration
                                ? sizeof(AudioBuffer)
                                : sizeof(AudioObjectID);
        std::size_t header = address.mSelector == kAudioDevicePropertyStreamConfiguration
                                 ? offsetof(AudioBufferList, mBuffers)
                                 : 0;
        if (*ioDataSize < header) {
            return kAudioHardwareBadPropertySizeError;
        }
        std::size_t fitting = header + (*ioDataSize - header) / entry * entry;
        answer.bytes.resize(fitting);
        if (header != 0) {
            auto count = static_cast<UInt32>((fitting - header) / entry);
            std::memcpy(answer.bytes.data(), &count, sizeof(count));
        }
    }
    if (!answer.bytes.empty()) {
        std::memcpy(data, answer.bytes.data(), answer.bytes.size());
    }
    *ioDataSize = static_cast<UInt32>(answer.bytes.size());
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::setPropertyData(AudioObjectID object,
                                                const AudioObjectPropertyAddress& address,
                                                UInt32 /*qualifierDataSize*/,
                                                const void* /*qualifierData*/, UInt32 dataSize,
                                                const void* data) {
    if (data == nullptr) {
        return kAudio_ParamError;
    }
    Answer answer;
    {
        Impl::Lock lock(impl_->loop);
        answer = impl_->answer(object, address, 0, nullptr);
    }
    if (answer.status == kAudioHardwareUnknownPropertyError ||
        answer.status == kAudioHardwareBadObjectError ||
        answer.status == kAudioHardwareNotRunningError) {
        return answer.status;
    }
    if (!answer.isSettable) {
        // Read-only here, or something PipeWire cannot change (a sample rate, members).
        return kAudioHardwareUnsupportedOperationError;
    }
    if (object == kAudioObjectSystemObject &&
        (address.mSelector == kAudioHardwarePropertyDefaultOutputDevice ||
         address.mSelector == kAudioHardwarePropertyDefaultInputDevice)) {
        if (dataSize != sizeof(AudioObjectID)) {
            return kAudioHardwareBadPropertySizeError;
        }
        AudioObjectID device = 0;
        std::memcpy(&device, data, sizeof(device));
        return impl_->setDefault(address.mSelector == kAudioHardwarePropertyDefaultOutputDevice,
                                 device);
    }
    if (address.mSelector == kAudioDevicePropertyVolumeScalar) {
        if (dataSize != sizeof(Float32)) {
            return kAudioHardwareBadPropertySizeError;
        }
        Float32 scalar = 0;
        std::memcpy(&scalar, data, sizeof(scalar));
        return impl_->setVolume(object, address, scalar);
    }
    return kAudioHardwareUnsupportedOperationError;
}

OSStatus PipeWireAudioHardware::getPropertyValue(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 PropertyList* value) {
    if (value == nullptr) {
        return kAudio_ParamError;
    }
    Impl::Lock lock(impl_->loop);
    Answer answer = impl_->answer(object, address, 0, nullptr);
    if (answer.status != kAudioHardwareNoError) {
        return answer.status;
    }
    if (!answer.value) {
        // A plain value: read it with getPropertyData.
        return kAudioHardwareUnsupportedOperationError;
    }
    *value = std::move(*answer.value);
    return kAudioHardwareNoError;
}

OSStatus PipeWireAudioHardware::setPropertyValue(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 const PropertyList& /*value*/) {
    Impl::Lock lock(impl_->loop);
    Answer answer = impl_->answer(object, address, 0, nullptr);
    if (answer.status == kAudioHardwareUnknownPropertyError ||
        answer.status == kAudioHardwareBadObjectError ||
        answer.status == kAudioHardwareNotRunningError) {
        return answer.status;
    }
    // Names, UIDs and a multi-output sink's members come from the session's configuration
    // (its combine rules), which a client cannot rewrite.
    return kAudioHardwareUnsupportedOperationError;
}

OSStatus PipeWireAudioHardware::createProcessTap(const TapDescription& description,
                                                 AudioObjectID* tapID) {
    return impl_->createTap(description, tapID);
}

OSStatus PipeWireAudioHardware::destroyProcessTap(AudioObjectID tapID) {
    return impl_->destroyTap(tapID);
}

OSStatus PipeWireAudioHardware::createAggregateDevice(const PropertyList& description,
                                                      AudioObjectID* deviceID) {
    return impl_->createAggregate(description, deviceID);
}

OSStatus PipeWireAudioHardware::destroyAggregateDevice(AudioObjectID deviceID) {
    return impl_->destroyAggregate(deviceID);
}

OSStatus PipeWireAudioHardware::createIOProcID(AudioObjectID device, AudioDeviceIOProc proc,
                                               void* clientData, AudioDeviceIOProcID* procID) {
    return impl_->createIOProc(device, proc, clientData, procID);
}

OSStatus PipeWireAudioHardware::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    return impl_->destroyIOProc(device, procID);
}

OSStatus PipeWireAudioHardware::startDevice(AudioObjectID device, AudioDeviceIOProcID procID) {
    return impl_->startAggregate(device, procID);
}

OSStatus PipeWireAudioHardware::stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) {
    return impl_->stopAggregateWithProc(device, procID);
}

PipeWireGraph PipeWireAudioHardware::snapshot() const {
    Impl::Lock lock(impl_->loop);
    return impl_->graph;
}

bool PipeWireAudioHardware::synchronize() {
    Impl::Lock lock(impl_->loop);
    return impl_->service.load() == Impl::Service::up && impl_->syncLocked();
}

bool PipeWireAudioHardware::isConnected() const {
    return impl_->service.load() == Impl::Service::up;
}

bool PipeWireAudioHardware::waitForSession(double seconds) {
    const auto deadline = Impl::Clock::now() + std::chrono::duration_cast<Impl::Clock::duration>(
                                                   std::chrono::duration<double>(seconds));
    while (true) {
        {
            Impl::Lock lock(impl_->loop);
            if (impl_->service.load() != Impl::Service::up || !impl_->syncLocked()) {
                return false;
            }
            if (impl_->isSessionConfiguredLocked()) {
                return true;
            }
        }
        if (Impl::Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::optional<bool> PipeWireAudioHardware::sinkMute(std::string_view nodeName) const {
    Impl::Lock lock(impl_->loop);
    if (impl_->service.load() != Impl::Service::up) {
        return std::nullopt;
    }
    const GraphNode* node = impl_->graph.nodeNamed(nodeName);
    return node != nullptr ? node->mute : std::nullopt;
}

OSStatus PipeWireAudioHardware::setSinkMute(std::string_view nodeName, bool mute) {
    return impl_->setMute(nodeName, mute);
}

std::vector<std::string> PipeWireAudioHardware::repairLeftoverMutes() {
    return impl_->repairRecords(true);
}

const std::string& PipeWireAudioHardware::muteRecordPath() const {
    return impl_->recordPath;
}

std::uint32_t PipeWireAudioHardware::lastRouterQuantum(AudioObjectID aggregate) const {
    auto found = impl_->aggregates.find(aggregate);
    return found != impl_->aggregates.end() ? found->second->cycle->lastFrames() : 0;
}

} // namespace brightmix::pipewire
