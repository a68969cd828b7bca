// Noise reduction: noise estimate, strip powers, frequency smoothing,
// decision-directed speech estimate, gain rule, clean-power memory and the
// application to the send frame.
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
AEC_tNrRec &nr(int s) { return AEC_Sc.atNr[s]; }

// dB to amplitude, written out here from its definition so that
// expectations do not come from the library.
float refExp(float d) {
    const float y = d * 0.16611296f;
    int k = static_cast<int>(y);
    if (y < 0.0f) k -= 1;
    const float f = y - static_cast<float>(k);
    const double p = 1.0 + static_cast<double>(f) * (0.661 + static_cast<double>(f) * 0.339);
    return static_cast<float>(std::ldexp(p, k));
}

void fillFrame(float *x, float base) {
    for (int i = 0; i < kFrameFloats; ++i)
        x[i] = base + 0.002f * static_cast<float>(i % 37) * ((i & 1) ? -1.0f : 1.0f);
}

// Noisy power of strip s as the stage defines it, from the frame and noise power.
float refNoisy(const float *x, int s, float noisePow) {
    const int first = AEC_aiBandOffStrip[s] * kBandFloats;
    const int n = AEC_aiBandsPerStrip[s] * kBandFloats;
    float p = 0.0f;
    for (int i = first; i < first + n; ++i) p += x[i] * x[i];
    return AEC_afInvBandsPerStrip[s] * 0.25f * (p + 0.25f * noisePow);
}

class NrTest : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof AEC_Sc);
    }
    void TearDown() override { aecx_init_tabs(); }
};

using NrNoise = NrTest;
using NrEnergy = NrTest;
using NrSmoothing = NrTest;
using NrEstimate = NrTest;
using NrGain = NrTest;
using NrApply = NrTest;
using NrStage = NrTest;

// ---------------------------------------------------------------- noise estimate

TEST_F(NrNoise, NoisePowerIsFloorTwoDbLowerAtZeroStrength) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) AEC_Db.atStrip[s].fErrFloorDb = -30.0f - static_cast<float>(s);
    aec_nr_nse(&AEC_Db, &AEC_Sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float f = -30.0f - static_cast<float>(s);
        EXPECT_EQ(nr(s).fNoisePow, refExp(2.0f * (f - 2.0f))) << s;
    }
    // A power: -35 dB on the level scale is about 10^(-3.5) (coarse scale, 3 %).
    EXPECT_NEAR(nr(3).fNoisePow, std::pow(10.0f, -3.5f), 0.03f * std::pow(10.0f, -3.5f));
}

TEST_F(NrNoise, StrengthRaisesNoiseLevelByUpToTwoPointSevenDb) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) AEC_Db.atStrip[s].fErrFloorDb = -40.0f;
    AEC_Db.tCfg.fNrLevelDb = 0.5f;
    aec_nr_nse(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(0).fNoisePow, refExp(2.0f * (-40.0f - 2.0f + 2.7f * 0.5f)));
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    aec_nr_nse(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(29).fNoisePow, refExp(2.0f * (-40.0f - 2.0f + 2.7f)));
}

TEST_F(NrNoise, StrengthIsLimitedToZeroAndOne) {
    AEC_Db.tCfg.fNrLevelDb = 4.0f;
    aec_nr_nse(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(5).fNoisePow, refExp(2.0f * (-33.0f - 2.0f + 2.7f)));
    AEC_Db.tCfg.fNrLevelDb = -3.0f;
    aec_nr_nse(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(5).fNoisePow, refExp(2.0f * (-33.0f - 2.0f)));
}

// ---------------------------------------------------------------- strip powers

TEST_F(NrEnergy, NoisyPowerIsPerComplexSampleAndBandPlusNoiseShare) {
    float *x = errFrame();
    for (int i = 0; i < 8; ++i) x[i] = static_cast<float>(i + 1);  // band 0: P = 204
    for (int i = 19 * kBandFloats; i < 21 * kBandFloats; ++i) x[i] = 1.0f;  // strip 19: P = 16
    for (int s = 0; s < AEC_NSTRIPS; ++s) nr(s).fNoisePow = 8.0f;
    aec_nr_nrg(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(0).fNrgNoisy, 51.5f);    // 0.25 * (204 + 2)
    EXPECT_EQ(nr(19).fNrgNoisy, 2.25f);   // 0.5 * 0.25 * (16 + 2)
    EXPECT_EQ(nr(1).fNrgNoisy, 0.5f);     // 0.25 * 2
    EXPECT_EQ(nr(29).fNrgNoisy, 0.25f);   // 0.5 * 0.25 * 2
}

