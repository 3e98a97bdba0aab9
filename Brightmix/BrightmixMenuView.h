// The menu-bar panel: the on/off switch and status, the output and input pickers, the
// volume, one card per output of a multi-output device, the callouts that ask for attention,
// the recording controls and the Options menu, as a view tree built from the model.
//
// Thread: control (the main thread). Realtime-safe: no.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Brightmix/AppModel.h"
#include "Brightmix/PlatformProfile.h"
#include "platform/Updater.h"
#include "ui/View.h"

namespace brightmix {

// A warning row with an optional button.
struct Callout {
    std::string symbol;
    std::string message;
    std::string action; // the button's title; empty: no button
    ui::Action perform;
    friend bool operator==(const Callout&, const Callout&) = default;
};

// An entry of the output picker: a present device, or the saved choice that is missing.
struct Option {
    std::optional<AudioDevice> device;
    std::string uid;
    std::string title;
    friend bool operator==(const Option&, const Option&) = default;
};

// One output of the selected multi-output device.
struct OutputCard {
    AudioDevice device;
    std::string name;
    double volume = 1;
    OutputPreset role = OutputPreset::fullRange;
    EqualizerPreset equalizer = EqualizerPreset::flat;
};

// What the panel keeps beyond the model.
struct MenuViewState {
    bool isConfirmingReset = false;
};

struct BrightmixMenuView {
    inline static const std::string kPrivacyPolicyURL = "https://corvale.com/brightmix/privacy";
    inline static const std::string kHUDReplacementRefusedHelp =
        "macOS is not letting Brightmix intercept the volume keys right now, so its volume "
        "indicator cannot be replaced. The keys still move Brightmix’s volume.";
    inline static const std::string kHelpURL = "https://corvale.com/brightmix/help";
    inline static const std::string kSupportMailURL =
        "mailto:support@corvale.com?subject=Brightmix";

    static std::string statusLine(const AppModelState& state, const PlatformProfile& profile = {});
    static std::string volumeHelp(const AppModelState& state, const PlatformProfile& profile = {});
    static std::vector<Option> outputOptions(const AppModel& model);
    static std::vector<OutputCard> outputCards(const AppModel& model);
    static std::vector<Callout> callouts(const AppModel& model, const Updater& updater,
                                         const PlatformProfile& profile = {});

    static ui::Node body(const AppModel& model, const MenuViewState& viewState,
                         const Updater& updater, const PlatformProfile& profile = {});
};

// The menu-bar item's accessibility label, first match wins.
std::string menuBarAccessibilityLabel(const AppModelState& state);

// A level in 0...1 as the whole percentage the panel shows ("%lld").
std::string percentText(double level);

} // namespace brightmix
