// UTF-8 text to and from NSString, as every Objective-C++ file of this folder needs it.
// Objective-C++ only. Thread: any. Realtime-safe: no.
#pragma once

#import <Foundation/Foundation.h>
#include <string>
#include <string_view>

namespace brightmix {

// Invalid UTF-8 gives an empty string rather than nil.
inline NSString* nsString(std::string_view text) {
    NSString* result = [[NSString alloc] initWithBytes:text.data()
                                                length:text.size()
                                              encoding:NSUTF8StringEncoding];
    return result ? result : @"";
}

inline std::string stdString(NSString* text) {
    const char* utf8 = text.UTF8String;
    return utf8 ? std::string(utf8) : std::string();
}

} // namespace brightmix