TEST_F(NrEnergy, StripWithoutBandsHasOnlyTheNoiseShare) {
    float *x = errFrame();
    for (int i = 0; i < kFrameFloats; ++i) x[i] = static_cast<float>(i / kBandFloats + 1);
    for (int s = 0; s < AEC_NSTRIPS; ++s) nr(s).fNoisePow = 4.0f;
    AEC_aiBandsPerStrip[3] = 0;
    aec_nr_nrg(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(2).fNrgNoisy, 0.25f * (8.0f * 9.0f + 1.0f));
    EXPECT_EQ(nr(3).fNrgNoisy, 0.25f * 1.0f);
    // Strip 4 consumes band 3 (values 4).
    EXPECT_EQ(nr(4).fNrgNoisy, 0.25f * (8.0f * 16.0f + 1.0f));
}

// ---------------------------------------------------------------- smoothing

constexpr float kA = 5.0f / 18.0f;
constexpr float kB = 3.0f / 18.0f;
constexpr float kC = 1.0f / 18.0f;

void setNoisyPowers() {
    for (int s = 0; s < AEC_NSTRIPS; ++s) nr(s).fNrgNoisy = 1.0f + static_cast<float>(s * s) * 0.5f;
}
float e(int s) { return 1.0f + static_cast<float>(s * s) * 0.5f; }

// Kernel sum in double precision, for a rounding-tolerant check.
double kernelD(int s) {
    const double w[7] = {1, 3, 5, 0, 5, 3, 1};
    double acc = 0.0;
    for (int d = -3; d <= 3; ++d) {
        const int t = s + d;
        if (t >= 0 && t < AEC_NSTRIPS) acc += w[d + 3] / 18.0 * static_cast<double>(e(t));
    }
    return acc;
}

TEST_F(NrSmoothing, InnerStripsUseFullKernelWithoutTheStripItself) {
    setNoisyPowers();
    AEC_Db.tCfg.fNrLevelDb = 1.0f;  // c' = min(1.5, 1) = 1
    aec_nr_nrgavr(&AEC_Db, &AEC_Sc);
    for (int s = 3; s <= 25; ++s) {
        const float want = (kC * e(s - 3) + kB * e(s - 2) + kA * e(s - 1) + kA * e(s + 1) +
                            kB * e(s + 2) + kC * e(s + 3)) * 1.0f;
        EXPECT_EQ(nr(s).fNrgNbr, want) << s;
        // Single-precision sum of six terms: relative error well below 1e-6.
        EXPECT_NEAR(nr(s).fNrgNbr, kernelD(s), 1e-6 * kernelD(s)) << s;
    }
}

TEST_F(NrSmoothing, LowEdgeStripsUseTruncatedKernelsWithFixedFactors) {
    setNoisyPowers();
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    aec_nr_nrgavr(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(0).fNrgNbr, (kA * e(1) + kB * e(2) + kC * e(3)) * 1.0f * 2.0f);
    EXPECT_EQ(nr(1).fNrgNbr, (kA * e(0) + kA * e(2) + kB * e(3) + kC * e(4)) * 1.0f * 0.7777778f);
    EXPECT_EQ(nr(2).fNrgNbr,
              (kB * e(0) + kA * e(1) + kA * e(3) + kB * e(4) + kC * e(5)) * 1.0f * 0.9444444f);
    // The factors are 2, 14/18 and 17/18 of the truncated kernel sums.
    EXPECT_NEAR(nr(0).fNrgNbr, 2.0 * kernelD(0), 1e-6 * 2.0 * kernelD(0));
    EXPECT_NEAR(nr(1).fNrgNbr, 14.0 / 18.0 * kernelD(1), 1e-6 * kernelD(1));
    EXPECT_NEAR(nr(2).fNrgNbr, 17.0 / 18.0 * kernelD(2), 1e-6 * kernelD(2));
}

TEST_F(NrSmoothing, TopStripsCopyTheirOwnPowerWithoutStrengthFactor) {
    setNoisyPowers();
    AEC_Db.tCfg.fNrLevelDb = 0.0f;  // c' = 0: every smoothed strip is 0
    aec_nr_nrgavr(&AEC_Db, &AEC_Sc);
    for (int s = 0; s <= 25; ++s) EXPECT_EQ(nr(s).fNrgNbr, 0.0f) << s;
    for (int s = 26; s < AEC_NSTRIPS; ++s) EXPECT_EQ(nr(s).fNrgNbr, e(s)) << s;
}

