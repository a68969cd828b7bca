// Placeholder: not yet implemented.
#include "det.h"

void aec_dtd(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}
