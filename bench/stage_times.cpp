// CPU time per stage group of a normal frame, for locating costs that
// instruction counts do not show (subnormal arithmetic). For every frame the
// state is saved, the stages are replayed in the frame driver's order with a
// timer around each group (the driver's internal meters are left out), the
// state is restored and the frame is then processed by aecx_process, whose
// time is reported as the whole frame. Caches are colder in the replay than
// in a plain run, so the groups add up to more than the whole frame.
//
//   kvaec_stage_times speech|decaying [ftz]
// decaying: far end and microphone fall by 1 dB per frame (from -26 dBFS),
// crossing into the subnormal range after about 730 frames; ftz sets the
// host's flush-to-zero and denormals-are-zero modes (MXCSR), which changes
// nothing now: the replay runs in the library's own floating-point mode, as
// aecx_process does (src/core/fpenv.h).
#include <xmmintrin.h>

#include <time.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "adf/adf.h"
#include "closed_loop.h"
#include "cond/cond.h"
#include "core/core.h"
#include "core/fpenv.h"
#include "det/det.h"
#include "fb/fb.h"
#include "kvaec.h"
#include "kvaec_records.h"
#include "post/post.h"
#include "td/td.h"

namespace {

constexpr int kFrame = 160;
constexpr int kFrames = 1000;

AEC_tDb db0;
AEC_tSc sc0;
float ref0[AEC_REF_FLOATS], adf0[AEC_ADF_FLOATS], ads0[AEC_ADF_FLOATS];

struct Group {
    const char *name;
    double seconds;
};
std::vector<Group> groups;

// Thread CPU time in seconds: time the thread spent running, so that other
// processes on a loaded machine do not count.
double cpuNow() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

template <class F>
void timed(size_t idx, const char *name, F f) {
    const double t0 = cpuNow();
    f();
    const double d = cpuNow() - t0;
    if (groups.size() <= idx) groups.push_back({name, 0.0});
    groups[idx].seconds += d;
}

}  // namespace

