#include "platform/macos/CoreAudioTranslation.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string_view>

#include "platform/AudioFileWriter.h"

namespace brightmix {

CFValue CFValue::makeBoolean(bool flag) {
    CFValue value;
    value.type = Type::boolean;
    value.boolean = flag;
    return value;
}

CFValue CFValue::makeInteger(std::int64_t number) {
    CFValue value;
    value.type = Type::number;
    value.numberType = NumberType::sInt64;
    value.integer = number;
    return value;
}

CFValue CFValue::makeReal(double number) {
    CFValue value;
    value.type = Type::number;
    value.numberType = NumberType::float64;
    value.real = number;
    return value;
}

CFValue CFValue::makeString(std::string text) {
    CFValue value;
    value.type = Type::string;
    value.text = std::move(text);
    return value;
}

CFValue CFValue::makeDate(double secondsSince1970) {
    CFValue value;
    value.type = Type::date;
    value.real = secondsSince1970;
    return value;
}

CFValue CFValue::makeOther(std::string typeName) {
    CFValue value;
    value.type = Type::other;
    value.text = std::move(typeName);
    return value;
}

CFValue cfValueFromPropertyList(const PropertyList& value) {
    switch (value.kind()) {
    case PropertyList::Kind::null:
        return {};
    case PropertyList::Kind::boolean:
        return CFValue::makeBoolean(*value.asBoolean());
    case PropertyList::Kind::integer:
        return CFValue::makeInteger(*value.asInteger());
    case PropertyList::Kind::unsignedInteger: {
        const std::uint64_t number = *value.asUnsignedInteger();
        if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            return CFValue::makeInteger(static_cast<std::int64_t>(number));
        return CFValue::makeReal(static_cast<double>(number));
    }
    case PropertyList::Kind::real:
        return CFValue::makeReal(*value.asNumber());
    case PropertyList::Kind::string:
        return CFValue::makeString(*value.asString());
    case PropertyList::Kind::data: {
        CFValue result;
        result.type = CFValue::Type::data;
        result.bytes = *value.asData();
        return result;
    }
    case PropertyList::Kind::array: {
        CFValue result;
        result.type = CFValue::Type::array;
        for (const PropertyList& item : *value.asArray())
            result.items.push_back(cfValueFromPropertyList(item));
        return result;
    }
    case PropertyList::Kind::dictionary: {
        CFValue result;
        result.type = CFValue::Type::dictionary;
        for (const auto& [key, item] : *value.asDictionary())
            result.entries.emplace_back(CFValue::makeString(key), cfValueFromPropertyList(item));
        return result;
    }
    }
    return {};
}

namespace {

// `level` is the level a container at `value` would have: one past the bound, a container is
// left out like any value a property list cannot hold.
std::optional<PropertyList> convert(const CFValue& value, std::size_t& dropped, int level) {
    if ((value.type == CFValue::Type::array || value.type == CFValue::Type::dictionary) &&
        level > PropertyList::kDeepestNesting) {
        ++dropped;
        return std::nullopt;
    }
    switch (value.type) {
    case CFValue::Type::null:
        return PropertyList();
    case CFValue::Type::boolean:
        return PropertyList::boolean(value.boolean);
    case CFValue::Type::number:
        if (value.numberType == CFValue::NumberType::float64) return PropertyList::real(value.real);
        return PropertyList::integer(value.integer);
    case CFValue::Type::string:
        return PropertyList::string(value.text);
    case CFValue::Type::data:
        return PropertyList::data(value.bytes);
    case CFValue::Type::date:
        return PropertyList::real(value.real);
    case CFValue::Type::array: {
        PropertyList::Array items;
        for (const CFValue& item : value.items) {
            if (std::optional<PropertyList> converted = convert(item, dropped, level + 1))
                items.push_back(std::move(*converted));
        }
        return PropertyList::array(std::move(items));
    }
    case CFValue::Type::dictionary: {
        PropertyList::Dictionary entries;
        for (const auto& [key, item] : value.entries) {
            if (key.type != CFValue::Type::string) {
                ++dropped;
                continue;
            }
            if (std::optional<PropertyList> converted = convert(item, dropped, level + 1))
                entries.insert_or_assign(key.text, std::move(*converted));
        }
        return PropertyList::dictionary(std::move(entries));
    }
    case CFValue::Type::other:
        ++dropped;
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

PropertyList propertyListFromCFValue(const CFValue& value, std::size_t* dropped) {
    std::size_t count = 0;
    std::optional<PropertyList> converted = convert(value, count, 1);
    if (dropped) *dropped = count;
    return converted ? std::move(*converted) : PropertyList();
}

OSStatus tapFieldsFromDescription(const TapDescription& description, TapFields* fields) {
    TapFields result;
    switch (description.kind) {
    case TapDescription::Kind::stereoGlobalExcludingProcesses:
        result.initializer = TapFields::Initializer::stereoGlobalTapButExcludeProcesses;
        break;
    case TapDescription::Kind::excludingProcessesOnDeviceStream:
        if (description.deviceUID.empty() || description.stream < 0) return kAudio_ParamError;
        result.initializer = TapFields::Initializer::excludingProcessesAndDeviceWithStream;
        result.deviceUID = description.deviceUID;
        result.stream = description.stream;
        break;
    case TapDescription::Kind::stereoMixdownOfProcesses:
        result.initializer = TapFields::Initializer::stereoMixdownOfProcesses;
        break;
    }
    if (description.muteBehavior < kCATapUnmuted ||
        description.muteBehavior > kCATapMutedWhenTapped)
        return kAudio_ParamError;
    for (AudioObjectID process : description.processes) {
        if (process == kAudioObjectUnknown) continue;
        if (std::find(result.processes.begin(), result.processes.end(), process) !=
            result.processes.end())
            continue;
        result.processes.push_back(process);
    }
    if (result.initializer == TapFields::Initializer::stereoMixdownOfProcesses &&
        result.processes.empty())
        return kAudio_ParamError;
    result.name = description.name;
    result.isPrivate = description.isPrivate;
    result.isProcessRestoreEnabled = description.isProcessRestoreEnabled;
    result.muteBehavior = description.muteBehavior;
    *fields = std::move(result);
    return kAudioHardwareNoError;
}

namespace {

bool hasUID(const PropertyList& dictionary) {
    const PropertyList* uid = dictionary.find("uid");
    return uid && uid->asString() && !uid->asString()->empty();
}

// Booleans under these keys become the numbers 0 and 1.
PropertyList numbersForFlags(const PropertyList& dictionary,
                             std::initializer_list<std::string_view> numericKeys) {
    PropertyList::Dictionary entries = *dictionary.asDictionary();
    for (std::string_view key : numericKeys) {
        const auto found = entries.find(key);
        if (found == entries.end()) continue;
        if (std::optional<bool> flag = found->second.asBoolean())
            found->second = PropertyList::integer(*flag ? 1 : 0);
    }
    return PropertyList::dictionary(std::move(entries));
}

// The member or tap list under `key`: each a dictionary with a UID, its flags as numbers.
bool normaliseList(PropertyList::Dictionary& entries, const char* key, std::string* problem) {
    const auto found = entries.find(key);
    if (found == entries.end()) return true;
    const PropertyList::Array* items = found->second.asArray();
    if (!items) {
        *problem = std::string("\"") + key + "\" is not an array";
        return false;
    }
    PropertyList::Array normalised;
    for (std::size_t index = 0; index < items->size(); ++index) {
        const PropertyList& item = (*items)[index];
        if (!item.asDictionary() || !hasUID(item)) {
            *problem = std::string("entry ") + std::to_string(index) + " of \"" + key +
                       "\" is not a dictionary with a \"uid\"";
            return false;
        }
        normalised.push_back(numbersForFlags(item, {"drift", "drift quality", "channels-in",
                                                    "channels-out", "latency-in", "latency-out"}));
    }
    found->second = PropertyList::array(std::move(normalised));
    return true;
}

} // namespace

OSStatus aggregateDescriptionValue(const PropertyList& description, CFValue* value,
                                   std::string* problem) {
    if (!description.asDictionary()) {
        *problem = "the description is not a dictionary";
        return kAudio_ParamError;
    }
    if (!hasUID(description)) {
        *problem = "the description has no \"uid\"";
        return kAudio_ParamError;
    }
    PropertyList normalised = numbersForFlags(description, {"private", "stacked", "tapautostart"});
    PropertyList::Dictionary& entries = *normalised.asDictionary();
    if (!normaliseList(entries, "subdevices", problem) || !normaliseList(entries, "taps", problem))
        return kAudio_ParamError;
    *value = cfValueFromPropertyList(normalised);
    return kAudioHardwareNoError;
}

OSStatus recordingFormatStatus(AudioFileTypeID fileType,
                               const AudioStreamBasicDescription& format) {
    if (fileType != kAudioFileWAVEType && fileType != kAudioFileM4AType)
        return kAudioFileUnsupportedFileTypeError;
    if (format.mChannelsPerFrame == 0 || !std::isfinite(format.mSampleRate) ||
        format.mSampleRate <= 0)
        return kAudioFormatUnsupportedDataFormatError;
    if (fileType == kAudioFileWAVEType)
        return format.mFormatID == kAudioFormatLinearPCM ? kAudioHardwareNoError
                                                         : kAudioFormatUnsupportedDataFormatError;
    if (format.mFormatID != kAudioFormatMPEG4AAC || format.mSampleRate < kAacMinimumSampleRate ||
        format.mSampleRate > kAacMaximumSampleRate)
        return kAudioFormatUnsupportedDataFormatError;
    return kAudioHardwareNoError;
}

} // namespace brightmix
