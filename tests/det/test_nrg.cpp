// Energies: strip and full-band levels of the sub-band frames and of the
// reference history, frame ERL and ERLE, and the smoothed ERL/ERLE.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "det/det.h"
#include "kvaec_records.h"

namespace {

// Power to dB as the library's level scale defines it: x + 1e-12 split by
// frexp into m 2^e, then (3.01 e - 2.88) + 6.02 m in single precision.
float refEn2log(float x) {
    const double v = static_cast<double>(x + 1e-12f);
    int e = 0;
    const double m = std::frexp(v, &e);
    const float a = 3.01f * static_cast<float>(e) - 2.88f;
    return a + static_cast<float>(m) * 6.02f;
}

float refLevel(float energy) { return refEn2log(energy) + 3.01f; }

const float kZeroLevel = refLevel(0.0f);

// Strip of each band and the strip geometry, restated here from the band
// layout (19 single bands, then 11 pairs) rather than read from the tables.
int bandsOf(int s) { return s < 19 ? 1 : 2; }
int firstBandOf(int s) { return s < 19 ? s : 19 + 2 * (s - 19); }
int refSizeOf(int s) { return s < 19 ? 55 : 39; }
int refStartOf(int s) { return s < 19 ? 55 * s : 1045 + 78 * (s - 19); }
int refNrgStartOf(int s) { return s < 19 ? 13 * s : 247 + 10 * (s - 19); }

class Energies : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    }
    void TearDown() override { aecx_init_tabs(); }
    AEC_tDb *db = &AEC_Db;
    AEC_tSc *sc = &AEC_Sc;
};

// Fills a band (8 floats) with multiples of 1/8 so that every square and
// every partial sum is exact in single precision, whatever the order.
void fillBandExact(float *band, int seed) {
    for (int i = 0; i < 8; ++i) band[i] = static_cast<float>((seed * 7 + i * 3) % 11 - 5) * 0.125f;
}

// Exact sum of squares of one band filled by fillBandExact (all terms are
// multiples of 1/64 below 1, so the sum is exact in any order).
float bandSumExact(const float *band) {
    float s = 0.0f;
    for (int i = 0; i < 8; ++i) s += band[i] * band[i];
    return s;
}

// Linear strip energies of a frame whose bands hold exactly summable values,
// and the full band as the weighted sum in strip order.
void expectedFrameEnergies(const float (*frame)[4][2], float *e) {
    for (int s = 0; s < 30; ++s) {
        float sum = 0.0f;
        for (int j = 0; j < bandsOf(s); ++j) sum += bandSumExact(&frame[firstBandOf(s) + j][0][0]);
        e[s] = sum * (s < 19 ? 1.0f : 0.5f) * 0.25f;
    }
    float fb = 0.0f;
    for (int s = 0; s < 30; ++s) fb += e[s] * aecnrg_aCorrTab[s];
    e[30] = fb;
}

void fillFrameExact(float (*frame)[4][2], int seed) {
    for (int b = 0; b < AEC_NBANDS; ++b) fillBandExact(&frame[b][0][0], seed + b);
}

}  // namespace

TEST(EnergyWeights, TableHoldsThirtyFallingWeightsFromTenToPointZeroNineSeven) {
    EXPECT_EQ(aecnrg_aCorrTab[0], 10.008554f);
    EXPECT_EQ(aecnrg_aCorrTab[5], 0.99831605f);
    EXPECT_EQ(aecnrg_aCorrTab[18], 0.15041177f);
    EXPECT_EQ(aecnrg_aCorrTab[19], 0.14261982f);
    EXPECT_EQ(aecnrg_aCorrTab[29], 0.096978821f);
    for (int s = 1; s < 30; ++s) EXPECT_LT(aecnrg_aCorrTab[s], aecnrg_aCorrTab[s - 1]) << "strip " << s;
}

TEST_F(Energies, AllZeroInputGivesTheSameFloorLevelForAllFiveSignals) {
    aec_nrg_in(db, sc);
    aec_nrg_erf(sc);
    // en2log(0) is about -116.96; plus 3.01.
    EXPECT_NEAR(kZeroLevel, -116.96f + 3.01f, 0.01f);
    for (int s = 0; s < 31; ++s) {
        const AEC_tStripScRec &r = sc->atStripSc[s];
        EXPECT_EQ(r.fRefDb, kZeroLevel) << s;
        EXPECT_EQ(r.fRinDb, kZeroLevel) << s;
        EXPECT_EQ(r.fSinDb, kZeroLevel) << s;
        EXPECT_EQ(r.fErrAdfDb, kZeroLevel) << s;
        EXPECT_EQ(r.fErrAdsDb, kZeroLevel) << s;
    }
    for (int s = 0; s < 30; ++s) EXPECT_EQ(db->afRefNrgHist[refNrgStartOf(s)], 0.0f);
}

