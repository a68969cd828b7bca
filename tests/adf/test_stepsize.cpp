// Step-size control: echo predictions from the reference energy history,
// their spreading across strips, the step sizes of both filters and the
// echo-loss correction from the slow filter's coefficients.
//
// Expected values are recomputed here with the same single-precision
// operations in the same order, so EXPECT_EQ is used for them. The dB
// conversions aec_utl_en2log / aec_utl_exp are the library's shared helpers
// (covered by the core tests) and are used here as given.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "adf/adf.h"
#include "core/core.h"
#include "kvaec_records.h"

namespace {

class StepSizeControl : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    }
    AEC_tDb *db = &AEC_Db;
    AEC_tSc *sc = &AEC_Sc;
    float *hist(int s) { return db->afRefNrgHist + AEC_aiRefNrgOffStrip[s]; }
};

float fmaxRef(float a, float b) { return a > b ? a : b; }

// ---------------------------------------------------------------------------
// Echo predictions (aec_exp_update)

struct Prediction {
    float echo;
    float tail;
};

// Independent statement of the predictions of one strip for profile m: the
// tapered reference energy over the filter span (and with the older energy for
// the tail), as an absolute level, less the strip's total echo loss.
Prediction predict(const std::vector<float> &h, int G, float erleAvg, float erl, int m) {
    float et = 0.0f, w = 1.0f;
    for (int g = 0; g < G; ++g) {
        et += w * h[g];
        w *= 0.85f;
    }
    const float b = aec_utl_en2log(et);
    Prediction p;
    p.echo = fmaxRef(b, -120.0f) - (erleAvg + erl);
    float t;
    if (m == 6)
        t = et + 4.0f * h[G];
    else if (m == 5)
        t = 10.0f * (et + 8.0f * h[G]);
    else
        t = et + h[G];
    p.tail = fmaxRef(aec_utl_en2log(t), -120.0f) - (erleAvg + erl);
    return p;
}

// Fills the history block of strip s with a distinct decreasing profile.
std::vector<float> fillHist(float *h, int G, float scale) {
    std::vector<float> v(static_cast<size_t>(G) + 1);
    for (int g = 0; g <= G; ++g) {
        v[static_cast<size_t>(g)] = scale * (1.0f + 0.37f * static_cast<float>(g * g % 7)) /
                                    static_cast<float>(g + 1);
        h[g] = v[static_cast<size_t>(g)];
    }
    return v;
}

TEST_F(StepSizeControl, ExpUpdatePredictionsAreTaperedSpanEnergyLessTotalLoss) {
    std::vector<std::vector<float>> before(AEC_NSTRIPS);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int G = AEC_aiAdfSzStrip[s] / 4;
        before[static_cast<size_t>(s)] = fillHist(hist(s), G, 1e-3f * static_cast<float>(s + 1));
        db->atStrip[s].fErleAvgDb = 0.5f * static_cast<float>(s);
        db->atStrip[s].fErlDb = -10.0f + 0.25f * static_cast<float>(s);
    }
    aec_exp_update(db, sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int G = AEC_aiAdfSzStrip[s] / 4;
        const Prediction p = predict(before[static_cast<size_t>(s)], G, db->atStrip[s].fErleAvgDb,
                                     db->atStrip[s].fErlDb, 0);
        EXPECT_EQ(sc->atStripSc[s].fExpEchoDb, p.echo) << "strip " << s;
        EXPECT_EQ(sc->atStripSc[s].fExpTailDb, p.tail) << "strip " << s;
    }
    // The full-band record is not a strip of the history: untouched.
    EXPECT_EQ(sc->atStripSc[AEC_FULLBAND].fExpEchoDb, 0.0f);
    EXPECT_EQ(sc->atStripSc[AEC_FULLBAND].fExpTailDb, 0.0f);
}

// Hand-computed levels on the library's dB scale: en2log(x) = 3.01 e - 2.88
// + 6.02 m with x + 1e-12 = m 2^e, 0.5 <= m < 1. Checked within 1e-4 dB
// (single-precision rounding of these few operations is below 1e-5 dB).
constexpr float kEn2logSilence = -116.9605f;  // 1e-12 = 0.549756 * 2^-39
constexpr float kEn2logOne = 3.14f;           // 1 = 0.5 * 2^1
constexpr float kTol = 1e-4f;