int main(int argc, char **argv) {
    const bool decay = argc > 1 && std::string(argv[1]) == "decaying";
    const bool ftz = argc > 2 && std::string(argv[2]) == "ftz";
    if (ftz) _mm_setcsr(_mm_getcsr() | 0x8040u);
    // The benchmark's input: speech-like far end, echo through a 60 ms path
    // after 40 ms, near-end bursts, noise at -70 dBFS.
    std::vector<float> far(kFrames * kFrame), mic(kFrames * kFrame), noise(kFrames * kFrame);
    kvaec::sim::SpeechLike f(51, -26.0), n(52, -36.0);
    kvaec::sim::WhiteNoise w(53, -70.0);
    f.fill(far.data(), far.size());
    n.fill(mic.data(), mic.size());
    w.fill(noise.data(), noise.size());
    const std::vector<float> path = kvaec::sim::makeEchoPath(54, 40.0, 60.0, 6.0);
    for (size_t t = 0; t < mic.size(); ++t) {
        double e = 0;
        for (size_t i = 0; i < path.size() && i <= t; ++i) e += double(path[i]) * far[t - i];
        mic[t] += static_cast<float>(e) + noise[t];
    }
    if (decay) {
        for (size_t t = 0; t < far.size(); ++t) {
            const float g = std::pow(10.0f, -static_cast<float>(t / kFrame) / 20.0f);
            far[t] *= g;
            mic[t] *= g;
        }
    }
    aecx_init(nullptr);
    float r[kFrame], s[kFrame];
    double whole = 0;
    // One pass to warm up, a second one measured.
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < kFrames; ++i) {
            std::memcpy(r, &far[size_t(i) * kFrame], sizeof r);
            std::memcpy(s, &mic[size_t(i) * kFrame], sizeof s);
            if (pass == 1) {
                const kvaec::fpenv::Scope mode;
                db0 = AEC_Db;
                sc0 = AEC_Sc;
                std::memcpy(ref0, AEC_afRef, sizeof ref0);
                std::memcpy(adf0, AEC_afAdf, sizeof adf0);
                std::memcpy(ads0, AEC_afAds, sizeof ads0);
                AEC_tDb *db = &AEC_Db;
                AEC_tSc *sc = &AEC_Sc;
                timed(0, "scratch clear, aec_hipass, send input correction", [&] {
                    aec_memclr(sc, AEC_SC_CLEAR_WORDS);
                    sc->uiGuardLo = AEC_SC_GUARD_LO;
                    sc->uiGuardHi = AEC_SC_GUARD_HI;
                    aec_hipass(db, s);
                    aec_in_corr(&db->fSinInCorr, s);
                });
                timed(1, "aec_fb_snd_analysis", [&] { aec_fb_snd_analysis(db, sc, s); });
                timed(2, "receive input correction, aec_fb_rcv_analysis", [&] {
                    aec_in_corr(&db->fRinInCorr, r);
                    aec_fb_rcv_analysis(db, sc, r);
                });
                timed(3, "aec_cancel_slow", [&] { aec_cancel_slow(db, sc); });
                timed(4, "aec_nrg_in, aec_erl_sb, step-size stages", [&] {
                    aec_nrg_in(db, sc);
                    aec_erl_sb(db, sc);
                    aec_exp_update(db, sc);
                    aec_exp_full(db, sc);
                    aec_exp_stepsize(db, sc);
                });
                timed(5, "aec_adf_adapt", [&] { aec_adf_adapt(db, sc); });
                timed(6, "ERLE, merge, echo-path change", [&] {
                    aec_nrg_erf(sc);
                    aec_erle_sb(sc);
                    if (db->fAdaptTime > 60.0f) aec_exp_erl(db, sc);
                    aec_adf_epc_control(db, sc);
                    aec_adf_merge(db, sc);
                    aec_epc_freq(db, sc);
                    aec_epc_derle(db, sc);
                });
                timed(7, "activity, double talk, control", [&] {
                    aec_vad_err_sb(db, sc);
                    aec_vad_rin_sb(db, sc);
                    aec_vad_rin_fb(db, sc);
                    aec_dtd(db, sc);
                    aec_adf_control(db, sc);
                });
                timed(8, "aec_nlp, aec_nr", [&] {
                    aec_nlp(db, sc);
                    aec_nr(db, sc);
                });
                timed(9, "aec_td", [&] { aec_td(db, sc, r); });
                timed(10, "aec_fb_snd_synthesis, send output correction", [&] {
                    aec_fb_snd_synthesis(db, sc, s);
                    aec_out_corr(&db->fSinOutCorr, s);
                });
                timed(11, "aec_fb_rcv_synthesis", [&] { aec_fb_rcv_synthesis(db, sc, r); });
                timed(12, "aec_shift_ref", [&] { aec_shift_ref(db); });
                timed(13, "aec_fb_ref_analysis", [&] { aec_fb_ref_analysis(db, sc, r); });
                timed(14, "receive output correction", [&] { aec_out_corr(&db->fRinOutCorr, r); });
                AEC_Db = db0;
                AEC_Sc = sc0;
                std::memcpy(AEC_afRef, ref0, sizeof ref0);
                std::memcpy(AEC_afAdf, adf0, sizeof adf0);
                std::memcpy(AEC_afAds, ads0, sizeof ads0);
                std::memcpy(r, &far[size_t(i) * kFrame], sizeof r);
                std::memcpy(s, &mic[size_t(i) * kFrame], sizeof s);
            }
            const double t0 = cpuNow();
            aecx_process(r, s);
            const double d = cpuNow() - t0;
            if (pass == 1) whole += d;
        }
    }
    std::printf("input %s, host FTZ/DAZ %s, thread CPU us per frame (mean of %d)\n", decay ? "decaying" : "speech-like",
                ftz ? "on" : "off", kFrames);
    std::printf("%8.2f  whole frame (aecx_process)\n", whole / kFrames * 1e6);
    for (const Group &g : groups) std::printf("%8.2f  %s\n", g.seconds / kFrames * 1e6, g.name);
    return 0;
}
