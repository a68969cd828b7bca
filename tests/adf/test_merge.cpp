// Filter merge: copies between the fast and slow coefficient stores, the
// copy score, the merge counters and weights that form the canceller's output
// error, and the adaptation progress counter.
//
// Expected values are recomputed here with the same single-precision
// operations in the same order, so EXPECT_EQ is used for them.
#include <gtest/gtest.h>

#include <cstdint>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "adf/adf.h"
#include "kvaec_records.h"

namespace {

uint32_t bitsOf(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

class FilterMerge : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
        // Both filters equally good and adapting at full step: the score
        // neither decays nor grows unless a test says otherwise.
        for (int s = 0; s < AEC_NSTRIPREC; ++s) {
            sc->atStripSc[s].fMuAdf = 1.0f;
            sc->atStripSc[s].fMuAds = 1.0f;
        }
    }
    // Distinct contents in both stores, so that a copy is visible.
    void fillStores() {
        for (int i = 0; i < AEC_ADF_FLOATS; ++i) {
            db->pafAdf[i] = 1.0f + static_cast<float>(i);
            db->pafAds[i] = -1.0f - static_cast<float>(i);
        }
    }
    // True when strip s of dst holds the values of strip s of src.
    static bool stripEquals(const float *a, const float *b, int s) {
        const int off = 2 * AEC_aiAdfOffStrip[s];
        const int n = 2 * AEC_aiBandsPerStrip[s] * AEC_aiAdfSzStrip[s];
        return std::memcmp(a + off, b + off, static_cast<size_t>(n) * 4) == 0;
    }
    AEC_tDb *db = &AEC_Db;
    AEC_tSc *sc = &AEC_Sc;
};

// ---------------------------------------------------------------------------
// Strip copy

TEST_F(FilterMerge, CopyStripCopiesExactlyItsCoefficientRange) {
    for (int s : {0, 7, 18, 19, 24, 29}) {
        std::vector<float> dst(AEC_ADF_FLOATS), src(AEC_ADF_FLOATS);
        for (int i = 0; i < AEC_ADF_FLOATS; ++i) {
            dst[static_cast<size_t>(i)] = static_cast<float>(i);
            src[static_cast<size_t>(i)] = -static_cast<float>(i) - 0.5f;
        }
        aec_copy_adf(dst.data(), src.data(), s);
        // Strip tables: 48 taps per band at 48 s below strip 19, two bands of
        // 36 taps at 912 + 72 (s - 19) from strip 19 on (complex counts).
        const int first = s < 19 ? 2 * 48 * s : 2 * (912 + 72 * (s - 19));
        const int count = s < 19 ? 2 * 48 : 2 * 72;
        for (int i = 0; i < AEC_ADF_FLOATS; ++i) {
            const bool inside = i >= first && i < first + count;
            EXPECT_EQ(dst[static_cast<size_t>(i)],
                      inside ? src[static_cast<size_t>(i)] : static_cast<float>(i))
                << "strip " << s << " float " << i;
        }
    }
}

TEST_F(FilterMerge, CopyStripPreservesBitPatterns) {
    std::vector<float> dst(AEC_ADF_FLOATS, 0.0f), src(AEC_ADF_FLOATS, 0.0f);
    const uint32_t patterns[3] = {0x7FC01234u, 0xFF800000u, 0x00000001u};
    for (int k = 0; k < 3; ++k) std::memcpy(&src[static_cast<size_t>(1824 + k)], &patterns[k], 4);
    aec_copy_adf(dst.data(), src.data(), 19);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(bitsOf(dst[static_cast<size_t>(1824 + k)]), patterns[k]);
}

// ---------------------------------------------------------------------------
// Copy decision (aec_adf_epc_control)

TEST_F(FilterMerge, ScoreDecaysWithSmallSteps) {
    db->atStrip[3].fCopyScore = 10.0f;
    sc->atStripSc[3].fMuAdf = 0.0f;
    sc->atStripSc[3].fMuAds = 0.0f;
    db->atStrip[4].fCopyScore = 10.0f;
    sc->atStripSc[4].fMuAdf = 0.5f;
    sc->atStripSc[4].fMuAds = 0.25f;
    db->atStrip[5].fCopyScore = 10.0f;  // both steps 1: no decay
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[3].fCopyScore,
              10.0f * (1.0f + 0.003f * (0.0f - 1.0f)) * (1.0f + 0.02f * (0.0f - 1.0f)));
    EXPECT_NEAR(db->atStrip[3].fCopyScore, 10.0f * 0.997f * 0.98f, 1e-5f);  // a few ulps
    EXPECT_EQ(db->atStrip[4].fCopyScore,
              10.0f * (1.0f + 0.003f * (0.25f - 1.0f)) * (1.0f + 0.02f * (0.5f - 1.0f)));
    EXPECT_EQ(db->atStrip[5].fCopyScore, 10.0f);
}

