// SSE2 kernel of the energy sums (x86-64): the four lane sums of
// kvaec::kern::sumSquaresScalar are the four lanes of one vector.
#include "../core/simd.h"

#if KVAEC_SIMD_SSE2
#include "nrg_kern.h"

namespace kvaec::kern {

// Out-of-line copy of the inline kernel (for the equivalence tests).
float sumSquaresSse2(const float *first, int nBands, int stride) {
    return sumSquaresSse2Inline(first, nBands, stride);
}

}  // namespace kvaec::kern

#endif
