// Non-linear processor: loss rules, distribution between the paths, gain
// conversion, application to the sub-band frames and comfort noise.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/core.h"
#include "kvaec_records.h"
#include "post/post.h"

namespace {

constexpr int kFrameFloats = AEC_NBANDS * AEC_NSUB * 2;  // 328
constexpr int kBandFloats = AEC_NSUB * 2;                // 8

float *errFrame() { return &AEC_Sc.acErrAdf[0][0][0]; }
float *rcvFrame() { return &AEC_Sc.acRcvSb[0][0][0]; }

// dB to amplitude, written out here from its definition (2^(d / 6.02) with a
// quadratic between powers of two) so that expectations do not come from the
// library.
float refExp(float d) {
    const float y = d * 0.16611296f;
    int k = static_cast<int>(y);
    if (y < 0.0f) k -= 1;
    const float f = y - static_cast<float>(k);
    const double p = 1.0 + static_cast<double>(f) * (0.661 + static_cast<double>(f) * 0.339);
    return static_cast<float>(std::ldexp(p, k));
}

// The comfort-noise sequence: seed = seed * 31821 + 13849, kept as a signed
// 16-bit value.
int32_t nextSeed(int32_t s) {
    const uint32_t v = static_cast<uint32_t>(s) * 31821u + 13849u;
    int32_t r = static_cast<int32_t>(v & 0xFFFFu);
    if (r >= 32768) r -= 65536;
    return r;
}

// Adds 2 n noise values of peak amp to x; returns the new seed.
int32_t refAddNoise(int32_t seed, float *x, int n, float amp) {
    const float scale = amp * 3.0517578e-5f;
    for (int i = 0; i < 2 * n; ++i) {
        seed = nextSeed(seed);
        x[i] += static_cast<float>(seed) * scale;
    }
    return seed;
}

// Deterministic, non-zero frame contents that differ per float.
void fillFrame(float *x, float base) {
    for (int i = 0; i < kFrameFloats; ++i)
        x[i] = base + 0.001f * static_cast<float>(i) * ((i & 1) ? -1.0f : 1.0f);
}

class NlpTest : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof AEC_Sc);
    }
    // Tests may change the strip tables; rebuild them for the next test.
    void TearDown() override { aecx_init_tabs(); }
};

using NlpCoefs = NlpTest;
using NlpGains = NlpTest;
using NlpApply = NlpTest;
using NlpComfortNoise = NlpTest;

// Headroom H = -40 + 4.5 + 60 = 24.5 dB; echo-loss estimate
// R = -30 - (-40) - 0 + (10 + -10) = 10 dB. With the defaults and q = 0:
// a = min(45 - 10, 24.5) = 24.5 (above -5, raise to 10 - R = 0 changes nothing),
// b = 24.5 - 15 = 9.5.
void setHeadroomCase(int s) {
    AEC_Sc.atStripSc[s].fExpTailDb = -40.0f;
    AEC_Sc.atStripSc[s].fExpEchoDb = -30.0f;
    AEC_Db.atStrip[s].fErrFloorDb = -60.0f;
    AEC_Db.atStrip[s].fErleAvgDb = 10.0f;
    AEC_Db.atStrip[s].fErlDb = -10.0f;
}

// Headroom H = -40 + 4.5 + 35.5 = 0 exactly; R = -60 + 40 + 0 = -20 dB.
// a = min(45 + 20, 0) = 0, above -5 so raised to 10 - R = 30; b = 30 - 15 = 15 at q = 0.
void setBelowFloorCase(int s) {
    AEC_Sc.atStripSc[s].fExpTailDb = -40.0f;
    AEC_Sc.atStripSc[s].fExpEchoDb = -60.0f;
    AEC_Db.atStrip[s].fErrFloorDb = -35.5f;
    AEC_Db.atStrip[s].fErleAvgDb = 0.0f;
    AEC_Db.atStrip[s].fErlDb = 0.0f;
}

float sendDb(int s) { return AEC_Sc.atStripSc[s].fSinAttDb; }
float rcvDb(int s) { return AEC_Sc.atStripSc[s].fRinAttDb; }

// ---------------------------------------------------------------- coefficients

TEST_F(NlpCoefs, StartStateGivesHeadroomLimitedSendLossOnEveryEntry) {
    // Start values: tail 0, floor -33 -> H = 37.5; ERLE 0, ERL -10 -> R = -10;
    // a = min(55, 37.5) = 37.5; no double talk -> all on the send path.
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        EXPECT_EQ(sendDb(s), 37.5f) << "entry " << s;
        EXPECT_EQ(rcvDb(s), 0.0f) << "entry " << s;
    }
}

