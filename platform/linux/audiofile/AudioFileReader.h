// Reads a recording back in full: WAV through libsndfile, anything else (M4A) through
// FFmpeg's demuxer and decoder. Used by tests and tools to check what the writer produced.
//
// Thread: any (no shared state). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace brightmix {

struct DecodedAudio {
    double sampleRate = 0;
    std::uint32_t channels = 0;
    std::string codec;          // "pcm_f32le" for a float WAV, "aac" for AAC
    std::vector<float> samples; // interleaved
    // Duration the container declares, in seconds; 0 when it declares none.
    double containerDuration = 0;

    std::uint64_t frames() const { return channels ? samples.size() / channels : 0; }
    double duration() const { return sampleRate > 0 ? double(frames()) / sampleRate : 0; }
};

// The decoded file, or none with a reason in `error`.
std::optional<DecodedAudio> readAudioFile(const std::string& path, std::string* error = nullptr);

} // namespace brightmix
