// Placeholder: not yet implemented.
#include "adf.h"

void aec_copy_adf(float *dst, const float *src, int s) {
    (void)dst;
    (void)src;
    (void)s;
}

void aec_adf_epc_control(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_adf_merge(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_adf_control(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}
