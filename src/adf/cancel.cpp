// Placeholder: not yet implemented.
#include "adf.h"

void aec_cancel_band(const float *ref, const float *coef, float *acc, int32_t len) {
    (void)ref;
    (void)coef;
    (void)acc;
    (void)len;
}

void aec_cancel_slow(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_cancel_reg2(AEC_tDb *db, AEC_tSc *sc, unsigned j) {
    (void)db;
    (void)sc;
    (void)j;
}
