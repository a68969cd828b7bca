// Loudspeaker equalizer: profile-selected 48-tap FIR, high-pass and gain.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "eq/eq.h"
#include "kvaec_records.h"

namespace {

void set_profile(int p) {
    aecx_init(nullptr);
    AEC_Db.tCfg.iProfile = p;
}

std::vector<float> noise(unsigned seed, int n, float amp) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-amp, amp);
    std::vector<float> v(static_cast<size_t>(n));
    for (float &x : v) x = u(rng);
    return v;
}

// The FIR with the library's documented summation order: lane r sums the
// taps k = r, r + 4, ... in increasing k; lanes combine as (s0 + s2) + (s1 + s3).
float lane_fir(const float *h, const float *b) {
    float s[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int k = 0; k < 48; ++k) s[k % 4] = s[k % 4] + h[k] * b[k];
    return (s[0] + s[2]) + (s[1] + s[3]);
}

// Reference equalizer in double over a continuous signal (zero before it):
// y[n] = sum_k h[k] x[n - 48 + k], then for profiles 3 and 4 the three
// sections (numerator stored as difference to the denominator) and the gain.
std::vector<double> ref_eq(int profile, const std::vector<float> &x) {
    const float *h = aeceq_afSpkCurve[profile - 1];
    const int n_all = static_cast<int>(x.size());
    std::vector<double> y(x.size());
    for (int n = 0; n < n_all; ++n) {
        double s = 0.0;
        for (int k = 0; k < 48; ++k) {
            const int i = n - 48 + k;
            if (i >= 0) s += static_cast<double>(h[k]) * x[static_cast<size_t>(i)];
        }
        y[static_cast<size_t>(n)] = s;
    }
    if (profile == 3 || profile == 4) {
        for (int sec = 0; sec < 3; ++sec) {
            const float *c = aeceq_afSpkHpCoef[sec];
            double w1 = 0.0, w2 = 0.0;
            for (double &v : y) {
                const double in = v;
                v = in + c[0] * w1 + c[1] * w2;
                const double w = in + c[2] * w1 + c[3] * w2;
                w2 = w1;
                w1 = w;
            }
        }
        for (double &v : y) v *= aeceq_fSpkHpGain;
    }
    return y;
}

}  // namespace

TEST(SpeakerEqTables, CurvesHoldTheProfileData) {
    // First, middle and last taps, and two checksums of the 48 decimal values.
    const float first[4] = {0.00050190545f, 0.00022990005f, 0.00050063262f, -3.7492534e-06f};
    const float tap20[4] = {-0.0064878985f, 0.0055106287f, 0.015421008f, 0.0041870591f};
    const float last[4] = {-2.1695731f, -0.89205593f, -0.91880578f, 0.96578014f};
    const double sum[4] = {-0.929346687, -0.407525548, -1.26012139, 1.14498242};
    const double wsum[4] = {-52.5740272, -30.3851058, -67.5342848, 53.7178298};
    for (int p = 0; p < 4; ++p) {
        EXPECT_EQ(aeceq_afSpkCurve[p][0], first[p]) << p;
        EXPECT_EQ(aeceq_afSpkCurve[p][20], tap20[p]) << p;
        EXPECT_EQ(aeceq_afSpkCurve[p][47], last[p]) << p;
        double s = 0.0, ws = 0.0;
        for (int k = 0; k < 48; ++k) {
            s += aeceq_afSpkCurve[p][k];
            ws += (k + 1) * static_cast<double>(aeceq_afSpkCurve[p][k]);
        }
        // Each tap is within 6e-8 relative of its decimal value (|h| < 2.2).
        EXPECT_NEAR(s, sum[p], 1e-6) << p;
        EXPECT_NEAR(ws, wsum[p], 5e-5) << p;
    }
    EXPECT_EQ(aeceq_afSpkHpCoef[0][0], -0.054690033f);
    EXPECT_EQ(aeceq_afSpkHpCoef[1][2], 1.8503433f);
    EXPECT_EQ(aeceq_afSpkHpCoef[2][3], -0.58125424f);
    EXPECT_EQ(aeceq_fSpkHpGain, 0.68558019f);
}

