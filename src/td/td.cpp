// Placeholder: not yet implemented.
#include "td.h"

float aec_td(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    (void)db;
    (void)sc;
    (void)rin;
    return 0.0f;
}

void aec_td_sr(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    (void)db;
    (void)sc;
    (void)rin;
}

void aec_td_wola(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_td_rfft4k(AEC_tSc *sc) {
    (void)sc;
}

float aec_td_find_max(float *spec, float *level) {
    (void)spec;
    (void)level;
    return 0.0f;
}

float aec_td_test(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
    return 0.0f;
}
