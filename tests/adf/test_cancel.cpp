// Echo estimation and subtraction: the four-tap-group kernel and the two
// bank-wide passes (slow bank, all bands; fast bank, paired strips).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "adf/adf.h"
#include "kvaec_records.h"

namespace {

// Deterministic uniform values in [-1, 1).
struct Lcg {
    uint32_t s;
    explicit Lcg(uint32_t seed) : s(seed) {}
    float next() {
        s = s * 1664525u + 1013904223u;
        return static_cast<float>(static_cast<int32_t>(s >> 8) - (1 << 23)) / static_cast<float>(1 << 23);
    }
};

// Band geometry written out from the layout (not read from the tables).
int stripOf(int b) { return b < 19 ? b : 19 + (b - 19) / 2; }
int indexInStrip(int b) { return b < 19 ? 0 : (b - 19) % 2; }
int refStart(int b) {  // complex index of history value 0 of band b
    const int s = stripOf(b);
    return s < 19 ? 55 * s : 1045 + 78 * (s - 19) + 39 * indexInStrip(b);
}
int coefStart(int b) {  // complex index of tap 0 of band b
    const int s = stripOf(b);
    return s < 19 ? 48 * s : 912 + 72 * (s - 19) + 36 * indexInStrip(b);
}
int taps(int b) { return b < 19 ? 48 : 36; }
int histLen(int b) { return b < 19 ? 55 : 39; }

// Expected kernel: groups of four taps, group sum (p0 + p2) + (p1 + p3),
// subtracted from the accumulator group by group.
void expectedKernel(const float *ref, const float *coef, float acc[2], int len) {
    for (int g = 0; g < len / 4; ++g) {
        float pr[4], pi[4];
        for (int t = 0; t < 4; ++t) {
            const int k = 4 * g + t;
            pr[t] = coef[2 * k] * ref[2 * k] - coef[2 * k + 1] * ref[2 * k + 1];
            pi[t] = coef[2 * k] * ref[2 * k + 1] + coef[2 * k + 1] * ref[2 * k];
        }
        acc[0] = acc[0] - ((pr[0] + pr[2]) + (pr[1] + pr[3]));
        acc[1] = acc[1] - ((pi[0] + pi[2]) + (pi[1] + pi[3]));
    }
}

class CancelFixture : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    }
    static void fillRandom(float *p, int n, uint32_t seed) {
        Lcg r(seed);
        for (int i = 0; i < n; ++i) p[i] = r.next();
    }
};

}  // namespace

TEST(CancellationKernel, FourTapsWithSmallIntegersGiveHandComputedResult) {
    // coef = (1+2i, 3-i, 0.5+0.25i, -2+i), ref = (2-i, 1+i, 4, -1-2i)
    // products: (1+2i)(2-i) = 4+3i, (3-i)(1+i) = 4+2i,
    //           (0.5+0.25i)*4 = 2+i, (-2+i)(-1-2i) = 4+3i; y = 14+9i.
    const float coef[8] = {1, 2, 3, -1, 0.5f, 0.25f, -2, 1};
    const float ref[8] = {2, -1, 1, 1, 4, 0, -1, -2};
    float acc[2] = {10.0f, -3.0f};
    aec_cancel_band(ref, coef, acc, 4);
    EXPECT_EQ(acc[0], -4.0f);
    EXPECT_EQ(acc[1], -12.0f);
}

TEST(CancellationKernel, NoConjugateIsApplied) {
    // coef = i, ref = i: plain product i*i = -1, so acc.re rises by 1.
    const float coef[8] = {0, 1, 0, 0, 0, 0, 0, 0};
    const float ref[8] = {0, 1, 0, 0, 0, 0, 0, 0};
    float acc[2] = {0.0f, 0.0f};
    aec_cancel_band(ref, coef, acc, 4);
    EXPECT_EQ(acc[0], 1.0f);
    EXPECT_EQ(acc[1], 0.0f);
}

