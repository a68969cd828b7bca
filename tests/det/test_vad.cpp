// Voice activity: noise floors and activity accumulators of the error and
// receive signals, and the silent-receive counter.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "det/det.h"
#include "kvaec_records.h"

namespace {

class Activity : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
        // Quiet, absent signals everywhere unless a test says otherwise.
        for (int s = 0; s < 31; ++s) setErr(s, -120.0f, -120.0f, -120.0f);
        for (int s = 0; s < 31; ++s) sc->atStripSc[s].fRinDb = -120.0f;
    }
    void setErr(int s, float sin, float adf, float ads) {
        sc->atStripSc[s].fSinDb = sin;
        sc->atStripSc[s].fErrAdfDb = adf;
        sc->atStripSc[s].fErrAdsDb = ads;
    }
    AEC_tDb *db = &AEC_Db;
    AEC_tSc *sc = &AEC_Sc;
};

}  // namespace

// ---- error-signal tracker ----

TEST_F(Activity, ErrorTrackerTakesTheQuietestOfSendAndBothFilterErrors) {
    db->fAdaptTime = 0.0f;
    for (int s = 0; s < 31; ++s) db->atStrip[s].fErrFloorDb = -40.0f;
    setErr(3, -30.0f, -38.0f, -35.0f);  // x = -38, d = 2
    setErr(4, -38.0f, -30.0f, -35.0f);  // x = -38 from the send level
    setErr(5, -30.0f, -35.0f, -38.0f);  // x = -38 from the slow error
    aec_vad_err_sb(db, sc);
    for (int s = 3; s <= 5; ++s) {
        // s = 0 + 2 < 5: floor follows with the rising rate 1/32.
        EXPECT_EQ(db->atStrip[s].fErrFloorDb, -40.0f + 2.0f * 0.03125f) << s;
        EXPECT_EQ(db->atStrip[s].fErrActDb, -3.0f) << s;
    }
}

TEST_F(Activity, ErrorFloorFallsTwiceAsFastAsItRisesEarlyAndAtOneRateLate) {
    for (int s = 0; s < 31; ++s) db->atStrip[s].fErrFloorDb = -40.0f;
    setErr(1, -36.0f, -36.0f, -36.0f);  // d = +4
    setErr(2, -44.0f, -44.0f, -44.0f);  // d = -4
    db->fAdaptTime = 599.0f;
    aec_vad_err_sb(db, sc);
    EXPECT_EQ(db->atStrip[1].fErrFloorDb, -39.875f);  // + 4/32
    EXPECT_EQ(db->atStrip[2].fErrFloorDb, -40.25f);   // - 4/16
    EXPECT_EQ(db->atStrip[1].fErrActDb, -1.0f);       // 0 + 4 - 5
    EXPECT_EQ(db->atStrip[2].fErrActDb, -6.0f);       // 0 - 4 - 5 = -9 -> -6

    // 600 already counts as late: 1/64 for either sign.
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fErrFloorDb = -40.0f;
        db->atStrip[s].fErrActDb = 0.0f;
    }
    db->fAdaptTime = 600.0f;
    aec_vad_err_sb(db, sc);
    EXPECT_EQ(db->atStrip[1].fErrFloorDb, -39.9375f);  // + 4/64
    EXPECT_EQ(db->atStrip[2].fErrFloorDb, -40.0625f);  // - 4/64
}

TEST_F(Activity, ErrorFloorCreepsEarlyOnlyWhileEveryFastErrorStripIsQuiet) {
    db->fAdaptTime = 0.0f;
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fErrFloorDb = -60.0f;
        db->atStrip[s].fErrActDb = 10.0f;
        setErr(s, -50.0f, -50.0f, -50.0f);  // active: s = 10 + 10 >= 5
    }
    // The full-band entry does not count for the loudest fast error.
    sc->atStripSc[30].fErrAdfDb = 0.0f;
    aec_vad_err_sb(db, sc);
    for (int s = 0; s < 30; ++s) {
        EXPECT_EQ(db->atStrip[s].fErrFloorDb, -60.0f + 0.02f) << s;
        EXPECT_EQ(db->atStrip[s].fErrActDb, 15.0f) << s;
    }
    // Full band: x = min(-50, 0, -50) = -50 < -33 and the strips are quiet.
    EXPECT_EQ(db->atStrip[30].fErrFloorDb, -60.0f + 0.02f);

    // One strip's fast error at -33 (not below) stops the creep everywhere.
    for (int s = 0; s < 31; ++s) db->atStrip[s].fErrFloorDb = -60.0f;
    sc->atStripSc[17].fErrAdfDb = -33.0f;
    aec_vad_err_sb(db, sc);
    for (int s = 0; s < 31; ++s) EXPECT_EQ(db->atStrip[s].fErrFloorDb, -60.0f) << s;
}

