// brightmix-watchdog: restores a multi-output sink that Brightmix muted while routing, if
// Brightmix dies before it can do so itself. Brightmix starts it just before the mute, in a
// session of its own, with the read end of a pipe as descriptor 3:
//
//   brightmix-watchdog restore-mute NODE-NAME RECORD-FILE OWNER-PID
//
// A clean stop writes one byte and this program leaves at once. If the pipe closes
// without that byte, the owner is gone: the sink is unmuted and the mute record cleared,
// within a few milliseconds of the owner's death.
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
    // The server may be restarting at the same moment; try for a few seconds.
    for (int attempt = 0; attempt < 20; ++attempt) {
        std::string error;
        auto hardware = PipeWireAudioHardware::connect(options, &error);
        if (hardware) {
            auto mute = hardware->sinkMute(node);
            OSStatus status = mute.value_or(false) ? hardware->setSinkMute(node, false) : 0;
            if (status == 0) {
                removeMuteRecord(recordPath, MuteRecord{owner, node});
                return 0;
            }
            std::fprintf(stderr, "brightmix-watchdog: unmuting %s failed (%d)\n", node.c_str(),
                         static_cast<int>(status));
        } else if (attempt == 19) {
            std::fprintf(stderr, "brightmix-watchdog: %s\n", error.c_str());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    // The record stays, so the next start of Brightmix repairs the sink.
    return 1;
}
