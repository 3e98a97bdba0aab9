// Choosing a folder and keeping access to it across launches: a folder chooser, and
// persistent references (bookmarks) to a chosen folder that can be resolved later and whose
// access is started and stopped explicitly (a sandbox grants a folder only while accessed).
//
// Thread: control (the main thread); the chooser's completion runs there too.
// Realtime-safe: no.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/PropertyList.h"

namespace brightmix {

struct FolderChoice {
    std::string title;
    std::string message;
    std::string prompt;      // the confirming button
    std::string startFolder; // where the chooser opens
};

class FolderAccess {
public:
    using Completion = std::function<void(std::optional<std::string> folder)>;

    struct ResolvedBookmark {
        std::string folder;
        bool isStale = false; // still usable, but should be replaced by a fresh bookmark
    };

    virtual ~FolderAccess() = default;

    // The user's Desktop folder.
    virtual std::string desktopFolder() const = 0;
    // Brings the application to the front and lets the user choose one folder (folders
    // only, creating one allowed); the completion gets it, or none when the user cancels.
    virtual void chooseFolder(const FolderChoice& choice, Completion completion) = 0;
    // A persistent reference to a folder; none when one cannot be made.
    virtual std::optional<PropertyList::Data> createBookmark(const std::string& folder) = 0;
    // The folder a bookmark refers to; none when it cannot be resolved.
    virtual std::optional<ResolvedBookmark> resolveBookmark(const PropertyList::Data& bookmark) = 0;
    virtual bool startAccessing(const std::string& folder) = 0;
    virtual void stopAccessing(const std::string& folder) = 0;

    // Lets the user choose one application, starting in `startFolder`, with `message` above
    // the list; the completion gets its bundle path, or none when cancelled.
    virtual void chooseApplication(const std::string& message, const std::string& startFolder,
                                   Completion completion) = 0;
};

} // namespace brightmix