TEST_F(Activity, ErrorFloorCreepsLateOnlyAfterTwoThousandFramesAndByTheSmallStep) {
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fErrFloorDb = -60.0f;
        db->atStrip[s].fErrActDb = 10.0f;
        setErr(s, -50.0f, -50.0f, -50.0f);
    }
    db->fAdaptTime = 1999.0f;
    aec_vad_err_sb(db, sc);
    for (int s = 0; s < 31; ++s) EXPECT_EQ(db->atStrip[s].fErrFloorDb, -60.0f) << s;
    db->fAdaptTime = 2000.0f;
    aec_vad_err_sb(db, sc);
    for (int s = 0; s < 31; ++s) EXPECT_EQ(db->atStrip[s].fErrFloorDb, -60.0f + 0.004f) << s;
    // The quietest level itself must lie below -33: the full-band entry (not
    // part of the loudest-strip test) at -33 does not creep while the strips do.
    for (int s = 0; s < 31; ++s) db->atStrip[s].fErrFloorDb = -60.0f;
    setErr(30, -33.0f, -33.0f, -33.0f);
    aec_vad_err_sb(db, sc);
    for (int s = 0; s < 30; ++s) EXPECT_EQ(db->atStrip[s].fErrFloorDb, -60.0f + 0.004f) << s;
    EXPECT_EQ(db->atStrip[30].fErrFloorDb, -60.0f);
}

TEST_F(Activity, LevelAtOrBelowTheConfiguredFloorOnlyLowersTheAccumulator) {
    db->fAdaptTime = 0.0f;
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fErrFloorDb = -50.0f;
        db->atStrip[s].fErrActDb = 30.0f;
        db->atStrip[s].fRinFloorDb = -50.0f;
        db->atStrip[s].fRinActDb = 30.0f;
        setErr(s, -95.0f, -95.0f, -95.0f);  // exactly the floor: not above it
        sc->atStripSc[s].fRinDb = s % 2 ? -95.0f : -200.0f;
    }
    const float expected[] = {25, 20, 15, 10, 5, 0, -5, -6, -6};
    for (float e : expected) {
        aec_vad_err_sb(db, sc);
        aec_vad_rin_sb(db, sc);
        aec_vad_rin_fb(db, sc);
        for (int s = 0; s < 31; ++s) {
            ASSERT_EQ(db->atStrip[s].fErrActDb, e) << s;
            ASSERT_EQ(db->atStrip[s].fRinActDb, e) << s;
            ASSERT_EQ(db->atStrip[s].fErrFloorDb, -50.0f) << s;
            ASSERT_EQ(db->atStrip[s].fRinFloorDb, -50.0f) << s;
        }
    }
}

TEST_F(Activity, FloorsStayBetweenTheConfiguredFloorAndMinus33) {
    db->tCfg.fLevelFloorDb = -60.0f;
    // Floors below the configured floor (set before a configuration change)
    // are lifted to it; floors near -33 that follow a louder level stop at -33.
    db->atStrip[0].fErrFloorDb = -80.0f;   // silent entry: stays, then lifted
    db->atStrip[1].fErrFloorDb = -33.1f;   // follows +10 dB at 1/32 -> above -33
    db->atStrip[1].fErrActDb = -6.0f;
    setErr(1, -23.1f, -23.1f, -23.1f);
    db->atStrip[2].fRinFloorDb = -70.0f;
    db->atStrip[3].fRinFloorDb = -33.05f;  // follows with rate 1/16 -> above -33
    db->atStrip[3].fRinActDb = -6.0f;
    db->atStrip[3].fErrFloorDb = -43.0f;
    sc->atStripSc[3].fRinDb = -33.0f;      // d = 10 against the error floor
    db->atStrip[30].fRinFloorDb = -90.0f;
    aec_vad_err_sb(db, sc);
    aec_vad_rin_sb(db, sc);
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->atStrip[0].fErrFloorDb, -60.0f);
    EXPECT_EQ(db->atStrip[1].fErrFloorDb, -33.0f);
    EXPECT_EQ(db->atStrip[2].fRinFloorDb, -60.0f);
    EXPECT_EQ(db->atStrip[3].fRinFloorDb, -33.0f);
    EXPECT_EQ(db->atStrip[30].fRinFloorDb, -60.0f);
}

