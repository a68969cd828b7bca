// Profiling driver: runs a closed-loop scenario (speech-like far end through
// a 60 ms echo path, near-end speech-like bursts, low background noise) and
// hands the frames to aecx_process. Under callgrind the counters are zeroed
// after the warm-up frames, so with --toggle-collect=aecx_process the
// inclusive counts divided by the measured frames are per-frame costs.
//
//   kvaec_profile_frames [frames=300] [warmup=100] [mode=0]
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <valgrind/callgrind.h>

#include "closed_loop.h"
#include "kvaec.h"

int main(int argc, char **argv) {
    const int frames = argc > 1 ? std::atoi(argv[1]) : 300;
    const int warmup = argc > 2 ? std::atoi(argv[2]) : 100;
    const unsigned mode = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 0)) : 0u;

    aecx_init(nullptr);
    aecx_control(mode, nullptr, 0.0f);
    kvaec::sim::ClosedLoop loop(kvaec::sim::makeEchoPath(21, 3.0, 60.0, 6.0));
    kvaec::sim::SpeechLike far(22, -26.0);
    kvaec::sim::SpeechLike nearTalk(23, -36.0);
    kvaec::sim::WhiteNoise noise(24, -70.0);
    float f[kvaec::sim::kFrame], n[kvaec::sim::kFrame], v[kvaec::sim::kFrame];
    for (int i = 0; i < warmup + frames; ++i) {
        if (i == warmup) CALLGRIND_ZERO_STATS;
        far.fill(f, kvaec::sim::kFrame);
        nearTalk.fill(v, kvaec::sim::kFrame);
        noise.fill(n, kvaec::sim::kFrame);
        for (int k = 0; k < kvaec::sim::kFrame; ++k) n[k] += v[k];
        loop.step(f, n);
    }
    std::printf("frames measured: %d (after %d warm-up), mode 0x%x\n", frames, warmup, mode);
    return 0;
}
