// Echo estimation and subtraction: every band carries a complex transversal
// filter on its reference history; the estimate of a filter is subtracted
// in place from the microphone sub-band sample, leaving that filter's error.
//
// Layouts (complex values are float pairs, real part first):
//   reference history of band i of strip s: AEC_aiRefSzStrip[s] values at
//     complex index AEC_aiRefOffStrip[s] + i * AEC_aiRefSzStrip[s] of
//     db->pafRef, index 0 newest; sub-sample j of the current frame sits at
//     history index 3 - j.
//   coefficients of band i of strip s: AEC_aiAdfSzStrip[s] values at complex
//     index AEC_aiAdfOffStrip[s] + i * AEC_aiAdfSzStrip[s] of db->pafAdf
//     (fast bank) or db->pafAds (slow bank); tap k multiplies the reference
//     k positions older than the aligned sample.
//   errors: sc->acErrAdf / sc->acErrAds [41 bands][4 sub-samples][re, im].
#include "adf.h"

#include "../core/simd.h"
#include "adf_kern.h"

namespace {

// Strips 19..29 hold two bands each and are the ones the fast filter handles
// here sample by sample; strips 0..18 are handled by the decorrelating update.
constexpr int kFirstPairedStrip = AEC_NSINGLE;
static_assert(kFirstPairedStrip == 19, "paired strips start after the 19 single bands");

// Error of sub-sample j for every band of strips s0..s1-1 with the given bank.
void cancelStrips(const float *refStore, const float *coefStore,
                  float (*err)[AEC_NSUB][2], unsigned j, int s0, int s1) {
    const int aligned = 3 - static_cast<int>(j);
    for (int s = s0; s < s1; ++s) {
        const int refSz = AEC_aiRefSzStrip[s];
        const int adfSz = AEC_aiAdfSzStrip[s];
        for (int i = 0; i < AEC_aiBandsPerStrip[s]; ++i) {
            const int b = AEC_aiBandOffStrip[s] + i;
            const float *ref = refStore + 2 * (AEC_aiRefOffStrip[s] + i * refSz + aligned);
            const float *coef = coefStore + 2 * (AEC_aiAdfOffStrip[s] + i * adfSz);
            aec_cancel_band(ref, coef, err[b][j], adfSz);
        }
    }
}

}  // namespace

// acc = acc - sum_k coef[k] * ref[k] (plain complex product, no conjugate),
// over the first 4 * (len >> 2) taps only: a tail of fewer than four taps is
// ignored on purpose, and len < 4 leaves acc untouched.
//
// Per group of four taps the products p0..p3 are summed as (p0 + p2) +
// (p1 + p3), then that group sum is subtracted from the accumulator, real
// and imaginary part alike, before the next group is started. (Subtracting
// the group sum of the real parts is the same as adding the group sum of the
// negated real products; both give acc - y.)
void aec_cancel_band(const float *ref, const float *coef, float *acc, int32_t len) {
    const int32_t groups = len >> 2;
#if KVAEC_SIMD_SSE2
    if (kvaec::simd::vectorOn()) {
        kvaec::kern::cancelBandVec(ref, coef, acc, groups);
        return;
    }
#elif KVAEC_SIMD_NEON
    if (kvaec::simd::vectorOn()) {
        kvaec::kern::cancelBandNeon(ref, coef, acc, groups);
        return;
    }
#endif
    kvaec::kern::cancelBandScalar(ref, coef, acc, groups);
}

// Scalar reference of the kernel (always built; the vector kernels must
// match it bit for bit).
void kvaec::kern::cancelBandScalar(const float *ref, const float *coef, float *acc, int32_t groups) {
    float accRe = acc[0];
    float accIm = acc[1];
    for (int32_t g = 0; g < groups; ++g) {
        const float *c = coef + 8 * g;
        const float *r = ref + 8 * g;
        float pr[4];
        float pi[4];
        for (int k = 0; k < 4; ++k) {
            const float cr = c[2 * k];
            const float ci = c[2 * k + 1];
            const float rr = r[2 * k];
            const float ri = r[2 * k + 1];
            pr[k] = cr * rr - ci * ri;
            pi[k] = cr * ri + ci * rr;
        }
        const float sumRe = (pr[0] + pr[2]) + (pr[1] + pr[3]);
        const float sumIm = (pi[0] + pi[2]) + (pi[1] + pi[3]);
        accRe = accRe - sumRe;
        accIm = accIm - sumIm;
    }
    acc[0] = accRe;
    acc[1] = accIm;
}

// Slow bank, all bands: the four errors of the frame are formed with the
// coefficients left by the previous frame (block adaptation), sub-sample 0
// first, bands in increasing order.
//
// The errors are independent of one another (each reads the history and the
// coefficients, which nothing here changes, and writes only its own value),
// so the AVX2 path forms the four sub-samples of a band together.
void aec_cancel_slow(AEC_tDb *db, AEC_tSc *sc) {
#if KVAEC_SIMD_SSE2
    if (kvaec::simd::vectorOn() && kvaec::simd::avx2On()) {
        for (int s = 0; s < AEC_NSTRIPS; ++s) {
            const int refSz = AEC_aiRefSzStrip[s];
            const int adfSz = AEC_aiAdfSzStrip[s];
            for (int i = 0; i < AEC_aiBandsPerStrip[s]; ++i) {
                const int b = AEC_aiBandOffStrip[s] + i;
                const float *ref = db->pafRef + 2 * (AEC_aiRefOffStrip[s] + i * refSz);
                const float *coef = db->pafAds + 2 * (AEC_aiAdfOffStrip[s] + i * adfSz);
                kvaec::kern::cancelBand4Avx2(ref, coef, sc->acErrAds[b], adfSz >> 2);
            }
        }
        return;
    }
#endif
    for (unsigned j = 0; j < AEC_NSUB; ++j)
        cancelStrips(db->pafRef, db->pafAds, sc->acErrAds, j, 0, AEC_NSTRIPS);
}

// Fast bank, bands of strips 19..29, sub-sample j only. Runs between the
// per-sub-sample updates, so the error of sub-sample j already sees the
// updates of sub-samples 0..j-1 of the same frame.
void aec_cancel_reg2(AEC_tDb *db, AEC_tSc *sc, unsigned j) {
    cancelStrips(db->pafRef, db->pafAdf, sc->acErrAdf, j, kFirstPairedStrip, AEC_NSTRIPS);
}
