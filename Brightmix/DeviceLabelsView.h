// The "Device Labels" window: labels on or off, and a label field per output and input
// device, present ones first, then labelled devices that are not connected.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include "Brightmix/AppModel.h"
#include "ui/View.h"

namespace brightmix {

struct DeviceLabelsView {
    static ui::Node body(const AppModel& model);
};

// "output" / "input", the form actions carry.
std::string directionName(DeviceDirection direction);
std::optional<DeviceDirection> directionFromName(const std::string& name);

} // namespace brightmix
