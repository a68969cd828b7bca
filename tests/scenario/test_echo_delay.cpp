// How far behind the receive output the echo must reach the microphone input
// for the canceller to model it: a closed loop with a single-tap echo path
// (white far end, NLP off) swept over the delay from a receive sample leaving
// aecx_process to its echo entering a later aecx_process call. The printed
// table is the measurement behind KVAEC_ECHO_MIN_DELAY.
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "closed_loop.h"
#include "kvaec.h"

namespace {

using kvaec::sim::ClosedLoop;
using kvaec::sim::kFrame;

constexpr int kFps = 100;

// Linear ERLE over 4..8 s of a single-tap path (gain 0.5) whose echo enters
// the microphone `delay` samples after the receive output (delay >= 160, one
// frame of playback latency being the least a frame-based host has).
double singleTapErle(int delay) {
    aecx_init(nullptr);
    aecx_control(KVAEC_MODE_NO_NLP, nullptr, 0.0f);
    const int frames = delay / kFrame;
    std::vector<float> path(static_cast<size_t>(delay - frames * kFrame + 1), 0.0f);
    path.back() = 0.5f;
    ClosedLoop loop(path, frames);
    kvaec::sim::WhiteNoise far(21, -26.0), noise(22, -80.0);
    float f[kFrame], n[kFrame];
    for (int i = 0; i < 8 * kFps; ++i) {
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        loop.step(f, n);
    }
    return kvaec::sim::erleDb(loop.history(), 4 * kFps, 8 * kFps);
}

TEST(EchoDelay, SweepAfterTheReceiveOutput) {
    const std::vector<int> delays = {160, 180, 200, 220, 240, 260, 270, 280, 290, 300, 320, 360, 400, 480, 640, 960};
    std::vector<double> erle;
    std::printf("delay after the receive output (samples) | linear ERLE (dB)\n");
    for (int d : delays) {
        erle.push_back(singleTapErle(d));
        std::printf("%4d | %.1f\n", d, erle.back());
    }
    const double ample = erle.back();  // 960 samples: six frames after the output
    double at = 0;
    for (size_t i = 0; i < delays.size(); ++i) {
        if (delays[i] == KVAEC_ECHO_MIN_DELAY) at = erle[i];
        // From the minimum on, every delay keeps the figure of an ample delay.
        if (delays[i] >= KVAEC_ECHO_MIN_DELAY) {
            EXPECT_NEAR(erle[i], ample, 1.0) << "delay " << delays[i];
        }
    }
    std::printf("at KVAEC_ECHO_MIN_DELAY (%d): %.1f dB; at 960: %.1f dB\n", KVAEC_ECHO_MIN_DELAY, at, ample);
    // One frame after the output the echo's onset falls before the first
    // tap: the loss is large, which is why the minimum exists.
    EXPECT_LT(erle.front(), ample - 10.0);
}

}  // namespace
