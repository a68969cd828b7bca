// SSE2 kernel of the echo estimate (x86-64). Same arithmetic as
// kvaec::kern::cancelBandScalar, lane by lane.
#include "../core/simd.h"

#if KVAEC_SIMD_SSE2
#include <emmintrin.h>

#include "adf_kern.h"

namespace kvaec::kern {

// Per group of four taps: de-interleave coefficients and references into
// real and imaginary vectors, form the four complex products, reduce them as
// (p0 + p2) + (p1 + p3) and subtract the group sum from the accumulator.
// The accumulator vector holds (re, -, im, -): lanes 0 and 2 carry the
// result, lanes 1 and 3 are never read.
void cancelBandSse2(const float *ref, const float *coef, float *acc, int32_t groups) {
    __m128 a = _mm_setr_ps(acc[0], 0.0f, acc[1], 0.0f);
    for (int32_t g = 0; g < groups; ++g) {
        const float *c = coef + 8 * g;
        const float *r = ref + 8 * g;
        const __m128 c01 = _mm_loadu_ps(c);
        const __m128 c23 = _mm_loadu_ps(c + 4);
        const __m128 r01 = _mm_loadu_ps(r);
        const __m128 r23 = _mm_loadu_ps(r + 4);
        const __m128 cr = _mm_shuffle_ps(c01, c23, _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 ci = _mm_shuffle_ps(c01, c23, _MM_SHUFFLE(3, 1, 3, 1));
        const __m128 rr = _mm_shuffle_ps(r01, r23, _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 ri = _mm_shuffle_ps(r01, r23, _MM_SHUFFLE(3, 1, 3, 1));
        // pr = cr rr - ci ri, pi = cr ri + ci rr
        const __m128 pr = _mm_sub_ps(_mm_mul_ps(cr, rr), _mm_mul_ps(ci, ri));
        const __m128 pi = _mm_add_ps(_mm_mul_ps(cr, ri), _mm_mul_ps(ci, rr));
        // (pr0, pr1, pi0, pi1) + (pr2, pr3, pi2, pi3)
        const __m128 lo = _mm_shuffle_ps(pr, pi, _MM_SHUFFLE(1, 0, 1, 0));
        const __m128 hi = _mm_shuffle_ps(pr, pi, _MM_SHUFFLE(3, 2, 3, 2));
        const __m128 t = _mm_add_ps(lo, hi);
        // lane 0: (pr0 + pr2) + (pr1 + pr3), lane 2: (pi0 + pi2) + (pi1 + pi3)
        const __m128 s = _mm_add_ps(t, _mm_shuffle_ps(t, t, _MM_SHUFFLE(2, 3, 0, 1)));
        a = _mm_sub_ps(a, s);
    }
    acc[0] = _mm_cvtss_f32(a);
    acc[1] = _mm_cvtss_f32(_mm_movehl_ps(a, a));
}

}  // namespace kvaec::kern

#endif
