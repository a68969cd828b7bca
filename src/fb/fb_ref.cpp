// Placeholder: not yet implemented.
#include "fb.h"

void aec_fb_ref_analysis(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    (void)db;
    (void)sc;
    (void)rin;
}
