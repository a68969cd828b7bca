// Placeholder: not yet implemented.
#include "cond.h"

void aec_loopback(AEC_tDb *db, float *sin) {
    (void)db;
    (void)sin;
}