TEST_F(NrSmoothing, StrengthFactorIsOneAndAHalfTimesLevelCappedAtOne) {
    setNoisyPowers();
    AEC_Db.tCfg.fNrLevelDb = 0.5f;  // c' = 0.75
    aec_nr_nrgavr(&AEC_Db, &AEC_Sc);
    const float k10 = kC * e(7) + kB * e(8) + kA * e(9) + kA * e(11) + kB * e(12) + kC * e(13);
    EXPECT_EQ(nr(10).fNrgNbr, k10 * 0.75f);
    EXPECT_EQ(nr(0).fNrgNbr, (kA * e(1) + kB * e(2) + kC * e(3)) * 0.75f * 2.0f);

    AEC_Db.tCfg.fNrLevelDb = 7.0f;  // c' = 1
    aec_nr_nrgavr(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(10).fNrgNbr, k10 * 1.0f);
}

TEST_F(NrSmoothing, NegativeLevelGivesNegativeNeighbourPower) {
    setNoisyPowers();
    AEC_Db.tCfg.fNrLevelDb = -1.0f;  // c' = -1.5, not floored
    aec_nr_nrgavr(&AEC_Db, &AEC_Sc);
    const float k10 = kC * e(7) + kB * e(8) + kA * e(9) + kA * e(11) + kB * e(12) + kC * e(13);
    EXPECT_EQ(nr(10).fNrgNbr, k10 * -1.5f);
    EXPECT_EQ(nr(1).fNrgNbr, (kA * e(0) + kA * e(2) + kB * e(3) + kC * e(4)) * -1.5f * 0.7777778f);
    EXPECT_EQ(nr(27).fNrgNbr, e(27));
}

// ---------------------------------------------------------------- speech estimate

TEST_F(NrEstimate, DecisionDirectedMixOfCleanMemoryAndExcessPower) {
    AEC_Db.afNrClean[4] = 100.0f;
    nr(4).fNrgNoisy = 10.0f;
    nr(4).fNrgNbr = 20.0f;  // the larger of the two counts
    nr(4).fNoisePow = 5.0f;
    AEC_Db.afNrClean[5] = 100.0f;
    nr(5).fNrgNoisy = 30.0f;  // own power larger
    nr(5).fNrgNbr = 20.0f;
    nr(5).fNoisePow = 5.0f;
    AEC_Db.afNrClean[6] = 50.0f;
    nr(6).fNrgNoisy = 3.0f;  // both below the noise: excess 0
    nr(6).fNrgNbr = -8.0f;
    nr(6).fNoisePow = 5.0f;
    aec_nr_est(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(4).fSpeechPow, 0.96f * 100.0f + 0.04f * 15.0f);
    EXPECT_EQ(nr(5).fSpeechPow, 0.96f * 100.0f + 0.04f * 25.0f);
    EXPECT_EQ(nr(6).fSpeechPow, 0.96f * 50.0f + 0.04f * 0.0f);
    EXPECT_NEAR(nr(4).fSpeechPow, 96.6f, 1e-4f);
}

// ---------------------------------------------------------------- gain rule

void setGainInputs(int s, float speech, float noise, float noisy) {
    nr(s).fSpeechPow = speech;
    nr(s).fNoisePow = noise;
    nr(s).fNrgNoisy = noisy;
}

TEST_F(NrGain, ZeroStrengthGivesUnitGainEverywhere) {
    for (int s = 0; s < AEC_NSTRIPS; ++s)
        setGainInputs(s, static_cast<float>(s), 1.0f + static_cast<float>(s % 4), 2.0f);
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) EXPECT_EQ(nr(s).fNrGain, 1.0f) << s;
}

TEST_F(NrGain, WienerRuleWithOverSubtraction) {
    AEC_Db.tCfg.fNrLevelDb = 0.5f;
    setGainInputs(7, 3.0f, 1.0f, 2.0f);
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    // W = 3 / 4, o = (1 - 0.175) * 1 / 2, g = sqrt((o + W) W).
    const float w = 3.0f / (3.0f + 1.0f);
    const float o = (1.0f - 0.35f * 0.5f) * 1.0f / 2.0f;
    EXPECT_EQ(nr(7).fNrGain, std::sqrt((o + w) * w));
    EXPECT_NEAR(nr(7).fNrGain, std::sqrt((0.4125 + 0.75) * 0.75), 1e-6);
}

