// Frame driver, lifecycle, strip tables and numeric helpers.
#ifndef KVAEC_CORE_H
#define KVAEC_CORE_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

// Power (>= 0) to level in dB: 3.01 e + 6.02 m - 2.88 with x + 1e-12 = m 2^e.
KVAEC_API float aec_utl_en2log(float x);
// aec_utl_en2log on a[0..n-1] in place; n <= 0 does nothing.
KVAEC_API void aec_utl_en2log_arr(float *a, int n);
// dB to amplitude factor, about 2^(d / 6.02).
KVAEC_API float aec_utl_exp(float d);
// Copy n 32-bit words in ascending order; n < 1 does nothing; no overlap.
KVAEC_API void aec_cpy(uint32_t *dst, const uint32_t *src, int n);
// Clear n 32-bit words.
KVAEC_API void aec_memclr(void *p, unsigned n);
// Number of words among p[0..n-1] whose exponent field is all ones.
KVAEC_API unsigned aec_isnaninf(const uint32_t *p, int n);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <cstddef>
namespace kvaec {
// Word ranges of AEC_Db computed from field positions (pointer size differs by target).
constexpr std::size_t kDbStateStart = offsetof(AEC_tDb, afRefPowAdf);
constexpr unsigned kDbBistWords =
    unsigned((offsetof(AEC_tDb, fRinPeakDb) + sizeof(float) - kDbStateStart) / 4);
constexpr unsigned kDbResetWords = unsigned((offsetof(AEC_tDb, tCfg) - kDbStateStart) / 4);
constexpr unsigned kScBistWords = 2449;

// The frame driver's own computations (internal; reachable by the tests).
// Receive peak level meter on the 160 receive samples.
void rinPeakMeter(AEC_tDb *db, const float *rin);
// Clipping step of a send frame in dB: -6 (no clipping) .. 30.
float clipStep(const float *sin);
// Clipping accumulator update from fClipStepDb and fExpLevelDb.
void clipAccumulate(AEC_tDb *db, const AEC_tSc *sc);
}  // namespace kvaec
#endif

#endif
