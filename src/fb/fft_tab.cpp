// Placeholder tables until the generated ones land.
#include "fb.h"
const float aecfb_afTwid40[32][2] = {};
const float aecfb_afTwid80[64][2] = {};
const float aecfb_afSplit80[40][4] = {};
const float aecfb_afSplit160[80][4] = {};
