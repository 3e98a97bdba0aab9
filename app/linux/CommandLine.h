// The command line of `brightmix` on Linux: what to do (list devices, route, help) and the
// routing settings, parsed from the arguments with a readable error for anything wrong.
//
// Thread: any (pure parsing). Realtime-safe: no.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Brightmix/EqualizerPreset.h"
#include "Brightmix/OutputPreset.h"
#include "Brightmix/RecordingFormat.h"

namespace brightmix::linuxapp {

struct OutputSettings {
    std::string uid;
    std::optional<OutputPreset> role;
    std::optional<EqualizerPreset> equalizer;
    std::optional<float> volume; // 0..1

    friend bool operator==(const OutputSettings&, const OutputSettings&) = default;
};

struct RouteSettings {
    std::optional<std::string> deviceUID; // none: the default output, else the first
                                          // multi-output device
    float volume = 1.0f;
    bool isMuted = false;
    std::vector<OutputSettings> outputs;
    std::optional<float> crossoverHz;
    std::optional<std::string> recordingPath;
    std::optional<RecordingFormat> recordingFormat;
    std::optional<double> seconds; // none: until interrupted

    friend bool operator==(const RouteSettings&, const RouteSettings&) = default;
};

struct Command {
    enum class Kind { help, list, route };
    Kind kind = Kind::help;
    RouteSettings route;

    friend bool operator==(const Command&, const Command&) = default;
};

// The command, or the sentence that says what is wrong with the arguments.
std::variant<Command, std::string> parseCommandLine(const std::vector<std::string>& arguments);

// The usage text.
std::string usageText();

} // namespace brightmix::linuxapp
