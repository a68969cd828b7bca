// Placeholder: not yet implemented.
#include "post.h"

float aec_nlp_add_noise(uint32_t *seed, float *x, int n, float amp) {
    (void)seed;
    (void)x;
    (void)n;
    (void)amp;
    return 0.0f;
}
