// SSE2 kernels of the filter-bank window loops and of the transform steps
// (x86-64). Each reproduces its scalar reference (fb_kern.h) lane by lane:
// the same products and sums in the same order, no fused multiply-add.
// Subtraction x - y is written as x + (-y) only where IEEE arithmetic makes
// the two identical (negation flips the sign bit, the sum rounds once).
#include "../core/simd.h"

#if KVAEC_SIMD_SSE2
#include <emmintrin.h>

#include "fb_kern.h"

namespace kvaec::kern {

namespace {

// Sign bit in the lanes that hold real parts (0, 2) or imaginary parts (1, 3)
// of two interleaved complex values.
inline __m128 signRe() { return _mm_castsi128_ps(_mm_setr_epi32(INT32_MIN, 0, INT32_MIN, 0)); }
inline __m128 signIm() { return _mm_castsi128_ps(_mm_setr_epi32(0, INT32_MIN, 0, INT32_MIN)); }

// (re0, im0, re1, im1) -> (im0, re0, im1, re1)
inline __m128 swapReIm(__m128 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 3, 0, 1)); }

// Two complex values from two places: (p[0], p[1], q[0], q[1]).
inline __m128 loadPair(const float *p, const float *q) {
    // movq through an unaligned 64-bit type: p is only float-aligned.
    const __m128 lo = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)));
    return _mm_loadh_pi(lo, reinterpret_cast<const __m64 *>(q));
}

}  // namespace

void fold3Sse2(const float *w, const float *d, float *u) {
    for (int i = 0; i < kFbFold; i += 4) {
        const __m128 p0 = _mm_mul_ps(_mm_loadu_ps(w + i), _mm_loadu_ps(d + i));
        const __m128 p1 = _mm_mul_ps(_mm_loadu_ps(w + i + 80), _mm_loadu_ps(d + i + 80));
        const __m128 p2 = _mm_mul_ps(_mm_loadu_ps(w + i + 160), _mm_loadu_ps(d + i + 160));
        _mm_storeu_ps(u + i, _mm_add_ps(_mm_add_ps(p0, p1), p2));
    }
}

void fold6Sse2(const float *w, const float *d, float *u) {
    for (int i = 0; i < kFbFold; i += 4) {
        __m128 s = _mm_setzero_ps();
        for (int m = 0; m < 6; ++m) {
            s = _mm_add_ps(s, _mm_mul_ps(_mm_loadu_ps(w + i + 80 * m), _mm_loadu_ps(d + i + 80 * m)));
        }
        _mm_storeu_ps(u + i, s);
    }
}

void overlapAdd3Sse2(float *a, const float *y, const float *g) {
    for (int i = 0; i < kFbFold; i += 4) {
        const __m128 v = _mm_loadu_ps(y + i);
        for (int m = 0; m < 3; ++m) {
            float *am = a + i + 80 * m;
            _mm_storeu_ps(am, _mm_add_ps(_mm_loadu_ps(am), _mm_mul_ps(v, _mm_loadu_ps(g + i + 80 * m))));
        }
    }
}

void scaleHopSse2(const float *a, float gain, float *out) {
    const __m128 k = _mm_set1_ps(gain);
    for (int i = 0; i < kFbHop; i += 4) _mm_storeu_ps(out + i, _mm_mul_ps(_mm_loadu_ps(a + i), k));
}

