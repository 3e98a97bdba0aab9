// The two file formats a recording can take, with the raw value the settings store and the
// name the interface shows.
//
// Thread: any (plain values). Realtime-safe: no.
#pragma once

#include <optional>
#include <string_view>

namespace brightmix {

enum class RecordingFormat { m4a, wav };

inline constexpr RecordingFormat kRecordingFormats[] = {RecordingFormat::m4a, RecordingFormat::wav};

// "m4a" or "wav".
constexpr std::string_view rawValue(RecordingFormat format) {
    return format == RecordingFormat::wav ? "wav" : "m4a";
}

// "M4A" or "WAV (lossless)".
constexpr std::string_view displayName(RecordingFormat format) {
    return format == RecordingFormat::wav ? "WAV (lossless)" : "M4A";
}

// The format of a raw value; none for any other text.
constexpr std::optional<RecordingFormat> recordingFormatFromRawValue(std::string_view raw) {
    if (raw == "m4a") return RecordingFormat::m4a;
    if (raw == "wav") return RecordingFormat::wav;
    return std::nullopt;
}

// The file name extension, which is the raw value.
constexpr std::string_view fileExtension(RecordingFormat format) {
    return rawValue(format);
}

} // namespace brightmix