TEST_F(Energies, AllZeroInputGivesZeroErleAndErlFromTheAgedReferenceLevels) {
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fRefDbPrev1 = -40.0f - static_cast<float>(s);
        db->atStrip[s].fRefDbPrev2 = -70.0f;
    }
    aec_nrg_in(db, sc);
    aec_erl_sb(db, sc);
    aec_nrg_erf(sc);
    aec_erle_sb(sc);
    for (int s = 0; s < 31; ++s) {
        EXPECT_EQ(sc->atStripSc[s].fErleDb, 0.0f) << s;
        const float mean = (-40.0f - static_cast<float>(s) + -70.0f) * 0.5f;
        EXPECT_EQ(sc->atStripSc[s].fErlFrameDb, mean - kZeroLevel) << s;
    }
}

TEST_F(Energies, StripAndFullBandLevelsOfExactlySummableFrame) {
    fillFrameExact(sc->acRcvSb, 1);
    float e[31];
    expectedFrameEnergies(sc->acRcvSb, e);
    aec_nrg_in(db, sc);
    for (int s = 0; s < 31; ++s) {
        ASSERT_GT(e[s], 0.0f);
        EXPECT_EQ(sc->atStripSc[s].fRinDb, refLevel(e[s])) << "strip " << s;
    }
}

TEST_F(Energies, HandComputedLevelsOfSingleAndPairedStrips) {
    // Band 4 (strip 4): all 8 floats 0.5 -> sum 2, e = 2 * 1 * 0.25 = 0.5.
    for (int i = 0; i < 4; ++i) sc->acSndSb[4][i][0] = sc->acSndSb[4][i][1] = 0.5f;
    // Bands 21, 22 (strip 20 = bands 21, 22): 1.0 and 0 -> sum 8,
    // e = 8 * 0.5 * 0.25 = 1.0.
    for (int i = 0; i < 4; ++i) sc->acSndSb[21][i][0] = sc->acSndSb[21][i][1] = 1.0f;
    aec_nrg_in(db, sc);
    // en2log(0.5 + 1e-12): 0.5 = 0.5 * 2^0 -> -2.88 + 3.01 = 0.13; plus 3.01.
    EXPECT_NEAR(sc->atStripSc[4].fSinDb, 0.13f + 3.01f, 1e-6f);
    EXPECT_EQ(sc->atStripSc[4].fSinDb, refLevel(0.5f));
    // en2log(1.0) = 3.14, plus 3.01.
    EXPECT_NEAR(sc->atStripSc[20].fSinDb, 3.14f + 3.01f, 1e-6f);
    EXPECT_EQ(sc->atStripSc[20].fSinDb, refLevel(1.0f));
    // Neighbours stay at the zero level.
    EXPECT_EQ(sc->atStripSc[3].fSinDb, kZeroLevel);
    EXPECT_EQ(sc->atStripSc[5].fSinDb, kZeroLevel);
    EXPECT_EQ(sc->atStripSc[19].fSinDb, kZeroLevel);
    EXPECT_EQ(sc->atStripSc[21].fSinDb, kZeroLevel);
    // Full band: 0.5 w4 + 1.0 w20.
    const float fb = 0.5f * aecnrg_aCorrTab[4] + 1.0f * aecnrg_aCorrTab[20];
    EXPECT_EQ(sc->atStripSc[30].fSinDb, refLevel(fb));
}