TEST_F(NrGain, NoSpeechHistoryAtNoiseLevelGivesGainFloor) {
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    setGainInputs(2, 0.0f, 0.5f, 0.5f);  // S = 0 -> W = 0 -> g = 0
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(2).fNrGain, refExp(-20.0f));
    EXPECT_NEAR(nr(2).fNrGain, 0.1f, 0.003f);  // -20 dB on the coarse scale
    AEC_Db.tCfg.fNrLevelDb = 0.25f;
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(2).fNrGain, refExp(-20.0f * 0.25f));
}

TEST_F(NrGain, OverSubtractionIsCappedAtTwo) {
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    setGainInputs(3, 1.0f, 100.0f, 1.0f);  // o = 0.65 * 100 = 65 -> 2
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    const float w = 1.0f / (1.0f + 100.0f);
    EXPECT_EQ(nr(3).fNrGain, std::sqrt((2.0f + w) * w));
    EXPECT_LE(nr(3).fNrGain, std::sqrt((2.0f + w) * w));
    EXPECT_GT(nr(3).fNrGain, refExp(-20.0f));  // above the floor, so the cap shows
}

TEST_F(NrGain, GainIsCappedAtOne) {
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    setGainInputs(9, 1.0e6f, 1.0f, 1.0f);  // W ~ 1, o = 0.65: sqrt(1.65) > 1
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(9).fNrGain, 1.0f);
}

TEST_F(NrGain, StrengthAboveOneActsAsOne) {
    setGainInputs(2, 0.0f, 0.5f, 0.5f);
    setGainInputs(7, 3.0f, 1.0f, 2.0f);
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    const float g2 = nr(2).fNrGain;
    const float g7 = nr(7).fNrGain;
    AEC_Db.tCfg.fNrLevelDb = 9.0f;
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(2).fNrGain, g2);
    EXPECT_EQ(nr(7).fNrGain, g7);
    // Below zero: c = 0, unit gains.
    AEC_Db.tCfg.fNrLevelDb = -2.0f;
    aec_nr_coef(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(nr(2).fNrGain, 1.0f);
}

// ---------------------------------------------------------------- memory and application

TEST_F(NrApply, CleanPowerIsGainSquaredTimesNoisyPower) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        nr(s).fNrGain = 0.25f + 0.025f * static_cast<float>(s);
        nr(s).fNrgNoisy = 3.0f + static_cast<float>(s);
    }
    aec_nr_prior(&AEC_Db, &AEC_Sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float g = 0.25f + 0.025f * static_cast<float>(s);
        EXPECT_EQ(AEC_Db.afNrClean[s], g * g * (3.0f + static_cast<float>(s))) << s;
    }
}

TEST_F(NrApply, GainMultipliesEveryFloatOfTheStripsBands) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) nr(s).fNrGain = 0.5f + 0.0625f * static_cast<float>(s);
    fillFrame(errFrame(), 0.3f);
    std::vector<float> x0(errFrame(), errFrame() + kFrameFloats);
    aec_nr_att(&AEC_Db, &AEC_Sc);
    for (int i = 0; i < kFrameFloats; ++i) {
        const int s = AEC_aiBand2Strip[i / kBandFloats];
        EXPECT_EQ(errFrame()[i], x0[static_cast<size_t>(i)] * (0.5f + 0.0625f * static_cast<float>(s))) << i;
    }
}

// ---------------------------------------------------------------- whole stage

TEST_F(NrStage, DefaultStrengthLeavesFrameUnchangedButTracksCleanPower) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) AEC_Db.atStrip[s].fErrFloorDb = -50.0f + static_cast<float>(s % 7);
    fillFrame(errFrame(), 0.01f);
    std::vector<float> x0(errFrame(), errFrame() + kFrameFloats);
    aec_nr(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(0, std::memcmp(x0.data(), errFrame(), sizeof(float) * kFrameFloats));
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        EXPECT_EQ(nr(s).fNrGain, 1.0f) << s;
        const float noise = refExp(2.0f * (-50.0f + static_cast<float>(s % 7) - 2.0f));
        EXPECT_EQ(nr(s).fNoisePow, noise) << s;
        const float noisy = refNoisy(x0.data(), s, noise);
        EXPECT_EQ(nr(s).fNrgNoisy, noisy) << s;
        EXPECT_EQ(AEC_Db.afNrClean[s], noisy) << s;  // 1 * 1 * E
    }
}

