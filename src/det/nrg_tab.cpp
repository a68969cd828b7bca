// Placeholder table.
#include "det.h"
const float aecnrg_aCorrTab[AEC_NSTRIPS] = {};
