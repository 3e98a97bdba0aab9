// Mute records and the watchdog process that restore a multi-output sink after a crash.
//
// Thread: control. Realtime-safe: no.
#include "platform/linux/pipewire/PipeWireMuteGuard.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace brightmix::pipewire {

namespace {

bool writeRecords(const std::string& path, const std::vector<MuteRecord>& records) {
    std::error_code error;
    std::filesystem::path file(path);
    if (file.has_parent_path()) {
        std::filesystem::create_directories(file.parent_path(), error);
    }
    if (records.empty()) {
        std::filesystem::remove(file, error);
        return !error;
    }
    std::string temporary = path + ".tmp" + std::to_string(::getpid());
    {
        std::ofstream out(temporary, std::ios::trunc);
        for (const MuteRecord& record : records) {
            out << record.ownerPID << ' ' << record.nodeName << '\n';
        }
        out.flush();
        if (!out) {
            std::filesystem::remove(temporary, error);
            return false;
        }
    }
    std::filesystem::rename(temporary, file, error);
    return !error;
}

} // namespace

std::string defaultMuteRecordPath() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') {
        return std::string(state) + "/brightmix/muted-sinks";
    }
    const char* home = std::getenv("HOME");
    std::string base = home != nullptr && home[0] != '\0' ? home : "/tmp";
    return base + "/.local/state/brightmix/muted-sinks";
}

std::vector<MuteRecord> readMuteRecords(const std::string& path) {
    std::vector<MuteRecord> records;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        MuteRecord record;
        long pid = 0;
        if (!(fields >> pid) || pid <= 0 || pid > 0x3FFFFFFF) {
            continue;
        }
        fields >> std::ws;
        std::getline(fields, record.nodeName);
        if (record.nodeName.empty()) {
            continue;
        }
        record.ownerPID = static_cast<std::int32_t>(pid);
        records.push_back(record);
    }
    return records;
}

bool addMuteRecord(const std::string& path, const MuteRecord& record) {
    if (record.nodeName.empty() || record.nodeName.find('\n') != std::string::npos) {
        return false;
    }
    auto records = readMuteRecords(path);
    for (const MuteRecord& existing : records) {
        if (existing == record) {
            return true;
        }
    }
    records.push_back(record);
    return writeRecords(path, records);
}

bool removeMuteRecord(const std::string& path, const MuteRecord& record) {
    auto records = readMuteRecords(path);
    std::vector<MuteRecord> kept;
    for (const MuteRecord& existing : records) {
        if (!(existing == record)) {
            kept.push_back(existing);
        }
    }
    if (kept.size() == records.size()) {
        return true;
    }
    return writeRecords(path, kept);
}

bool isProcessAlive(std::int32_t pid) {
    if (pid <= 0) {
        return false;
    }
    if (::kill(pid, 0) == 0) {
        // A zombie has exited; it just has not been reaped yet.
        std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
        std::string pidField, name, state;
        if (status >> pidField >> name >> state) {
            return state != "Z" && state != "X";
        }
        return true;
    }
    return errno == EPERM;
}

bool isMutedByAnotherOwner(const std::string& path, const std::string& nodeName,
                           std::int32_t owner) {
    for (const MuteRecord& record : readMuteRecords(path)) {
        if (record.nodeName == nodeName && record.ownerPID != owner &&
            isProcessAlive(record.ownerPID)) {
            return true;
        }
    }
    return false;
}

std::optional<MuteWatchdog> MuteWatchdog::arm(const std::string& executable,
                                              const MuteRecord& record,
                                              const std::string& recordPath, std::string* error) {
    auto fail = [&](const std::string& message) -> std::optional<MuteWatchdog> {
        if (error != nullptr) {
            *error = message;
        }
        return std::nullopt;
    };
    if (executable.empty() || ::access(executable.c_str(), X_OK) != 0) {
        return fail("the watchdog " + executable + " cannot be run");
    }
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return fail("no pipe for the watchdog");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], 3);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    posix_spawnattr_setsigdefault(&attributes, &defaults);

    std::string owner = std::to_string(record.ownerPID);
    std::string mode = "restore-mute";
    char* arguments[] = {const_cast<char*>(executable.c_str()),
                         mode.data(),
                         const_cast<char*>(record.nodeName.c_str()),
                         const_cast<char*>(recordPath.c_str()),
                         owner.data(),
                         nullptr};
    pid_t pid = 0;
    int status = posix_spawn(&pid, executable.c_str(), &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(fds[0]);
    if (status != 0) {
        ::close(fds[1]);
        return fail("the watchdog could not be started (error " + std::to_string(status) + ")");
    }
    return MuteWatchdog(pid, fds[1]);
}

MuteWatchdog::MuteWatchdog(MuteWatchdog&& other) noexcept : pid_(other.pid_), fd_(other.fd_) {
    other.pid_ = 0;
    other.fd_ = -1;
}

MuteWatchdog& MuteWatchdog::operator=(MuteWatchdog&& other) noexcept {
    if (this != &other) {
        close();
        pid_ = other.pid_;
        fd_ = other.fd_;
        other.pid_ = 0;
        other.fd_ = -1;
    }
    return *this;
}

MuteWatchdog::~MuteWatchdog() {
    close();
}

void MuteWatchdog::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (pid_ > 0) {
        // It restores the sink and leaves on its own; reap it so no zombie stays.
        int status = 0;
        for (int i = 0; i < 300 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i) {
            ::usleep(10000);
        }
        pid_ = 0;
    }
}

void MuteWatchdog::disarm() {
    if (fd_ >= 0) {
        const char clean = 'C';
        ssize_t written;
        do {
            written = ::write(fd_, &clean, 1);
        } while (written < 0 && errno == EINTR);
    }
    close();
}

void MuteWatchdog::release() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (pid_ > 0) {
        // Reaped now if it already left; otherwise it outlives this object (and is reaped by
        // whoever inherits it when this process ends).
        int status = 0;
        ::waitpid(pid_, &status, WNOHANG);
        pid_ = 0;
    }
}

bool waitForOwner(int fd) {
    char byte = 0;
    ssize_t count;
    do {
        count = ::read(fd, &byte, 1);
    } while (count < 0 && errno == EINTR);
    return count == 1 && byte == 'C';
}

} // namespace brightmix::pipewire