TEST_F(StepSizeControl, ExpUpdateSilentHistoryPredictsTheLevelOfSilenceLessTheLoss) {
    // All energies zero: the prediction is the level of no signal at all,
    // not 0 dB (which would ask for the full loss with no echo present).
    db->atStrip[4].fErleAvgDb = 12.0f;
    db->atStrip[4].fErlDb = 6.0f;
    aec_exp_update(db, sc);
    EXPECT_NEAR(sc->atStripSc[4].fExpEchoDb, kEn2logSilence - 18.0f, kTol);
    EXPECT_NEAR(sc->atStripSc[4].fExpTailDb, kEn2logSilence - 18.0f, kTol);
    EXPECT_EQ(sc->atStripSc[4].fExpEchoDb, aec_utl_en2log(0.0f) - 18.0f);
    EXPECT_EQ(sc->atStripSc[4].fExpTailDb, sc->atStripSc[4].fExpEchoDb);
}

TEST_F(StepSizeControl, ExpUpdateSingleFrameOfEnergyIsTaperedByItsAge) {
    // Strip 0: one frame of energy 1.0 as the newest entry.
    hist(0)[0] = 1.0f;
    db->atStrip[0].fErleAvgDb = 5.0f;
    db->atStrip[0].fErlDb = -10.0f;  // loss -5 dB
    // Strip 2: the same frame two frames old, tapered by 0.85^2 = 0.7225:
    // 0.7225 = 0.7225 * 2^0 -> -2.88 + 6.02 * 0.7225 = 1.46945 dB.
    hist(2)[2] = 1.0f;
    db->atStrip[2].fErleAvgDb = 20.0f;
    db->atStrip[2].fErlDb = 0.0f;
    aec_exp_update(db, sc);
    EXPECT_NEAR(sc->atStripSc[0].fExpEchoDb, kEn2logOne + 5.0f, kTol);
    EXPECT_NEAR(sc->atStripSc[0].fExpTailDb, kEn2logOne + 5.0f, kTol);
    EXPECT_NEAR(sc->atStripSc[2].fExpEchoDb, 1.46945f - 20.0f, kTol);
    EXPECT_NEAR(sc->atStripSc[2].fExpTailDb, 1.46945f - 20.0f, kTol);
    // A louder frame gives a higher prediction, dB for dB: 4.0 = 0.5 * 2^3.
    SetUp();
    hist(0)[0] = 4.0f;
    db->atStrip[0].fErleAvgDb = 5.0f;
    db->atStrip[0].fErlDb = -10.0f;
    aec_exp_update(db, sc);
    EXPECT_NEAR(sc->atStripSc[0].fExpEchoDb, 9.16f + 5.0f, kTol);
}

TEST_F(StepSizeControl, ExpUpdateFlatHistoryGivesTheTaperedSumLevel) {
    // Twelve equal frames of energy 1 in the span: the tapered sum is
    // (1 - 0.85^12) / 0.15. The library's dB scale is 10 log10(x) plus an
    // offset between 2.88 and 3.14 dB (with x = m 2^e, the offset is
    // 6.02 m - 2.88 - 10 log10(m), 0.5 <= m < 1): checked as 3.01 +- 0.14.
    const int G = 12;
    float *h = hist(0);
    for (int g = 0; g <= G; ++g) h[g] = 1.0f;
    h[G] = 0.0f;
    db->atStrip[0].fErleAvgDb = 0.0f;
    db->atStrip[0].fErlDb = 0.0f;
    aec_exp_update(db, sc);
    const double sum = (1.0 - std::pow(0.85, 12)) / 0.15;
    EXPECT_NEAR(sc->atStripSc[0].fExpEchoDb, 10.0 * std::log10(sum) + 3.01, 0.14);
    // No older energy: the tail equals the echo prediction.
    EXPECT_EQ(sc->atStripSc[0].fExpTailDb, sc->atStripSc[0].fExpEchoDb);
}

