// Draws ui:: view trees with native AppKit controls and sends the actions of their controls
// back: stack views for windows, panels, sections and rows; NSSwitch, NSSlider, NSPopUpButton,
// NSButton with SF Symbols by the names the views give, NSTextField / NSSearchField, a
// view-based NSTableView for lists, NSLevelIndicator, NSImageView, and an NSAlert for a
// confirmation. A new tree for the same view updates the drawn one in place, by node key: a
// slider under the pointer, a field being typed in and an open pop-up keep their state.
//
// Objective-C++ only (the drawn view is an NSView).
//
// Thread: the main thread. Realtime-safe: no.
#pragma once

#import <AppKit/AppKit.h>
#include <functional>
#include <memory>
#include <string>

#include "ui/View.h"

namespace brightmix {

class AppKitViewRenderer {
public:
    using ActionHandler = std::function<void(const ui::ActionEvent&)>;

    explicit AppKitViewRenderer(ActionHandler handler);
    ~AppKitViewRenderer();
    AppKitViewRenderer(const AppKitViewRenderer&) = delete;
    AppKitViewRenderer& operator=(const AppKitViewRenderer&) = delete;

    void render(const ui::Node& tree);

    // The view everything is drawn into; it keeps its identity across renders.
    NSView* view() const;

    // The image for a symbol name: an SF Symbol, or the icon of the file or bundle when the
    // name is a path (an application's icon); nil when neither exists.
    static NSImage* symbolImage(const std::string& symbol, const std::string& description);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace brightmix
