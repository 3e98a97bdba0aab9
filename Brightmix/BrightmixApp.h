// The application around the model, as every platform shares it: the panel and the three
// windows ("setup", "app-outputs", "device-labels") as view trees, which of them are open,
// the state they keep beyond the model, and the one place where an action sent back by a
// renderer becomes a model operation. The platform's shell creates the model and this, draws
// the trees its `Host` is asked to show, and sends every action to `perform`.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Brightmix/AppModel.h"
#include "Brightmix/AppOutputsView.h"
#include "Brightmix/BrightmixMenuView.h"
#include "Brightmix/SetupView.h"
#include "platform/Updater.h"
#include "ui/View.h"

namespace brightmix {

class BrightmixApp {
public:
    inline static const std::string kSetupWindow = "setup";
    inline static const std::string kAppOutputsWindow = "app-outputs";
    inline static const std::string kDeviceLabelsWindow = "device-labels";

    // What the platform's shell does for the application.
    struct Host {
        std::function<void(const std::string& window)> showWindow;
        std::function<void(const std::string& window)> hideWindow;
        std::function<void()> showAbout;
        // Something the trees show changed: rebuild what is visible.
        std::function<void()> changed;
    };

    BrightmixApp(AppModel& model, Updater& updater, Host host,
                 PlatformProfile profile = PlatformProfile::macOS());
    ~BrightmixApp();
    BrightmixApp(const BrightmixApp&) = delete;
    BrightmixApp& operator=(const BrightmixApp&) = delete;

    // At launch: refreshes the permissions and opens the set-up window when one is missing.
    void launch();

    ui::Node panel() const;
    // The panel is about to show: reads what is too costly to poll every second (the login
    // item's state is a call into another process).
    void panelWillOpen() { model_.refreshLoginItemState(); }
    // The tree of an open window; none when it is not open or unknown.
    std::optional<ui::Node> window(const std::string& identifier) const;
    static ui::Node hud(const HudContent& content);
    std::string accessibilityLabel() const { return menuBarAccessibilityLabel(model_.state()); }

    void openWindow(const std::string& identifier);
    void closeWindow(const std::string& identifier);
    bool isWindowOpen(const std::string& identifier) const;

    // Carries out an action from a rendered tree. False for an action it does not know or
    // whose arguments or value are malformed (nothing happens then).
    bool perform(const ui::ActionEvent& event);

    const MenuViewState& menuState() const { return menuState_; }
    const PlatformProfile& profile() const { return profile_; }
    AppOutputsEditor& appOutputsEditor() { return editor_; }
    SetupView* setupView() { return setup_.get(); }

private:
    void notify() const;
    bool isUpdaterUsable() const {
        return updater_.isAvailable() && updater_.unavailableReason().empty();
    }

    AppModel& model_;
    Updater& updater_;
    Host host_;
    PlatformProfile profile_;
    MenuViewState menuState_;
    AppOutputsEditor editor_;
    std::unique_ptr<SetupView> setup_;
    std::set<std::string> openWindows_;
};

} // namespace brightmix
