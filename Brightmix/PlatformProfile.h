// What the windows say and offer differently on each system: the name of the system that
// owns the volume keys when Brightmix does not, whether the keys need privacy permissions
// (then the set-up window, its callouts and the indicator option exist), the file manager's
// name, and the tool that configures multi-output devices.
//
// Thread: any (plain values). Realtime-safe: no.
#pragma once

#include <string>

namespace brightmix {

struct PlatformProfile {
    std::string systemName = "macOS";
    std::string computerName = "your Mac";
    bool hasKeyPermissions = true;
    std::string fileManagerName = "Finder";
    std::string soundSetupTitle = "Open Audio MIDI Setup";
    std::string soundSetupButton = "Audio MIDI Setup…";
    // The application the sound-setup entries open; empty: none is installed.
    std::string soundSetupPath = "/System/Applications/Utilities/Audio MIDI Setup.app";

    static PlatformProfile macOS() { return {}; }
    // `soundSetupPath`: a sound-settings program or PipeWire patchbay found on the system.
    static PlatformProfile linuxDesktop(std::string soundSetupPath) {
        PlatformProfile profile;
        profile.systemName = "the desktop";
        profile.computerName = "this computer";
        profile.hasKeyPermissions = false;
        profile.fileManagerName = "Files";
        profile.soundSetupTitle = "Open Sound Settings";
        profile.soundSetupButton = "Sound Settings…";
        profile.soundSetupPath = std::move(soundSetupPath);
        return profile;
    }
};

} // namespace brightmix
