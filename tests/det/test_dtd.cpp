// Double-talk detector: branches, per-strip evidence, the decision statistic
// and its hysteresis.
#include <gtest/gtest.h>

#include <cstring>

#include "det/det.h"
#include "kvaec_records.h"

namespace {

class DoubleTalk : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);  // margin T = 4.5
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
        // Neutral levels: error far below the expected echo, so every strip
        // sees e = -1.5 or less unless a test sets it otherwise.
        for (int s = 0; s < 31; ++s) setLevels(s, -90.0f, -90.0f, -60.0f, -60.0f);
    }
    // Fast and slow error levels, expected tail level, error floor.
    void setLevels(int s, float adf, float ads, float tail, float floorDb) {
        sc->atStripSc[s].fErrAdfDb = adf;
        sc->atStripSc[s].fErrAdsDb = ads;
        sc->atStripSc[s].fExpTailDb = tail;
        db->atStrip[s].fErrFloorDb = floorDb;
    }
    void setAllAcc(float a) {
        for (int s = 0; s < 31; ++s) db->atStrip[s].fDtAccDb = a;
    }
    AEC_tDb *db = &AEC_Db;
    AEC_tSc *sc = &AEC_Sc;
};

}  // namespace

// ---- per-strip evidence ----

TEST_F(DoubleTalk, ExcessAboveExpectedEchoRaisesTheAccumulatorsByHandComputedSteps) {
    // Strip 5: Emin = min(-20, -30) = -30; X = -50, F = -60: u = 10 >= 8, X kept.
    // e = -30 + 50 - 4.5 = 15.5; companion 0 - 4.5 + 15.5 = 11; main + min(15.5, 12).
    setLevels(5, -20.0f, -30.0f, -50.0f, -60.0f);
    // Strip 6: soft knee, X = -55, F = -60: u = 5 -> X = -55 + 4 - 2.5 = -53.5.
    // Emin = -50: e = -50 + 53.5 - 4.5 = -1 (inside the fall limit).
    setLevels(6, -50.0f, -45.0f, -55.0f, -60.0f);
    // Strip 7: X = -70, F = -60: u = -10 < -8 -> X = F = -60. Emin = -60:
    // e = -4.5, limited to -1.5 in both accumulators (companion from 10:
    // 10 - 4.5 - 1.5 = 4).
    setLevels(7, -60.0f, -60.0f, -70.0f, -60.0f);
    db->atStrip[7].fDtAcc2Db = 10.0f;
    // Strip 8: knee edge u = 8 exactly keeps X: X = -52, F = -60, Emin = -40:
    // e = -40 + 52 - 4.5 = 7.5.
    setLevels(8, -40.0f, -40.0f, -52.0f, -60.0f);
    // Strip 9: knee edge u = -8 exactly: X = -68 + 4 + 4 = -60 (= F); Emin = -50:
    // e = 10 - 4.5 = 5.5.
    setLevels(9, -50.0f, -50.0f, -68.0f, -60.0f);
    aec_dtd(db, sc);
    EXPECT_EQ(db->atStrip[5].fDtAcc2Db, 11.0f);
    EXPECT_EQ(db->atStrip[5].fDtAccDb, 12.0f);
    EXPECT_EQ(db->atStrip[6].fDtAcc2Db, -5.5f);
    EXPECT_EQ(db->atStrip[6].fDtAccDb, -1.0f);
    EXPECT_EQ(db->atStrip[7].fDtAcc2Db, 4.0f);
    EXPECT_EQ(db->atStrip[7].fDtAccDb, -1.5f);
    EXPECT_EQ(db->atStrip[8].fDtAcc2Db, 3.0f);
    EXPECT_EQ(db->atStrip[8].fDtAccDb, 7.5f);
    EXPECT_EQ(db->atStrip[9].fDtAcc2Db, 1.0f);
    EXPECT_EQ(db->atStrip[9].fDtAccDb, 5.5f);
}

