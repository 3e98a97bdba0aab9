// The panel's recording section: the record button (or stop and the running duration while
// recording), the last result with "Show in Finder", and the live output level.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <string>

#include "Brightmix/AppModel.h"
#include "Brightmix/PlatformProfile.h"
#include "ui/View.h"

namespace brightmix {

struct RecordingControlsView {
    static std::string recordTitle(RecordingFormat format);
    static ui::Node body(const AppModel& model, const PlatformProfile& profile = {});
};

} // namespace brightmix
