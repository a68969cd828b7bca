// Placeholder: not yet implemented.
#include "fb.h"

void aec_fb_rcv_analysis(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    (void)db;
    (void)sc;
    (void)rin;
}

void aec_fb_rcv_synthesis(AEC_tDb *db, AEC_tSc *sc, float *rin) {
    (void)db;
    (void)sc;
    (void)rin;
}
