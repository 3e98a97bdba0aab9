/*
 * A pair of counters with its own IOProc, used by the per-app playback-detection taps to
 * tell whether an app makes sound: frames with an audible sample, and IO cycles.
 *
 * Compiles as C11 and C++20.
 */
#pragma once

#include <stdint.h>

#include "realtime/CoreAudioShapes.h"

#ifdef __cplusplus
extern "C" {
#endif

struct SignalCounter;

/* Zeroed counters, or null when memory is short. Free with free().
 * Thread: control. Realtime-safe: no. */
struct SignalCounter* SignalCounterCreate(void);

/* The counts since the last take, reset to 0 in one exchange; 0 for null.
 * Thread: control. Realtime-safe: yes. */
uint64_t SignalCounterTakeAudibleFrames(struct SignalCounter* counter);
uint64_t SignalCounterTakeCycles(struct SignalCounter* counter);

/* IOProc of a detection aggregate; clientData is the SignalCounter. Counts the frames of
 * the input in which any sample is finite and above 0.0001 in magnitude (largest count of
 * any one buffer), counts the cycle, and zero-fills every output buffer. Returns 0.
 * Thread: render. Realtime-safe: yes. */
OSStatus SignalCounterIOProc(AudioObjectID device, const AudioTimeStamp* now,
                             const AudioBufferList* input, const AudioTimeStamp* inputTime,
                             AudioBufferList* output, const AudioTimeStamp* outputTime,
                             void* clientData);

#ifdef __cplusplus
}
#endif