TEST_F(Energies, RandomFrameLevelsMatchDoublePrecisionSumsWithinRounding) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int i = 0; i < 4; ++i)
            for (int c = 0; c < 2; ++c) sc->acErrAdf[b][i][c] = u(rng) * static_cast<float>(b + 1) * 0.01f;
    aec_nrg_erf(sc);
    double e[31];
    double fb = 0.0;
    for (int s = 0; s < 30; ++s) {
        double sum = 0.0;
        for (int j = 0; j < bandsOf(s); ++j)
            for (int i = 0; i < 4; ++i)
                for (int c = 0; c < 2; ++c) {
                    const double v = sc->acErrAdf[firstBandOf(s) + j][i][c];
                    sum += v * v;
                }
        e[s] = sum / bandsOf(s) * 0.25;
        fb += e[s] * static_cast<double>(aecnrg_aCorrTab[s]);
    }
    e[30] = fb;
    for (int s = 0; s < 31; ++s) {
        // The single-precision sum of up to 16 squares differs from the exact
        // one by at most ~16 units of 2^-24 relative; through the linear
        // mantissa term (slope 6.02 dB per unit of m in [0.5, 1)) that is
        // below 1e-5 dB, plus one rounding of the result (< 8e-6 at 128 dB).
        EXPECT_NEAR(sc->atStripSc[s].fErrAdfDb, refLevel(static_cast<float>(e[s])), 3e-5f) << s;
    }
}

TEST_F(Energies, EachSignalLandsInItsOwnWordOfEveryRecord) {
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int i = 0; i < 4; ++i)
            for (int c = 0; c < 2; ++c) {
                sc->acRcvSb[b][i][c] = 1.0f;     // e = 2 per strip
                sc->acSndSb[b][i][c] = 0.5f;     // e = 0.5
                sc->acErrAds[b][i][c] = 0.25f;   // e = 0.125
                sc->acErrAdf[b][i][c] = 0.125f;  // e = 0.03125
            }
    for (int s = 0; s < 31; ++s) sc->atStripSc[s].fErrAdfDb = 77.0f;
    aec_nrg_in(db, sc);
    for (int s = 0; s < 31; ++s) EXPECT_EQ(sc->atStripSc[s].fErrAdfDb, 77.0f) << "nrg_in leaves word 3";
    for (int s = 0; s < 31; ++s) {
        sc->atStripSc[s].fRinDb = 1.0f;
        sc->atStripSc[s].fSinDb = 2.0f;
        sc->atStripSc[s].fErrAdsDb = 4.0f;
        sc->atStripSc[s].fRefDb = 8.0f;
    }
    aec_nrg_erf(sc);
    for (int s = 0; s < 30; ++s) {
        EXPECT_EQ(sc->atStripSc[s].fErrAdfDb, refLevel(0.03125f)) << s;
        EXPECT_EQ(sc->atStripSc[s].fRinDb, 1.0f);
        EXPECT_EQ(sc->atStripSc[s].fSinDb, 2.0f);
        EXPECT_EQ(sc->atStripSc[s].fErrAdsDb, 4.0f);
        EXPECT_EQ(sc->atStripSc[s].fRefDb, 8.0f);
    }
    aec_nrg_in(db, sc);
    for (int s = 0; s < 30; ++s) {
        EXPECT_EQ(sc->atStripSc[s].fRinDb, refLevel(2.0f)) << s;
        EXPECT_EQ(sc->atStripSc[s].fSinDb, refLevel(0.5f)) << s;
        EXPECT_EQ(sc->atStripSc[s].fErrAdsDb, refLevel(0.125f)) << s;
        EXPECT_EQ(sc->atStripSc[s].fRefDb, kZeroLevel) << s;
    }
}

TEST_F(Energies, ReferenceUsesOnlyTheFourNewestSlotsOfEachBandRow) {
    float *ref = db->pafRef;
    float expected[31];
    for (int s = 0; s < 30; ++s) {
        float sum = 0.0f;
        for (int j = 0; j < bandsOf(s); ++j) {
            float *row = ref + 2 * (refStartOf(s) + j * refSizeOf(s));
            // Positions 0..3 hold exactly summable values; older positions a
            // loud value that must not count.
            fillBandExact(row, s * 2 + j);
            for (int p = 8; p < 2 * refSizeOf(s); ++p) row[p] = 100.0f;
            sum += bandSumExact(row);
        }
        expected[s] = sum * (s < 19 ? 1.0f : 0.5f) * 0.25f;
    }
    float fb = 0.0f;
    for (int s = 0; s < 30; ++s) fb += expected[s] * aecnrg_aCorrTab[s];
    expected[30] = fb;
    for (int i = 0; i < AEC_REFNRG_LEN; ++i) db->afRefNrgHist[i] = -1.0f;

    aec_nrg_in(db, sc);
    for (int s = 0; s < 31; ++s) EXPECT_EQ(sc->atStripSc[s].fRefDb, refLevel(expected[s])) << s;
    // Slot 0 of every strip's block holds the linear energy; other slots untouched.
    for (int s = 0; s < 30; ++s) {
        const int start = refNrgStartOf(s);
        const int len = (s < 19 ? 48 : 36) / 4 + 1;
        EXPECT_EQ(db->afRefNrgHist[start], expected[s]) << s;
        for (int i = 1; i < len; ++i) EXPECT_EQ(db->afRefNrgHist[start + i], -1.0f) << s << "/" << i;
    }
}

