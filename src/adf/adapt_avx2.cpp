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

namespace {

// One product term of the block update: (er xr + ei xi, ei xr - er xi) for
// the four complex values at p, with e1 = (er, ei, ...), e2 = (ei, er, ...).
KVAEC_AVX2 inline __m256 blockTerm(__m256 e1, __m256 e2, const float *p) {
    const __m256 xv = _mm256_loadu_ps(p);
    return addReSubIm(_mm256_mul_ps(e1, _mm256_moveldup_ps(xv)), _mm256_mul_ps(e2, _mm256_movehdup_ps(xv)));
}

// (e[0], e[1], e[0], e[1], ...) and the same with the parts swapped.
KVAEC_AVX2 inline __m256 pairs(const float *e) { return _mm256_setr_ps(e[0], e[1], e[0], e[1], e[0], e[1], e[0], e[1]); }
KVAEC_AVX2 inline __m256 pairsSwapped(const float *e) {
    return _mm256_setr_ps(e[1], e[0], e[1], e[0], e[1], e[0], e[1], e[0]);
}

}  // namespace

// c[k] += sum_j (er xr + ei xi, ei xr - er xi) with x = x[k + 3 - j], j
// increasing from the first product; every e[j] tapered after each group.
// The four sub-samples are written out (j = 0..3) so that the steps stay in
// registers.
KVAEC_AVX2 void blockUpdateAvx2(float *c, const float *x, float (*e)[2], int groups, float taper) {
    __m256 a0 = pairs(e[0]), b0 = pairsSwapped(e[0]);
    __m256 a1 = pairs(e[1]), b1 = pairsSwapped(e[1]);
    __m256 a2 = pairs(e[2]), b2 = pairsSwapped(e[2]);
    __m256 a3 = pairs(e[3]), b3 = pairsSwapped(e[3]);
    const __m256 t = _mm256_set1_ps(taper);
    for (int g = 0; g < groups; ++g) {
        const float *xg = x + 8 * g;
        __m256 sum = blockTerm(a0, b0, xg + 6);
        sum = _mm256_add_ps(sum, blockTerm(a1, b1, xg + 4));
        sum = _mm256_add_ps(sum, blockTerm(a2, b2, xg + 2));
        sum = _mm256_add_ps(sum, blockTerm(a3, b3, xg));
        _mm256_storeu_ps(c + 8 * g, _mm256_add_ps(_mm256_loadu_ps(c + 8 * g), sum));
        a0 = _mm256_mul_ps(t, a0);
        b0 = _mm256_mul_ps(t, b0);
        a1 = _mm256_mul_ps(t, a1);
        b1 = _mm256_mul_ps(t, b1);
        a2 = _mm256_mul_ps(t, a2);
        b2 = _mm256_mul_ps(t, b2);
        a3 = _mm256_mul_ps(t, a3);
        b3 = _mm256_mul_ps(t, b3);
    }
    // The tapered steps go back as the reference leaves them: lanes 0, 1 of
    // each a hold (er, ei).
    _mm_storel_pi(reinterpret_cast<__m64 *>(e[0]), _mm256_castps256_ps128(a0));
    _mm_storel_pi(reinterpret_cast<__m64 *>(e[1]), _mm256_castps256_ps128(a1));
    _mm_storel_pi(reinterpret_cast<__m64 *>(e[2]), _mm256_castps256_ps128(a2));
    _mm_storel_pi(reinterpret_cast<__m64 *>(e[3]), _mm256_castps256_ps128(a3));
}

namespace {

// (ar xr - ai xi, ar xi + ai xr) for the four complex values at p.
KVAEC_AVX2 inline __m256 plainProduct(__m256 ar, __m256 ai, const float *p) {
    return _mm256_addsub_ps(_mm256_mul_ps(ar, _mm256_loadu_ps(p)), _mm256_mul_ps(ai, loadSwapped(p)));
}

}  // namespace

// w[k] = sum_m (ar xr - ai xi, ar xi + ai xr) with x = x[k + m], m
// increasing from the first product; four positions per vector.
KVAEC_AVX2 void whitenAvx2(const float (*a)[2], const float *x, float (*w)[2], int groups) {
    const __m256 ar0 = _mm256_set1_ps(a[0][0]), ai0 = _mm256_set1_ps(a[0][1]);
    const __m256 ar1 = _mm256_set1_ps(a[1][0]), ai1 = _mm256_set1_ps(a[1][1]);
    const __m256 ar2 = _mm256_set1_ps(a[2][0]), ai2 = _mm256_set1_ps(a[2][1]);
    const __m256 ar3 = _mm256_set1_ps(a[3][0]), ai3 = _mm256_set1_ps(a[3][1]);
    for (int g = 0; g < groups; ++g) {
        const float *p = x + 8 * g;
        __m256 sum = plainProduct(ar0, ai0, p);
        sum = _mm256_add_ps(sum, plainProduct(ar1, ai1, p + 2));
        sum = _mm256_add_ps(sum, plainProduct(ar2, ai2, p + 4));
        sum = _mm256_add_ps(sum, plainProduct(ar3, ai3, p + 6));
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
        const float *c = coef + 8 * g;
        const float *r = ref + 8 * g;
        // (cr rr, cr ri) and (ci ri, ci rr), tap k at c + 2 k, r + 2 k
        const __m256 p0 = plainProduct(_mm256_broadcast_ss(c), _mm256_broadcast_ss(c + 1), r);
        const __m256 p1 = plainProduct(_mm256_broadcast_ss(c + 2), _mm256_broadcast_ss(c + 3), r + 2);
        const __m256 p2 = plainProduct(_mm256_broadcast_ss(c + 4), _mm256_broadcast_ss(c + 5), r + 4);
        const __m256 p3 = plainProduct(_mm256_broadcast_ss(c + 6), _mm256_broadcast_ss(c + 7), r + 6);
        a = _mm256_sub_ps(a, _mm256_add_ps(_mm256_add_ps(p0, p2), _mm256_add_ps(p1, p3)));
    }
    _mm256_storeu_ps(&acc[0][0], _mm256_permutevar8x32_ps(a, rev));
}

}  // namespace kvaec::kern

#endif
