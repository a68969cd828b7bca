// Microphone equalizer: profiles 1, 3 and 4 with their own curves and history.
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

std::vector<float> noise(unsigned seed, int n) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> v(static_cast<size_t>(n));
    for (float &x : v) x = u(rng);
    return v;
}

// Row of the microphone table for a profile (1, 3, 4).
int row(int profile) { return profile == 1 ? 0 : profile == 3 ? 1 : 2; }

float lane_fir(const float *h, const float *b) {
    float s[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int k = 0; k < 48; ++k) s[k % 4] = s[k % 4] + h[k] * b[k];
    return (s[0] + s[2]) + (s[1] + s[3]);
}

}  // namespace

TEST(MicEqTables, CurvesHoldTheProfileData) {
    const int profiles[3] = {1, 3, 4};
    const float first[3] = {0.00030777167f, -7.9883284e-06f, -3.0789611e-06f};
    const float tap20[3] = {0.0097552892f, 0.0051482683f, 0.0041089491f};
    const float last[3] = {-1.1796799f, 0.87128705f, 0.89375496f};
    const double sum[3] = {-0.648116504, 1.00201362, 1.04235355};
    const double wsum[3] = {-41.0075459, 47.7720993, 49.4735255};
    for (int i = 0; i < 3; ++i) {
        const float *h = aeceq_afMicCurve[row(profiles[i])];
        EXPECT_EQ(h[0], first[i]) << i;
        EXPECT_EQ(h[20], tap20[i]) << i;
        EXPECT_EQ(h[47], last[i]) << i;
        double s = 0.0, ws = 0.0;
        for (int k = 0; k < 48; ++k) {
            s += h[k];
            ws += (k + 1) * static_cast<double>(h[k]);
        }
        // Each tap is within 6e-8 relative of its decimal value (|h| < 1.2).
        EXPECT_NEAR(s, sum[i], 1e-6) << i;
        EXPECT_NEAR(ws, wsum[i], 5e-5) << i;
    }
}

TEST(MicEq, ProfileTwoLeavesTheMicrophoneFrameWhileTheSpeakerCurveApplies) {
    set_profile(2);
    const std::vector<float> orig = noise(1, 160);
    std::vector<float> mic = orig;
    aecx_miceq(mic.data());
    EXPECT_EQ(0, std::memcmp(mic.data(), orig.data(), 160 * sizeof(float)));
    for (float v : AEC_Db.afMicEqHist) EXPECT_EQ(v, 0.0f);
    // The loudspeaker equalizer does apply its curve 2 in the same profile.
    float spk[160] = {};
    spk[0] = 1.0f;
    aecx_spkeq(spk);
    EXPECT_EQ(spk[1], aeceq_afSpkCurve[1][47]);
}

TEST(MicEq, OtherProfilesPassThroughWithHistoryUntouched) {
    for (int p : {0, 2, 5, 6, -3}) {
        set_profile(p);
        for (int i = 0; i < 48; ++i) AEC_Db.afMicEqHist[i] = 1.0f + static_cast<float>(i);
        const std::vector<float> orig = noise(2, 160);
        std::vector<float> x = orig;
        aecx_miceq(x.data());
        EXPECT_EQ(0, std::memcmp(x.data(), orig.data(), 160 * sizeof(float))) << p;
        for (int i = 0; i < 48; ++i) EXPECT_EQ(AEC_Db.afMicEqHist[i], 1.0f + static_cast<float>(i)) << p;
    }
}

TEST(MicEq, ImpulseGivesZeroThenTheLastCoefficient) {
    for (int p : {1, 3, 4}) {
        set_profile(p);
        float x[160] = {};
        x[0] = 1.0f;
        aecx_miceq(x);
        EXPECT_EQ(x[0], 0.0f) << p;
        const float *h = aeceq_afMicCurve[row(p)];
        for (int n = 1; n <= 48; ++n) EXPECT_EQ(x[n], h[48 - n]) << p << " " << n;
        for (int n = 49; n < 160; ++n) EXPECT_EQ(x[n], 0.0f) << p << " " << n;
    }
    set_profile(1);
    float x[160] = {};
    x[0] = 1.0f;
    aecx_miceq(x);
    EXPECT_EQ(x[1], -1.1796799f);
    set_profile(3);
    std::memset(x, 0, sizeof x);
    x[0] = 1.0f;
    aecx_miceq(x);
    EXPECT_EQ(x[1], 0.87128705f);
    set_profile(4);
    std::memset(x, 0, sizeof x);
    x[0] = 1.0f;
    aecx_miceq(x);
    EXPECT_EQ(x[1], 0.89375496f);
}

TEST(MicEq, FirIsExactInLaneOrderAndCloseToDoubleReference) {
    for (int p : {1, 3, 4}) {
        set_profile(p);
        const std::vector<float> a = noise(3, 160);
        const std::vector<float> b = noise(4, 160);
        std::vector<float> all(48, 0.0f);
        all.insert(all.end(), a.begin(), a.end());
        all.insert(all.end(), b.begin(), b.end());
        std::vector<float> xa = a, xb = b;
        aecx_miceq(xa.data());
        aecx_miceq(xb.data());
        const float *h = aeceq_afMicCurve[row(p)];
        double sum_abs_h = 0.0;
        for (int k = 0; k < 48; ++k) sum_abs_h += std::fabs(h[k]);
        // 48 rounded products and additions of |x| <= 1: <= 48 u sum|h|.
        const double tol = 48.0 * std::ldexp(1.0, -24) * sum_abs_h;
        for (int n = 0; n < 320; ++n) {
            const float got = n < 160 ? xa[static_cast<size_t>(n)] : xb[static_cast<size_t>(n - 160)];
            EXPECT_EQ(got, lane_fir(h, all.data() + n)) << p << " " << n;
            double ref = 0.0;
            for (int k = 0; k < 48; ++k) ref += static_cast<double>(h[k]) * all[static_cast<size_t>(n + k)];
            EXPECT_NEAR(got, ref, tol) << p << " " << n;
        }
        for (int i = 0; i < 48; ++i) EXPECT_EQ(AEC_Db.afMicEqHist[i], b[static_cast<size_t>(112 + i)]);
    }
}

TEST(MicEq, KeepsItsOwnHistoryApartFromTheSpeakerEqualizer) {
    set_profile(1);
    const std::vector<float> a = noise(8, 160);
    std::vector<float> spk = a;
    aecx_spkeq(spk.data());  // fills the loudspeaker history only
    for (float v : AEC_Db.afMicEqHist) EXPECT_EQ(v, 0.0f);
    float x[160] = {};
    x[0] = 1.0f;
    aecx_miceq(x);
    EXPECT_EQ(x[0], 0.0f);
    EXPECT_EQ(x[1], -1.1796799f);
    // A profile switch keeps the one microphone history.
    const std::vector<float> d = noise(10, 160);
    std::vector<float> xd = d;
    aecx_miceq(xd.data());  // profile 1
    const std::vector<float> c = noise(9, 160);
    std::vector<float> xc = c;
    AEC_Db.tCfg.iProfile = 4;
    aecx_miceq(xc.data());
    std::vector<float> all(d.begin() + 112, d.end());
    all.insert(all.end(), c.begin(), c.end());
    for (int n = 0; n < 160; ++n)
        EXPECT_EQ(xc[static_cast<size_t>(n)], lane_fir(aeceq_afMicCurve[2], all.data() + n)) << n;
}
