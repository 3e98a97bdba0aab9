#include "platform/sim/ScriptedSystem.h"

#include <algorithm>
#include <utility>

namespace brightmix {

EventTap::TapID ScriptedEventTap::create(EventTapMode mode, Callback callback) {
    ++createCount_;
    if (refused_[mode]) return 0;
    const TapID id = nextTap_++;
    taps_.emplace(id, Tap{mode, std::move(callback), true});
    return id;
}

void ScriptedEventTap::enable(TapID tap) {
    if (const auto found = taps_.find(tap); found != taps_.end()) found->second.isEnabled = true;
}

void ScriptedEventTap::invalidate(TapID tap) {
    taps_.erase(tap);
}

void ScriptedEventTap::disableByTimeout() {
    for (auto& [id, tap] : taps_)
        tap.isEnabled = false;
}

bool ScriptedEventTap::deliver(const TapEvent& event) {
    for (auto& [id, tap] : taps_) {
        const bool isNotification =
            event.type == kTapDisabledByTimeout || event.type == kTapDisabledByUserInput;
        // A disabled tap still gets the system's notification that it was disabled.
        if (!tap.isEnabled && !isNotification) return false;
        // Copied: the callback may invalidate the tap it runs in.
        const Callback callback = tap.callback;
        const EventTapMode mode = tap.mode;
        const bool isSwallowed = callback && callback(event);
        return isSwallowed && mode == EventTapMode::filtering;
    }
    return false;
}

bool ScriptedEventTap::deliverKey(int keyCode, bool isDown, bool isRepeat) {
    const std::int64_t data1 = (static_cast<std::int64_t>(keyCode) << 16) |
                               ((isDown ? 0x0A : 0x0B) << 8) | (isRepeat ? 1 : 0);
    return deliver({kSystemDefinedEventType, TapEvent::Fields{8, data1}});
}

const ScriptedEventTap::Tap* ScriptedEventTap::liveTap() const {
    return taps_.empty() ? nullptr : &taps_.begin()->second;
}

bool ScriptedPermissions::requestListenEventAccess() {
    ++listenRequests;
    if (grantsOnRequest) canListen = true;
    return canListen;
}

bool ScriptedPermissions::requestPostEventAccess() {
    ++postRequests;
    if (grantsOnRequest) canPost = true;
    return canPost;
}

void ScriptedLoginItem::registerItem() {
    if (!failure.empty()) throw Error(std::exchange(failure, {}));
    currentStatus = statusAfterRegistering;
}

void ScriptedLoginItem::unregisterItem() {
    if (!failure.empty()) throw Error(std::exchange(failure, {}));
    currentStatus = Status::notRegistered;
}

void ScriptedFolderAccess::chooseFolder(const FolderChoice& choice, Completion completion) {
    choicesShown.push_back(choice);
    if (isAnswerDeferred) {
        pending_ = std::move(completion);
        return;
    }
    completion(chooserAnswer);
}

void ScriptedFolderAccess::chooseApplication(const std::string& message,
                                             const std::string& startFolder,
                                             Completion completion) {
    applicationChoicesShown.emplace_back(message, startFolder);
    completion(applicationAnswer);
}

void ScriptedFolderAccess::answer(std::optional<std::string> folder) {
    if (Completion completion = std::exchange(pending_, {})) completion(std::move(folder));
}

std::optional<PropertyList::Data> ScriptedFolderAccess::createBookmark(const std::string& folder) {
    ++bookmarksCreated;
    const std::string text = "bookmark:" + folder;
    return PropertyList::Data(text.begin(), text.end());
}

std::optional<FolderAccess::ResolvedBookmark>
ScriptedFolderAccess::resolveBookmark(const PropertyList::Data& bookmark) {
    const std::string text(bookmark.begin(), bookmark.end());
    constexpr std::string_view kPrefix = "bookmark:";
    if (bookmarksUnresolvable || text.rfind(kPrefix, 0) != 0) return std::nullopt;
    return ResolvedBookmark{text.substr(kPrefix.size()), bookmarksAreStale};
}

bool ScriptedFolderAccess::startAccessing(const std::string& folder) {
    if (std::find(refusedFolders.begin(), refusedFolders.end(), folder) != refusedFolders.end()) {
        return false;
    }
    accessing.push_back(folder);
    return true;
}

void ScriptedFolderAccess::stopAccessing(const std::string& folder) {
    const auto found = std::find(accessing.begin(), accessing.end(), folder);
    if (found != accessing.end()) accessing.erase(found);
}

void RecordedHudPanel::setContent(const HudContent& newContent) {
    content = newContent;
    ++contentUpdates;
}

void RecordedHudPanel::setAlpha(double value) {
    alpha = value;
    animatingTo.reset();
}

void RecordedHudPanel::animateAlpha(double target, double duration,
                                    std::function<void()> completion) {
    if (auto previous = std::exchange(completion_, {})) previous();
    animatingTo = target;
    animationDuration = duration;
    completion_ = std::move(completion);
}

void RecordedHudPanel::finishAnimation() {
    if (animatingTo) alpha = *animatingTo;
    animatingTo.reset();
    if (auto completion = std::exchange(completion_, {})) completion();
}

std::optional<Screen> RecordedHudPanel::mainScreen() const {
    if (!mainScreenIndex || *mainScreenIndex >= allScreens.size()) return std::nullopt;
    return allScreens[*mainScreenIndex];
}

} // namespace brightmix