TEST(CancellationKernel, EightTapsMatchGroupedOrderBitExactly) {
    Lcg r(7);
    for (int trial = 0; trial < 200; ++trial) {
        float coef[16], ref[16];
        for (float &v : coef) v = r.next() * 3.0f;
        for (float &v : ref) v = r.next() * 5.0f;
        float acc[2] = {r.next(), r.next()};
        float want[2] = {acc[0], acc[1]};
        aec_cancel_band(ref, coef, acc, 8);
        expectedKernel(ref, coef, want, 8);
        ASSERT_EQ(acc[0], want[0]) << trial;
        ASSERT_EQ(acc[1], want[1]) << trial;
    }
}

TEST(CancellationKernel, GroupSumPairsFirstWithThirdAndSecondWithFourth) {
    // Real products 1e8, 1, -1e8, 1: (p0 + p2) + (p1 + p3) = 2, whereas a
    // running sum would lose the first 1 against 1e8 and give 1.
    const float coef[8] = {1e8f, 0, 1, 0, -1e8f, 0, 1, 0};
    const float ref[8] = {1, 0, 1, 0, 1, 0, 1, 0};
    float acc[2] = {0.0f, 0.0f};
    aec_cancel_band(ref, coef, acc, 4);
    EXPECT_EQ(acc[0], -2.0f);
    EXPECT_EQ(acc[1], 0.0f);
}

TEST(CancellationKernel, EachGroupIsSubtractedBeforeTheNext) {
    // Group sums 1e8 and -1e8 (real) and the same on the imaginary side via
    // ref = i: acc 1 - 1e8 rounds to -1e8, + 1e8 gives 0; summing the groups
    // first would leave acc at 1.
    const float coef[16] = {1e8f, 0, 0, 0, 0, 0, 0, 0, -1e8f, 0, 0, 0, 0, 0, 0, 0};
    const float ref[16] = {1, 1, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0};
    float acc[2] = {1.0f, 1.0f};
    aec_cancel_band(ref, coef, acc, 8);
    EXPECT_EQ(acc[0], 0.0f);
    EXPECT_EQ(acc[1], 0.0f);
}

TEST(CancellationKernel, LengthBelowFourLeavesAccumulatorUnchanged) {
    float coef[8], ref[8];
    for (int i = 0; i < 8; ++i) {
        coef[i] = 1.5f + static_cast<float>(i);
        ref[i] = 2.0f - static_cast<float>(i);
    }
    for (int len : {3, 2, 1, 0, -1, -4, -100}) {
        float acc[2] = {0.125f, -7.5f};
        aec_cancel_band(ref, coef, acc, len);
        EXPECT_EQ(acc[0], 0.125f) << len;
        EXPECT_EQ(acc[1], -7.5f) << len;
    }
}

TEST(CancellationKernel, LengthFiftyUsesFortyEightTaps) {
    float coef[2 * 52], ref[2 * 52];
    Lcg r(11);
    for (float &v : coef) v = r.next();
    for (float &v : ref) v = r.next();
    // Taps 48..51 are large: any use of them would show.
    for (int k = 48; k < 52; ++k) {
        coef[2 * k] = 1000.0f;
        coef[2 * k + 1] = -1000.0f;
    }
    float acc50[2] = {0.5f, 0.25f};
    float acc48[2] = {0.5f, 0.25f};
    float want[2] = {0.5f, 0.25f};
    aec_cancel_band(ref, coef, acc50, 50);
    aec_cancel_band(ref, coef, acc48, 48);
    expectedKernel(ref, coef, want, 48);
    EXPECT_EQ(acc50[0], want[0]);
    EXPECT_EQ(acc50[1], want[1]);
    EXPECT_EQ(acc48[0], want[0]);
    EXPECT_EQ(acc48[1], want[1]);
    float acc52[2] = {0.5f, 0.25f};
    aec_cancel_band(ref, coef, acc52, 52);
    EXPECT_GT(std::fabs(acc52[0] - want[0]), 100.0f);
}

