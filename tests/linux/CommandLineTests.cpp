// The arguments of `brightmix` on Linux: every setting reaches the route, and every mistake
// gets a sentence that names it.
#include <gtest/gtest.h>

#include "app/linux/CommandLine.h"

namespace brightmix::linuxapp {
namespace {

Command parsed(const std::vector<std::string>& arguments) {
    auto result = parseCommandLine(arguments);
    EXPECT_TRUE(std::holds_alternative<Command>(result)) << std::get<std::string>(result);
    return std::holds_alternative<Command>(result) ? std::get<Command>(result) : Command{};
}

TEST(CommandLine, ReadsEveryRouteSetting) {
    Command command =
        parsed({"route", "--device", "multi_output", "--volume", "0.5", "--mute", "--output",
                "subwoofer=subwoofer,bassBooster,0.8", "--output", "desk_speakers=satellite",
                "--crossover", "90", "--record", "/tmp/mix.m4a", "--seconds", "2.5"});
    EXPECT_EQ(command.kind, Command::Kind::route);
    const RouteSettings& route = command.route;
    EXPECT_EQ(route.deviceUID, "multi_output");
    EXPECT_EQ(route.volume, 0.5f);
    EXPECT_TRUE(route.isMuted);
    ASSERT_EQ(route.outputs.size(), 2u);
    EXPECT_EQ(route.outputs[0], (OutputSettings{"subwoofer", OutputPreset::subwoofer,
                                                EqualizerPreset::bassBooster, 0.8f}));
    EXPECT_EQ(route.outputs[1], (OutputSettings{"desk_speakers", OutputPreset::satellite,
                                                std::nullopt, std::nullopt}));
    // Crossovers snap to the offered frequencies, as the settings do.
    EXPECT_EQ(route.crossoverHz, 80.0f);
    EXPECT_EQ(route.recordingPath, "/tmp/mix.m4a");
    EXPECT_EQ(route.recordingFormat, RecordingFormat::m4a);
    EXPECT_EQ(route.seconds, 2.5);

    Command plain = parsed({"route"});
    EXPECT_EQ(plain.route, RouteSettings{});
    EXPECT_EQ(parsed({"list"}).kind, Command::Kind::list);
    EXPECT_EQ(parsed({}).kind, Command::Kind::help);
    EXPECT_EQ(parsed({"--help"}).kind, Command::Kind::help);
}

TEST(CommandLine, NamesWhatIsWrong) {
    struct Case {
        std::vector<std::string> arguments;
        std::string error;
    };
    for (const Case& c : std::initializer_list<Case>{
             {{"play"}, "unknown command “play”"},
             {{"list", "extra"}, "list takes no arguments"},
             {{"route", "--loud"}, "unknown option “--loud”"},
             {{"route", "--volume"}, "--volume needs a value"},
             {{"route", "--volume", "1.5"}, "--volume wants a number from 0 to 1"},
             {{"route", "--volume", "nan"}, "--volume wants a number from 0 to 1"},
             {{"route", "--volume", "0.5x"}, "--volume wants a number from 0 to 1"},
             {{"route", "--output", "subwoofer"},
              "--output wants UID=SETTINGS, for example subwoofer=subwoofer,0.8"},
             {{"route", "--output", "sub=woofer"},
              "“woofer” is not a role (fullRange, subwoofer, satellite), an equaliser preset "
              "(flat, bassBooster, …) or a volume from 0 to 1"},
             {{"route", "--crossover", "-80"}, "--crossover wants a frequency in Hz"},
             {{"route", "--record", "/tmp/mix.mp3"},
              "--record wants a file ending in .wav or .m4a"},
             {{"route", "--seconds", "0"}, "--seconds wants a positive number"},
         }) {
        auto result = parseCommandLine(c.arguments);
        ASSERT_TRUE(std::holds_alternative<std::string>(result)) << c.error;
        EXPECT_EQ(std::get<std::string>(result), c.error);
    }
}

} // namespace
} // namespace brightmix::linuxapp
