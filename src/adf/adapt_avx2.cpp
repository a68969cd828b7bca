// AVX2 kernels of the coefficient updates, the whitening filter and the
// slow-bank echo estimate (x86-64, chosen at run time where the processor
// and the operating system support AVX2; see kvaec::simd::avx2On).
//
// They work on the interleaved complex data as it is stored (re, im, re, im,
// ...): a 256-bit vector holds four complex values, so no de-interleaving
// shuffles are needed. Every lane performs exactly the operations of the
// scalar reference, with the same operands in the same order:
//   - products whose real and imaginary parts differ in the sign of the
//     second term are formed as first-term and second-term vectors and
//     combined with a lane-wise subtract in one lane and add in the other
//     (_mm256_addsub_ps where the real part subtracts; an add, a subtract
//     and a blend where the imaginary part subtracts), with the operands
//     in the reference's order and never a negated operand in place of a
//     subtraction;
//   - sums keep the reference's association.
// Compiled for AVX2 only (no FMA: the products are rounded before the
// additions, and the project builds with -ffp-contract=off).
#include "../core/simd.h"

#if KVAEC_SIMD_SSE2
#include <immintrin.h>

#include "adf_kern.h"

#define KVAEC_AVX2 __attribute__((target("avx2")))

namespace kvaec::kern {

namespace {

// (a0 + b0, a1 - b1, a2 + b2, ...): real parts add, imaginary parts subtract.
KVAEC_AVX2 inline __m256 addReSubIm(__m256 a, __m256 b) {
    return _mm256_blend_ps(_mm256_add_ps(a, b), _mm256_sub_ps(a, b), 0xAA);
}

// Four interleaved complex values of p with every value's parts swapped.
KVAEC_AVX2 inline __m256 loadSwapped(const float *p) {
    return _mm256_permute_ps(_mm256_loadu_ps(p), _MM_SHUFFLE(2, 3, 0, 1));
}

}  // namespace

// c[k] += (ur xr + ui xi, ui xr - ur xi), k = the four taps of a group, one
// group per vector; u tapered after each group.
KVAEC_AVX2 void updateTaperedAvx2(float *c, const float *r, float ur, float ui, int groups, float taper) {
    // First terms (ur xr, ui xr): (ur, ui) times the real parts; second terms
    // (ui xi, ur xi): (ui, ur) times the imaginary parts.
    __m256 u1 = _mm256_setr_ps(ur, ui, ur, ui, ur, ui, ur, ui);
    __m256 u2 = _mm256_setr_ps(ui, ur, ui, ur, ui, ur, ui, ur);
    const __m256 t = _mm256_set1_ps(taper);
    for (int g = 0; g < groups; ++g) {
        const __m256 x = _mm256_loadu_ps(r + 8 * g);
        const __m256 f = _mm256_mul_ps(u1, _mm256_moveldup_ps(x));
        const __m256 s = _mm256_mul_ps(u2, _mm256_movehdup_ps(x));
        const __m256 cv = _mm256_loadu_ps(c + 8 * g);
        _mm256_storeu_ps(c + 8 * g, _mm256_add_ps(cv, addReSubIm(f, s)));
        // taper * ur and taper * ui, lane by lane
        u1 = _mm256_mul_ps(t, u1);
        u2 = _mm256_mul_ps(t, u2);
    }
}

// c[k] += sum_j (er xr + ei xi, ei xr - er xi) with x = x[k + 3 - j], j
// increasing from the first product; every e[j] tapered after each group.
KVAEC_AVX2 void blockUpdateAvx2(float *c, const float *x, float (*e)[2], int groups, float taper) {
    __m256 e1[4], e2[4];
    for (int j = 0; j < 4; ++j) {
        const float er = e[j][0];
        const float ei = e[j][1];
        e1[j] = _mm256_setr_ps(er, ei, er, ei, er, ei, er, ei);
        e2[j] = _mm256_setr_ps(ei, er, ei, er, ei, er, ei, er);
    }
    const __m256 t = _mm256_set1_ps(taper);
    for (int g = 0; g < groups; ++g) {
        __m256 sum = _mm256_setzero_ps();
        for (int j = 0; j < 4; ++j) {
            const __m256 xv = _mm256_loadu_ps(x + 2 * (4 * g + 3 - j));
            const __m256 f = _mm256_mul_ps(e1[j], _mm256_moveldup_ps(xv));
            const __m256 s = _mm256_mul_ps(e2[j], _mm256_movehdup_ps(xv));
            const __m256 p = addReSubIm(f, s);
            sum = j == 0 ? p : _mm256_add_ps(sum, p);
        }
        const __m256 cv = _mm256_loadu_ps(c + 8 * g);
        _mm256_storeu_ps(c + 8 * g, _mm256_add_ps(cv, sum));
        for (int j = 0; j < 4; ++j) {
            e1[j] = _mm256_mul_ps(t, e1[j]);
            e2[j] = _mm256_mul_ps(t, e2[j]);
        }
    }
    // The tapered steps go back as the reference leaves them: e1 lanes 0, 1
    // hold (er, ei).
    for (int j = 0; j < 4; ++j) {
        alignas(32) float v[8];
        _mm256_store_ps(v, e1[j]);
        e[j][0] = v[0];
        e[j][1] = v[1];
    }
}

// w[k] = sum_m (ar xr - ai xi, ar xi + ai xr) with x = x[k + m], m
// increasing from the first product; four positions per vector.
KVAEC_AVX2 void whitenAvx2(const float (*a)[2], const float *x, float (*w)[2], int groups) {
    __m256 ar[4], ai[4];
    for (int m = 0; m < 4; ++m) {
        ar[m] = _mm256_set1_ps(a[m][0]);
        ai[m] = _mm256_set1_ps(a[m][1]);
    }
    for (int g = 0; g < groups; ++g) {
        __m256 sum = _mm256_setzero_ps();
        for (int m = 0; m < 4; ++m) {
            const float *p = x + 2 * (4 * g + m);
            // (ar xr, ar xi) and (ai xi, ai xr)
            const __m256 f = _mm256_mul_ps(ar[m], _mm256_loadu_ps(p));
            const __m256 s = _mm256_mul_ps(ai[m], loadSwapped(p));
            const __m256 q = _mm256_addsub_ps(f, s);
            sum = m == 0 ? q : _mm256_add_ps(sum, q);
        }
        _mm256_storeu_ps(&w[4 * g][0], sum);
    }
}

// The four sub-samples' echo estimates of one band at once: lane pair l
// (l = 0..3) carries sub-sample j = 3 - l, whose reference starts l values
// into the history, so tap k of all four is one load at history index
// 4 g + k. Per lane, as cancelBandScalar: products (cr rr - ci ri,
// cr ri + ci rr), group sum (p0 + p2) + (p1 + p3), subtracted from the
// accumulator group after group.
KVAEC_AVX2 void cancelBand4Avx2(const float *ref, const float *coef, float (*acc)[2], int32_t groups) {
    // Pair order reversed: acc[3] in lanes 0, 1 ... acc[0] in lanes 6, 7.
    const __m256i rev = _mm256_setr_epi32(6, 7, 4, 5, 2, 3, 0, 1);
    __m256 a = _mm256_permutevar8x32_ps(_mm256_loadu_ps(&acc[0][0]), rev);
    for (int32_t g = 0; g < groups; ++g) {
        __m256 p[4];
        for (int k = 0; k < 4; ++k) {
            const float *c = coef + 2 * (4 * g + k);
            const float *r = ref + 2 * (4 * g + k);
            // (cr rr, cr ri) and (ci ri, ci rr)
            const __m256 f = _mm256_mul_ps(_mm256_broadcast_ss(c), _mm256_loadu_ps(r));
            const __m256 s = _mm256_mul_ps(_mm256_broadcast_ss(c + 1), loadSwapped(r));
            p[k] = _mm256_addsub_ps(f, s);
        }
        a = _mm256_sub_ps(a, _mm256_add_ps(_mm256_add_ps(p[0], p[2]), _mm256_add_ps(p[1], p[3])));
    }
    _mm256_storeu_ps(&acc[0][0], _mm256_permutevar8x32_ps(a, rev));
}

}  // namespace kvaec::kern

#endif
