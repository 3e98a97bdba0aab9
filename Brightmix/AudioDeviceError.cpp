// AudioDeviceError: construction, the readable description and the status text.
#include "Brightmix/AudioDeviceError.h"

#include <utility>

namespace brightmix {

AudioDeviceError::AudioDeviceError(Kind kind, std::string text, OSStatus status)
    : kind_(kind), text_(std::move(text)), status_(status) {
    description_ =
        kind_ == Kind::coreAudio ? text_ + " failed (" + statusText(status_) + ")." : text_;
}

AudioDeviceError AudioDeviceError::coreAudio(std::string operation, OSStatus status) {
    return AudioDeviceError(Kind::coreAudio, std::move(operation), status);
}

AudioDeviceError AudioDeviceError::unavailable(std::string message) {
    return AudioDeviceError(Kind::unavailable, std::move(message), 0);
}

std::string AudioDeviceError::statusText(OSStatus status) {
    const auto bits = static_cast<std::uint32_t>(status);
    std::string characters;
    bool isAscii = true;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto byte = static_cast<unsigned char>((bits >> shift) & 0xFF);
        if (byte >= 128) isAscii = false;
        characters += static_cast<char>(byte);
    }
    // Deliberately no printability test: control bytes are kept as they are, so that a
    // status always reads back to the same four bytes.
    if (isAscii) return "'" + characters + "'";
    return std::to_string(status);
}

void throwIfError(OSStatus status, std::string_view operation) {
    if (status != 0) throw AudioDeviceError::coreAudio(std::string(operation), status);
}

} // namespace brightmix
