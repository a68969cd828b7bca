// Echo-path-change detection: the error-shape evidence, the fast-filter
// advantage evidence, their combination and the decay of the adaptation
// progress counter on a detected change.
//
// Expected values are recomputed here with the same single-precision
// operations in the same order, so EXPECT_EQ is used for them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "adf/adf.h"
#include "kvaec_records.h"

namespace {

class EchoPathChange : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    }
    AEC_tDb *db = &AEC_Db;
    AEC_tSc *sc = &AEC_Sc;
};

float fmaxRef(float a, float b) { return a > b ? a : b; }
float fminRef(float a, float b) { return a < b ? a : b; }
float clampRef(float x, float lo, float hi) { return fminRef(fmaxRef(x, lo), hi); }

// Inputs of one strip for the error-shape evidence.
struct FreqIn {
    float errAdf, errAds, floor, expEcho, erle, erleAvg, erlFrame, erl;
};

void setFreq(AEC_tDb *db, AEC_tSc *sc, int s, const FreqIn &in) {
    sc->atStripSc[s].fErrAdfDb = in.errAdf;
    sc->atStripSc[s].fErrAdsDb = in.errAds;
    sc->atStripSc[s].fExpEchoDb = in.expEcho;
    sc->atStripSc[s].fErleDb = in.erle;
    sc->atStripSc[s].fErlFrameDb = in.erlFrame;
    db->atStrip[s].fErrFloorDb = in.floor;
    db->atStrip[s].fErleAvgDb = in.erleAvg;
    db->atStrip[s].fErlDb = in.erl;
}

// Independent statement of the increment of fEpcFreqDb for strips 0..18.
float freqIncrement(const FreqIn *in) {
    float sqq = 20.9f, srr = 20.9f, sqr = 0.0f;
    for (int s = 0; s < 19; ++s) {
        const FreqIn &x = in[s];
        const float e = fminRef(x.errAdf, x.errAds);
        const float u = fmaxRef(e - fmaxRef(x.floor + 3.0f, x.expEcho) - 1.2f, 0.0f);
        const float v = x.erle / (x.erleAvg + 1.5f) - 0.5f;
        const float bump = fmaxRef(1.0f - 4.0f * (v * v), 0.0f);
        float p = bump * u;
        if (x.erlFrame - x.erl < -8.0f && e > x.floor + 8.0f) p = x.erlFrame - x.erl + 8.0f;
        const float q = p - 0.8f;
        const float r = fmaxRef(0.5f * x.erleAvg + x.expEcho - x.floor, 0.0f);
        sqq += q * q;
        srr += r * r;
        sqr += q * r;
    }
    return 10.0f * (sqr / std::sqrt(srr * sqq) - 0.09f);
}

TEST_F(EchoPathChange, FreqNeutralFrameDecaysByNineTenthsOfADb) {
    // Every q = -0.8 and r = 0: the correlation is 0 and rho = -0.09.
    for (int s = 0; s < AEC_NSTRIPS; ++s)
        setFreq(db, sc, s, FreqIn{-60.0f, -60.0f, -33.0f, -80.0f, 0.0f, 0.0f, 0.0f, -10.0f});
    db->fEpcFreqDb = 10.0f;
    aec_epc_freq(db, sc);
    EXPECT_EQ(db->fEpcFreqDb, 10.0f + 10.0f * (0.0f / std::sqrt(20.9f * (20.9f + 19 * 0.64f)) - 0.09f));
    EXPECT_NEAR(db->fEpcFreqDb, 9.1f, 1e-5f);
}

TEST_F(EchoPathChange, FreqExactArithmeticOverSingleBandStrips) {
    FreqIn in[AEC_NSTRIPS];
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float f = static_cast<float>(s);
        in[s] = FreqIn{-30.0f + 0.5f * f,  -28.0f + 0.25f * f, -45.0f + 0.1f * f, -42.0f + 0.3f * f,
                       2.0f + 0.4f * f,    3.0f + 0.2f * f,    -12.0f + f,        -10.0f};
        setFreq(db, sc, s, in[s]);
    }
    // Strip 4: a sudden ERL fall with the residual well above the floor.
    in[4].erlFrame = -25.0f;
    setFreq(db, sc, 4, in[4]);
    db->fEpcFreqDb = 2.0f;
    aec_epc_freq(db, sc);
    EXPECT_EQ(db->fEpcFreqDb, clampRef(2.0f + freqIncrement(in), -6.0f, 30.0f));
    EXPECT_NE(db->fEpcFreqDb, clampRef(2.0f - 0.9f, -6.0f, 30.0f));
}

