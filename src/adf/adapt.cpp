// Placeholder: not yet implemented.
#include "adf.h"

int aec_adf_adapt(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
    return 0;
}

void aec_adapt1(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_adapt2(AEC_tDb *db, AEC_tSc *sc, unsigned j) {
    (void)db;
    (void)sc;
    (void)j;
}

void aec_adapt4(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}
