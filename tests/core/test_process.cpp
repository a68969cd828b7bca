// The frame driver: its own computations (receive peak meter, clipping
// detector and accumulator, bypass path) and the order it imposes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "adf/adf.h"
#include "core/core.h"
#include "fb/fb.h"
#include "kvaec_records.h"

// The driver's clipping accumulator: an internal function of the library
// (not exported from the shared library), reached here through the static
// library so that it can be fed hand-set expected echo levels.
namespace {

constexpr int kN = KVAEC_FRAME_SAMPLES;

// Level conversion written out independently: x + 1e-12 widened to double,
// split as m 2^e, then (3.01 e - 2.88) + 6.02 m in single precision.
float en2logRef(float x) {
    const float v = x + 1e-12f;
    int e = 0;
    const double m = std::frexp(static_cast<double>(v), &e);
    const float head = 3.01f * static_cast<float>(e) - 2.88f;
    return head + static_cast<float>(m) * 6.02f;
}

// The generator sequence: low 16 bits of seed * 31821 + 13849, signed.
int32_t lcg(int32_t s) {
    const int64_t v = static_cast<int64_t>(s) * 31821 + 13849;
    const int32_t low = static_cast<int32_t>(v & 0xFFFF);
    return low >= 32768 ? low - 65536 : low;
}

class FrameDriver : public ::testing::Test {
  protected:
    void SetUp() override { aecx_init(nullptr); }
    void run(const float *r, const float *s) {
        std::memcpy(rin, r, sizeof(rin));
        std::memcpy(sin, s, sizeof(sin));
        aecx_process(rin, sin);
    }
    void runSilent() {
        std::memset(rin, 0, sizeof(rin));
        std::memset(sin, 0, sizeof(sin));
        aecx_process(rin, sin);
    }
    // One frame with the given send samples and a silent receive path;
    // returns the clipping step the driver left in the scratch record.
    float clipStepFor(const float *s) {
        const float zero[kN] = {};
        run(zero, s);
        return AEC_Sc.fClipStepDb;
    }
    float rin[kN];
    float sin[kN];
};

// ---- receive peak meter ----

TEST_F(FrameDriver, PeakMeterAttacksAtOnce) {
    AEC_Db.fRinPeakDb = -60.0f;
    float r[kN] = {};
    const float s[kN] = {};
    r[77] = -0.5f;  // the largest square decides, whatever the sign
    r[10] = 0.25f;
    run(r, s);
    EXPECT_EQ(AEC_Db.fRinPeakDb, en2logRef(0.25f));
    // A louder frame replaces the level at once.
    r[3] = 0.9f;
    run(r, s);
    EXPECT_EQ(AEC_Db.fRinPeakDb, en2logRef(0.9f * 0.9f));
}

TEST_F(FrameDriver, PeakMeterReleasesThreePercentPerFrameDownToMinus80) {
    float r[kN] = {};
    const float s[kN] = {};
    r[0] = 1.0f;
    for (int i = 0; i < 3; ++i) run(r, s);
    float level = AEC_Db.fRinPeakDb;
    ASSERT_EQ(level, en2logRef(1.0f));
    const float silent = en2logRef(0.0f);  // about -116.96
    bool reachedFloor = false;
    for (int fr = 0; fr < 200; ++fr) {
        runSilent();
        float expect = level + (silent - level) * 0.03f;
        if (expect < -80.0f) expect = -80.0f;
        ASSERT_EQ(AEC_Db.fRinPeakDb, expect) << "frame " << fr;
        ASSERT_GE(AEC_Db.fRinPeakDb, -80.0f);
        level = expect;
        reachedFloor = reachedFloor || level == -80.0f;
    }
    EXPECT_TRUE(reachedFloor);
}

TEST_F(FrameDriver, PeakMeterFloorAppliesOnlyOnRelease) {
    // From a level below the silent frame's level the meter attacks, and
    // the attack has no floor.
    AEC_Db.fRinPeakDb = -200.0f;
    runSilent();
    EXPECT_EQ(AEC_Db.fRinPeakDb, en2logRef(0.0f));
    EXPECT_LT(AEC_Db.fRinPeakDb, -80.0f);
    // The next silent frame equals the level: release branch, floor.
    runSilent();
    EXPECT_EQ(AEC_Db.fRinPeakDb, -80.0f);
}

TEST_F(FrameDriver, PeakMeterStartsAtZeroAfterInitAndReleasesTowardsTheLevel) {
    EXPECT_EQ(AEC_Db.fRinPeakDb, 0.0f);
    float r[kN];
    const float s[kN] = {};
    for (int i = 0; i < kN; ++i) r[i] = (i % 2) ? 0.01f : -0.01f;
    run(r, s);
    const float l = en2logRef(0.01f * 0.01f);
    EXPECT_EQ(AEC_Db.fRinPeakDb, 0.0f + (l - 0.0f) * 0.03f);
}

// ---- clipping detector ----

TEST_F(FrameDriver, ClipStepMinusSixWithoutClipping) {
    float s[kN];
    for (int i = 0; i < kN; ++i) s[i] = 0.5f * std::sin(0.1f * static_cast<float>(i));
    EXPECT_EQ(clipStepFor(s), -6.0f);
}

TEST_F(FrameDriver, ClipStepZeroForExactlyOneSampleAt096) {
    float s[kN] = {};
    s[42] = 0.96f;
    EXPECT_EQ(clipStepFor(s), 0.0f);
}

TEST_F(FrameDriver, ClipStepSixForTwoClippedSamplesOfEitherSign) {
    float s[kN] = {};
    s[1] = 0.96f;
    s[100] = 0.97f;
    EXPECT_EQ(clipStepFor(s), 6.0f);
    float t[kN] = {};
    t[5] = -0.96f;
    t[6] = -1.0f;
    EXPECT_EQ(clipStepFor(t), 6.0f);
    float u[kN] = {};
    u[5] = -0.96f;
    u[159] = 0.96f;
    EXPECT_EQ(clipStepFor(u), 6.0f);
}

TEST_F(FrameDriver, ClipStepSaturatesAtThirtyFromSixSamples) {
    float s[kN] = {};
    for (int i = 0; i < 5; ++i) s[i * 30] = 1.0f;
    EXPECT_EQ(clipStepFor(s), 24.0f);
    s[151] = -1.0f;
    EXPECT_EQ(clipStepFor(s), 30.0f);
    float all[kN];
    for (int i = 0; i < kN; ++i) all[i] = (i & 1) ? 0.99f : -0.99f;
    EXPECT_EQ(clipStepFor(all), 30.0f);
}

TEST_F(FrameDriver, ClipStepCountsNothingAtExactlyPlusMinus095) {
    float s[kN];
    for (int i = 0; i < kN; ++i) s[i] = (i & 1) ? 0.95f : -0.95f;
    EXPECT_EQ(clipStepFor(s), -6.0f);
    // The next float beyond either bound counts.
    float t[kN];
    for (int i = 0; i < kN; ++i) t[i] = (i & 1) ? 0.95f : -0.95f;
    t[0] = std::nextafter(-0.95f, -1.0f);
    t[1] = std::nextafter(0.95f, 1.0f);
    EXPECT_EQ(clipStepFor(t), 6.0f);
}

TEST_F(FrameDriver, ClipStepCountsNaNAsClipped) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    float s[kN] = {};
    s[7] = nan;
    EXPECT_EQ(clipStepFor(s), 0.0f);
    aecx_init(nullptr);  // the NaN has entered the states; start afresh
    float t[kN] = {};
    t[7] = nan;
    t[8] = nan;
    EXPECT_EQ(clipStepFor(t), 6.0f);
}

