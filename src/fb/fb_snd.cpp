// Placeholder: not yet implemented.
#include "fb.h"

void aec_fb_snd_analysis(AEC_tDb *db, AEC_tSc *sc, const float *sin) {
    (void)db;
    (void)sc;
    (void)sin;
}

void aec_fb_snd_synthesis(AEC_tDb *db, AEC_tSc *sc, float *sin) {
    (void)db;
    (void)sc;
    (void)sin;
}
