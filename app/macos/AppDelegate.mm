// The macOS application: a menu-bar item whose panel (a popover) and three windows draw the
// portable views with the AppKit renderer. The delegate builds the system services, the one
// AppModel and the BrightmixApp around it at launch, and finishes a running recording when the
// application terminates.
#import "app/macos/AppDelegate.h"

#include <map>
#include <memory>
#include <os/log.h>
#include <string>

#include "Brightmix/AppModel.h"
#include "Brightmix/BrightmixApp.h"
#include "platform/macos/AppKitHudPanel.h"
#include "platform/macos/AppKitSystemServices.h"
#include "platform/macos/AppKitViewRenderer.h"
#include "platform/macos/AppUpdater.h"
#include "platform/macos/CoreAudioHardware.h"
#include "platform/macos/ExtAudioFileWriter.h"
#include "platform/macos/NSStrings.h"
#include "platform/macos/PreferencesDefaults.h"
#include "platform/macos/QuartzEventTap.h"
#include "platform/macos/RunLoopMainLoop.h"

// Tells the shell when one of its windows closes.
@interface BMWindowObserver : NSObject <NSWindowDelegate> {
@public
    std::function<void()> closed;
}
@end

@implementation BMWindowObserver
- (void)windowWillClose:(NSNotification*)notification {
    (void)notification;
    brightmix::runCatching("closing a window", closed);
}
@end

namespace brightmix {

namespace {

constexpr const char* kBundleIdentifier = "com.corvale.brightmix";

std::string bundleIdentifier() {
    NSString* identifier = NSBundle.mainBundle.bundleIdentifier;
    return identifier.length > 0 ? std::string(identifier.UTF8String) : kBundleIdentifier;
}

} // namespace

// Everything the application owns, in the order it is built.
class MacShell {
public:
    explicit MacShell(id target)
        : hardware_([](const std::string& message) {
              os_log_error(OS_LOG_DEFAULT, "Brightmix: %{public}s", message.c_str());
          }),
          defaults_(bundleIdentifier()), hud_(&BrightmixApp::hud), updater_([this] { redraw(); }),
          model_(AppServices{hardware_, loop_, defaults_, writer_, workspace_, keys_, permissions_,
                             loginItem_, folders_, hud_, hud_}),
          app_(model_, updater_,
               BrightmixApp::Host{[this](const std::string& id) { show(id); },
                                  [this](const std::string& id) { hide(id); },
                                  [] {
                                      [NSApp activate];
                                      [NSApp orderFrontStandardAboutPanel:nil];
                                  },
                                  [this] { redraw(); }},
               PlatformProfile::macOS()),
          panel_([this](const ui::ActionEvent& event) { app_.perform(event); }) {
        defaults_.setWriteErrorHandler([](const std::string& message) {
            os_log_error(OS_LOG_DEFAULT, "Brightmix: %{public}s", message.c_str());
        });
        statusItem_ = [NSStatusBar.systemStatusBar statusItemWithLength:NSVariableStatusItemLength];
        NSImage* icon = [NSImage imageNamed:@"MenuBarIcon"];
        [icon setTemplate:YES];
        statusItem_.button.image = icon;
        statusItem_.button.target = target;
        statusItem_.button.action = @selector(togglePanel:);

        NSViewController* content = [[NSViewController alloc] init];
        content.view = panel_.view();
        popover_ = [[NSPopover alloc] init];
        popover_.behavior = NSPopoverBehaviorTransient;
        popover_.contentViewController = content;
        redraw();
        app_.launch();
    }

    void togglePanel() {
        if (popover_.shown) {
            [popover_ performClose:nil];
            return;
        }
        app_.panelWillOpen();
        redraw();
        [NSApp activate];
        [popover_ showRelativeToRect:statusItem_.button.bounds
                              ofView:statusItem_.button
                       preferredEdge:NSRectEdgeMinY];
    }