TEST_F(StepSizeControl, ExpUpdateAgesHistoryByOneFrame) {
    for (int s : {0, 18, 19, 29}) {
        const int G = AEC_aiAdfSzStrip[s] / 4;
        fillHist(hist(s), G, 1.0f + static_cast<float>(s));
    }
    std::vector<float> all(db->afRefNrgHist, db->afRefNrgHist + AEC_REFNRG_LEN);
    aec_exp_update(db, sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int G = AEC_aiAdfSzStrip[s] / 4;
        const float *old = all.data() + AEC_aiRefNrgOffStrip[s];
        const float *h = hist(s);
        EXPECT_EQ(h[0], old[0]) << "newest entry kept until the next energy frame, strip " << s;
        for (int g = 1; g < G; ++g) EXPECT_EQ(h[g], old[g - 1]) << "strip " << s << " g " << g;
        EXPECT_EQ(h[G], old[G - 1] + 0.75f * old[G]) << "strip " << s;
    }
}

TEST_F(StepSizeControl, ExpUpdateProfileFiveScalesTailAndAgesWithPointEightFive) {
    db->tCfg.iProfile = 5;
    const int G = 12;
    std::vector<float> v = fillHist(hist(3), G, 0.02f);
    v[G] = 0.5f;
    hist(3)[G] = 0.5f;
    db->atStrip[3].fErleAvgDb = 4.0f;
    db->atStrip[3].fErlDb = -7.0f;
    aec_exp_update(db, sc);
    float et = 0.0f, w = 1.0f;
    for (int g = 0; g < G; ++g) {
        et += w * v[static_cast<size_t>(g)];
        w *= 0.85f;
    }
    const float tail = aec_utl_en2log(10.0f * (et + 8.0f * 0.5f)) - (4.0f + -7.0f);
    EXPECT_EQ(sc->atStripSc[3].fExpTailDb, tail);
    EXPECT_EQ(hist(3)[G], v[G - 1] + 0.85f * 0.5f);
    // The echo prediction itself does not depend on the profile.
    EXPECT_EQ(sc->atStripSc[3].fExpEchoDb, predict(v, G, 4.0f, -7.0f, 0).echo);
}

TEST_F(StepSizeControl, ExpUpdateProfileFiveHandComputedOnSilentSpan) {
    // Nothing inside the span, older energy 0.5: tail from 10 * (0 + 8 * 0.5)
    // = 40 = 0.625 * 2^6 -> 3.01 * 6 - 2.88 + 6.02 * 0.625 = 18.9425 dB;
    // the echo prediction is the level of silence.
    db->tCfg.iProfile = 5;
    const int G = AEC_aiAdfSzStrip[6] / 4;
    hist(6)[G] = 0.5f;
    db->atStrip[6].fErleAvgDb = 10.0f;
    db->atStrip[6].fErlDb = 2.0f;
    aec_exp_update(db, sc);
    EXPECT_NEAR(sc->atStripSc[6].fExpTailDb, 18.9425f - 12.0f, kTol);
    EXPECT_NEAR(sc->atStripSc[6].fExpEchoDb, kEn2logSilence - 12.0f, kTol);
    EXPECT_EQ(hist(6)[G], 0.85f * 0.5f);
}

TEST_F(StepSizeControl, ExpUpdateProfileSixHandComputedOnSingleFrame) {
    // Newest frame 1.0, older energy 0.25: tail from 1 + 4 * 0.25 = 2
    // = 0.5 * 2^2 -> 6.02 - 2.88 + 3.01 = 6.15 dB; echo from 1.0 -> 3.14 dB.
    db->tCfg.iProfile = 6;
    const int G = AEC_aiAdfSzStrip[20] / 4;
    hist(20)[0] = 1.0f;
    hist(20)[G] = 0.25f;
    db->atStrip[20].fErleAvgDb = 30.0f;
    db->atStrip[20].fErlDb = -4.0f;
    aec_exp_update(db, sc);
    EXPECT_NEAR(sc->atStripSc[20].fExpTailDb, 6.15f - 26.0f, kTol);
    EXPECT_NEAR(sc->atStripSc[20].fExpEchoDb, kEn2logOne - 26.0f, kTol);
    EXPECT_EQ(hist(20)[G], (G > 1 ? 0.0f : 1.0f) + 0.85f * 0.25f);
}

TEST_F(StepSizeControl, ExpUpdateProfileSixWeightsOlderEnergyByFour) {
    db->tCfg.iProfile = 6;
    const int G = 9;
    std::vector<float> v = fillHist(hist(25), G, 0.3f);
    aec_exp_update(db, sc);
    const Prediction p = predict(v, G, 0.0f, -10.0f, 6);
    EXPECT_EQ(sc->atStripSc[25].fExpTailDb, p.tail);
    EXPECT_EQ(hist(25)[G], v[G - 1] + 0.85f * v[G]);
}

