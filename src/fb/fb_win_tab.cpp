// Placeholder tables until the designed ones land.
#include "fb.h"
const float aecfb_afSndAnaWin[240] = {};
const float aecfb_afSndSynWin[240] = {};
const float aecfb_afRcvAnaWin[240] = {};
const float aecfb_afRcvSynWin[240] = {};
const float aecfb_afRefAnaWin[480] = {};
