/*
 * The Core Audio value types that the real-time core and the platform boundary speak.
 *
 * On Apple platforms this is the system's own CoreAudioTypes. Everywhere else the same
 * types are declared here with the same names, field names, layouts and constant values,
 * so that code written against them compiles unchanged on both.
 *
 * Thread: any. Realtime-safe: yes (plain types only). Compiles as C11 and C++20.
 */
#pragma once

#if defined(__APPLE__)

#include <CoreAudioTypes/CoreAudioTypes.h>
/* The system declares AudioObjectID with the hardware layer rather than with the value types;
 * the same typedef again is allowed in C11 and C++. */
typedef UInt32 AudioObjectID;

#else

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t UInt8;
typedef uint16_t UInt16;
typedef uint32_t UInt32;
typedef int16_t SInt16;
typedef int32_t SInt32;
typedef uint64_t UInt64;
typedef int64_t SInt64;
typedef float Float32;
typedef double Float64;
typedef SInt32 OSStatus;
typedef UInt32 AudioObjectID;
typedef UInt32 AudioFormatID;
typedef UInt32 AudioFormatFlags;

/* One buffer of an AudioBufferList: interleaved channels, byte size and data. */
struct AudioBuffer {
    UInt32 mNumberChannels;
    UInt32 mDataByteSize;
    void* mData;
};
typedef struct AudioBuffer AudioBuffer;

/* A variable-length list of buffers; really mNumberBuffers entries follow. */
struct AudioBufferList {
    UInt32 mNumberBuffers;
    AudioBuffer mBuffers[1];
};
typedef struct AudioBufferList AudioBufferList;

struct AudioStreamBasicDescription {
    Float64 mSampleRate;
    AudioFormatID mFormatID;
    AudioFormatFlags mFormatFlags;
    UInt32 mBytesPerPacket;
    UInt32 mFramesPerPacket;
    UInt32 mBytesPerFrame;
    UInt32 mChannelsPerFrame;
    UInt32 mBitsPerChannel;
    UInt32 mReserved;
};
typedef struct AudioStreamBasicDescription AudioStreamBasicDescription;

struct SMPTETime {
    SInt16 mSubframes;
    SInt16 mSubframeDivisor;
    UInt32 mCounter;
    UInt32 mType;
    UInt32 mFlags;
    SInt16 mHours;
    SInt16 mMinutes;
    SInt16 mSeconds;
    SInt16 mFrames;
};
typedef struct SMPTETime SMPTETime;

struct AudioTimeStamp {
    Float64 mSampleTime;
    UInt64 mHostTime;
    Float64 mRateScalar;
    UInt64 mWordClockTime;
    SMPTETime mSMPTETime;
    UInt32 mFlags;
    UInt32 mReserved;
};
typedef struct AudioTimeStamp AudioTimeStamp;

enum {
    kAudioFormatLinearPCM = 0x6C70636D, /* 'lpcm' */
    kAudioFormatMPEG4AAC = 0x61616320   /* 'aac ' */
};

enum {
    kAudioFormatFlagIsFloat = (1U << 0),
    kAudioFormatFlagIsBigEndian = (1U << 1),
    kAudioFormatFlagIsSignedInteger = (1U << 2),
    kAudioFormatFlagIsPacked = (1U << 3),
    kAudioFormatFlagIsAlignedHigh = (1U << 4),
    kAudioFormatFlagIsNonInterleaved = (1U << 5),
    kAudioFormatFlagIsNonMixable = (1U << 6),
    kAudioFormatFlagsNativeEndian = 0,
    kAudioFormatFlagsNativeFloatPacked =
        kAudioFormatFlagIsFloat | kAudioFormatFlagsNativeEndian | kAudioFormatFlagIsPacked,

    kLinearPCMFormatFlagIsFloat = kAudioFormatFlagIsFloat,
    kLinearPCMFormatFlagIsBigEndian = kAudioFormatFlagIsBigEndian,
    kLinearPCMFormatFlagIsSignedInteger = kAudioFormatFlagIsSignedInteger,
    kLinearPCMFormatFlagIsPacked = kAudioFormatFlagIsPacked,
    kLinearPCMFormatFlagIsAlignedHigh = kAudioFormatFlagIsAlignedHigh,
    kLinearPCMFormatFlagIsNonInterleaved = kAudioFormatFlagIsNonInterleaved,
    kLinearPCMFormatFlagIsNonMixable = kAudioFormatFlagIsNonMixable
};

/* Outside int range, so not an enumerator in C. */
#define kAudioFormatFlagsAreAllClear 0x80000000U

/* The layouts must match Core Audio's byte for byte (64-bit targets). */
#ifdef __cplusplus
static_assert(sizeof(AudioBuffer) == 16, "AudioBuffer layout");
static_assert(sizeof(AudioBufferList) == 24, "AudioBufferList layout");
static_assert(sizeof(AudioStreamBasicDescription) == 40, "AudioStreamBasicDescription layout");
static_assert(sizeof(AudioTimeStamp) == 64, "AudioTimeStamp layout");
#else
_Static_assert(sizeof(AudioBuffer) == 16, "AudioBuffer layout");
_Static_assert(sizeof(AudioBufferList) == 24, "AudioBufferList layout");
_Static_assert(sizeof(AudioStreamBasicDescription) == 40, "AudioStreamBasicDescription layout");
_Static_assert(sizeof(AudioTimeStamp) == 64, "AudioTimeStamp layout");
#endif

#ifdef __cplusplus
}
#endif

#endif /* __APPLE__ */