TEST_F(Activity, FloorsStayInRangeUnderLongLoudAndRandomSignals) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-130.0f, 20.0f);
    std::uniform_real_distribution<float> t(0.0f, 2500.0f);
    for (int frame = 0; frame < 4000; ++frame) {
        const bool loud = frame < 1000;
        db->fAdaptTime = t(rng);
        for (int s = 0; s < 31; ++s) {
            if (loud) {
                setErr(s, 0.0f, 0.0f, 0.0f);
                sc->atStripSc[s].fRinDb = 0.0f;
            } else {
                setErr(s, u(rng), u(rng), u(rng));
                sc->atStripSc[s].fRinDb = u(rng);
            }
        }
        aec_vad_err_sb(db, sc);
        aec_vad_rin_sb(db, sc);
        aec_vad_rin_fb(db, sc);
        for (int s = 0; s < 31; ++s) {
            const AEC_tStripRec &q = db->atStrip[s];
            ASSERT_LE(q.fErrFloorDb, -33.0f);
            ASSERT_GE(q.fErrFloorDb, -95.0f);
            ASSERT_LE(q.fRinFloorDb, -33.0f);
            ASSERT_GE(q.fRinFloorDb, -95.0f);
            ASSERT_LE(q.fErrActDb, 30.0f);
            ASSERT_GE(q.fErrActDb, -6.0f);
            ASSERT_LE(q.fRinActDb, 30.0f);
            ASSERT_GE(q.fRinActDb, -6.0f);
        }
        if (frame == 999) {
            // A loud signal drives the accumulators to the top; the floors never pass -33.
            for (int s = 0; s < 31; ++s) {
                EXPECT_EQ(db->atStrip[s].fErrActDb, 30.0f);
                EXPECT_EQ(db->atStrip[s].fRinActDb, 30.0f);
            }
        }
    }
}

// ---- receive trackers ----

TEST_F(Activity, ReceiveStripLevelEqualToTheErrorFloorLeavesTheReceiveFloorAndLowersActivityByFive) {
    db->fAdaptTime = 0.0f;
    const float rinFloors[] = {-33.0f, -47.25f, -80.0f, -95.0f};
    for (float rf : rinFloors) {
        for (int s = 0; s < 30; ++s) {
            db->atStrip[s].fErrFloorDb = -40.0f - static_cast<float>(s);
            db->atStrip[s].fRinFloorDb = rf;
            db->atStrip[s].fRinActDb = 3.0f;
            sc->atStripSc[s].fRinDb = db->atStrip[s].fErrFloorDb;
        }
        aec_vad_rin_sb(db, sc);
        for (int s = 0; s < 30; ++s) {
            EXPECT_EQ(db->atStrip[s].fRinFloorDb, rf) << s;
            EXPECT_EQ(db->atStrip[s].fRinActDb, -2.0f) << s;
        }
    }
}

TEST_F(Activity, ReceiveStripTrackerMeasuresAgainstTheErrorFloorAndUpdatesTheReceiveFloor) {
    db->fAdaptTime = 0.0f;
    db->atStrip[6].fErrFloorDb = -50.0f;
    db->atStrip[6].fRinFloorDb = -70.0f;
    sc->atStripSc[6].fRinDb = -48.0f;  // d = 2 (against -50), not 22
    aec_vad_rin_sb(db, sc);
    EXPECT_EQ(db->atStrip[6].fRinFloorDb, -70.0f + 2.0f * 0.0625f);
    EXPECT_EQ(db->atStrip[6].fRinActDb, -3.0f);
    EXPECT_EQ(db->atStrip[6].fErrFloorDb, -50.0f);
}

TEST_F(Activity, ReceiveStripTrackerSwitchesRegimeOnlyAboveSixHundred) {
    for (int s = 0; s < 30; ++s) db->atStrip[s].fErrFloorDb = -50.0f;
    sc->atStripSc[1].fRinDb = -46.0f;  // d = +4
    sc->atStripSc[2].fRinDb = -54.0f;  // d = -4
    for (int s = 0; s < 30; ++s) db->atStrip[s].fRinFloorDb = -60.0f;
    db->fAdaptTime = 600.0f;           // still early here: 1/16 both ways
    aec_vad_rin_sb(db, sc);
    EXPECT_EQ(db->atStrip[1].fRinFloorDb, -59.75f);   // + 4/16
    EXPECT_EQ(db->atStrip[2].fRinFloorDb, -60.25f);   // - 4/16
    for (int s = 0; s < 30; ++s) {
        db->atStrip[s].fRinFloorDb = -60.0f;
        db->atStrip[s].fRinActDb = 0.0f;
    }
    db->fAdaptTime = 601.0f;  // late: rises at 1/32, falls at 1/16
    aec_vad_rin_sb(db, sc);
    EXPECT_EQ(db->atStrip[1].fRinFloorDb, -59.875f);
    EXPECT_EQ(db->atStrip[2].fRinFloorDb, -60.25f);
}

