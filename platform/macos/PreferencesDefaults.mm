#include "platform/macos/PreferencesDefaults.h"

#include <Foundation/Foundation.h>

#include "platform/macos/CFConversion.h"

namespace brightmix {

namespace {

CFStringRef createKey(std::string_view key) {
    return createCFString(std::string(key));
}

} // namespace

PreferencesDefaults::PreferencesDefaults(std::string domain) : domain_(std::move(domain)) {}

std::optional<PropertyList> PreferencesDefaults::get(std::string_view key) const {
    CFOwned cfKey(createKey(key));
    CFOwned domain(createCFString(domain_));
    CFOwned value(CFPreferencesCopyAppValue(static_cast<CFStringRef>(cfKey.get()),
                                            static_cast<CFStringRef>(domain.get())));
    if (!value.get()) return std::nullopt;
    const CFValue picture = cfValueFromObject(value.get());
    if (picture.type == CFValue::Type::other) return std::nullopt;
    return propertyListFromCFValue(picture);
}

void PreferencesDefaults::set(std::string_view key, PropertyList value) {
    CFOwned cfKey(createKey(key));
    CFOwned domain(createCFString(domain_));
    CFOwned object(createCFObject(cfValueFromPropertyList(value)));
    // A null value would remove the key; the domain stores an empty string for it instead, as
    // the file store on the other systems does not hold nulls either.
    CFOwned empty(object.get() ? nullptr : createCFString(""));
    CFPreferencesSetAppValue(static_cast<CFStringRef>(cfKey.get()),
                             object.get() ? object.get() : empty.get(),
                             static_cast<CFStringRef>(domain.get()));
    synchronize();
}

void PreferencesDefaults::remove(std::string_view key) {
    CFOwned cfKey(createKey(key));
    CFOwned domain(createCFString(domain_));
    CFPreferencesSetAppValue(static_cast<CFStringRef>(cfKey.get()), nullptr,
                             static_cast<CFStringRef>(domain.get()));
    synchronize();
}

void PreferencesDefaults::removeDomain() {
    @autoreleasepool {
        NSString* name = CFBridgingRelease(createCFString(domain_));
        [[NSUserDefaults standardUserDefaults] removePersistentDomainForName:name];
    }
    synchronize();
}

void PreferencesDefaults::synchronize() {
    CFOwned domain(createCFString(domain_));
    if (CFPreferencesAppSynchronize(static_cast<CFStringRef>(domain.get()))) {
        noteWriteSucceeded();
    } else {
        reportWriteError("The settings could not be saved to the preferences of " + domain_ + ".");
    }
}

} // namespace brightmix