TEST_F(StepSizeControl, ExpUpdateOtherProfilesIncludingNegativeUseOrdinaryRule) {
    for (int32_t m : {0, 1, 4, 7, -1, -5, std::numeric_limits<int32_t>::min()}) {
        SetUp();
        db->tCfg.iProfile = m;
        const int G = 12;
        std::vector<float> v = fillHist(hist(7), G, 0.05f);
        aec_exp_update(db, sc);
        const Prediction p = predict(v, G, 0.0f, -10.0f, 0);
        EXPECT_EQ(sc->atStripSc[7].fExpTailDb, p.tail) << "profile " << m;
        EXPECT_EQ(hist(7)[G], v[G - 1] + 0.75f * v[G]) << "profile " << m;
    }
}

// ---------------------------------------------------------------------------
// Spreading and full-band sums (aec_exp_full)

TEST_F(StepSizeControl, ExpFullThresholdFollowsReceivePeakAboveReference) {
    db->tCfg.fRinLevelRefDb = 100.0f;
    db->fRinPeakDb = 110.0f;
    aec_exp_full(db, sc);
    EXPECT_EQ(sc->fExpSpreadThrDb, 25.0f);  // 40 + 1.5 * (100 - 110)
    db->fRinPeakDb = -30.0f;
    aec_exp_full(db, sc);
    EXPECT_EQ(sc->fExpSpreadThrDb, 40.0f);  // peak below the reference: no change
    db->tCfg.fRinLevelRefDb = -40.0f;
    aec_exp_full(db, sc);
    EXPECT_EQ(sc->fExpSpreadThrDb, 25.0f);
}

TEST_F(StepSizeControl, ExpFullWithoutStrongStripLeavesTailsUnchanged) {
    db->fRinPeakDb = 0.0f;  // threshold 40
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        sc->atStripSc[s].fExpTailDb = -30.0f + static_cast<float>(s);
        db->atStrip[s].fErleAvgDb = 40.0f;  // e = 0 exactly: no spreading
    }
    aec_exp_full(db, sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s)
        EXPECT_EQ(sc->atStripSc[s].fExpTailDb, -30.0f + static_cast<float>(s));
}

TEST_F(StepSizeControl, ExpFullSpreadsStrongStripToNeighboursAtOnePointFiveDbPerStrip) {
    db->fRinPeakDb = 0.0f;  // threshold 40
    for (int s = 0; s < AEC_NSTRIPS; ++s) sc->atStripSc[s].fExpTailDb = -50.0f;
    sc->atStripSc[10].fExpTailDb = -20.0f;
    db->atStrip[10].fErleAvgDb = 46.0f;  // e = 6, v = -14
    aec_exp_full(db, sc);
    for (int k = 0; k < AEC_NSTRIPS; ++k) {
        const float d = static_cast<float>(k > 10 ? k - 10 : 10 - k);
        EXPECT_EQ(sc->atStripSc[k].fExpTailDb, fmaxRef(-50.0f, -14.0f - 1.5f * d)) << k;
    }
    EXPECT_EQ(sc->atStripSc[10].fExpTailDb, -14.0f);
    EXPECT_EQ(sc->atStripSc[0].fExpTailDb, -29.0f);
    EXPECT_EQ(sc->atStripSc[29].fExpTailDb, -42.5f);
    // The scratch array holds the spread values as well.
    EXPECT_EQ(sc->afExpSpreadDb[11], -15.5f);
}

TEST_F(StepSizeControl, ExpFullSpreadSourceIsTheUnspreadTail) {
    db->fRinPeakDb = 0.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) sc->atStripSc[s].fExpTailDb = -60.0f;
    sc->atStripSc[3].fExpTailDb = -10.0f;
    db->atStrip[3].fErleAvgDb = 50.0f;  // v3 = 0
    sc->atStripSc[5].fExpTailDb = -40.0f;
    db->atStrip[5].fErleAvgDb = 41.0f;  // v5 = -39, from the unspread -40
    aec_exp_full(db, sc);
    EXPECT_EQ(sc->atStripSc[5].fExpTailDb, -3.0f);
    // Strip 6: from strip 3, 0 - 4.5; from strip 5, -39 - 1.5. Had strip 5
    // spread its already raised value (-3 + 1), strip 6 would get -3.5.
    EXPECT_EQ(sc->atStripSc[6].fExpTailDb, -4.5f);
}