TEST_F(FrameDriver, ClipStepLooksAtTheFrameBeforeTheHighPass) {
    // The high-pass (gain 0.896 first) would bring both samples below 0.95:
    // they count only because the detector runs before it.
    float s[kN] = {};
    s[0] = 0.96f;
    s[1] = 0.96f;
    EXPECT_EQ(clipStepFor(s), 6.0f);
}

// ---- clipping accumulator ----

TEST(ClipAccumulator, LowExpectedEchoLimitsTheReliefToMinusTwelve) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    AEC_Db.fClipDb = 30.0f;
    AEC_Sc.fExpLevelDb = -30.0f;
    AEC_Sc.fClipStepDb = -6.0f;
    // s = max(-30 - 6 + 12, -12) = -12: 30 -> 18 -> 6 -> -6.
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 18.0f);
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 6.0f);
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, -6.0f);
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, -6.0f);
}

TEST(ClipAccumulator, ReliefTermAddsExpectedLevelPlusTwelve) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    // -15 + 30 + 12 = 27.
    AEC_Sc.fExpLevelDb = -15.0f;
    AEC_Sc.fClipStepDb = 30.0f;
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 27.0f);
    // Left to right: (level + step) + 12.
    AEC_Db.fClipDb = 0.0f;
    AEC_Sc.fExpLevelDb = -13.1f;
    AEC_Sc.fClipStepDb = 6.0f;
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 0.0f + ((-13.1f + 6.0f) + 12.0f));
}