TEST_F(Energies, FullBandIsTheWeightedSumNotTheMeanOfStripEnergies) {
    float frame[AEC_NBANDS][4][2];
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int i = 0; i < 4; ++i) frame[b][i][0] = frame[b][i][1] = 0.5f;  // e = 0.5 per strip
    float out[32];
    out[31] = 123.0f;
    aec_nrg_blk(&frame[0][0][0], out);
    EXPECT_EQ(out[31], 123.0f) << "exactly 31 levels are written";
    float wsum = 0.0f;
    float fb = 0.0f;
    for (int s = 0; s < 30; ++s) {
        EXPECT_EQ(out[s], refLevel(0.5f)) << s;
        fb += 0.5f * aecnrg_aCorrTab[s];
        wsum += aecnrg_aCorrTab[s];
    }
    EXPECT_EQ(out[30], refLevel(fb));
    // The offset of the level scale over 10 log10 lies between 2.88 and 3.14 dB,
    // so the difference of two levels matches 10 log10 of the power ratio
    // within 0.26 dB.
    EXPECT_NEAR(out[30] - out[0], 10.0f * std::log10(wsum), 0.27f);
    EXPECT_GT(out[30] - out[0], 14.0f);
}

TEST_F(Energies, StripWithoutBandsContributesZeroAndDoesNotAdvance) {
    float frame[AEC_NBANDS][4][2];
    fillFrameExact(frame, 3);
    AEC_aiBandsPerStrip[3] = 0;  // restored by TearDown
    float out[31];
    aec_nrg_blk(&frame[0][0][0], out);
    float e[31];
    // Strip 3 is empty; strip s > 3 starts one band earlier than usual.
    for (int s = 0; s < 30; ++s) {
        if (s == 3) {
            e[s] = 0.0f;
            continue;
        }
        const int first = s < 3 ? firstBandOf(s) : firstBandOf(s) - 1;
        float sum = 0.0f;
        for (int j = 0; j < bandsOf(s); ++j) sum += bandSumExact(&frame[first + j][0][0]);
        e[s] = sum * (s < 19 ? 1.0f : 0.5f) * 0.25f;
    }
    float fb = 0.0f;
    for (int s = 0; s < 30; ++s)
        if (s != 3) fb += e[s] * aecnrg_aCorrTab[s];
    EXPECT_EQ(out[3], kZeroLevel);
    for (int s = 0; s < 30; ++s) EXPECT_EQ(out[s], refLevel(e[s])) << s;
    EXPECT_EQ(out[30], refLevel(fb));
}

TEST_F(Energies, BlockMeasurementEqualsTheLevelsOfTheFrameStages) {
    fillFrameExact(sc->acErrAds, 5);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-0.3f, 0.3f);
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int i = 0; i < 4; ++i)
            for (int c = 0; c < 2; ++c) sc->acErrAdf[b][i][c] = u(rng);
    float outAds[31], outAdf[31];
    aec_nrg_blk(&sc->acErrAds[0][0][0], outAds);
    aec_nrg_blk(&sc->acErrAdf[0][0][0], outAdf);
    aec_nrg_in(db, sc);
    aec_nrg_erf(sc);
    for (int s = 0; s < 31; ++s) {
        EXPECT_EQ(outAds[s], sc->atStripSc[s].fErrAdsDb) << s;
        EXPECT_EQ(outAdf[s], sc->atStripSc[s].fErrAdfDb) << s;
    }
}

