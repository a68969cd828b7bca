// Tone detector: 4 kHz buffer, windowed spectrum, peak search and alarm.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "core/core.h"
#include "kvaec_records.h"
#include "td/td.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr float kSentinel = -777.0f;

// Offsets in afTdWork: folded block / spectrum, then the transform area.
constexpr int kW = 160;
constexpr int kBins = kW + 162;

float *spectrum() { return AEC_Sc.afTdWork; }

void fill_spectrum(float v) {
    for (int k = 0; k < 80; ++k) spectrum()[k] = v;
}

// The interpolation of the peak search, written out with the same float
// operations: d = min((m - nb) / 27, 1.5); d -= 0.15 d^3.
float interp_d(float m, float nb) {
    float d = (m - nb) * 0.037037037f;
    if (d > 1.5f) d = 1.5f;
    return d - 0.15f * (d * d * d);
}

// Unscaled forward DFT of 160 real samples, bins 0..79, in double.
void ref_dft160(const float *y, double *re, double *im) {
    for (int k = 0; k < 80; ++k) {
        double r = 0.0, i = 0.0;
        for (int n = 0; n < 160; ++n) {
            const double a = -2.0 * kPi * static_cast<double>((k * n) % 160) / 160.0;
            r += y[n] * std::cos(a);
            i += y[n] * std::sin(a);
        }
        re[k] = r;
        im[k] = i;
    }
}

}  // namespace

// ---- window table ----

TEST(ToneWindow, IsSymmetricWithZeroEndsAndSumsToOne) {
    for (int i = 0; i < 240; ++i) EXPECT_EQ(aectd_afWin[i], aectd_afWin[479 - i]) << i;
    EXPECT_EQ(aectd_afWin[0], 0.0f);
    EXPECT_EQ(aectd_afWin[479], 0.0f);
    double sum = 0.0;
    for (float w : aectd_afWin) sum += w;
    // 480 taps each rounded to float (relative 6e-8): the sum stays within 1e-7.
    EXPECT_NEAR(sum, 1.0, 1e-7);
}

TEST(ToneWindow, PeaksAtTheMiddleTapsWithTheDesignedTails) {
    EXPECT_EQ(aectd_afWin[239], 0.00639559f);
    for (int i = 0; i < 480; ++i) {
        if (i != 239 && i != 240) {
            EXPECT_LT(aectd_afWin[i], aectd_afWin[239]) << i;
        }
    }
    // Negative near the ends, to four-plus significant digits of the design.
    EXPECT_NEAR(aectd_afWin[1], -5.872298e-08f, 1e-13f);
    EXPECT_NEAR(aectd_afWin[2], -2.3568890e-07f, 1e-12f);
    EXPECT_NEAR(aectd_afWin[3], -5.318878e-07f, 1e-12f);
    EXPECT_NEAR(aectd_afWin[60], -0.0001f, 1e-6f);
    EXPECT_NEAR(aectd_afWin[120], 0.000976f, 1e-6f);
    EXPECT_NEAR(aectd_afWin[180], 0.004308f, 1e-6f);
}

// ---- peak search ----

TEST(TonePeakSearch, TiesResolveToTheLowestBin) {
    float s[80];
    for (float &v : s) v = 10.0f;
    s[30] = 50.0f;
    s[60] = 50.0f;
    float level = 0.0f;
    const float f = aec_td_find_max(s, &level);
    EXPECT_EQ(level, 50.0f);
    EXPECT_EQ(s[30], -201.0f);
    EXPECT_EQ(s[60], 50.0f);
    // Equal neighbours take the right-hand branch.
    EXPECT_EQ(s[31], -201.0f);
    EXPECT_EQ(s[29], 10.0f);
    EXPECT_EQ(f, 25.0f * ((30.0f + 0.5f) - 0.5f * interp_d(50.0f, 10.0f)));
}

TEST(TonePeakSearch, LargerLeftNeighbourPullsThePositionDown) {
    float s[80];
    for (float &v : s) v = 0.0f;
    s[40] = 60.0f;
    s[39] = 50.0f;
    s[41] = 45.0f;
    float level = 0.0f;
    const float f = aec_td_find_max(s, &level);
    EXPECT_EQ(level, 60.0f);
    EXPECT_EQ(s[39], -201.0f);
    EXPECT_EQ(s[40], -201.0f);
    EXPECT_EQ(s[41], 45.0f);
    EXPECT_EQ(f, 25.0f * ((40.0f - 0.5f) + 0.5f * interp_d(60.0f, 50.0f)));
    // The same in double: d = 10/27 - 0.15 (10/27)^3.
    const double d = 10.0 / 27.0 - 0.15 * std::pow(10.0 / 27.0, 3);
    EXPECT_NEAR(f, 25.0 * (39.5 + 0.5 * d), 1e-4);
}