TEST(ClipAccumulator, NoReliefAtMinusTwelveExactly) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    AEC_Sc.fExpLevelDb = -12.0f;
    AEC_Sc.fClipStepDb = 6.0f;
    AEC_Db.fClipDb = 1.0f;
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 7.0f);
    // Just below -12 the relief applies: -12.5 + 6 + 12 = 5.5.
    AEC_Sc.fExpLevelDb = -12.5f;
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 12.5f);
}

TEST(ClipAccumulator, StaysWithinMinusSixAndThirty) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    AEC_Sc.fClipStepDb = 30.0f;
    AEC_Db.fClipDb = 20.0f;
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 30.0f);
    AEC_Sc.fClipStepDb = -6.0f;
    AEC_Db.fClipDb = -3.0f;
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, -6.0f);
    // Inside the range the sum is kept as it is.
    AEC_Db.fClipDb = 10.0f;
    kvaec::clipAccumulate(&AEC_Db, &AEC_Sc);
    EXPECT_EQ(AEC_Db.fClipDb, 4.0f);
}

TEST_F(FrameDriver, AccumulatorConsumesTheFramesStepAndExpectedLevel) {
    // Whatever the echo predictor leaves in the scratch record, the
    // accumulator follows its rule from the values of the same frame.
    AEC_Db.fClipDb = 30.0f;
    float s[kN] = {};
    const float r[kN] = {};
    for (int fr = 0; fr < 6; ++fr) {
        if (fr % 2) s[fr] = 0.99f;  // more clipped samples every other frame
        const float before = AEC_Db.fClipDb;
        run(r, s);
        const float lvl = AEC_Sc.fExpLevelDb;
        const float step = AEC_Sc.fClipStepDb;
        float inc = step;
        if (lvl < -12.0f) {
            inc = lvl + step + 12.0f;
            if (inc < -12.0f) inc = -12.0f;
        }
        float expect = before + inc;
        if (expect > 30.0f) expect = 30.0f;
        if (expect < -6.0f) expect = -6.0f;
        EXPECT_EQ(AEC_Db.fClipDb, expect) << "frame " << fr;
    }
}

// ---- guard words and scratch ----

TEST_F(FrameDriver, NormalFrameWritesTheGuardWords) {
    AEC_Sc.uiGuardLo = 0;
    AEC_Sc.uiGuardHi = 0;
    AEC_Sc.uiSpare = 0xCAFEBABEu;
    runSilent();
    EXPECT_EQ(AEC_Sc.uiGuardLo, 0x12345678u);
    EXPECT_EQ(AEC_Sc.uiGuardHi, 0x87654321u);
    // The word after the high guard is not part of the cleared scratch.
    EXPECT_EQ(AEC_Sc.uiSpare, 0xCAFEBABEu);
}

TEST_F(FrameDriver, BypassFrameKeepsTheGuardWordsAndDoesNotClearTheScratch) {
    AEC_Db.uiFlags = KVAEC_MODE_BYPASS;
    AEC_Sc.uiGuardLo = 0x11111111u;
    AEC_Sc.uiGuardHi = 0x22222222u;
    AEC_Sc.fClipStepDb = 123.0f;
    AEC_Sc.fExpLevelDb = -77.0f;
    runSilent();
    EXPECT_EQ(AEC_Sc.uiGuardLo, 0x11111111u);
    EXPECT_EQ(AEC_Sc.uiGuardHi, 0x22222222u);
    EXPECT_EQ(AEC_Sc.fClipStepDb, 123.0f);
    EXPECT_EQ(AEC_Sc.fExpLevelDb, -77.0f);
    // Switching bypass off takes effect at the next frame.
    AEC_Db.uiFlags = 0;
    runSilent();
    EXPECT_EQ(AEC_Sc.uiGuardLo, 0x12345678u);
    EXPECT_EQ(AEC_Sc.uiGuardHi, 0x87654321u);
    EXPECT_EQ(AEC_Sc.fClipStepDb, -6.0f);
}

