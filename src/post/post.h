// Residual suppression: non-linear processor, comfort noise, noise reduction.
#ifndef KVAEC_POST_H
#define KVAEC_POST_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

KVAEC_API void aec_nlp(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nlp_get_coefs(AEC_tDb *db, AEC_tSc *sc);
// Multiply each strip's bands of err (send) and rin (receive) sub-band frames by its gains.
KVAEC_API void aec_nlp_att(float *err, float *rin, AEC_tSc *sc);
KVAEC_API void aec_nlp_mix_noise(AEC_tDb *db, AEC_tSc *sc);
// Add uniform noise of peak amp to 2 n floats of x; advances *seed once per float; returns amp / 32768.
KVAEC_API float aec_nlp_add_noise(uint32_t *seed, float *x, int n, float amp);

KVAEC_API void aec_nr(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nr_nse(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nr_nrg(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nr_nrgavr(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nr_est(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nr_coef(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nr_prior(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nr_att(AEC_tDb *db, AEC_tSc *sc);

#ifdef __cplusplus
}
#endif

#endif