TEST_F(StepSizeControl, ExpFullLevelsArePowerSumsOfPredictions) {
    db->fRinPeakDb = 0.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        sc->atStripSc[s].fExpTailDb = -40.0f + 0.7f * static_cast<float>(s);
        sc->atStripSc[s].fExpEchoDb = -55.0f + 1.1f * static_cast<float>(s);
    }
    sc->atStripSc[AEC_FULLBAND].fExpTailDb = 90.0f;  // not part of the sums
    sc->atStripSc[AEC_FULLBAND].fExpEchoDb = 90.0f;
    aec_exp_full(db, sc);
    float lvl = 0.0f, echo = 0.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float a = aec_utl_exp(-40.0f + 0.7f * static_cast<float>(s));
        lvl += a * a;
        const float b = aec_utl_exp(-55.0f + 1.1f * static_cast<float>(s));
        echo += b * b;
    }
    EXPECT_EQ(sc->fExpLevelDb, aec_utl_en2log(lvl));
    EXPECT_EQ(sc->fExpEchoSumDb, aec_utl_en2log(echo));
    // Sanity on the scale: 30 strips at 0 dB would be about 10 log10(30) + 3.
    for (int s = 0; s < AEC_NSTRIPS; ++s) sc->atStripSc[s].fExpTailDb = 0.0f;
    aec_exp_full(db, sc);
    EXPECT_NEAR(sc->fExpLevelDb, 10.0 * std::log10(30.0) + 3.0, 0.3);  // scale offset 2.88..3.14
}

// ---------------------------------------------------------------------------
// Step sizes (aec_exp_stepsize)

struct StepIn {
    float floor, expEcho, dtAcc, erlFrame;
};

void setRecord(AEC_tDb *db, AEC_tSc *sc, int r, const StepIn &in) {
    db->atStrip[r].fErrFloorDb = in.floor;
    db->atStrip[r].fDtAccDb = in.dtAcc;
    sc->atStripSc[r].fExpEchoDb = in.expEcho;
    sc->atStripSc[r].fErlFrameDb = in.erlFrame;
}

float expectedMuAdf(const StepIn &in, float c0, float D) {
    float x;
    if (in.erlFrame > c0)
        x = in.floor - in.expEcho - 1.8f * fmaxRef(in.dtAcc, 0.0f);
    else
        x = in.floor - in.expEcho + 7.0f * (c0 - in.erlFrame);
    x = x - 0.8f * fmaxRef(D, 0.0f);
    x = fmaxRef(2.0f * x, 0.0f);
    const float mu = aec_utl_exp(-x);
    return mu < 0.003f ? 0.0f : mu;
}

TEST_F(StepSizeControl, StepFastFilterFollowsFloorMarginAboveHalfInitialErl) {
    // c0 = -5 with the default initial ERL.
    const StepIn in{-40.0f, -45.0f, 1.5f, -4.0f};  // x = 5 - 2.7 = 2.3 -> 4.6
    setRecord(db, sc, 4, in);
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[4].fMuAdf, expectedMuAdf(in, -5.0f, 0.0f));
    EXPECT_NEAR(sc->atStripSc[4].fMuAdf, std::pow(10.0, -4.6 / 20.0), 0.02);
}

TEST_F(StepSizeControl, StepFastFilterPenalisesLowFrameErlAtOrBelowHalfInitialErl) {
    const StepIn atBound{-40.0f, -45.0f, 3.0f, -5.0f};  // equal to c0: second rule
    setRecord(db, sc, 2, atBound);
    const StepIn below{-40.0f, -41.0f, 0.0f, -5.25f};  // x = 1 + 1.75 -> 5.5
    setRecord(db, sc, 3, below);
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[2].fMuAdf, expectedMuAdf(atBound, -5.0f, 0.0f));
    // x = 5 + 7 * 0 = 5 -> 10; the first rule would have given 5 - 5.4 -> 0 and a step of 1.
    EXPECT_EQ(sc->atStripSc[2].fMuAdf, aec_utl_exp(-10.0f));
    EXPECT_EQ(sc->atStripSc[3].fMuAdf, aec_utl_exp(-5.5f));
}

