#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Brightmix/AppOutputPolicy.h"

namespace brightmix {
namespace {

using IDSet = std::set<std::string, std::less<>>;

const std::vector<AppOutputRule> kRules = {
    {"com.example.a", "A", "out-a", "Output A"},
    {"com.example.b", "B", "out-b", "Output B"},
    {"com.example.c", "C", "out-c", "Output C"},
};
const IDSet kAllOutputs = {"out-a", "out-b", "out-c", "speakers"};

// One poll and what it should give. The runner plays the app model: it switches the current
// output to whatever the policy returns.
struct Poll {
    IDSet playing;
    std::optional<std::string> expectedOutput; // outputUID of the returned rule, or none
    std::optional<std::string> expectedActive; // activeAppID after the poll
    IDSet available = kAllOutputs;
    bool manualBefore = false; // the user picks an output by hand before this poll
};

struct Scenario {
    const char* name;
    std::vector<Poll> polls;
    std::int64_t expectedSequence;
    std::vector<AppOutputRule> rules = kRules;
};

void run(const Scenario& scenario) {
    AppOutputPolicy policy;
    std::optional<std::string> current = "speakers";
    for (std::size_t index = 0; index < scenario.polls.size(); ++index) {
        const Poll& poll = scenario.polls[index];
        SCOPED_TRACE(std::string(scenario.name) + ", poll " + std::to_string(index + 1));
        if (poll.manualBefore) {
            policy.noteManualSelection();
            current = "speakers";
        }
        const auto rule = policy.ruleToApply(poll.playing, scenario.rules, poll.available, current);
        const std::optional<std::string> output =
            rule ? std::optional<std::string>(rule->outputUID) : std::nullopt;
        EXPECT_EQ(output, poll.expectedOutput);
        EXPECT_EQ(policy.activeAppID, poll.expectedActive);
        if (rule) {
            current = rule->outputUID;
        }
    }
    EXPECT_EQ(policy.sequence, scenario.expectedSequence) << scenario.name;
}

const std::string A = "com.example.a";
const std::string B = "com.example.b";
const std::string C = "com.example.c";

TEST(AppOutputPolicyTests, PollSequences) {
    const IDSet none;
    const IDSet withoutA = {"out-b", "out-c", "speakers"};
    const IDSet withoutB = {"out-a", "out-c", "speakers"};
    const IDSet withoutC = {"out-a", "out-b", "speakers"};
    const std::vector<Scenario> scenarios = {
        {"takes the output on the second sound poll",
         {{{A}, std::nullopt, std::nullopt}, {{A}, "out-a", A}, {{A}, std::nullopt, A}},
         1},
        {"two silent polls keep the playback, no new number on return",
         {{{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A},
          {none, std::nullopt, A},
          {none, std::nullopt, A},
          {{A}, std::nullopt, A}},
         1},
        {"the third silent poll ends it; a restart needs two polls and a new number",
         {{{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A},
          {none, std::nullopt, A},
          {none, std::nullopt, A},
          {none, std::nullopt, std::nullopt},
          {{A}, std::nullopt, std::nullopt},
          {{A}, std::nullopt, A}},
         2},
        {"a single sound poll between silences never starts",
         {{{A}, std::nullopt, std::nullopt},
          {none, std::nullopt, std::nullopt},
          {{A}, std::nullopt, std::nullopt},
          {none, std::nullopt, std::nullopt}},
         0},
        {"the newest start wins, and the older app returns when it stops",
         {{{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A},
          {{A, B}, std::nullopt, A},
          {{A, B}, "out-b", B},
          {{A}, std::nullopt, B},
          {{A}, std::nullopt, B},
          {{A}, "out-a", A}},
         2},
        {"crossing together: the earlier rule wins",
         {{{B, A}, std::nullopt, std::nullopt}, {{A, B}, "out-a", A}, {{A, B}, std::nullopt, A}},
         2},
        {"crossing together with the list reversed: the earlier rule still wins",
         {{{B, A}, std::nullopt, std::nullopt}, {{A, B}, "out-b", B}},
         2,
         {kRules[2], kRules[1], kRules[0]}},
        {"equal start numbers (one app listed twice): the earlier rule stays",
         {{{A}, "out-a", A}, {{A}, std::nullopt, A}},
         1,
         {{A, "A", "out-a", "Output A"}, {A, "A", "out-b", "Output B"}}},
        {"manual choice holds while A plays and ends with a fresh start elsewhere",
         {{{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A},
          {{A}, std::nullopt, std::nullopt, kAllOutputs, true},
          {{A}, std::nullopt, std::nullopt},
          {{A, B}, std::nullopt, std::nullopt},
          {{A, B}, "out-b", B}},
         2},
        {"a start on an absent output does not end the hold",
         {{{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A},
          {{A, C}, std::nullopt, std::nullopt, withoutC, true},
          {{A, C}, std::nullopt, std::nullopt, withoutC},
          {{A, C}, std::nullopt, std::nullopt, withoutC},
          {{A, C}, std::nullopt, std::nullopt}},
         2},
        {"a manual choice after the apps stopped holds until a restart",
         {{{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A},
          {none, std::nullopt, std::nullopt, kAllOutputs, true},
          {{A}, std::nullopt, std::nullopt},
          {{A}, std::nullopt, std::nullopt},
          {none, std::nullopt, std::nullopt},
          {none, std::nullopt, std::nullopt},
          {none, std::nullopt, std::nullopt},
          {{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A}},
         2},
        {"an absent output keeps its history and resumes on reconnection",
         {{{A}, std::nullopt, std::nullopt, withoutA},
          {{A}, std::nullopt, std::nullopt, withoutA},
          {{A}, std::nullopt, std::nullopt, withoutA},
          {{A}, "out-a", A}},
         1},
        {"an absent winner's output lets the next candidate hold",
         {{{A}, std::nullopt, std::nullopt},
          {{A}, "out-a", A},
          {{A, B}, std::nullopt, A},
          {{A, B}, "out-b", B},
          {{A, B}, "out-a", A, withoutB},
          {{A, B}, std::nullopt, A, {"out-a", "speakers"}},
          {{A, B}, "out-b", B}},
         2},
        {"an app without a rule is ignored",
         {{{"com.example.other"}, std::nullopt, std::nullopt},
          {{"com.example.other"}, std::nullopt, std::nullopt}},
         0},
    };
    for (const auto& scenario : scenarios) {
        run(scenario);
    }
}

TEST(AppOutputPolicyTests, AlreadyOnTheOutputStillNamesTheActiveApp) {
    AppOutputPolicy policy;
    const IDSet playing = {A};
    EXPECT_FALSE(policy.ruleToApply(playing, kRules, kAllOutputs, "out-a"));
    EXPECT_FALSE(policy.ruleToApply(playing, kRules, kAllOutputs, "out-a"));
    EXPECT_EQ(policy.activeAppID, A);
    EXPECT_EQ(policy.sequence, 1);
    // Without a known current output the rule is returned.
    EXPECT_EQ(policy.ruleToApply(playing, kRules, kAllOutputs, std::nullopt), kRules[0]);
}

TEST(AppOutputPolicyTests, HistoryIsKeptOnlyForAppsWithRules) {
    AppOutputPolicy policy;
    const IDSet playing = {A, B};
    policy.ruleToApply(playing, kRules, kAllOutputs, std::nullopt);
    policy.ruleToApply(playing, kRules, kAllOutputs, std::nullopt);
    ASSERT_EQ(policy.activity.size(), 3u);
    EXPECT_EQ(policy.activity[A], (AppOutputPolicy::Activity{2, 0, 2}));
    EXPECT_EQ(policy.activity[C], (AppOutputPolicy::Activity{0, 2, std::nullopt}));

    // B's rule removed: its history goes; the others keep theirs.
    const std::vector<AppOutputRule> fewer = {kRules[0], kRules[2]};
    policy.ruleToApply(playing, fewer, kAllOutputs, std::nullopt);
    EXPECT_EQ(policy.activity.count(B), 0u);
    EXPECT_EQ(policy.activity[A].soundPolls, 3);

    // No rules at all: nothing kept, nothing returned, no active app.
    EXPECT_FALSE(policy.ruleToApply(playing, {}, kAllOutputs, std::nullopt));
    EXPECT_TRUE(policy.activity.empty());
    EXPECT_FALSE(policy.activeAppID);
}

TEST(AppOutputPolicyTests, EmptyRulesLeaveTheActiveAppAloneWhileHeld) {
    AppOutputPolicy policy;
    policy.activeAppID = A;
    policy.manualOverride = true;
    EXPECT_FALSE(policy.ruleToApply({A}, {}, kAllOutputs, std::nullopt));
    EXPECT_EQ(policy.activeAppID, A);
    EXPECT_TRUE(policy.activity.empty());
}

TEST(AppOutputPolicyTests, ResetAndManualSelection) {
    AppOutputPolicy policy;
    const IDSet playing = {A};
    policy.ruleToApply(playing, kRules, kAllOutputs, std::nullopt);
    policy.ruleToApply(playing, kRules, kAllOutputs, std::nullopt);
    ASSERT_EQ(policy.activeAppID, A);

    policy.noteManualSelection();
    EXPECT_TRUE(policy.manualOverride);
    EXPECT_FALSE(policy.activeAppID);
    EXPECT_EQ(policy.sequence, 1);

    policy.reset();
    EXPECT_EQ(policy, AppOutputPolicy{});
    // After a reset A has to start again.
    EXPECT_FALSE(policy.ruleToApply(playing, kRules, kAllOutputs, std::nullopt));
}

TEST(AppOutputPolicyDeathTest, CountersStopRatherThanWrap) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    AppOutputPolicy nearTheEnd;
    nearTheEnd.sequence = std::numeric_limits<std::int64_t>::max();
    nearTheEnd.activity[A] = {1, 0, std::nullopt};
    EXPECT_DEATH(nearTheEnd.ruleToApply({A}, kRules, kAllOutputs, std::nullopt),
                 "playback sequence would overflow");

    AppOutputPolicy longSilence;
    longSilence.activity[B] = {0, std::numeric_limits<std::int64_t>::max(), std::nullopt};
    EXPECT_DEATH(longSilence.ruleToApply({}, kRules, kAllOutputs, std::nullopt),
                 "silent poll count would overflow");
}

} // namespace
} // namespace brightmix