TEST_F(NlpCoefs, HeadroomLimitsSendAttenuation) {
    setHeadroomCase(7);
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(7), 24.5f);
    EXPECT_EQ(rcvDb(7), 0.0f);
}

TEST_F(NlpCoefs, RequiredLossBelowHeadroomIsUsedAsIs) {
    setHeadroomCase(7);
    AEC_Db.atStrip[7].fErrFloorDb = -80.0f;  // H = 44.5 > 45 - 10
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(7), 35.0f);
}

TEST_F(NlpCoefs, CallerValueLowersEchoLossEstimate) {
    setHeadroomCase(7);
    AEC_Db.atStrip[7].fErrFloorDb = -80.0f;  // H = 44.5
    AEC_Db.fNlpParam = 5.0f;                 // R = 10 - 5 = 5 -> a = 40
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(7), 40.0f);
}

TEST_F(NlpCoefs, AttenuationAboveMinusFiveIsRaisedToTenBeyondEchoLoss) {
    setBelowFloorCase(4);
    AEC_Db.atStrip[4].fErrFloorDb = -31.5f;  // H = -4: a = -4 > -5 -> max(-4, 30) = 30
    AEC_Db.atStrip[4].fRinActDb = -1.0f;     // receive quiet: receive = b
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(4), 0.0f);
    EXPECT_EQ(rcvDb(4), 15.0f);  // b = 30 - 15
}

TEST_F(NlpCoefs, AttenuationAtMinusFiveIsNotRaisedAndFloorsAtZero) {
    setBelowFloorCase(4);
    AEC_Db.atStrip[4].fErrFloorDb = -30.5f;  // H = -5: a = -5 is not above -5 -> floor 0
    AEC_Db.atStrip[4].fRinActDb = -1.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    // a = 0 gives b = max(0 - 15, 0) = 0: no loss anywhere.
    EXPECT_EQ(sendDb(4), 0.0f);
    EXPECT_EQ(rcvDb(4), 0.0f);
}

TEST_F(NlpCoefs, DefaultSpreadMakesTotalLossSmallerThanSendLoss) {
    // 0 < fDtAccDb <= 20 exposes both: send = a (1 - k), receive = b k. With
    // fDtAccDb = 10, k = 0.5 exactly (0.05f * 10 rounds to 0.5).
    setHeadroomCase(9);
    AEC_Db.atStrip[9].fDtAccDb = 10.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(9), 12.25f);  // 24.5 * 0.5
    EXPECT_EQ(rcvDb(9), 4.75f);    // 9.5 * 0.5
}

TEST_F(NlpCoefs, RisingDoubleTalkAtTwentyPutsAllTotalLossOnReceive) {
    setHeadroomCase(9);
    AEC_Db.atStrip[9].fDtAccDb = 20.0f;  // k = 0.05f * 20 rounds to 1.0
    AEC_Db.atStrip[9].fDtAcc2Db = 0.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(9), 0.0f);
    EXPECT_EQ(rcvDb(9), 9.5f);
}

TEST_F(NlpCoefs, NoDoubleTalkEvidenceKeepsAllLossOnSend) {
    setHeadroomCase(9);
    AEC_Db.atStrip[9].fDtAccDb = -6.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(9), 24.5f);
    EXPECT_EQ(rcvDb(9), 0.0f);
}

TEST_F(NlpCoefs, DoubleTalkStripSplitsTotalLossTiltedBySlowAccumulator) {
    setHeadroomCase(11);
    AEC_Db.atStrip[11].fDtAccDb = 25.0f;
    AEC_Db.atStrip[11].fDtAcc2Db = 10.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    // m = b * 0.05 * 10 = 4.75: send (9.5 - 4.75) / 2, receive (9.5 + 4.75) / 2.
    const float m = 9.5f * 0.05f * 10.0f;
    EXPECT_EQ(sendDb(11), (9.5f - m) * 0.5f);
    EXPECT_EQ(rcvDb(11), (9.5f + m) * 0.5f);
    // 0.05f is not exact: allow a few ulps around the real-valued result.
    EXPECT_NEAR(sendDb(11), 2.375f, 1e-6f);
    EXPECT_NEAR(rcvDb(11), 7.125f, 1e-6f);
}

TEST_F(NlpCoefs, DoubleTalkSlowAccumulatorIsClampedToZeroAndTwenty) {
    setHeadroomCase(11);
    AEC_Db.atStrip[11].fDtAccDb = 30.0f;
    AEC_Db.atStrip[11].fDtAcc2Db = -6.0f;  // clamped to 0: m = 0
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(11), 4.75f);
    EXPECT_EQ(rcvDb(11), 4.75f);

    AEC_Db.atStrip[11].fDtAcc2Db = 30.0f;  // clamped to 20: m = b
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    const float m = 9.5f * 0.05f * 20.0f;
    EXPECT_EQ(sendDb(11), (9.5f - m) * 0.5f);
    EXPECT_EQ(rcvDb(11), (9.5f + m) * 0.5f);
    EXPECT_NEAR(rcvDb(11), 9.5f, 1e-5f);
}