    void willTerminate() { model_.applicationWillTerminate(); }

private:
    struct Window {
        NSWindow* window = nil;
        BMWindowObserver* observer = nil;
        std::unique_ptr<AppKitViewRenderer> renderer;
    };

    void show(const std::string& id) {
        Window& drawn = windows_[id];
        if (!drawn.window) {
            drawn.renderer = std::make_unique<AppKitViewRenderer>(
                [this](const ui::ActionEvent& event) { app_.perform(event); });
            drawn.window = [[NSWindow alloc]
                initWithContentRect:NSMakeRect(0, 0, id == BrightmixApp::kSetupWindow ? 460 : 520,
                                               400)
                          styleMask:NSWindowStyleMaskTitled | NSWindowStyleMaskClosable |
                                    NSWindowStyleMaskResizable
                            backing:NSBackingStoreBuffered
                              defer:YES];
            drawn.window.releasedWhenClosed = NO;
            drawn.window.contentView = drawn.renderer->view();
            drawn.observer = [[BMWindowObserver alloc] init];
            drawn.observer->closed = [this, id] {
                // Closed by the user: the app forgets it; the window goes on the next turn.
                if (app_.isWindowOpen(id)) app_.closeWindow(id);
            };
            drawn.window.delegate = drawn.observer;
            [drawn.window center];
        }
        redraw();
        [NSApp activate];
        [drawn.window makeKeyAndOrderFront:nil];
    }

    void hide(const std::string& id) {
        const auto found = windows_.find(id);
        if (found == windows_.end()) return;
        Window drawn = std::move(found->second);
        windows_.erase(found);
        drawn.window.delegate = nil;
        [drawn.window orderOut:nil];
        // The close may come from a button inside the window: let that action finish first.
        __block Window* later = new Window(std::move(drawn));
        dispatch_async(dispatch_get_main_queue(), ^{
          delete later;
        });
    }

    void redraw() {
        if (isRedrawing_) return; // an action inside a redraw asks again; once is enough
        isRedrawing_ = true;
        runCatching("drawing the panel", [this] {
            panel_.render(app_.panel());
            popover_.contentSize = panel_.view().fittingSize;
            for (auto& [id, drawn] : windows_) {
                if (const std::optional<ui::Node> tree = app_.window(id)) {
                    drawn.renderer->render(*tree);
                    drawn.window.title = nsString(tree->title);
                }
            }
            statusItem_.button.accessibilityLabel = nsString(app_.accessibilityLabel());
            statusItem_.button.toolTip = nsString(app_.accessibilityLabel());
        });
        isRedrawing_ = false;
    }

    CoreAudioHardware hardware_;
    RunLoopMainLoop loop_;
    PreferencesDefaults defaults_;
    ExtAudioFileWriter writer_;
    AppKitWorkspace workspace_;
    QuartzEventTap keys_;
    QuartzPermissions permissions_;
    MainAppLoginItem loginItem_;
    OpenPanelFolders folders_;
    AppKitHudPanel hud_;
    AppUpdater updater_;
    AppModel model_;
    BrightmixApp app_;
    AppKitViewRenderer panel_;
    NSStatusItem* statusItem_ = nil;
    NSPopover* popover_ = nil;
    std::map<std::string, Window> windows_;
    bool isRedrawing_ = false;
};

} // namespace brightmix

@implementation AppDelegate {
    std::unique_ptr<brightmix::MacShell> _shell;
}

- (void)applicationDidFinishLaunching:(NSNotification*)notification {
    (void)notification;
    brightmix::runCatching("starting Brightmix",
                           [self] { _shell = std::make_unique<brightmix::MacShell>(self); });
}

- (void)togglePanel:(id)sender {
    (void)sender;
    brightmix::runCatching("opening the panel", [self] {
        if (_shell) _shell->togglePanel();
    });
}

- (void)applicationWillTerminate:(NSNotification*)notification {
    (void)notification;
    brightmix::runCatching("finishing before quitting", [self] {
        if (_shell) _shell->willTerminate();
    });
    _shell.reset();
}

@end