TEST_F(Energies, ErlUsesTheTwoPreviousReferenceLevelsAndAgesThem) {
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fRefDbPrev2 = -30.0f;
        db->atStrip[s].fRefDbPrev1 = -20.0f + static_cast<float>(s);
        sc->atStripSc[s].fRefDb = 10.0f;  // the current level is not used this frame
        sc->atStripSc[s].fSinDb = -40.5f;
    }
    aec_erl_sb(db, sc);
    for (int s = 0; s < 31; ++s) {
        // (-20 + s - 30) / 2 + 40.5, exact in single precision.
        EXPECT_EQ(sc->atStripSc[s].fErlFrameDb, (static_cast<float>(s) - 50.0f) / 2.0f + 40.5f) << s;
        EXPECT_EQ(db->atStrip[s].fRefDbPrev2, -20.0f + static_cast<float>(s));
        EXPECT_EQ(db->atStrip[s].fRefDbPrev1, 10.0f);
    }
    // Next frame: the level of the previous frame now enters.
    for (int s = 0; s < 31; ++s) sc->atStripSc[s].fSinDb = 0.0f;
    aec_erl_sb(db, sc);
    EXPECT_EQ(sc->atStripSc[0].fErlFrameDb, (10.0f + -20.0f) * 0.5f);
    EXPECT_EQ(sc->atStripSc[30].fErlFrameDb, (10.0f + 10.0f) * 0.5f);
}

TEST_F(Energies, ErleTakesTheQuieterFilterErrorAndIsNeverNegative) {
    AEC_tStripScRec *r = sc->atStripSc;
    r[0].fSinDb = -20.0f; r[0].fErrAdfDb = -35.0f; r[0].fErrAdsDb = -30.0f;  // fast better: 15
    r[1].fSinDb = -20.0f; r[1].fErrAdfDb = -30.0f; r[1].fErrAdsDb = -42.5f;  // slow better: 22.5
    r[2].fSinDb = -20.0f; r[2].fErrAdfDb = -10.0f; r[2].fErrAdsDb = -15.0f;  // both louder: 0
    r[3].fSinDb = -20.0f; r[3].fErrAdfDb = -20.0f; r[3].fErrAdsDb = -20.0f;  // equal: 0
    for (int s = 4; s < 31; ++s) { r[s].fSinDb = 5.0f; r[s].fErrAdfDb = 6.0f; r[s].fErrAdsDb = 2.0f; }
    aec_erle_sb(sc);
    EXPECT_EQ(r[0].fErleDb, 15.0f);
    EXPECT_EQ(r[1].fErleDb, 22.5f);
    EXPECT_EQ(r[2].fErleDb, 0.0f);
    EXPECT_EQ(r[3].fErleDb, 0.0f);
    for (int s = 4; s < 31; ++s) EXPECT_EQ(r[s].fErleDb, 3.0f) << s;
}

// ---- ERL / ERLE smoothing ----

namespace {

struct AvgIn {
    float qe, ql, floorDb, dt;                       // persistent record
    float ref, erle, expEcho, adf, ads, tail, mu, erlFrame;  // level record
};

void setStrip(int s, const AvgIn &in) {
    AEC_tStripRec &q = AEC_Db.atStrip[s];
    q.fErleAvgDb = in.qe;
    q.fErlDb = in.ql;
    q.fErrFloorDb = in.floorDb;
    q.fDtAccDb = in.dt;
    AEC_tStripScRec &r = AEC_Sc.atStripSc[s];
    r.fRefDb = in.ref;
    r.fErleDb = in.erle;
    r.fExpEchoDb = in.expEcho;
    r.fErrAdfDb = in.adf;
    r.fErrAdsDb = in.ads;
    r.fExpTailDb = in.tail;
    r.fMuAdf = in.mu;
    r.fErlFrameDb = in.erlFrame;
}

float clampT(float v, float lo, float hi) { return v > hi ? hi : (v < lo ? lo : v); }

// The smoothing rule written out step by step, in the same single-precision
// operation order, for one strip; p, g, k as the global terms.
void refAvg(int s, const AvgIn &in, float p, float g, float k, float erlFloor, float *qeOut, float *qlOut) {
    float a = in.ref - in.qe - in.ql - (in.floorDb - 3.0f) + 2.0f;
    float d = in.erle - in.qe;
    if (p > 1.75f && d < 0.0f) a = a + 0.5f * in.qe;
    a = clampT(a, 0.0f, 10.0f);
    float b = in.expEcho + 1.0f + 0.25f * p * in.qe - (in.floorDb - 3.0f);
    b = clampT(b, 0.0f, 8.0f);
    float r = b * k * a;
    if (d >= 0.0f) r = g;
    if (p < 1.75f) r = r * 0.1f * clampT(10.0f - in.dt, 0.0f, 10.0f);
    if (s == 0) r = r * 0.1f;
    const float emin = in.adf < in.ads ? in.adf : in.ads;
    if (d > 0.0f && emin - in.tail > 0.0f) d = d - 0.8f * (emin - in.tail);
    if (d < 0.0f) d = d * 1.2f;
    *qeOut = clampT(in.qe + d * in.mu * r, 0.0f, 40.0f);
    float ql = in.ql + 0.35f * (in.erlFrame - in.ql) * r;
    if (ql < erlFloor) ql = erlFloor;
    *qlOut = ql;
}

// An input with ERLE falling (d < 0) and A, B inside their ranges.
AvgIn fallingCase() {
    AvgIn in{};
    in.qe = 12.0f;
    in.ql = -5.0f;
    in.floorDb = -60.0f;
    in.dt = 3.0f;
    in.ref = -50.0f;  // A = -50 - 12 + 5 + 63 + 2 = 8
    in.erle = 9.0f;   // d = -3
    in.adf = -40.0f;
    in.ads = -41.0f;
    in.tail = -45.0f;
    in.mu = 0.5f;
    in.erlFrame = 4.0f;
    in.expEcho = -58.0f;  // B = -58 + 1 + 0.25 p Qe + 63 = 6 at p = 0
    return in;
}

}  // namespace

