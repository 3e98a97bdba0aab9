#include "platform/macos/AppKitHudPanel.h"

#import <AppKit/AppKit.h>
#import <QuartzCore/QuartzCore.h>

#include "platform/macos/AppKitViewRenderer.h"
#include "platform/macos/RunLoopMainLoop.h"

@interface NonactivatingHUDPanel : NSPanel
@end

@implementation NonactivatingHUDPanel
- (BOOL)canBecomeKeyWindow {
    return NO;
}
- (BOOL)canBecomeMainWindow {
    return NO;
}
@end

namespace brightmix {

namespace {

constexpr NSRect kContentRect = {{0, 0}, {250, 70}};
constexpr NSWindowLevel kStatusLevel = 25;
constexpr NSWindowCollectionBehavior kCollectionBehavior =
    NSWindowCollectionBehaviorCanJoinAllSpaces | NSWindowCollectionBehaviorTransient |
    NSWindowCollectionBehaviorIgnoresCycle | NSWindowCollectionBehaviorFullScreenAuxiliary;
static_assert(kCollectionBehavior == 329);

ScreenRect rect(NSRect frame) {
    return {frame.origin.x, frame.origin.y, frame.size.width, frame.size.height};
}

Screen screen(NSScreen* screen) {
    return {rect(screen.frame), rect(screen.visibleFrame)};
}

} // namespace

struct AppKitHudPanel::Impl {
    std::function<ui::Node(const HudContent&)> view;
    NonactivatingHUDPanel* panel = nil;
    std::unique_ptr<AppKitViewRenderer> renderer;
};

AppKitHudPanel::AppKitHudPanel(std::function<ui::Node(const HudContent&)> view)
    : impl_(std::make_unique<Impl>()) {
    impl_->view = std::move(view);
    impl_->renderer = std::make_unique<AppKitViewRenderer>(nullptr);
    NonactivatingHUDPanel* panel =
        [[NonactivatingHUDPanel alloc] initWithContentRect:kContentRect
                                                 styleMask:NSWindowStyleMaskNonactivatingPanel
                                                   backing:NSBackingStoreBuffered
                                                     defer:YES];
    NSVisualEffectView* background = [[NSVisualEffectView alloc] initWithFrame:kContentRect];
    background.material = NSVisualEffectMaterialHUDWindow;
    background.blendingMode = NSVisualEffectBlendingModeBehindWindow;
    background.state = NSVisualEffectStateActive;
    background.wantsLayer = YES;
    background.layer.cornerRadius = 16;
    background.layer.masksToBounds = YES;
    background.layer.borderWidth = 0.5;
    background.layer.borderColor = [[NSColor whiteColor] colorWithAlphaComponent:0.16].CGColor;
    NSView* content = impl_->renderer->view();
    [background addSubview:content];
    [NSLayoutConstraint activateConstraints:@[
        [content.leadingAnchor constraintEqualToAnchor:background.leadingAnchor constant:14],
        [content.trailingAnchor constraintEqualToAnchor:background.trailingAnchor constant:-14],
        [content.centerYAnchor constraintEqualToAnchor:background.centerYAnchor],
    ]];
    panel.contentView = background;
    panel.opaque = NO;
    panel.backgroundColor = NSColor.clearColor;
    panel.appearance = [NSAppearance appearanceNamed:NSAppearanceNameVibrantDark];
    panel.hasShadow = YES;
    panel.level = kStatusLevel;
    panel.ignoresMouseEvents = YES;
    panel.hidesOnDeactivate = NO;
    panel.collectionBehavior = kCollectionBehavior;
    panel.releasedWhenClosed = NO;
    panel.alphaValue = 0;
    impl_->panel = panel;
}

AppKitHudPanel::~AppKitHudPanel() {
    [impl_->panel orderOut:nil];
}

void AppKitHudPanel::setContent(const HudContent& content) {
    impl_->renderer->render(impl_->view(content));
}

void AppKitHudPanel::setFrameOrigin(ScreenPoint origin) {
    [impl_->panel setFrameOrigin:NSMakePoint(origin.x, origin.y)];
}

void AppKitHudPanel::setAlpha(double alpha) {
    impl_->panel.alphaValue = alpha;
}

void AppKitHudPanel::orderFrontRegardless() {
    [impl_->panel orderFrontRegardless];
}

void AppKitHudPanel::orderOut() {
    [impl_->panel orderOut:nil];
}

void AppKitHudPanel::animateAlpha(double alpha, double duration, std::function<void()> completion) {
    NonactivatingHUDPanel* panel = impl_->panel;
    auto done = std::make_shared<std::function<void()>>(std::move(completion));
    [NSAnimationContext
        runAnimationGroup:^(NSAnimationContext* context) {
          context.duration = duration;
          panel.animator.alphaValue = alpha;
        }
        completionHandler:^{
          runCatching("the indicator's fade", *done);
        }];
}

std::vector<Screen> AppKitHudPanel::screens() const {
    std::vector<Screen> result;
    for (NSScreen* each in NSScreen.screens)
        result.push_back(screen(each));
    return result;
}

std::optional<Screen> AppKitHudPanel::mainScreen() const {
    NSScreen* main = NSScreen.mainScreen;
    if (!main) return std::nullopt;
    return screen(main);
}

ScreenPoint AppKitHudPanel::mouseLocation() const {
    const NSPoint point = NSEvent.mouseLocation;
    return {point.x, point.y};
}

} // namespace brightmix
