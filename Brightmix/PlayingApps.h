// The applications currently sending audio to the system default output, for the menu-bar
// panel: one entry per application bundle, in a stable display order, with display names and
// cached icons. Polled once a second; independent of the per-app detection taps.
//
// Thread: control (the main thread) only. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/MainLoop.h"
#include "platform/Workspace.h"

namespace brightmix {

struct PlayingApp {
    std::string bundleURL; // standardised path of the outermost ".app" bundle; the identity
    std::string name;      // display name with every ".app" removed

    const std::string& id() const { return bundleURL; }

    friend bool operator==(const PlayingApp&, const PlayingApp&) = default;
};

class PlayingAppsMonitor {
public:
    // The process IDs playing to the default output (the app model's provider excludes this
    // program and answers empty when the default output cannot be read).
    using ProcessIDProvider = std::function<std::vector<std::int32_t>()>;
    // Told the new list whenever `apps` changes.
    using Observer = std::function<void(const std::vector<PlayingApp>&)>;

    static constexpr double kPollInterval = 1.0;

    PlayingAppsMonitor(MainLoop& loop, const Workspace& workspace);
    ~PlayingAppsMonitor();
    PlayingAppsMonitor(const PlayingAppsMonitor&) = delete;
    PlayingAppsMonitor& operator=(const PlayingAppsMonitor&) = delete;

    // Restarts: stops, refreshes at once, then every second.
    void start(ProcessIDProvider provider);
    // Cancels the poll and empties the list.
    void stop();
    bool isRunning() const { return timer_ != 0; }

    // One poll now with the current provider; nothing when stopped.
    void refresh();

    const std::vector<PlayingApp>& apps() const { return apps_; }
    void setObserver(Observer observer) { observer_ = std::move(observer); }

    // The app's icon, asked of the workspace once per bundle and kept for the whole run.
    const WorkspaceIcon& icon(const PlayingApp& app);

private:
    std::vector<PlayingApp> playingNow(const std::vector<std::int32_t>& pids) const;
    void publish(std::vector<PlayingApp> apps);

    MainLoop& loop_;
    const Workspace& workspace_;
    std::vector<PlayingApp> apps_;
    MainLoop::TimerID timer_ = 0;
    std::map<std::string, WorkspaceIcon, std::less<>> icons_;
    ProcessIDProvider provider_;
    Observer observer_;
};

} // namespace brightmix