// ---- bypass path ----

TEST_F(FrameDriver, BypassSkipsMeterClippingAndHighPass) {
    AEC_Db.uiFlags = KVAEC_MODE_BYPASS;
    AEC_Db.fRinPeakDb = -50.0f;
    AEC_Db.fClipDb = 7.0f;
    float r[kN], s[kN];
    for (int i = 0; i < kN; ++i) r[i] = s[i] = (i & 1) ? 0.99f : -0.99f;
    run(r, s);
    EXPECT_EQ(AEC_Db.fRinPeakDb, -50.0f);
    EXPECT_EQ(AEC_Db.fClipDb, 7.0f);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(AEC_Db.afHpState[k][0], 0.0f);
        EXPECT_EQ(AEC_Db.afHpState[k][1], 0.0f);
    }
    // The input corrections of both paths ran.
    EXPECT_NE(AEC_Db.fSinInCorr, 0.0f);
    EXPECT_NE(AEC_Db.fRinInCorr, 0.0f);
    // A normal frame runs the high-pass.
    AEC_Db.uiFlags = 0;
    run(r, s);
    EXPECT_NE(AEC_Db.afHpState[0][0], 0.0f);
}

TEST_F(FrameDriver, NoHighPassModeSkipsOnlyTheHighPass) {
    AEC_Db.uiFlags = KVAEC_MODE_NO_HIPASS;
    float r[kN] = {}, s[kN];
    for (int i = 0; i < kN; ++i) s[i] = 0.3f;
    run(r, s);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(AEC_Db.afHpState[k][0], 0.0f);
        EXPECT_EQ(AEC_Db.afHpState[k][1], 0.0f);
    }
    EXPECT_NE(AEC_Db.fSinInCorr, 0.0f);
}

TEST_F(FrameDriver, BypassDitherAdvancesTheGeneratorOncePerSampleOfBothPaths) {
    AEC_Db.uiFlags = KVAEC_MODE_BYPASS;
    AEC_Db.uiNoiseSeed = static_cast<uint32_t>(-7700);
    int32_t s = -7700;
    for (int fr = 0; fr < 3; ++fr) {
        runSilent();
        for (int i = 0; i < 2 * kN; ++i) s = lcg(s);
        EXPECT_EQ(AEC_Db.uiNoiseSeed, static_cast<uint32_t>(s)) << "frame " << fr;
    }
}

// ---- adaptation progress gate of the coefficient ERL update ----

TEST_F(FrameDriver, CoefficientErlUpdateNotRunAtAdaptTimeExactlySixty) {
    for (int fr = 0; fr < 3; ++fr) {
        AEC_Db.fAdaptTime = 60.0f;
        runSilent();
        EXPECT_EQ(AEC_Db.iErlStrip, 1) << "frame " << fr;
    }
}

TEST_F(FrameDriver, CoefficientErlUpdateRunsAboveSixty) {
    AEC_Db.fAdaptTime = std::nextafter(60.0f, 100.0f);
    runSilent();
    EXPECT_EQ(AEC_Db.iErlStrip, 2);
}

TEST_F(FrameDriver, CoefficientErlUpdateNotRunInBypass) {
    AEC_Db.uiFlags = KVAEC_MODE_BYPASS;
    AEC_Db.fAdaptTime = 500.0f;
    runSilent();
    EXPECT_EQ(AEC_Db.iErlStrip, 1);
}

// ---- loopback ----

