/*
 * The lock-free block shared by the control thread and the router's real-time IO thread,
 * and the render that turns one cycle of the captured mix into every output slot.
 *
 * The control thread (the engine, on the main thread) creates the block, writes parameters
 * through the setters and takes peaks and counters; the IO thread calls ProcessingRender
 * once per cycle. Every function tolerates a null state, ignores slot indices of
 * kProcessingSlotCount or more, and sanitises bad values instead of failing.
 * See docs/REALTIME.md for how values cross between the two threads.
 *
 * Compiles as C11 and C++20.
 */
#pragma once

#include <stdint.h>

#include "realtime/CoreAudioShapes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Number of output slots (buffers of the output list) that keep their own settings. */
enum { kProcessingSlotCount = 64 };

/* Number of channels per slot that the crossover and the equaliser bands filter. */
enum { kProcessingFilteredChannels = 8 };

/* Number of equaliser bands (32 Hz .. 16 kHz, one octave apart). */
enum { kProcessingEqualizerBands = 10 };

/* Speaker role of a slot as the render sees it. */
typedef enum CrossoverMode {
    kCrossoverModeNone = 0,    /* full range: no crossover */
    kCrossoverModeLowPass = 1, /* subwoofer: fourth-order low-pass */
    kCrossoverModeHighPass = 2 /* satellite: fourth-order high-pass */
} CrossoverMode;

struct ProcessingState;

/* Allocates a zero-filled block with the defaults; null when memory is short.
 * Thread: control. Realtime-safe: no. */
struct ProcessingState* ProcessingCreate(float masterGain);

/* Frees the block. The IOProc must have been stopped first.
 * Thread: control. Realtime-safe: no. */
void ProcessingDestroy(struct ProcessingState* state);

/* Stored as given; the caller clamps to 0..1 (mute is a master gain of 0).
 * Thread: control. Realtime-safe: yes. */
void ProcessingSetMasterGain(struct ProcessingState* state, float gain);

/* 1.0 for a null state. Thread: any. Realtime-safe: yes. */
float ProcessingGetMasterGain(const struct ProcessingState* state);

/* Every slot back to its defaults (gain 1, source slot & 1, no crossover, no mono sum,
 * flat equaliser), then publishes a reset that clears all filter state at the next cycle.
 * Crossover frequencies, master gain and sample rate are kept.
 * Thread: control. Realtime-safe: yes. */
void ProcessingResetSlots(struct ProcessingState* state);

/* Publishes a slot's ten band gains (missing bands 0, non-finite 0, clamped to -24..24 dB)
 * and its pre-gain in dB (non-finite 0, unclamped).
 * Thread: control. Realtime-safe: yes. */
void ProcessingSetEqualizer(struct ProcessingState* state, uint32_t slot, const float* gains,
                            uint32_t count, float preGainDb);

/* Sample rate for filter design; ignored unless finite and above 0.
 * Thread: control. Realtime-safe: yes. */
void ProcessingSetSampleRate(struct ProcessingState* state, double sampleRate);

/* Mode 1 or 2 with a positive, finite frequency, else mode 0; the frequency is stored
 * either way. Thread: control. Realtime-safe: yes. */
void ProcessingSetCrossover(struct ProcessingState* state, uint32_t slot, int32_t mode, float hz);

/* Non-zero low byte: the slot receives (left + right) / 2 on every channel.
 * Thread: control. Realtime-safe: yes. */
void ProcessingSetMonoSum(struct ProcessingState* state, uint32_t slot, int32_t flag);

/* Clamped to 0..1 (a NaN is stored as NaN). Thread: control. Realtime-safe: yes. */
void ProcessingSetSlotGain(struct ProcessingState* state, uint32_t slot, float gain);

/* 1.0 for a bad slot or a null state. Thread: any. Realtime-safe: yes. */
float ProcessingGetSlotGain(const struct ProcessingState* state, uint32_t slot);

/* Input channel that feeds a one-channel slot; not validated.
 * Thread: control. Realtime-safe: yes. */
void ProcessingSetSourceChannel(struct ProcessingState* state, uint32_t slot, uint32_t channel);

/* Cycles rendered, and cycles whose input carried signal (|x| > 1e-6); 0 for null.
 * Thread: any. Realtime-safe: yes. */
uint64_t ProcessingRenderCycles(const struct ProcessingState* state);
uint64_t ProcessingSignalCycles(const struct ProcessingState* state);

/* Shape of the last input list seen by the render; each out-pointer may be null.
 * Thread: any. Realtime-safe: yes. */
void ProcessingLastInputFormat(const struct ProcessingState* state, uint32_t* buffers,
                               uint32_t* channels, uint32_t* bytes);

/* Peaks since the last take, returned and reset to 0 in one exchange; 0 for null.
 * Thread: control. Realtime-safe: yes. */
float ProcessingTakeInputPeak(struct ProcessingState* state);
float ProcessingTakeSlotPeak(struct ProcessingState* state, uint32_t slot);
float ProcessingTakeOutputPeak(struct ProcessingState* state);

/* One IO cycle: writes every output buffer completely from the input list (which may be
 * null or empty: silence). A null state renders a plain pass-through. Output buffers with
 * a null data pointer or no channels are left untouched. Filter state that has decayed
 * below 1e-30 is set to 0 at the end of each block of frames, so that silence after loud
 * signal never runs on subnormal numbers; no audible sample changes by it.
 * Thread: render. Realtime-safe: yes (no allocation, lock, system call or logging). */
void ProcessingRender(const AudioBufferList* input, AudioBufferList* output,
                      struct ProcessingState* state);

/* Largest boost in dB (never negative) of the summed equaliser curve of ten gains at a
 * sample rate; 0 for null gains or a rate not above 0.
 * Thread: any. Realtime-safe: yes. */
float EqualizerPeakBoost(const float* gains, double sampleRate);

#ifdef __cplusplus
}
#endif
