// Whether the macOS updater starts: only with an https feed and a well-formed EdDSA key.
#include <gtest/gtest.h>

#include "platform/macos/UpdaterConfiguration.h"

namespace brightmix {
namespace {

constexpr const char* kFeed = "https://updates.example.com/appcast.xml";
// 32 bytes in base64.
constexpr const char* kKey = "pfIShU4dEXqPd5ObYNfDBiQWcXozk7estwzTnF9BamQ=";

TEST(UpdaterConfiguration, StartsOnlyWithAFeedAndAWellFormedKey) {
    EXPECT_TRUE(updaterConfiguration(kFeed, kKey).shouldStart);
    EXPECT_TRUE(updaterConfiguration(kFeed, kKey).unavailableReason.empty());

    struct Case {
        std::optional<std::string> feed;
        std::optional<std::string> key;
        const char* why;
    };
    for (const Case& bad : {
             Case{kFeed, std::nullopt, "no key (the default build)"},
             Case{kFeed, "", "empty key"},
             Case{kFeed, "   ", "blank key"},
             Case{kFeed, "pfIShU4dEXqPd5ObYNfDBiQWcXozk7estwzTnF9BamQ", "unpadded"},
             Case{kFeed, "pfIShU4dEXqPd5ObYNfDBiQWcXozk7estwzTnF9Bam==", "31 bytes"},
             Case{kFeed, "pfIShU4dEXqPd5ObYNfD*iQWcXozk7estwzTnF9BamQ=", "not base64"},
             Case{kFeed, "pfIShU4dEXqP=5ObYNfDBiQWcXozk7estwzTnF9BamQ=", "padding inside"},
             Case{std::nullopt, kKey, "no feed"},
             Case{"http://updates.example.com/appcast.xml", kKey, "insecure feed"},
             Case{"https://", kKey, "feed without a host"},
         }) {
        const UpdaterConfiguration configuration = updaterConfiguration(bad.feed, bad.key);
        EXPECT_FALSE(configuration.shouldStart) << bad.why;
        EXPECT_EQ(configuration.unavailableReason, UpdaterConfiguration::kNotConfigured) << bad.why;
    }
}

TEST(UpdaterConfiguration, Base64SizesCountPadding) {
    EXPECT_EQ(base64DecodedSize("AAAA"), 3u);
    EXPECT_EQ(base64DecodedSize("AAA="), 2u);
    EXPECT_EQ(base64DecodedSize("AA=="), 1u);
    EXPECT_FALSE(base64DecodedSize("A==="));
    EXPECT_FALSE(base64DecodedSize("AAAAA"));
    EXPECT_FALSE(base64DecodedSize("AA=A"));
}

} // namespace
} // namespace brightmix