TEST(SpeakerEq, ProfilesZeroAndFiveAndNegativePassThroughUntouched) {
    for (int p : {0, 5, 6, -1, 1000}) {
        set_profile(p);
        for (int i = 0; i < 48; ++i) AEC_Db.afSpkEqHist[i] = 0.5f + static_cast<float>(i);
        std::vector<float> x = noise(1, 160, 1.0f);
        const std::vector<float> orig = x;
        aecx_spkeq(x.data());
        EXPECT_EQ(0, std::memcmp(x.data(), orig.data(), 160 * sizeof(float))) << p;
        for (int i = 0; i < 48; ++i) EXPECT_EQ(AEC_Db.afSpkEqHist[i], 0.5f + static_cast<float>(i)) << p;
        for (int s = 0; s < 3; ++s) {
            EXPECT_EQ(AEC_Db.afSpkEqHpState[s][0], 0.0f);
            EXPECT_EQ(AEC_Db.afSpkEqHpState[s][1], 0.0f);
        }
    }
}

TEST(SpeakerEq, PassThroughFramesDoNotEnterTheHistory) {
    set_profile(0);
    std::vector<float> a = noise(2, 160, 1.0f);
    aecx_spkeq(a.data());
    // The next equalising call starts from the zeros left by aecx_init.
    AEC_Db.tCfg.iProfile = 1;
    float x[160] = {};
    x[0] = 1.0f;
    aecx_spkeq(x);
    EXPECT_EQ(x[0], 0.0f);
    for (int n = 1; n <= 48; ++n) EXPECT_EQ(x[n], aeceq_afSpkCurve[0][48 - n]) << n;
}

TEST(SpeakerEq, ImpulseGivesTheReversedCurveDelayedByOneSample) {
    for (int p : {1, 2}) {
        set_profile(p);
        float x[160] = {};
        x[0] = 1.0f;
        aecx_spkeq(x);
        EXPECT_EQ(x[0], 0.0f) << p;  // the current sample does not enter its own output
        for (int n = 1; n <= 48; ++n) EXPECT_EQ(x[n], aeceq_afSpkCurve[p - 1][48 - n]) << p << " " << n;
        for (int n = 49; n < 160; ++n) EXPECT_EQ(x[n], 0.0f) << p << " " << n;
        if (p == 2) {
            EXPECT_EQ(x[1], -0.89205593f);
        }
        // The history now holds the last 48 input samples (all zero).
        for (int i = 0; i < 48; ++i) EXPECT_EQ(AEC_Db.afSpkEqHist[i], 0.0f);
    }
}

TEST(SpeakerEq, FirUsesTheDocumentedLaneOrderExactly) {
    for (int p : {1, 2}) {
        set_profile(p);
        const std::vector<float> a = noise(3, 160, 1.0f);
        const std::vector<float> b = noise(4, 160, 1.0f);
        std::vector<float> all(48, 0.0f);
        all.insert(all.end(), a.begin(), a.end());
        all.insert(all.end(), b.begin(), b.end());
        std::vector<float> xa = a, xb = b;
        aecx_spkeq(xa.data());
        for (int i = 0; i < 48; ++i) EXPECT_EQ(AEC_Db.afSpkEqHist[i], a[static_cast<size_t>(112 + i)]);
        aecx_spkeq(xb.data());
        const float *h = aeceq_afSpkCurve[p - 1];
        for (int n = 0; n < 160; ++n) {
            EXPECT_EQ(xa[static_cast<size_t>(n)], lane_fir(h, all.data() + n)) << n;
            EXPECT_EQ(xb[static_cast<size_t>(n)], lane_fir(h, all.data() + 160 + n)) << n;
        }
    }
}