TEST_F(Energies, AverageFallingErleFollowsTheRuleStepByStep) {
    db->fEpcDb = 0.0f;
    db->fAdaptTime = 100.0f;
    const AvgIn in = fallingCase();
    for (int s = 0; s < 31; ++s) setStrip(s, in);
    aec_erle_sb_avrg(db, sc);
    const float g = 0.03f + 0.03f * 0.0f;
    const float k = g * 0.0125f;
    for (int s = 0; s < 31; ++s) {
        float qe, ql;
        refAvg(s, in, 0.0f, g, k, -10.0f, &qe, &ql);
        EXPECT_EQ(db->atStrip[s].fErleAvgDb, qe) << s;
        EXPECT_EQ(db->atStrip[s].fErlDb, ql) << s;
    }
    // Hand figures for strip 5: A = 8, B = 6, k = 0.03 * 0.0125 = 0.000375,
    // r = 6 * 0.000375 * 8 * 0.1 * (10 - 3) = 0.0126; d = -3 * 1.2 = -3.6;
    // Qe = 12 - 3.6 * 0.5 * 0.0126 = 11.97732, Ql = -5 + 0.35 * 9 * 0.0126.
    // Tolerance: a few single-precision roundings (ulp of 12 is 9.5e-7).
    EXPECT_NEAR(db->atStrip[5].fErleAvgDb, 11.97732f, 3e-6f);
    EXPECT_NEAR(db->atStrip[5].fErlDb, -4.96031f, 3e-6f);
    // Strip 0 moves ten times slower (same tolerance reasoning).
    EXPECT_NEAR(12.0f - db->atStrip[0].fErleAvgDb, (12.0f - db->atStrip[5].fErleAvgDb) * 0.1f, 2e-6f);
}

TEST_F(Energies, AverageRisingErleUsesTheBaseRateAndIsPulledDownByTheTailExcess) {
    db->fEpcDb = 0.0f;
    db->fAdaptTime = 0.0f;
    AvgIn in = fallingCase();
    in.dt = 0.0f;
    in.erle = 16.0f;  // d = +4
    in.adf = -40.0f;
    in.tail = -42.0f;  // Emin - tail = 1 > 0 -> d = 4 - 0.8
    in.mu = 1.0f;
    setStrip(7, in);
    AvgIn in2 = in;
    in2.tail = -40.0f;  // Emin - tail = -1: no pull
    setStrip(8, in2);
    aec_erle_sb_avrg(db, sc);
    const float r = 0.03f * 0.1f * 10.0f;  // base rate with Dt = 0
    EXPECT_EQ(db->atStrip[7].fErleAvgDb, 12.0f + (4.0f - 0.8f * 1.0f) * 1.0f * r);
    EXPECT_EQ(db->atStrip[8].fErleAvgDb, 12.0f + 4.0f * 1.0f * r);
    EXPECT_NEAR(db->atStrip[8].fErleAvgDb, 12.12f, 2e-6f);
    EXPECT_EQ(db->atStrip[7].fErlDb, -5.0f + 0.35f * (4.0f - -5.0f) * r);
}