TEST_F(Activity, ReceiveStripCreepShrinksFromOneToPointTwoBetweenSixHundredAndTwoThousand) {
    const float times[] = {0.0f, 600.0f, 1300.0f, 2000.0f, 5000.0f};
    for (float t : times) {
        db->fAdaptTime = t;
        for (int s = 0; s < 30; ++s) {
            db->atStrip[s].fErrFloorDb = -70.0f;
            db->atStrip[s].fRinFloorDb = -60.0f;
            db->atStrip[s].fRinActDb = 10.0f;
            sc->atStripSc[s].fRinDb = -50.0f;  // active, below -33
        }
        aec_vad_rin_sb(db, sc);
        float c = 1.0f;
        if (t > 600.0f) {
            float ramp = (t - 600.0f) * 0.0007142857f;
            if (ramp > 1.0f) ramp = 1.0f;
            c = 1.0f - 0.8f * ramp;
        }
        for (int s = 0; s < 30; ++s) EXPECT_EQ(db->atStrip[s].fRinFloorDb, -60.0f + 0.02f * c) << t;
        // Hand values of the factor: 1 up to 600, 0.6 at 1300, 0.2 from 2000.
        const float hand = t <= 600.0f ? 1.0f : (t >= 2000.0f ? 0.2f : 0.6f);
        // Tolerance: the stored floor near -60 carries a rounding of up to
        // half an ulp there (1.9e-6), the factor a few ulps of 0.6.
        EXPECT_NEAR(db->atStrip[0].fRinFloorDb - -60.0f, 0.02f * hand, 5e-6f) << t;
    }
    // A loud receive strip anywhere (-33 or above) stops the creep.
    for (int s = 0; s < 30; ++s) db->atStrip[s].fRinFloorDb = -60.0f;
    sc->atStripSc[29].fRinDb = -33.0f;
    aec_vad_rin_sb(db, sc);
    for (int s = 0; s < 29; ++s) EXPECT_EQ(db->atStrip[s].fRinFloorDb, -60.0f) << s;
}

TEST_F(Activity, ReceiveStripTrackerLeavesTheFullBandEntryAlone) {
    db->atStrip[30].fRinFloorDb = -44.0f;
    db->atStrip[30].fRinActDb = 7.0f;
    for (int s = 0; s < 31; ++s) sc->atStripSc[s].fRinDb = -40.0f;
    aec_vad_rin_sb(db, sc);
    EXPECT_EQ(db->atStrip[30].fRinFloorDb, -44.0f);
    EXPECT_EQ(db->atStrip[30].fRinActDb, 7.0f);
}

TEST_F(Activity, FullBandReceiveTrackerUsesItsOwnFloorAndRates) {
    AEC_tStripRec &q = db->atStrip[30];
    q.fErrFloorDb = -90.0f;  // must not matter here
    q.fRinFloorDb = -60.0f;
    sc->atStripSc[30].fRinDb = -56.0f;  // d = +4
    db->fAdaptTime = 599.0f;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(q.fRinFloorDb, -59.875f);  // + 4/32
    EXPECT_EQ(q.fRinActDb, -1.0f);

    q.fRinFloorDb = -60.0f;
    q.fRinActDb = 0.0f;
    sc->atStripSc[30].fRinDb = -64.0f;   // d = -4
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(q.fRinFloorDb, -60.25f);   // - 4/16

    q.fRinFloorDb = -60.0f;
    q.fRinActDb = 0.0f;
    db->fAdaptTime = 600.0f;             // 600 is late here: 1/64
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(q.fRinFloorDb, -60.0625f);
}

