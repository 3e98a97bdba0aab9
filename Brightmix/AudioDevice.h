// One audio device as the rest of the system sees it, keyed everywhere by its UID.
//
// Thread: any (a plain value). Realtime-safe: no.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "realtime/CoreAudioShapes.h"

namespace brightmix {

struct AudioDevice {
    AudioObjectID id = 0;
    std::string uid;
    std::string name;
    std::vector<std::string> subdeviceUIDs; // empty when the device has none
    std::optional<std::string> mainSubdeviceUID;
    std::int64_t inputChannels = 0;
    std::int64_t outputChannels = 0;
    bool supportsNativeVolume = false;
    UInt32 transportType = 0; // four-character code; 0 when unreadable

    // Two or more sub-devices: a multi-output device, the kind whose volume we provide.
    bool isMultiOutput() const { return subdeviceUIDs.size() >= 2; }

    friend bool operator==(const AudioDevice&, const AudioDevice&) = default;
};

// Hash over every field in order: arrays hash their count then each element, the optional
// a presence flag then its value.
struct AudioDeviceHash {
    std::size_t operator()(const AudioDevice& device) const;
};

} // namespace brightmix
