// Fixed tilt corrections before analysis and after synthesis.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

#include "cond/cond.h"

namespace {

constexpr int kN = KVAEC_FRAME_SAMPLES;

// Reference recursion: w = x + p s; y = b0 w - b1 s; s = w, in this float
// operation order.
void tiltReference(float p, float b0, float b1, float *s, float *x) {
    for (int i = 0; i < kN; ++i) {
        const float w = x[i] + p * *s;
        const float y = b0 * w - b1 * *s;
        x[i] = y;
        *s = w;
    }
}

void fillRandom(float *x, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int i = 0; i < kN; ++i) x[i] = u(rng);
}

// Steady-state gain in dB for a constant (DC) or alternating (Nyquist)
// input, after 10 frames: the slowest pole (0.8816) has decayed by
// 0.8816^1600, far below float resolution.
template <typename F>
double steadyGainDb(F filter, bool nyquist) {
    float s = 0.0f;
    float x[kN];
    for (int fr = 0; fr < 10; ++fr) {
        for (int i = 0; i < kN; ++i) x[i] = (nyquist && (i & 1)) ? -0.25f : 0.25f;
        filter(&s, x);
    }
    return 20.0 * std::log10(std::fabs(static_cast<double>(x[kN - 1])) / 0.25);
}

TEST(InputTilt, FirstSamplesOfTheImpulseResponse) {
    float s = 0.0f;
    float x[kN] = {};
    x[0] = 1.0f;
    aec_in_corr(&s, x);
    // n0: w = 1, y = 2.0826938.  n1: w = 0.22, y = 2.0826938 * 0.22 - 1.8361416.
    EXPECT_EQ(x[0], 2.0826938f);
    EXPECT_EQ(x[1], 2.0826938f * 0.22f - 1.8361416f * 1.0f);
    // Beyond that the response decays geometrically with the pole 0.22:
    // h1 = -1.37795..., h2 = 0.22 h1 (float rounding only: 1e-6 relative).
    EXPECT_NEAR(x[1], 2.0826938 * 0.22 - 1.8361416, 1e-6);
    EXPECT_NEAR(x[2], (2.0826938 * 0.22 - 1.8361416) * 0.22, 1e-6);
}

TEST(InputTilt, BitExactToItsRecursionAcrossFrames) {
    float s = 0.3f, sr = 0.3f;
    for (unsigned fr = 0; fr < 4; ++fr) {
        float x[kN], ref[kN];
        fillRandom(x, 100 + fr);
        std::memcpy(ref, x, sizeof(x));
        aec_in_corr(&s, x);
        tiltReference(0.22f, 2.0826938f, 1.8361416f, &sr, ref);
        for (int i = 0; i < kN; ++i) ASSERT_EQ(x[i], ref[i]) << "frame " << fr << " sample " << i;
        EXPECT_EQ(s, sr);
    }
}

TEST(OutputTilt, FirstSamplesOfTheImpulseResponse) {
    float s = 0.0f;
    float x[kN] = {};
    x[0] = 1.0f;
    aec_out_corr(&s, x);
    EXPECT_EQ(x[0], 0.4801474f);
    EXPECT_EQ(x[1], 0.4801474f * 0.8816186f - 0.105632424f * 1.0f);
}

TEST(OutputTilt, BitExactToItsRecursionAcrossFrames) {
    float s = -0.7f, sr = -0.7f;
    for (unsigned fr = 0; fr < 4; ++fr) {
        float x[kN], ref[kN];
        fillRandom(x, 200 + fr);
        std::memcpy(ref, x, sizeof(x));
        aec_out_corr(&s, x);
        tiltReference(0.8816186f, 0.4801474f, 0.105632424f, &sr, ref);
        for (int i = 0; i < kN; ++i) ASSERT_EQ(x[i], ref[i]) << "frame " << fr << " sample " << i;
        EXPECT_EQ(s, sr);
    }
}

TEST(Tilt, InputThenOutputReproducesTheSignal) {
    float sIn = 0.0f, sOut = 0.0f;
    double worst = 0.0;
    for (unsigned fr = 0; fr < 50; ++fr) {
        float x[kN], orig[kN];
        fillRandom(x, 300 + fr);
        std::memcpy(orig, x, sizeof(x));
        aec_in_corr(&sIn, x);
        aec_out_corr(&sOut, x);
        for (int i = 0; i < kN; ++i) worst = std::fmax(worst, std::fabs(static_cast<double>(x[i]) - orig[i]));
    }
    // The coefficients are the float roundings of an exact inverse pair;
    // the mismatch and the rounding of each step (about 6e-8 of values up to
    // about 3) are summed by the output pole 0.88 (gain about 8): the error
    // stays near 1e-6 for unit signals, 1e-5 leaves margin.
    EXPECT_LT(worst, 1e-5);
}

TEST(Tilt, OutputThenInputReproducesTheSignal) {
    float sIn = 0.0f, sOut = 0.0f;
    double worst = 0.0;
    for (unsigned fr = 0; fr < 50; ++fr) {
        float x[kN], orig[kN];
        fillRandom(x, 400 + fr);
        std::memcpy(orig, x, sizeof(x));
        aec_out_corr(&sOut, x);
        aec_in_corr(&sIn, x);
        for (int i = 0; i < kN; ++i) worst = std::fmax(worst, std::fabs(static_cast<double>(x[i]) - orig[i]));
    }
    // Same bound as above.
    EXPECT_LT(worst, 1e-5);
}

// The figures are stated to 0.1 dB; the measured values come from the
// float recursion in steady state and differ from the exact transfer
// function by about 1e-6 dB, so the checks use the stated resolution.
TEST(Tilt, InputTiltIsMinusTenDecibelsAtDcAndPlusTenPointOneAtNyquist) {
    const double dc = steadyGainDb(aec_in_corr, false);
    const double ny = steadyGainDb(aec_in_corr, true);
    std::printf("measured: input tilt %.4f dB at DC, %.4f dB at Nyquist\n", dc, ny);
    EXPECT_NEAR(dc, -10.0, 0.05);
    EXPECT_NEAR(ny, 10.1, 0.05);
    // Exact design values: 20 log10(0.2465522 / 0.78) and
    // 20 log10(3.9188354 / 1.22).
    EXPECT_NEAR(dc, 20.0 * std::log10((2.0826938 - 1.8361416) / 0.78), 1e-4);
    EXPECT_NEAR(ny, 20.0 * std::log10((2.0826938 + 1.8361416) / 1.22), 1e-4);
}

TEST(Tilt, OutputTiltIsTheMirrorImage) {
    EXPECT_NEAR(steadyGainDb(aec_out_corr, false), 10.0, 0.05);
    EXPECT_NEAR(steadyGainDb(aec_out_corr, true), -10.1, 0.05);
}

TEST(Tilt, EachCallKeepsItsOwnState) {
    // Two interleaved paths with separate states give the same results as
    // each path run alone.
    float a[kN], b[kN], a2[kN];
    fillRandom(a, 1);
    fillRandom(b, 2);
    std::memcpy(a2, a, sizeof(a));
    float sa = 0.0f, sb = 0.0f;
    aec_in_corr(&sa, a);
    aec_in_corr(&sb, b);
    float alone = 0.0f;
    aec_in_corr(&alone, a2);
    EXPECT_EQ(0, std::memcmp(a, a2, sizeof(a)));
    EXPECT_EQ(sa, alone);
    EXPECT_NE(sa, sb);
}

}  // namespace
