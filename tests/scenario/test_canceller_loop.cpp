// Closed-loop scenarios of the linear canceller: the echo is made from what
// the library plays, and the send output is measured with residual
// suppression and noise reduction switched off, so the figures are those of
// the two coefficient banks and their control loops.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "closed_loop.h"
#include "kvaec.h"
#include "kvaec_records.h"

namespace {

using kvaec::sim::ClosedLoop;
using kvaec::sim::FrameStats;
using kvaec::sim::kFrame;

constexpr unsigned kLinearOnly = KVAEC_MODE_NO_NLP | KVAEC_MODE_NO_NR;
constexpr int kFps = 100;

void start(unsigned mode) {
    aecx_init(nullptr);
    aecx_control(mode, nullptr, 0.0f);
}

double erleAt(const ClosedLoop &loop, double seconds, double window = 1.0, bool activeOnly = false) {
    const int to = static_cast<int>(seconds * kFps);
    const int from = to - static_cast<int>(window * kFps);
    return kvaec::sim::erleDb(loop.history(), from, to,
                              activeOnly ? [](const FrameStats &s) { return s.farActive; }
                                         : std::function<bool(const FrameStats &)>());
}

void report(const char *name, const ClosedLoop &loop, bool activeOnly = false) {
    std::printf("%s ERLE:", name);
    for (double t : {1.0, 2.0, 5.0, 10.0, 30.0})
        if (t * kFps <= loop.history().size()) std::printf("  %.0fs %.1f dB", t, erleAt(loop, t, 1.0, activeOnly));
    std::printf("\n");
    const std::string dir = kvaec::sim::curvesDir();
    if (!dir.empty()) loop.writeCsv(dir + "/" + name + ".csv");
}

TEST(CancellerLoop, WhiteFarEndConvergesAndStays) {
    start(kLinearOnly);
    ClosedLoop loop(kvaec::sim::makeEchoPath(11, 3.0, 60.0, 6.0));
    kvaec::sim::WhiteNoise far(1, -26.0), noise(2, -75.0);
    float f[kFrame], n[kFrame];
    for (int i = 0; i < 65 * kFps; ++i) {
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        loop.step(f, n);
    }
    report("white_far_end", loop);
    const double at5 = erleAt(loop, 5.0);
    EXPECT_GE(at5, 25.0);
    double lowest = 1e9;
    for (int s = 6; s <= 65; ++s) lowest = std::min(lowest, erleAt(loop, s));
    std::printf("white far end: ERLE at 5 s %.1f dB, lowest 1-s ERLE over 5..65 s %.1f dB\n", at5, lowest);
    EXPECT_GE(lowest, at5 - 3.0);
    EXPECT_EQ(aecx_bist(), 0);
}

TEST(CancellerLoop, SpeechLikeFarEndConverges) {
    start(kLinearOnly);
    ClosedLoop loop(kvaec::sim::makeEchoPath(12, 3.0, 60.0, 6.0));
    kvaec::sim::SpeechLike far(3, -26.0);
    kvaec::sim::WhiteNoise noise(4, -75.0);
    float f[kFrame], n[kFrame];
    for (int i = 0; i < 30 * kFps; ++i) {
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        loop.step(f, n);
    }
    report("speech_far_end", loop, true);
    const double after10 = kvaec::sim::erleDb(loop.history(), 10 * kFps, 30 * kFps,
                                              [](const FrameStats &s) { return s.farActive; });
    std::printf("speech-like far end: ERLE over active frames 10..30 s %.1f dB\n", after10);
    EXPECT_GE(after10, 20.0);
}

// The echo-path-change and double-talk detectors compare the error levels
// with the predicted echo level (the reference energy over the filter span
// less the estimated echo loss). These two scenarios run with a loud far end
// (-10 dBFS); the two after them at the levels a terminal sees.
TEST(CancellerLoop, EchoPathChangeIsDetectedAndRecovered) {
    start(kLinearOnly);
    ClosedLoop loop(kvaec::sim::makeEchoPath(13, 3.0, 60.0, 6.0));
    kvaec::sim::WhiteNoise far(5, -10.0), noise(6, -75.0);
    float f[kFrame], n[kFrame];
    float epcBefore = -1e9f, epcAfter = -1e9f;
    for (int i = 0; i < 40 * kFps; ++i) {
        if (i == 30 * kFps) loop.setPath(kvaec::sim::makeEchoPath(99, 5.0, 60.0, 6.0));
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        const FrameStats st = loop.step(f, n);
        if (i >= 25 * kFps && i < 30 * kFps) epcBefore = std::max(epcBefore, st.epcDb);
        if (i >= 30 * kFps && i < 32 * kFps) epcAfter = std::max(epcAfter, st.epcDb);
    }
    report("echo_path_change", loop);
    const double before = erleAt(loop, 30.0);
    const double after = erleAt(loop, 35.0);
    std::printf("echo-path change: ERLE before %.1f dB, 1 s after %.1f dB, 5 s after %.1f dB; "
                "fEpcDb max before %.1f, after %.1f\n",
                before, erleAt(loop, 31.0), after, static_cast<double>(epcBefore), static_cast<double>(epcAfter));
    EXPECT_GE(after, before - 3.0);
    EXPECT_GT(epcAfter, epcBefore);
}

TEST(CancellerLoop, DoubleTalkIsFlaggedFreezesTheSlowBankAndLeavesTheEchoModel) {
    start(kLinearOnly);
    ClosedLoop loop(kvaec::sim::makeEchoPath(14, 3.0, 60.0, 6.0));
    kvaec::sim::WhiteNoise far(7, -10.0), noise(8, -75.0);
    // Near-end talker at the level of the echo (-16 dBFS: far end -10, ERL 6).
    kvaec::sim::SpeechLike near(9, -16.0, false);
    float f[kFrame], n[kFrame], s[kFrame];
    int dtFrames = 0, slowSteps = 0;
    for (int i = 0; i < 30 * kFps; ++i) {
        const bool talk = i >= 20 * kFps && i < 25 * kFps;
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        near.fill(s, kFrame);
        for (int k = 0; k < kFrame; ++k) n[k] += talk ? s[k] : 0.0f;
        const int flagBefore = AEC_Db.iDoubleTalk;
        const FrameStats st = loop.step(f, n);
        if (talk) dtFrames += st.doubleTalk;
        // The step sizes of a frame are decided with the flag of the frame before.
        if (flagBefore)
            for (int k = 0; k < AEC_NSTRIPS; ++k) slowSteps += AEC_Sc.atStripSc[k].fMuAds != 0.0f;
    }
    report("double_talk", loop);
    const double before = erleAt(loop, 20.0);
    const double after = erleAt(loop, 30.0);
    std::printf("double talk: flagged in %d of 500 frames; ERLE before %.1f dB, after %.1f dB\n", dtFrames, before,
                after);
    EXPECT_GT(dtFrames, 250);
    EXPECT_EQ(slowSteps, 0);
    EXPECT_GE(after, before - 3.0);
}

// Terminal levels: far end at -26 dBFS, echo at -32 dBFS (ERL 6 dB). After
// the change the error stands above the predicted echo level, the
// echo-path-change measure rises above 0 and the filters recover.
TEST(CancellerLoop, EchoPathChangeAtTerminalLevelsIsDetectedAndRecovered) {
    start(kLinearOnly);
    ClosedLoop loop(kvaec::sim::makeEchoPath(13, 3.0, 60.0, 6.0));
    kvaec::sim::WhiteNoise far(5, -26.0), noise(6, -75.0);
    float f[kFrame], n[kFrame];
    float epcBefore = -1e9f, epcAfter = -1e9f;
    for (int i = 0; i < 40 * kFps; ++i) {
        if (i == 30 * kFps) loop.setPath(kvaec::sim::makeEchoPath(99, 5.0, 60.0, 6.0));
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        const FrameStats st = loop.step(f, n);
        if (i >= 25 * kFps && i < 30 * kFps) epcBefore = std::max(epcBefore, st.epcDb);
        if (i >= 30 * kFps && i < 32 * kFps) epcAfter = std::max(epcAfter, st.epcDb);
    }
    report("echo_path_change_terminal", loop);
    const double before = erleAt(loop, 30.0), after = erleAt(loop, 35.0);
    std::printf("echo-path change at -26 dBFS: ERLE before %.1f dB, 1 s after %.1f dB, 5 s after %.1f dB; "
                "fEpcDb max before %.1f, in the 2 s after %.1f\n",
                before, erleAt(loop, 31.0), after, static_cast<double>(epcBefore), static_cast<double>(epcAfter));
    EXPECT_GT(epcAfter, 0.0f);
    EXPECT_GE(after, before - 3.0);
}

// Terminal levels: near-end talker at the echo's level (-32 dBFS) over a far
// end at -26 dBFS. The detector flags the talk, the slow bank does not step
// while it is flagged, and the echo model survives.
TEST(CancellerLoop, DoubleTalkAtTerminalLevelsIsFlaggedAndFreezesTheSlowBank) {
    start(kLinearOnly);
    ClosedLoop loop(kvaec::sim::makeEchoPath(14, 3.0, 60.0, 6.0));
    kvaec::sim::WhiteNoise far(7, -26.0), noise(8, -75.0);
    kvaec::sim::SpeechLike near(9, -32.0, false);
    float f[kFrame], n[kFrame], s[kFrame];
    int dtFrames = 0, slowSteps = 0, slowStepsInTalk = 0;
    for (int i = 0; i < 30 * kFps; ++i) {
        const bool talk = i >= 20 * kFps && i < 25 * kFps;
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        near.fill(s, kFrame);
        for (int k = 0; k < kFrame; ++k) n[k] += talk ? s[k] : 0.0f;
        const int flagBefore = AEC_Db.iDoubleTalk;
        const FrameStats st = loop.step(f, n);
        if (talk) dtFrames += st.doubleTalk;
        int steps = 0;
        for (int k = 0; k < AEC_NSTRIPS; ++k) steps += AEC_Sc.atStripSc[k].fMuAds != 0.0f;
        // The step sizes of a frame are decided with the flag of the frame before.
        if (flagBefore) slowSteps += steps;
        if (talk) slowStepsInTalk += steps;
    }
    report("double_talk_terminal", loop);
    const double before = erleAt(loop, 20.0), after = erleAt(loop, 30.0);
    std::printf("double talk at -32 dBFS: flagged in %d of 500 frames; slow-bank steps in flagged frames %d, "
                "in all talk frames %d; ERLE before %.1f dB, after %.1f dB\n",
                dtFrames, slowSteps, slowStepsInTalk, before, after);
    EXPECT_GE(dtFrames, 400);
    EXPECT_EQ(slowSteps, 0);
    EXPECT_GE(after, before - 3.0);
}

}  // namespace
