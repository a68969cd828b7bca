// Decimation by four to 4 kHz with the 40-tap low-pass.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "kvaec_records.h"
#include "td/td.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr float kSentinel = 12345.0f;

// Output j of the decimator computed the way the library documents it: four
// partial sums by tap index mod 4, combined as (s0 + s2) + (s1 + s3).
float lane_dot(const float *x) {
    const float *c = aectd_afDecCoef;
    float s[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int i = 0; i < 40; ++i) s[i % 4] = s[i % 4] + c[i] * x[i];
    return (s[0] + s[2]) + (s[1] + s[3]);
}

// Reference in double: out[j] = sum c[i] x[4j + i] over the concatenation of
// the history and the input.
std::vector<double> ref_dec(const std::vector<float> &hist_then_in) {
    const int nout = static_cast<int>(hist_then_in.size() - 40) / 4;
    std::vector<double> out(static_cast<size_t>(nout));
    for (int j = 0; j < nout; ++j) {
        double s = 0.0;
        for (int i = 0; i < 40; ++i)
            s += static_cast<double>(aectd_afDecCoef[i]) * static_cast<double>(hist_then_in[4 * j + i]);
        out[static_cast<size_t>(j)] = s;
    }
    return out;
}

// Amplitude of a sinusoid at a quarter of the output rate from two
// consecutive samples: y[j] = A sin(pi j / 2 + p), y[j + 1] = A cos(pi j / 2 + p).
double quarter_rate_amplitude(float a, float b) {
    return std::sqrt(static_cast<double>(a) * a + static_cast<double>(b) * b);
}

double dec_gain_db(double f_hz) {
    double re = 0.0, im = 0.0;
    for (int i = 0; i < 40; ++i) {
        re += aectd_afDecCoef[i] * std::cos(2.0 * kPi * f_hz / 16000.0 * i);
        im -= aectd_afDecCoef[i] * std::sin(2.0 * kPi * f_hz / 16000.0 * i);
    }
    return 10.0 * std::log10(re * re + im * im);
}

// Runs `frames` frames of a full-scale sine through the decimator and returns
// the last output frame.
std::vector<float> decimate_sine(double f_hz, int frames) {
    float hist[40] = {};
    float work[200];
    float in[160];
    std::vector<float> out(40);
    for (int f = 0; f < frames; ++f) {
        for (int n = 0; n < 160; ++n)
            in[n] = static_cast<float>(std::sin(2.0 * kPi * f_hz / 16000.0 * (160 * f + n) + 0.3));
        aec_dec4k_frsz(hist, work, out.data(), in);
    }
    return out;
}

}  // namespace

TEST(DecimationTable, CoefficientsAreSymmetricWithTheListedEndsAndSum) {
    for (int i = 0; i < 20; ++i) EXPECT_EQ(aectd_afDecCoef[i], aectd_afDecCoef[39 - i]) << i;
    EXPECT_EQ(aectd_afDecCoef[0], -0.000229f);
    EXPECT_EQ(aectd_afDecCoef[4], -0.01557f);
    EXPECT_EQ(aectd_afDecCoef[11], 0.002476f);
    EXPECT_EQ(aectd_afDecCoef[19], 0.234264f);
    double sum = 0.0;
    for (float c : aectd_afDecCoef) sum += c;
    // 40 decimal constants of six digits, each rounded to float (<= 1.5e-8 off).
    EXPECT_NEAR(sum, 0.938092, 1e-6);
}

TEST(Decimation, ConstantOneGivesTheCoefficientSumOnceHistoryIsFull) {
    float hist[40] = {};
    float work[200];
    float in[160];
    float out[40];
    for (float &v : in) v = 1.0f;
    aec_dec4k_frsz(hist, work, out, in);
    // First frame: outputs 0..9 still see zero history; from output 10 on
    // (input 4j - 40 >= 0) all 40 taps see ones.
    const float ones[40] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
                            1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    const float full = lane_dot(ones);
    for (int j = 10; j < 40; ++j) EXPECT_EQ(out[j], full) << j;
    EXPECT_LT(out[0], full);
    aec_dec4k_frsz(hist, work, out, in);
    for (int j = 0; j < 40; ++j) EXPECT_EQ(out[j], full) << j;
    // The sum of 40 products with |c| <= 0.24 is within a few float ulps of
    // the six-digit value.
    EXPECT_NEAR(out[0], 0.938092f, 2e-6f);
}

TEST(Decimation, FirstFrameAfterResetFiltersAgainstZeroHistory) {
    aecx_init(nullptr);
    for (float v : AEC_Db.afTdDecHist) ASSERT_EQ(v, 0.0f);
    float work[200];
    float in[160] = {};
    float out[40];
    in[0] = 1.0f;  // impulse at input sample 0
    aec_dec4k_frsz(AEC_Db.afTdDecHist, work, out, in);
    // Output j covers input samples 4j - 40 .. 4j - 1: the impulse meets tap
    // 40 - 4j, for j = 1..10; output 0 sees only history.
    EXPECT_EQ(out[0], 0.0f);
    for (int j = 1; j <= 10; ++j) EXPECT_EQ(out[j], aectd_afDecCoef[40 - 4 * j]) << j;
    for (int j = 11; j < 40; ++j) EXPECT_EQ(out[j], 0.0f) << j;
}

