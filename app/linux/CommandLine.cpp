// Parsing `brightmix`'s arguments.
//
// Thread: any. Realtime-safe: no.
#include "app/linux/CommandLine.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace brightmix::linuxapp {

namespace {

std::optional<double> number(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    char* end = nullptr;
    errno = 0;
    double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<float> unitValue(const std::string& text) {
    auto value = number(text);
    if (!value || *value < 0 || *value > 1) {
        return std::nullopt;
    }
    return static_cast<float>(*value);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    while (true) {
        auto end = text.find(separator, start);
        parts.push_back(text.substr(start, end - start));
        if (end == std::string::npos) {
            return parts;
        }
        start = end + 1;
    }
}

// UID=role,preset,volume in any order; each part optional.
std::variant<OutputSettings, std::string> outputSettings(const std::string& text) {
    auto equals = text.rfind('=');
    if (equals == std::string::npos || equals == 0) {
        return "--output wants UID=SETTINGS, for example subwoofer=subwoofer,0.8";
    }
    OutputSettings output;
    output.uid = text.substr(0, equals);
    for (const std::string& part : split(text.substr(equals + 1), ',')) {
        if (auto role = outputPresetFromRawValue(part)) {
            output.role = role;
        } else if (auto preset = equalizerPresetFromRawValue(part)) {
            output.equalizer = preset;
        } else if (auto volume = unitValue(part)) {
            output.volume = volume;
        } else {
            return "“" + part +
                   "” is not a role (fullRange, subwoofer, satellite), an "
                   "equaliser preset (flat, bassBooster, …) or a volume from 0 to 1";
        }
    }
    return output;
}

} // namespace

std::string usageText() {
    return "usage: brightmix list\n"
           "       brightmix route [--device UID] [--volume 0..1] [--mute]\n"
           "                       [--output UID=ROLE,PRESET,VOLUME]... [--crossover HZ]\n"
           "                       [--record FILE.wav|FILE.m4a] [--seconds N]\n"
           "\n"
           "list   shows the output devices; multi-output devices list their members.\n"
           "route  plays the mix of a multi-output device through Brightmix's router with\n"
           "       the given volume, mute and per-output role (fullRange, subwoofer,\n"
           "       satellite), equaliser preset and volume, until interrupted (Ctrl-C) or\n"
           "       for N seconds. --record writes the clean mix to a WAV or M4A file.\n";
}

std::variant<Command, std::string> parseCommandLine(const std::vector<std::string>& arguments) {
    Command command;
    if (arguments.empty() || arguments[0] == "help" || arguments[0] == "--help" ||
        arguments[0] == "-h") {
        return command;
    }
    if (arguments[0] == "list") {
        if (arguments.size() > 1) {
            return "list takes no arguments";
        }
        command.kind = Command::Kind::list;
        return command;
    }
    if (arguments[0] != "route") {
        return "unknown command “" + arguments[0] + "”";
    }
    command.kind = Command::Kind::route;
    RouteSettings& route = command.route;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& option = arguments[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= arguments.size()) {
                return std::nullopt;
            }
            return arguments[++i];
        };
        if (option == "--mute") {
            route.isMuted = true;
            continue;
        }
        if (option != "--device" && option != "--volume" && option != "--output" &&
            option != "--crossover" && option != "--record" && option != "--seconds") {
            return "unknown option “" + option + "”";
        }
        auto text = value();
        if (!text) {
            return option + " needs a value";
        }
        if (option == "--device") {
            route.deviceUID = *text;
        } else if (option == "--volume") {
            auto volume = unitValue(*text);
            if (!volume) {
                return "--volume wants a number from 0 to 1";
            }
            route.volume = *volume;
        } else if (option == "--output") {
            auto output = outputSettings(*text);
            if (auto* error = std::get_if<std::string>(&output)) {
                return *error;
            }
            route.outputs.push_back(std::get<OutputSettings>(output));
        } else if (option == "--crossover") {
            auto hz = number(*text);
            if (!hz || *hz <= 0) {
                return "--crossover wants a frequency in Hz";
            }
            route.crossoverHz = static_cast<float>(snapCrossoverFrequency(*hz));
        } else if (option == "--record") {
            auto dot = text->rfind('.');
            std::string extension = dot == std::string::npos ? "" : text->substr(dot + 1);
            if (extension == "wav") {
                route.recordingFormat = RecordingFormat::wav;
            } else if (extension == "m4a") {
                route.recordingFormat = RecordingFormat::m4a;
            } else {
                return "--record wants a file ending in .wav or .m4a";
            }
            route.recordingPath = *text;
        } else if (option == "--seconds") {
            auto seconds = number(*text);
            if (!seconds || *seconds <= 0) {
                return "--seconds wants a positive number";
            }
            route.seconds = *seconds;
        }
    }
    return command;
}

} // namespace brightmix::linuxapp