TEST_F(FilterMerge, ScoreGrowsWithFastAdvantageWeightedByErle) {
    sc->atStripSc[8].fErrAdsDb = -30.0f;
    sc->atStripSc[8].fErrAdfDb = -35.5f;  // fast filter 5.5 dB better
    sc->atStripSc[8].fErleDb = 12.0f;
    db->atStrip[8].fErleAvgDb = 5.0f;
    db->atStrip[8].fCopyScore = 2.0f;
    aec_adf_epc_control(db, sc);
    const float t = 0.28f * (-30.0f - -35.5f);
    EXPECT_EQ(db->atStrip[8].fCopyScore, 2.0f + 12.0f / (5.0f + 3.0f) * t);
}

TEST_F(FilterMerge, ScoreDuringDoubleTalkGrowsWithEchoPathChangeFactor) {
    db->iDoubleTalk = 1;
    db->fEpcDb = 10.0f;  // k = 1 + 0.5
    sc->atStripSc[20].fErrAdsDb = -20.0f;
    sc->atStripSc[20].fErrAdfDb = -25.0f;
    sc->atStripSc[20].fErleDb = 0.0f;  // not used during double talk
    aec_adf_epc_control(db, sc);
    const float k = 0.1f * 10.0f + 0.5f;
    EXPECT_EQ(db->atStrip[20].fCopyScore, 0.28f * (-20.0f - -25.0f) * k);
    // Negative echo-path-change measure: k = 0.5.
    db->fEpcDb = -6.0f;
    db->atStrip[20].fCopyScore = 0.0f;
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[20].fCopyScore, 0.28f * (-20.0f - -25.0f) * 0.5f);
}

TEST_F(FilterMerge, WithoutDoubleTalkBoundsAreExactlyThirty) {
    fillStores();
    db->atStrip[1].fCopyScore = 30.0f;
    db->atStrip[2].fCopyScore = std::nextafter(30.0f, 31.0f);
    db->atStrip[3].fCopyScore = -30.0f;
    db->atStrip[4].fCopyScore = std::nextafter(-30.0f, -31.0f);
    std::vector<float> adf(db->pafAdf, db->pafAdf + AEC_ADF_FLOATS);
    std::vector<float> ads(db->pafAds, db->pafAds + AEC_ADF_FLOATS);
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[1].fCopyScore, 30.0f);
    EXPECT_EQ(db->atStrip[3].fCopyScore, -30.0f);
    EXPECT_EQ(db->atStrip[2].fCopyScore, 0.0f);
    EXPECT_EQ(db->atStrip[4].fCopyScore, 0.0f);
    // Strip 2: fast replaced slow. Strip 4: slow replaced fast.
    EXPECT_TRUE(stripEquals(db->pafAds, adf.data(), 2));
    EXPECT_TRUE(stripEquals(db->pafAdf, adf.data(), 2));
    EXPECT_TRUE(stripEquals(db->pafAdf, ads.data(), 4));
    EXPECT_TRUE(stripEquals(db->pafAds, ads.data(), 4));
    // Nothing else moved.
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        if (s == 2 || s == 4) continue;
        EXPECT_TRUE(stripEquals(db->pafAdf, adf.data(), s)) << s;
        EXPECT_TRUE(stripEquals(db->pafAds, ads.data(), s)) << s;
    }
}