TEST_F(FrameDriver, LoopbackOutputDoesNotDependOnTheMicrophone) {
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> u(-0.5f, 0.5f);
    for (float &v : AEC_Db.afRefAnaHist) v = u(rng);
    const AEC_tDb saved = AEC_Db;
    const std::vector<float> ref0(AEC_afRef, AEC_afRef + AEC_REF_FLOATS);
    const std::vector<float> adf0(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS);
    const std::vector<float> ads0(AEC_afAds, AEC_afAds + AEC_ADF_FLOATS);
    float r[kN], s1[kN], s2[kN];
    for (int i = 0; i < kN; ++i) {
        r[i] = u(rng);
        s1[i] = u(rng);
        s2[i] = u(rng);
    }
    auto outputFor = [&](uint32_t flags, const float *mic, std::vector<float> &out) {
        AEC_Db = saved;
        AEC_Db.uiFlags = flags;
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
        std::copy(ref0.begin(), ref0.end(), AEC_afRef);
        std::copy(adf0.begin(), adf0.end(), AEC_afAdf);
        std::copy(ads0.begin(), ads0.end(), AEC_afAds);
        run(r, mic);
        out.assign(sin, sin + kN);
    };
    std::vector<float> a, b, c, d;
    outputFor(KVAEC_MODE_LOOPBACK, s1, a);
    const float loopState = AEC_Db.fLoopOutCorr;
    outputFor(KVAEC_MODE_LOOPBACK, s2, b);
    EXPECT_EQ(a, b);
    EXPECT_NE(loopState, 0.0f);
    // Without loopback the microphone decides the output.
    outputFor(0, s1, c);
    EXPECT_EQ(AEC_Db.fLoopOutCorr, 0.0f);
    outputFor(0, s2, d);
    EXPECT_NE(c, d);
}

TEST_F(FrameDriver, LoopbackReplacesTheMicrophoneBeforeTheClippingDetector) {
    // Quiet receive history, clipped microphone: the detector sees the
    // loopback frame, not the microphone.
    for (int i = 0; i < 480; ++i) AEC_Db.afRefAnaHist[i] = 0.1f;
    float s[kN], r[kN] = {};
    for (int i = 0; i < kN; ++i) s[i] = 1.0f;
    AEC_Db.uiFlags = KVAEC_MODE_LOOPBACK;
    run(r, s);
    EXPECT_EQ(AEC_Sc.fClipStepDb, -6.0f);
    aecx_init(nullptr);
    run(r, s);
    EXPECT_EQ(AEC_Sc.fClipStepDb, 30.0f);
}

// ---- tests that need the filter-bank windows ----

// Runs bypass frames of random signal on both paths and returns the worst
// deviation of each output from its input delayed by dS (send) and dR
// (receive) samples.
void bypassDelayError(int dS, int dR, double *worstS, double *worstR) {
    aecx_init(nullptr);
    AEC_Db.uiFlags = KVAEC_MODE_BYPASS;
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> u(-0.5f, 0.5f);
    const int frames = 5;
    std::vector<float> inS(frames * kN), inR(frames * kN), outS, outR;
    for (int i = 0; i < frames * kN; ++i) {
        inS[i] = u(rng);
        inR[i] = u(rng);
    }
    float r[kN], s[kN];
    for (int fr = 0; fr < frames; ++fr) {
        std::memcpy(r, &inR[fr * kN], sizeof(r));
        std::memcpy(s, &inS[fr * kN], sizeof(s));
        aecx_process(r, s);
        outS.insert(outS.end(), s, s + kN);
        outR.insert(outR.end(), r, r + kN);
    }
    *worstS = *worstR = 0.0;
    for (int n = 0; n < frames * kN; ++n) {
        const double es = n >= dS ? inS[n - dS] : 0.0;
        const double er = n >= dR ? inR[n - dR] : 0.0;
        *worstS = std::fmax(*worstS, std::fabs(outS[n] - es));
        *worstR = std::fmax(*worstR, std::fabs(outR[n] - er));
    }
}

// Perfect reconstruction to single-precision rounding, through the tilt
// pair (gain up to 3.2 and its inverse) and both windows: errors of a few
// 1e-6 for signals of 0.5; the dither adds at most 1e-12.
TEST_F(FrameDriver, BypassSendPathIsAPureDelayOf120Samples) {
    double ws, wr;
    bypassDelayError(120, 40, &ws, &wr);
    std::printf("measured: bypass send path worst deviation from a 120-sample delay %.3g\n", ws);
    EXPECT_LT(ws, 2e-5);
    // A different delay does not fit.
    bypassDelayError(119, 40, &ws, &wr);
    EXPECT_GT(ws, 0.1);
}

