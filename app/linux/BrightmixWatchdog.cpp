// brightmix-watchdog: restores a multi-output sink that Brightmix muted while routing, if
// Brightmix dies before it can do so itself. Brightmix starts it just before the mute, in a
// session of its own, with the read end of a pipe as descriptor 3:
//
//   brightmix-watchdog restore-mute NODE-NAME RECORD-FILE OWNER-PID
//
// A clean stop writes one byte and this program leaves at once. If the pipe closes
// without that byte, the owner is gone: the sink is unmuted and the mute record cleared,
// within a few milliseconds of the owner's death.
//
// The owner may also hand the sink over on purpose: when the audio server went away under
// it and it ends before the server is back, it closes the pipe the same way. So the server
// may be restarting when this program starts working: it keeps trying for a while, waits
// until the session manager has configured the new graph (which may bring the sink back
// muted from its saved state), and leaves the sink alone if another live Brightmix has
// muted it since.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "platform/linux/pipewire/PipeWireAudioHardware.h"
#include "platform/linux/pipewire/PipeWireMuteGuard.h"

using namespace brightmix;
using namespace brightmix::pipewire;

int main(int argc, char** argv) {
    if (argc != 5 || std::strcmp(argv[1], "restore-mute") != 0) {
        std::fprintf(stderr,
                     "usage: %s restore-mute NODE-NAME RECORD-FILE OWNER-PID\n"
                     "Started by Brightmix; not meant to be run by hand.\n",
                     argv[0]);
        return 2;
    }
    const std::string node = argv[2];
    const std::string recordPath = argv[3];
    const auto owner = static_cast<std::int32_t>(std::strtol(argv[4], nullptr, 10));

    if (waitForOwner(3)) {
        return 0;
    }

    PipeWireAudioHardware::Options options;
    options.clientName = "Brightmix watchdog";
    options.muteRecordPath = recordPath;
    options.timeoutSeconds = 0.5;
    // A restarted server answers within a second or two; one that stays away longer leaves
    // the record for the next start of Brightmix to repair.
    constexpr int kAttempts = 120;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        std::string error;
        auto hardware = PipeWireAudioHardware::connect(options, &error);
        if (hardware) {
            hardware->waitForSession(2.0);
            OSStatus status = 0;
            if (!isMutedByAnotherOwner(recordPath, node, owner)) {
                auto mute = hardware->sinkMute(node);
                status = mute.value_or(false) ? hardware->setSinkMute(node, false) : 0;
            }
            if (status == 0) {
                removeMuteRecord(recordPath, MuteRecord{owner, node});
                return 0;
            }
            std::fprintf(stderr, "brightmix-watchdog: unmuting %s failed (%d)\n", node.c_str(),
                         static_cast<int>(status));
        } else if (attempt == kAttempts - 1) {
            std::fprintf(stderr, "brightmix-watchdog: %s\n", error.c_str());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    // The record stays, so the next start of Brightmix repairs the sink.
    return 1;
}