TEST_F(Energies, BaseRateIsPointZeroNineAtFullEchoPathChangeAndHalvesAfterSixHundredFrames) {
    db->fEpcDb = 30.0f;  // p = 2: no double-talk factor
    AvgIn in{};
    in.qe = 0.0f; in.ql = -10.0f; in.floorDb = -33.0f; in.dt = 25.0f;
    in.erle = 1.0f; in.adf = -50.0f; in.ads = -50.0f; in.tail = -40.0f; in.mu = 1.0f;
    in.erlFrame = -10.0f;
    const float p = 30.0f * 0.06666667f;
    const float g = 0.03f + 0.03f * p;

    db->fAdaptTime = 600.0f;  // not above 600: full rate
    setStrip(4, in);
    aec_erle_sb_avrg(db, sc);
    EXPECT_EQ(db->atStrip[4].fErleAvgDb, g);
    EXPECT_NEAR(db->atStrip[4].fErleAvgDb, 0.09f, 1e-7f);

    db->fAdaptTime = 601.0f;
    setStrip(4, in);
    aec_erle_sb_avrg(db, sc);
    EXPECT_EQ(db->atStrip[4].fErleAvgDb, g * 0.5f);
    EXPECT_NEAR(db->atStrip[4].fErleAvgDb, 0.045f, 1e-7f);
}

TEST_F(Energies, NegativeEchoPathScoreCountsAsZero) {
    AvgIn in = fallingCase();
    db->fEpcDb = -6.0f;
    setStrip(9, in);
    aec_erle_sb_avrg(db, sc);
    const float got = db->atStrip[9].fErleAvgDb;
    float qe, ql;
    refAvg(9, in, 0.0f, 0.03f, 0.03f * 0.0125f, -10.0f, &qe, &ql);
    EXPECT_EQ(got, qe);
    EXPECT_LT(got, 12.0f);
}

TEST_F(Energies, DoubleTalkFreezesTheAveragesUnlessAnEchoPathChangeIsFlagged) {
    AvgIn in = fallingCase();
    in.dt = 10.0f;
    db->fEpcDb = 0.0f;
    setStrip(6, in);
    in.dt = 30.0f;
    setStrip(7, in);
    aec_erle_sb_avrg(db, sc);
    EXPECT_EQ(db->atStrip[6].fErleAvgDb, 12.0f);
    EXPECT_EQ(db->atStrip[6].fErlDb, -5.0f);
    EXPECT_EQ(db->atStrip[7].fErleAvgDb, 12.0f);
    EXPECT_EQ(db->atStrip[7].fErlDb, -5.0f);

    // p = 2: the double-talk factor is skipped and the fall is followed with
    // A raised by half the average.
    db->fEpcDb = 30.0f;
    setStrip(7, in);
    aec_erle_sb_avrg(db, sc);
    const float p = 30.0f * 0.06666667f;
    const float g = (0.03f + 0.03f * p);
    float qe, ql;
    refAvg(7, in, p, g, g * 0.0125f, -10.0f, &qe, &ql);
    EXPECT_EQ(db->atStrip[7].fErleAvgDb, qe);
    EXPECT_EQ(db->atStrip[7].fErlDb, ql);
    EXPECT_LT(db->atStrip[7].fErleAvgDb, 12.0f);
}

TEST_F(Energies, AtExactlyOnePointSevenFiveNeitherTheFallBoostNorTheDoubleTalkFactorApplies) {
    // Find an echo-path score whose p is exactly 1.75.
    float epc = 26.25f;
    for (int i = 0; i < 8 && epc * 0.06666667f != 1.75f; ++i) epc = std::nextafter(epc, 27.0f);
    for (int i = 0; i < 16 && epc * 0.06666667f != 1.75f; ++i) epc = std::nextafter(epc, 26.0f);
    ASSERT_EQ(epc * 0.06666667f, 1.75f);
    db->fEpcDb = epc;
    db->fAdaptTime = 0.0f;
    const float g = 0.03f + 0.03f * 1.75f;
    const float k = g * 0.0125f;

    AvgIn in = fallingCase();  // d = -3 < 0
    in.dt = 30.0f;             // would freeze if the factor applied
    in.ref = -54.0f;           // A = 4 (without the boost of 0.5 Qe = 6)
    in.expEcho = -67.0f;       // B = -67 + 1 + 0.25 * 1.75 * 12 + 63 = 2.25
    setStrip(11, in);
    aec_erle_sb_avrg(db, sc);
    // Hand: A = 4, B = 2.25, r = 2.25 * k * 4, d = -3.6.
    const float r = 2.25f * k * 4.0f;
    EXPECT_EQ(db->atStrip[11].fErleAvgDb, 12.0f + (-3.0f * 1.2f) * 0.5f * r);
    EXPECT_LT(db->atStrip[11].fErleAvgDb, 12.0f);
    float qe, ql;
    refAvg(11, in, 1.75f, g, k, -10.0f, &qe, &ql);
    EXPECT_EQ(db->atStrip[11].fErleAvgDb, qe);
    EXPECT_EQ(db->atStrip[11].fErlDb, ql);
}