TEST_F(NlpCoefs, EchoBelowFloorWithQuietReceivePutsTotalLossOnReceive) {
    setBelowFloorCase(5);
    AEC_Db.atStrip[5].fRinActDb = -1.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(5), 0.0f);
    EXPECT_EQ(rcvDb(5), 15.0f);
}

TEST_F(NlpCoefs, EchoBelowFloorSplitsByActivityDifference) {
    setBelowFloorCase(5);
    AEC_Db.atStrip[5].fRinActDb = 0.0f;  // not below 0: activity split
    AEC_Db.atStrip[5].fErrActDb = 10.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    float m = 15.0f * 0.05f * 10.0f;
    EXPECT_EQ(sendDb(5), (15.0f - m) * 0.5f);
    EXPECT_EQ(rcvDb(5), (15.0f + m) * 0.5f);
    EXPECT_NEAR(sendDb(5), 3.75f, 1e-6f);

    // Difference limited to +20 ...
    AEC_Db.atStrip[5].fErrActDb = 30.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    m = 15.0f * 0.05f * 20.0f;
    EXPECT_EQ(sendDb(5), (15.0f - m) * 0.5f);
    EXPECT_EQ(rcvDb(5), (15.0f + m) * 0.5f);

    // ... and to -20.
    AEC_Db.atStrip[5].fErrActDb = -6.0f;
    AEC_Db.atStrip[5].fRinActDb = 30.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    m = 15.0f * 0.05f * -20.0f;
    EXPECT_EQ(sendDb(5), (15.0f - m) * 0.5f);
    EXPECT_EQ(rcvDb(5), (15.0f + m) * 0.5f);
    EXPECT_NEAR(sendDb(5), 15.0f, 1e-5f);
}

TEST_F(NlpCoefs, DoubleTalkFlagDiscountsHalfConfidenceOfErle) {
    // Full-band ERLE 5 against target 0: q = (5 - 0 - 3) * 5 * 0.05 = 0.5, h = 0.25,
    // L = -15 * 0.5 = -7.5.
    AEC_Db.atStrip[AEC_FULLBAND].fErleAvgDb = 5.0f;
    setHeadroomCase(12);
    AEC_Db.atStrip[12].fErrFloorDb = -80.0f;  // H = 44.5, not limiting
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(12), 35.0f);  // R = 10

    AEC_Db.iDoubleTalk = 1;  // G = 0 - 0.25 * 10 = -2.5 -> R = 7.5 -> a = 37.5
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(12), 37.5f);
    // b = 37.5 - 7.5 = 30 is seen through the receive share at k = 0.5.
    AEC_Db.atStrip[12].fDtAccDb = 10.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(12), 18.75f);
    EXPECT_EQ(rcvDb(12), 15.0f);
}

// The total loss b = max(30 + L, 0) of the below-floor case with a quiet
// receive path shows the confidence q through L = -15 (1 - q).
float totalLossForConfidenceInputs(float fbErle, float thr, float td, float epc) {
    aecx_init(nullptr);
    std::memset(&AEC_Sc, 0, sizeof AEC_Sc);
    setBelowFloorCase(5);
    AEC_Db.atStrip[5].fRinActDb = -1.0f;
    AEC_Db.atStrip[AEC_FULLBAND].fErleAvgDb = fbErle;
    AEC_Sc.fExpSpreadThrDb = thr;
    AEC_Db.fTdAlarmDb = td;
    AEC_Db.fEpcDb = epc;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(5), 0.0f);
    return rcvDb(5);
}

TEST_F(NlpCoefs, ConfidenceFollowsFullBandErleAboveTarget) {
    EXPECT_EQ(totalLossForConfidenceInputs(0.0f, 0.0f, 0.0f, 0.0f), 15.0f);   // q = 0
    EXPECT_EQ(totalLossForConfidenceInputs(5.0f, 0.0f, 0.0f, 0.0f), 22.5f);   // q = 0.5
    EXPECT_EQ(totalLossForConfidenceInputs(5.0f, 2.0f, 0.0f, 0.0f), 15.0f);   // at target + 3: q = 0
    EXPECT_EQ(totalLossForConfidenceInputs(20.0f, 0.0f, 0.0f, 0.0f), 30.0f);  // q = 1: b = a
}