TEST(SpeakerEq, AllProfilesMatchADoublePrecisionReference) {
    const int frames = 6;
    const std::vector<float> sig = noise(5, 160 * frames, 0.9f);
    for (int p = 1; p <= 4; ++p) {
        set_profile(p);
        const std::vector<double> ref = ref_eq(p, sig);
        double sum_abs_h = 0.0;
        for (float v : aeceq_afSpkCurve[p - 1]) sum_abs_h += std::fabs(v);
        // FIR: 48 rounded products and sums, |x| <= 0.9: error <= 48 u sum|h| 0.9.
        // Profiles 3 and 4: the cascade with its gain has an impulse response
        // of L1 norm 3.9, which bounds how much it grows the FIR's error; the
        // sections' own rounding, fed through their recursions (poles at
        // radius up to 0.99), adds to that. 30x the FIR bound leaves ample
        // margin (the observed worst case is about 0.35x).
        double tol = 48.0 * std::ldexp(1.0, -24) * sum_abs_h * 0.9;
        if (p >= 3) tol *= 30.0;
        for (int f = 0; f < frames; ++f) {
            float x[160];
            std::memcpy(x, sig.data() + 160 * f, sizeof x);
            aecx_spkeq(x);
            for (int n = 0; n < 160; ++n)
                ASSERT_NEAR(x[n], ref[static_cast<size_t>(160 * f + n)], tol) << p << " " << f << " " << n;
        }
    }
}

TEST(SpeakerEq, HighPassProfilesRunTheCascadeAndTheGain) {
    for (int p : {3, 4}) {
        set_profile(p);
        float x[160] = {};
        x[0] = 1.0f;
        aecx_spkeq(x);
        // Expected: the FIR impulse response through the three sections,
        // computed in float with the section recursion, then the gain.
        float y[160] = {};
        for (int n = 1; n <= 48; ++n) y[n] = aeceq_afSpkCurve[p - 1][48 - n];
        for (int s = 0; s < 3; ++s) {
            const float *c = aeceq_afSpkHpCoef[s];
            float w1 = 0.0f, w2 = 0.0f;
            for (float &v : y) {
                const float in = v;
                v = in + c[0] * w1 + c[1] * w2;
                const float w = in + c[2] * w1 + c[3] * w2;
                w2 = w1;
                w1 = w;
            }
            // The section's state carries over to the next frame.
            EXPECT_EQ(AEC_Db.afSpkEqHpState[s][0], w1) << p << " " << s;
            EXPECT_EQ(AEC_Db.afSpkEqHpState[s][1], w2) << p << " " << s;
        }
        for (int n = 0; n < 160; ++n) {
            const float want = y[n] * 0.68558019f;
            // The same float operations give the same bits; allow one ulp-scale
            // slack in case the section evaluates its sums in another order.
            EXPECT_NEAR(x[n], want, 1e-6f * (1.0f + std::fabs(want))) << p << " " << n;
        }
        // Unlike profiles 1 and 2, the output is not the bare reversed curve.
        EXPECT_NE(x[1], aeceq_afSpkCurve[p - 1][47]);
    }
}

TEST(SpeakerEq, ProfileSwitchKeepsTheSharedHistory) {
    set_profile(1);
    const std::vector<float> a = noise(6, 160, 1.0f);
    const std::vector<float> b = noise(7, 160, 1.0f);
    std::vector<float> xa = a;
    aecx_spkeq(xa.data());
    AEC_Db.tCfg.iProfile = 2;  // switch: curve 2 over the samples profile 1 saw
    std::vector<float> xb = b;
    aecx_spkeq(xb.data());
    std::vector<float> all(a.begin() + 112, a.end());
    all.insert(all.end(), b.begin(), b.end());
    for (int n = 0; n < 160; ++n)
        EXPECT_EQ(xb[static_cast<size_t>(n)], lane_fir(aeceq_afSpkCurve[1], all.data() + n)) << n;
    // The first output of the new frame depends on the old frame's samples.
    EXPECT_NE(xb[0], 0.0f);
}
