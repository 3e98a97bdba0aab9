#include "platform/macos/CFConversion.h"

#include <vector>

namespace brightmix {

std::string stringFromCFString(CFStringRef text) {
    if (!text) return {};
    if (const char* direct = CFStringGetCStringPtr(text, kCFStringEncodingUTF8)) return direct;
    const CFIndex length = CFStringGetLength(text);
    CFIndex bytes = 0;
    CFStringGetBytes(text, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false, nullptr, 0,
                     &bytes);
    std::string result(static_cast<std::size_t>(bytes), '\0');
    CFStringGetBytes(text, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false,
                     reinterpret_cast<UInt8*>(result.data()), bytes, nullptr);
    return result;
}

CFStringRef createCFString(const std::string& text) {
    const auto* bytes = reinterpret_cast<const UInt8*>(text.data());
    const auto length = static_cast<CFIndex>(text.size());
    if (CFStringRef result = CFStringCreateWithBytes(kCFAllocatorDefault, bytes, length,
                                                     kCFStringEncodingUTF8, false))
        return result;
    return CFStringCreateWithBytes(kCFAllocatorDefault, bytes, length, kCFStringEncodingISOLatin1,
                                   false);
}

CFTypeRef createCFObject(const CFValue& value) {
    switch (value.type) {
    case CFValue::Type::null:
    case CFValue::Type::other:
        return nullptr;
    case CFValue::Type::boolean:
        return CFRetain(value.boolean ? kCFBooleanTrue : kCFBooleanFalse);
    case CFValue::Type::number:
        if (value.numberType == CFValue::NumberType::float64)
            return CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &value.real);
        return CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value.integer);
    case CFValue::Type::string:
        return createCFString(value.text);
    case CFValue::Type::data:
        return CFDataCreate(kCFAllocatorDefault, value.bytes.data(),
                            static_cast<CFIndex>(value.bytes.size()));
    case CFValue::Type::date:
        return CFDateCreate(kCFAllocatorDefault, value.real - kCFAbsoluteTimeIntervalSince1970);
    case CFValue::Type::array: {
        CFMutableArrayRef array = CFArrayCreateMutable(
            kCFAllocatorDefault, static_cast<CFIndex>(value.items.size()), &kCFTypeArrayCallBacks);
        for (const CFValue& item : value.items) {
            CFOwned element(createCFObject(item));
            CFArrayAppendValue(array, element.get() ? element.get() : kCFNull);
        }
        return array;
    }
    case CFValue::Type::dictionary: {
        CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
            kCFAllocatorDefault, static_cast<CFIndex>(value.entries.size()),
            &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
        for (const auto& [key, item] : value.entries) {
            CFOwned cfKey(createCFObject(key));
            CFOwned cfItem(createCFObject(item));
            if (!cfKey.get()) continue;
            CFDictionarySetValue(dictionary, cfKey.get(), cfItem.get() ? cfItem.get() : kCFNull);
        }
        return dictionary;
    }
    }
    return nullptr;
}

namespace {

// `level` is the level a collection at `object` would have.
CFValue cfValueAtLevel(CFTypeRef object, int level) {
    if (!object || object == kCFNull) return {};
    const CFTypeID type = CFGetTypeID(object);
    if ((type == CFArrayGetTypeID() || type == CFDictionaryGetTypeID()) &&
        level > PropertyList::kDeepestNesting)
        return CFValue::makeOther("a collection nested too deeply");
    if (type == CFBooleanGetTypeID())
        return CFValue::makeBoolean(CFBooleanGetValue(static_cast<CFBooleanRef>(object)));
    if (type == CFNumberGetTypeID()) {
        const auto number = static_cast<CFNumberRef>(object);
        if (CFNumberIsFloatType(number)) {
            double real = 0;
            CFNumberGetValue(number, kCFNumberFloat64Type, &real);
            return CFValue::makeReal(real);
        }
        std::int64_t integer = 0;
        CFNumberGetValue(number, kCFNumberSInt64Type, &integer);
        return CFValue::makeInteger(integer);
    }
    if (type == CFStringGetTypeID())
        return CFValue::makeString(stringFromCFString(static_cast<CFStringRef>(object)));
    if (type == CFDataGetTypeID()) {
        const auto data = static_cast<CFDataRef>(object);
        CFValue value;
        value.type = CFValue::Type::data;
        const UInt8* bytes = CFDataGetBytePtr(data);
        value.bytes.assign(bytes, bytes + CFDataGetLength(data));
        return value;
    }
    if (type == CFDateGetTypeID())
        return CFValue::makeDate(CFDateGetAbsoluteTime(static_cast<CFDateRef>(object)) +
                                 kCFAbsoluteTimeIntervalSince1970);
    if (type == CFArrayGetTypeID()) {
        const auto array = static_cast<CFArrayRef>(object);
        CFValue value;
        value.type = CFValue::Type::array;
        for (CFIndex index = 0; index < CFArrayGetCount(array); ++index)
            value.items.push_back(cfValueAtLevel(CFArrayGetValueAtIndex(array, index), level + 1));
        return value;
    }
    if (type == CFDictionaryGetTypeID()) {
        const auto dictionary = static_cast<CFDictionaryRef>(object);
        const CFIndex count = CFDictionaryGetCount(dictionary);
        std::vector<const void*> keys(static_cast<std::size_t>(count));
        std::vector<const void*> items(static_cast<std::size_t>(count));
        CFDictionaryGetKeysAndValues(dictionary, keys.data(), items.data());
        CFValue value;
        value.type = CFValue::Type::dictionary;
        for (std::size_t index = 0; index < keys.size(); ++index)
            value.entries.emplace_back(cfValueAtLevel(keys[index], level + 1),
                                       cfValueAtLevel(items[index], level + 1));
        return value;
    }
    CFOwned name(CFCopyTypeIDDescription(type));
    return CFValue::makeOther(stringFromCFString(static_cast<CFStringRef>(name.get())));
}

} // namespace

CFValue cfValueFromObject(CFTypeRef object) {
    return cfValueAtLevel(object, 1);
}

} // namespace brightmix
