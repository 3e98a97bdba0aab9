// The state machine of automatic output switching. Once per refresh tick the app model hands
// it the apps heard playing, the rule list and the outputs present; it answers which rule, if
// any, should take the system output now. "The most recently started app takes priority after
// about two seconds of playback. Brief pauses keep the current output. When all apps stop, the
// output stays as it is. A manual output choice holds until new app playback starts."
//
// A plain value: no timer, no device access, no persistence. It does not merge rules that
// share a bundle ID (the editor keeps one per app); such an app's history advances once per
// rule in each poll.
//
// Counters never wrap: an increment past the largest 64-bit value aborts the program with a
// message on standard error. At one poll a second this is unreachable; a wrapped counter,
// though, would silently reorder which app holds the output, so it is a bug worth stopping at.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Brightmix/AppOutputRule.h"

namespace brightmix {

struct AppOutputPolicy {
    // Recent playback history of one app.
    struct Activity {
        std::int64_t soundPolls = 0;         // consecutive polls heard; 0 after a silent one
        std::int64_t silentPolls = 0;        // consecutive polls not heard; 0 after a sound one
        std::optional<std::int64_t> started; // sequence number of the current playback

        friend bool operator==(const Activity&, const Activity&) = default;
    };

    // Sound polls needed for a playback to count as started ("about two seconds").
    static constexpr std::int64_t kStartThreshold = 2;
    // Silent polls that keep a started playback; one more ends it.
    static constexpr std::int64_t kPauseTolerance = 2;

    // Per bundle ID; only bundle IDs that have a rule are kept.
    std::map<std::string, Activity, std::less<>> activity;
    // Counter of playback starts; each new start takes the next value.
    std::int64_t sequence = 0;
    // The user chose an output by hand: nothing is returned until a new playback starts.
    bool manualOverride = false;
    // The app whose rule holds the output now, if any (for the status line).
    std::optional<std::string> activeAppID;

    // One poll. `playingAppIDs`: bundle IDs heard in this poll; `rules`: the ordered rule list
    // (earlier rules win ties); `availableOutputUIDs`: UIDs of the outputs present;
    // `currentOutputUID`: the output in use, if known. Returns the rule whose output should be
    // selected now, or none when nothing is to change.
    std::optional<AppOutputRule>
    ruleToApply(const std::set<std::string, std::less<>>& playingAppIDs,
                const std::vector<AppOutputRule>& rules,
                const std::set<std::string, std::less<>>& availableOutputUIDs,
                const std::optional<std::string>& currentOutputUID);

    // Back to the state of a fresh launch (monitoring stopped).
    void reset();

    // The user picked an output by hand: hold automatic switching until a new playback.
    void noteManualSelection();

    friend bool operator==(const AppOutputPolicy&, const AppOutputPolicy&) = default;
};

} // namespace brightmix
