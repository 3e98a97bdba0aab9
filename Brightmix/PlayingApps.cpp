#include "Brightmix/PlayingApps.h"

#include <algorithm>
#include <set>
#include <utility>

namespace brightmix {

namespace {

std::string removingAllAppSuffixes(std::string name) {
    constexpr std::string_view kApp = ".app";
    for (auto found = name.find(kApp); found != std::string::npos; found = name.find(kApp)) {
        name.erase(found, kApp.size());
    }
    return name;
}

} // namespace

PlayingAppsMonitor::PlayingAppsMonitor(MainLoop& loop, const Workspace& workspace)
    : loop_(loop), workspace_(workspace) {}

PlayingAppsMonitor::~PlayingAppsMonitor() {
    if (timer_ != 0) {
        loop_.cancel(timer_);
    }
}

void PlayingAppsMonitor::start(ProcessIDProvider provider) {
    stop();
    provider_ = std::move(provider);
    refresh();
    // The timer dies with the monitor (the destructor cancels it), so `this` stays valid.
    timer_ = loop_.scheduleRepeating(kPollInterval, [this] { refresh(); });
}

void PlayingAppsMonitor::stop() {
    if (timer_ != 0) {
        loop_.cancel(timer_);
        timer_ = 0;
    }
    provider_ = nullptr;
    publish({});
}

void PlayingAppsMonitor::refresh() {
    if (!provider_) {
        return;
    }
    const std::vector<PlayingApp> found = playingNow(provider_());

    // Apps that keep playing keep their place; newcomers go to the end.
    std::vector<PlayingApp> merged;
    merged.reserve(found.size());
    for (const auto& app : apps_) {
        const auto current = std::find_if(found.begin(), found.end(), [&](const PlayingApp& f) {
            return f.bundleURL == app.bundleURL;
        });
        if (current != found.end()) {
            merged.push_back(app);
        }
    }
    const std::size_t keptCount = merged.size();
    for (const auto& app : found) {
        const auto end = merged.begin() + static_cast<std::ptrdiff_t>(keptCount);
        if (std::none_of(merged.begin(), end,
                         [&](const PlayingApp& k) { return k.bundleURL == app.bundleURL; })) {
            merged.push_back(app);
        }
    }
    publish(std::move(merged));
}

std::vector<PlayingApp>
PlayingAppsMonitor::playingNow(const std::vector<std::int32_t>& pids) const {
    const std::string ownPath = workspace_.ownBundlePath();
    const std::string ownBundle =
        workspace_.applicationBundlePath(ownPath).value_or(standardizedPath(ownPath));
    std::vector<PlayingApp> found;
    std::set<std::string, std::less<>> seen;
    for (const std::int32_t pid : pids) {
        const auto application = workspace_.runningApplication(pid);
        if (!application || !application->bundlePath) {
            continue;
        }
        auto bundle = workspace_.applicationBundlePath(*application->bundlePath);
        if (!bundle || *bundle == ownBundle || !seen.insert(*bundle).second) {
            continue;
        }
        std::string name = removingAllAppSuffixes(workspace_.displayName(*bundle));
        found.push_back(PlayingApp{std::move(*bundle), std::move(name)});
    }
    return found;
}

void PlayingAppsMonitor::publish(std::vector<PlayingApp> apps) {
    if (apps == apps_) {
        return;
    }
    apps_ = std::move(apps);
    if (observer_) {
        observer_(apps_);
    }
}

const WorkspaceIcon& PlayingAppsMonitor::icon(const PlayingApp& app) {
    const auto cached = icons_.find(app.bundleURL);
    if (cached != icons_.end()) {
        return cached->second;
    }
    return icons_.emplace(app.bundleURL, workspace_.icon(app.bundleURL)).first->second;
}

} // namespace brightmix
