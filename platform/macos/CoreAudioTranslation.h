// The decisions of the macOS layer, kept apart from the Objective-C++ that carries them out so
// that they build and are tested on every system: how property-list values become Core
// Foundation values and back, which tap description a `TapDescription` asks for, what an
// aggregate description must hold before the HAL sees it, and which recording formats the
// system's file writer is given.
//
// `CFValue` is a plain picture of a Core Foundation property-list object. The Objective-C++
// side (CFConversion.mm) turns it into real CF objects and real CF objects into it, one type
// for one type, without deciding anything.
//
// Thread: any (plain values). Realtime-safe: no (it allocates).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/AudioHardware.h"
#include "platform/CoreAudioConstants.h"
#include "platform/PropertyList.h"
#include "realtime/CoreAudioShapes.h"

namespace brightmix {

struct CFValue {
    enum class Type {
        null,       // no object (a null reference, or kCFNull)
        boolean,    // CFBoolean
        number,     // CFNumber, created as `numberType`
        string,     // CFString, as UTF-8
        data,       // CFData
        array,      // CFArray
        dictionary, // CFDictionary; keys may be of any type, as CF allows
        date,       // CFDate, as seconds since 1970
        other,      // any other CF type: `text` holds its type's name
    };
    // The CFNumber type a number is created with or was read as.
    enum class NumberType { sInt64, float64 };

    Type type = Type::null;

    bool boolean = false;
    NumberType numberType = NumberType::sInt64;
    std::int64_t integer = 0; // sInt64 numbers
    double real = 0;          // float64 numbers and dates
    std::string text;
    std::vector<std::uint8_t> bytes;
    std::vector<CFValue> items;
    std::vector<std::pair<CFValue, CFValue>> entries;

    static CFValue makeBoolean(bool flag);
    static CFValue makeInteger(std::int64_t number);
    static CFValue makeReal(double number);
    static CFValue makeString(std::string text);
    static CFValue makeDate(double secondsSince1970);
    static CFValue makeOther(std::string typeName);

    friend bool operator==(const CFValue&, const CFValue&) = default;
};

// A property-list value as CF holds it. CF has no unsigned 64-bit number: an unsigned integer
// that fits in SInt64 becomes one, a larger one becomes the nearest Float64. Dictionary entries
// keep their (sorted) order.
CFValue cfValueFromPropertyList(const PropertyList& value);

// A CF value as a property list. Numbers read as Float64 stay reals even when whole; a date
// becomes the real number of seconds since 1970. What a property list cannot hold (an entry
// whose key is not a string, an object of another CF type, an array or dictionary nested
// deeper than PropertyList::kDeepestNesting levels) is left out, and `*dropped`, when given,
// counts what was left out (a container once, with all it holds); a top-level value of another
// type reads as null.
PropertyList propertyListFromCFValue(const CFValue& value, std::size_t* dropped = nullptr);

// The CATapDescription a tap description asks for.
struct TapFields {
    enum class Initializer {
        stereoGlobalTapButExcludeProcesses,    // initStereoGlobalTapButExcludeProcesses:
        excludingProcessesAndDeviceWithStream, // initExcludingProcesses:andDeviceUID:withStream:
        stereoMixdownOfProcesses,              // initStereoMixdownOfProcesses:
    };

    Initializer initializer = Initializer::stereoGlobalTapButExcludeProcesses;
    std::vector<AudioObjectID> processes; // the NSNumbers of the initialiser's array
    std::string deviceUID;
    std::int64_t stream = 0;
    std::string name;
    bool isPrivate = false;
    bool isProcessRestoreEnabled = false;
    std::int64_t muteBehavior = kCATapUnmuted; // CATapMuteBehavior

    friend bool operator==(const TapFields&, const TapFields&) = default;
};

// Checks a tap description and fills `*fields`. Unknown process objects (0) are left out, as
// the HAL refuses a whole tap over one of them ('!obj'), and repeated ones are listed once.
// Answers kAudio_ParamError, with `*fields` untouched, for a device tap without a device UID
// or with a negative stream index, a mute behaviour outside CATapMuteBehavior, or a mixdown
// of named processes that names none (it could only ever be silent).
OSStatus tapFieldsFromDescription(const TapDescription& description, TapFields* fields);

// Checks an aggregate description and turns it into the dictionary the HAL is given. It must
// be a dictionary with a non-empty "uid"; "subdevices" and "taps", when present, arrays of
// dictionaries with a non-empty "uid" each. The flags and counts that the HAL documents as
// CFNumbers ("private", "stacked", "tapautostart", and "drift", "drift quality" and the
// channel and latency counts of members and taps) become numbers when given as Booleans.
// Answers kAudio_ParamError, with `*problem` saying what is wrong, otherwise 0.
OSStatus aggregateDescriptionValue(const PropertyList& description, CFValue* value,
                                   std::string* problem);

// Whether the system's file writer is given a format it can create: a WAV file holds linear
// PCM, an M4A file AAC at 8 to 48 kHz; both need channels and a positive, finite sample rate.
// Answers 0, kAudioFileUnsupportedFileTypeError for another file type, or
// kAudioFormatUnsupportedDataFormatError ('fmt?').
OSStatus recordingFormatStatus(AudioFileTypeID fileType, const AudioStreamBasicDescription& format);

} // namespace brightmix
