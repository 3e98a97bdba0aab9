// What the router's process tap captures.
//
// Thread: any (a plain value). Realtime-safe: yes.
#pragma once

#include <cstdint>
#include <string_view>

namespace brightmix {

enum class AudioCaptureMode : std::uint8_t {
    // Only what is played to the selected device.
    selectedDevice = 0,
    // A stereo mixdown of all system output: the fallback when the per-device tap stays
    // silent.
    compatibilityGlobal = 1,
};

// The case name, as diagnostics show it.
constexpr std::string_view name(AudioCaptureMode mode) {
    return mode == AudioCaptureMode::compatibilityGlobal ? "compatibilityGlobal" : "selectedDevice";
}

} // namespace brightmix
