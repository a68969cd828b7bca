// Placeholder: not yet implemented.
#include "adf.h"

void aec_exp_update(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_exp_full(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_exp_stepsize(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_exp_erl(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}
