// Placeholder: not yet implemented.
#include "td.h"

void aec_dec4k_frsz(float *hist, float *work, float *out, const float *in) {
    (void)hist;
    (void)work;
    (void)out;
    (void)in;
}

void aec_dec4k_bands(float *hist, float *work, float *out, const float *in) {
    (void)hist;
    (void)work;
    (void)out;
    (void)in;
}
