// Receive (loudspeaker) filter bank: the same structure as the send bank
// (fold by three, 80-point real DFT, hop 40, output gain 80) with its own
// low-delay window pair. With the sub-bands left as analysed the chain is a
// pure delay of 40 samples.
//
//   afRcvAnaHist[240]  analysis delay line, oldest sample at index 0
//   acRcvSb[b][t]      receive sub-band frame, analysed and synthesised as is
//   afRcvSynOla[240]   synthesis overlap-add accumulator
#include "fb.h"
#include "fb_kern.h"
#include <string.h>

namespace {

constexpr int kHop = 40;
constexpr int kFft = 80;
constexpr int kWin = 240;
constexpr float kOutGain = 80.0f;
static_assert(kWin == 3 * kFft, "the receive windows fold by three");
static_assert(sizeof(((AEC_tDb *)nullptr)->afRcvAnaHist) == kWin * sizeof(float), "history length");
static_assert(sizeof(((AEC_tDb *)nullptr)->afRcvSynOla) == kWin * sizeof(float), "accumulator length");

}  // namespace

void aec_fb_rcv_analysis(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    float *d = db->afRcvAnaHist;
    const float *w = aecfb_afRcvAnaWin;
    float *u = sc->afFbTime;
    for (int t = 0; t < AEC_NSUB; t++) {
        memmove(d, d + kHop, (kWin - kHop) * sizeof(float));
        memcpy(d + (kWin - kHop), rin + kHop * t, kHop * sizeof(float));
        // u[i] = w[i] d[i] + w[i + 80] d[i + 80] + w[i + 160] d[i + 160]
        kvaec::kern::fold3(w, d, u);
        aecfb_rfft(u, &sc->acRcvSb[0][t][0], sc->afFbWork, AEC_NSUB);
    }
}

void aec_fb_rcv_synthesis(AEC_tDb *db, AEC_tSc *sc, float *rin) {
    float *a = db->afRcvSynOla;
    const float *g = aecfb_afRcvSynWin;
    float *y = sc->afFbTime;
    for (int t = 0; t < AEC_NSUB; t++) {
        aecfb_rifft(&sc->acRcvSb[0][t][0], y, sc->afFbWork);
        // a[i + 80 m] += y[i] g[i + 80 m], m = 0..2; then 40 outputs x 80.
        kvaec::kern::overlapAdd3(a, y, g);
        kvaec::kern::scaleHop(a, kOutGain, rin + kHop * t);
        memmove(a, a + kHop, (kWin - kHop) * sizeof(float));
        memset(a + (kWin - kHop), 0, kHop * sizeof(float));
    }
}
