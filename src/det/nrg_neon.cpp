// AArch64 NEON kernel of the energy sums: the four lane sums of
// kvaec::kern::sumSquaresScalar are the four lanes of one vector, combined
// as (lane0 + lane1) + (lane2 + lane3). Separate multiplies and adds (no
// fused multiply-add); IEEE arithmetic including subnormals.
#include "../core/simd.h"

#if KVAEC_SIMD_NEON
#include <arm_neon.h>

#include "nrg_kern.h"

namespace kvaec::kern {

float sumSquaresNeon(const float *first, int nBands, int stride) {
    float32x4_t acc = vdupq_n_f32(0.0f);
    for (int j = 0; j < nBands; ++j) {
        const float *p = first + j * stride;
        const float32x4_t v0 = vld1q_f32(p);
        const float32x4_t v1 = vld1q_f32(p + 4);
        acc = vaddq_f32(acc, vmulq_f32(v0, v0));
        acc = vaddq_f32(acc, vmulq_f32(v1, v1));
    }
    const float32x2_t pair = vpadd_f32(vget_low_f32(acc), vget_high_f32(acc));
    return vget_lane_f32(pair, 0) + vget_lane_f32(pair, 1);
}

}  // namespace kvaec::kern

#endif
