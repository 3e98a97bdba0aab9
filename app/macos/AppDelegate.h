// The application delegate of the macOS app (see AppDelegate.mm).
#pragma once

#import <AppKit/AppKit.h>

@interface AppDelegate : NSObject <NSApplicationDelegate>
- (void)togglePanel:(id)sender;
@end
