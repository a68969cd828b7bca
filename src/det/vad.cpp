// Placeholder: not yet implemented.
#include "det.h"

void aec_vad_err_sb(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_vad_rin_sb(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_vad_rin_fb(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}