TEST(TonePeakSearch, LargerRightNeighbourPullsThePositionUp) {
    float s[80];
    for (float &v : s) v = 0.0f;
    s[40] = 60.0f;
    s[39] = 45.0f;
    s[41] = 52.0f;
    float level = 0.0f;
    const float f = aec_td_find_max(s, &level);
    EXPECT_EQ(s[41], -201.0f);
    EXPECT_EQ(s[39], 45.0f);
    const double d = 8.0 / 27.0 - 0.15 * std::pow(8.0 / 27.0, 3);
    EXPECT_NEAR(f, 25.0 * (40.5 - 0.5 * d), 1e-4);
    EXPECT_EQ(f, 25.0f * ((40.0f + 0.5f) - 0.5f * interp_d(60.0f, 52.0f)));
}

TEST(TonePeakSearch, NeighbourEqualToThePeakPlacesItHalfwayBetween) {
    float s[80];
    for (float &v : s) v = 0.0f;
    s[40] = 60.0f;
    s[41] = 60.0f;  // tie: bin 40 is the peak, bin 41 its larger neighbour
    float level = 0.0f;
    EXPECT_EQ(aec_td_find_max(s, &level), 1012.5f);
    EXPECT_EQ(s[40], -201.0f);
    EXPECT_EQ(s[41], -201.0f);
}

TEST(TonePeakSearch, InterpolationStepIsLimitedForIsolatedPeaks) {
    float s[80];
    for (float &v : s) v = -50.0f;
    s[10] = 100.0f;  // 150 dB above both neighbours: d limited to 1.5
    float level = 0.0f;
    const float f = aec_td_find_max(s, &level);
    // d = 1.5 - 0.15 * 3.375 = 0.99375: position 10.5 - 0.496875.
    EXPECT_EQ(f, 25.0f * ((10.0f + 0.5f) - 0.5f * (1.5f - 0.15f * (1.5f * 1.5f * 1.5f))));
    EXPECT_NEAR(f, 25.0 * 10.003125, 1e-4);
}

TEST(TonePeakSearch, PeakAtBinZeroIsItsOwnLeftNeighbour) {
    float s[80];
    for (float &v : s) v = 0.0f;
    s[0] = 60.0f;
    s[1] = 50.0f;
    float level = 0.0f;
    EXPECT_EQ(aec_td_find_max(s, &level), -12.5f);
    EXPECT_EQ(level, 60.0f);
    EXPECT_EQ(s[0], -201.0f);
    EXPECT_EQ(s[1], 50.0f);  // only bin 0 is cleared
}

TEST(TonePeakSearch, PeakAtTheLastBinIsItsOwnRightNeighbour) {
    float s[80];
    for (float &v : s) v = 0.0f;
    s[79] = 60.0f;
    s[78] = 50.0f;
    float level = 0.0f;
    EXPECT_EQ(aec_td_find_max(s, &level), 1987.5f);
    EXPECT_EQ(s[79], -201.0f);
    EXPECT_EQ(s[78], 50.0f);  // only bin 79 is cleared
}

// ---- alarm ----

TEST(ToneAlarm, TwoStrongTonesRaiseTheAlarmByTheContrastOverTwentyFive) {
    aecx_init(nullptr);
    for (int t = 0; t < 3; ++t) {
        fill_spectrum(20.0f);
        spectrum()[20] = 100.0f;  // tone 1, larger neighbour below
        spectrum()[19] = 85.0f;
        spectrum()[21] = 30.0f;
        spectrum()[50] = 95.0f;   // tone 2, larger neighbour above
        spectrum()[51] = 90.0f;
        spectrum()[49] = 35.0f;
        spectrum()[70] = 60.0f;   // strongest remaining component
        const float f3 = aec_td_test(&AEC_Db, &AEC_Sc);
        EXPECT_EQ(f3, 25.0f * ((70.0f + 0.5f) - 0.5f * interp_d(60.0f, 20.0f)));
        // Both tones and their larger neighbours are gone, the smaller stay.
        EXPECT_EQ(spectrum()[19], -201.0f);
        EXPECT_EQ(spectrum()[20], -201.0f);
        EXPECT_EQ(spectrum()[21], 30.0f);
        EXPECT_EQ(spectrum()[50], -201.0f);
        EXPECT_EQ(spectrum()[51], -201.0f);
        EXPECT_EQ(spectrum()[49], 35.0f);
        // +(100 - 60 - 25) = +15 per test, limited to 30.
        EXPECT_EQ(AEC_Db.fTdAlarmDb, t == 0 ? 15.0f : 30.0f) << t;
    }
}