TEST_F(Activity, FullBandReceiveFloorCreepsWhenActiveAndBelowMinus33) {
    AEC_tStripRec &q = db->atStrip[30];
    q.fRinFloorDb = -60.0f;
    q.fRinActDb = 10.0f;
    sc->atStripSc[30].fRinDb = -40.0f;
    db->fAdaptTime = 0.0f;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(q.fRinFloorDb, -60.0f + 0.02f);
    EXPECT_EQ(q.fRinActDb, 25.0f);

    q.fRinFloorDb = -60.0f;
    db->fAdaptTime = 600.0f;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(q.fRinFloorDb, -60.0f + 0.004f);
    EXPECT_EQ(q.fRinActDb, 30.0f);

    q.fRinFloorDb = -60.0f;
    sc->atStripSc[30].fRinDb = -33.0f;  // not below -33: no creep
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(q.fRinFloorDb, -60.0f);
}

TEST_F(Activity, SilentReceiveFramesAreCountedAndAnActiveFrameTakesSevenThousandOff) {
    sc->atStripSc[30].fRinDb = -95.0f;  // not above the floor: silent
    aec_vad_rin_fb(db, sc);
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->iRinSilentFrames, 2);
    sc->atStripSc[30].fRinDb = -94.0f;  // active
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->iRinSilentFrames, 0);  // never below 0
    db->iRinSilentFrames = 12345;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->iRinSilentFrames, 5345);
}

TEST_F(Activity, LongReceiveSilenceDecaysTheErleAveragesAndAdaptationUntilTheCountIsBackAtSixtyThousand) {
    for (int s = 0; s < 31; ++s) db->atStrip[s].fErleAvgDb = 20.0f + static_cast<float>(s);
    db->fAdaptTime = 1500.0f;
    db->iRinSilentFrames = 59999;
    sc->atStripSc[30].fRinDb = -120.0f;

    aec_vad_rin_fb(db, sc);  // 60000: not yet above
    EXPECT_EQ(db->iRinSilentFrames, 60000);
    EXPECT_EQ(db->fAdaptTime, 1500.0f);
    EXPECT_EQ(db->atStrip[0].fErleAvgDb, 20.0f);

    aec_vad_rin_fb(db, sc);  // 60001: decay
    EXPECT_EQ(db->iRinSilentFrames, 60001);
    EXPECT_EQ(db->fAdaptTime, 1500.0f * 0.999f);
    for (int s = 0; s < 31; ++s) EXPECT_EQ(db->atStrip[s].fErleAvgDb, (20.0f + static_cast<float>(s)) * 0.999f) << s;

    // The count stops at 70000; the decay goes on.
    db->iRinSilentFrames = 70000;
    float t = db->fAdaptTime;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->iRinSilentFrames, 70000);
    EXPECT_EQ(db->fAdaptTime, t * 0.999f);

    // One active frame: 63000, still decaying on the next silent frame (63001).
    sc->atStripSc[30].fRinDb = -50.0f;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->iRinSilentFrames, 63000);
    t = db->fAdaptTime;
    sc->atStripSc[30].fRinDb = -120.0f;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->fAdaptTime, t * 0.999f);

    // A second active frame: 56001, and the next silent frame (56002) does not decay.
    sc->atStripSc[30].fRinDb = -50.0f;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->iRinSilentFrames, 56001);
    t = db->fAdaptTime;
    const float q5 = db->atStrip[5].fErleAvgDb;
    sc->atStripSc[30].fRinDb = -120.0f;
    aec_vad_rin_fb(db, sc);
    EXPECT_EQ(db->iRinSilentFrames, 56002);
    EXPECT_EQ(db->fAdaptTime, t);
    EXPECT_EQ(db->atStrip[5].fErleAvgDb, q5);
}

TEST_F(Activity, AtExactlySixHundredFramesOnlyTheReceiveStripTrackerIsStillEarly) {
    db->fAdaptTime = 600.0f;
    for (int s = 0; s < 31; ++s) {
        db->atStrip[s].fErrFloorDb = -60.0f;
        db->atStrip[s].fRinFloorDb = -60.0f;
        setErr(s, -56.0f, -56.0f, -56.0f);
        sc->atStripSc[s].fRinDb = -56.0f;  // d = +4 against both floors
    }
    aec_vad_err_sb(db, sc);  // late: +4/64
    for (int s = 0; s < 30; ++s) db->atStrip[s].fErrFloorDb = -60.0f;  // rin_sb measures against it
    aec_vad_rin_sb(db, sc);  // early: +4/16
    aec_vad_rin_fb(db, sc);  // late: +4/64
    EXPECT_EQ(db->atStrip[30].fErrFloorDb, -59.9375f);
    EXPECT_EQ(db->atStrip[4].fRinFloorDb, -59.75f);
    EXPECT_EQ(db->atStrip[30].fRinFloorDb, -59.9375f);
}
