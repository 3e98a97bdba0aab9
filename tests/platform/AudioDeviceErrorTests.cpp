// The error's description and status text, and UUID text handling.
#include <gtest/gtest.h>
#include <set>

#include "Brightmix/AudioDeviceError.h"
#include "Brightmix/Uuid.h"
#include "platform/CoreAudioConstants.h"

namespace brightmix {
namespace {

TEST(AudioDeviceError, StatusText) {
    struct Case {
        OSStatus status;
        std::string text;
    };
    for (const auto& c : {
             Case{kAudioHardwareBadObjectError, "'!obj'"},
             Case{OSStatus(fourCharCode("!sys")), "'!sys'"},
             Case{kAudioHardwareUnspecifiedError, "'what'"},
             Case{kAudio_ParamError, "-50"},
             Case{1, std::string("'\0\0\0\x01'", 6)},
             Case{0, std::string("'\0\0\0\0'", 6)},
             Case{0x7F000000, std::string("'\x7F\0\0\0'", 6)},
             Case{0x00800000, "8388608"}, // one byte of 128 makes it a number
             Case{kExtAudioFileError_AsyncWriteTooLarge, "-66569"},
             Case{INT32_MIN, "-2147483648"},
         }) {
        EXPECT_EQ(AudioDeviceError::statusText(c.status), c.text) << c.status;
    }
}

TEST(AudioDeviceError, Descriptions) {
    const auto failed =
        AudioDeviceError::coreAudio("Reading audio property", kAudioHardwareBadObjectError);
    EXPECT_EQ(failed.localizedDescription(), "Reading audio property failed ('!obj').");
    EXPECT_STREQ(failed.what(), "Reading audio property failed ('!obj').");
    EXPECT_EQ(failed.kind(), AudioDeviceError::Kind::coreAudio);
    EXPECT_EQ(failed.text(), "Reading audio property");
    EXPECT_EQ(failed.status(), kAudioHardwareBadObjectError);
    EXPECT_EQ(AudioDeviceError::coreAudio("Starting", -50).localizedDescription(),
              "Starting failed (-50).");

    const auto message = AudioDeviceError::unavailable("Turn on Brightmix before recording.");
    EXPECT_EQ(message.localizedDescription(), "Turn on Brightmix before recording.");
    EXPECT_EQ(message.status(), 0);
    EXPECT_EQ(message, AudioDeviceError::unavailable("Turn on Brightmix before recording."));
    EXPECT_FALSE(message == AudioDeviceError::coreAudio("Turn on Brightmix before recording.", 0));
}

TEST(AudioDeviceError, ThrowIfErrorIsTheOnlyConversion) {
    EXPECT_NO_THROW(throwIfError(0, "Anything"));
    try {
        throwIfError(kAudioHardwareIllegalOperationError, "Creating the system audio tap");
        FAIL() << "no error";
    } catch (const AudioDeviceError& error) {
        EXPECT_EQ(error.localizedDescription(), "Creating the system audio tap failed ('nope').");
    }
}

TEST(Uuid, ParsesCanonicalTextOnly) {
    const auto uuid = parseUuid("0b4c7d8e-1f2a-4b3c-9d4e-5f6a7b8c9d0e");
    ASSERT_TRUE(uuid.has_value());
    EXPECT_EQ((*uuid)[0], 0x0B);
    EXPECT_EQ((*uuid)[15], 0x0E);
    EXPECT_EQ(uuidString(*uuid), "0B4C7D8E-1F2A-4B3C-9D4E-5F6A7B8C9D0E");
    for (const char* bad :
         {"", "0B4C7D8E1F2A4B3C9D4E5F6A7B8C9D0E", "{0B4C7D8E-1F2A-4B3C-9D4E-5F6A7B8C9D0E}",
          "0B4C7D8E-1F2A-4B3C-9D4E-5F6A7B8C9D0", "0B4C7D8E-1F2A-4B3C-9D4E_5F6A7B8C9D0E",
          "0B4C7D8E-1F2A-4B3C-9D4E-5F6A7B8C9D0G", "0B4C7D8E-1F2A-4B3C-9D4E-5F6A7B8C9D0E0",
          " 0B4C7D8E-1F2A-4B3C-9D4E-5F6A7B8C9D0"}) {
        EXPECT_FALSE(parseUuid(bad).has_value()) << bad;
    }
}

TEST(Uuid, RandomUUIDsAreVersionFourAndDistinct) {
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        const std::string text = makeRandomUuidString();
        const auto uuid = parseUuid(text);
        ASSERT_TRUE(uuid.has_value()) << text;
        EXPECT_EQ(text, uuidString(*uuid)); // upper case, canonical
        EXPECT_EQ((*uuid)[6] >> 4, 4);
        EXPECT_EQ((*uuid)[8] & 0xC0, 0x80);
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 200u);
}

} // namespace
} // namespace brightmix
