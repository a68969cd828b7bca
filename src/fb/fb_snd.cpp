// Send (microphone) filter bank: 41-band oversampled DFT analysis and synthesis.
//
// Analysis, per block t = 0..3 of 40 samples:
//   afSndAnaHist[240]  delay line, oldest sample at index 0, newest at 239
//   afFbTime[80]       window-weighted delay line folded three times
//   acSndSb[b][t]      bin b (0..40) of the unscaled 80-point real DFT
// Synthesis, per slot t:
//   afFbTime[80]       40 x the normalised inverse DFT of slot t of acErrAdf
//   afSndSynOla[240]   overlap-add accumulator; its first 40 samples are final
//
// With the sub-bands left as analysed the chain is a pure delay of 120 samples.
#include "fb.h"
#include "fb_kern.h"
#include <string.h>

namespace {

constexpr int kHop = 40;        // new samples per block
constexpr int kFft = 80;        // real transform length
constexpr int kWin = 240;       // window length (three transform lengths)
constexpr float kOutGain = 80.0f;
static_assert(kWin == 3 * kFft, "the send windows fold by three");
static_assert(AEC_NSUB * kHop == 160, "four blocks per frame");
static_assert(sizeof(((AEC_tDb *)nullptr)->afSndAnaHist) == kWin * sizeof(float), "history length");
static_assert(sizeof(((AEC_tSc *)nullptr)->afFbWork) >= 192 * sizeof(float), "transform work area");

}  // namespace

void aec_fb_snd_analysis(AEC_tDb *db, AEC_tSc *sc, const float *sin) {
    float *d = db->afSndAnaHist;
    const float *h = aecfb_afSndAnaWin;
    float *u = sc->afFbTime;
    for (int t = 0; t < AEC_NSUB; t++) {
        // Age the delay line by one block and append the new samples.
        memmove(d, d + kHop, (kWin - kHop) * sizeof(float));
        memcpy(d + (kWin - kHop), sin + kHop * t, kHop * sizeof(float));
        // Window and fold: three 80-sample segments summed, oldest segment first.
        kvaec::kern::fold3(h, d, u);
        aecfb_rfft(u, &sc->acSndSb[0][t][0], sc->afFbWork, AEC_NSUB);
    }
    // The two cancellers each work on their own copy of the analysed frame.
    memcpy(sc->acErrAdf, sc->acSndSb, sizeof(sc->acSndSb));
    memcpy(sc->acErrAds, sc->acSndSb, sizeof(sc->acSndSb));
}

void aec_fb_snd_synthesis(AEC_tDb *db, AEC_tSc *sc, float *sin) {
    float *a = db->afSndSynOla;
    const float *g = aecfb_afSndSynWin;
    float *y = sc->afFbTime;
    for (int t = 0; t < AEC_NSUB; t++) {
        aecfb_rifft(&sc->acErrAdf[0][t][0], y, sc->afFbWork);
        // Overlap-add the block, repeated three times under the window.
        kvaec::kern::overlapAdd3(a, y, g);
        // The oldest 40 accumulator samples are complete.
        kvaec::kern::scaleHop(a, kOutGain, sin + kHop * t);
        memmove(a, a + kHop, (kWin - kHop) * sizeof(float));
        memset(a + (kWin - kHop), 0, kHop * sizeof(float));
    }
}

// Scalar references of the window loops shared by the send and receive banks
// (the vector kernels in fb_sse2.cpp / fb_neon.cpp reproduce them lane by lane).
static_assert(kvaec::kern::kFbFold == kFft && kvaec::kern::kFbHop == kHop && kvaec::kern::kFbWin3 == kWin,
              "kernel lengths match the bank");

void kvaec::kern::fold3Scalar(const float *w, const float *d, float *u) {
    for (int i = 0; i < kFft; i++) {
        u[i] = w[i] * d[i] + w[i + 80] * d[i + 80] + w[i + 160] * d[i + 160];
    }
}

void kvaec::kern::overlapAdd3Scalar(float *a, const float *y, const float *g) {
    for (int i = 0; i < kFft; i++) {
        a[i] += y[i] * g[i];
        a[i + 80] += y[i] * g[i + 80];
        a[i + 160] += y[i] * g[i + 160];
    }
}

void kvaec::kern::scaleHopScalar(const float *a, float gain, float *out) {
    for (int i = 0; i < kHop; i++) {
        out[i] = a[i] * gain;
    }
}
