// Long-run check of the canceller in a simulated terminal (built and run by
// scripts/soak). Minutes of closed-loop audio: speech-like far and near
// talkers, double talk, echo-path changes, room noise at changing levels,
// stretches of digital silence, occasional NLP-value changes. Checks, frame
// by frame:
//   - every output sample is finite;
//   - aecx_bist() == 0;
//   - the guard words of AEC_Sc hold their values;
// and at the end reports how stable the cost of processing is: the slowest
// one-second window (100 frames, thread CPU time of aecx_process alone)
// against the median window. The cost is a measurement, not a check, unless
// a limit is given with --max-cost-ratio (a long run by hand on a quiet
// machine): on a shared machine other processes decide the slowest window.
//
//   soak [--minutes N] [--seed S] [--max-cost-ratio R]
//        (default 60 minutes of audio, seed 1, cost not checked)
// Exit status 0 when every check held.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "closed_loop.h"
#include "kvaec.h"
#include "kvaec_records.h"

namespace {

using kvaec::sim::kFrame;
using kvaec::sim::SpeechLike;
using kvaec::sim::WhiteNoise;

constexpr int kFps = 100;

double threadSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Echo of the played signal through an FIR path with one frame of playback
// latency in front of it.
class Room {
public:
    void setPath(std::vector<float> h) { h_ = std::move(h); }
    void echo(const float *playedPrev, float *out) {
        // hist_ holds the last (taps + frame) played samples, oldest first.
        const size_t taps = h_.size();
        hist_.resize(taps + kFrame, 0.0f);
        std::memmove(hist_.data(), hist_.data() + kFrame, (hist_.size() - kFrame) * sizeof(float));
        std::memcpy(hist_.data() + hist_.size() - kFrame, playedPrev, kFrame * sizeof(float));
        for (int n = 0; n < kFrame; ++n) {
            double acc = 0;
            const size_t newest = taps + static_cast<size_t>(n);  // index of sample n of this frame
            for (size_t i = 0; i < taps && i <= newest; ++i) acc += static_cast<double>(h_[i]) * hist_[newest - i];
            out[n] = static_cast<float>(acc);
        }
    }
private:
    std::vector<float> h_;
    std::vector<float> hist_;
};

}  // namespace

