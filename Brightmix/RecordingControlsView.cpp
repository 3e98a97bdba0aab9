#include "Brightmix/RecordingControlsView.h"

#include <cmath>

namespace brightmix {

std::string RecordingControlsView::recordTitle(RecordingFormat format) {
    return std::string("Record selected output as ") +
           (format == RecordingFormat::wav ? "WAV" : "M4A");
}

ui::Node RecordingControlsView::body(const AppModel& model, const PlatformProfile& profile) {
    const AppModelState& state = model.state();
    std::vector<ui::Node> children;
    if (state.isRecording) {
        ui::Node stop = ui::button("recording.stop", "Stop recording", "stop.circle.fill",
                                   {"toggleRecording", {}}, ui::ButtonRole::destructive);
        const std::string time = model.recordingTimeText();
        ui::Node duration = ui::text("recording.duration", time, ui::TextRole::monospaced);
        duration.accessibilityLabel = "Recording duration " + time;
        children.push_back(ui::row("recording.controls", {std::move(stop), std::move(duration)}));
    } else {
        ui::Node record = ui::button("recording.start", recordTitle(state.recordingFormat),
                                     "record.circle", {"toggleRecording", {}});
        record.help = "Record the stereo mix before speaker volume, EQ and crossover processing.";
        record.isEnabled = !state.isPreparingRecording;
        children.push_back(ui::row("recording.controls", {std::move(record)}));
        if (state.isPreparingRecording) {
            children.push_back(
                ui::text("recording.preparing", "Preparing to record…", ui::TextRole::caption));
        }
    }
    if (state.recordingMessage) {
        const bool isSaved = state.recordingMessage->rfind("Saved ", 0) == 0;
        const bool isProblem = !isSaved && state.recordingMessage->rfind("Recordings will", 0) != 0;
        std::vector<ui::Node> line{
            ui::text("recording.message", *state.recordingMessage,
                     isProblem ? ui::TextRole::error : ui::TextRole::caption)};
        if (isSaved && state.lastRecordingURL) {
            ui::Node reveal =
                ui::button("recording.reveal", "Show in " + profile.fileManagerName, "folder",
                           {"revealLastRecording", {}}, ui::ButtonRole::link);
            reveal.help = "Show recording in " + profile.fileManagerName;
            line.push_back(std::move(reveal));
        }
        children.push_back(ui::row("recording.result", std::move(line)));
    }
    const double decibels = model.outputMeter().envelope().decibels;
    ui::Node meter = ui::levelMeter("recording.meter", OutputLevelMeter::kAccessibilityLabel,
                                    decibels, OutputLevelMeter::kFloorDecibels, 0,
                                    OutputLevelMeter::displayText(decibels));
    meter.help = "Live output level after volume and sound settings. The recording itself "
                 "captures the clean mix before these settings.";
    children.push_back(std::move(meter));
    return ui::section("recording", "Recording", std::move(children));
}

} // namespace brightmix
