// Placeholder tables.
#include "td.h"
const float aectd_afDecCoef[40] = {};
const float aectd_afWin[480] = {};
