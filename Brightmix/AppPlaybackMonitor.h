// Which of the apps that have a rule are making sound right now. Once per refresh tick the
// app model polls it with the rule list; for every such app that has processes with running
// output it keeps one PlaybackTap, reads and clears the tap's counter, and reports the apps
// heard for at least 0.15 s since the last poll. After any failure it drops every tap and
// rests for 15 s.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Brightmix/AppOutputRule.h"
#include "Brightmix/AudioDeviceService.h"
#include "Brightmix/PlaybackTap.h"
#include "platform/MainLoop.h"
#include "platform/Workspace.h"

namespace brightmix {

class AppPlaybackMonitor {
public:
    using BundleIDSet = std::set<std::string, std::less<>>;
    // Bundle ID -> the app's process objects, ascending.
    using ProcessMap = std::map<std::string, std::vector<AudioObjectID>, std::less<>>;

    // Audible time in one poll that counts as playing.
    static constexpr double kPlayingThresholdSeconds = 0.15;
    // Consecutive polls without a single IO cycle that mean the taps get no audio at all.
    static constexpr std::int64_t kMissingCallbackLimit = 5;
    // After a failure, no polling for this long.
    static constexpr double kRetryBackoffSeconds = 15.0;

    AppPlaybackMonitor(AudioDeviceService& devices, const MainLoop& loop,
                       const Workspace& workspace);

    // The bundle IDs of the rules' apps heard since the last poll. None (not an empty set)
    // while resting after a failure: the caller skips switching for this tick. Throws
    // AudioDeviceError when the process list cannot be read, a tap cannot be built, or the
    // taps stopped receiving audio; every tap is then gone and the rest begins.
    std::optional<BundleIDSet> poll(const std::vector<AppOutputRule>& rules);

    // Stops monitoring: destroys every tap and ends any rest, so the next poll starts afresh.
    void stop();
    // The same after the audio system restarted: the taps are gone already and are only
    // forgotten.
    void forgetTaps();

    // The processes with running output (other than this program's) that belong to one of
    // the `wanted` bundle IDs. Throws when the process list cannot be read.
    ProcessMap processObjectsByBundleID(const BundleIDSet& wanted) const;

    // Which wanted bundle ID a process counts for: its own bundle ID or its app's, when
    // wanted; failing that, the longest wanted ID that its own bundle ID continues after a
    // dot ("com.example.app.helper" counts for "com.example.app"). `wantedLongestFirst`
    // holds `wanted` ordered by length, longest first.
    static std::optional<std::string>
    matchBundleID(const std::optional<std::string>& processBundleID,
                  const std::optional<std::string>& appBundleID, const BundleIDSet& wanted,
                  const std::vector<std::string>& wantedLongestFirst);

    const PlaybackTap* tap(std::string_view bundleID) const;
    std::size_t tapCount() const { return taps_.size(); }
    // Uptime before which poll() rests; minus infinity when it does not.
    double retryAfter() const { return retryAfter_; }

private:
    std::optional<std::string> appBundleID(std::int32_t pid) const;
    BundleIDSet pollTaps(const std::vector<AppOutputRule>& rules);

    AudioDeviceService& devices_;
    const MainLoop& loop_;
    const Workspace& workspace_;
    std::map<std::string, std::unique_ptr<PlaybackTap>, std::less<>> taps_;
    double retryAfter_;
};

} // namespace brightmix
