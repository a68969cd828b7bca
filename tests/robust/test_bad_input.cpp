// Bad input, end to end: what the canceller does with input a real terminal
// can produce (a corrupt frame, a stuck or clipping microphone, a nearly
// silent or suddenly loud far end, a host that changes the mode word every
// frame or resets in the middle of a conversation).
//
// The library's contract for such input: it never crashes and never writes
// outside its records; non-finite input is not filtered but enters the state,
// where aecx_bist() finds it; a reset through aecx_control followed by finite
// input brings back a sound state with finite outputs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "closed_loop.h"
#include "kvaec.h"
#include "kvaec_records.h"

namespace {

using kvaec::sim::ClosedLoop;
using kvaec::sim::kFrame;
using kvaec::sim::SpeechLike;
using kvaec::sim::WhiteNoise;

constexpr int kFps = 100;

bool allFinite(const float *x, int n) {
    for (int i = 0; i < n; ++i)
        if (!std::isfinite(x[i])) return false;
    return true;
}

double energy(const float *x, int n) {
    double e = 0;
    for (int i = 0; i < n; ++i) e += static_cast<double>(x[i]) * x[i];
    return e;
}

void freshStart(unsigned mode = 0) {
    std::memset(&AEC_Sc, 0, sizeof AEC_Sc);
    aecx_init(nullptr);
    aecx_control(mode, nullptr, 0.0f);
}

// A running conversation: far-end talk through an echo path, near-end talk
// and room noise, `seconds` long. Returns false if an output was non-finite.
struct Talk {
    ClosedLoop loop{kvaec::sim::makeEchoPath(5, 2.0, 50.0, 8.0)};
    SpeechLike far{21, -22.0};
    SpeechLike near{22, -28.0};
    WhiteNoise noise{23, -70.0};
    bool run(int frames, bool withNear = true) {
        float f[kFrame], n[kFrame], nn[kFrame], out[kFrame], played[kFrame];
        bool finite = true;
        for (int i = 0; i < frames; ++i) {
            far.fill(f, kFrame);
            near.fill(n, kFrame);
            noise.fill(nn, kFrame);
            for (int k = 0; k < kFrame; ++k) n[k] = (withNear ? n[k] : 0.0f) + nn[k];
            loop.step(f, n, out, played);
            finite = finite && allFinite(out, kFrame) && allFinite(played, kFrame);
        }
        return finite;
    }
};

// Runs `frames` frames of moderate finite noise on both paths directly.
bool finiteFrames(int frames, uint32_t seed = 9) {
    WhiteNoise a(seed, -30.0), b(seed + 1, -40.0);
    float rin[kFrame], sin[kFrame];
    bool finite = true;
    for (int i = 0; i < frames; ++i) {
        a.fill(rin, kFrame);
        b.fill(sin, kFrame);
        aecx_process(rin, sin);
        finite = finite && allFinite(rin, kFrame) && allFinite(sin, kFrame);
    }
    return finite;
}

enum class Path { Receive, Send };

// One frame of `value` on one path while the other carries ordinary noise.
void badFrame(Path p, float value) {
    WhiteNoise other(77, -30.0);
    float rin[kFrame], sin[kFrame];
    other.fill(p == Path::Receive ? sin : rin, kFrame);
    float *bad = p == Path::Receive ? rin : sin;
    for (int k = 0; k < kFrame; ++k) bad[k] = value;
    aecx_process(rin, sin);
}

void expectNonFiniteFrameIsKeptUntilReset(Path p, float value) {
    freshStart();
    Talk talk;
    ASSERT_TRUE(talk.run(3 * kFps));
    ASSERT_EQ(aecx_bist(), 0);
    badFrame(p, value);
    EXPECT_GT(aecx_bist(), 0) << "the non-finite frame entered the state";
    // Not filtered and not repaired by later finite frames.
    finiteFrames(2 * kFps);
    EXPECT_GT(aecx_bist(), 0) << "the state stays non-finite until the host resets";
    // The host's remedy: reset (configuration and mode bits kept by passing them).
    aecx_control(KVAEC_CMD_RESET, nullptr, 0.0f);
    EXPECT_TRUE(finiteFrames(kFps)) << "outputs after a reset and finite input";
    EXPECT_EQ(aecx_bist(), 0);
}

TEST(BadInput, NanFrameOnReceivePathIsFoundByBistAndClearedByReset) {
    expectNonFiniteFrameIsKeptUntilReset(Path::Receive, std::numeric_limits<float>::quiet_NaN());
}

TEST(BadInput, NanFrameOnSendPathIsFoundByBistAndClearedByReset) {
    expectNonFiniteFrameIsKeptUntilReset(Path::Send, std::numeric_limits<float>::quiet_NaN());
}

TEST(BadInput, InfiniteFrameOnEitherPathIsFoundByBistAndClearedByReset) {
    expectNonFiniteFrameIsKeptUntilReset(Path::Receive, std::numeric_limits<float>::infinity());
    expectNonFiniteFrameIsKeptUntilReset(Path::Send, -std::numeric_limits<float>::infinity());
}

TEST(BadInput, HugeReceiveFrameOverflowsThePeakMeterAndResetRecovers) {
    // 3e38 is finite, but its square is not: the receive peak meter's level
    // becomes infinite at once (instant attack), and the self-test reports it.
    freshStart();
    ASSERT_TRUE(finiteFrames(50));
    badFrame(Path::Receive, 3.0e38f);
    EXPECT_FALSE(std::isfinite(AEC_Db.fRinPeakDb));
    EXPECT_GT(aecx_bist(), 0);
    aecx_control(KVAEC_CMD_RESET, nullptr, 0.0f);
    EXPECT_TRUE(finiteFrames(kFps));
    EXPECT_EQ(aecx_bist(), 0);
}

TEST(BadInput, HugeSendFrameCountsAsClippedAndResetRecovers) {
    // 160 samples far above full scale: the frame's clipping step is the
    // maximum, 30 dB. What the overflow does further down the send path is
    // not promised; a reset always brings the state back.
    freshStart();
    ASSERT_TRUE(finiteFrames(50));
    badFrame(Path::Send, -3.0e38f);
    EXPECT_EQ(AEC_Sc.fClipStepDb, 30.0f);
    aecx_control(KVAEC_CMD_RESET, nullptr, 0.0f);
    EXPECT_TRUE(finiteFrames(kFps));
    EXPECT_EQ(aecx_bist(), 0);
}

TEST(BadInput, StuckDcMicrophoneIsRemovedBySendHighPass) {
    // A microphone stuck at +0.5 (a DC offset of -6 dBFS) while the far end
    // talks: the send high-pass has a zero at DC, so after it settles the
    // send output carries far less than the stuck level.
    freshStart();
    SpeechLike far(31, -22.0);
    float rin[kFrame], sin[kFrame];
    double outLast = 0, inLast = 0;
    bool finite = true;
    for (int i = 0; i < 10 * kFps; ++i) {
        far.fill(rin, kFrame);
        for (int k = 0; k < kFrame; ++k) sin[k] = 0.5f;
        if (i >= 9 * kFps) inLast += energy(sin, kFrame);
        aecx_process(rin, sin);
        finite = finite && allFinite(rin, kFrame) && allFinite(sin, kFrame);
        if (i >= 9 * kFps) outLast += energy(sin, kFrame);
    }
    EXPECT_TRUE(finite);
    EXPECT_EQ(aecx_bist(), 0);
    // At least 40 dB below the stuck level over the last second.
    EXPECT_LT(outLast, inLast * 1e-4) << "send output/input energy " << outLast / inLast;
}

TEST(BadInput, FullScaleClippingSaturatesTheClipStepAndStaysSound) {
    // A microphone driven into hard clipping: a square wave at +-1.0. Every
    // normal frame has 160 clipped samples, so its clipping step is 30 dB, and
    // the accumulator never leaves [-6, 30].
    freshStart();
    SpeechLike far(41, -6.0);
    float rin[kFrame], sin[kFrame];
    bool finite = true;
    for (int i = 0; i < 5 * kFps; ++i) {
        far.fill(rin, kFrame);
        for (int k = 0; k < kFrame; ++k) sin[k] = ((i * kFrame + k) / 40) % 2 ? -1.0f : 1.0f;
        aecx_process(rin, sin);
        finite = finite && allFinite(rin, kFrame) && allFinite(sin, kFrame);
        ASSERT_EQ(AEC_Sc.fClipStepDb, 30.0f) << "frame " << i;
        ASSERT_GE(AEC_Db.fClipDb, -6.0f) << "frame " << i;
        ASSERT_LE(AEC_Db.fClipDb, 30.0f) << "frame " << i;
    }
    EXPECT_TRUE(finite);
    EXPECT_EQ(aecx_bist(), 0);
}

TEST(BadInput, FarEndAtMinus100DbfsKeepsStateSoundAndPeakMeterAtItsFloor) {
    // A far end 100 dB below full scale (close to the float noise of a real
    // converter): levels stay finite, and the receive peak meter, released
    // towards about -97 dB, rests on its floor of -80 dB.
    freshStart();
    ClosedLoop loop(kvaec::sim::makeEchoPath(6, 2.0, 50.0, 8.0));
    WhiteNoise far(51, -100.0), noise(52, -110.0);
    float f[kFrame], n[kFrame], out[kFrame], played[kFrame];
    bool finite = true;
    for (int i = 0; i < 10 * kFps; ++i) {
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        loop.step(f, n, out, played);
        finite = finite && allFinite(out, kFrame) && allFinite(played, kFrame);
    }
    EXPECT_TRUE(finite);
    EXPECT_EQ(aecx_bist(), 0);
    EXPECT_EQ(AEC_Db.fRinPeakDb, -80.0f);
}

TEST(BadInput, Sudden40DbStepOfTheFarEndTakesThePeakMeterAtOnceAndAddsNoEnergy) {
    // The far end jumps from -50 to -10 dBFS between two frames. The peak
    // meter follows within the same frame (instant attack), and the canceller
    // adds no energy: over the two seconds after the step the send output
    // carries no more than the microphone does.
    freshStart();
    ClosedLoop loop(kvaec::sim::makeEchoPath(7, 2.0, 50.0, 6.0));
    SpeechLike quiet(61, -50.0, false), loud(61, -10.0, false);
    WhiteNoise noise(62, -70.0);
    float f[kFrame], n[kFrame], out[kFrame], played[kFrame];
    bool finite = true;
    for (int i = 0; i < 5 * kFps; ++i) {
        quiet.fill(f, kFrame);
        loud.fill(n, kFrame);  // keeps both sources in step
        noise.fill(n, kFrame);
        loop.step(f, n, out, played);
        finite = finite && allFinite(out, kFrame);
    }
    const float before = AEC_Db.fRinPeakDb;
    double mic = 0, sent = 0;
    for (int i = 0; i < 2 * kFps; ++i) {
        quiet.fill(n, kFrame);
        loud.fill(f, kFrame);
        noise.fill(n, kFrame);
        loop.step(f, n, out, played);
        if (i == 0) {
            // A release would move it by 3% of the distance (about 1 dB); the
            // first loud frame's own peak is about 28 dB above the old level.
            EXPECT_GT(AEC_Db.fRinPeakDb, before + 20.0f) << "attack within the first loud frame";
        }
        finite = finite && allFinite(out, kFrame) && allFinite(played, kFrame);
        mic += std::pow(10.0, loop.history().back().micDb / 10.0);
        sent += std::pow(10.0, loop.history().back().outDb / 10.0);
    }
    EXPECT_TRUE(finite);
    EXPECT_EQ(aecx_bist(), 0);
    EXPECT_LE(sent, mic) << "send output energy exceeds the microphone's after the step";
}

TEST(BadInput, ModeWordChangingEveryFrameKeepsStateSoundAndGuardsIntact) {
    // The host rewrites the mode word before every frame, walking through
    // every combination of the seven mode bits plus bits that mean nothing.
    freshStart();
    Talk talk;
    const unsigned bits[] = {KVAEC_MODE_BYPASS, KVAEC_MODE_FREEZE,  KVAEC_MODE_SEND_ONLY_LOSS, KVAEC_MODE_NO_NLP,
                             KVAEC_MODE_NO_NR,  KVAEC_MODE_NO_HIPASS, KVAEC_MODE_LOOPBACK};
    bool finite = true;
    for (unsigned i = 0; i < 2000; ++i) {
        const unsigned combo = (i * 37u) % 128u;
        unsigned mode = (i % 3 == 0) ? 0x80000880u : 0u;  // meaningless bits, stored and ignored
        for (int b = 0; b < 7; ++b)
            if (combo & (1u << b)) mode |= bits[b];
        aecx_control(mode, nullptr, 0.0f);
        ASSERT_EQ(AEC_Db.uiFlags, mode);
        const uint32_t lo = AEC_Sc.uiGuardLo, hi = AEC_Sc.uiGuardHi;
        finite = talk.run(1) && finite;
        if (mode & KVAEC_MODE_BYPASS) {
            ASSERT_EQ(AEC_Sc.uiGuardLo, lo);
            ASSERT_EQ(AEC_Sc.uiGuardHi, hi);
        } else {
            ASSERT_EQ(AEC_Sc.uiGuardLo, AEC_SC_GUARD_LO) << "frame " << i;
            ASSERT_EQ(AEC_Sc.uiGuardHi, AEC_SC_GUARD_HI) << "frame " << i;
        }
    }
    EXPECT_TRUE(finite);
    EXPECT_EQ(aecx_bist(), 0);
}

bool allZero(const float *x, int n) {
    for (int i = 0; i < n; ++i)
        if (x[i] != 0.0f) return false;
    return true;
}

TEST(BadInput, ResetInDoubleTalkRestartsFromStartValuesAndRunsOn) {
    freshStart();
    Talk talk;
    ASSERT_TRUE(talk.run(6 * kFps, false));  // far end alone, then double talk
    ASSERT_TRUE(talk.run(2 * kFps, true));
    aecx_control(KVAEC_CMD_RESET | KVAEC_MODE_NO_NR, nullptr, 0.0f);
    EXPECT_TRUE(allZero(AEC_afRef, AEC_REF_FLOATS));
    EXPECT_TRUE(allZero(AEC_afAdf, AEC_ADF_FLOATS));
    EXPECT_TRUE(allZero(AEC_afAds, AEC_ADF_FLOATS));
    EXPECT_EQ(AEC_Db.iDoubleTalk, 0);
    EXPECT_EQ(AEC_Db.uiFlags, KVAEC_MODE_NO_NR);
    for (int s = 0; s < AEC_NSTRIPREC; ++s) EXPECT_EQ(AEC_Db.atStrip[s].fErlDb, AEC_DefaultCfg.fErlInitDb);
    // The conversation goes on as if the canceller had just started.
    EXPECT_TRUE(talk.run(3 * kFps, true));
    EXPECT_EQ(aecx_bist(), 0);
}

TEST(BadInput, ResetKeepingFiltersInDoubleTalkKeepsBothBanks) {
    freshStart();
    Talk talk;
    ASSERT_TRUE(talk.run(8 * kFps));
    std::vector<float> adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS), ads(AEC_afAds, AEC_afAds + AEC_ADF_FLOATS);
    aecx_control(KVAEC_CMD_RESET | KVAEC_CMD_KEEP_FILTERS, nullptr, 0.0f);
    EXPECT_EQ(std::memcmp(adf.data(), AEC_afAdf, sizeof AEC_afAdf), 0);
    EXPECT_EQ(std::memcmp(ads.data(), AEC_afAds, sizeof AEC_afAds), 0);
    EXPECT_TRUE(allZero(AEC_afRef, AEC_REF_FLOATS));
    EXPECT_TRUE(talk.run(3 * kFps, true));
    EXPECT_EQ(aecx_bist(), 0);
}

}  // namespace
