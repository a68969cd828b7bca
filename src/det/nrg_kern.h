// Sum of squares of the energy stage, as a scalar reference and, where
// built, a four-lane vector kernel with bit-identical results.
// Internal to the library (not exported).
#ifndef KVAEC_DET_NRG_KERN_H
#define KVAEC_DET_NRG_KERN_H

namespace kvaec::kern {

// Sum of squares of nBands runs of 8 floats; run j starts at first + j *
// stride. Four lane sums, lane l taking floats l and l + 4 of every run in
// turn, combined as (lane0 + lane1) + (lane2 + lane3). No runs gives 0.
float sumSquaresScalar(const float *first, int nBands, int stride);
float sumSquaresSse2(const float *first, int nBands, int stride);
float sumSquaresNeon(const float *first, int nBands, int stride);

}  // namespace kvaec::kern

#include "../core/simd.h"
#if KVAEC_SIMD_SSE2
#include <emmintrin.h>

namespace kvaec::kern {

// The SSE2 kernel in the header so that the energy stage inlines it (the
// sums are one or two bands long; a call costs as much as the work): the
// four lane sums of sumSquaresScalar are the four lanes of one vector.
inline float sumSquaresSse2Inline(const float *first, int nBands, int stride) {
    __m128 acc = _mm_setzero_ps();
    for (int j = 0; j < nBands; ++j) {
        const float *p = first + j * stride;
        const __m128 v0 = _mm_loadu_ps(p);
        const __m128 v1 = _mm_loadu_ps(p + 4);
        acc = _mm_add_ps(acc, _mm_mul_ps(v0, v0));
        acc = _mm_add_ps(acc, _mm_mul_ps(v1, v1));
    }
    // (lane0 + lane1) + (lane2 + lane3)
    const __m128 sw = _mm_shuffle_ps(acc, acc, _MM_SHUFFLE(2, 3, 0, 1));
    const __m128 pair = _mm_add_ps(acc, sw);  // lanes 0 and 2: lane0+lane1, lane2+lane3
    return _mm_cvtss_f32(_mm_add_ss(pair, _mm_movehl_ps(pair, pair)));
}

}  // namespace kvaec::kern
#endif

#endif
