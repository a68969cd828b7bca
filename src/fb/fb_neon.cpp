// AArch64 NEON kernels of the filter-bank window loops and of the transform
// steps. Each reproduces its scalar reference (fb_kern.h) lane by lane: the
// same products and sums in the same order, never a fused multiply-add
// (separate vmulq/vaddq, built with -ffp-contract=off). AArch64 NEON
// arithmetic is IEEE single precision including subnormal numbers, so the
// results are bit-identical to the scalar code; 32-bit ARM NEON flushes
// subnormals and is not used.
#include "../core/simd.h"

#if KVAEC_SIMD_NEON
#include <arm_neon.h>

#include "fb_kern.h"

namespace kvaec::kern {

namespace {

// Sign bit in the imaginary (odd) or real (even) lanes of two interleaved
// complex values.
inline float32x4_t flipIm(float32x4_t v) {
    const uint32x4_t m = {0u, 0x80000000u, 0u, 0x80000000u};
    return vreinterpretq_f32_u32(veorq_u32(vreinterpretq_u32_f32(v), m));
}
inline float32x4_t flipRe(float32x4_t v) {
    const uint32x4_t m = {0x80000000u, 0u, 0x80000000u, 0u};
    return vreinterpretq_f32_u32(veorq_u32(vreinterpretq_u32_f32(v), m));
}

// (a0, a1, a2, a3) -> (a3, a2, a1, a0)
inline float32x4_t reverse(float32x4_t v) {
    const float32x4_t r = vrev64q_f32(v);
    return vextq_f32(r, r, 2);
}

}  // namespace

void fold3Neon(const float *w, const float *d, float *u) {
    for (int i = 0; i < kFbFold; i += 4) {
        const float32x4_t p0 = vmulq_f32(vld1q_f32(w + i), vld1q_f32(d + i));
        const float32x4_t p1 = vmulq_f32(vld1q_f32(w + i + 80), vld1q_f32(d + i + 80));
        const float32x4_t p2 = vmulq_f32(vld1q_f32(w + i + 160), vld1q_f32(d + i + 160));
        vst1q_f32(u + i, vaddq_f32(vaddq_f32(p0, p1), p2));
    }
}

void fold6Neon(const float *w, const float *d, float *u) {
    for (int i = 0; i < kFbFold; i += 4) {
        float32x4_t s = vdupq_n_f32(0.0f);
        for (int m = 0; m < 6; ++m) {
            s = vaddq_f32(s, vmulq_f32(vld1q_f32(w + i + 80 * m), vld1q_f32(d + i + 80 * m)));
        }
        vst1q_f32(u + i, s);
    }
}

void overlapAdd3Neon(float *a, const float *y, const float *g) {
    for (int i = 0; i < kFbFold; i += 4) {
        const float32x4_t v = vld1q_f32(y + i);
        for (int m = 0; m < 3; ++m) {
            float *am = a + i + 80 * m;
            vst1q_f32(am, vaddq_f32(vld1q_f32(am), vmulq_f32(v, vld1q_f32(g + i + 80 * m))));
        }
    }
}

void scaleHopNeon(const float *a, float gain, float *out) {
    const float32x4_t k = vdupq_n_f32(gain);
    for (int i = 0; i < kFbHop; i += 4) vst1q_f32(out + i, vmulq_f32(vld1q_f32(a + i), k));
}

// As the SSE2 kernel: two columns per vector (re, im, re, im); the sine
// products carry -j (swap the parts, negate the new imaginary part).
void dft5x4Neon(const float *x, int is, float *y, int os, bool inverse) {
    const float32x4_t c1 = vdupq_n_f32(-1.25f);
    const float32x4_t c2 = vdupq_n_f32(0.559017f);
    const float32x4_t s1 = vdupq_n_f32(0.95105654f);
    const float32x4_t s2 = vdupq_n_f32(1.5388417f);
    const float32x4_t s3 = vdupq_n_f32(-0.36327127f);
    const int k1 = (inverse ? 4 : 1) * os, k2 = (inverse ? 3 : 2) * os;
    const int k3 = (inverse ? 2 : 3) * os, k4 = (inverse ? 1 : 4) * os;
    for (int h = 0; h < 8; h += 4) {
        const float32x4_t a0 = vld1q_f32(x + h);
        const float32x4_t a1 = vld1q_f32(x + is + h);
        const float32x4_t a2 = vld1q_f32(x + 2 * is + h);
        const float32x4_t a3 = vld1q_f32(x + 3 * is + h);
        const float32x4_t a4 = vld1q_f32(x + 4 * is + h);

        const float32x4_t t1 = vaddq_f32(a1, a4);
        const float32x4_t t2 = vaddq_f32(a2, a3);
        const float32x4_t t3 = vsubq_f32(a1, a4);
        const float32x4_t t4 = vsubq_f32(a3, a2);
        const float32x4_t t5 = vaddq_f32(t1, t2);

        const float32x4_t x0 = vaddq_f32(a0, t5);
        const float32x4_t m1 = vmulq_f32(c1, t5);
        const float32x4_t m2 = vmulq_f32(c2, vsubq_f32(t1, t2));
        const float32x4_t m3 = flipIm(vrev64q_f32(vmulq_f32(s1, vaddq_f32(t3, t4))));
        const float32x4_t m4 = flipIm(vrev64q_f32(vmulq_f32(s2, t4)));
        const float32x4_t m5 = flipIm(vrev64q_f32(vmulq_f32(s3, t3)));

        const float32x4_t q1 = vaddq_f32(x0, m1);
        const float32x4_t q2 = vaddq_f32(q1, m2);
        const float32x4_t q4 = vsubq_f32(q1, m2);
        const float32x4_t q3 = vsubq_f32(m3, m4);
        const float32x4_t q5 = vaddq_f32(m3, m5);

        vst1q_f32(y + h, x0);
        vst1q_f32(y + k1 + h, vaddq_f32(q2, q3));
        vst1q_f32(y + k2 + h, vaddq_f32(q4, q5));
        vst1q_f32(y + k3 + h, vsubq_f32(q4, q5));
        vst1q_f32(y + k4 + h, vsubq_f32(q2, q3));
    }
}

// P = (c re, c im), Q = (s im, s re); forward: P + Q with the real lanes of
// Q negated, inverse: with the imaginary lanes negated.
void twiddleNeon(float *row, const float (*tw)[2], int n, bool inverse) {
    for (int q = 0; q < n; q += 2) {
        const float32x4_t v = vld1q_f32(row + 2 * q);
        const float32x4_t t = vld1q_f32(&tw[q][0]);  // (c0, s0, c1, s1)
        const float32x4_t c = vtrn1q_f32(t, t);
        const float32x4_t s = vtrn2q_f32(t, t);
        const float32x4_t p = vmulq_f32(c, v);
        const float32x4_t qv = vmulq_f32(s, vrev64q_f32(v));
        vst1q_f32(row + 2 * q, vaddq_f32(p, inverse ? flipIm(qv) : flipRe(qv)));
    }
}

void rfftSplitNeon(const float *z, const float (*split)[4], float *out, int stride) {
    for (int k = 0; k < 40; k += 4) {
        const float32x4x2_t zz = vld2q_f32(z + 2 * k);
        const float32x4x2_t cc = vld2q_f32(z + 2 * (37 - k));  // lanes 37-k .. 40-k
        const float32x4_t zr = zz.val[0], zi = zz.val[1];
        const float32x4_t cr = reverse(cc.val[0]), ci = reverse(cc.val[1]);
        const float32x4x4_t t = vld4q_f32(split[k]);
        const float32x4_t ar = t.val[0], ai = t.val[1], br = t.val[2], bi = t.val[3];
        const float32x4_t re =
            vsubq_f32(vaddq_f32(vaddq_f32(vmulq_f32(cr, br), vmulq_f32(zr, ar)), vmulq_f32(ci, bi)),
                      vmulq_f32(zi, ai));
        const float32x4_t im =
            vsubq_f32(vaddq_f32(vaddq_f32(vmulq_f32(zr, ai), vmulq_f32(ar, zi)), vmulq_f32(cr, bi)),
                      vmulq_f32(br, ci));
        if (stride == 1) {
            vst2q_f32(out + 2 * k, (float32x4x2_t{{re, im}}));
        } else {
            const float32x4_t o01 = vzip1q_f32(re, im);
            const float32x4_t o23 = vzip2q_f32(re, im);
            vst1_f32(out + 2 * k * stride, vget_low_f32(o01));
            vst1_f32(out + 2 * (k + 1) * stride, vget_high_f32(o01));
            vst1_f32(out + 2 * (k + 2) * stride, vget_low_f32(o23));
            vst1_f32(out + 2 * (k + 3) * stride, vget_high_f32(o23));
        }
    }
}

void rifftSplitNeon(const float *in, const float (*split)[4], float *out) {
    for (int k = 0; k < 40; k += 4) {
        const float32x4_t x01 = vcombine_f32(vld1_f32(in + 8 * k), vld1_f32(in + 8 * (k + 1)));
        const float32x4_t x23 = vcombine_f32(vld1_f32(in + 8 * (k + 2)), vld1_f32(in + 8 * (k + 3)));
        const float32x4_t c01 = vcombine_f32(vld1_f32(in + 8 * (40 - k)), vld1_f32(in + 8 * (39 - k)));
        const float32x4_t c23 = vcombine_f32(vld1_f32(in + 8 * (38 - k)), vld1_f32(in + 8 * (37 - k)));
        const float32x4_t xr = vuzp1q_f32(x01, x23), xi = vuzp2q_f32(x01, x23);
        const float32x4_t cr = vuzp1q_f32(c01, c23), ci = vuzp2q_f32(c01, c23);
        const float32x4x4_t t = vld4q_f32(split[k]);
        const float32x4_t ar = t.val[0], ai = t.val[1], br = t.val[2], bi = t.val[3];
        const float32x4_t re = vaddq_f32(vaddq_f32(vmulq_f32(xr, ar), vmulq_f32(xi, ai)),
                                         vsubq_f32(vmulq_f32(cr, br), vmulq_f32(ci, bi)));
        const float32x4_t im = vsubq_f32(vsubq_f32(vmulq_f32(xi, ar), vmulq_f32(xr, ai)),
                                         vaddq_f32(vmulq_f32(cr, bi), vmulq_f32(ci, br)));
        vst2q_f32(out + 2 * k, (float32x4x2_t{{re, im}}));
    }
}

}  // namespace kvaec::kern

#endif
