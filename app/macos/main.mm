// Brightmix on macOS: a menu-bar agent (LSUIElement) run by AppKit with its delegate.
#import <AppKit/AppKit.h>

#import "app/macos/AppDelegate.h"

int main(int argc, const char* argv[]) {
    (void)argc;
    (void)argv;
    @autoreleasepool {
        NSApplication* application = [NSApplication sharedApplication];
        AppDelegate* delegate = [[AppDelegate alloc] init];
        application.delegate = delegate;
        application.activationPolicy = NSApplicationActivationPolicyAccessory;
        [application run];
    }
    return 0;
}