TEST_F(EchoPathChange, FreqIgnoresPairedStrips) {
    FreqIn in[AEC_NSTRIPS];
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float f = static_cast<float>(s % 5);
        in[s] = FreqIn{-20.0f + f, -21.0f, -40.0f, -30.0f + f, 4.0f, 6.0f, 0.0f, -10.0f};
        setFreq(db, sc, s, in[s]);
    }
    aec_epc_freq(db, sc);
    const float first = db->fEpcFreqDb;
    for (int s = AEC_NSINGLE; s < AEC_NSTRIPS; ++s)
        setFreq(db, sc, s, FreqIn{10.0f, 10.0f, -90.0f, 20.0f, 1.0f, 40.0f, -40.0f, 0.0f});
    db->fEpcFreqDb = 0.0f;
    aec_epc_freq(db, sc);
    EXPECT_EQ(db->fEpcFreqDb, first);
    EXPECT_EQ(first, freqIncrement(in));
}

TEST_F(EchoPathChange, FreqErlFallOverridesOnlyBeyondEightDb) {
    // All strips alike; without the override p = 8.8 (frame ERLE half its
    // average + 1.5: bump 1; residual 8.8 dB above the echo prediction less
    // 1.2), while the override at a fall of exactly 8 dB would give 0.
    FreqIn base{-20.0f, -20.0f, -40.0f, -30.0f, 5.75f, 10.0f, -18.0f, -10.0f};
    FreqIn in[AEC_NSTRIPS];
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        in[s] = base;
        setFreq(db, sc, s, base);
    }
    db->fEpcFreqDb = 10.0f;  // away from the clamps
    aec_epc_freq(db, sc);  // fall of exactly 8 dB: no override
    const float atEight = db->fEpcFreqDb;
    EXPECT_EQ(atEight, 10.0f + freqIncrement(in));

    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        in[s].erlFrame = -30.0f;  // fall of 20 dB: p = -12
        setFreq(db, sc, s, in[s]);
    }
    db->fEpcFreqDb = 10.0f;
    aec_epc_freq(db, sc);
    EXPECT_EQ(db->fEpcFreqDb, 10.0f + freqIncrement(in));
    EXPECT_NE(db->fEpcFreqDb, atEight);

    // The same fall with the residual at the floor + 8 does not override.
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        in[s].errAdf = in[s].errAds = -32.0f;
        setFreq(db, sc, s, in[s]);
    }
    FreqIn noFall[AEC_NSTRIPS];
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        noFall[s] = in[s];
        noFall[s].erlFrame = -10.0f;
    }
    db->fEpcFreqDb = 10.0f;
    aec_epc_freq(db, sc);
    EXPECT_EQ(db->fEpcFreqDb, 10.0f + freqIncrement(noFall));
}

TEST_F(EchoPathChange, FreqEvidenceClampedToMinusSixAndThirty) {
    for (int s = 0; s < AEC_NSTRIPS; ++s)
        setFreq(db, sc, s, FreqIn{-60.0f, -60.0f, -33.0f, -80.0f, 0.0f, 0.0f, 0.0f, -10.0f});
    db->fEpcFreqDb = -5.5f;
    aec_epc_freq(db, sc);
    EXPECT_EQ(db->fEpcFreqDb, -6.0f);
    // Strongly correlated q and r: residual far above the floor wherever
    // the averages predict echo, with the frame ERLE at half its average.
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float f = static_cast<float>(s % 4);
        setFreq(db, sc, s,
                FreqIn{-10.0f + 10.0f * f, -10.0f + 10.0f * f, -60.0f, -50.0f + 10.0f * f, 5.0f,
                       8.5f, 0.0f, -10.0f});
    }
    db->fEpcFreqDb = 29.0f;
    aec_epc_freq(db, sc);
    EXPECT_EQ(db->fEpcFreqDb, 30.0f);
}

// ---------------------------------------------------------------------------
// Fast-filter advantage and combination (aec_epc_derle)

