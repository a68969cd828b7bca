// Run-time switch between the vector kernels and their scalar references.
#include "simd.h"

#if KVAEC_SIMD_ANY
namespace kvaec::simd {
bool g_scalarOnly = false;
}  // namespace kvaec::simd
#endif

#if KVAEC_SIMD_SSE2
namespace kvaec::simd {
bool g_noAvx2 = false;
}  // namespace kvaec::simd
#endif