TEST_F(StepSizeControl, StepFastFilterTreatsNotANumberErlAsLowErl) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    setRecord(db, sc, 6, StepIn{-40.0f, -50.0f, 4.0f, nan});
    aec_exp_stepsize(db, sc);
    // The first rule would give x = 10 - 7.2 and a finite step of about 0.52.
    // The second rule gives x = 10 + 7 * NaN, a step that is not a number,
    // which counts as zero.
    EXPECT_EQ(sc->atStripSc[6].fMuAdf, 0.0f);
}

TEST_F(StepSizeControl, StepFastFilterIsOneWhenPredictedEchoReachesFloor) {
    setRecord(db, sc, 0, StepIn{-40.0f, -40.0f, 0.0f, 0.0f});
    setRecord(db, sc, 1, StepIn{-40.0f, -20.0f, 0.0f, 0.0f});
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[0].fMuAdf, 1.0f);
    EXPECT_EQ(sc->atStripSc[1].fMuAdf, 1.0f);
}

TEST_F(StepSizeControl, StepPositiveEchoPathChangeAndDoubleTalkRaiseFastStep) {
    const StepIn in{-30.0f, -40.0f, 2.0f, 0.0f};  // x = 10 - 3.6 = 6.4
    for (int r = 0; r < AEC_NSTRIPREC; ++r) setRecord(db, sc, r, in);
    db->fEpcDb = 5.0f;  // x = 6.4 - 4 = 2.4 -> 4.8
    aec_exp_stepsize(db, sc);
    const float withEpc = sc->atStripSc[8].fMuAdf;
    EXPECT_EQ(withEpc, expectedMuAdf(in, -5.0f, 5.0f));
    db->fEpcDb = -5.0f;  // negative values do not lower the step
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[8].fMuAdf, expectedMuAdf(in, -5.0f, 0.0f));
    EXPECT_GT(withEpc, sc->atStripSc[8].fMuAdf);
    // The full-band record is computed by the same rule.
    EXPECT_EQ(sc->atStripSc[AEC_FULLBAND].fMuAdf, expectedMuAdf(in, -5.0f, 0.0f));
}

TEST_F(StepSizeControl, StepBelowMinimumBecomesZeroFastFilter) {
    // x = 2 * 25.25 = 50.5 gives about 0.00298; 2 * 25 = 50 about 0.00315.
    const float lo = aec_utl_exp(-50.5f);
    const float hi = aec_utl_exp(-50.0f);
    ASSERT_LT(lo, 0.003f);
    ASSERT_GE(hi, 0.003f);
    setRecord(db, sc, 0, StepIn{-14.75f, -40.0f, 0.0f, 0.0f});
    setRecord(db, sc, 1, StepIn{-15.0f, -40.0f, 0.0f, 0.0f});
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[0].fMuAdf, 0.0f);
    EXPECT_EQ(sc->atStripSc[1].fMuAdf, hi);
}

// Slow filter: a = max(-Dt/6, 0) * max(V/30, 0) * max(-D/6, 0), times exp(-y).
TEST_F(StepSizeControl, StepSlowFilterExactProduct) {
    db->fEpcDb = -3.0f;
    db->atStrip[AEC_FULLBAND].fRinActDb = 12.0f;
    const StepIn in{-35.0f, -40.0f, -4.5f, 0.0f};  // y = 10
    setRecord(db, sc, 12, in);
    aec_exp_stepsize(db, sc);
    const float a = fmaxRef(4.5f / 6.0f, 0.0f) * fmaxRef(12.0f / 30.0f, 0.0f) *
                    fmaxRef(3.0f / 6.0f, 0.0f);
    EXPECT_EQ(sc->atStripSc[12].fMuAds, a * aec_utl_exp(-10.0f));
    // Predicted echo above the floor: y = 0, the factor is the product alone.
    setRecord(db, sc, 12, StepIn{-45.0f, -40.0f, -6.0f, 0.0f});
    db->atStrip[AEC_FULLBAND].fRinActDb = 30.0f;
    db->fEpcDb = -6.0f;
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[12].fMuAds, 1.0f);
}

