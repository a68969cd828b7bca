// Tone detection: decimation to 4 kHz and narrow-peak search.
#ifndef KVAEC_TD_H
#define KVAEC_TD_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

extern const float aectd_afDecCoef[40];   // decimation low-pass, symmetric
extern const float aectd_afWin[480];      // tone-detector analysis window

// 160 in -> 40 out at 4 kHz; hist: 40 floats (updated); work >= 200 floats.
KVAEC_API void aec_dec4k_frsz(float *hist, float *work, float *out, const float *in);
// 40 in -> 10 out; work >= 80 floats.
KVAEC_API void aec_dec4k_bands(float *hist, float *work, float *out, const float *in);

KVAEC_API float aec_td(AEC_tDb *db, AEC_tSc *sc, const float *rin);
KVAEC_API void aec_td_sr(AEC_tDb *db, AEC_tSc *sc, const float *rin);
KVAEC_API void aec_td_wola(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_td_rfft4k(AEC_tSc *sc);
KVAEC_API float aec_td_find_max(float *spectrum, float *level);
KVAEC_API float aec_td_test(AEC_tDb *db, AEC_tSc *sc);

#ifdef __cplusplus
}
#endif

#endif
