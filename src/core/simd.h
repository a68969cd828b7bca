// Selection of the vector kernels of the inner loops.
//
// Every vector kernel has a scalar reference that is always built and gives
// bit-identical results (same operations in the same order per lane, no
// fused multiply-add). Which one runs is decided here:
//   - at build time: KVAEC_FORCE_SCALAR (CMake option of the same name)
//     leaves only the scalar code; otherwise SSE2 kernels are built on
//     x86-64 and NEON kernels on AArch64 (both always available there, and
//     both IEEE-compliant for subnormal numbers; 32-bit ARM NEON flushes
//     subnormals to zero and is therefore never used);
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

#if !defined(KVAEC_FORCE_SCALAR) && defined(__aarch64__) && defined(__ARM_NEON)
#define KVAEC_SIMD_NEON 1
#else
#define KVAEC_SIMD_NEON 0
#endif

#define KVAEC_SIMD_ANY (KVAEC_SIMD_SSE2 || KVAEC_SIMD_NEON)

namespace kvaec::simd {

// True when vector kernels were built into this library.
constexpr bool kBuilt = KVAEC_SIMD_ANY != 0;

// Routes every kernel call to its scalar reference (true) or to the vector
// kernel where one was built (false, the default). Without vector kernels
// there is nothing to switch and no flag in RAM.
#if KVAEC_SIMD_ANY
extern bool g_scalarOnly;
inline void setScalar(bool on) { g_scalarOnly = on; }
inline bool vectorOn() { return !g_scalarOnly; }
#else
inline void setScalar(bool) {}
inline bool vectorOn() { return false; }
#endif

#if KVAEC_SIMD_SSE2
// AVX2 kernels (cancellation, the slow bank's four-sub-sample errors, the
// tapered and block updates, the whitening filter) run where the processor
// and the operating system support AVX2, unless switched off here (tests
// compare them with the SSE2 path). They never use FMA or AVX-512.
extern bool g_noAvx2;
inline void setAvx2(bool allowed) { g_noAvx2 = !allowed; }
inline bool avx2On() { return !g_noAvx2 && __builtin_cpu_supports("avx2"); }
#else
inline void setAvx2(bool) {}
inline bool avx2On() { return false; }
#endif

}  // namespace kvaec::simd

#endif