TEST_F(StepSizeControl, StepSlowFilterNeedsActiveReceiveNegativeEvidenceAndNoDoubleTalk) {
    const StepIn in{-45.0f, -40.0f, -6.0f, 0.0f};
    setRecord(db, sc, 5, in);
    db->fEpcDb = -6.0f;
    db->atStrip[AEC_FULLBAND].fRinActDb = 30.0f;
    aec_exp_stepsize(db, sc);
    ASSERT_EQ(sc->atStripSc[5].fMuAds, 1.0f);

    db->atStrip[AEC_FULLBAND].fRinActDb = -3.0f;  // receive path inactive
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[5].fMuAds, 0.0f);
    db->atStrip[AEC_FULLBAND].fRinActDb = 30.0f;

    db->fEpcDb = 0.5f;  // an echo-path change is suspected
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[5].fMuAds, 0.0f);
    db->fEpcDb = -6.0f;

    db->atStrip[5].fDtAccDb = 0.0f;  // no negative double-talk evidence
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[5].fMuAds, 0.0f);
}

TEST_F(StepSizeControl, StepDoubleTalkZeroesEverySlowStepButNotFastSteps) {
    db->fEpcDb = -6.0f;
    db->atStrip[AEC_FULLBAND].fRinActDb = 30.0f;
    for (int r = 0; r < AEC_NSTRIPREC; ++r)
        setRecord(db, sc, r, StepIn{-40.0f - static_cast<float>(r) * 0.1f, -40.0f, -6.0f, 0.0f});
    aec_exp_stepsize(db, sc);
    float fast[AEC_NSTRIPREC];
    for (int r = 0; r < AEC_NSTRIPREC; ++r) {
        ASSERT_GT(sc->atStripSc[r].fMuAds, 0.0f) << r;
        fast[r] = sc->atStripSc[r].fMuAdf;
    }
    db->iDoubleTalk = 1;
    aec_exp_stepsize(db, sc);
    for (int r = 0; r < AEC_NSTRIPREC; ++r) {
        EXPECT_EQ(sc->atStripSc[r].fMuAds, 0.0f) << r;
        EXPECT_EQ(sc->atStripSc[r].fMuAdf, fast[r]) << r;
    }
}

TEST_F(StepSizeControl, StepBelowMinimumBecomesZeroSlowFilter) {
    // With y = 0 the slow step is the product alone; V / 30 sets it. Find the
    // receive activity whose quotient is exactly the float 0.003, and one just
    // below it.
    db->fEpcDb = -6.0f;
    setRecord(db, sc, 9, StepIn{-45.0f, -40.0f, -6.0f, 0.0f});
    float v = 0.09f;
    while (v / 30.0f > 0.003f) v = std::nextafter(v, 0.0f);
    while (v / 30.0f < 0.003f) v = std::nextafter(v, 1.0f);
    ASSERT_EQ(v / 30.0f, 0.003f);
    db->atStrip[AEC_FULLBAND].fRinActDb = v;
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[9].fMuAds, 0.003f);
    db->atStrip[AEC_FULLBAND].fRinActDb = 0.087f;  // 0.0029
    aec_exp_stepsize(db, sc);
    EXPECT_EQ(sc->atStripSc[9].fMuAds, 0.0f);
}

// ---------------------------------------------------------------------------
// Echo loss from the slow filter's coefficients (aec_exp_erl)

TEST_F(StepSizeControl, ErlRotationAdvancesEvenWhenGateFails) {
    ASSERT_EQ(db->iErlStrip, 1);
    std::vector<int> seen;
    for (int n = 0; n < 31; ++n) {
        aec_exp_erl(db, sc);
        seen.push_back(db->iErlStrip);
    }
    for (int n = 0; n < 31; ++n) {
        const int expected = (n + 2) % 30;
        EXPECT_EQ(seen[static_cast<size_t>(n)], expected) << n;
    }
    for (int s = 0; s < AEC_NSTRIPREC; ++s) EXPECT_EQ(db->atStrip[s].fErlDb, -10.0f);
}

// Fills strip s of the slow store with dyadic values whose squares and sums
// are exact in single precision, so the energy does not depend on the order
// of summation; returns the energy.
float fillStripCoefs(float *store, int s, float scale) {
    const int n = AEC_aiBandsPerStrip[s] * AEC_aiAdfSzStrip[s];
    float *c = store + 2 * AEC_aiAdfOffStrip[s];
    double e = 0.0;
    for (int k = 0; k < n; ++k) {
        const float re = scale * static_cast<float>((k % 5) - 2) * 0.125f;
        const float im = scale * static_cast<float>((k % 3)) * 0.25f;
        c[2 * k] = re;
        c[2 * k + 1] = im;
        e += static_cast<double>(re) * re + static_cast<double>(im) * im;
    }
    return static_cast<float>(e);
}

