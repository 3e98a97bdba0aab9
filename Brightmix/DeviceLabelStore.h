// Names the user gives devices in place of their model names, per device UID and direction,
// kept for devices that are not connected so that a device gets its label back when it
// reappears. Stored as JSON under "deviceLabels".
//
// Thread: any (plain values and pure functions). Realtime-safe: no.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Brightmix/AudioDevice.h"
#include "Brightmix/PresetStore.h"

namespace brightmix {

enum class DeviceDirection { output, input };

struct DeviceLabel {
    std::string originalName; // the device's own name when the label was set
    std::string label;        // the user's name for it

    friend bool operator==(const DeviceLabel&, const DeviceLabel&) = default;
};

// One row of the label editor.
struct DeviceLabelRow {
    std::string uid;
    std::string originalName;
    bool isConnected = false;

    friend bool operator==(const DeviceLabelRow&, const DeviceLabelRow&) = default;
};

struct DeviceLabelStore {
    using Labels = std::map<std::string, DeviceLabel, std::less<>>;

    Labels outputs;
    Labels inputs;

    // The label text stored for the UID in that direction, or none.
    std::optional<std::string> label(std::string_view uid, DeviceDirection direction) const;
    // With a text, stores {originalName, text}, replacing an earlier label; with none,
    // removes the UID's label (if any).
    void setLabel(const std::optional<std::string>& text, std::string originalName,
                  const std::string& uid, DeviceDirection direction);
    // Moves labels of stale UIDs to their current UIDs (both directions); an existing label
    // under the current UID wins.
    void remap(const UIDMapping& mapping);

    // The editor's rows for one direction: every present device of that direction in the
    // order given, then the labelled devices that are not present, by UID.
    std::vector<DeviceLabelRow> rows(const std::vector<AudioDevice>& presentDevices,
                                     DeviceDirection direction) const;

    const Labels& labels(DeviceDirection direction) const {
        return direction == DeviceDirection::input ? inputs : outputs;
    }
    Labels& labels(DeviceDirection direction) {
        return direction == DeviceDirection::input ? inputs : outputs;
    }

    bool empty() const { return outputs.empty() && inputs.empty(); }

    friend bool operator==(const DeviceLabelStore&, const DeviceLabelStore&) = default;
};

// The JSON form: {"outputs": {uid: {"originalName": …, "label": …}}, "inputs": {…}}, members
// in that order, compact. Text that is not valid UTF-8 is replaced, so encoding never fails.
std::string encodeDeviceLabels(const DeviceLabelStore& store);
// Both members and, in every label, both string members are required (others are ignored);
// anything else, JSON nesting deeper than kDeepestStoredJSON levels included, gives none,
// never a partial store.
std::optional<DeviceLabelStore> decodeDeviceLabels(std::string_view json);

// White space and line breaks removed from both ends.
std::string trimmedWhitespace(std::string_view text);

} // namespace brightmix
