// Placeholder: not yet implemented.
#include "eq.h"

void aec_spkeq(AEC_tDb *db, AEC_tSc *sc, float *x) {
    (void)db;
    (void)sc;
    (void)x;
}

void aecx_spkeq(float *x) { aec_spkeq(&AEC_Db, &AEC_Sc, x); }
