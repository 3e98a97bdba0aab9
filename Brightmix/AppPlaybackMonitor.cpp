#include "Brightmix/AppPlaybackMonitor.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "Brightmix/AudioDeviceError.h"

namespace brightmix {

namespace {

constexpr double kDistantPast = -std::numeric_limits<double>::infinity();

} // namespace

AppPlaybackMonitor::AppPlaybackMonitor(AudioDeviceService& devices, const MainLoop& loop,
                                       const Workspace& workspace)
    : devices_(devices), loop_(loop), workspace_(workspace), retryAfter_(kDistantPast) {}

std::optional<AppPlaybackMonitor::BundleIDSet>
AppPlaybackMonitor::poll(const std::vector<AppOutputRule>& rules) {
    if (loop_.uptime() < retryAfter_) {
        return std::nullopt;
    }
    try {
        return pollTaps(rules);
    } catch (...) {
        taps_.clear();
        retryAfter_ = loop_.uptime() + kRetryBackoffSeconds;
        throw;
    }
}

AppPlaybackMonitor::BundleIDSet
AppPlaybackMonitor::pollTaps(const std::vector<AppOutputRule>& rules) {
    BundleIDSet wanted;
    for (const auto& rule : rules) {
        wanted.insert(rule.bundleID);
    }
    const ProcessMap processes = processObjectsByBundleID(wanted);

    // A tap whose app changed its process set is rebuilt below, with a fresh counter.
    std::erase_if(taps_, [&](const auto& entry) {
        const auto found = processes.find(entry.first);
        return found == processes.end() || found->second != entry.second->processIDs();
    });

    BundleIDSet heard;
    // A bundle ID listed twice is read once: a second take would find the counter empty and
    // count a poll without callbacks that did have them.
    BundleIDSet visited;
    for (const auto& rule : rules) {
        if (!visited.insert(rule.bundleID).second) {
            continue;
        }
        const auto found = processes.find(rule.bundleID);
        if (found == processes.end() || found->second.empty()) {
            continue;
        }
        auto tap = taps_.find(rule.bundleID);
        if (tap == taps_.end()) {
            tap = taps_
                      .emplace(rule.bundleID,
                               std::make_unique<PlaybackTap>(found->second, rule.appName, devices_))
                      .first;
        }
        PlaybackTap& playbackTap = *tap->second;
        if (playbackTap.notePollCycles(playbackTap.takeCycles()) >= kMissingCallbackLimit) {
            throw AudioDeviceError::unavailable(
                "Playback detection is not receiving audio. Check Brightmix’s System Audio "
                "Recording permission in System Settings.");
        }
        const auto frames = static_cast<double>(playbackTap.takeAudibleFrames());
        if (frames / playbackTap.sampleRate() >= kPlayingThresholdSeconds) {
            heard.insert(rule.bundleID);
        }
    }
    return heard;
}

void AppPlaybackMonitor::stop() {
    taps_.clear();
    retryAfter_ = kDistantPast;
}

void AppPlaybackMonitor::forgetTaps() {
    for (auto& [bundleID, tap] : taps_)
        tap->forget();
    stop();
}

const PlaybackTap* AppPlaybackMonitor::tap(std::string_view bundleID) const {
    const auto found = taps_.find(bundleID);
    return found == taps_.end() ? nullptr : found->second.get();
}

AppPlaybackMonitor::ProcessMap
AppPlaybackMonitor::processObjectsByBundleID(const BundleIDSet& wanted) const {
    const auto objects =
        devices_.propertyIDs(devices_.system(), kAudioHardwarePropertyProcessObjectList,
                             kAudioObjectPropertyScopeGlobal);

    std::vector<std::string> wantedLongestFirst(wanted.begin(), wanted.end());
    std::stable_sort(
        wantedLongestFirst.begin(), wantedLongestFirst.end(),
        [](const std::string& a, const std::string& b) { return a.size() > b.size(); });

    const std::int32_t ownPID = devices_.hardware().currentProcessID();
    ProcessMap result;
    for (const AudioObjectID object : objects) {
        const auto pid = devices_.int32Property(object, globalAddress(kAudioProcessPropertyPID));
        if (!pid || *pid == ownPID) {
            continue;
        }
        const auto isRunningOutput =
            devices_.uint32Property(object, globalAddress(kAudioProcessPropertyIsRunningOutput));
        if (!isRunningOutput || *isRunningOutput == 0) {
            continue;
        }
        const auto processBundleID =
            devices_.stringProperty(object, globalAddress(kAudioProcessPropertyBundleID));
        const auto match =
            matchBundleID(processBundleID, appBundleID(*pid), wanted, wantedLongestFirst);
        if (match) {
            result[*match].push_back(object);
        }
    }
    for (auto& entry : result) {
        std::sort(entry.second.begin(), entry.second.end());
    }
    return result;
}

std::optional<std::string> AppPlaybackMonitor::appBundleID(std::int32_t pid) const {
    const auto application = workspace_.runningApplication(pid);
    if (!application) {
        return std::nullopt;
    }
    // A helper inside an app's bundle belongs to the app that encloses it.
    if (application->bundlePath) {
        if (const auto bundle = workspace_.applicationBundlePath(*application->bundlePath)) {
            if (auto identifier = workspace_.bundleIdentifier(*bundle)) {
                return identifier;
            }
        }
    }
    return application->bundleIdentifier;
}

std::optional<std::string>
AppPlaybackMonitor::matchBundleID(const std::optional<std::string>& processBundleID,
                                  const std::optional<std::string>& appBundleID,
                                  const BundleIDSet& wanted,
                                  const std::vector<std::string>& wantedLongestFirst) {
    for (const auto* candidate : {&processBundleID, &appBundleID}) {
        if (*candidate && wanted.contains(**candidate)) {
            return **candidate;
        }
    }
    if (!processBundleID) {
        return std::nullopt;
    }
    const std::string& own = *processBundleID;
    for (const auto& prefix : wantedLongestFirst) {
        if (own.size() > prefix.size() && own[prefix.size()] == '.' &&
            own.compare(0, prefix.size(), prefix) == 0) {
            return prefix;
        }
    }
    return std::nullopt;
}

} // namespace brightmix