TEST_F(FilterMerge, DuringDoubleTalkBoundsAre105AndMinus45) {
    fillStores();
    db->iDoubleTalk = 1;
    db->atStrip[10].fCopyScore = 104.0f;
    db->atStrip[11].fCopyScore = 106.0f;
    db->atStrip[12].fCopyScore = -44.0f;
    db->atStrip[13].fCopyScore = -46.0f;
    db->atStrip[14].fCopyScore = 31.0f;   // beyond the bounds without double talk
    db->atStrip[15].fCopyScore = -31.0f;
    std::vector<float> adf(db->pafAdf, db->pafAdf + AEC_ADF_FLOATS);
    std::vector<float> ads(db->pafAds, db->pafAds + AEC_ADF_FLOATS);
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[10].fCopyScore, 104.0f);
    EXPECT_EQ(db->atStrip[11].fCopyScore, 0.0f);
    EXPECT_EQ(db->atStrip[12].fCopyScore, -44.0f);
    EXPECT_EQ(db->atStrip[13].fCopyScore, 0.0f);
    EXPECT_EQ(db->atStrip[14].fCopyScore, 31.0f);
    EXPECT_EQ(db->atStrip[15].fCopyScore, -31.0f);
    EXPECT_TRUE(stripEquals(db->pafAds, adf.data(), 11));  // fast into slow
    EXPECT_TRUE(stripEquals(db->pafAdf, ads.data(), 13));  // slow into fast
    for (int s : {10, 12, 14, 15}) {
        EXPECT_TRUE(stripEquals(db->pafAdf, adf.data(), s)) << s;
        EXPECT_TRUE(stripEquals(db->pafAds, ads.data(), s)) << s;
    }
}

TEST_F(FilterMerge, DoubleTalkBoundsThemselvesDoNotCopy) {
    fillStores();
    db->iDoubleTalk = 1;
    db->atStrip[0].fCopyScore = 105.0f;
    db->atStrip[1].fCopyScore = std::nextafter(105.0f, 106.0f);
    db->atStrip[2].fCopyScore = -45.0f;
    db->atStrip[3].fCopyScore = std::nextafter(-45.0f, -46.0f);
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[0].fCopyScore, 105.0f);
    EXPECT_EQ(db->atStrip[1].fCopyScore, 0.0f);
    EXPECT_EQ(db->atStrip[2].fCopyScore, -45.0f);
    EXPECT_EQ(db->atStrip[3].fCopyScore, 0.0f);
}

TEST_F(FilterMerge, ToneAlarmLeavesOnlyDecayAndCopiesOnlyScoresAlreadyOutOfBounds) {
    fillStores();
    db->fTdAlarmDb = 20.5f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        sc->atStripSc[s].fErrAdsDb = -10.0f;  // a large fast-filter advantage
        sc->atStripSc[s].fErrAdfDb = -60.0f;
        sc->atStripSc[s].fErleDb = 30.0f;
        sc->atStripSc[s].fMuAdf = 0.0f;
        sc->atStripSc[s].fMuAds = 0.0f;
        db->atStrip[s].fCopyScore = 29.0f;
    }
    db->atStrip[6].fCopyScore = 40.0f;
    std::vector<float> adf(db->pafAdf, db->pafAdf + AEC_ADF_FLOATS);
    aec_adf_epc_control(db, sc);
    const float decayed = 29.0f * (1.0f + 0.003f * (0.0f - 1.0f)) * (1.0f + 0.02f * (0.0f - 1.0f));
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        if (s == 6) continue;
        EXPECT_EQ(db->atStrip[s].fCopyScore, decayed) << s;
    }
    EXPECT_EQ(db->atStrip[6].fCopyScore, 0.0f);  // 40 decays to 39.1, still above 30
    EXPECT_TRUE(stripEquals(db->pafAds, adf.data(), 6));

    // At exactly 20 the evidence counts again.
    db->fTdAlarmDb = 20.0f;
    db->atStrip[0].fCopyScore = 0.0f;
    sc->atStripSc[0].fErleDb = 0.3f;
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[0].fCopyScore, 0.3f / (0.0f + 3.0f) * (0.28f * (-10.0f - -60.0f)));
}

TEST_F(FilterMerge, SecondDoubleTalkAccumulatorAtTwentyStopsIncrementAndCopy) {
    fillStores();
    std::vector<float> ads(db->pafAds, db->pafAds + AEC_ADF_FLOATS);
    sc->atStripSc[9].fErrAdsDb = -10.0f;
    sc->atStripSc[9].fErrAdfDb = -20.0f;
    sc->atStripSc[9].fErleDb = 3.0f;
    sc->atStripSc[9].fMuAdf = 0.5f;
    db->atStrip[9].fDtAcc2Db = 20.0f;
    db->atStrip[9].fCopyScore = 50.0f;  // beyond the bound, yet no copy
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[9].fCopyScore, 50.0f * (1.0f + 0.003f * (1.0f - 1.0f)) *
                                             (1.0f + 0.02f * (0.5f - 1.0f)));
    EXPECT_TRUE(stripEquals(db->pafAds, ads.data(), 9));
    // Just below 20 the strip proceeds: the increment is added.
    db->atStrip[9].fDtAcc2Db = std::nextafter(20.0f, 0.0f);
    db->atStrip[9].fCopyScore = 1.0f;
    sc->atStripSc[9].fMuAdf = 1.0f;
    aec_adf_epc_control(db, sc);
    EXPECT_EQ(db->atStrip[9].fCopyScore, 1.0f + 3.0f / (0.0f + 3.0f) * (0.28f * 10.0f));
}

