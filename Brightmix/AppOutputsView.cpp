#include "Brightmix/AppOutputsView.h"

#include <algorithm>

namespace brightmix {

namespace {

const AudioDevice* findOutput(const AppModelState& state, const std::string& uid) {
    for (const AudioDevice& device : state.outputDevices) {
        if (device.uid == uid) return &device;
    }
    return nullptr;
}

bool hasRule(const AppModelState& state, const std::string& bundleID) {
    return std::any_of(state.appOutputRules.begin(), state.appOutputRules.end(),
                       [&](const AppOutputRule& rule) { return rule.bundleID == bundleID; });
}

ui::Node ruleRow(const AppModel& model, const AppOutputRule& rule) {
    const AppModelState& state = model.state();
    const AudioDevice* output = findOutput(state, rule.outputUID);
    const std::string prefix = "rule." + rule.bundleID;
    std::vector<ui::Option> options;
    for (const AudioDevice& device : state.outputDevices) {
        options.push_back({device.uid, model.displayName(device, DeviceDirection::output)});
    }
    if (output == nullptr) {
        options.push_back({rule.outputUID, rule.outputName + " (disconnected)", false});
    }
    ui::Node picker =
        ui::picker(prefix + ".output", "Output for " + rule.appName, std::move(options),
                   rule.outputUID, {"setRuleOutput", {rule.bundleID}});
    std::vector<ui::Node> children{
        ui::row(prefix + ".line",
                {ui::image(prefix + ".icon", "app"),
                 ui::text(prefix + ".name", rule.appName, ui::TextRole::headline),
                 ui::image(prefix + ".arrow", "arrow.right"), std::move(picker),
                 ui::button(prefix + ".remove", "Remove " + rule.appName + " rule", "minus.circle",
                            {"removeRule", {rule.bundleID}}, ui::ButtonRole::plain)})};
    if (output == nullptr) {
        children.push_back(ui::text(prefix + ".waiting",
                                    "This rule will resume when its output reconnects.",
                                    ui::TextRole::caption));
    }
    return ui::stack(prefix, std::move(children));
}

} // namespace

std::vector<AppOutputsEditor::Candidate> AppOutputsEditor::runningCandidates() const {
    std::vector<Candidate> candidates;
    for (const PlayingApp& app : model_.playingApps().apps()) {
        const std::optional<std::string> bundleID =
            model_.workspace().bundleIdentifier(app.bundleURL);
        if (!bundleID || bundleID->empty() || hasRule(model_.state(), *bundleID)) continue;
        candidates.push_back({*bundleID, app.name});
    }
    return candidates;
}

void AppOutputsEditor::addApp(const std::string& bundleID, const std::string& name) {
    message_.reset();
    const AppModelState& state = model_.state();
    if (hasRule(state, bundleID)) return;
    const AudioDevice* output = nullptr;
    if (state.selectedDeviceUID) output = findOutput(state, *state.selectedDeviceUID);
    if (output == nullptr && !state.outputDevices.empty()) output = &state.outputDevices.front();
    if (output == nullptr) {
        message_ = kAddFailedMessage;
        return;
    }
    std::vector<AppOutputRule> rules = state.appOutputRules;
    rules.push_back(
        {bundleID, name, output->uid, model_.displayName(*output, DeviceDirection::output)});
    model_.setAppOutputRules(std::move(rules));
}

void AppOutputsEditor::addApplication(const std::string& bundlePath) {
    const std::optional<std::string> bundleID = model_.workspace().bundleIdentifier(bundlePath);
    if (!bundleID || bundleID->empty()) {
        message_ = kNoBundleIdentifierMessage;
        return;
    }
    std::string name = model_.workspace().bundleName(bundlePath).value_or("");
    if (name.empty()) name = model_.workspace().displayName(bundlePath);
    addApp(*bundleID, name);
}

void AppOutputsEditor::chooseApplication() {
    message_.reset();
    model_.folderAccess().chooseApplication(kChooserMessage, kApplicationsFolder,
                                            [this](std::optional<std::string> path) {
                                                if (path) addApplication(*path);
                                            });
}

void AppOutputsEditor::setOutput(const std::string& bundleID, const std::string& outputUID) {
    const AppModelState& state = model_.state();
    const AudioDevice* output = findOutput(state, outputUID);
    if (output == nullptr) return;
    std::vector<AppOutputRule> rules = state.appOutputRules;
    for (AppOutputRule& rule : rules) {
        if (rule.bundleID != bundleID) continue;
        rule.outputUID = output->uid;
        rule.outputName = model_.displayName(*output, DeviceDirection::output);
    }
    model_.setAppOutputRules(std::move(rules));
}

void AppOutputsEditor::remove(const std::string& bundleID) {
    std::vector<AppOutputRule> rules = model_.state().appOutputRules;
    std::erase_if(rules, [&](const AppOutputRule& rule) { return rule.bundleID == bundleID; });
    model_.setAppOutputRules(std::move(rules));
}

ui::Node AppOutputsView::body(const AppModel& model, const AppOutputsEditor& editor,
                              const PlatformProfile& profile) {
    const AppModelState& state = model.state();
    std::vector<ui::Node> rules;
    for (const AppOutputRule& rule : state.appOutputRules)
        rules.push_back(ruleRow(model, rule));

    std::vector<ui::MenuEntry> add;
    for (const AppOutputsEditor::Candidate& candidate : editor.runningCandidates()) {
        add.push_back(ui::menuItem("add." + candidate.bundleID, candidate.name,
                                   {"addRule", {candidate.bundleID, candidate.name}}));
    }
    if (!add.empty()) add.push_back(ui::menuSeparator("add.separator"));
    add.push_back(ui::menuItem("add.choose", "Choose Application…", {"chooseApplication", {}}));

    std::vector<ui::Node> children{
        ui::section("switching", "",
                    {ui::toggle("automatic", "Automatically switch by app",
                                state.automaticallySwitchApps, {"setAutomaticallySwitchApps", {}}),
                     ui::text("automatic.help",
                              "While Brightmix is on, playing an app selects its saved system "
                              "output and restores that output’s sound settings.",
                              ui::TextRole::help),
                     ui::text("status", "Status: " + state.appOutputStatus, ui::TextRole::status),
                     ui::text("rule",
                              "The most recently started app takes priority after about two "
                              "seconds of playback. Brief pauses keep the current output. When "
                              "all apps stop, the output stays as it is. A manual output choice "
                              "holds until new app playback starts.",
                              ui::TextRole::caption),
                     ui::text("privacy",
                              "This changes the system output for other apps too. Playback "
                              "detection stays on " +
                                  profile.computerName + " and does not save audio.",
                              ui::TextRole::caption)}),
    };
    if (rules.empty()) {
        children.push_back(
            ui::section("rules", "",
                        {ui::list("rules.list", {}, "No app outputs"),
                         ui::text("rules.hint", "Add Podcasts, Spotify, or another app below.",
                                  ui::TextRole::caption)}));
    } else {
        children.push_back(ui::section("rules", "", {ui::list("rules.list", std::move(rules))}));
    }
    std::vector<ui::Node> footer{ui::menu("add", "Add App", "plus", std::move(add))};
    if (editor.message()) {
        footer.push_back(ui::text("add.message", *editor.message(), ui::TextRole::error));
    }
    footer.push_back(ui::spacer("footer.space"));
    footer.push_back(ui::text("footer", "Rules are saved automatically", ui::TextRole::caption));
    children.push_back(ui::row("footer.row", std::move(footer)));
    return ui::window("app-outputs", "App Outputs", std::move(children));
}

} // namespace brightmix
