// Core Foundation objects to and from CFValue, one CF type for one value type and nothing
// decided here (CoreAudioTranslation decides). Also the two string conversions everything in
// this folder uses.
//
// Thread: any. Realtime-safe: no.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <string>

#include "platform/macos/CoreAudioTranslation.h"

namespace brightmix {

// A new CF object (+1, the caller releases it) for a value; NULL for a null value.
CFTypeRef createCFObject(const CFValue& value);

// The value of a CF object (NULL and kCFNull read as null). Objects of types a property list
// cannot hold read as `other`, and so does an array or dictionary deeper than
// PropertyList::kDeepestNesting levels: values from the system or the preferences may nest
// without limit, or even contain themselves, and every walk over a CFValue recurses per level.
CFValue cfValueFromObject(CFTypeRef object);

// UTF-8 text of a CF string; empty for NULL.
std::string stringFromCFString(CFStringRef text);
// A new CF string (+1) from UTF-8 text; invalid UTF-8 is read as Latin-1 so nothing is lost.
CFStringRef createCFString(const std::string& text);

// Releases a CF object at the end of a scope.
class CFOwned {
public:
    explicit CFOwned(CFTypeRef object = nullptr) : object_(object) {}
    ~CFOwned() {
        if (object_) CFRelease(object_);
    }
    CFOwned(const CFOwned&) = delete;
    CFOwned& operator=(const CFOwned&) = delete;
    CFTypeRef get() const { return object_; }

private:
    CFTypeRef object_;
};

} // namespace brightmix