// ---------------------------------------------------------------------------
// Merge counters and output error (aec_adf_merge)

int counterA(uint32_t w) { return static_cast<int>((w >> 8) & 0xFFu) - 50; }
int counterB(uint32_t w) { return static_cast<int>((w >> 16) & 0xFFu) - 50; }
uint32_t counters(int a, int b, uint32_t other) {
    return other | (static_cast<uint32_t>(a + 50) << 8) | (static_cast<uint32_t>(b + 50) << 16);
}

// Fills the sub-band frames with distinct values.
void fillFrames(AEC_tSc *sc) {
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int j = 0; j < AEC_NSUB; ++j)
            for (int c = 0; c < 2; ++c) {
                const float base = static_cast<float>(b * 8 + j * 2 + c);
                sc->acSndSb[b][j][c] = 1.0f + base * 0.01f;
                sc->acErrAds[b][j][c] = -0.5f + base * 0.003f;
                sc->acErrAdf[b][j][c] = 0.25f - base * 0.002f;
            }
}

TEST_F(FilterMerge, ZeroWordMeansBothCountersAtMinusFiftyAndOutputIsSlowError) {
    fillFrames(sc);
    AEC_tSc before = *sc;
    aec_adf_merge(db, sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        // Equal levels: steps trunc(-0.165 * 33.333336) = -5; counters stay at -50.
        EXPECT_EQ(counterA(db->atStrip[s].uiMergeCnt), -50) << s;
        EXPECT_EQ(counterB(db->atStrip[s].uiMergeCnt), -50) << s;
        EXPECT_EQ(db->atStrip[s].uiMergeCnt, 0u) << s;
        const int b = AEC_aiBandOffStrip[s];
        for (int j = 0; j < AEC_NSUB; ++j)
            for (int c = 0; c < 2; ++c)
                EXPECT_EQ(sc->acErrAdf[b][j][c], before.acErrAds[b][j][c]) << s;
    }
}

TEST_F(FilterMerge, OnlyFirstBandOfEachStripIsCombined) {
    fillFrames(sc);
    AEC_tSc before = *sc;
    aec_adf_merge(db, sc);
    for (int s = AEC_NSINGLE; s < AEC_NSTRIPS; ++s) {
        const int b2 = AEC_aiBandOffStrip[s] + 1;
        for (int j = 0; j < AEC_NSUB; ++j)
            for (int c = 0; c < 2; ++c)
                EXPECT_EQ(sc->acErrAdf[b2][j][c], before.acErrAdf[b2][j][c]) << s;
    }
    EXPECT_NE(sc->acErrAdf[19][0][0], before.acErrAdf[19][0][0]);
    EXPECT_NE(sc->acErrAdf[39][3][1], before.acErrAdf[39][3][1]);
    // The other frames are read only.
    EXPECT_EQ(std::memcmp(sc->acSndSb, before.acSndSb, sizeof(sc->acSndSb)), 0);
    EXPECT_EQ(std::memcmp(sc->acErrAds, before.acErrAds, sizeof(sc->acErrAds)), 0);
}