// Samples are at full scale 1.0: a full-scale tone peaks near -3 dB in this
// spectrum. Below a strongest peak of -35.3 dB (55 dB on a 16-bit sample
// scale) the contrast counts half.
TEST(ToneAlarm, WeakSpectrumCountsHalfTheContrast) {
    const float threshold = -35.3f;
    const float below = std::nextafter(threshold, -1000.0f);
    const float above = std::nextafter(threshold, 1000.0f);
    struct Case {
        float p1;
        bool half;
    };
    for (const Case k : {Case{below, true}, Case{-36.0f, true}, Case{threshold, false}, Case{above, false},
                         Case{-20.0f, false}}) {
        aecx_init(nullptr);
        AEC_Db.fTdAlarmDb = -5.0f;
        fill_spectrum(-90.0f);
        spectrum()[30] = k.p1;    // strongest peak (taken with bin 31)
        spectrum()[12] = -60.0f;  // second peak (taken with bin 13)
        aec_td_test(&AEC_Db, &AEC_Sc);
        // Third peak: -90 dB at bin 0.
        const float c = k.half ? (k.p1 - -90.0f) * 0.5f : k.p1 - -90.0f;
        float want = -5.0f - 25.0f + c;
        if (want > 30.0f) want = 30.0f;
        EXPECT_EQ(AEC_Db.fTdAlarmDb, want) << "p1 " << k.p1;
    }
    // Just below the threshold the alarm falls, at and just above it rises.
    aecx_init(nullptr);
    AEC_Db.fTdAlarmDb = 0.0f;
    fill_spectrum(-90.0f);
    spectrum()[30] = below;
    aec_td_test(&AEC_Db, &AEC_Sc);
    EXPECT_LT(AEC_Db.fTdAlarmDb, 3.0f);
    AEC_Db.fTdAlarmDb = 0.0f;
    fill_spectrum(-90.0f);
    spectrum()[30] = above;
    aec_td_test(&AEC_Db, &AEC_Sc);
    EXPECT_GT(AEC_Db.fTdAlarmDb, 29.0f);
}

TEST(ToneAlarm, IsLimitedToMinusSixAndThirty) {
    aecx_init(nullptr);
    AEC_Db.fTdAlarmDb = 29.0f;
    fill_spectrum(0.0f);
    spectrum()[5] = 150.0f;
    aec_td_test(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fTdAlarmDb, 30.0f);
    AEC_Db.fTdAlarmDb = -5.0f;
    fill_spectrum(0.0f);
    aec_td_test(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fTdAlarmDb, -6.0f);
}

// ---- buffer update ----

TEST(ToneBuffer, PhaseZeroShiftsByEightyAndFillsFourHundred) {
    aecx_init(nullptr);
    for (int i = 0; i < 480; ++i) AEC_Db.afTd4k[i] = static_cast<float>(i);
    for (int i = 0; i < 40; ++i) AEC_Db.afTdDecHist[i] = 0.01f * static_cast<float>(i);
    float rin[160];
    for (int n = 0; n < 160; ++n) rin[n] = std::sin(0.1f * static_cast<float>(n));
    float hist[40];
    std::memcpy(hist, AEC_Db.afTdDecHist, sizeof hist);
    float work[200];
    float dec[40];
    aec_dec4k_frsz(hist, work, dec, rin);

    ASSERT_EQ(AEC_Db.iTdPhase, 0);
    aec_td_sr(&AEC_Db, &AEC_Sc, rin);
    EXPECT_EQ(AEC_Db.iTdPhase, 1);
    for (int i = 0; i < 400; ++i) EXPECT_EQ(AEC_Db.afTd4k[i], static_cast<float>(i + 80)) << i;
    for (int i = 0; i < 40; ++i) EXPECT_EQ(AEC_Db.afTd4k[400 + i], dec[i]) << i;
    for (int i = 440; i < 480; ++i) EXPECT_EQ(AEC_Db.afTd4k[i], static_cast<float>(i)) << i;
    for (int i = 0; i < 40; ++i) EXPECT_EQ(AEC_Db.afTdDecHist[i], hist[i]);
}

