// AudioDevice hashing: every field in declaration order.
#include "Brightmix/AudioDevice.h"

#include <functional>

namespace brightmix {

namespace {

void combine(std::size_t& seed, std::size_t value) {
    seed ^= value + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2);
}

} // namespace

std::size_t AudioDeviceHash::operator()(const AudioDevice& device) const {
    std::size_t seed = 0;
    const std::hash<std::string> hashString;
    combine(seed, std::hash<AudioObjectID>{}(device.id));
    combine(seed, hashString(device.uid));
    combine(seed, hashString(device.name));
    combine(seed, std::hash<std::size_t>{}(device.subdeviceUIDs.size()));
    for (const auto& uid : device.subdeviceUIDs)
        combine(seed, hashString(uid));
    combine(seed, std::hash<bool>{}(device.mainSubdeviceUID.has_value()));
    if (device.mainSubdeviceUID) combine(seed, hashString(*device.mainSubdeviceUID));
    combine(seed, std::hash<std::int64_t>{}(device.inputChannels));
    combine(seed, std::hash<std::int64_t>{}(device.outputChannels));
    combine(seed, std::hash<bool>{}(device.supportsNativeVolume));
    combine(seed, std::hash<UInt32>{}(device.transportType));
    return seed;
}

} // namespace brightmix
