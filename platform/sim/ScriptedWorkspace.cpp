#include "platform/sim/ScriptedWorkspace.h"

#include <utility>

namespace brightmix {

void ScriptedWorkspace::setRunningApplication(std::int32_t pid,
                                              std::optional<std::string> bundlePath,
                                              std::optional<std::string> bundleIdentifier) {
    applications_[pid] = RunningApplication{std::move(bundlePath), std::move(bundleIdentifier)};
}

void ScriptedWorkspace::removeRunningApplication(std::int32_t pid) {
    applications_.erase(pid);
}

void ScriptedWorkspace::setBundleIdentifier(std::string bundlePath, std::string identifier) {
    identifiers_[standardizedPath(bundlePath)] = std::move(identifier);
}

void ScriptedWorkspace::setDisplayName(std::string path, std::string name) {
    displayNames_[standardizedPath(path)] = std::move(name);
}

std::optional<Workspace::RunningApplication>
ScriptedWorkspace::runningApplication(std::int32_t pid) const {
    const auto found = applications_.find(pid);
    if (found == applications_.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::optional<std::string> ScriptedWorkspace::bundleIdentifier(std::string_view bundlePath) const {
    const auto found = identifiers_.find(standardizedPath(bundlePath));
    if (found == identifiers_.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::string ScriptedWorkspace::displayName(std::string_view path) const {
    const std::string standardized = standardizedPath(path);
    const auto found = displayNames_.find(standardized);
    if (found != displayNames_.end()) {
        return found->second;
    }
    const auto slash = standardized.rfind('/');
    return slash == std::string::npos || standardized.size() == 1 ? standardized
                                                                  : standardized.substr(slash + 1);
}

WorkspaceIcon ScriptedWorkspace::icon(std::string_view path) const {
    ++iconRequests_;
    return WorkspaceIcon{"icon:" + standardizedPath(path), nullptr};
}

std::optional<std::string> ScriptedWorkspace::bundleName(std::string_view bundlePath) const {
    const auto found = bundleNames_.find(standardizedPath(bundlePath));
    if (found == bundleNames_.end()) return std::nullopt;
    return found->second;
}

void ScriptedWorkspace::setBundleName(std::string bundlePath, std::string name) {
    bundleNames_.insert_or_assign(standardizedPath(bundlePath), std::move(name));
}

bool ScriptedWorkspace::openURL(std::string_view url) {
    actions_.push_back("open-url " + std::string(url));
    return !areActionsRefused_;
}

bool ScriptedWorkspace::openApplication(std::string_view path) {
    actions_.push_back("open-app " + std::string(path));
    return !areActionsRefused_;
}

bool ScriptedWorkspace::revealFile(std::string_view path) {
    actions_.push_back("reveal " + std::string(path));
    return !areActionsRefused_;
}

bool ScriptedWorkspace::relaunch() {
    actions_.push_back("relaunch");
    return !areActionsRefused_;
}

void ScriptedWorkspace::terminate() {
    actions_.push_back("terminate");
    if (terminationHandler_) terminationHandler_();
}

} // namespace brightmix
