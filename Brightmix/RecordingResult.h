// What a finished recording reports: the file, how long it is, and the message to show when
// something went wrong.
//
// Thread: any (a plain value). Realtime-safe: no.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace brightmix {

struct RecordingResult {
    std::filesystem::path url;
    double duration = 0;              // seconds: frames written / sample rate
    std::optional<std::string> error; // none on success

    friend bool operator==(const RecordingResult&, const RecordingResult&) = default;
};

} // namespace brightmix
