// Echo canceller core: cancellation, adaptation, step sizes, merge, echo-path change.
#ifndef KVAEC_ADF_H
#define KVAEC_ADF_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

// acc -= sum coef[k] * ref[k] over the first 4 * (len / 4) complex taps, group by group.
KVAEC_API void aec_cancel_band(const float *ref, const float *coef, float *acc, int32_t len);
KVAEC_API void aec_cancel_slow(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_cancel_reg2(AEC_tDb *db, AEC_tSc *sc, unsigned j);

KVAEC_API int aec_adf_adapt(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_adapt1(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_adapt2(AEC_tDb *db, AEC_tSc *sc, unsigned j);
KVAEC_API void aec_adapt4(AEC_tDb *db, AEC_tSc *sc);

KVAEC_API void aec_exp_update(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_exp_full(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_exp_stepsize(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_exp_erl(AEC_tDb *db, AEC_tSc *sc);

// Copy the coefficients of strip s from store src to store dst.
KVAEC_API void aec_copy_adf(float *dst, const float *src, int s);
KVAEC_API void aec_adf_epc_control(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_adf_merge(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_epc_freq(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_epc_derle(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_adf_control(AEC_tDb *db, AEC_tSc *sc);

#ifdef __cplusplus
}
#endif

#endif
