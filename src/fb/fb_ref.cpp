// Reference analysis: the outgoing receive signal, analysed with a 480-tap
// window (folded six times) into the newest four positions of every band's
// reference history row.
//
//   afRefAnaHist[480]  delay line of the outgoing signal, oldest at index 0
//   afFbTime[80]       folded block
//   acErrAds[b][0]     borrowed: bin b of the current block (the send path is
//                      done with this frame by now; its contents are garbage
//                      afterwards)
//   AEC_afRef          complex history rows, position 0 = newest sub-sample:
//                      row of band j of strip s starts at complex index
//                      AEC_aiRefOffStrip[s] + j * AEC_aiRefSzStrip[s]
#include "fb.h"
#include "fb_kern.h"
#include <string.h>

namespace {

constexpr int kHop = 40;
constexpr int kFft = 80;
constexpr int kWin = 480;
static_assert(kWin == 6 * kFft, "the reference window folds by six");
static_assert(sizeof(((AEC_tDb *)nullptr)->afRefAnaHist) == kWin * sizeof(float), "history length");

}  // namespace

void aec_fb_ref_analysis(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    float *d = db->afRefAnaHist;
    const float *w = aecfb_afRefAnaWin;
    float *u = sc->afFbTime;
    float *ref = db->pafRef;
    const float *bins = &sc->acErrAds[0][0][0];   // bin b at bins + 2 * AEC_NSUB * b
    for (int t = 0; t < AEC_NSUB; t++) {
        memmove(d, d + kHop, (kWin - kHop) * sizeof(float));
        memcpy(d + (kWin - kHop), rin + kHop * t, kHop * sizeof(float));
        // u[i] = sum over m = 0..5 of w[i + 80 m] d[i + 80 m], oldest segment first.
        kvaec::kern::fold6(w, d, u);
        aecfb_rfft(u, &sc->acErrAds[0][0][0], sc->afFbWork, AEC_NSUB);
        // Block 3 (newest) goes to position 0 of each row, block 0 to position 3.
        const int pos = (AEC_NSUB - 1) - t;
        for (int s = 0; s < AEC_NSTRIPS; s++) {
            const int b0 = AEC_aiBandOffStrip[s];
            for (int j = 0; j < AEC_aiBandsPerStrip[s]; j++) {
                const int k = AEC_aiRefOffStrip[s] + j * AEC_aiRefSzStrip[s] + pos;
                ref[2 * k] = bins[2 * AEC_NSUB * (b0 + j)];
                ref[2 * k + 1] = bins[2 * AEC_NSUB * (b0 + j) + 1];
            }
        }
    }
}

// Scalar reference of the six-segment fold (the vector kernels reproduce it
// lane by lane, starting every sum at +0 as here).
static_assert(kvaec::kern::kFbFold == kFft && kvaec::kern::kFbWin6 == kWin, "kernel lengths match the window");

void kvaec::kern::fold6Scalar(const float *w, const float *d, float *u) {
    for (int i = 0; i < kFft; i++) {
        float s = 0.0f;
        for (int m = 0; m < 6; m++) {
            s += w[i + 80 * m] * d[i + 80 * m];
        }
        u[i] = s;
    }
}