TEST_F(StepSizeControl, ErlMovesTowardsCoefficientLossOfPairedStrip) {
    const int s = 19;
    db->iErlStrip = s;
    // Large values in the neighbouring strips must not count.
    fillStripCoefs(db->pafAds, 18, 64.0f);
    fillStripCoefs(db->pafAds, 20, 64.0f);
    const float e = fillStripCoefs(db->pafAds, s, 1.0f);
    db->atStrip[s].fErleAvgDb = 9.0f;
    db->atStrip[s].fErlDb = -4.0f;
    sc->atStripSc[s].fErleDb = 6.0f;
    aec_exp_erl(db, sc);
    const float l = aec_utl_en2log(e * 0.5f);
    const float rate = 6.0f * 0.020833334f;
    EXPECT_EQ(db->atStrip[s].fErlDb, -4.0f + (3.01f - l - -4.0f) * rate);
    EXPECT_EQ(db->iErlStrip, 20);
    // Cross-check the energy: 72 taps with re in {-2..2}/8, im in {0,1,2}/4.
    double ref = 0.0;
    for (int k = 0; k < 72; ++k)
        ref += std::pow(((k % 5) - 2) * 0.125, 2) + std::pow((k % 3) * 0.25, 2);
    EXPECT_EQ(static_cast<double>(e), ref);
}

TEST_F(StepSizeControl, ErlCountsEveryTapOfSingleBandStrip) {
    const int s = 0;
    db->iErlStrip = s;
    float *c = db->pafAds;
    // Only the last tap (47) is non-zero: it must be counted.
    c[2 * 47] = 0.5f;
    c[2 * 47 + 1] = 0.5f;
    db->atStrip[s].fErleAvgDb = 20.0f;  // rate capped at 12 * 0.020833334
    db->atStrip[s].fErlDb = -10.0f;
    sc->atStripSc[s].fErleDb = 20.0f;
    aec_exp_erl(db, sc);
    const float l = aec_utl_en2log(0.5f * 1.0f);
    EXPECT_EQ(db->atStrip[s].fErlDb, -10.0f + (3.01f - l - -10.0f) * (12.0f * 0.020833334f));
    EXPECT_EQ(db->iErlStrip, 1);
}

TEST_F(StepSizeControl, ErlGateNeedsBothErleValuesAboveFive) {
    fillStripCoefs(db->pafAds, 2, 1.0f);
    db->atStrip[2].fErlDb = -8.0f;
    const float cases[3][2] = {{5.0f, 9.0f}, {9.0f, 5.0f}, {9.0f, 5.0001f}};
    for (int c = 0; c < 3; ++c) {
        db->iErlStrip = 2;
        db->atStrip[2].fErleAvgDb = cases[c][0];
        sc->atStripSc[2].fErleDb = cases[c][1];
        aec_exp_erl(db, sc);
        if (c < 2)
            EXPECT_EQ(db->atStrip[2].fErlDb, -8.0f) << c;
        else
            EXPECT_NE(db->atStrip[2].fErlDb, -8.0f) << c;
        EXPECT_EQ(db->iErlStrip, 3);
    }
}

TEST_F(StepSizeControl, ErlRateGrowsLinearlyWithErleAverage) {
    // The rate is (fErleAvgDb - 3) / 48 up to 12 / 48.
    fillStripCoefs(db->pafAds, 11, 1.0f);
    db->iErlStrip = 11;
    db->atStrip[11].fErleAvgDb = 7.0f;
    db->atStrip[11].fErlDb = 0.0f;
    sc->atStripSc[11].fErleDb = 7.0f;
    aec_exp_erl(db, sc);
    const float step7 = db->atStrip[11].fErlDb;
    db->iErlStrip = 11;
    db->atStrip[11].fErleAvgDb = 11.0f;
    db->atStrip[11].fErlDb = 0.0f;
    aec_exp_erl(db, sc);
    const float step11 = db->atStrip[11].fErlDb;
    // rates 4 * c and 8 * c: the second move is exactly twice the first
    // (scaling by two is exact in binary floating point).
    EXPECT_NE(step7, 0.0f);
    EXPECT_EQ(step11, 2.0f * step7);
}

}  // namespace
