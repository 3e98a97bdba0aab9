// The questions the core asks about running applications and their bundles: which app a
// process belongs to, bundle identifiers, display names and icons. Paths are absolute file
// system paths; a bundle "URL" in the core is the standardised path of the bundle.
//
// Also two pure helpers on bundle paths that every caller shares.
//
// Thread: control (the main thread) for every call. Realtime-safe: no.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brightmix {

// An application icon as the platform holds it. `name` identifies it (an icon theme name or
// an image path on Linux, the bundle path on macOS); `image`, when set, is the platform's own
// image object, which only that platform's view renderer looks inside.
struct WorkspaceIcon {
    std::string name;
    std::shared_ptr<const void> image;

    friend bool operator==(const WorkspaceIcon& a, const WorkspaceIcon& b) {
        return a.name == b.name && a.image == b.image;
    }
};

// Defined below.
inline std::optional<std::string> outermostAppBundlePath(std::string_view path);

class Workspace {
public:
    // What the system knows about a running application.
    struct RunningApplication {
        std::optional<std::string> bundlePath;       // its bundle (or executable) location
        std::optional<std::string> bundleIdentifier; // e.g. "com.example.player"
    };

    virtual ~Workspace() = default;

    // The running application of a process ID, or none.
    virtual std::optional<RunningApplication> runningApplication(std::int32_t pid) const = 0;

    // The identifier of the bundle at `bundlePath`, or none when there is no such bundle or it
    // has none.
    virtual std::optional<std::string> bundleIdentifier(std::string_view bundlePath) const = 0;

    // The name the file manager shows for `path` (never empty: falls back to the last path
    // component).
    virtual std::string displayName(std::string_view path) const = 0;

    // This program's own bundle path.
    virtual std::string ownBundlePath() const = 0;

    // The icon the workspace shows for `path`.
    virtual WorkspaceIcon icon(std::string_view path) const = 0;

    // The application a running program at `processPath` belongs to, as the path that
    // identifies it (its bundle): by default the outermost ".app" bundle around it, so that
    // helpers count for their app; none when it belongs to no application. Systems without
    // bundles answer their own notion (Linux: the program's desktop entry, else the program).
    virtual std::optional<std::string> applicationBundlePath(std::string_view processPath) const {
        return outermostAppBundlePath(processPath);
    }

    // The name an application bundle gives itself (its display name, else its name), or none.
    virtual std::optional<std::string> bundleName(std::string_view bundlePath) const = 0;
    // The bundle identifier of the application in front, if any.
    virtual std::optional<std::string> frontmostApplicationBundleID() const = 0;

    // Actions. Each reports failure by answering false; none throws.
    // Opens a URL (a settings pane, a web page, a mail address) with its handler.
    virtual bool openURL(std::string_view url) = 0;
    // Opens the application at `path`.
    virtual bool openApplication(std::string_view path) = 0;
    // Shows the file selected in the file manager.
    virtual bool revealFile(std::string_view path) = 0;
    // Starts a new instance of this program (then the caller terminates this one).
    virtual bool relaunch() = 0;
    // Asks this program to quit through the normal path (termination hooks run).
    virtual void terminate() = 0;
};

// "/a/./b//c/../d/" -> "/a/b/d": no empty or "." components, ".." removes the one before it
// (never above the root), no trailing slash.
inline std::string standardizedPath(std::string_view path) {
    std::vector<std::string_view> kept;
    std::size_t position = 0;
    while (position <= path.size()) {
        std::size_t end = path.find('/', position);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        const std::string_view component = path.substr(position, end - position);
        if (component == "..") {
            if (!kept.empty() && kept.back() != "..") {
                kept.pop_back();
            } else if (path.empty() || path.front() != '/') {
                kept.push_back(component);
            }
        } else if (!component.empty() && component != ".") {
            kept.push_back(component);
        }
        position = end + 1;
    }
    const bool isAbsolute = !path.empty() && path.front() == '/';
    if (kept.empty()) {
        return std::string(1, isAbsolute ? '/' : '.');
    }
    std::string result;
    for (std::size_t index = 0; index < kept.size(); ++index) {
        if (index > 0 || isAbsolute) {
            result += '/';
        }
        result += kept[index];
    }
    return result;
}

// The outermost application bundle that contains `path`: the path up to and including the
// first component that ends in ".app", standardised; none when no component does. Helpers
// nested inside an app's bundle therefore count as that app.
inline std::optional<std::string> outermostAppBundlePath(std::string_view path) {
    constexpr std::string_view kSuffix = ".app";
    std::size_t position = 0;
    while (position < path.size()) {
        std::size_t end = path.find('/', position);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        const std::string_view component = path.substr(position, end - position);
        if (component.size() >= kSuffix.size() &&
            component.substr(component.size() - kSuffix.size()) == kSuffix) {
            return standardizedPath(path.substr(0, end));
        }
        position = end + 1;
    }
    return std::nullopt;
}

} // namespace brightmix
