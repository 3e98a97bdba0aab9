// The error every device, engine, recording and detection operation throws: either a Core
// Audio call that failed (the step in the present participle plus its status) or a
// condition that comes with a ready user-facing message.
//
// Thread: any (a plain value). Realtime-safe: no.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "realtime/CoreAudioShapes.h"

namespace brightmix {

class AudioDeviceError : public std::exception {
public:
    enum class Kind { coreAudio, unavailable };

    static AudioDeviceError coreAudio(std::string operation, OSStatus status);
    static AudioDeviceError unavailable(std::string message);

    Kind kind() const { return kind_; }
    // For coreAudio: the operation text; for unavailable: the message.
    const std::string& text() const { return text_; }
    // For coreAudio: the status; 0 for unavailable.
    OSStatus status() const { return status_; }

    // "Creating the system audio tap failed ('nope')." or the message itself.
    const std::string& localizedDescription() const { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

    // The status as text: the four bytes, most significant first, between apostrophes when
    // every byte is below 128; otherwise the signed decimal number.
    static std::string statusText(OSStatus status);

    friend bool operator==(const AudioDeviceError& a, const AudioDeviceError& b) {
        return a.kind_ == b.kind_ && a.text_ == b.text_ && a.status_ == b.status_;
    }

private:
    AudioDeviceError(Kind kind, std::string text, OSStatus status);

    Kind kind_;
    std::string text_;
    OSStatus status_;
    std::string description_;
};

// The one place where a Core Audio status becomes an error: throws
// AudioDeviceError::coreAudio(operation, status) unless the status is 0.
void throwIfError(OSStatus status, std::string_view operation);

} // namespace brightmix
