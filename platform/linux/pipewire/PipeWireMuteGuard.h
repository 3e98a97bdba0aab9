// Crash safety for the one thing Brightmix changes in someone else's graph: the mute of a
// multi-output sink while the router plays its mix. Core Audio undoes a tap's mute when the
// process dies; PipeWire does not, so two things stand in for it:
//
// - a record file, "<pid> <node name>" per line, written before a sink is muted and
//   cleared after it is unmuted. The next start finds a record whose owner is gone (a power
//   loss, a killed watchdog) and unmutes the sink. Its place is
//   $XDG_STATE_HOME/brightmix/muted-sinks, else ~/.local/state/brightmix/muted-sinks.
// - a watchdog process, started before the mute, that waits on a pipe. A clean stop
//   writes one byte and the watchdog leaves; if the pipe closes without it, Brightmix
//   died, and the watchdog unmutes the sink and clears the record at once.
//
// Thread: control. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace brightmix::pipewire {

struct MuteRecord {
    std::int32_t ownerPID = 0;
    std::string nodeName;

    friend bool operator==(const MuteRecord&, const MuteRecord&) = default;
};

// The default record file for the current environment.
std::string defaultMuteRecordPath();

// Records in file order; a missing or unreadable file has none, and malformed lines are
// skipped.
std::vector<MuteRecord> readMuteRecords(const std::string& path);
// Adds a record (creating the folder), or removes every record of that node and owner.
// Both rewrite the file atomically and answer whether that worked.
bool addMuteRecord(const std::string& path, const MuteRecord& record);
bool removeMuteRecord(const std::string& path, const MuteRecord& record);

// Whether a process with that ID still exists.
bool isProcessAlive(std::int32_t pid);

// Whether a live process other than `owner` has a record for the node: that process routes
// the sink now and will restore it itself, so nobody else may unmute it.
bool isMutedByAnotherOwner(const std::string& path, const std::string& nodeName,
                           std::int32_t owner);

// A started watchdog: its process and the write end of its pipe.
class MuteWatchdog {
public:
    // Starts `executable restore-mute NODE RECORD-PATH OWNER-PID` with the pipe's read end
    // as its descriptor 3, in a session of its own so that a signal to Brightmix's process
    // group does not reach it. None when it could not be started (`error` says why).
    static std::optional<MuteWatchdog> arm(const std::string& executable, const MuteRecord& record,
                                           const std::string& recordPath, std::string* error);

    MuteWatchdog(MuteWatchdog&& other) noexcept;
    MuteWatchdog& operator=(MuteWatchdog&& other) noexcept;
    MuteWatchdog(const MuteWatchdog&) = delete;
    MuteWatchdog& operator=(const MuteWatchdog&) = delete;
    // Destroying an armed watchdog closes the pipe without the clean byte: the watchdog
    // then restores the sink, which is the safe outcome when a stop did not finish.
    ~MuteWatchdog();

    // Tells the watchdog that the sink was restored and waits for it to leave.
    void disarm();
    // Hands the sink over to the watchdog as if this process had died, without waiting for
    // it: for a mute that this process can no longer restore itself (the server went away
    // and it leaves before the server is back).
    void release();
    std::int32_t processID() const { return pid_; }

private:
    MuteWatchdog(std::int32_t pid, int fd) : pid_(pid), fd_(fd) {}
    void close();

    std::int32_t pid_ = 0;
    int fd_ = -1;
};

// The watchdog's side: waits on descriptor `fd` and answers whether the owner stopped
// cleanly (true) or went away without saying so (false).
bool waitForOwner(int fd);

} // namespace brightmix::pipewire
