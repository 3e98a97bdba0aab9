// The filter designs judged by their physical responses, plus golden response curves that
// catch any drift in the formulas.
#include <cmath>
#include <complex>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "realtime/FilterDesign.h"
#include "realtime/ProcessingState.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

std::complex<double> response(const BiquadCoefficients& c, double hz, double rate) {
    const std::complex<double> z1 = std::polar(1.0, -2.0 * kPi * hz / rate);
    const std::complex<double> z2 = z1 * z1;
    return (c.b0 + c.b1 * z1 + c.b2 * z2) / (1.0 + c.a1 * z1 + c.a2 * z2);
}

double decibels(std::complex<double> h) {
    return 20.0 * std::log10(std::abs(h));
}

// The crossover as the render runs it: one section twice in series.
std::complex<double> crossoverResponse(int32_t mode, double corner, double hz, double rate) {
    const std::complex<double> h =
        response(FilterDesignCrossoverSection(mode, corner, rate), hz, rate);
    return h * h;
}

TEST(FilterDesign, PeakingBandGivesItsGainAtItsCentre) {
    for (double rate : {44100.0, 48000.0, 96000.0}) {
        for (uint32_t band = 0; band < 10; ++band) {
            for (double gain : {-24.0, -6.0, 3.5, 12.0, 24.0}) {
                const BiquadCoefficients c = FilterDesignPeakingBand(band, gain, rate);
                EXPECT_NEAR(decibels(response(c, kEqualizerBandFrequencies[band], rate)), gain,
                            1e-9)
                    << "band " << band << " gain " << gain << " rate " << rate;
            }
        }
    }
}

TEST(FilterDesign, PeakingBandIsOneOctaveWideAndLeavesFarFrequenciesAlone) {
    // The bandwidth is measured between the frequencies where the bell has half its gain in
    // dB: half an octave either side of the centre.
    for (double gain : {12.0, -12.0}) {
        const BiquadCoefficients c = FilterDesignPeakingBand(5, gain, 48000.0);
        EXPECT_NEAR(decibels(response(c, 1000.0 / std::sqrt(2.0), 48000.0)), gain / 2.0, 0.05);
        EXPECT_NEAR(decibels(response(c, 1000.0 * std::sqrt(2.0), 48000.0)), gain / 2.0, 0.05);
        // Three octaves away it has practically vanished.
        EXPECT_LT(std::abs(decibels(response(c, 125.0, 48000.0))), 0.5);
        EXPECT_LT(std::abs(decibels(response(c, 8000.0, 48000.0))), 0.5);
    }
}

TEST(FilterDesign, BandsAboveTheLimitAreDesignedAtFortyFivePercentOfTheRate) {
    // 16 kHz sits below 0.45 x 44.1 kHz and keeps its centre; at 32 kHz it moves to 14.4 kHz.
    EXPECT_NEAR(decibels(response(FilterDesignPeakingBand(9, 6.0, 44100.0), 16000.0, 44100.0)), 6.0,
                1e-9);
    const BiquadCoefficients moved = FilterDesignPeakingBand(9, 6.0, 32000.0);
    EXPECT_NEAR(decibels(response(moved, 14400.0, 32000.0)), 6.0, 1e-9);
    EXPECT_LT(decibels(response(moved, 14400.0 * 0.8, 32000.0)), 6.0);
    EXPECT_LT(decibels(response(moved, 15500.0, 32000.0)), 6.0);
}

TEST(FilterDesign, ZeroGainAndUnknownBandsDesignUnity) {
    const BiquadCoefficients flat = FilterDesignPeakingBand(3, 0.0, 48000.0);
    EXPECT_EQ(flat.b0, 1.0);
    EXPECT_EQ(flat.b1, flat.a1);
    EXPECT_EQ(flat.b2, flat.a2);
    for (uint32_t band : {10U, 11U, 0xFFFFFFFFU}) {
        const BiquadCoefficients c = FilterDesignPeakingBand(band, 6.0, 48000.0);
        EXPECT_EQ(c.b0, 1.0);
        EXPECT_EQ(c.b1, 0.0);
        EXPECT_EQ(c.b2, 0.0);
        EXPECT_EQ(c.a1, 0.0);
        EXPECT_EQ(c.a2, 0.0);
    }
    const BiquadCoefficients none = FilterDesignCrossoverSection(0, 80.0, 48000.0);
    EXPECT_EQ(none.b0, 1.0);
    EXPECT_EQ(none.a2, 0.0);
}

