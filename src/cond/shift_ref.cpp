// Placeholder: not yet implemented.
#include "cond.h"

void aec_shift_ref(AEC_tDb *db) {
    (void)db;
}
