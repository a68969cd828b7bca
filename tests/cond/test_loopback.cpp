// Loopback test source: the send frame rebuilt from the outgoing receive signal.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "cond/cond.h"
#include "kvaec_records.h"

namespace {

constexpr int kN = KVAEC_FRAME_SAMPLES;

void fillHistory(unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (float &v : AEC_Db.afRefAnaHist) v = u(rng);
}

// Expected frame: history elements 95..254 times 0.5623, then the output
// tilt w = x + 0.8816186 s, y = 0.4801474 w - 0.105632424 s.
void expectedFrame(float *out, float *state) {
    for (int i = 0; i < kN; ++i) out[i] = AEC_Db.afRefAnaHist[95 + i] * 0.5623f;
    for (int i = 0; i < kN; ++i) {
        const float w = out[i] + 0.8816186f * *state;
        out[i] = 0.4801474f * w - 0.105632424f * *state;
        *state = w;
    }
}

TEST(Loopback, SendFrameIsTheDelayedReceiveSignalAttenuatedAndDeEmphasised) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    fillHistory(3);
    AEC_Db.fLoopOutCorr = 0.25f;
    float state = 0.25f;
    float expect[kN];
    expectedFrame(expect, &state);
    float sin[kN];
    for (int i = 0; i < kN; ++i) sin[i] = 0.9f;  // microphone content, discarded
    aec_loopback(&AEC_Db, sin);
    for (int i = 0; i < kN; ++i) ASSERT_EQ(sin[i], expect[i]) << i;
    EXPECT_EQ(AEC_Db.fLoopOutCorr, state);
}

TEST(Loopback, ReadsExactlyElements95To254) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    // Mark the used slice with 1.0 and everything around it with huge
    // values: any read outside the slice shows up in the output.
    for (int i = 0; i < 480; ++i) AEC_Db.afRefAnaHist[i] = (i >= 95 && i <= 254) ? 1.0f : 1e6f;
    float sin[kN] = {};
    aec_loopback(&AEC_Db, sin);
    // A constant 0.5623 through the output tilt from a zero state: the
    // first sample is 0.5623 * 0.4801474, then the step response rises
    // toward 0.5623 * 3.16 (the tilt's +10 dB at DC); it never exceeds 2.
    EXPECT_EQ(sin[0], 0.5623f * 0.4801474f);
    for (int i = 0; i < kN; ++i) EXPECT_LT(sin[i], 2.0f) << i;
    // Changing an element just outside the slice changes nothing.
    float again[kN] = {};
    AEC_Db.fLoopOutCorr = 0.0f;
    AEC_Db.afRefAnaHist[94] = -5.0f;
    AEC_Db.afRefAnaHist[255] = -5.0f;
    aec_loopback(&AEC_Db, again);
    EXPECT_EQ(0, std::memcmp(sin, again, sizeof(sin)));
}

TEST(Loopback, UsesItsOwnTiltStateOnly) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    fillHistory(4);
    AEC_Db.fSinOutCorr = 0.5f;
    AEC_Db.fRinOutCorr = -0.5f;
    AEC_Db.fSinInCorr = 0.75f;
    AEC_Db.fRinInCorr = -0.75f;
    float sin[kN] = {};
    aec_loopback(&AEC_Db, sin);
    EXPECT_EQ(AEC_Db.fSinOutCorr, 0.5f);
    EXPECT_EQ(AEC_Db.fRinOutCorr, -0.5f);
    EXPECT_EQ(AEC_Db.fSinInCorr, 0.75f);
    EXPECT_EQ(AEC_Db.fRinInCorr, -0.75f);
    EXPECT_NE(AEC_Db.fLoopOutCorr, 0.0f);
    // The delay line itself is only read.
    float hist[480];
    std::memcpy(hist, AEC_Db.afRefAnaHist, sizeof(hist));
    aec_loopback(&AEC_Db, sin);
    EXPECT_EQ(0, std::memcmp(hist, AEC_Db.afRefAnaHist, sizeof(hist)));
}

TEST(Loopback, TiltStateCarriesOverToTheNextFrame) {
    std::memset(&AEC_Db, 0, sizeof(AEC_Db));
    fillHistory(5);
    float first[kN] = {};
    aec_loopback(&AEC_Db, first);
    float state = AEC_Db.fLoopOutCorr;
    fillHistory(6);
    float expect[kN];
    expectedFrame(expect, &state);
    float second[kN] = {};
    aec_loopback(&AEC_Db, second);
    for (int i = 0; i < kN; ++i) ASSERT_EQ(second[i], expect[i]) << i;
}

}  // namespace
