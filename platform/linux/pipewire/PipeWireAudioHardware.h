// The audio hardware of a Linux machine, over PipeWire, in Core Audio's vocabulary:
//
// - devices are sink and source nodes: UID = node.name, name = node.description, channels
//   = ports (one buffer per port in 'slay'), a combine-stream sink is a multi-output device
//   whose sub-devices are its member sinks;
// - the default output and input are the "default" metadata (written through
//   default.configured.audio.sink / .source, which the session manager follows);
// - processes are clients grouped by process ID; the bundle ID is a stable Linux identity
//   (see linuxIdentityOfClient);
// - a tap of one device is its monitor ports, and "muted while tapped" mutes that sink for
//   as long as an aggregate reading the tap runs (crash-safe, see PipeWireMuteGuard.h); a
//   global or per-app tap is a set of passive fan-out links from playback streams;
// - an aggregate device is a pw_filter with one input port per tap channel and one output
//   port per member playback port, in member order; its IOProc runs in the filter's
//   process callback, in the same graph cycle as every other node. The graph's quantum is
//   never forced.
//
// One connection runs on a pw_thread_loop and keeps a copy of the graph current; every
// call reads that copy under the loop's lock, so each read sees one consistent state.
//
// When the server goes away (it crashed or was restarted), the connection reports it on the
// loop's thread: every filter stops calling its IOProc, then the service generation goes up,
// and every call fails with 'stop'. isServiceAvailable() connects again (with a back-off) and
// answers true once the session manager has configured the new graph and the sinks this
// process had muted are audible again; everything from before is forgotten, never destroyed.
//
// Thread: control (the main thread) for every call; IOProcs run on PipeWire's real-time
// data thread. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/AudioHardware.h"
#include "platform/linux/pipewire/PipeWireGraph.h"

namespace brightmix::pipewire {

class PipeWireAudioHardware final : public AudioHardware {
public:
    struct Options {
        // How this program appears to PipeWire.
        std::string clientName = "Brightmix";
        // The watchdog that unmutes a sink if this process dies while routing; empty runs
        // without one (then only the start-up repair restores such a sink).
        std::string watchdogExecutable;
        // Where mute records live; empty means defaultMuteRecordPath().
        std::string muteRecordPath;
        // How long a call waits for the server (links to become active, the default to
        // change).
        double timeoutSeconds = 3.0;
    };

    // Connects to the session that the environment names (PIPEWIRE_RUNTIME_DIR,
    // XDG_RUNTIME_DIR, PIPEWIRE_REMOTE) and reads the whole graph once. None when no
    // server answers; `error` then says why.
    static std::unique_ptr<PipeWireAudioHardware> connect(const Options& options,
                                                          std::string* error);

    ~PipeWireAudioHardware() override;
    PipeWireAudioHardware(const PipeWireAudioHardware&) = delete;
    PipeWireAudioHardware& operator=(const PipeWireAudioHardware&) = delete;

    std::uint64_t serviceGeneration() const override;
    // Connects again after a loss, at most once per back-off step (0.25 s, 0.5 s, then every
    // second); true once the new session is configured and the mutes from before repaired.
    bool isServiceAvailable() override;

    std::int32_t currentProcessID() const override;
    bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) override;
    OSStatus isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                bool* isSettable) override;
    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 UInt32 qualifierDataSize, const void* qualifierData,
                                 UInt32* dataSize) override;
    OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 qualifierDataSize, const void* qualifierData,
                             UInt32* ioDataSize, void* data) override;
    OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                             UInt32 qualifierDataSize, const void* qualifierData, UInt32 dataSize,
                             const void* data) override;
    OSStatus getPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              PropertyList* value) override;
    OSStatus setPropertyValue(AudioObjectID object, const AudioObjectPropertyAddress& address,
                              const PropertyList& value) override;
    OSStatus createProcessTap(const TapDescription& description, AudioObjectID* tapID) override;
    OSStatus destroyProcessTap(AudioObjectID tapID) override;
    OSStatus createAggregateDevice(const PropertyList& description,
                                   AudioObjectID* deviceID) override;
    OSStatus destroyAggregateDevice(AudioObjectID deviceID) override;
    OSStatus createIOProcID(AudioObjectID device, AudioDeviceIOProc proc, void* clientData,
                            AudioDeviceIOProcID* procID) override;
    OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;
    OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID procID) override;

    // --- Linux only ------------------------------------------------------------------

    // A copy of the graph as the backend currently sees it.
    PipeWireGraph snapshot() const;
    // Waits until the server has answered everything asked so far, so that the copy
    // reflects it. False when the server did not answer in time.
    bool synchronize();
    // Whether the connection to the server stands and answers calls.
    bool isConnected() const;
    // Waits, at most `seconds`, until the session manager has configured the graph: the
    // default output chosen and every device node with its ports and its Props (a mute it
    // restores from its saved state is then in place). False when it did not in time or the
    // server is not there.
    bool waitForSession(double seconds);

    // Mute of a sink by node name: none when unknown.
    std::optional<bool> sinkMute(std::string_view nodeName) const;
    // Mutes or unmutes a sink and waits until the server reports it. 0, '!dev' for an
    // unknown node, 'nrdy' when the server did not confirm in time.
    OSStatus setSinkMute(std::string_view nodeName, bool mute);

    // Unmutes every sink that a mute record names whose owner is gone (this process counts
    // as gone: it calls this before it routes), and clears those records. Answers the node
    // names it restored.
    std::vector<std::string> repairLeftoverMutes();
    const std::string& muteRecordPath() const;

    // The graph's cycle: frames per quantum and rate, as the running router last saw them
    // (0 before it ran).
    std::uint32_t lastRouterQuantum(AudioObjectID aggregate) const;

    class Impl;

private:
    explicit PipeWireAudioHardware(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

} // namespace brightmix::pipewire