TEST(FilterDesign, CrossoverHalvesAreSixDecibelsDownAtTheCorner) {
    for (double rate : {44100.0, 48000.0, 96000.0}) {
        for (double corner : {60.0, 80.0, 100.0, 120.0, 1000.0}) {
            EXPECT_NEAR(decibels(crossoverResponse(1, corner, corner, rate)), -6.0206, 1e-3);
            EXPECT_NEAR(decibels(crossoverResponse(2, corner, corner, rate)), -6.0206, 1e-3);
        }
    }
}

TEST(FilterDesign, CrossoverHalvesFallTwentyFourDecibelsPerOctave) {
    const double rate = 48000.0;
    const double corner = 80.0;
    // Far enough from the corner for the asymptote, far enough from Nyquist for the warp.
    const double lowDrop = decibels(crossoverResponse(1, corner, 640.0, rate)) -
                           decibels(crossoverResponse(1, corner, 1280.0, rate));
    const double highDrop = decibels(crossoverResponse(2, corner, 5.0, rate)) -
                            decibels(crossoverResponse(2, corner, 2.5, rate));
    EXPECT_NEAR(lowDrop, 24.0, 0.3);
    EXPECT_NEAR(highDrop, 24.0, 0.3);
    // And each passes its own side untouched.
    EXPECT_NEAR(decibels(crossoverResponse(1, corner, 10.0, rate)), 0.0, 0.01);
    EXPECT_NEAR(decibels(crossoverResponse(2, corner, 2000.0, rate)), 0.0, 0.01);
}

TEST(FilterDesign, CrossoverHalvesSumFlat) {
    for (double corner : {60.0, 80.0, 120.0}) {
        for (double hz = 10.0; hz < 20000.0; hz *= 1.25) {
            const std::complex<double> sum = crossoverResponse(1, corner, hz, 48000.0) +
                                             crossoverResponse(2, corner, hz, 48000.0);
            EXPECT_NEAR(std::abs(sum), 1.0, 1e-9) << "corner " << corner << " at " << hz;
        }
    }
}

TEST(FilterDesign, CrossoverCornerIsRaisedToTenHertzAndLimitedByTheRate) {
    const BiquadCoefficients raised = FilterDesignCrossoverSection(1, 5.0, 48000.0);
    const BiquadCoefficients ten = FilterDesignCrossoverSection(1, 10.0, 48000.0);
    EXPECT_EQ(raised.b0, ten.b0);
    EXPECT_EQ(raised.a1, ten.a1);
    const BiquadCoefficients limited = FilterDesignCrossoverSection(2, 30000.0, 48000.0);
    const BiquadCoefficients atLimit = FilterDesignCrossoverSection(2, 21600.0, 48000.0);
    EXPECT_EQ(limited.b0, atLimit.b0);
    EXPECT_EQ(limited.a2, atLimit.a2);
}

TEST(EqualizerPeakBoost, FollowsTheSummedCurve) {
    const float flat[10] = {};
    EXPECT_EQ(EqualizerPeakBoost(flat, 48000.0), 0.0F);
    const float cuts[10] = {-3, -3, -3, -3, -3, -3, -3, -3, -3, -3};
    EXPECT_EQ(EqualizerPeakBoost(cuts, 48000.0), 0.0F);
    // Two neighbouring bands at +4.1 dB overlap into more than either alone.
    const float pop[10] = {-1.6F, -1.0F, 0, 2.1F, 4.1F, 4.1F, 2.1F, 0, -1.6F, -1.6F};
    EXPECT_GT(EqualizerPeakBoost(pop, 48000.0), 4.1F);
    // A single band peaks at its gain, give or take the twentieth-octave grid.
    const float single[10] = {0, 0, 0, 0, 0, 6.0F, 0, 0, 0, 0};
    EXPECT_NEAR(EqualizerPeakBoost(single, 48000.0), 6.0F, 0.05F);
}

