// Inner loops of the canceller core, each as a scalar reference and, where
// built, a four-lane vector kernel (SSE2 on x86-64, NEON on AArch64) with
// bit-identical results. Complex data
// is interleaved (re, im); the four-lane kernels load four complex values
// (eight floats), de-interleave them into a vector of four real parts and
// one of four imaginary parts, and re-interleave on store. The AVX2 kernels
// (x86-64, chosen at run time) work on the interleaved data directly, four
// complex values per 256-bit vector (adapt_avx2.cpp, cancel_avx2.cpp).
// Internal to the library (not exported).
#ifndef KVAEC_ADF_KERN_H
#define KVAEC_ADF_KERN_H

#include <cstdint>

#include "../core/simd.h"

namespace kvaec::kern {

// acc -= sum over groups of four taps of coef[k] * ref[k]; per group the
// products are summed (p0 + p2) + (p1 + p3) and subtracted from acc.
void cancelBandScalar(const float *ref, const float *coef, float *acc, int32_t groups);
void cancelBandSse2(const float *ref, const float *coef, float *acc, int32_t groups);
void cancelBandNeon(const float *ref, const float *coef, float *acc, int32_t groups);
// Two groups per 256-bit step, group sums subtracted in order (x86-64 with
// AVX2, chosen at run time by cancelBandVec).
void cancelBandAvx2(const float *ref, const float *coef, float *acc, int32_t groups);

// c[k] += u * conj(r[k]) for the taps of `groups` groups of four, u
// multiplied by `taper` after each group (local copy).
void updateTaperedScalar(float *c, const float *r, float ur, float ui, int groups, float taper);
void updateTaperedSse2(float *c, const float *r, float ur, float ui, int groups, float taper);
void updateTaperedNeon(float *c, const float *r, float ur, float ui, int groups, float taper);
void updateTaperedAvx2(float *c, const float *r, float ur, float ui, int groups, float taper);

// Block update: c[k] += sum_{j=0..3} e[j] * conj(x[k + 3 - j]) (j
// increasing, the first product starting the sum), then every e[j] *= taper
// after each group of four taps, in place.
void blockUpdateScalar(float *c, const float *x, float (*e)[2], int groups, float taper);
void blockUpdateSse2(float *c, const float *x, float (*e)[2], int groups, float taper);
void blockUpdateNeon(float *c, const float *x, float (*e)[2], int groups, float taper);
void blockUpdateAvx2(float *c, const float *x, float (*e)[2], int groups, float taper);

// Four-tap filter along a history: w[k] = a[0] x[k] + a[1] x[k+1] + a[2]
// x[k+2] + a[3] x[k+3] (plain complex products, summed left to right), for
// k = 0 .. 4 * groups - 1.
void whitenScalar(const float (*a)[2], const float *x, float (*w)[2], int groups);
void whitenSse2(const float (*a)[2], const float *x, float (*w)[2], int groups);
void whitenNeon(const float (*a)[2], const float *x, float (*w)[2], int groups);
void whitenAvx2(const float (*a)[2], const float *x, float (*w)[2], int groups);

// The echo estimates of the four sub-samples of one band at once (slow
// bank): for j = 0..3, acc[j] as cancelBandScalar(ref + 2 * (3 - j), coef,
// acc[j], groups) leaves it; ref is the band's history at index 0 (newest).
// Each sub-sample keeps its own order of operations, so the result is the
// four scalar calls' bit for bit.
void cancelBand4Avx2(const float *ref, const float *coef, float (*acc)[2], int32_t groups);

#if KVAEC_SIMD_SSE2
// Vector kernel of the echo estimate for this processor: the AVX2 kernel
// where the processor and operating system support AVX2 (and the AVX2 path
// is not switched off, see kvaec::simd::setAvx2), the SSE2 kernel otherwise.
inline void cancelBandVec(const float *ref, const float *coef, float *acc, int32_t groups) {
    if (simd::avx2On()) {
        cancelBandAvx2(ref, coef, acc, groups);
    } else {
        cancelBandSse2(ref, coef, acc, groups);
    }
}
#endif

}  // namespace kvaec::kern

#endif
