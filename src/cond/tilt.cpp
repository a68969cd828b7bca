// Placeholder: not yet implemented.
#include "cond.h"

void aec_in_corr(float *state, float *x) {
    (void)state;
    (void)x;
}

void aec_out_corr(float *state, float *x) {
    (void)state;
    (void)x;
}
