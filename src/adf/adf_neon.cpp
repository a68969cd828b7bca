// AArch64 NEON kernels of the echo estimate and of the coefficient updates.
// Each computes, lane by lane, exactly the operations of its scalar
// reference (cancel.cpp, adapt.cpp): separate multiplies and adds (built
// with -ffp-contract=off, no fused multiply-add), the same summation order.
// AArch64 NEON arithmetic is IEEE single precision including subnormals.
#include "../core/simd.h"

#if KVAEC_SIMD_NEON
#include <arm_neon.h>

#include "adf_kern.h"

namespace kvaec::kern {

// Per group: four complex products, reduced as (p0 + p2) + (p1 + p3) and
// subtracted from the accumulator.
void cancelBandNeon(const float *ref, const float *coef, float *acc, int32_t groups) {
    float accRe = acc[0];
    float accIm = acc[1];
    for (int32_t g = 0; g < groups; ++g) {
        const float32x4x2_t c = vld2q_f32(coef + 8 * g);
        const float32x4x2_t r = vld2q_f32(ref + 8 * g);
        const float32x4_t pr = vsubq_f32(vmulq_f32(c.val[0], r.val[0]), vmulq_f32(c.val[1], r.val[1]));
        const float32x4_t pi = vaddq_f32(vmulq_f32(c.val[0], r.val[1]), vmulq_f32(c.val[1], r.val[0]));
        // (p0 + p2, p1 + p3), then the pair summed
        const float32x2_t tr = vadd_f32(vget_low_f32(pr), vget_high_f32(pr));
        const float32x2_t ti = vadd_f32(vget_low_f32(pi), vget_high_f32(pi));
        const float32x2_t s = vpadd_f32(tr, ti);  // (sumRe, sumIm)
        accRe = accRe - vget_lane_f32(s, 0);
        accIm = accIm - vget_lane_f32(s, 1);
    }
    acc[0] = accRe;
    acc[1] = accIm;
}

void updateTaperedNeon(float *c, const float *r, float ur, float ui, int groups, float taper) {
    for (int g = 0; g < groups; ++g) {
        const float32x4_t vur = vdupq_n_f32(ur);
        const float32x4_t vui = vdupq_n_f32(ui);
        float32x4x2_t cc = vld2q_f32(c + 8 * g);
        const float32x4x2_t x = vld2q_f32(r + 8 * g);
        // c.re + (ur xr + ui xi), c.im + (ui xr - ur xi)
        cc.val[0] = vaddq_f32(cc.val[0], vaddq_f32(vmulq_f32(vur, x.val[0]), vmulq_f32(vui, x.val[1])));
        cc.val[1] = vaddq_f32(cc.val[1], vsubq_f32(vmulq_f32(vui, x.val[0]), vmulq_f32(vur, x.val[1])));
        vst2q_f32(c + 8 * g, cc);
        ur = taper * ur;
        ui = taper * ui;
    }
}

void blockUpdateNeon(float *c, const float *x, float (*e)[2], int groups, float taper) {
    float er[4], ei[4];
    for (int j = 0; j < 4; ++j) {
        er[j] = e[j][0];
        ei[j] = e[j][1];
    }
    for (int g = 0; g < groups; ++g) {
        float32x4_t sr = vdupq_n_f32(0.0f);
        float32x4_t si = vdupq_n_f32(0.0f);
        for (int j = 0; j < 4; ++j) {
            const float32x4_t ver = vdupq_n_f32(er[j]);
            const float32x4_t vei = vdupq_n_f32(ei[j]);
            const float32x4x2_t xx = vld2q_f32(x + 2 * (4 * g + 3 - j));
            // e.re xr + e.im xi, e.im xr - e.re xi
            const float32x4_t pr = vaddq_f32(vmulq_f32(ver, xx.val[0]), vmulq_f32(vei, xx.val[1]));
            const float32x4_t pi = vsubq_f32(vmulq_f32(vei, xx.val[0]), vmulq_f32(ver, xx.val[1]));
            if (j == 0) {
                sr = pr;
                si = pi;
            } else {
                sr = vaddq_f32(sr, pr);
                si = vaddq_f32(si, pi);
            }
        }
        float32x4x2_t cc = vld2q_f32(c + 8 * g);
        cc.val[0] = vaddq_f32(cc.val[0], sr);
        cc.val[1] = vaddq_f32(cc.val[1], si);
        vst2q_f32(c + 8 * g, cc);
        for (int j = 0; j < 4; ++j) {
            er[j] = taper * er[j];
            ei[j] = taper * ei[j];
        }
    }
    for (int j = 0; j < 4; ++j) {
        e[j][0] = er[j];
        e[j][1] = ei[j];
    }
}

void whitenNeon(const float (*a)[2], const float *x, float (*w)[2], int groups) {
    for (int g = 0; g < groups; ++g) {
        float32x4x2_t acc;
        for (int m = 0; m < 4; ++m) {
            const float32x4_t ar = vdupq_n_f32(a[m][0]);
            const float32x4_t ai = vdupq_n_f32(a[m][1]);
            const float32x4x2_t xx = vld2q_f32(x + 2 * (4 * g + m));
            // a.re xr - a.im xi, a.re xi + a.im xr
            const float32x4_t pr = vsubq_f32(vmulq_f32(ar, xx.val[0]), vmulq_f32(ai, xx.val[1]));
            const float32x4_t pi = vaddq_f32(vmulq_f32(ar, xx.val[1]), vmulq_f32(ai, xx.val[0]));
            if (m == 0) {
                acc.val[0] = pr;
                acc.val[1] = pi;
            } else {
                acc.val[0] = vaddq_f32(acc.val[0], pr);
                acc.val[1] = vaddq_f32(acc.val[1], pi);
            }
        }
        vst2q_f32(&w[4 * g][0], acc);
    }
}

}  // namespace kvaec::kern

#endif
