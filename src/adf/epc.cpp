// Placeholder: not yet implemented.
#include "adf.h"

void aec_epc_freq(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_epc_derle(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}