TEST_F(FrameDriver, BypassReceivePathIsAPureDelayOf40Samples) {
    double ws, wr;
    bypassDelayError(120, 40, &ws, &wr);
    std::printf("measured: bypass receive path worst deviation from a 40-sample delay %.3g\n", wr);
    EXPECT_LT(wr, 2e-5);
    bypassDelayError(120, 41, &ws, &wr);
    EXPECT_GT(wr, 0.1);
}

TEST_F(FrameDriver, BypassDitherGoesToTheSendThenTheReceiveFrame) {
    AEC_Db.uiFlags = KVAEC_MODE_BYPASS;
    // Silent inputs: the outputs are the dither, delayed by each path.
    const float scale = 1e-12f * 3.0517578e-5f;
    int32_t seed = 0;
    std::vector<float> ditherS, ditherR, outS, outR;
    for (int fr = 0; fr < 3; ++fr) {
        for (int i = 0; i < kN; ++i) ditherS.push_back(static_cast<float>(seed = lcg(seed)) * scale);
        for (int i = 0; i < kN; ++i) ditherR.push_back(static_cast<float>(seed = lcg(seed)) * scale);
        runSilent();
        outS.insert(outS.end(), sin, sin + kN);
        outR.insert(outR.end(), rin, rin + kN);
    }
    // Reconstruction error relative to the signal (about 1e-5 of the 1e-12
    // peak), far below the dither values themselves.
    for (int n = 120; n < 3 * kN; ++n) ASSERT_NEAR(outS[n], ditherS[n - 120], 2e-17) << n;
    for (int n = 40; n < 3 * kN; ++n) ASSERT_NEAR(outR[n], ditherR[n - 40], 2e-17) << n;
}

// Sum over all rows of |value|^2 at each history position (0..54).
std::vector<double> historyEnergy() {
    std::vector<double> e(55, 0.0);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int len = AEC_aiRefSzStrip[s];
        for (int j = 0; j < AEC_aiBandsPerStrip[s]; ++j) {
            const float *row = AEC_afRef + 2 * (AEC_aiRefOffStrip[s] + j * len);
            for (int p = 0; p < len; ++p) e[p] += double(row[2 * p]) * row[2 * p] + double(row[2 * p + 1]) * row[2 * p + 1];
        }
    }
    return e;
}

TEST_F(FrameDriver, ReferenceHistoryShowsAnImpulseNewestFirstAndAgesItFourPerFrame) {
    AEC_Db.uiFlags = KVAEC_MODE_BYPASS;
    float r[kN] = {};
    const float s[kN] = {};
    r[0] = 1.0f;
    run(r, s);
    std::vector<float> prev(AEC_afRef, AEC_afRef + AEC_REF_FLOATS);
    std::vector<double> e = historyEnergy();
    // After the first frame the impulse is in positions 0..3 only: the
    // history is shifted before the new frame is analysed into it.
    double early = 0.0, late = 0.0;
    for (int p = 0; p < 4; ++p) early += e[p];
    for (int p = 4; p < 55; ++p) late += e[p];
    EXPECT_GT(early, 1e-8);
    EXPECT_EQ(late, 0.0);
    double peak = early;
    // The impulse keeps entering the newest slots while it crosses the
    // 480-sample reference window (three more frames), then needs 14 frames
    // to travel through the 55 positions of the longest rows.
    for (int fr = 1; fr < 20; ++fr) {
        runSilent();
        // Every row moved by exactly four positions.
        for (int st = 0; st < AEC_NSTRIPS; ++st) {
            const int len = AEC_aiRefSzStrip[st];
            for (int j = 0; j < AEC_aiBandsPerStrip[st]; ++j) {
                const int row = 2 * (AEC_aiRefOffStrip[st] + j * len);
                for (int k = 8; k < 2 * len; ++k) ASSERT_EQ(AEC_afRef[row + k], prev[row + k - 8]) << "frame " << fr << " strip " << st;
            }
        }
        prev.assign(AEC_afRef, AEC_afRef + AEC_REF_FLOATS);
        e = historyEnergy();
        double total = 0.0;
        for (double v : e) total += v;
        peak = std::fmax(peak, total);
    }
    // After 20 frames the impulse has dropped out of every row; what remains
    // is the dither (peak 1e-12) and rounding.
    double total = 0.0;
    for (double v : historyEnergy()) total += v;
    EXPECT_LT(total, peak * 1e-12);
}

}  // namespace
