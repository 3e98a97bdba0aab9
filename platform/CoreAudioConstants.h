// Core Audio's vocabulary for the platform boundary: property selectors, scopes, elements,
// status codes, transport types and the other constants the core uses, with Core Audio's
// names and values, so that the macOS backend passes them straight through and every
// other backend translates into them.
//
// Thread: any. Realtime-safe: yes (constants only).
#pragma once

#include <cstddef>
#include <cstdint>

#include "realtime/CoreAudioShapes.h"

namespace brightmix {

using AudioObjectPropertySelector = UInt32;
using AudioObjectPropertyScope = UInt32;
using AudioObjectPropertyElement = UInt32;
using AudioClassID = UInt32;
using AudioFileTypeID = UInt32;

// 'abcd' as Core Audio spells a four-character code: the first character in the top byte.
constexpr UInt32 fourCharCode(const char (&code)[5]) {
    return (UInt32(static_cast<unsigned char>(code[0])) << 24) |
           (UInt32(static_cast<unsigned char>(code[1])) << 16) |
           (UInt32(static_cast<unsigned char>(code[2])) << 8) |
           UInt32(static_cast<unsigned char>(code[3]));
}

inline constexpr AudioObjectID kAudioObjectUnknown = 0;
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;

// Scopes and elements.
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = fourCharCode("glob");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeInput = fourCharCode("inpt");
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeOutput = fourCharCode("outp");
inline constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

// Object properties.
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyClass = fourCharCode("clas");
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyName = fourCharCode("lnam");

// System object.
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices = fourCharCode("dev#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultInputDevice =
    fourCharCode("dIn ");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultOutputDevice =
    fourCharCode("dOut");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyProcessObjectList =
    fourCharCode("prs#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyTranslatePIDToProcessObject =
    fourCharCode("id2p");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyTapList = fourCharCode("tps#");
// Changes when the audio service was reset: everything the client knew is gone.
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyServiceRestarted =
    fourCharCode("srst");

// Devices.
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID = fourCharCode("uid ");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyTransportType =
    fourCharCode("tran");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreams = fourCharCode("stm#");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyNominalSampleRate =
    fourCharCode("nsrt");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyStreamConfiguration =
    fourCharCode("slay");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyVolumeScalar =
    fourCharCode("volm");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceIsRunning =
    fourCharCode("goin");
// Which of a device's streams in one direction reach one IOProc: an
// AudioHardwareIOProcStreamUsage (below), in the input or output scope.
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyIOProcStreamUsage =
    fourCharCode("suse");

// Streams.
inline constexpr AudioObjectPropertySelector kAudioStreamPropertyVirtualFormat =
    fourCharCode("sfmt");

// Aggregate devices.
inline constexpr AudioObjectPropertySelector kAudioAggregateDevicePropertyFullSubDeviceList =
    fourCharCode("grup");
inline constexpr AudioObjectPropertySelector kAudioAggregateDevicePropertyComposition =
    fourCharCode("acom");
inline constexpr AudioObjectPropertySelector kAudioAggregateDevicePropertyMainSubDevice =
    fourCharCode("amst");

// Processes.
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyPID = fourCharCode("ppid");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyBundleID = fourCharCode("pbid");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyDevices = fourCharCode("pdv#");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyIsRunningOutput =
    fourCharCode("piro");

// Taps.
inline constexpr AudioObjectPropertySelector kAudioTapPropertyUID = fourCharCode("tuid");
inline constexpr AudioObjectPropertySelector kAudioTapPropertyFormat = fourCharCode("tfmt");

// Class IDs.
inline constexpr AudioClassID kAudioSystemObjectClassID = fourCharCode("asys");
inline constexpr AudioClassID kAudioDeviceClassID = fourCharCode("adev");
inline constexpr AudioClassID kAudioAggregateDeviceClassID = fourCharCode("aagg");
inline constexpr AudioClassID kAudioStreamClassID = fourCharCode("astr");
inline constexpr AudioClassID kAudioProcessClassID = fourCharCode("clnt");
inline constexpr AudioClassID kAudioTapClassID = fourCharCode("tcls");

// Transport types.
inline constexpr UInt32 kAudioDeviceTransportTypeUnknown = 0;
inline constexpr UInt32 kAudioDeviceTransportTypeBuiltIn = fourCharCode("bltn");
inline constexpr UInt32 kAudioDeviceTransportTypeAggregate = fourCharCode("grup");
inline constexpr UInt32 kAudioDeviceTransportTypeVirtual = fourCharCode("virt");
inline constexpr UInt32 kAudioDeviceTransportTypePCI = fourCharCode("pci ");
inline constexpr UInt32 kAudioDeviceTransportTypeUSB = fourCharCode("usb ");
inline constexpr UInt32 kAudioDeviceTransportTypeBluetooth = fourCharCode("blue");
inline constexpr UInt32 kAudioDeviceTransportTypeHDMI = fourCharCode("hdmi");
inline constexpr UInt32 kAudioDeviceTransportTypeDisplayPort = fourCharCode("dprt");
inline constexpr UInt32 kAudioDeviceTransportTypeAirPlay = fourCharCode("airp");
inline constexpr UInt32 kAudioDeviceTransportTypeThunderbolt = fourCharCode("thun");

// Aggregate description and composition keys. The system's own AudioHardware.h defines them as
// macros with the same texts; where it came first, its macros stand.
#ifndef kAudioAggregateDeviceUIDKey
inline constexpr const char* kAudioAggregateDeviceUIDKey = "uid";
#endif
#ifndef kAudioAggregateDeviceNameKey
inline constexpr const char* kAudioAggregateDeviceNameKey = "name";
#endif
#ifndef kAudioAggregateDeviceSubDeviceListKey
inline constexpr const char* kAudioAggregateDeviceSubDeviceListKey = "subdevices";
#endif
#ifndef kAudioAggregateDeviceMainSubDeviceKey
inline constexpr const char* kAudioAggregateDeviceMainSubDeviceKey = "master";
#endif
#ifndef kAudioAggregateDeviceClockDeviceKey
inline constexpr const char* kAudioAggregateDeviceClockDeviceKey = "clock";
#endif
#ifndef kAudioAggregateDeviceIsPrivateKey
inline constexpr const char* kAudioAggregateDeviceIsPrivateKey = "private";
#endif
#ifndef kAudioAggregateDeviceIsStackedKey
inline constexpr const char* kAudioAggregateDeviceIsStackedKey = "stacked";
#endif
#ifndef kAudioAggregateDeviceTapListKey
inline constexpr const char* kAudioAggregateDeviceTapListKey = "taps";
#endif
#ifndef kAudioAggregateDeviceTapAutoStartKey
inline constexpr const char* kAudioAggregateDeviceTapAutoStartKey = "tapautostart";
#endif
#ifndef kAudioSubDeviceUIDKey
inline constexpr const char* kAudioSubDeviceUIDKey = "uid";
#endif
#ifndef kAudioSubDeviceInputChannelsKey
inline constexpr const char* kAudioSubDeviceInputChannelsKey = "channels-in";
#endif
#ifndef kAudioSubDeviceDriftCompensationKey
inline constexpr const char* kAudioSubDeviceDriftCompensationKey = "drift";
#endif
#ifndef kAudioSubDeviceDriftCompensationQualityKey
inline constexpr const char* kAudioSubDeviceDriftCompensationQualityKey = "drift quality";
#endif
#ifndef kAudioSubTapUIDKey
inline constexpr const char* kAudioSubTapUIDKey = "uid";
#endif
#ifndef kAudioSubTapDriftCompensationKey
inline constexpr const char* kAudioSubTapDriftCompensationKey = "drift";
#endif
#ifndef kAudioSubTapDriftCompensationQualityKey
inline constexpr const char* kAudioSubTapDriftCompensationQualityKey = "drift quality";
#endif
inline constexpr UInt32 kAudioAggregateDriftCompensationHighQuality = 0x60;

// Status codes.
inline constexpr OSStatus kAudioHardwareNoError = 0;
inline constexpr OSStatus kAudioHardwareNotRunningError = OSStatus(fourCharCode("stop"));
inline constexpr OSStatus kAudioHardwareUnspecifiedError = OSStatus(fourCharCode("what"));
inline constexpr OSStatus kAudioHardwareUnknownPropertyError = OSStatus(fourCharCode("who?"));
inline constexpr OSStatus kAudioHardwareBadPropertySizeError = OSStatus(fourCharCode("!siz"));
inline constexpr OSStatus kAudioHardwareIllegalOperationError = OSStatus(fourCharCode("nope"));
inline constexpr OSStatus kAudioHardwareBadObjectError = OSStatus(fourCharCode("!obj"));
inline constexpr OSStatus kAudioHardwareBadDeviceError = OSStatus(fourCharCode("!dev"));
inline constexpr OSStatus kAudioHardwareBadStreamError = OSStatus(fourCharCode("!str"));
inline constexpr OSStatus kAudioHardwareUnsupportedOperationError = OSStatus(fourCharCode("unop"));
inline constexpr OSStatus kAudioHardwareNotReadyError = OSStatus(fourCharCode("nrdy"));
inline constexpr OSStatus kAudioDeviceUnsupportedFormatError = OSStatus(fourCharCode("!dat"));
inline constexpr OSStatus kAudioDevicePermissionsError = OSStatus(fourCharCode("!hog"));
inline constexpr OSStatus kAudio_UnimplementedError = -4;
inline constexpr OSStatus kAudio_FileNotFoundError = -43;
inline constexpr OSStatus kAudio_FilePermissionError = -54;
inline constexpr OSStatus kAudio_ParamError = -50;
inline constexpr OSStatus kAudio_MemFullError = -108;

// Audio files (the recording writer).
inline constexpr AudioFileTypeID kAudioFileWAVEType = fourCharCode("WAVE");
inline constexpr AudioFileTypeID kAudioFileM4AType = fourCharCode("m4af");
inline constexpr OSStatus kAudioFileUnspecifiedError = OSStatus(fourCharCode("wht?"));
inline constexpr OSStatus kAudioFileUnsupportedFileTypeError = OSStatus(fourCharCode("typ?"));
inline constexpr OSStatus kAudioFileUnsupportedDataFormatError = OSStatus(fourCharCode("fmt?"));
inline constexpr OSStatus kAudioFilePermissionsError = OSStatus(fourCharCode("prm?"));
inline constexpr OSStatus kExtAudioFileError_InvalidOperationOrder = -66565;
inline constexpr OSStatus kExtAudioFileError_AsyncWriteTooLarge = -66569;
inline constexpr OSStatus kExtAudioFileError_AsyncWriteBufferOverflow = -66570;
inline constexpr OSStatus kAudioFormatUnsupportedDataFormatError = OSStatus(fourCharCode("fmt?"));

// The payload of kAudioDevicePropertyIOProcStreamUsage, laid out as the system's own: the
// IOProc, then one flag per stream of that direction (0 = off), really mNumberStreams of them,
// so the whole value is ioProcStreamUsageSize(streams) bytes. On the boundary mIOProc holds
// an AudioDeviceIOProcID, and a read needs it filled in before the call.
struct AudioHardwareIOProcStreamUsage {
    void* mIOProc;
    UInt32 mNumberStreams;
    UInt32 mStreamIsOn[1];
};

constexpr std::size_t ioProcStreamUsageSize(std::size_t streams) {
    return offsetof(AudioHardwareIOProcStreamUsage, mStreamIsOn) + streams * sizeof(UInt32);
}

// Tap mute behaviour (CATapMuteBehavior).
inline constexpr int kCATapUnmuted = 0;
inline constexpr int kCATapMuted = 1;
inline constexpr int kCATapMutedWhenTapped = 2;

} // namespace brightmix