TEST(ToneBuffer, PhaseOneFillsFourFortyWithoutShifting) {
    aecx_init(nullptr);
    for (int i = 0; i < 480; ++i) AEC_Db.afTd4k[i] = static_cast<float>(i);
    AEC_Db.iTdPhase = 1;
    float rin[160];
    for (int n = 0; n < 160; ++n) rin[n] = std::cos(0.05f * static_cast<float>(n));
    float hist[40] = {};
    float work[200];
    float dec[40];
    aec_dec4k_frsz(hist, work, dec, rin);
    aec_td_sr(&AEC_Db, &AEC_Sc, rin);
    EXPECT_EQ(AEC_Db.iTdPhase, 0);
    for (int i = 0; i < 440; ++i) EXPECT_EQ(AEC_Db.afTd4k[i], static_cast<float>(i)) << i;
    for (int i = 0; i < 40; ++i) EXPECT_EQ(AEC_Db.afTd4k[440 + i], dec[i]) << i;
}

TEST(ToneBuffer, TwoFramesFillTheNewestEightySamplesInOrder) {
    aecx_init(nullptr);
    float a[160], b[160];
    for (int n = 0; n < 160; ++n) {
        a[n] = std::sin(0.2f * static_cast<float>(n));
        b[n] = std::sin(0.2f * static_cast<float>(n + 160));
    }
    float hist[40] = {};
    float work[200];
    float dec[80];
    aec_dec4k_frsz(hist, work, dec, a);
    aec_dec4k_frsz(hist, work, dec + 40, b);
    aec_td_sr(&AEC_Db, &AEC_Sc, a);
    aec_td_sr(&AEC_Db, &AEC_Sc, b);
    for (int i = 0; i < 80; ++i) EXPECT_EQ(AEC_Db.afTd4k[400 + i], dec[i]) << i;
    for (int i = 0; i < 400; ++i) EXPECT_EQ(AEC_Db.afTd4k[i], 0.0f) << i;
}

// ---- whole detector ----

TEST(ToneDetector, TestRunsOnlyOnEverySecondCall) {
    aecx_init(nullptr);
    AEC_Db.fTdAlarmDb = 30.0f;
    const float silent[160] = {};
    // Silence: all bins equal, contrast 0, alarm -25 per test, floor -6.
    const float expect[6] = {30.0f, 5.0f, 5.0f, -6.0f, -6.0f, -6.0f};
    for (int call = 0; call < 6; ++call) {
        aec_td(&AEC_Db, &AEC_Sc, silent);
        EXPECT_EQ(AEC_Db.fTdAlarmDb, expect[call]) << call;
        EXPECT_EQ(AEC_Db.iTdPhase, call % 2 == 0 ? 1 : 0) << call;
    }
}

TEST(ToneDetector, SilenceGivesTheZeroPowerLevelInEveryBinAndLowestBinsWin) {
    aecx_init(nullptr);
    const float silent[160] = {};
    aec_td(&AEC_Db, &AEC_Sc, silent);
    const float f3 = aec_td(&AEC_Db, &AEC_Sc, silent);
    const float floor_db = aec_utl_en2log(0.0f);
    // Each search takes the lowest remaining bin and its equal right
    // neighbour: bins 0/1, 2/3, 4/5; the third peak sits at 4.5 bins.
    EXPECT_EQ(f3, 112.5f);
    for (int k = 0; k < 6; ++k) EXPECT_EQ(spectrum()[k], -201.0f) << k;
    for (int k = 6; k < 80; ++k) EXPECT_EQ(spectrum()[k], floor_db) << k;
    EXPECT_EQ(AEC_Db.fTdAlarmDb, -6.0f);
}

TEST(ToneDetector, ReturnsTheThirdPeakOfTheTestOnTestFrames) {
    aecx_init(nullptr);
    std::mt19937 rng(5);
    std::normal_distribution<float> g(0.0f, 0.1f);
    float rin[160];
    float got = 0.0f;
    for (int f = 0; f < 14; ++f) {
        for (float &v : rin) v = g(rng);
        if (f % 2 == 0) {
            aec_td(&AEC_Db, &AEC_Sc, rin);
            continue;
        }
        // Same frame on a copy of the state, step by step.
        static AEC_tDb db_copy;
        db_copy = AEC_Db;
        got = aec_td(&AEC_Db, &AEC_Sc, rin);
        aec_td_sr(&db_copy, &AEC_Sc, rin);
        aec_td_wola(&db_copy, &AEC_Sc);
        const float want = aec_td_test(&db_copy, &AEC_Sc);
        EXPECT_EQ(got, want) << f;
        EXPECT_EQ(AEC_Db.fTdAlarmDb, db_copy.fTdAlarmDb) << f;
    }
}