TEST_F(FilterMerge, CountersStepByThirtyThreePerDbTruncatedTowardZero) {
    // Strip 0: slow filter 1 dB worse than fast: (1 - 0.165) * 33.333336 = 27.8 -> 27.
    sc->atStripSc[0].fErrAdsDb = -20.0f;
    sc->atStripSc[0].fErrAdfDb = -21.0f;
    sc->atStripSc[0].fSinDb = -20.0f;  // B step: trunc(-5.5) = -5
    db->atStrip[0].uiMergeCnt = counters(0, 10, 0xA5000042u);
    // Strip 1: slow filter 0.1 dB better: (-0.1 - 0.165) * 33.333336 = -8.8 -> -8.
    sc->atStripSc[1].fErrAdsDb = -20.1f;
    sc->atStripSc[1].fErrAdfDb = -20.0f;
    sc->atStripSc[1].fSinDb = -22.0f;  // B step: (1.9 - 0.165) * 33.3 = 57.8 -> 57
    db->atStrip[1].uiMergeCnt = counters(0, 0, 0u);
    aec_adf_merge(db, sc);
    const int nA0 = static_cast<int>((-20.0f - -21.0f - 0.165f) * 33.333336f);
    const int nB0 = static_cast<int>((-20.0f - -20.0f - 0.165f) * 33.333336f);
    ASSERT_EQ(nA0, 27);
    ASSERT_EQ(nB0, -5);
    EXPECT_EQ(db->atStrip[0].uiMergeCnt, counters(27, 5, 0xA5000042u));
    EXPECT_EQ(counterA(db->atStrip[1].uiMergeCnt), -8);
    EXPECT_EQ(counterB(db->atStrip[1].uiMergeCnt), 57);
}

TEST_F(FilterMerge, CounterStepsLimitedToNinetyAndCountersToRange) {
    sc->atStripSc[2].fErrAdsDb = 0.0f;
    sc->atStripSc[2].fErrAdfDb = -40.0f;  // step +90, not +1327
    sc->atStripSc[2].fSinDb = 40.0f;      // step -90
    db->atStrip[2].uiMergeCnt = counters(-10, 70, 0u);
    sc->atStripSc[3].fErrAdsDb = 0.0f;
    sc->atStripSc[3].fErrAdfDb = -40.0f;
    sc->atStripSc[3].fSinDb = 40.0f;
    db->atStrip[3].uiMergeCnt = counters(100, -20, 0u);  // would reach 190 and -110
    aec_adf_merge(db, sc);
    EXPECT_EQ(counterA(db->atStrip[2].uiMergeCnt), 80);
    EXPECT_EQ(counterB(db->atStrip[2].uiMergeCnt), -20);
    EXPECT_EQ(counterA(db->atStrip[3].uiMergeCnt), 120);
    EXPECT_EQ(counterB(db->atStrip[3].uiMergeCnt), -50);
}

TEST_F(FilterMerge, OtherBitsOfCounterWordArePreserved) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) db->atStrip[s].uiMergeCnt = 0xFF0000FFu;  // both fields 0 -> -50
    aec_adf_merge(db, sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) EXPECT_EQ(db->atStrip[s].uiMergeCnt, 0xFF0000FFu) << s;
    // The full-band record is not a strip: untouched.
    EXPECT_EQ(db->atStrip[AEC_FULLBAND].uiMergeCnt, 0u);
}

// Independent statement of the weights and the combination for one strip.
void expectCombination(const AEC_tSc &before, const AEC_tSc &after, int b, float wA, float wB) {
    float wS = 1.0f - wB;
    if (1.0f < wS) wS = 1.0f;
    if (1.0f - wA < wS) wS = 1.0f - wA;
    const float n = 1.0f / (wA + wB + wS);
    wA *= n;
    wB *= n;
    wS *= n;
    for (int j = 0; j < AEC_NSUB; ++j)
        for (int c = 0; c < 2; ++c)
            EXPECT_EQ(after.acErrAdf[b][j][c], wB * before.acSndSb[b][j][c] +
                                                   wS * before.acErrAds[b][j][c] +
                                                   wA * before.acErrAdf[b][j][c])
                << "band " << b << " j " << j;
}

TEST_F(FilterMerge, OutputIsNormalisedWeightedSumOfThreeFrames) {
    fillFrames(sc);
    // Level differences of exactly the dead zone: both counter steps are 0.
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        sc->atStripSc[s].fErrAdsDb = 0.165f;
        sc->atStripSc[s].fSinDb = 0.0f;
        sc->atStripSc[s].fErrAdfDb = 0.0f;
    }
    db->atStrip[5].uiMergeCnt = counters(60, 30, 0u);
    db->atStrip[22].uiMergeCnt = counters(120, 0, 0u);
    db->atStrip[23].uiMergeCnt = counters(-20, 120, 0u);
    AEC_tSc before = *sc;
    aec_adf_merge(db, sc);
    EXPECT_EQ(counterA(db->atStrip[5].uiMergeCnt), 60);
    expectCombination(before, *sc, 5, 60.0f * 0.008333334f, 30.0f * 0.008333334f);
    expectCombination(before, *sc, AEC_aiBandOffStrip[22], 120.0f * 0.008333334f, 0.0f);
    expectCombination(before, *sc, AEC_aiBandOffStrip[23], 0.0f, 120.0f * 0.008333334f);
    // Counter B at 120: the output is the microphone signal itself, up to the
    // weight 120 * 0.008333334 = 1.0000001 and the resulting slow-filter
    // weight of about -1.2e-7 (a few ulps of values near 1).
    for (int j = 0; j < AEC_NSUB; ++j)
        EXPECT_NEAR(sc->acErrAdf[AEC_aiBandOffStrip[23]][j][0],
                    before.acSndSb[AEC_aiBandOffStrip[23]][j][0], 1e-6f);
}