TEST_F(DoubleTalk, LowestStripsExpectMoreEchoAndTheFullBandNeedsTwiceTheMargin) {
    // Same levels everywhere: Emin = -30, X = -50 (+6 in strip 0, +2 in 1, 2),
    // F = -60 (u >= 8 in all cases).
    for (int s = 0; s < 31; ++s) setLevels(s, -30.0f, -30.0f, -50.0f, -60.0f);
    for (int s = 0; s < 31; ++s) db->atStrip[s].fDtAcc2Db = 10.0f;
    aec_dtd(db, sc);
    // Companion: 10 - 4.5 + e.
    EXPECT_EQ(db->atStrip[0].fDtAcc2Db, 10.0f - 4.5f + 9.5f);   // e = -30 + 44 - 4.5
    EXPECT_EQ(db->atStrip[1].fDtAcc2Db, 10.0f - 4.5f + 13.5f);  // e = -30 + 48 - 4.5
    EXPECT_EQ(db->atStrip[2].fDtAcc2Db, 10.0f - 4.5f + 13.5f);
    EXPECT_EQ(db->atStrip[3].fDtAcc2Db, 10.0f - 4.5f + 15.5f);  // e = 20 - 4.5
    EXPECT_EQ(db->atStrip[29].fDtAcc2Db, 10.0f - 4.5f + 15.5f);
    EXPECT_EQ(db->atStrip[30].fDtAcc2Db, 10.0f - 4.5f + 11.0f); // e = 20 - 9
    EXPECT_EQ(db->atStrip[0].fDtAccDb, 9.5f);
    EXPECT_EQ(db->atStrip[1].fDtAccDb, 12.0f);
    EXPECT_EQ(db->atStrip[3].fDtAccDb, 12.0f);
    EXPECT_EQ(db->atStrip[30].fDtAccDb, 11.0f);
}

TEST_F(DoubleTalk, TheMarginComesFromTheConfiguration) {
    db->tCfg.fDtdMarginDb = 2.0f;
    setLevels(5, -30.0f, -30.0f, -50.0f, -60.0f);  // e = 20 - 2 = 18
    setLevels(30, -40.0f, -40.0f, -50.0f, -60.0f); // e = 10 - 4 = 6
    aec_dtd(db, sc);
    EXPECT_EQ(db->atStrip[5].fDtAcc2Db, -2.0f + 18.0f);
    EXPECT_EQ(db->atStrip[30].fDtAcc2Db, -2.0f + 6.0f);
    EXPECT_EQ(db->atStrip[30].fDtAccDb, 6.0f);
}

TEST_F(DoubleTalk, AccumulatorsAreClampedToMinusSixAndThirty) {
    setLevels(5, -30.0f, -30.0f, -50.0f, -60.0f);  // e = 15.5
    db->atStrip[5].fDtAccDb = 25.0f;
    db->atStrip[5].fDtAcc2Db = 28.0f;
    db->atStrip[6].fDtAccDb = -5.0f;   // neutral strip: e <= -1.5
    db->atStrip[6].fDtAcc2Db = -1.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->atStrip[5].fDtAccDb, 30.0f);
    EXPECT_EQ(db->atStrip[5].fDtAcc2Db, 30.0f);
    EXPECT_EQ(db->atStrip[6].fDtAccDb, -6.0f);
    EXPECT_EQ(db->atStrip[6].fDtAcc2Db, -6.0f);
}

// ---- branches ----

TEST_F(DoubleTalk, ToneAlarmOnlyDecaysTheMainAccumulatorsAndFreezesTheAverages) {
    db->fTdAlarmDb = 20.5f;
    for (int s = 0; s < 31; ++s) {
        setLevels(s, -30.0f, -30.0f, -50.0f, -60.0f);  // would raise the evidence
        db->atStrip[s].fDtAccDb = -5.0f + static_cast<float>(s);
        db->atStrip[s].fDtAcc2Db = 7.0f;
        db->atStrip[s].fErleAvgDb = 10.0f;
        db->atStrip[s].fErlDb = 0.0f;
        sc->atStripSc[s].fErleDb = 30.0f;   // would move the ERLE average
        sc->atStripSc[s].fMuAdf = 1.0f;
        sc->atStripSc[s].fErlFrameDb = 20.0f;
    }
    aec_dtd(db, sc);
    EXPECT_EQ(sc->iToneAlarm, 1);
    for (int s = 0; s < 31; ++s) {
        const float before = -5.0f + static_cast<float>(s);
        EXPECT_EQ(db->atStrip[s].fDtAccDb, before - 2.0f < -6.0f ? -6.0f : before - 2.0f) << s;
        EXPECT_EQ(db->atStrip[s].fDtAcc2Db, 7.0f) << s;
        EXPECT_EQ(db->atStrip[s].fErleAvgDb, 10.0f) << s;
        EXPECT_EQ(db->atStrip[s].fErlDb, 0.0f) << s;
    }
}

TEST_F(DoubleTalk, ClippingDecaysLikeTheAlarmButRaisesNoAlarm) {
    db->fClipDb = 21.0f;
    sc->iToneAlarm = 1;  // cleared at the start of every call
    for (int s = 0; s < 31; ++s) {
        setLevels(s, -30.0f, -30.0f, -50.0f, -60.0f);
        db->atStrip[s].fDtAccDb = 3.0f;
        db->atStrip[s].fDtAcc2Db = 7.0f;
        db->atStrip[s].fErleAvgDb = 10.0f;
        sc->atStripSc[s].fErleDb = 30.0f;
        sc->atStripSc[s].fMuAdf = 1.0f;
    }
    aec_dtd(db, sc);
    EXPECT_EQ(sc->iToneAlarm, 0);
    for (int s = 0; s < 31; ++s) {
        EXPECT_EQ(db->atStrip[s].fDtAccDb, 1.0f) << s;
        EXPECT_EQ(db->atStrip[s].fDtAcc2Db, 7.0f) << s;
        EXPECT_EQ(db->atStrip[s].fErleAvgDb, 10.0f) << s;
    }
}