TEST_F(NlpCoefs, ConfidenceRisesWithToneAlarmButNotBelowZeroAlarm) {
    EXPECT_EQ(totalLossForConfidenceInputs(0.0f, 0.0f, 10.0f, 0.0f), 22.5f);  // q = 0.5
    EXPECT_EQ(totalLossForConfidenceInputs(0.0f, 0.0f, -6.0f, 0.0f), 15.0f);  // alarm < 0 adds 0
    EXPECT_EQ(totalLossForConfidenceInputs(0.0f, 0.0f, 40.0f, 0.0f), 30.0f);  // capped at q = 1
}

TEST_F(NlpCoefs, ConfidenceRisesWithEchoPathChange) {
    EXPECT_EQ(totalLossForConfidenceInputs(0.0f, 0.0f, 0.0f, 10.0f), 22.5f);
    // ERLE term (5 - 3) * 5 = 10, path-change term -6: q = 4 * 0.05.
    const float q = 4.0f * 0.05f;
    EXPECT_EQ(totalLossForConfidenceInputs(5.0f, 0.0f, 0.0f, -6.0f),
              30.0f + (30.0f - 45.0f) * (1.0f - q));
    EXPECT_EQ(totalLossForConfidenceInputs(5.0f, 0.0f, 0.0f, -12.0f), 15.0f);  // -2 clamped to 0
}

TEST_F(NlpCoefs, ErleTermIsClampedToZeroAndThirtyBeforeAlarmAndPathChangeAdd) {
    // ERLE term -15 is raised to 0 before the alarm adds 10: q = 0.5.
    EXPECT_EQ(totalLossForConfidenceInputs(0.0f, 0.0f, 10.0f, 0.0f), 22.5f);
    // ERLE term (20 - 3) * 5 = 85 is cut to 30 before a path-change term of
    // -15 is added: q = 15 * 0.05 = 0.75, L = -3.75.
    EXPECT_EQ(totalLossForConfidenceInputs(20.0f, 0.0f, 0.0f, -15.0f), 26.25f);
}

TEST_F(NlpCoefs, SendOnlyModeMovesReceiveLossToSend) {
    setHeadroomCase(9);
    AEC_Db.atStrip[9].fDtAccDb = 10.0f;  // 12.25 / 4.75 without the mode
    setBelowFloorCase(5);
    AEC_Db.atStrip[5].fRinActDb = -1.0f;  // 0 / 15 without the mode
    AEC_Db.uiFlags = KVAEC_MODE_SEND_ONLY_LOSS;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(9), 17.0f);
    EXPECT_EQ(rcvDb(9), 0.0f);
    EXPECT_EQ(sendDb(5), 15.0f);
    EXPECT_EQ(rcvDb(5), 0.0f);
    for (int s = 0; s < AEC_NSTRIPREC; ++s) EXPECT_EQ(rcvDb(s), 0.0f) << "entry " << s;
}

TEST_F(NlpCoefs, FullBandEntryIsComputedLikeTheStrips) {
    setHeadroomCase(AEC_FULLBAND);
    AEC_Db.atStrip[AEC_FULLBAND].fErleAvgDb = 3.0f;  // q stays 0 (term 0)
    AEC_Db.atStrip[AEC_FULLBAND].fErlDb = -3.0f;     // G = 0 as before
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(AEC_FULLBAND), 24.5f);
    EXPECT_EQ(rcvDb(AEC_FULLBAND), 0.0f);
}

// Profile 1: strip 3's expected tail is raised to the receive peak hold
// minus 100.2 dB before entry 3 is evaluated.
TEST_F(NlpCoefs, ProfileOneRaisesStripThreeTailBeforeItsLoss) {
    AEC_Db.tCfg.iProfile = 1;
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_Sc.atStripSc[s].fExpTailDb = -80.0f;
        AEC_Sc.atStripSc[s].fExpEchoDb = -60.0f;
        AEC_Db.atStrip[s].fErrFloorDb = -90.0f;
    }
    AEC_Sc.atStripSc[3].fRinDb = -20.0f;  // P = max(-20 + 50, hold 0) = 30
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fRinPeakHoldDb, 30.0f - 0.2f);
    EXPECT_EQ(AEC_Sc.atStripSc[3].fExpTailDb, 30.0f - 100.2f);
    EXPECT_EQ(AEC_Sc.atStripSc[2].fExpTailDb, -80.0f);
    EXPECT_EQ(AEC_Sc.atStripSc[4].fExpTailDb, -80.0f);
    const float send3 = sendDb(3);
    const float send2 = sendDb(2);

    // Same frame without the profile but with the raised tail preset: entry 3
    // must come out identical, so the raised value was used for it.
    AEC_Db.tCfg.iProfile = 0;
    AEC_Sc.atStripSc[3].fExpTailDb = 30.0f - 100.2f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(3), send3);
    EXPECT_EQ(sendDb(2), send2);
    // And the raise mattered: with tail -80 the headroom is 14.5, not 24.3.
    AEC_Sc.atStripSc[3].fExpTailDb = -80.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_NE(sendDb(3), send3);
    EXPECT_EQ(sendDb(3), 14.5f);
}

