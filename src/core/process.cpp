// The frame driver: every stage of the canceller in its fixed order.
#include "core.h"
#include "fpenv.h"

#include "../adf/adf.h"
#include "../cond/cond.h"
#include "../det/det.h"
#include "../fb/fb.h"
#include "../post/post.h"
#include "../td/td.h"

// The driver's own computations. They keep external linkage inside the
// library (hidden from the shared library's exports like every internal
// name) so that the test suite, which links the static library, can drive
// them with hand-set inputs.
namespace kvaec {

// Receive peak level: instant attack, release of 3 % of the distance per
// frame with a floor of -80 dB on the release branch only.
void rinPeakMeter(AEC_tDb *db, const float *rin) {
    float p = 0.0f;
    for (int n = 0; n < KVAEC_FRAME_SAMPLES; ++n) {
        const float q = rin[n] * rin[n];
        if (q > p) p = q;
    }
    const float level = aec_utl_en2log(p);
    if (level > db->fRinPeakDb) {
        db->fRinPeakDb = level;
    } else {
        float v = db->fRinPeakDb + (level - db->fRinPeakDb) * 0.03f;
        if (v < -80.0f) v = -80.0f;
        db->fRinPeakDb = v;
    }
}

// Clipping step of the frame: (min(n, 20) - 1) * 6 dB, at most 30, where n
// counts samples above 0.95 and samples not at or above -0.95 (NaN included).
float clipStep(const float *sin) {
    int n = 0;
    for (int i = 0; i < KVAEC_FRAME_SAMPLES; ++i) {
        n += sin[i] > 0.95f ? 1 : 0;
        n += !(sin[i] >= -0.95f) ? 1 : 0;
    }
    const int m = n < 20 ? n : 20;
    float step = static_cast<float>(m - 1) * 6.0f;
    if (step > 30.0f) step = 30.0f;
    return step;
}

// Clipping accumulator, relieved when little echo is expected.
void clipAccumulate(AEC_tDb *db, const AEC_tSc *sc) {
    float s = sc->fClipStepDb;
    if (sc->fExpLevelDb < -12.0f) {
        s = sc->fExpLevelDb + sc->fClipStepDb + 12.0f;
        if (s < -12.0f) s = -12.0f;
    }
    float acc = db->fClipDb + s;
    if (acc > 30.0f) acc = 30.0f;
    if (acc < -6.0f) acc = -6.0f;
    db->fClipDb = acc;
}

}  // namespace kvaec

namespace {

using kvaec::clipAccumulate;
using kvaec::clipStep;
using kvaec::rinPeakMeter;

void normalFrame(AEC_tDb *db, AEC_tSc *sc, float *rin, float *sin) {
    aec_memclr(sc, AEC_SC_CLEAR_WORDS);
    sc->uiGuardLo = AEC_SC_GUARD_LO;
    sc->uiGuardHi = AEC_SC_GUARD_HI;
    if (db->uiFlags & KVAEC_MODE_LOOPBACK) aec_loopback(db, sin);
    rinPeakMeter(db, rin);
    sc->fClipStepDb = clipStep(sin);
    aec_hipass(db, sin);
    aec_in_corr(&db->fSinInCorr, sin);
    aec_fb_snd_analysis(db, sc, sin);
    aec_in_corr(&db->fRinInCorr, rin);
    aec_fb_rcv_analysis(db, sc, rin);
    aec_cancel_slow(db, sc);
    aec_nrg_in(db, sc);
    aec_erl_sb(db, sc);
    aec_exp_update(db, sc);
    aec_exp_full(db, sc);
    aec_exp_stepsize(db, sc);
    clipAccumulate(db, sc);
    aec_adf_adapt(db, sc);
    aec_nrg_erf(sc);
    aec_erle_sb(sc);
    if (db->fAdaptTime > 60.0f) aec_exp_erl(db, sc);
    aec_adf_epc_control(db, sc);
    aec_adf_merge(db, sc);
    aec_epc_freq(db, sc);
    aec_epc_derle(db, sc);
    aec_vad_err_sb(db, sc);
    aec_vad_rin_sb(db, sc);
    aec_vad_rin_fb(db, sc);
    aec_dtd(db, sc);
    aec_adf_control(db, sc);
    aec_nlp(db, sc);
    aec_nr(db, sc);
    aec_td(db, sc, rin);
    aec_fb_snd_synthesis(db, sc, sin);
    aec_out_corr(&db->fSinOutCorr, sin);
    aec_fb_rcv_synthesis(db, sc, rin);
}

// Bypass: only the corrections and the filter banks, with a tiny dither that
// keeps the banks away from denormal numbers; the delays stay the same.
void bypassFrame(AEC_tDb *db, AEC_tSc *sc, float *rin, float *sin) {
    aec_nlp_add_noise(&db->uiNoiseSeed, sin, 80, 1e-12f);
    aec_nlp_add_noise(&db->uiNoiseSeed, rin, 80, 1e-12f);
    aec_in_corr(&db->fSinInCorr, sin);
    aec_fb_snd_analysis(db, sc, sin);
    aec_fb_snd_synthesis(db, sc, sin);
    aec_out_corr(&db->fSinOutCorr, sin);
    aec_in_corr(&db->fRinInCorr, rin);
    aec_fb_rcv_analysis(db, sc, rin);
    aec_fb_rcv_synthesis(db, sc, rin);
    aec_nrg_in(db, sc);
}

}  // namespace

// Runs in the library's floating-point mode (flush-to-zero, subnormal
// operands read as zero, rounding to nearest; see fpenv.h) and gives the
// caller its own mode back on return.
void aecx_process(float *rin, float *sin) {
    const kvaec::fpenv::Scope mode;
    AEC_tDb *db = &AEC_Db;
    AEC_tSc *sc = &AEC_Sc;
    if (db->uiFlags & KVAEC_MODE_BYPASS)
        bypassFrame(db, sc, rin, sin);
    else
        normalFrame(db, sc, rin, sin);
    // Common tail: the reference history receives the receive signal as it leaves.
    aec_shift_ref(db);
    aec_fb_ref_analysis(db, sc, rin);
    aec_out_corr(&db->fRinOutCorr, rin);
}