TEST_F(DoubleTalk, ToneAlarmTakesPrecedenceOverClipping) {
    db->fTdAlarmDb = 30.0f;
    db->fClipDb = 30.0f;
    setAllAcc(0.0f);
    aec_dtd(db, sc);
    EXPECT_EQ(sc->iToneAlarm, 1);
    EXPECT_EQ(db->atStrip[4].fDtAccDb, -2.0f);
}

TEST_F(DoubleTalk, AlarmAndClippingAtExactlyTwentyTakeTheNormalBranch) {
    db->fTdAlarmDb = 20.0f;
    db->fClipDb = 20.0f;
    sc->iToneAlarm = 1;
    setLevels(5, -30.0f, -30.0f, -50.0f, -60.0f);
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fErleAvgDb = 10.0f;
        sc->atStripSc[s].fErleDb = 30.0f;
        sc->atStripSc[s].fMuAdf = 1.0f;
    }
    aec_dtd(db, sc);
    EXPECT_EQ(sc->iToneAlarm, 0);
    EXPECT_EQ(db->atStrip[5].fDtAccDb, 12.0f);       // evidence accumulated
    EXPECT_EQ(db->atStrip[5].fDtAcc2Db, 11.0f);
    EXPECT_GT(db->atStrip[6].fErleAvgDb, 10.0f);     // averages smoothed in this branch
}

TEST_F(DoubleTalk, NormalBranchRunsTheErleSmoothingWithTheUpdatedAccumulators) {
    // Strip 5 evidence pushes fDtAccDb from 0 to 12 in this frame; the
    // smoothing then sees Dt = 12 >= 10 and freezes (p = 0).
    setLevels(5, -30.0f, -30.0f, -50.0f, -60.0f);
    // Strip 6 stays quiet (Dt = -1.5): the smoothing moves its average.
    for (int s = 5; s <= 6; ++s) {
        db->atStrip[s].fErleAvgDb = 10.0f;
        sc->atStripSc[s].fErleDb = 30.0f;
        sc->atStripSc[s].fMuAdf = 1.0f;
    }
    aec_dtd(db, sc);
    EXPECT_EQ(db->atStrip[5].fDtAccDb, 12.0f);
    EXPECT_EQ(db->atStrip[5].fErleAvgDb, 10.0f);
    EXPECT_GT(db->atStrip[6].fErleAvgDb, 10.0f);
}

// ---- decision ----

TEST_F(DoubleTalk, StatisticOfExactlyTwentyDoesNotSetTheFlag) {
    db->fClipDb = 25.0f;  // decay branch: accumulators fall by exactly 2
    setAllAcc(-2.0f);     // voters -4 -> weighted -1 each, sum floored at 0
    db->atStrip[30].fDtAccDb = 22.0f;  // -> 20: D = 20
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 0);
    setAllAcc(-2.0f);
    db->atStrip[30].fDtAccDb = 22.5f;  // -> 20.5
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 1);
}

TEST_F(DoubleTalk, StatisticOfExactlyZeroDoesNotClearTheFlag) {
    db->iDoubleTalk = 1;
    db->fClipDb = 25.0f;
    setAllAcc(-6.0f);
    db->atStrip[30].fDtAccDb = 2.0f;  // -> 0: D = 0 + 0
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 1);
    db->atStrip[30].fDtAccDb = 1.5f;  // -> -0.5
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 0);
}

TEST_F(DoubleTalk, AllAccumulatorsAtMinusSixClearASetFlag) {
    db->iDoubleTalk = 1;
    db->fClipDb = 25.0f;
    setAllAcc(-6.0f);
    aec_dtd(db, sc);
    for (int s = 0; s < 31; ++s) EXPECT_EQ(db->atStrip[s].fDtAccDb, -6.0f);
    EXPECT_EQ(db->iDoubleTalk, 0);
}

TEST_F(DoubleTalk, NegativeVotesCountAQuarter) {
    // After the 2 dB decay: 15 voters at 10, strips 2 and 3 at -6, full band -5.
    // Weighted sum 150 - 1.5 - 1.5 = 147: D = -5 + 147 * 3/17 = 20.94 > 20.
    // (Full weight would give 138: D = 19.35, no double talk.)
    db->fClipDb = 25.0f;
    setAllAcc(12.0f);
    db->atStrip[2].fDtAccDb = -4.0f;
    db->atStrip[3].fDtAccDb = -4.0f;
    db->atStrip[30].fDtAccDb = -3.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 1);
}