TEST_F(CancelFixture, SlowPassWithZeroCoefficientsLeavesMicrophoneFrame) {
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 3);
    fillRandom(&AEC_Sc.acErrAds[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 4);
    float mic[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(mic, AEC_Sc.acErrAds, sizeof(mic));
    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(0, std::memcmp(mic, AEC_Sc.acErrAds, sizeof(mic)));
}

TEST_F(CancelFixture, FastPassWithZeroCoefficientsLeavesMicrophoneFrame) {
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 5);
    fillRandom(&AEC_Sc.acErrAdf[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 6);
    float mic[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(mic, AEC_Sc.acErrAdf, sizeof(mic));
    for (unsigned j = 0; j < 4; ++j) aec_cancel_reg2(&AEC_Db, &AEC_Sc, j);
    EXPECT_EQ(0, std::memcmp(mic, AEC_Sc.acErrAdf, sizeof(mic)));
}

TEST_F(CancelFixture, UnitTapZeroWithMicrophoneEqualToAlignedReferenceGivesZeroError) {
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 8);
    for (int b = 0; b < AEC_NBANDS; ++b) {
        AEC_afAds[2 * coefStart(b)] = 1.0f;
        AEC_afAdf[2 * coefStart(b)] = 1.0f;
        for (int j = 0; j < 4; ++j)
            for (int c = 0; c < 2; ++c) {
                const float x = AEC_afRef[2 * (refStart(b) + 3 - j) + c];
                AEC_Sc.acErrAds[b][j][c] = x;
                AEC_Sc.acErrAdf[b][j][c] = x;
            }
    }
    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    for (unsigned j = 0; j < 4; ++j) aec_cancel_reg2(&AEC_Db, &AEC_Sc, j);
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(AEC_Sc.acErrAds[b][j][0], 0.0f) << b << " " << j;
            EXPECT_EQ(AEC_Sc.acErrAds[b][j][1], 0.0f) << b << " " << j;
            if (b >= 19) {
                EXPECT_EQ(AEC_Sc.acErrAdf[b][j][0], 0.0f) << b << " " << j;
                EXPECT_EQ(AEC_Sc.acErrAdf[b][j][1], 0.0f) << b << " " << j;
            }
        }
}

TEST_F(CancelFixture, SlowPassMatchesPerBandKernelWithLayoutOffsets) {
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 21);
    fillRandom(AEC_afAds, AEC_ADF_FLOATS, 22);
    fillRandom(AEC_afAdf, AEC_ADF_FLOATS, 23);  // must not be used
    fillRandom(&AEC_Sc.acErrAds[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 24);
    float want[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(want, AEC_Sc.acErrAds, sizeof(want));
    float adfErrBefore[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(adfErrBefore, AEC_Sc.acErrAdf, sizeof(adfErrBefore));
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int j = 0; j < 4; ++j)
            expectedKernel(&AEC_afRef[2 * (refStart(b) + 3 - j)], &AEC_afAds[2 * coefStart(b)], want[b][j],
                           taps(b));
    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int j = 0; j < 4; ++j) {
            ASSERT_EQ(AEC_Sc.acErrAds[b][j][0], want[b][j][0]) << b << " " << j;
            ASSERT_EQ(AEC_Sc.acErrAds[b][j][1], want[b][j][1]) << b << " " << j;
        }
    EXPECT_EQ(0, std::memcmp(adfErrBefore, AEC_Sc.acErrAdf, sizeof(adfErrBefore)));
}

TEST_F(CancelFixture, SlowPassIgnoresHistoryBeyondTheFilterSpan) {
    // Only history values 0 .. taps + 2 of each band reach the estimate
    // (sub-sample 0 reads up to index 3 + taps - 1); the slots beyond that
    // (51..54 of a low band's 55) must not matter.
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 31);
    fillRandom(AEC_afAds, AEC_ADF_FLOATS, 32);
    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    float first[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(first, AEC_Sc.acErrAds, sizeof(first));
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int m = taps(b) + 3; m < histLen(b); ++m) {
            AEC_afRef[2 * (refStart(b) + m)] = 1e30f;
            AEC_afRef[2 * (refStart(b) + m) + 1] = -1e30f;
        }
    std::memset(AEC_Sc.acErrAds, 0, sizeof(AEC_Sc.acErrAds));
    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(0, std::memcmp(first, AEC_Sc.acErrAds, sizeof(first)));
}