TEST(EqualizerPeakBoost, DegenerateInputsGiveZero) {
    const float boost[10] = {6, 6, 6, 6, 6, 6, 6, 6, 6, 6};
    EXPECT_EQ(EqualizerPeakBoost(nullptr, 48000.0), 0.0F);
    EXPECT_EQ(EqualizerPeakBoost(boost, 0.0), 0.0F);
    EXPECT_EQ(EqualizerPeakBoost(boost, -48000.0), 0.0F);
    EXPECT_EQ(EqualizerPeakBoost(boost, std::nan("")), 0.0F);
    EXPECT_EQ(EqualizerPeakBoost(boost, 40.0), 0.0F); // nothing to scan below 20 Hz
    EXPECT_GT(EqualizerPeakBoost(boost, 48000.0), 6.0F);
}

// --- Golden responses --------------------------------------------------------------------

// Magnitudes in dB of every design the render uses at 48 kHz, on a fixed frequency grid.
std::string goldenResponses() {
    std::ostringstream text;
    text.precision(9);
    std::vector<double> grid;
    for (double hz = 20.0; hz <= 20000.0; hz *= 1.5)
        grid.push_back(hz);
    auto row = [&](const std::string& name, const BiquadCoefficients& c, bool twice) {
        text << name;
        for (double hz : grid) {
            std::complex<double> h = response(c, hz, 48000.0);
            if (twice) h *= h;
            text << ' ' << std::fixed << decibels(h);
        }
        text << '\n';
    };
    for (uint32_t band = 0; band < 10; ++band)
        row("band" + std::to_string(band) + "+6", FilterDesignPeakingBand(band, 6.0, 48000.0),
            false);
    for (uint32_t band = 0; band < 10; ++band)
        row("band" + std::to_string(band) + "-12", FilterDesignPeakingBand(band, -12.0, 48000.0),
            false);
    row("lowpass80", FilterDesignCrossoverSection(1, 80.0, 48000.0), true);
    row("highpass80", FilterDesignCrossoverSection(2, 80.0, 48000.0), true);
    return text.str();
}

TEST(FilterDesign, ResponsesMatchTheGoldenFile) {
    const std::string path =
        std::string(BRIGHTMIX_SOURCE_DIR) + "/tests/golden/realtime/FilterResponses.txt";
    const std::string actual = goldenResponses();
    const char* update = std::getenv("BRIGHTMIX_UPDATE_GOLDEN");
    if (update != nullptr && std::string(update) == "1") {
        std::ofstream(path) << actual;
        GTEST_SKIP() << "rewrote " << path;
    }
    std::ifstream file(path);
    ASSERT_TRUE(file) << "missing " << path << "; run with BRIGHTMIX_UPDATE_GOLDEN=1";
    std::istringstream expectedLines(std::string(std::istreambuf_iterator<char>(file), {}));
    std::istringstream actualLines(actual);
    std::string expectedLine;
    std::string actualLine;
    while (std::getline(actualLines, actualLine)) {
        ASSERT_TRUE(std::getline(expectedLines, expectedLine)) << "golden file is short";
        std::istringstream e(expectedLine);
        std::istringstream a(actualLine);
        std::string expectedName;
        std::string actualName;
        e >> expectedName;
        a >> actualName;
        ASSERT_EQ(expectedName, actualName);
        double expected = 0;
        double value = 0;
        // Another maths library may round sin or sinh differently; a drift of the formulas
        // shows up far above this.
        while (a >> value) {
            ASSERT_TRUE(e >> expected);
            EXPECT_NEAR(value, expected, 1e-6) << actualName;
        }
    }
}

} // namespace
