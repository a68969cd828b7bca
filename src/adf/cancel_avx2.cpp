// AVX2 kernel of the echo estimate (x86-64, selected at run time when the
// processor and the operating system support AVX2). Same arithmetic as
// kvaec::kern::cancelBandScalar: 256-bit vectors hold two groups of four
// taps, so the products of two groups are formed at once; the group sums
// are still reduced as (p0 + p2) + (p1 + p3) and subtracted from the
// accumulator one group after the other, in order. No fused multiply-add
// (the function is compiled for AVX2 only, not FMA, and with
// -ffp-contract=off).
#include "../core/simd.h"

#if KVAEC_SIMD_SSE2
#include <immintrin.h>

#include "adf_kern.h"

namespace kvaec::kern {

__attribute__((target("avx2"))) void cancelBandAvx2(const float *ref, const float *coef, float *acc,
                                                    int32_t groups) {
    // Accumulator lanes (re, -, im, -) as in the SSE2 kernel.
    __m128 a = _mm_setr_ps(acc[0], 0.0f, acc[1], 0.0f);
    int32_t g = 0;
    for (; g + 2 <= groups; g += 2) {
        // Group A = taps 0..3 of group g, B = those of group g + 1.
        const __m256 cA = _mm256_loadu_ps(coef + 8 * g);
        const __m256 cB = _mm256_loadu_ps(coef + 8 * g + 8);
        const __m256 rA = _mm256_loadu_ps(ref + 8 * g);
        const __m256 rB = _mm256_loadu_ps(ref + 8 * g + 8);
        // Per 128-bit half: low (A0, A1, B0, B1), high (A2, A3, B2, B3).
        const __m256 cr = _mm256_shuffle_ps(cA, cB, _MM_SHUFFLE(2, 0, 2, 0));
        const __m256 ci = _mm256_shuffle_ps(cA, cB, _MM_SHUFFLE(3, 1, 3, 1));
        const __m256 rr = _mm256_shuffle_ps(rA, rB, _MM_SHUFFLE(2, 0, 2, 0));
        const __m256 ri = _mm256_shuffle_ps(rA, rB, _MM_SHUFFLE(3, 1, 3, 1));
        // pr = cr rr - ci ri, pi = cr ri + ci rr
        const __m256 pr = _mm256_sub_ps(_mm256_mul_ps(cr, rr), _mm256_mul_ps(ci, ri));
        const __m256 pi = _mm256_add_ps(_mm256_mul_ps(cr, ri), _mm256_mul_ps(ci, rr));
        // low + high = (A0 + A2, A1 + A3, B0 + B2, B1 + B3)
        const __m128 sr = _mm_add_ps(_mm256_castps256_ps128(pr), _mm256_extractf128_ps(pr, 1));
        const __m128 si = _mm_add_ps(_mm256_castps256_ps128(pi), _mm256_extractf128_ps(pi, 1));
        // (A re, B re, A im, B im), each (p0 + p2) + (p1 + p3)
        const __m128 e = _mm_shuffle_ps(sr, si, _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 o = _mm_shuffle_ps(sr, si, _MM_SHUFFLE(3, 1, 3, 1));
        const __m128 s = _mm_add_ps(e, o);
        // Group A (lanes 0, 2) first, then group B (moved to lanes 0, 2).
        a = _mm_sub_ps(a, s);
        a = _mm_sub_ps(a, _mm_shuffle_ps(s, s, _MM_SHUFFLE(3, 3, 1, 1)));
    }
    acc[0] = _mm_cvtss_f32(a);
    acc[1] = _mm_cvtss_f32(_mm_movehl_ps(a, a));
    // An odd last group takes the four-lane kernel.
    if (g < groups) cancelBandSse2(ref + 8 * g, coef + 8 * g, acc, groups - g);
}

}  // namespace kvaec::kern

#endif
