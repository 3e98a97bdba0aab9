#include "Brightmix/SetupView.h"

namespace brightmix {

SetupView::SetupView(AppModel& model) : model_(model) {
    poll();
    pollTimer_ = model_.loop().scheduleRepeating(kPollInterval, [this] { poll(); });
}

SetupView::~SetupView() {
    model_.loop().cancel(pollTimer_);
}

void SetupView::poll() {
    model_.refreshPermissions();
    isTrusted_ = model_.permissions().isAccessibilityTrusted();
    canPostEvents_ = model_.permissions().preflightPostEventAccess();
    settingsLaunch.update(model_.workspace().frontmostApplicationBundleID());
}

void SetupView::openInputMonitoring() {
    hasRequestedInputMonitoring = true;
    isWaitingForInputMonitoring = true;
    settingsLaunch.start(model_.loop().now());
    model_.openInputMonitoringSettings();
}

void SetupView::openAccessibility() {
    model_.permissions().requestPostEventAccess();
    hasRequestedAccessibility = true;
    showAccessibilitySteps = true;
    model_.openAccessibilitySettings();
    poll();
}

void SetupView::openSystemAudioRecording() {
    model_.openSystemAudioRecordingSettings();
}

void SetupView::restart() {
    if (model_.workspace().relaunch()) model_.workspace().terminate();
}

bool SetupView::isInputMonitoringGranted() const {
    return model_.state().hasMediaKeyPermission;
}

bool SetupView::isAccessibilityGranted() const {
    return model_.state().hasMediaKeyControlPermission || isTrusted_ || canPostEvents_;
}

std::vector<PermissionRow> SetupView::rows() const {
    const CaptureAccess capture = model_.state().systemAudioCapture;
    return {{"Input Monitoring",
             "Lets the volume keys reach Brightmix so they can move its volume.",
             isInputMonitoringGranted(),
             "Open Input Monitoring Settings",
             {"setupOpenInputMonitoring", {}},
             false},
            {"Accessibility",
             "Replaces the macOS volume indicator with Brightmix’s own. Without it macOS still "
             "shows its indicator, and it will not move.",
             isAccessibilityGranted(),
             "Open Accessibility Settings",
             {"setupOpenAccessibility", {}},
             false},
            {"System Audio Recording",
             "Lets Brightmix hear what your Mac plays, so that it can set the volume of each "
             "output. macOS asks the first time Brightmix switches on. Without it the outputs "
             "go quiet and Brightmix switches itself off again.",
             capture == CaptureAccess::granted || capture == CaptureAccess::notRequired,
             "Open System Audio Recording Settings",
             {"setupOpenSystemAudioRecording", {}},
             capture == CaptureAccess::unknown}};
}

namespace {

ui::Node doneItButton(const std::string& key) {
    return ui::button(key, "I’ve Done It", "arrow.clockwise", {"setupRestart", {}},
                      ui::ButtonRole::primary);
}

ui::Node rowNode(const PermissionRow& row, const std::string& key, std::vector<ui::Node> extra) {
    std::vector<ui::Node> children{
        ui::row(key + ".head", {ui::text(key + ".title", row.title, ui::TextRole::headline),
                                ui::spacer(key + ".space"),
                                ui::image(key + ".state.symbol",
                                          row.isGranted       ? "checkmark.circle.fill"
                                          : row.isUnconfirmed ? "questionmark.circle"
                                                              : "exclamationmark.circle.fill"),
                                ui::text(key + ".state",
                                         row.isGranted       ? "Granted"
                                         : row.isUnconfirmed ? "Not confirmed yet"
                                                             : "Not granted",
                                         ui::TextRole::status)}),
        ui::text(key + ".detail", row.detail, ui::TextRole::help)};
    for (ui::Node& node : extra)
        children.push_back(std::move(node));
    return ui::section(key, "", std::move(children));
}

} // namespace

ui::Node SetupView::body() const {
    const std::vector<PermissionRow> permissionRows = rows();
    const PermissionRow& input = permissionRows[0];
    const PermissionRow& accessibility = permissionRows[1];

    std::vector<ui::Node> inputExtra;
    if (!input.isGranted) {
        if (settingsLaunch.isRunning()) {
            inputExtra.push_back(ui::text("input.opening",
                                          "Opening System Settings… It can take a good few "
                                          "seconds to appear.",
                                          ui::TextRole::status));
        } else if (isWaitingForInputMonitoring) {
            inputExtra.push_back(ui::row(
                "input.finish",
                {ui::image("input.finish.symbol", "hand.point.right"),
                 ui::stack("input.finish.text",
                           {ui::text("input.finish.title", "Finish in System Settings",
                                     ui::TextRole::headline),
                            ui::text("input.finish.detail",
                                     "In Privacy & Security → Input Monitoring, switch on "
                                     "Brightmix, then come back here and press I’ve Done It.",
                                     ui::TextRole::help)})}));
            inputExtra.push_back(ui::row(
                "input.restart",
                {ui::image("input.restart.symbol", "arrow.clockwise.circle.fill"),
                 ui::stack("input.restart.text",
                           {ui::text("input.restart.title",
                                     "Already switched it on? Brightmix must restart",
                                     ui::TextRole::headline),
                            ui::text("input.restart.detail",
                                     "macOS only hands the permission over when the app next "
                                     "starts. Press I’ve Done It and Brightmix restarts to pick "
                                     "it up.",
                                     ui::TextRole::help)})}));
            inputExtra.push_back(doneItButton("input.done"));
        }
        if (!settingsLaunch.isRunning()) {
            inputExtra.push_back(
                ui::button("input.open", input.action, "gearshape", input.perform));
        }
    }

    std::vector<ui::Node> accessibilityExtra;
    if (accessibility.isGranted) {
        if (hasRequestedAccessibility) {
            accessibilityExtra.push_back(ui::text("accessibility.granted",
                                                  "Accessibility is granted — Brightmix must "
                                                  "restart",
                                                  ui::TextRole::status));
            accessibilityExtra.push_back(doneItButton("accessibility.done"));
        }
    } else {
        if (showAccessibilitySteps) {
            ui::Node icon = ui::image("accessibility.icon", "app.icon");
            icon.accessibilityLabel =
                "Brightmix application, draggable into the Accessibility list";
            icon.action = {"dragApplication", {}};
            accessibilityExtra.push_back(
                ui::stack("accessibility.steps",
                          {ui::text("accessibility.step1",
                                    "1. Privacy & Security → Accessibility has opened."),
                           ui::text("accessibility.step2", "2. Switch on Brightmix in the list."),
                           ui::text("accessibility.step3",
                                    "3. If it is not listed, drag this icon into the list:"),
                           ui::row("accessibility.drag",
                                   {std::move(icon),
                                    ui::text("accessibility.drag.label", "Drag me into the list",
                                             ui::TextRole::caption)})}));
        }
        accessibilityExtra.push_back(ui::button("accessibility.open", accessibility.action,
                                                "gearshape", accessibility.perform));
    }

    const PermissionRow& capture = permissionRows[2];
    std::vector<ui::Node> captureExtra;
    if (!capture.isGranted) {
        captureExtra.push_back(ui::text("capture.where",
                                        "In Privacy & Security → Screen & System Audio Recording, "
                                        "switch on Brightmix under System Audio Recording Only, "
                                        "then switch Brightmix on again.",
                                        ui::TextRole::help));
        captureExtra.push_back(
            ui::button("capture.open", capture.action, "gearshape", capture.perform));
    }

    const bool isAllGranted = input.isGranted && accessibility.isGranted;
    return ui::window(
        "setup", "Set Up Brightmix",
        {ui::stack("welcome",
                   {ui::text("welcome.title", "Welcome to Brightmix", ui::TextRole::title),
                    ui::text("welcome.text",
                             "macOS gives a Multi-Output Device no volume control of its own, so "
                             "the volume keys do nothing and its indicator never moves. "
                             "Brightmix fills that gap, and needs two permissions to do it.")}),
         rowNode(input, "input", std::move(inputExtra)),
         rowNode(accessibility, "accessibility", std::move(accessibilityExtra)),
         rowNode(capture, "capture", std::move(captureExtra)),
         ui::text("footer",
                  isAllGranted ? "Permissions are granted. You’re all set."
                               : "Brightmix restarts to pick up new permissions. Skip for now "
                                 "and this window opens again next time, or from Options → Set "
                                 "Up Permissions.",
                  ui::TextRole::caption),
         ui::row("buttons", {ui::spacer("buttons.space"),
                             ui::button("skip", "Skip for now", "", {"closeWindow", {"setup"}},
                                        ui::ButtonRole::cancel),
                             ui::button("done", "Done", "", {"closeWindow", {"setup"}},
                                        ui::ButtonRole::primary)})});
}

ui::Node SetupView::nothingToSetUp() {
    return ui::window(
        "setup", "Set Up Brightmix",
        {ui::text("welcome.title", "Welcome to Brightmix", ui::TextRole::title),
         ui::text("nothing",
                  "There is nothing to set up on this system: the desktop’s own volume keys and "
                  "indicator need no extra permission, and Brightmix is ready to use."),
         ui::row("buttons", {ui::spacer("buttons.space"),
                             ui::button("done", "Done", "", {"closeWindow", {"setup"}},
                                        ui::ButtonRole::primary)})});
}

} // namespace brightmix