// Five-point kernel on interleaved data: the additions and the real
// constant products treat real and imaginary parts alike, so two columns
// share one vector (re, im, re, im). The sine products carry -j:
// -j (r + j i) = i - j r, i.e. swap the parts and negate the new imaginary.
void dft5x4Sse2(const float *x, int is, float *y, int os, bool inverse) {
    const __m128 c1 = _mm_set1_ps(-1.25f);
    const __m128 c2 = _mm_set1_ps(0.559017f);
    const __m128 s1 = _mm_set1_ps(0.95105654f);
    const __m128 s2 = _mm_set1_ps(1.5388417f);
    const __m128 s3 = _mm_set1_ps(-0.36327127f);
    const __m128 negIm = signIm();
    const int k1 = (inverse ? 4 : 1) * os, k2 = (inverse ? 3 : 2) * os;
    const int k3 = (inverse ? 2 : 3) * os, k4 = (inverse ? 1 : 4) * os;
    for (int h = 0; h < 8; h += 4) {  // columns 0, 1 then 2, 3
        const __m128 a0 = _mm_loadu_ps(x + h);
        const __m128 a1 = _mm_loadu_ps(x + is + h);
        const __m128 a2 = _mm_loadu_ps(x + 2 * is + h);
        const __m128 a3 = _mm_loadu_ps(x + 3 * is + h);
        const __m128 a4 = _mm_loadu_ps(x + 4 * is + h);

        const __m128 t1 = _mm_add_ps(a1, a4);
        const __m128 t2 = _mm_add_ps(a2, a3);
        const __m128 t3 = _mm_sub_ps(a1, a4);
        const __m128 t4 = _mm_sub_ps(a3, a2);
        const __m128 t5 = _mm_add_ps(t1, t2);

        const __m128 x0 = _mm_add_ps(a0, t5);
        const __m128 m1 = _mm_mul_ps(c1, t5);
        const __m128 m2 = _mm_mul_ps(c2, _mm_sub_ps(t1, t2));
        // m3 = (s1 (t3i + t4i), -(s1 (t3r + t4r))), likewise m4 from t4, m5 from t3.
        const __m128 m3 = _mm_xor_ps(swapReIm(_mm_mul_ps(s1, _mm_add_ps(t3, t4))), negIm);
        const __m128 m4 = _mm_xor_ps(swapReIm(_mm_mul_ps(s2, t4)), negIm);
        const __m128 m5 = _mm_xor_ps(swapReIm(_mm_mul_ps(s3, t3)), negIm);

        const __m128 q1 = _mm_add_ps(x0, m1);
        const __m128 q2 = _mm_add_ps(q1, m2);
        const __m128 q4 = _mm_sub_ps(q1, m2);
        const __m128 q3 = _mm_sub_ps(m3, m4);
        const __m128 q5 = _mm_add_ps(m3, m5);

        _mm_storeu_ps(y + h, x0);
        _mm_storeu_ps(y + k1 + h, _mm_add_ps(q2, q3));
        _mm_storeu_ps(y + k2 + h, _mm_add_ps(q4, q5));
        _mm_storeu_ps(y + k3 + h, _mm_sub_ps(q4, q5));
        _mm_storeu_ps(y + k4 + h, _mm_sub_ps(q2, q3));
    }
}

// Two complex values per vector. With P = (c re, c im) and Q = (s im, s re):
// forward (P - Q in the real lanes, Q + P in the imaginary lanes) =
// P + Q with the real lanes of Q negated; inverse: the imaginary lanes negated.
void twiddleSse2(float *row, const float (*tw)[2], int n, bool inverse) {
    const __m128 neg = inverse ? signIm() : signRe();
    for (int q = 0; q < n; q += 2) {
        const __m128 v = _mm_loadu_ps(row + 2 * q);
        const __m128 t = _mm_loadu_ps(&tw[q][0]);  // (c0, s0, c1, s1)
        const __m128 c = _mm_shuffle_ps(t, t, _MM_SHUFFLE(2, 2, 0, 0));
        const __m128 s = _mm_shuffle_ps(t, t, _MM_SHUFFLE(3, 3, 1, 1));
        const __m128 p = _mm_mul_ps(c, v);
        const __m128 qv = _mm_mul_ps(s, swapReIm(v));
        _mm_storeu_ps(row + 2 * q, _mm_add_ps(p, _mm_xor_ps(qv, neg)));
    }
}

