#include "Brightmix/RecordingFolderStore.h"

#include <utility>

namespace brightmix {

RecordingFolderStore::RecordingFolderStore(Defaults& defaults, FolderAccess& access)
    : defaults_(defaults), access_(access) {}

RecordingFolderStore::~RecordingFolderStore() {
    release();
}

void RecordingFolderStore::acquire(bool chooseAgain, Completion completion) {
    release();
    if (!chooseAgain) {
        const std::optional<PropertyList> stored = defaults_.get(kKey);
        const PropertyList::Data* bookmark = stored ? stored->asData() : nullptr;
        if (bookmark != nullptr) {
            const auto resolved = access_.resolveBookmark(*bookmark);
            if (resolved && access_.startAccessing(resolved->folder)) {
                activeFolder_ = resolved->folder;
                if (resolved->isStale) {
                    if (auto fresh = access_.createBookmark(resolved->folder)) {
                        defaults_.set(kKey, PropertyList::data(std::move(*fresh)));
                    }
                }
                completion(resolved->folder);
                return;
            }
        }
    }
    choose(std::move(completion));
}

void RecordingFolderStore::choose(Completion completion) {
    const FolderChoice choice{kChooserTitle, kChooserMessage, kChooserPrompt,
                              access_.desktopFolder()};
    access_.chooseFolder(
        choice, [this, completion = std::move(completion)](std::optional<std::string> folder) {
            if (!folder || !access_.startAccessing(*folder)) {
                completion(std::nullopt);
                return;
            }
            if (auto bookmark = access_.createBookmark(*folder)) {
                defaults_.set(kKey, PropertyList::data(std::move(*bookmark)));
            }
            activeFolder_ = *folder;
            completion(std::move(folder));
        });
}

void RecordingFolderStore::release() {
    if (activeFolder_) access_.stopAccessing(*activeFolder_);
    activeFolder_.reset();
}

} // namespace brightmix
