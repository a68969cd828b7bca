// Selection of the vector kernels of the inner loops.
//
// Every vector kernel has a scalar reference that is always built and gives
// bit-identical results (same operations in the same order per lane, no
// fused multiply-add). Which one runs is decided here:
//   - at build time: KVAEC_FORCE_SCALAR (CMake option of the same name)
//     leaves only the scalar code; otherwise SSE2 kernels are built on
//     x86-64 (always available there);
//   - at run time: kvaec::simd::setScalar(true) routes every kernel call to
//     its scalar reference (used by the equivalence tests).
// Not exported from the shared library (no KVAEC_API).
#ifndef KVAEC_CORE_SIMD_H
#define KVAEC_CORE_SIMD_H

#if !defined(KVAEC_FORCE_SCALAR) && defined(__SSE2__) && (defined(__x86_64__) || defined(_M_X64))
#define KVAEC_SIMD_SSE2 1
#else
#define KVAEC_SIMD_SSE2 0
#endif

namespace kvaec::simd {

// True when vector kernels were built into this library.
constexpr bool kBuilt = KVAEC_SIMD_SSE2 != 0;

// Routes every kernel call to its scalar reference (true) or to the vector
// kernel where one was built (false, the default). Without vector kernels
// there is nothing to switch and no flag in RAM.
#if KVAEC_SIMD_SSE2
extern bool g_scalarOnly;
inline void setScalar(bool on) { g_scalarOnly = on; }
inline bool vectorOn() { return !g_scalarOnly; }
#else
inline void setScalar(bool) {}
inline bool vectorOn() { return false; }
#endif

}  // namespace kvaec::simd

#endif
