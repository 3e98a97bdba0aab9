// The folder recordings go to, kept across launches as a persistent bookmark under
// "recordingFolderBookmark" (a sandboxed application may write there only while it accesses
// the folder through that bookmark). `acquire` opens the saved folder, or asks the user for
// one; `release` ends the access.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/Defaults.h"
#include "platform/FolderAccess.h"

namespace brightmix {

class RecordingFolderStore {
public:
    using Completion = std::function<void(std::optional<std::string> folder)>;

    inline static const std::string kKey = "recordingFolderBookmark";
    inline static const std::string kChooserTitle = "Recording folder";
    inline static const std::string kChooserMessage =
        "Choose Desktop to save recordings there automatically, or select another folder.";
    inline static const std::string kChooserPrompt = "Use Folder";

    RecordingFolderStore(Defaults& defaults, FolderAccess& access);
    ~RecordingFolderStore();
    RecordingFolderStore(const RecordingFolderStore&) = delete;
    RecordingFolderStore& operator=(const RecordingFolderStore&) = delete;

    // Gives the folder with access started, or none when the user cancels the chooser. Unless
    // `chooseAgain`, the saved bookmark is tried first (a stale one is replaced by a fresh
    // bookmark of the same folder); failing that, or with `chooseAgain`, the chooser opens at
    // the Desktop. The completion may run before this returns.
    void acquire(bool chooseAgain, Completion completion);
    // Ends access to the folder, if one is open.
    void release();

    const std::optional<std::string>& activeFolder() const { return activeFolder_; }

private:
    void choose(Completion completion);

    Defaults& defaults_;
    FolderAccess& access_;
    std::optional<std::string> activeFolder_;
};

} // namespace brightmix