TEST_F(NrStage, NoNoiseReductionModeSkipsEverything) {
    AEC_Db.uiFlags = KVAEC_MODE_NO_NR;
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        AEC_Db.afNrClean[s] = 3.0f;
        nr(s) = AEC_tNrRec{7.0f, 7.0f, 7.0f, 7.0f, 7.0f};
    }
    fillFrame(errFrame(), 0.01f);
    std::vector<float> x0(errFrame(), errFrame() + kFrameFloats);
    aec_nr(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(0, std::memcmp(x0.data(), errFrame(), sizeof(float) * kFrameFloats));
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        EXPECT_EQ(AEC_Db.afNrClean[s], 3.0f);
        EXPECT_EQ(nr(s).fNrgNoisy, 7.0f);
        EXPECT_EQ(nr(s).fNrGain, 7.0f);
    }
}

TEST_F(NrStage, NegativeLevelSmoothedTermNeverWinsTheMaximum) {
    AEC_Db.tCfg.fNrLevelDb = -0.5f;  // c = 0 for noise and gain, c' = -0.75
    fillFrame(errFrame(), 0.02f);
    std::vector<float> x0(errFrame(), errFrame() + kFrameFloats);
    aec_nr(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(0, std::memcmp(x0.data(), errFrame(), sizeof(float) * kFrameFloats));
    const float noise = refExp(2.0f * (-33.0f - 2.0f));
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float noisy = refNoisy(x0.data(), s, noise);
        if (s < 26) {
            EXPECT_LT(nr(s).fNrgNbr, 0.0f) << s;
        }
        const float excess = noisy - noise > 0.0f ? noisy - noise : 0.0f;
        EXPECT_EQ(nr(s).fSpeechPow, 0.96f * 0.0f + 0.04f * excess) << s;
    }
}

TEST_F(NrStage, LevelAboveOneGivesSameResultAsOne) {
    fillFrame(errFrame(), 0.02f);
    std::vector<float> x0(errFrame(), errFrame() + kFrameFloats);
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    aec_nr(&AEC_Db, &AEC_Sc);
    std::vector<float> x1(errFrame(), errFrame() + kFrameFloats);
    std::vector<float> clean1(AEC_Db.afNrClean, AEC_Db.afNrClean + AEC_NSTRIPS);

    std::memcpy(errFrame(), x0.data(), sizeof(float) * kFrameFloats);
    std::memset(AEC_Db.afNrClean, 0, sizeof AEC_Db.afNrClean);
    AEC_Db.tCfg.fNrLevelDb = 6.0f;
    aec_nr(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(0, std::memcmp(x1.data(), errFrame(), sizeof(float) * kFrameFloats));
    EXPECT_EQ(0, std::memcmp(clean1.data(), AEC_Db.afNrClean, sizeof(float) * AEC_NSTRIPS));
    // The strong setting did change the frame.
    EXPECT_NE(0, std::memcmp(x0.data(), x1.data(), sizeof(float) * kFrameFloats));
}

TEST_F(NrStage, SteadyToneStripKeepsNearUnitGainWhileQuietStripsSitAtFloor) {
    AEC_Db.tCfg.fNrLevelDb = 1.0f;
    for (int frame = 0; frame < 60; ++frame) {
        std::memset(errFrame(), 0, sizeof(float) * kFrameFloats);
        for (int i = 10 * kBandFloats; i < 11 * kBandFloats; ++i) errFrame()[i] = 0.1f;
        aec_nr(&AEC_Db, &AEC_Sc);
    }
    // Strip 10 power 0.02 against noise about 6e-4: W near 0.97, o near 0.02,
    // so the gain settles near 0.98; allow a margin for the coarse dB scale.
    EXPECT_GT(nr(10).fNrGain, 0.95f);
    EXPECT_LE(nr(10).fNrGain, 1.0f);
    // Far strips hold only the noise share: no excess, S = 0, gain at the floor.
    EXPECT_EQ(nr(25).fNrGain, refExp(-20.0f));
    EXPECT_EQ(nr(0).fNrGain, refExp(-20.0f));
    // The tone itself was attenuated by exactly that gain in the last frame.
    EXPECT_EQ(errFrame()[10 * kBandFloats], 0.1f * nr(10).fNrGain);
}

}  // namespace