TEST_F(NlpCoefs, ProfileOnePeakHoldDecaysTwoTenthsPerFrame) {
    AEC_Db.tCfg.iProfile = 1;
    AEC_Sc.atStripSc[3].fExpTailDb = -200.0f;
    AEC_Sc.atStripSc[3].fRinDb = -20.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);  // hold 29.8
    AEC_Sc.atStripSc[3].fRinDb = -100.0f;  // -50 < hold
    AEC_Sc.atStripSc[3].fExpTailDb = -200.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    const float held = 30.0f - 0.2f;
    EXPECT_EQ(AEC_Db.fRinPeakHoldDb, held - 0.2f);
    EXPECT_EQ(AEC_Sc.atStripSc[3].fExpTailDb, held - 100.2f);
    // A tail already above the hold's bound is kept.
    AEC_Sc.atStripSc[3].fExpTailDb = -10.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Sc.atStripSc[3].fExpTailDb, -10.0f);
}

TEST_F(NlpCoefs, ProfileRuleNeedsTheIntegerOne) {
    // The float 1.0 in the profile word is not profile 1.
    const float one = 1.0f;
    std::memcpy(&AEC_Db.tCfg.iProfile, &one, sizeof one);
    AEC_Sc.atStripSc[3].fExpTailDb = -200.0f;
    AEC_Sc.atStripSc[3].fRinDb = -20.0f;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fRinPeakHoldDb, 0.0f);
    EXPECT_EQ(AEC_Sc.atStripSc[3].fExpTailDb, -200.0f);
    AEC_Db.tCfg.iProfile = 2;
    aec_nlp_get_coefs(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fRinPeakHoldDb, 0.0f);
}

// ---------------------------------------------------------------- aec_nlp

TEST_F(NlpGains, AttenuationsBecomeAmplitudeGains) {
    setHeadroomCase(9);
    AEC_Db.atStrip[9].fDtAccDb = 10.0f;  // 12.25 / 4.75 dB
    AEC_Db.uiFlags = KVAEC_MODE_NO_NLP;  // conversion only
    aec_nlp(&AEC_Db, &AEC_Sc);
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        if (s == 9) continue;
        EXPECT_EQ(sendDb(s), refExp(-37.5f)) << "entry " << s;
        EXPECT_EQ(rcvDb(s), 1.0f) << "entry " << s;
    }
    EXPECT_EQ(sendDb(9), refExp(-12.25f));
    EXPECT_EQ(rcvDb(9), refExp(-4.75f));
    // About 10^(-A/20): 37.5 dB is a factor near 0.0133 (coarse approximation, 3 %).
    EXPECT_NEAR(sendDb(0), std::pow(10.0f, -37.5f / 20.0f), 0.03f * 0.0133f);
}

TEST_F(NlpGains, NoSuppressionModeLeavesFramesAndGeneratorUntouched) {
    AEC_Db.uiFlags = KVAEC_MODE_NO_NLP;
    AEC_Db.uiNoiseSeed = 1234u;
    fillFrame(errFrame(), 0.25f);
    fillFrame(rcvFrame(), -0.5f);
    std::vector<float> err0(errFrame(), errFrame() + kFrameFloats);
    std::vector<float> rcv0(rcvFrame(), rcvFrame() + kFrameFloats);
    aec_nlp(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(0, std::memcmp(err0.data(), errFrame(), sizeof(float) * kFrameFloats));
    EXPECT_EQ(0, std::memcmp(rcv0.data(), rcvFrame(), sizeof(float) * kFrameFloats));
    EXPECT_EQ(AEC_Db.uiNoiseSeed, 1234u);
    // The gains were still computed and converted.
    EXPECT_EQ(sendDb(0), refExp(-37.5f));
}

TEST_F(NlpGains, ToneAlarmMutesSendApartFromFullComfortNoiseAndPassesReceive) {
    AEC_Sc.iToneAlarm = 1;
    // Distinct background levels per entry: N = min(slow error, floor, send).
    for (int k = 0; k < AEC_NSTRIPS; ++k) {
        AEC_Sc.atStripSc[k].fErrAdsDb = -40.0f - static_cast<float>(k);
        AEC_Sc.atStripSc[k].fSinDb = 0.0f;
    }
    fillFrame(errFrame(), 0.25f);
    fillFrame(rcvFrame(), -0.5f);
    std::vector<float> rcv0(rcvFrame(), rcvFrame() + kFrameFloats);
    aec_nlp(&AEC_Db, &AEC_Sc);

    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        EXPECT_EQ(sendDb(s), 0.0f) << "entry " << s;
        EXPECT_EQ(rcvDb(s), 1.0f) << "entry " << s;
    }
    EXPECT_EQ(0, std::memcmp(rcv0.data(), rcvFrame(), sizeof(float) * kFrameFloats));

    // Send: zeros plus noise of amplitude (1 - 0) * exp(N - 2), one-strip lag.
    std::vector<float> want(kFrameFloats, 0.0f);
    int32_t seed = 0;
    int pos = AEC_aiBandOffStrip[1] * kBandFloats;
    for (int s = 1; s < 29; ++s) {
        const int k = s - 1;
        const float n = -40.0f - static_cast<float>(k);  // below the floor -33 and send 0
        seed = refAddNoise(seed, &want[static_cast<size_t>(pos)], 4 * AEC_aiBandsPerStrip[s],
                           1.0f * refExp(n - 2.0f));
        pos += AEC_aiBandsPerStrip[s] * kBandFloats;
    }
    for (int i = 0; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], want[static_cast<size_t>(i)]) << i;
    EXPECT_EQ(AEC_Db.uiNoiseSeed, static_cast<uint32_t>(seed));
}

