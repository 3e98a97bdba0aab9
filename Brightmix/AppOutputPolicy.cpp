#include "Brightmix/AppOutputPolicy.h"

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace brightmix {

namespace {

void increment(std::int64_t& counter, const char* name) {
    if (counter == std::numeric_limits<std::int64_t>::max()) {
        std::fprintf(stderr, "Brightmix: AppOutputPolicy %s would overflow; stopping.\n", name);
        std::abort();
    }
    ++counter;
}

} // namespace

std::optional<AppOutputRule>
AppOutputPolicy::ruleToApply(const std::set<std::string, std::less<>>& playingAppIDs,
                             const std::vector<AppOutputRule>& rules,
                             const std::set<std::string, std::less<>>& availableOutputUIDs,
                             const std::optional<std::string>& currentOutputUID) {
    std::erase_if(activity, [&](const auto& entry) {
        for (const auto& rule : rules) {
            if (rule.bundleID == entry.first) {
                return false;
            }
        }
        return true;
    });

    // Last rule first: when several apps cross the threshold in the same poll, the one whose
    // rule stands earlier is numbered last, so it gets the higher number and wins.
    bool startedOnAvailableOutput = false;
    for (auto rule = rules.rbegin(); rule != rules.rend(); ++rule) {
        Activity& entry = activity[rule->bundleID];
        if (playingAppIDs.contains(rule->bundleID)) {
            increment(entry.soundPolls, "sound poll count");
            entry.silentPolls = 0;
            if (!entry.started && entry.soundPolls >= kStartThreshold) {
                increment(sequence, "playback sequence");
                entry.started = sequence;
                if (availableOutputUIDs.contains(rule->outputUID)) {
                    startedOnAvailableOutput = true;
                }
            }
        } else {
            increment(entry.silentPolls, "silent poll count");
            entry.soundPolls = 0;
            if (entry.silentPolls > kPauseTolerance) {
                entry.started.reset();
            }
        }
    }

    if (startedOnAvailableOutput) {
        manualOverride = false;
    }
    if (manualOverride) {
        return std::nullopt;
    }

    // A rule whose output is absent is no candidate, but its history above stays current,
    // so it takes part again the moment its output reconnects.
    const AppOutputRule* winner = nullptr;
    std::int64_t winnerStarted = 0;
    for (const auto& rule : rules) {
        const auto entry = activity.find(rule.bundleID);
        if (entry == activity.end() || !entry->second.started ||
            !availableOutputUIDs.contains(rule.outputUID)) {
            continue;
        }
        if (winner == nullptr || *entry->second.started > winnerStarted) {
            winner = &rule;
            winnerStarted = *entry->second.started;
        }
    }

    if (winner == nullptr) {
        activeAppID.reset();
        return std::nullopt;
    }
    activeAppID = winner->bundleID;
    if (currentOutputUID && *currentOutputUID == winner->outputUID) {
        return std::nullopt;
    }
    return *winner;
}

void AppOutputPolicy::reset() {
    activity.clear();
    sequence = 0;
    manualOverride = false;
    activeAppID.reset();
}

void AppOutputPolicy::noteManualSelection() {
    manualOverride = true;
    activeAppID.reset();
}

} // namespace brightmix
