#include "Brightmix/DeviceLabelsView.h"

namespace brightmix {

namespace {

ui::Node labelRow(const AppModelState& state, const DeviceLabelRow& row,
                  DeviceDirection direction) {
    const std::string where = directionName(direction);
    const std::string prefix = "label." + where + "." + row.uid;
    const std::string current = state.deviceLabels.label(row.uid, direction).value_or("");
    std::vector<ui::Node> name{ui::text(
        prefix + ".name", row.isConnected ? row.originalName : "Disconnected · " + row.originalName,
        ui::TextRole::headline)};
    ui::Node field = ui::textField(prefix + ".field", current, row.originalName,
                                   {"setDeviceLabel", {where, row.uid, row.originalName}}, true);
    field.accessibilityLabel = "Custom label";
    std::vector<ui::Node> edit{std::move(field)};
    if (!current.empty()) {
        edit.push_back(ui::button(
            prefix + ".clear", "Clear label for " + row.originalName, "xmark.circle.fill",
            {"clearDeviceLabel", {where, row.uid, row.originalName}}, ui::ButtonRole::plain));
    }
    return ui::stack(
        prefix,
        {ui::row(prefix + ".title", std::move(name)), ui::row(prefix + ".edit", std::move(edit)),
         ui::text(prefix + ".uid", "Device identifier: " + row.uid, ui::TextRole::caption)});
}

ui::Node directionSection(const AppModelState& state, DeviceDirection direction) {
    const bool isInput = direction == DeviceDirection::input;
    std::vector<ui::Node> rows;
    for (const DeviceLabelRow& row :
         state.deviceLabels.rows(isInput ? state.inputDevices : state.outputDevices, direction)) {
        rows.push_back(labelRow(state, row, direction));
    }
    const std::string where = directionName(direction);
    return ui::section(where + "s", isInput ? "Inputs" : "Outputs",
                       {ui::list(where + "s.list", std::move(rows), "No devices")});
}

} // namespace

std::string directionName(DeviceDirection direction) {
    return direction == DeviceDirection::input ? "input" : "output";
}

std::optional<DeviceDirection> directionFromName(const std::string& name) {
    if (name == "input") return DeviceDirection::input;
    if (name == "output") return DeviceDirection::output;
    return std::nullopt;
}

ui::Node DeviceLabelsView::body(const AppModel& model) {
    const AppModelState& state = model.state();
    return ui::window(
        "device-labels", "Device Labels",
        {ui::section("switch", "",
                     {ui::toggle("use-labels", "Use custom device labels", state.useDeviceLabels,
                                 {"setUseDeviceLabels", {}}),
                      ui::text("use-labels.help",
                               "Give your speakers and microphones names you recognise. Labels "
                               "appear only in Brightmix. Switch this off to show the original "
                               "device names again.",
                               ui::TextRole::help)}),
         directionSection(state, DeviceDirection::output),
         directionSection(state, DeviceDirection::input),
         ui::text("footer",
                  "Labels are saved automatically and remembered when devices reconnect. Leave a "
                  "label empty to use its original name. App-output rules and sound settings "
                  "stay attached to the same devices.",
                  ui::TextRole::caption)});
}

} // namespace brightmix
