#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Brightmix/AppOutputRule.h"

namespace brightmix {
namespace {

TEST(AppOutputRuleTests, RoundTripKeepsOrderAndText) {
    const std::vector<AppOutputRule> rules = {
        {"com.example.player", "Player", "uid-1", "Desk Speakers"},
        {"com.example.tv", "Café’s TV — Living", "uid:2/\"quoted\"", "Living-room Display"},
        {"", "", "", ""},
        {"com.example.player", "Player again", "uid-3", "Headphones"},
    };
    EXPECT_EQ(decodeAppOutputRules(encodeAppOutputRules(rules)), rules);

    const auto object = encodeAppOutputRule(rules[0]);
    ASSERT_TRUE(object.is_object());
    EXPECT_EQ(object.size(), 4u);
    for (const char* key : {"bundleID", "appName", "outputUID", "outputName"}) {
        EXPECT_TRUE(object.contains(key)) << key;
    }
    EXPECT_EQ(decodeAppOutputRule(object), rules[0]);
}

TEST(AppOutputRuleTests, ExtraMembersAreIgnoredOnRead) {
    const auto rules = decodeAppOutputRules(
        R"([{"bundleID":"b","appName":"a","outputUID":"u","outputName":"n","extra":1}])");
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0], (AppOutputRule{"b", "a", "u", "n"}));
}

TEST(AppOutputRuleTests, EncodingNeverFailsOnBadText) {
    const std::vector<AppOutputRule> rules = {{"com.example", "Bad \xff\xfe name", "u", "n"}};
    std::string text;
    ASSERT_NO_THROW(text = encodeAppOutputRules(rules));
    const auto back = decodeAppOutputRules(text);
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].bundleID, "com.example");
}

TEST(AppOutputRuleTests, BadInputFailsTheWholeDecode) {
    const std::string good = R"({"bundleID":"b","appName":"a","outputUID":"u","outputName":"n"})";
    const struct {
        const char* name;
        std::string text;
        const char* messagePart;
    } cases[] = {
        {"empty text", "", "not valid JSON"},
        {"truncated", R"([{"bundleID":"b","appName":"a","outp)", "not valid JSON"},
        {"garbage", "rules please", "not valid JSON"},
        {"an object instead of a list", good, "not a list"},
        {"a string", R"("[]")", "not a list"},
        {"an element that is not an object", "[" + good + ",[1,2]]", "rule 2 is not an object"},
        {"missing bundleID", R"([{"appName":"a","outputUID":"u","outputName":"n"}])",
         "rule 1 has no \"bundleID\""},
        {"missing appName", R"([{"bundleID":"b","outputUID":"u","outputName":"n"}])",
         "has no \"appName\""},
        {"missing outputUID", R"([{"bundleID":"b","appName":"a","outputName":"n"}])",
         "has no \"outputUID\""},
        {"missing outputName, second element",
         "[" + good + R"(,{"bundleID":"b","appName":"a","outputUID":"u"}])",
         "rule 2 has no \"outputName\""},
        {"number for a string",
         R"([{"bundleID":7,"appName":"a","outputUID":"u","outputName":"n"}])",
         "\"bundleID\" is not a string"},
        {"null for a string",
         R"([{"bundleID":"b","appName":null,"outputUID":"u","outputName":"n"}])",
         "\"appName\" is not a string"},
        {"nested object for a string",
         R"([{"bundleID":"b","appName":"a","outputUID":{"x":1},"outputName":"n"}])",
         "\"outputUID\" is not a string"},
    };
    for (const auto& c : cases) {
        try {
            decodeAppOutputRules(c.text);
            ADD_FAILURE() << c.name << ": decoded";
        } catch (const AppOutputRuleDecodingError& error) {
            EXPECT_NE(std::string(error.what()).find(c.messagePart), std::string::npos)
                << c.name << ": " << error.what();
        }
    }
}

TEST(AppOutputRuleTests, TheDecoderKeepsDuplicatesAndEmptyIDsForTheLoaderToClean) {
    const auto rules = decodeAppOutputRules(
        R"([{"bundleID":"","appName":"a","outputUID":"u","outputName":"n"},
            {"bundleID":"x","appName":"a","outputUID":"u","outputName":"n"},
            {"bundleID":"x","appName":"b","outputUID":"v","outputName":"m"}])");
    ASSERT_EQ(rules.size(), 3u);
    EXPECT_EQ(rules[0].bundleID, "");
    EXPECT_EQ(rules[1].bundleID, rules[2].bundleID);
    EXPECT_TRUE(decodeAppOutputRules("[]").empty());
}

} // namespace
} // namespace brightmix