TEST_F(DoubleTalk, OnlyStripsTwoToEighteenVote) {
    // After the 2 dB decay: strips 0, 1 and 19..29 at 28, the voters at 0, the
    // full band at 17. Any non-voter counted would add 28 * 3/17 = 4.9 and set
    // the flag; as it is D = 17.
    db->fClipDb = 25.0f;
    setAllAcc(30.0f);
    for (int s = 2; s <= 18; ++s) db->atStrip[s].fDtAccDb = 2.0f;
    db->atStrip[30].fDtAccDb = 19.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 0);
    // The voters alone carry the decision: all 17 at 8, full band 0:
    // D = 136 * 3/17 = 24.
    setAllAcc(0.0f);
    for (int s = 2; s <= 18; ++s) db->atStrip[s].fDtAccDb = 10.0f;
    db->atStrip[30].fDtAccDb = 2.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 1);
}

TEST_F(DoubleTalk, StatisticIsFullBandPlusThreeSeventeenthsOfTheVotes) {
    // Voters (after the 2 dB decay): strip 2 at 8, strip 3 at -4 (weighted -1),
    // all others at 0: sum 7. Full band 18: D = 18 + 7 * 0.1764706 = 19.235 -> 0.
    db->fClipDb = 25.0f;
    setAllAcc(2.0f);
    db->atStrip[2].fDtAccDb = 10.0f;
    db->atStrip[3].fDtAccDb = -2.0f;
    db->atStrip[30].fDtAccDb = 20.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 0);
    // Strip 2 at 14 (-> 12): sum 11, D = 18 + 1.94 = 19.94 -> 0; at 15 (-> 13):
    // sum 12, D = 18 + 2.1176 = 20.12 -> 1.
    setAllAcc(2.0f);
    db->atStrip[2].fDtAccDb = 14.0f;
    db->atStrip[3].fDtAccDb = -2.0f;
    db->atStrip[30].fDtAccDb = 20.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 0);
    setAllAcc(2.0f);
    db->atStrip[2].fDtAccDb = 15.0f;
    db->atStrip[3].fDtAccDb = -2.0f;
    db->atStrip[30].fDtAccDb = 20.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 1);
}

TEST_F(DoubleTalk, SetFlagHoldsBetweenTheThresholds) {
    db->iDoubleTalk = 1;
    db->fClipDb = 25.0f;
    setAllAcc(0.0f);
    db->atStrip[30].fDtAccDb = 12.0f;  // -> 10: 0 <= D <= 20
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 1);
    db->iDoubleTalk = 0;
    setAllAcc(0.0f);
    db->atStrip[30].fDtAccDb = 12.0f;
    aec_dtd(db, sc);
    EXPECT_EQ(db->iDoubleTalk, 0);
}

TEST_F(DoubleTalk, QuietErrorClearsAFlagRaisedAtThirtyOnlyAfterTwentyOneFrames) {
    // Neutral levels: e <= -1.5 everywhere, so each accumulator falls by
    // exactly 1.5 per frame: 30 - 1.5 n. D = v + 17 v * 3/17 while v >= 0,
    // exactly 0 at n = 20 (not cleared) and -1.5 at n = 21 (cleared).
    db->iDoubleTalk = 1;
    setAllAcc(30.0f);
    for (int n = 1; n <= 20; ++n) {
        aec_dtd(db, sc);
        ASSERT_EQ(db->atStrip[9].fDtAccDb, 30.0f - 1.5f * static_cast<float>(n));
        ASSERT_EQ(db->iDoubleTalk, 1) << "frame " << n;
    }
    aec_dtd(db, sc);
    EXPECT_EQ(db->atStrip[30].fDtAccDb, -1.5f);
    EXPECT_EQ(db->iDoubleTalk, 0);
}

TEST_F(DoubleTalk, DoubleTalkEndsDuringAToneAlarmOnceTheDecayedStatisticFallsBelowZero) {
    db->iDoubleTalk = 1;
    db->fTdAlarmDb = 25.0f;
    setAllAcc(30.0f);
    // 2 dB per frame: v = 30 - 2 n reaches 0 (D = 0, kept) at n = 15 and -2 at n = 16.
    for (int n = 1; n <= 15; ++n) {
        aec_dtd(db, sc);
        ASSERT_EQ(sc->iToneAlarm, 1);
        ASSERT_EQ(db->iDoubleTalk, 1) << "frame " << n;
    }
    aec_dtd(db, sc);
    EXPECT_EQ(db->atStrip[30].fDtAccDb, -2.0f);
    EXPECT_EQ(db->iDoubleTalk, 0);
    for (int n = 0; n < 5; ++n) aec_dtd(db, sc);
    EXPECT_EQ(db->atStrip[0].fDtAccDb, -6.0f);  // the decay stops at -6
}
