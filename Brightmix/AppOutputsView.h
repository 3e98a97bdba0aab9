// The "App Outputs" window: automatic switching on or off with its status, the rules (app →
// output), adding an app from those playing now or by choosing one, changing a rule's output
// and removing a rule. `AppOutputsEditor` holds the window's own state and does the edits
// through the model, which saves the rules.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Brightmix/AppModel.h"
#include "Brightmix/PlatformProfile.h"
#include "ui/View.h"

namespace brightmix {

class AppOutputsEditor {
public:
    inline static const std::string kNoBundleIdentifierMessage =
        "This application has no bundle identifier. Choose another app.";
    inline static const std::string kAddFailedMessage = "Couldn’t add application";
    inline static const std::string kChooserMessage =
        "Choose an app for automatic output switching";
    inline static const std::string kApplicationsFolder = "/Applications";

    // An app the "Add App" menu offers.
    struct Candidate {
        std::string bundleID;
        std::string name;
        friend bool operator==(const Candidate&, const Candidate&) = default;
    };

    explicit AppOutputsEditor(AppModel& model) : model_(model) {}

    // Apps playing now that have a bundle identifier and no rule yet, in display order.
    std::vector<Candidate> runningCandidates() const;
    // A rule for the app sending it to the selected output (or the first output); an app that
    // already has a rule keeps it.
    void addApp(const std::string& bundleID, const std::string& name);
    // Adds the app at a bundle path chosen by the user: its identifier and name from the
    // bundle, or the message why not.
    void addApplication(const std::string& bundlePath);
    // Opens the application chooser in /Applications.
    void chooseApplication();
    void setOutput(const std::string& bundleID, const std::string& outputUID);
    void remove(const std::string& bundleID);

    const std::optional<std::string>& message() const { return message_; }

private:
    AppModel& model_;
    std::optional<std::string> message_;
};

struct AppOutputsView {
    static ui::Node body(const AppModel& model, const AppOutputsEditor& editor,
                         const PlatformProfile& profile = {});
};

} // namespace brightmix
