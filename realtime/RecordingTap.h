/*
 * The real-time half of recording: once per IO cycle, before the render, the router's
 * IOProc hands the captured input to the tap, which converts it to interleaved stereo
 * float in a fixed scratch buffer and queues it on the attached file.
 *
 * The file is reached through RecordingFile so that the core stays portable: each platform
 * supplies an asynchronous, real-time-safe write (ExtAudioFileWriteAsync on Apple, a
 * lock-free ring drained by a writer thread elsewhere).
 *
 * Compiles as C11 and C++20.
 */
#pragma once

#include <stdbool.h>
#include <stdint.h>

#include "realtime/CoreAudioShapes.h"

#ifdef __cplusplus
extern "C" {
#endif

struct RecordingFile;

/* Queues frames of interleaved stereo float (one buffer, two channels, frames x 8 bytes).
 * Same contract as ExtAudioFileWriteAsync: real-time safe once primed, never blocks on the
 * disk, non-zero = error. A file whose writeAsync is null is never written.
 * Thread: render (and control once, to prime). Realtime-safe: yes. */
typedef int32_t (*RecordingFileWriteFunction)(const struct RecordingFile* file, uint32_t frames,
                                              const AudioBufferList* data);

struct RecordingFile {
    RecordingFileWriteFunction writeAsync;
    void* context;
};

/* Frames of scratch space per chunk handed to the file. */
enum { kRecordingTapChunkFrames = 1024 };

struct RecordingTap;

/* A tap with no file attached, or null when memory is short.
 * Thread: control. Realtime-safe: no. */
struct RecordingTap* RecordingTapCreate(void);

/* Detaches (waiting for the IO thread to leave) and frees.
 * Thread: control. Realtime-safe: no. */
void RecordingTapDestroy(struct RecordingTap* tap);

/* Attaches a file and zeroes the frame count and status; false for a null tap or file, or
 * when a file is already attached (the attached one is left undisturbed).
 * Thread: control. Realtime-safe: yes. */
bool RecordingTapAttach(struct RecordingTap* tap, struct RecordingFile* file);

/* Detaches the file, then sleeps in 100 µs steps until no IO cycle is inside
 * RecordingTapWrite; afterwards the old file is no longer touched.
 * Thread: control. Realtime-safe: no (it sleeps). */
void RecordingTapDetach(struct RecordingTap* tap);

/* Frames queued since the last attach; 0 for null. Thread: any. Realtime-safe: yes. */
uint64_t RecordingTapFramesWritten(const struct RecordingTap* tap);

/* First non-zero write result since the last attach, 0 if none or null.
 * Thread: any. Realtime-safe: yes. */
int32_t RecordingTapStatus(const struct RecordingTap* tap);

/* Queues this cycle's input on the attached file, if any, in chunks of
 * kRecordingTapChunkFrames; stops at the first write error until the next attach.
 * Thread: render. Realtime-safe: yes. */
void RecordingTapWrite(struct RecordingTap* tap, const AudioBufferList* input);

#ifdef __cplusplus
}
#endif
