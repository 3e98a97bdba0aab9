// The two biquad designs of the render: a one-octave peaking band and the Butterworth
// section that, applied twice, makes the Linkwitz-Riley crossover. Pure functions in double
// precision; the render calls them only when a parameter changes.
//
// Thread: any. Realtime-safe: yes.
#include "realtime/FilterDesign.h"

#include <cmath>

extern "C" const double kEqualizerBandFrequencies[10] = {32.0,   64.0,   125.0,  250.0,  500.0,
                                                         1000.0, 2000.0, 4000.0, 8000.0, 16000.0};

namespace {

constexpr double kPi = 3.14159265358979323846;
// ln 2 / 2: with a bandwidth of one octave this is the factor inside the sinh of the
// bandwidth form of the peaking filter.
constexpr double kHalfLn2 = 0.34657359027997264;
constexpr double kOctaves = 1.0;
// Above this share of the sample rate a design would fold over Nyquist.
constexpr double kHighestShareOfRate = 0.45;
constexpr double kLowestCrossoverHz = 10.0;

constexpr BiquadCoefficients kUnity = {1.0, 0.0, 0.0, 0.0, 0.0};

bool isUsableRate(double sampleRate) {
    return std::isfinite(sampleRate) && sampleRate > 0.0;
}

} // namespace

extern "C" BiquadCoefficients FilterDesignPeakingBand(uint32_t band, double gainDb,
                                                      double sampleRate) {
    if (band >= 10 || !isUsableRate(sampleRate)) return kUnity;
    const double f0 = std::fmin(kEqualizerBandFrequencies[band], kHighestShareOfRate * sampleRate);
    const double w0 = 2.0 * kPi * f0 / sampleRate;
    const double sn = std::sin(w0);
    const double cs = std::cos(w0);
    const double a = std::pow(10.0, gainDb / 40.0);
    const double alpha = sn * std::sinh(kHalfLn2 * kOctaves * w0 / sn);
    const double d = 1.0 + alpha / a;
    BiquadCoefficients c{};
    c.b0 = (1.0 + alpha * a) / d;
    c.b1 = -2.0 * cs / d;
    c.b2 = (1.0 - alpha * a) / d;
    c.a1 = c.b1;
    c.a2 = (1.0 - alpha / a) / d;
    return c;
}

extern "C" BiquadCoefficients FilterDesignCrossoverSection(int32_t mode, double hz,
                                                           double sampleRate) {
    if ((mode != 1 && mode != 2) || !isUsableRate(sampleRate)) return kUnity;
    // A NaN corner compares false everywhere and ends up at the 10 Hz floor.
    double f = kLowestCrossoverHz;
    if (hz >= kLowestCrossoverHz) f = std::fmin(hz, kHighestShareOfRate * sampleRate);
    const double w0 = 2.0 * kPi * f / sampleRate;
    const double sn = std::sin(w0);
    const double cs = std::cos(w0);
    const double alpha = sn / std::sqrt(2.0);
    const double d = 1.0 + alpha;
    BiquadCoefficients c{};
    if (mode == 1) {
        c.b0 = (1.0 - cs) / 2.0 / d;
        c.b1 = (1.0 - cs) / d;
    } else {
        c.b0 = (1.0 + cs) / 2.0 / d;
        c.b1 = -(1.0 + cs) / d;
    }
    c.b2 = c.b0;
    c.a1 = -2.0 * cs / d;
    c.a2 = (1.0 - alpha) / d;
    return c;
}