TEST_F(Energies, RateFactorsAAndBAreClampedToTheirRanges) {
    db->fEpcDb = 0.0f;
    AvgIn in = fallingCase();
    in.dt = 0.0f;
    in.ref = 100.0f;     // A far above 10 -> 10
    in.expEcho = 100.0f; // B far above 8 -> 8
    setStrip(12, in);
    AvgIn lo = in;
    lo.ref = -200.0f;    // A below 0 -> 0 -> no movement
    setStrip(13, lo);
    aec_erle_sb_avrg(db, sc);
    const float k = 0.03f * 0.0125f;
    const float r = 8.0f * k * 10.0f * 0.1f * 10.0f;
    EXPECT_EQ(db->atStrip[12].fErleAvgDb, 12.0f + (-3.0f * 1.2f) * 0.5f * r);
    EXPECT_EQ(db->atStrip[13].fErleAvgDb, 12.0f);
    EXPECT_EQ(db->atStrip[13].fErlDb, -5.0f);
}

TEST_F(Energies, AveragesStayInsideTheirBoundsWhateverTheInputs) {
    db->tCfg.fErlInitDb = -12.0f;
    for (int s = 0; s < 31; ++s) db->atStrip[s].fErlDb = -12.0f;
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-150.0f, 150.0f);
    std::uniform_real_distribution<float> mu(0.0f, 1.0f);
    bool sawTop = false, sawZero = false, sawFloor = false;
    for (int frame = 0; frame < 3000; ++frame) {
        db->fEpcDb = u(rng) * 0.2f;
        db->fAdaptTime = mu(rng) * 2000.0f;
        for (int s = 0; s < 31; ++s) {
            db->atStrip[s].fErrFloorDb = u(rng);
            db->atStrip[s].fDtAccDb = u(rng) * 0.1f;
            AEC_tStripScRec &r = sc->atStripSc[s];
            r.fRefDb = u(rng); r.fErleDb = u(rng) * 10.0f; r.fExpEchoDb = u(rng);
            r.fErrAdfDb = u(rng); r.fErrAdsDb = u(rng); r.fExpTailDb = u(rng);
            r.fMuAdf = 1.0f + mu(rng) * 50.0f; r.fErlFrameDb = u(rng) * 20.0f;
        }
        aec_erle_sb_avrg(db, sc);
        for (int s = 0; s < 31; ++s) {
            const float qe = db->atStrip[s].fErleAvgDb;
            ASSERT_GE(qe, 0.0f);
            ASSERT_LE(qe, 40.0f);
            ASSERT_GE(db->atStrip[s].fErlDb, -12.0f);
            sawTop |= qe == 40.0f;
            sawZero |= qe == 0.0f;
            sawFloor |= db->atStrip[s].fErlDb == -12.0f;
        }
    }
    // The inputs are wild enough to hit every bound.
    EXPECT_TRUE(sawTop);
    EXPECT_TRUE(sawZero);
    EXPECT_TRUE(sawFloor);
}

TEST_F(Energies, ErlAverageNeverDropsBelowTheConfiguredFloor) {
    db->tCfg.fErlInitDb = -20.0f;
    db->fEpcDb = 30.0f;
    AvgIn in = fallingCase();
    in.ql = -19.0f;
    in.erlFrame = -200.0f;
    setStrip(14, in);
    aec_erle_sb_avrg(db, sc);
    EXPECT_EQ(db->atStrip[14].fErlDb, -20.0f);
}
