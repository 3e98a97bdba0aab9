/*
 * Filter designs of the render: the one-octave peaking band of the equaliser and the
 * Butterworth section that, run twice, makes the fourth-order crossover. Pure functions;
 * the render calls them when a parameter changes and the tests check their responses.
 *
 * Thread: any. Realtime-safe: yes. Compiles as C11 and C++20.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Normalised biquad coefficients (a0 = 1), transposed direct form II. */
typedef struct BiquadCoefficients {
    double b0;
    double b1;
    double b2;
    double a1;
    double a2;
} BiquadCoefficients;

/* Centre frequencies of the ten equaliser bands in Hz, band 0 first.
 * Thread: any (constant). Realtime-safe: yes. */
extern const double kEqualizerBandFrequencies[10];

/* Peaking filter one octave wide for band 0..9 (an out-of-range band, or a sample rate
 * that is not finite and positive, designs a unity filter), its centre limited to 0.45 of
 * the sample rate. A gain of 0 dB designs b0 = 1, a1 = b1, a2 = b2: an exact pass-through.
 * Thread: any. Realtime-safe: yes. */
BiquadCoefficients FilterDesignPeakingBand(uint32_t band, double gainDb, double sampleRate);

/* Second-order Butterworth section for CrossoverMode 1 (low-pass) or 2 (high-pass); any
 * other mode, or an unusable sample rate, designs a unity filter. The corner is raised to
 * 10 Hz and limited to 0.45 of the sample rate. Run twice in series it is a fourth-order
 * Linkwitz-Riley half: -6 dB at the corner, 24 dB per octave, the two halves summing flat.
 * Thread: any. Realtime-safe: yes. */
BiquadCoefficients FilterDesignCrossoverSection(int32_t mode, double hz, double sampleRate);

#ifdef __cplusplus
}
#endif