TEST_F(CancelFixture, SlowPassSubSamplesAreIndependentOfOneAnother) {
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 41);
    fillRandom(AEC_afAds, AEC_ADF_FLOATS, 42);
    fillRandom(&AEC_Sc.acErrAds[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 43);
    float mic[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(mic, AEC_Sc.acErrAds, sizeof(mic));
    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    float first[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(first, AEC_Sc.acErrAds, sizeof(first));
    // Change the microphone of sub-sample 0 only: sub-samples 1..3 keep
    // their errors, sub-sample 0 changes.
    std::memcpy(AEC_Sc.acErrAds, mic, sizeof(mic));
    for (int b = 0; b < AEC_NBANDS; ++b) AEC_Sc.acErrAds[b][0][0] += 100.0f;
    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    for (int b = 0; b < AEC_NBANDS; ++b) {
        EXPECT_NE(AEC_Sc.acErrAds[b][0][0], first[b][0][0]) << b;
        for (int j = 1; j < 4; ++j) {
            EXPECT_EQ(AEC_Sc.acErrAds[b][j][0], first[b][j][0]) << b << " " << j;
            EXPECT_EQ(AEC_Sc.acErrAds[b][j][1], first[b][j][1]) << b << " " << j;
        }
    }
}

TEST_F(CancelFixture, FastPassTouchesOnlySubSampleJOfPairedStripBands) {
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 51);
    fillRandom(AEC_afAdf, AEC_ADF_FLOATS, 52);
    fillRandom(AEC_afAds, AEC_ADF_FLOATS, 53);  // must not be used
    fillRandom(&AEC_Sc.acErrAdf[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 54);
    fillRandom(&AEC_Sc.acErrAds[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 55);
    for (unsigned j = 0; j < 4; ++j) {
        float before[AEC_NBANDS][AEC_NSUB][2];
        std::memcpy(before, AEC_Sc.acErrAdf, sizeof(before));
        float adsBefore[AEC_NBANDS][AEC_NSUB][2];
        std::memcpy(adsBefore, AEC_Sc.acErrAds, sizeof(adsBefore));
        aec_cancel_reg2(&AEC_Db, &AEC_Sc, j);
        for (int b = 0; b < AEC_NBANDS; ++b)
            for (unsigned jj = 0; jj < 4; ++jj) {
                float want[2] = {before[b][jj][0], before[b][jj][1]};
                if (b >= 19 && jj == j)
                    expectedKernel(&AEC_afRef[2 * (refStart(b) + 3 - static_cast<int>(j))],
                                   &AEC_afAdf[2 * coefStart(b)], want, 36);
                ASSERT_EQ(AEC_Sc.acErrAdf[b][jj][0], want[0]) << b << " " << jj;
                ASSERT_EQ(AEC_Sc.acErrAdf[b][jj][1], want[1]) << b << " " << jj;
            }
        EXPECT_EQ(0, std::memcmp(adsBefore, AEC_Sc.acErrAds, sizeof(adsBefore)));
    }
}

TEST_F(CancelFixture, FastPassLeavesLowBandsUntouched) {
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 61);
    fillRandom(AEC_afAdf, AEC_ADF_FLOATS, 62);
    fillRandom(&AEC_Sc.acErrAdf[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 63);
    float all[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(all, AEC_Sc.acErrAdf, sizeof(all));
    for (unsigned j = 0; j < 4; ++j) aec_cancel_reg2(&AEC_Db, &AEC_Sc, j);
    EXPECT_EQ(0, std::memcmp(all, AEC_Sc.acErrAdf, sizeof(float) * 19 * AEC_NSUB * 2));
    // ... while every paired band did change.
    for (int b = 19; b < AEC_NBANDS; ++b)
        EXPECT_NE(0, std::memcmp(all[b], AEC_Sc.acErrAdf[b], sizeof(all[b]))) << b;
}