TEST_F(NlpGains, ToneAlarmOtherThanOneIsIgnored) {
    AEC_Sc.iToneAlarm = 2;
    AEC_Db.uiFlags = KVAEC_MODE_NO_NLP;
    aec_nlp(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(sendDb(4), refExp(-37.5f));
    EXPECT_EQ(rcvDb(4), 1.0f);
}

TEST_F(NlpGains, DefaultFrameAppliesGainsThenAddsComfortNoise) {
    setHeadroomCase(9);
    AEC_Db.atStrip[9].fDtAccDb = 10.0f;
    fillFrame(errFrame(), 0.25f);
    fillFrame(rcvFrame(), -0.5f);
    std::vector<float> err0(errFrame(), errFrame() + kFrameFloats);
    std::vector<float> rcv0(rcvFrame(), rcvFrame() + kFrameFloats);
    aec_nlp(&AEC_Db, &AEC_Sc);

    const float g = refExp(-37.5f);
    std::vector<float> want(kFrameFloats);
    for (int b = 0; b < AEC_NBANDS; ++b) {
        const int s = AEC_aiBand2Strip[b];
        const float gs = s == 9 ? refExp(-12.25f) : g;
        const float gr = s == 9 ? refExp(-4.75f) : 1.0f;
        for (int i = b * kBandFloats; i < (b + 1) * kBandFloats; ++i) {
            want[static_cast<size_t>(i)] = err0[static_cast<size_t>(i)] * gs;
            EXPECT_EQ(rcvFrame()[i], rcv0[static_cast<size_t>(i)] * gr) << i;
        }
    }
    // Background level per entry k: min(0, -33) = -33 (entry 9: floor -60),
    // the send level 0 is above it.
    int32_t seed = 0;
    int pos = AEC_aiBandOffStrip[1] * kBandFloats;
    for (int s = 1; s < 29; ++s) {
        const int k = s - 1;
        const float gk = k == 9 ? refExp(-12.25f) : g;
        const float level = k == 9 ? -60.0f : -33.0f;
        seed = refAddNoise(seed, &want[static_cast<size_t>(pos)], 4 * AEC_aiBandsPerStrip[s],
                           (1.0f - gk) * refExp(level - 2.0f));
        pos += AEC_aiBandsPerStrip[s] * kBandFloats;
    }
    for (int i = 0; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], want[static_cast<size_t>(i)]) << i;
}

// ---------------------------------------------------------------- aec_nlp_att

TEST_F(NlpApply, GainsMultiplyEachStripsBandsInBothFrames) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_Sc.atStripSc[s].fSinAttDb = 0.5f + 0.125f * static_cast<float>(s);
        AEC_Sc.atStripSc[s].fRinAttDb = 2.0f - 0.0625f * static_cast<float>(s);
    }
    fillFrame(errFrame(), 0.25f);
    fillFrame(rcvFrame(), -0.5f);
    std::vector<float> err0(errFrame(), errFrame() + kFrameFloats);
    std::vector<float> rcv0(rcvFrame(), rcvFrame() + kFrameFloats);
    aec_nlp_att(errFrame(), rcvFrame(), &AEC_Sc);
    for (int i = 0; i < kFrameFloats; ++i) {
        const int s = AEC_aiBand2Strip[i / kBandFloats];
        EXPECT_EQ(errFrame()[i], err0[static_cast<size_t>(i)] * (0.5f + 0.125f * static_cast<float>(s))) << i;
        EXPECT_EQ(rcvFrame()[i], rcv0[static_cast<size_t>(i)] * (2.0f - 0.0625f * static_cast<float>(s))) << i;
    }
}