TEST_F(FilterMerge, LowFrameErlScalesFastWeightBySecondDoubleTalkAccumulator) {
    fillFrames(sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        sc->atStripSc[s].fErrAdsDb = 0.165f;
        sc->atStripSc[s].fErrAdfDb = 0.0f;
        sc->atStripSc[s].fSinDb = 0.0f;
        db->atStrip[s].uiMergeCnt = counters(90, 0, 0u);
        db->atStrip[s].fDtAcc2Db = 6.0f;
    }
    sc->atStripSc[1].fErlFrameDb = -12.0f;  // below the initial ERL: scaled
    sc->atStripSc[2].fErlFrameDb = -10.0f;  // equal: not scaled
    sc->atStripSc[3].fErlFrameDb = -12.0f;
    db->atStrip[3].fDtAcc2Db = 25.0f;       // clamped to 15: wA becomes ~0
    sc->atStripSc[4].fErlFrameDb = -12.0f;
    db->atStrip[4].fDtAcc2Db = -3.0f;       // clamped to 0: not scaled
    AEC_tSc before = *sc;
    aec_adf_merge(db, sc);
    const float wA = 90.0f * 0.008333334f;
    expectCombination(before, *sc, 1, wA * (1.0f - 0.06666667f * 6.0f), 0.0f);
    expectCombination(before, *sc, 2, wA, 0.0f);
    expectCombination(before, *sc, 3, wA * (1.0f - 0.06666667f * 15.0f), 0.0f);
    expectCombination(before, *sc, 4, wA * (1.0f - 0.06666667f * 0.0f), 0.0f);
}

TEST_F(FilterMerge, NotANumberLevelDifferenceCountsAsLowerLimit) {
    sc->atStripSc[7].fErrAdsDb = std::numeric_limits<float>::quiet_NaN();
    db->atStrip[7].uiMergeCnt = counters(100, 100, 0u);
    aec_adf_merge(db, sc);
    EXPECT_EQ(counterA(db->atStrip[7].uiMergeCnt), 10);
    EXPECT_EQ(counterB(db->atStrip[7].uiMergeCnt), 10);
}

// ---------------------------------------------------------------------------
// Adaptation progress (aec_adf_control)

TEST_F(FilterMerge, AdaptTimeGrowsWithFullBandErleOutsideDoubleTalk) {
    db->fAdaptTime = 100.0f;
    sc->atStripSc[AEC_FULLBAND].fErleDb = 15.0f;
    sc->atStripSc[0].fErleDb = 40.0f;  // strips do not count
    aec_adf_control(db, sc);
    EXPECT_EQ(db->fAdaptTime, 100.0f + 0.07f * 15.0f);
}

TEST_F(FilterMerge, AdaptTimeDoesNotGrowDuringDoubleTalkOrWithoutErle) {
    db->fAdaptTime = 100.0f;
    db->iDoubleTalk = 1;
    sc->atStripSc[AEC_FULLBAND].fErleDb = 15.0f;
    aec_adf_control(db, sc);
    EXPECT_EQ(db->fAdaptTime, 100.0f);
    db->iDoubleTalk = 0;
    sc->atStripSc[AEC_FULLBAND].fErleDb = 0.0f;
    aec_adf_control(db, sc);
    EXPECT_EQ(db->fAdaptTime, 100.0f);
}

TEST_F(FilterMerge, AdaptTimeNeverExceedsTwoThousand) {
    db->fAdaptTime = 1999.0f;
    sc->atStripSc[AEC_FULLBAND].fErleDb = 40.0f;
    aec_adf_control(db, sc);
    EXPECT_EQ(db->fAdaptTime, 2000.0f);
    for (int n = 0; n < 100; ++n) aec_adf_control(db, sc);
    EXPECT_EQ(db->fAdaptTime, 2000.0f);
}

}  // namespace