TEST(Decimation, HistoryTakesTheLastFortyInputsAndIsUsedNextFrame) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    float hist[40];
    for (float &v : hist) v = u(rng);
    std::vector<float> all(40 + 320);
    for (int i = 0; i < 40; ++i) all[static_cast<size_t>(i)] = hist[i];
    for (size_t i = 40; i < all.size(); ++i) all[i] = u(rng);
    float work[201];
    work[200] = kSentinel;
    float out[80];
    aec_dec4k_frsz(hist, work, out, all.data() + 40);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(hist[i], all[static_cast<size_t>(160 + i)]) << i;
    aec_dec4k_frsz(hist, work, out + 40, all.data() + 200);
    EXPECT_EQ(work[200], kSentinel);  // the work area is 200 floats
    // Both frames together are one continuous filtering, each output with
    // the documented partial-sum order.
    for (int j = 0; j < 80; ++j) EXPECT_EQ(out[j], lane_dot(all.data() + 4 * j)) << j;
}

TEST(Decimation, MatchesDoublePrecisionConvolution) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> all(200);
    for (float &v : all) v = u(rng);
    float hist[40];
    for (int i = 0; i < 40; ++i) hist[i] = all[static_cast<size_t>(i)];
    float work[200];
    float out[40];
    aec_dec4k_frsz(hist, work, out, all.data() + 40);
    const std::vector<double> ref = ref_dec(all);
    double abs_sum_c = 0.0;
    for (float c : aectd_afDecCoef) abs_sum_c += std::fabs(c);
    // Summation error bound: 40 products, |x| <= 1, each term and partial sum
    // rounded once: <= 40 * 2^-24 * sum|c|.
    const double tol = 40.0 * std::ldexp(1.0, -24) * abs_sum_c;
    for (int j = 0; j < 40; ++j) EXPECT_NEAR(out[j], ref[static_cast<size_t>(j)], tol) << j;
}

TEST(Decimation, OneKilohertzPassesWithAboutMinusPointSixDecibels) {
    const std::vector<float> y = decimate_sine(1000.0, 3);
    const double expect_db = dec_gain_db(1000.0);
    EXPECT_NEAR(expect_db, -0.6, 0.05);
    for (int j = 0; j < 39; ++j) {
        const double g = 20.0 * std::log10(quarter_rate_amplitude(y[static_cast<size_t>(j)],
                                                                 y[static_cast<size_t>(j) + 1]));
        // Float sine and float accumulation: relative error ~1e-6, i.e. 1e-5 dB.
        EXPECT_NEAR(g, expect_db, 1e-3) << j;
    }
}

TEST(Decimation, ThreeKilohertzIsAttenuatedByAtLeastSixtyThreeDecibels) {
    const std::vector<float> y = decimate_sine(3000.0, 3);
    for (int j = 0; j < 39; ++j) {
        const double g = 20.0 * std::log10(quarter_rate_amplitude(y[static_cast<size_t>(j)],
                                                                 y[static_cast<size_t>(j) + 1]));
        EXPECT_LE(g, -63.0) << j;
        // The filter's response at 3 kHz is -63.01 dB; output ~7e-4 with
        // absolute rounding ~1e-7, i.e. ~1e-3 dB.
        EXPECT_NEAR(g, dec_gain_db(3000.0), 5e-3) << j;
    }
}

TEST(Decimation, BandsVariantFiltersFortySamplesIntoTen) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    float frame[160];
    for (float &v : frame) v = u(rng);
    float hist_a[40], hist_b[40];
    for (int i = 0; i < 40; ++i) hist_a[i] = hist_b[i] = u(rng);
    float work_a[200];
    float out_a[40];
    aec_dec4k_frsz(hist_a, work_a, out_a, frame);
    // Four 40-sample calls give the same outputs and the same final history.
    float work_b[81];
    float out_b[40];
    for (int q = 0; q < 4; ++q) {
        work_b[80] = kSentinel;
        aec_dec4k_bands(hist_b, work_b, out_b + 10 * q, frame + 40 * q);
        EXPECT_EQ(work_b[80], kSentinel);  // 80 floats of work
        for (int i = 0; i < 40; ++i) EXPECT_EQ(hist_b[i], frame[40 * q + i]);
    }
    for (int j = 0; j < 40; ++j) EXPECT_EQ(out_b[j], out_a[j]) << j;
    for (int i = 0; i < 40; ++i) EXPECT_EQ(hist_b[i], hist_a[i]);
}