TEST_F(NlpApply, StripWithoutBandsConsumesNoSamples) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_Sc.atStripSc[s].fSinAttDb = static_cast<float>(s + 1);
        AEC_Sc.atStripSc[s].fRinAttDb = -static_cast<float>(s + 1);
    }
    AEC_aiBandsPerStrip[2] = 0;  // strip 3 now starts where strip 2 did
    for (int i = 0; i < kFrameFloats; ++i) errFrame()[i] = rcvFrame()[i] = 1.0f;
    aec_nlp_att(errFrame(), rcvFrame(), &AEC_Sc);
    // bands 0, 1 -> strips 0, 1; band 2 -> strip 3; ...; bands 18..40 shift
    // by one strip; the last band is left alone.
    EXPECT_EQ(errFrame()[0], 1.0f);
    EXPECT_EQ(errFrame()[1 * kBandFloats], 2.0f);
    EXPECT_EQ(errFrame()[2 * kBandFloats], 4.0f);
    EXPECT_EQ(rcvFrame()[2 * kBandFloats + 7], -4.0f);
    EXPECT_EQ(errFrame()[17 * kBandFloats], 19.0f);  // strip 18
    EXPECT_EQ(errFrame()[18 * kBandFloats], 20.0f);  // strip 19, first band
    EXPECT_EQ(errFrame()[19 * kBandFloats], 20.0f);  // strip 19, second band
    EXPECT_EQ(errFrame()[39 * kBandFloats], 30.0f);  // strip 29, first band
    EXPECT_EQ(errFrame()[40 * kBandFloats], 1.0f);   // not reached
    EXPECT_EQ(rcvFrame()[40 * kBandFloats + 7], 1.0f);
}

// ---------------------------------------------------------------- comfort noise

// Per-entry levels chosen so that each of the three candidates is the
// lowest for some entries: k % 3 == 0 slow error, 1 floor, 2 send level.
void setNoiseLevels() {
    for (int k = 0; k < AEC_NSTRIPREC; ++k) {
        const float base = -50.0f - static_cast<float>(k);
        AEC_Sc.atStripSc[k].fErrAdsDb = base + (k % 3 == 0 ? -1.0f : 5.0f);
        AEC_Db.atStrip[k].fErrFloorDb = base + (k % 3 == 1 ? -2.0f : 5.0f);
        AEC_Sc.atStripSc[k].fSinDb = base + (k % 3 == 2 ? -3.0f : 5.0f);
        AEC_Sc.atStripSc[k].fSinAttDb = 0.125f * static_cast<float>(k % 5);  // send gains
    }
}

float expectedLevel(int k) {
    const float base = -50.0f - static_cast<float>(k);
    return base + (k % 3 == 0 ? -1.0f : (k % 3 == 1 ? -2.0f : -3.0f));
}

float expectedAmp(int k) {
    return (1.0f - 0.125f * static_cast<float>(k % 5)) * refExp(expectedLevel(k) - 2.0f);
}

TEST_F(NlpComfortNoise, NoiseOfEachStripUsesLevelsOfTheEntryBelow) {
    setNoiseLevels();
    AEC_Db.uiNoiseSeed = static_cast<uint32_t>(-5);  // sign-extended seed word
    aec_nlp_mix_noise(&AEC_Db, &AEC_Sc);
    std::vector<float> want(kFrameFloats, 0.0f);
    int32_t seed = -5;
    int pos = AEC_aiBandOffStrip[1] * kBandFloats;
    for (int s = 1; s < 29; ++s) {
        seed = refAddNoise(seed, &want[static_cast<size_t>(pos)], 4 * AEC_aiBandsPerStrip[s],
                           expectedAmp(s - 1));
        pos += AEC_aiBandsPerStrip[s] * kBandFloats;
    }
    for (int i = 0; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], want[static_cast<size_t>(i)]) << i;
    // Strip 0 and strip 29 get nothing.
    for (int i = 0; i < kBandFloats; ++i) EXPECT_EQ(errFrame()[i], 0.0f);
    for (int i = 39 * kBandFloats; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], 0.0f);
    EXPECT_EQ(AEC_Db.uiNoiseSeed, static_cast<uint32_t>(seed));
}

