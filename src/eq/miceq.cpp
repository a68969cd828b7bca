// Placeholder: not yet implemented.
#include "eq.h"

void aec_miceq(AEC_tDb *db, AEC_tSc *sc, float *x) {
    (void)db;
    (void)sc;
    (void)x;
}

void aecx_miceq(float *x) { aec_miceq(&AEC_Db, &AEC_Sc, x); }
