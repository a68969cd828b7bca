// Time of the delay track (kvaec_track_*) over a long recording pair: the
// pair is simulated first (not timed), then pushed in 10 ms blocks as a live
// host would and finished; CPU time and wall time of push + finish are
// printed with the fitted track. Usage:
//   kvaec_track_speed [minutes=60] [rate=16000] [drift_ppm=20] [block=160]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "kvaec_host.h"
#include "recording_sim.h"

int main(int argc, char **argv) {
    const double minutes = argc > 1 ? std::atof(argv[1]) : 60.0;
    const int rate = argc > 2 ? std::atoi(argv[2]) : 16000;
    const double ppm = argc > 3 ? std::atof(argv[3]) : 20.0;
    const size_t block = argc > 4 ? static_cast<size_t>(std::atol(argv[4])) : 160;
    if (!(minutes > 0) || rate < 8000 || block == 0) {
        std::fprintf(stderr, "usage: kvaec_track_speed [minutes] [rate] [drift_ppm] [block]\n");
        return 2;
    }
    kvaec::test::RecordingPlan s;
    s.rate = rate;
    s.seconds = minutes * 60.0;
    s.seed = 7;
    s.drift_ppm = ppm;
    s.local_talker = true;
    const auto g0 = std::chrono::steady_clock::now();
    const kvaec::test::Recording r = kvaec::test::makeRecording(s);
    const double gen = std::chrono::duration<double>(std::chrono::steady_clock::now() - g0).count();

    const std::clock_t c0 = std::clock();
    const auto t0 = std::chrono::steady_clock::now();
    kvaec_track *t = kvaec_track_create(rate, nullptr);
    if (!t) return 1;
    for (size_t i = 0; i < r.far.size(); i += block) {
        const size_t n = std::min(block, r.far.size() - i);
        if (kvaec_track_push(t, r.far.data() + i, static_cast<int64_t>(n), r.mic.data() + i,
                             static_cast<int64_t>(n)) != 0)
            return 1;
    }
    kvaec_track_summary sum;
    kvaec_track_finish(t, &sum);
    const double cpu = static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC;
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::vector<kvaec_track_segment> seg(static_cast<size_t>(sum.segments));
    kvaec_track_segments(t, seg.data(), sum.segments);
    std::printf("pair: %.1f min at %d Hz, drift %.1f ppm (simulated in %.1f s)\n", minutes, rate, ppm, gen);
    std::printf("track: status %d, %d windows, %d active, %d trusted, %d segments\n", sum.status, sum.windows,
                sum.active_windows, sum.trusted_windows, sum.segments);
    for (const auto &g : seg)
        std::printf("  segment %.1f-%.1f s: delay %.6f s, drift %.3f ppm\n", g.start_sec, g.end_sec, g.delay_sec,
                    g.drift_ppm);
    std::printf("push+finish: %.2f s CPU, %.2f s wall (%.0fx real time)\n", cpu, wall, s.seconds / cpu);
    kvaec_track_destroy(t);
    return sum.status == KVAEC_TRACK_OK ? 0 : 1;
}