TEST_F(NlpComfortNoise, NoHighPassModeStartsAtStripZeroWithoutLag) {
    setNoiseLevels();
    AEC_Db.uiFlags = KVAEC_MODE_NO_HIPASS;
    aec_nlp_mix_noise(&AEC_Db, &AEC_Sc);
    std::vector<float> want(kFrameFloats, 0.0f);
    int32_t seed = 0;
    int pos = 0;
    for (int s = 0; s < 29; ++s) {
        seed = refAddNoise(seed, &want[static_cast<size_t>(pos)], 4 * AEC_aiBandsPerStrip[s],
                           expectedAmp(s));
        pos += AEC_aiBandsPerStrip[s] * kBandFloats;
    }
    for (int i = 0; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], want[static_cast<size_t>(i)]) << i;
    for (int i = 39 * kBandFloats; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], 0.0f);
    EXPECT_NE(errFrame()[0], 0.0f);
    EXPECT_EQ(AEC_Db.uiNoiseSeed, static_cast<uint32_t>(seed));
}

TEST_F(NlpComfortNoise, GeneratorSequenceFromZeroStartsWithKnownValues) {
    // Send gain 0 and a background level of -60 dB for entry 0: the first
    // floats of strip 1 are the first generator values times the scale.
    AEC_Sc.atStripSc[0].fErrAdsDb = -60.0f;
    AEC_Db.atStrip[0].fErrFloorDb = -60.0f;
    AEC_Sc.atStripSc[0].fSinDb = -60.0f;
    aec_nlp_mix_noise(&AEC_Db, &AEC_Sc);
    const float scale = refExp(-62.0f) * 3.0517578e-5f;
    const float *x = errFrame() + AEC_aiBandOffStrip[1] * kBandFloats;
    EXPECT_EQ(x[0], 13849.0f * scale);
    EXPECT_EQ(x[1], -26722.0f * scale);
    EXPECT_EQ(x[2], 22687.0f * scale);
    EXPECT_EQ(x[3], -7700.0f * scale);
}

TEST_F(NlpComfortNoise, SendLevelBelowSlowErrorAndFloorIsUsed) {
    // Entry 0: send level below min(slow error, floor) is taken; entry 1: the
    // send level equals that minimum.
    for (int k = 0; k < AEC_NSTRIPREC; ++k) {
        AEC_Sc.atStripSc[k].fErrAdsDb = -70.0f;
        AEC_Db.atStrip[k].fErrFloorDb = -60.0f;
        AEC_Sc.atStripSc[k].fSinDb = -70.0f;
    }
    AEC_Sc.atStripSc[0].fSinDb = -80.0f;  // strip 1 takes entry 0
    aec_nlp_mix_noise(&AEC_Db, &AEC_Sc);
    const float *x = errFrame() + AEC_aiBandOffStrip[1] * kBandFloats;
    EXPECT_EQ(x[0], 13849.0f * (refExp(-82.0f) * 3.0517578e-5f));
    const float *y = errFrame() + AEC_aiBandOffStrip[2] * kBandFloats;
    int32_t seed = 0;
    for (int i = 0; i < 8; ++i) seed = nextSeed(seed);
    seed = nextSeed(seed);
    EXPECT_EQ(y[0], static_cast<float>(seed) * (refExp(-72.0f) * 3.0517578e-5f));
}

TEST_F(NlpComfortNoise, StripWithoutBandsConsumesNoGeneratorSteps) {
    for (int k = 0; k < AEC_NSTRIPREC; ++k) AEC_Sc.atStripSc[k].fSinDb = -40.0f;
    AEC_aiBandsPerStrip[5] = 0;
    aec_nlp_mix_noise(&AEC_Db, &AEC_Sc);
    // Strips 1..28 hold 17 single bands (strip 5 now empty) and 10 pairs:
    // 37 bands of 8 floats, one generator step each.
    int32_t seed = 0;
    for (int i = 0; i < 37 * kBandFloats; ++i) seed = nextSeed(seed);
    EXPECT_EQ(AEC_Db.uiNoiseSeed, static_cast<uint32_t>(seed));
    // Strip 6's noise lands where strip 5 would have been (band 5), with entry 5's level.
    std::vector<float> want(kFrameFloats, 0.0f);
    int32_t s2 = 0;
    int pos = kBandFloats;
    for (int s = 1; s < 29; ++s) {
        s2 = refAddNoise(s2, &want[static_cast<size_t>(pos)], 4 * AEC_aiBandsPerStrip[s],
                         refExp(-40.0f - 2.0f));
        pos += AEC_aiBandsPerStrip[s] * kBandFloats;
    }
    for (int i = 0; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], want[static_cast<size_t>(i)]) << i;
    // Noise ends after 1 + 37 bands: bands 38 to 40 stay untouched.
    for (int i = 38 * kBandFloats; i < kFrameFloats; ++i) EXPECT_EQ(errFrame()[i], 0.0f) << i;
}

}  // namespace