TEST_F(EchoPathChange, DerleFollowsWeightedMeanAdvantage) {
    float num = 0.0f, den = 0.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float f = static_cast<float>(s);
        db->atStrip[s].fErleAvgDb = 0.5f * f;
        sc->atStripSc[s].fErrAdsDb = -20.0f + 0.2f * f;
        sc->atStripSc[s].fErrAdfDb = -21.0f - 0.1f * f;
        if (s < AEC_NSINGLE) {
            const float w = 0.5f * f + 0.5f;
            num += w * ((-20.0f + 0.2f * f) - (-21.0f - 0.1f * f));
            den += w;
        }
    }
    db->fEpcDerleDb = 3.0f;
    db->fEpcFreqDb = 1.0f;
    aec_epc_derle(db, sc);
    const float derle = clampRef(3.0f - 2.0f + 1.5789474f * (num / den), -6.0f, 30.0f);
    EXPECT_EQ(db->fEpcDerleDb, derle);
    EXPECT_EQ(db->fEpcDb, (1.0f + 6.0f) * 0.027777778f * (derle + 6.0f) - 6.0f);
}

TEST_F(EchoPathChange, DerleDecaysByTwoWithoutAdvantageAndIsClamped) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        sc->atStripSc[s].fErrAdsDb = -30.0f;
        sc->atStripSc[s].fErrAdfDb = -30.0f;
    }
    db->fEpcDerleDb = 1.0f;
    aec_epc_derle(db, sc);
    EXPECT_EQ(db->fEpcDerleDb, -1.0f);
    db->fEpcDerleDb = -5.0f;
    aec_epc_derle(db, sc);
    EXPECT_EQ(db->fEpcDerleDb, -6.0f);
    for (int s = 0; s < AEC_NSTRIPS; ++s) sc->atStripSc[s].fErrAdfDb = -60.0f;  // 30 dB better
    db->fEpcDerleDb = 0.0f;
    aec_epc_derle(db, sc);
    EXPECT_EQ(db->fEpcDerleDb, 30.0f);
}

TEST_F(EchoPathChange, CombinedMeasureIsMinusSixAtRest) {
    // Both evidences at -6 give -6, as do the start values after a few
    // quiet frames; at 30 and 30 the measure reaches 30.
    db->fEpcFreqDb = -6.0f;
    db->fEpcDerleDb = -4.0f;  // -2 per frame with no advantage: -6
    aec_epc_derle(db, sc);
    EXPECT_EQ(db->fEpcDb, -6.0f);
    db->fEpcFreqDb = 30.0f;
    db->fEpcDerleDb = 32.0f;
    aec_epc_derle(db, sc);
    EXPECT_EQ(db->fEpcDerleDb, 30.0f);
    EXPECT_EQ(db->fEpcDb, 36.0f * 0.027777778f * 36.0f - 6.0f);
    EXPECT_NEAR(db->fEpcDb, 30.0f, 1e-4f);  // 1/36 rounded to single precision
}

TEST_F(EchoPathChange, AdaptTimeShrinksByTenPercentWhenProductReachesTwentyOne) {
    // fEpcFreqDb 30: (30 + 6) * 0.027777778 rounds to 1, so P = fEpcDerleDb + 6.
    ASSERT_EQ(36.0f * 0.027777778f, 1.0f);
    db->fEpcFreqDb = 30.0f;
    db->fAdaptTime = 500.0f;
    db->fEpcDerleDb = 17.0f;  // -2 -> 15: P = 21 exactly
    aec_epc_derle(db, sc);
    EXPECT_EQ(db->fEpcDb, 15.0f);
    EXPECT_EQ(db->fAdaptTime, 0.9f * 500.0f);

    db->fAdaptTime = 500.0f;
    db->fEpcDerleDb = std::nextafter(17.0f, 0.0f);  // P just below 21
    aec_epc_derle(db, sc);
    EXPECT_LT(db->fEpcDb, 15.0f);
    EXPECT_EQ(db->fAdaptTime, 500.0f);
}

TEST_F(EchoPathChange, DerleIgnoresPairedStrips) {
    for (int s = 0; s < AEC_NSINGLE; ++s) {
        sc->atStripSc[s].fErrAdsDb = -30.0f;
        sc->atStripSc[s].fErrAdfDb = -33.0f;
    }
    for (int s = AEC_NSINGLE; s < AEC_NSTRIPS; ++s) {
        sc->atStripSc[s].fErrAdsDb = 0.0f;
        sc->atStripSc[s].fErrAdfDb = -90.0f;
        db->atStrip[s].fErleAvgDb = 40.0f;
    }
    aec_epc_derle(db, sc);
    // Equal weights 0.5: the mean is 3 (19 equal terms sum exactly).
    EXPECT_EQ(db->fEpcDerleDb, 0.0f - 2.0f + 1.5789474f * 3.0f);
}

}  // namespace
