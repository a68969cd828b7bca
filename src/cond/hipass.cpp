// Placeholder: not yet implemented.
#include "cond.h"

void aec_hipass(AEC_tDb *db, float *x) {
    (void)db;
    (void)x;
}

void aec_ssfilter(const float coef[4], float state[2], const float *in, float *out) {
    (void)coef;
    (void)state;
    (void)in;
    (void)out;
}