int main(int argc, char **argv) {
    double minutes = 60;
    double maxRatio = 0;  // 0: the cost ratio is reported, not checked
    uint32_t seed = 1;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--minutes") && i + 1 < argc) minutes = std::atof(argv[++i]);
        else if (!std::strcmp(argv[i], "--seed") && i + 1 < argc) seed = static_cast<uint32_t>(std::atol(argv[++i]));
        else if (!std::strcmp(argv[i], "--max-cost-ratio") && i + 1 < argc) maxRatio = std::atof(argv[++i]);
        else {
            std::fprintf(stderr, "usage: %s [--minutes N] [--seed S] [--max-cost-ratio R]\n", argv[0]);
            return 2;
        }
    }
    // The host's floating-point mode is left as the process starts (no
    // flush-to-zero): the library sets its own mode inside each call.
    const long frames = static_cast<long>(minutes * 60.0 * kFps);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(0.0, 1.0);

    aecx_init(nullptr);
    Room room;
    room.setPath(kvaec::sim::makeEchoPath(seed, 2.0, 60.0, 6.0));
    SpeechLike far(seed * 3 + 1, -24.0), near(seed * 3 + 2, -30.0);
    WhiteNoise noise(seed * 3 + 3, -70.0);
    double noiseGain = 1.0;

    std::vector<double> windowCost;
    std::vector<int> windowKind;  // activity at the end of each window
    static const char *const kKindName[] = {"far only", "near only", "double talk", "noise only", "digital silence"};
    double cost = 0;
    float played[kFrame] = {}, rin[kFrame], sin[kFrame], e[kFrame], nn[kFrame];
    long nonFinite = 0, bistBad = 0, guardBad = 0, pathChanges = 0;
    long firstBad = -1;
    // Segments of 5 to 20 s, each with its own activity: far only, near only,
    // double talk, noise only, digital silence.
    int segLeft = 0, segKind = 0;
    for (long i = 0; i < frames; ++i) {
        if (--segLeft <= 0) {
            segKind = static_cast<int>(uni(rng) * 5.0);
            segLeft = static_cast<int>((5.0 + 15.0 * uni(rng)) * kFps);
            noiseGain = std::pow(10.0, (-20.0 * uni(rng)) / 20.0);  // -70..-90 dBFS
            if (uni(rng) < 0.3) {
                room.setPath(kvaec::sim::makeEchoPath(static_cast<uint32_t>(rng()), 1.0 + 4.0 * uni(rng),
                                                      30.0 + 40.0 * uni(rng), 3.0 + 12.0 * uni(rng)));
                ++pathChanges;
            }
            if (uni(rng) < 0.1) aecx_control(KVAEC_CMD_SET_NLP_PARAM, nullptr, static_cast<float>(6.0 * uni(rng)));
        }
        const bool farOn = segKind == 0 || segKind == 2;
        const bool nearOn = segKind == 1 || segKind == 2;
        const bool silent = segKind == 4;
        far.fill(rin, kFrame);
        near.fill(sin, kFrame);
        noise.fill(nn, kFrame);
        room.echo(played, e);
        for (int k = 0; k < kFrame; ++k) {
            if (!farOn || silent) rin[k] = 0.0f;
            sin[k] = silent ? 0.0f : e[k] + (nearOn ? sin[k] : 0.0f) + static_cast<float>(noiseGain) * nn[k];
        }

        const double t0 = threadSeconds();
        aecx_process(rin, sin);
        cost += threadSeconds() - t0;

        bool bad = false;
        for (int k = 0; k < kFrame; ++k)
            if (!std::isfinite(rin[k]) || !std::isfinite(sin[k])) {
                ++nonFinite;
                bad = true;
                break;
            }
        if (aecx_bist() != 0) {
            ++bistBad;
            bad = true;
        }
        if (AEC_Sc.uiGuardLo != AEC_SC_GUARD_LO || AEC_Sc.uiGuardHi != AEC_SC_GUARD_HI) {
            ++guardBad;
            bad = true;
        }
        if (bad && firstBad < 0) firstBad = i;
        std::memcpy(played, rin, sizeof played);
        if ((i + 1) % kFps == 0) {
            windowCost.push_back(cost);
            windowKind.push_back(segKind);
            cost = 0;
        }
    }

    std::vector<double> sorted = windowCost;
    std::sort(sorted.begin(), sorted.end());
    const double median = sorted.empty() ? 0.0 : sorted[sorted.size() / 2];
    const double slowest = sorted.empty() ? 0.0 : sorted.back();
    size_t slowestAt = 0;
    for (size_t w = 0; w < windowCost.size(); ++w)
        if (windowCost[w] == slowest) slowestAt = w;
    const double ratio = median > 0 ? slowest / median : 0.0;
    std::printf("soak: %.1f min of audio (%ld frames), %ld echo-path changes\n", minutes, frames, pathChanges);
    std::printf("soak: cost per 1 s window: median %.3f ms, slowest %.3f ms (at %zu s), ratio %.2f", median * 1e3,
                slowest * 1e3, slowestAt, ratio);
    if (maxRatio > 0)
        std::printf(" (limit %.2f)\n", maxRatio);
    else
        std::printf(" (not checked)\n");
    std::vector<size_t> order(windowCost.size());
    for (size_t w = 0; w < order.size(); ++w) order[w] = w;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return windowCost[a] > windowCost[b]; });
    std::printf("soak: slowest windows:");
    for (size_t j = 0; j < order.size() && j < 5; ++j)
        std::printf(" %zu s %.2fx (%s)%s", order[j], median > 0 ? windowCost[order[j]] / median : 0.0,
                    kKindName[windowKind[order[j]]], j + 1 < 5 ? "," : "");
    std::printf("\n");
    std::printf("soak: mean cost per frame %.1f us (%.2f%% of real time)\n", median * 1e6 / kFps, median * 100.0);
    std::printf("soak: frames with non-finite output %ld, with aecx_bist() != 0 %ld, with a bad guard word %ld\n",
                nonFinite, bistBad, guardBad);
    if (firstBad >= 0) std::printf("soak: first bad frame %ld (%.2f s)\n", firstBad, static_cast<double>(firstBad) / kFps);
    const int checks = maxRatio > 0 ? 4 : 3;
    const int failed = (nonFinite > 0) + (bistBad > 0) + (guardBad > 0) + (maxRatio > 0 && ratio > maxRatio);
    std::printf("soak: %d passed, %d failed\n", checks - failed, failed);
    return failed ? 1 : 0;
}