// Four bins per step: Z[k..k+3] and Z[40-k..37-k] de-interleaved into real
// and imaginary vectors, the four table rows transposed into Ar, Ai, Br, Bi.
void rfftSplitSse2(const float *z, const float (*split)[4], float *out, int stride) {
    for (int k = 0; k < 40; k += 4) {
        const __m128 z01 = _mm_loadu_ps(z + 2 * k);
        const __m128 z23 = _mm_loadu_ps(z + 2 * k + 4);
        const __m128 zr = _mm_shuffle_ps(z01, z23, _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 zi = _mm_shuffle_ps(z01, z23, _MM_SHUFFLE(3, 1, 3, 1));
        // Z[37-k], Z[38-k] | Z[39-k], Z[40-k] -> lanes 40-k, 39-k, 38-k, 37-k
        const __m128 lo = _mm_loadu_ps(z + 2 * (37 - k));
        const __m128 hi = _mm_loadu_ps(z + 2 * (37 - k) + 4);
        const __m128 cr = _mm_shuffle_ps(hi, lo, _MM_SHUFFLE(0, 2, 0, 2));
        const __m128 ci = _mm_shuffle_ps(hi, lo, _MM_SHUFFLE(1, 3, 1, 3));
        __m128 ar = _mm_loadu_ps(split[k]);
        __m128 ai = _mm_loadu_ps(split[k + 1]);
        __m128 br = _mm_loadu_ps(split[k + 2]);
        __m128 bi = _mm_loadu_ps(split[k + 3]);
        _MM_TRANSPOSE4_PS(ar, ai, br, bi);
        const __m128 re = _mm_sub_ps(
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(cr, br), _mm_mul_ps(zr, ar)), _mm_mul_ps(ci, bi)),
            _mm_mul_ps(zi, ai));
        const __m128 im = _mm_sub_ps(
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(zr, ai), _mm_mul_ps(ar, zi)), _mm_mul_ps(cr, bi)),
            _mm_mul_ps(br, ci));
        const __m128 o01 = _mm_unpacklo_ps(re, im);
        const __m128 o23 = _mm_unpackhi_ps(re, im);
        if (stride == 1) {
            _mm_storeu_ps(out + 2 * k, o01);
            _mm_storeu_ps(out + 2 * k + 4, o23);
        } else {
            _mm_storel_pi(reinterpret_cast<__m64 *>(out + 2 * k * stride), o01);
            _mm_storeh_pi(reinterpret_cast<__m64 *>(out + 2 * (k + 1) * stride), o01);
            _mm_storel_pi(reinterpret_cast<__m64 *>(out + 2 * (k + 2) * stride), o23);
            _mm_storeh_pi(reinterpret_cast<__m64 *>(out + 2 * (k + 3) * stride), o23);
        }
    }
}

void rifftSplitSse2(const float *in, const float (*split)[4], float *out) {
    for (int k = 0; k < 40; k += 4) {
        const __m128 x01 = loadPair(in + 8 * k, in + 8 * (k + 1));
        const __m128 x23 = loadPair(in + 8 * (k + 2), in + 8 * (k + 3));
        const __m128 c01 = loadPair(in + 8 * (40 - k), in + 8 * (39 - k));
        const __m128 c23 = loadPair(in + 8 * (38 - k), in + 8 * (37 - k));
        const __m128 xr = _mm_shuffle_ps(x01, x23, _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 xi = _mm_shuffle_ps(x01, x23, _MM_SHUFFLE(3, 1, 3, 1));
        const __m128 cr = _mm_shuffle_ps(c01, c23, _MM_SHUFFLE(2, 0, 2, 0));
        const __m128 ci = _mm_shuffle_ps(c01, c23, _MM_SHUFFLE(3, 1, 3, 1));
        __m128 ar = _mm_loadu_ps(split[k]);
        __m128 ai = _mm_loadu_ps(split[k + 1]);
        __m128 br = _mm_loadu_ps(split[k + 2]);
        __m128 bi = _mm_loadu_ps(split[k + 3]);
        _MM_TRANSPOSE4_PS(ar, ai, br, bi);
        const __m128 re = _mm_add_ps(_mm_add_ps(_mm_mul_ps(xr, ar), _mm_mul_ps(xi, ai)),
                                     _mm_sub_ps(_mm_mul_ps(cr, br), _mm_mul_ps(ci, bi)));
        const __m128 im = _mm_sub_ps(_mm_sub_ps(_mm_mul_ps(xi, ar), _mm_mul_ps(xr, ai)),
                                     _mm_add_ps(_mm_mul_ps(cr, bi), _mm_mul_ps(ci, br)));
        _mm_storeu_ps(out + 2 * k, _mm_unpacklo_ps(re, im));
        _mm_storeu_ps(out + 2 * k + 4, _mm_unpackhi_ps(re, im));
    }
}

}  // namespace kvaec::kern

#endif
