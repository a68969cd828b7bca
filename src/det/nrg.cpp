// Placeholder: not yet implemented.
#include "det.h"

void aec_nrg_in(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_nrg_erf(AEC_tSc *sc) {
    (void)sc;
}

void aec_nrg_blk(const float *src, float *out) {
    (void)src;
    (void)out;
}

void aec_erl_sb(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_erle_sb(AEC_tSc *sc) {
    (void)sc;
}

void aec_erle_sb_avrg(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}