// ---- fold and transform ----

TEST(ToneSpectrum, FoldsThreeWindowedBlocks) {
    aecx_init(nullptr);
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (float &v : AEC_Db.afTd4k) v = u(rng);
    aec_td_wola(&AEC_Db, &AEC_Sc);
    // Elements 80..159 of the folded block survive (the spectrum takes 0..79).
    const float *w = aectd_afWin;
    const float *b = AEC_Db.afTd4k;
    for (int i = 80; i < 160; ++i) {
        const float y = w[i] * b[i] + w[i + 160] * b[i + 160] + w[i + 320] * b[i + 320];
        EXPECT_EQ(AEC_Sc.afTdWork[i], y) << i;
    }
}

TEST(ToneSpectrum, MatchesDoublePrecisionPowerSpectrumInDecibels) {
    aecx_init(nullptr);
    std::mt19937 rng(13);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (float &v : AEC_Db.afTd4k) v = u(rng);
    // The fold as the detector computes it (checked exactly above).
    float y[160];
    const float *w = aectd_afWin;
    const float *b = AEC_Db.afTd4k;
    for (int i = 0; i < 160; ++i)
        y[i] = w[i] * b[i] + w[i + 160] * b[i + 160] + w[i + 320] * b[i + 320];
    double re[80], im[80];
    ref_dft160(y, re, im);
    aec_td_wola(&AEC_Db, &AEC_Sc);
    double ymax = 0.0;
    for (float v : y) ymax = std::fmax(ymax, std::fabs(v));
    for (int k = 0; k < 80; ++k) {
        const double p = re[k] * re[k] + im[k] * im[k];
        // Only bins well above the transform's rounding noise (~1e-6 of the
        // block's magnitude per bin) are compared; white input fills nearly all.
        if (p < 1e-6 * ymax * ymax) continue;
        // Relative power error <= 1e-4 moves the level by < 6.02 * 1e-4 dB.
        EXPECT_NEAR(spectrum()[k], aec_utl_en2log(static_cast<float>(p)), 1e-3) << k;
    }
}

TEST(ToneTransform, ImpulseGivesOneInEveryBin) {
    float *y = AEC_Sc.afTdWork;
    for (int i = 0; i < 729; ++i) AEC_Sc.afTdWork[i] = kSentinel;
    for (int i = 0; i < 160; ++i) y[i] = 0.0f;
    y[0] = 1.0f;
    aec_td_rfft4k(&AEC_Sc);
    const float *X = AEC_Sc.afTdWork + kBins;
    for (int k = 0; k < 80; ++k) {
        // An impulse passes the FFT exactly; the split adds products of table
        // values that sum to one up to a few ulps.
        EXPECT_NEAR(X[2 * k], 1.0f, 1e-6f) << k;
        EXPECT_NEAR(X[2 * k + 1], 0.0f, 1e-6f) << k;
    }
    // The input block is left alone; nothing is written past the FFT's area.
    EXPECT_EQ(y[0], 1.0f);
    for (int i = 1; i < 160; ++i) EXPECT_EQ(y[i], 0.0f) << i;
    for (int i = kW + 360; i < 729; ++i) EXPECT_EQ(AEC_Sc.afTdWork[i], kSentinel) << i;
}

TEST(ToneTransform, ConstantAndCosineLandInTheirBins) {
    float *y = AEC_Sc.afTdWork;
    for (int i = 0; i < 160; ++i) y[i] = 1.0f;
    aec_td_rfft4k(&AEC_Sc);
    const float *X = AEC_Sc.afTdWork + kBins;
    // Magnitudes up to 160 from sums of 160 terms: 160 * 2^-24 * log2(80) ~ 7e-5.
    EXPECT_NEAR(X[0], 160.0f, 1e-4f);
    EXPECT_NEAR(X[1], 0.0f, 1e-4f);
    for (int k = 1; k < 80; ++k) {
        EXPECT_NEAR(X[2 * k], 0.0f, 1e-4f) << k;
        EXPECT_NEAR(X[2 * k + 1], 0.0f, 1e-4f) << k;
    }
    for (int i = 0; i < 160; ++i) y[i] = static_cast<float>(std::cos(2.0 * kPi * 5.0 * i / 160.0));
    aec_td_rfft4k(&AEC_Sc);
    for (int k = 0; k < 80; ++k) {
        EXPECT_NEAR(X[2 * k], k == 5 ? 80.0f : 0.0f, 1e-4f) << k;
        EXPECT_NEAR(X[2 * k + 1], 0.0f, 1e-4f) << k;
    }
}

TEST(ToneTransform, MatchesDoublePrecisionDftAndStoresThePeriodicExtension) {
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    float *y = AEC_Sc.afTdWork;
    float yc[160];
    for (int i = 0; i < 160; ++i) yc[i] = y[i] = u(rng);
    aec_td_rfft4k(&AEC_Sc);
    double re[80], im[80];
    ref_dft160(yc, re, im);
    const float *X = AEC_Sc.afTdWork + kBins;
    double l1 = 0.0;
    for (float v : yc) l1 += std::fabs(v);
    for (int k = 0; k < 80; ++k) {
        // Each bin is a 160-term sum of |y| <= 1 through ~7 rounded stages:
        // error well below 1e-5 of the l1 norm.
        EXPECT_NEAR(X[2 * k], re[k], 1e-5 * l1) << k;
        EXPECT_NEAR(X[2 * k + 1], im[k], 1e-5 * l1) << k;
    }
    // Z[80] = Z[0] right after the 80 transformed values.
    EXPECT_EQ(AEC_Sc.afTdWork[kW + 160], AEC_Sc.afTdWork[kW + 0]);
    EXPECT_EQ(AEC_Sc.afTdWork[kW + 161], AEC_Sc.afTdWork[kW + 1]);
}

TEST(ToneDetector, TwoTonesOverWeakNoiseDriveTheAlarmToThirty) {
    // Tones 1.5 Hz above bins 20 and 50: each tone's smaller neighbour then
    // lies near a zero of the window's response, so after the two tones are
    // removed the third peak is far below the first.
    aecx_init(nullptr);
    std::mt19937 rng(17);
    std::normal_distribution<double> g(0.0, 1e-4);
    float rin[160];
    int tests = 0;
    for (int f = 0; f < 40; ++f) {
        for (int n = 0; n < 160; ++n) {
            const double t = (160.0 * f + n) / 16000.0;
            rin[n] = static_cast<float>(0.3 * std::sin(2.0 * kPi * 501.5 * t) +
                                        0.2 * std::sin(2.0 * kPi * 1251.5 * t) + g(rng));
        }
        aec_td_sr(&AEC_Db, &AEC_Sc, rin);
        if (AEC_Db.iTdPhase == 1) continue;
        aec_td_wola(&AEC_Db, &AEC_Sc);
        ++tests;
        // Peaks picked independently on a copy of the spectrum.
        float s[80];
        std::memcpy(s, spectrum(), sizeof s);
        auto argmax = [&s]() {
            int i = 0;
            for (int k = 1; k < 80; ++k) if (s[k] > s[i]) i = k;
            return i;
        };
        auto remove = [&s](int i) {
            const int il = i > 0 ? i - 1 : 0;
            const int ir = i < 79 ? i + 1 : 79;
            if (s[il] > s[ir]) s[il] = -201.0f; else s[ir] = -201.0f;
            s[i] = -201.0f;
        };
        const float before = AEC_Db.fTdAlarmDb;
        aec_td_test(&AEC_Db, &AEC_Sc);
        if (f < 12) continue;  // the 120 ms buffer holds only the tones from frame 12 on
        const int i1 = argmax();
        const float p1 = s[i1];
        EXPECT_EQ(i1, 20) << f;  // the stronger tone
        remove(i1);
        const int i2 = argmax();
        EXPECT_EQ(i2, 50) << f;  // the weaker tone
        remove(i2);
        const float p3 = s[argmax()];
        EXPECT_EQ(spectrum()[20], -201.0f);
        EXPECT_EQ(spectrum()[50], -201.0f);
        // With full scale 1 and a unit-sum window a level stays near 0 dB,
        // below 55 dB: the contrast counts half.
        EXPECT_LT(p1, 55.0f);
        const float c = (p1 - p3) * 0.5f;
        EXPECT_GT(c, 25.0f) << f;
        float a = before - 25.0f + c;
        a = std::fmin(a, 30.0f);
        a = std::fmax(a, -6.0f);
        EXPECT_EQ(AEC_Db.fTdAlarmDb, a) << f;
    }
    EXPECT_EQ(tests, 20);
    EXPECT_EQ(AEC_Db.fTdAlarmDb, 30.0f);
}
